/**
 * Keeps the page's files, so that it starts without its server: as a whole, one version at a time. It becomes sw.js,
 * with the list of files that the build made.
 */

/** Of the files, by their names, what the Fetch standard calls their integrity; of all of them together, a name. */
declare const FILES: Record<string, string>;
declare const VERSION: string;
export {};

type ExtendableEvent = Event & { waitUntil(done: Promise<unknown>): void };
type FetchEvent = ExtendableEvent & { request: Request; respondWith(answer: Promise<Response>): void };
type NotificationEvent = ExtendableEvent & { notification: Notification };
type Page = { focus(): Promise<unknown> };
type Worker = {
    registration: ServiceWorkerRegistration;
    clients: { claim(): Promise<void>; matchAll(): Promise<Page[]>; openWindow(url: string): Promise<unknown> };
    skipWaiting(): Promise<void>;
    addEventListener(type: "install" | "activate", listen: (event: ExtendableEvent) => void): void;
    addEventListener(type: "message", listen: (event: ExtendableEvent & { data: unknown }) => void): void;
    addEventListener(type: "fetch", listen: (event: FetchEvent) => void): void;
    addEventListener(type: "notificationclick", listen: (event: NotificationEvent) => void): void;
};
const worker = globalThis as unknown as Worker;

const home = worker.registration.scope;
/** The server may hold other pages, with caches of their own. */
const own = `${home} `;
const cacheName = own + VERSION;
const index = new URL("index.html", home).href;
/** What is in here has another name in each version that has it otherwise. */
const parts = new URL("assets/", home).href;
const urls = new Map(Object.entries(FILES).map(([file, integrity]) => [new URL(file, home).href, integrity]));

worker.addEventListener("install", (event) => event.waitUntil(keepFiles()));
worker.addEventListener("activate", (event) => event.waitUntil(forgetOld().then(() => worker.clients.claim())));
worker.addEventListener("message", (event) => {
    if (event.data === "take over") event.waitUntil(worker.skipWaiting());
});
worker.addEventListener("notificationclick", (event) => {
    event.notification.close();
    event.waitUntil(showPage());
});
worker.addEventListener("fetch", (event) => {
    const { method, mode, url } = event.request;
    if (method !== "GET") return;
    const { origin, pathname } = new URL(url);
    const asked = origin + pathname; // what follows is the page's own business
    if (mode === "navigate" && (asked === home || asked === index)) event.respondWith(start());
    else if (urls.has(asked)) event.respondWith(answer(asked));
    else if (asked.startsWith(parts)) event.respondWith(answerOlder(event.request));
});

/** The page that is open, or else a new one. */
async function showPage(): Promise<void> {
    const [page] = await worker.clients.matchAll();
    await (page ? page.focus() : worker.clients.openWindow(home));
}

/** All files or none: one that is not of this version, because the server has a newer one by now, is no reason to begin. */
async function keepFiles(): Promise<void> {
    const cache = await caches.open(cacheName);
    await cache.addAll(Array.from(urls, ([url, integrity]) => new Request(url, { integrity, cache: "no-cache" })));
}

/** All but this version and the one before, which pages that are open may still load parts of. */
async function forgetOld(): Promise<void> {
    const old = (await caches.keys()).filter((name) => name.startsWith(own) && name !== cacheName);
    await Promise.all(old.slice(0, -1).map((name) => caches.delete(name)));
}

/**
 * Where a newer version waits, the page is asked for once more, and that one answers. One page may run meanwhile: most
 * often it is the one that is loaded again.
 */
async function start(): Promise<Response> {
    const { waiting } = worker.registration;
    if (!waiting || (await worker.clients.matchAll()).length > 1) return answer(index);
    waiting.postMessage("take over");
    const nothing = '<link rel="icon" href="data:," />';
    return new Response(nothing, { headers: { "Content-Type": "text/html", Refresh: "0" } });
}

/** From this version alone: not all files have another name in another version. */
async function answer(url: string): Promise<Response> {
    const kept = await (await caches.open(cacheName)).match(url);
    return kept ?? fetch(url);
}

/** A part of a version that an open page still runs, and the server may have no longer. */
async function answerOlder(request: Request): Promise<Response> {
    const kept = await caches.match(request);
    return kept ?? fetch(request);
}
