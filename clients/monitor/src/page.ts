import type { Memory, Surroundings } from "./model/session";
import { ArrivalSocket } from "./socket/socket";

/** What the page remembers from one visit to the next; nothing where the browser does not let it. */
export const memory: Memory = {
    load(name) {
        try {
            return localStorage.getItem(`vorbel.${name}`) ?? undefined;
        } catch {
            return undefined;
        }
    },
    save(name, text) {
        try {
            localStorage.setItem(`vorbel.${name}`, text);
        } catch {
            // It is only a convenience.
        }
    },
};

/** What the page's URL and its server have to say. */
export function surroundings(): Surroundings {
    const { search } = window.location;
    return { home: home(), query: new URLSearchParams(search), memory, read, forgetLink, WebSocket: ArrivalSocket };
}

/** After a reload, the page shows what was changed since, and not the view of a link again. */
function forgetLink(): void {
    const url = new URL(window.location.href);
    for (const name of ["view", "plot"]) url.searchParams.delete(name);
    history.replaceState(history.state, "", url);
}

/** The page's own address, without the password that it may hold. */
export function pageUrl(): string {
    const { origin, pathname } = window.location;
    return origin + pathname;
}

/** Where a daemon is to be expected when nobody said: where the page came from. */
function home(): string {
    const { protocol, hostname, host } = window.location;
    // A page that came through TLS may not open a plain connection; its server is the one to pass it on.
    if (protocol === "https:") return `wss://${host}/vorbel`;
    return hostname || "127.0.0.1";
}

/** The text of a file that lies beside the page on its server. */
async function read(name: string): Promise<string> {
    if (new URL(name, window.location.href).origin !== window.location.origin) {
        throw new Error("it does not lie on the page's own server");
    }
    const response = await fetch(name);
    if (!response.ok) throw new Error(`the page's server answers ${response.status}`);
    return response.text();
}

/** What a history service answers. */
export async function askHistory(url: string): Promise<string> {
    const response = await fetch(url).catch(() => undefined);
    if (!response) throw new Error("no history service answers");
    if (response.status === 404) throw new Error("there is no history service");
    if (!response.ok) throw new Error(`the history service answers ${response.status}`);
    return response.text();
}

/** Lets the page start without its server from now on, where the browser does so: for pages from here or over HTTPS. */
export function keepOffline(): void {
    const { serviceWorker } = navigator;
    if (!import.meta.env.PROD || !serviceWorker) return;
    const worker = new URL("./sw.js", pageUrl());
    const ignore = () => undefined; // the server is away, or has none; the page is there already
    // The browser has not been asked for the password that the server may want, and connections cannot ask for it.
    if (serviceWorker.controller) fetch(worker, { method: "HEAD", cache: "no-store" }).catch(ignore);
    window.addEventListener("load", () => {
        serviceWorker.register(worker, { updateViaCache: "none" }).catch(ignore);
    });
}
