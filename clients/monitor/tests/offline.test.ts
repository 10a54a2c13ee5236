import { createHash } from "node:crypto";
import { cpSync, mkdtempSync, readdirSync, readFileSync, rmSync, writeFileSync } from "node:fs";
import { createServer, type Server } from "node:http";
import type { AddressInfo } from "node:net";
import { tmpdir } from "node:os";
import { extname, join } from "node:path";
import type { BrowserContext, Page } from "playwright-core";
import { afterAll, beforeAll, expect, onTestFinished, test } from "vitest";
import { dist, startBrowser, types } from "./page.js";

/** A server of the page that can go away, come back and have another version, and counts what it is asked for. */
class Site {
    readonly folder = mkdtempSync(join(tmpdir(), "vorbel-page-"));
    readonly asked: string[] = [];
    #server: Server | undefined;
    #port = 0;

    constructor() {
        cpSync(dist, this.folder, { recursive: true });
    }

    get url(): string {
        return `http://127.0.0.1:${this.#port}/`;
    }

    async start(): Promise<void> {
        this.#server = createServer((request, response) => {
            const { pathname } = new URL(request.url!, "http://here");
            this.asked.push(pathname);
            try {
                const content = readFileSync(join(this.folder, pathname === "/" ? "index.html" : pathname));
                response.setHeader("content-type", types[extname(pathname)] ?? "text/html").end(content);
            } catch {
                response.writeHead(404).end();
            }
        });
        await new Promise<void>((listening) => this.#server!.listen(this.#port, "127.0.0.1", listening));
        this.#port = (this.#server.address() as AddressInfo).port;
    }

    async stop(): Promise<void> {
        this.#server?.closeAllConnections();
        await new Promise((closed) => this.#server?.close(closed));
    }

    /** Another version: every file has another content, and those that are named by it another name. */
    upgrade(title: string): void {
        const names = readdirSync(join(this.folder, "assets"));
        const renamed = (text: string) => names.reduce((text, name) => text.replaceAll(name, later(name)), text);
        for (const name of names) {
            const path = join(this.folder, "assets", name);
            const content = renamed(readFileSync(path, "utf8"));
            rmSync(path);
            writeFileSync(join(this.folder, "assets", later(name)), content);
        }
        const page = join(this.folder, "index.html");
        writeFileSync(
            page,
            renamed(readFileSync(page, "utf8")).replace(/<title>.*<\/title>/, `<title>${title}</title>`),
        );
        const worker = join(this.folder, "sw.js");
        writeFileSync(worker, this.#listed(renamed(readFileSync(worker, "utf8")), title));
    }

    /** The service worker with what the files are now. */
    #listed(worker: string, title: string): string {
        const sums = JSON.parse(/^const FILES=(\{.*?\})/.exec(worker)![1]!) as Record<string, string>;
        for (const file of Object.keys(sums)) sums[file] = sumOf(readFileSync(join(this.folder, file)));
        const version = title.replace(/\W/g, "");
        return worker.replace(/^const FILES=\{.*?\},VERSION="\w+"/, () => {
            return `const FILES=${JSON.stringify(sums)},VERSION="${version}"`;
        });
    }
}

const later = (name: string) => name.replace(/.(\.\w+)$/, "~$1");
const sumOf = (content: Uint8Array) => `sha256-${createHash("sha256").update(content).digest("base64")}`;

let browser: BrowserContext;
let endBrowser: () => Promise<void>;
beforeAll(async () => {
    ({ browser, end: endBrowser } = await startBrowser());
});
afterAll(() => endBrowser());

/** A tab with the page of a new site, after the files have been kept. There is no daemon. */
async function visited(): Promise<{ site: Site; page: Page }> {
    const site = new Site();
    await site.start();
    onTestFinished(async () => {
        await site.stop();
        rmSync(site.folder, { recursive: true });
    });
    const page = await newTab(site);
    await page.evaluate(() => navigator.serviceWorker.ready);
    await page.waitForFunction(() => navigator.serviceWorker.controller);
    return { site, page };
}

async function newTab(site: Site, query = ""): Promise<Page> {
    const page = await browser.newPage();
    onTestFinished(() => page.close());
    await page.goto(site.url + query);
    return page;
}

const notConnected = (page: Page) => page.locator(".state").getByText("Not connected").waitFor();

/** Waits until another version has come, whole, and waits for its turn. */
async function newVersionWaits(page: Page): Promise<void> {
    await page.waitForFunction(async () => (await navigator.serviceWorker.getRegistration())?.waiting);
}

/** Starts the page again until it is of a version: the worker that answers hears seconds late that another one waits. */
async function becomes(version: string, start: () => Promise<void>, page: () => Page): Promise<void> {
    const title = async () => {
        await start();
        await notConnected(page());
        return page().title();
    };
    await expect.poll(title, { interval: 500, timeout: 75_000 }).toBe(version);
}

test("starts without its server, says that it is not connected, and can do all that it can", async () => {
    const { site, page } = await visited();
    await site.stop();
    await page.reload();
    await notConnected(page);
    expect(await page.title()).toBe("Vorbel monitor");
    expect(await page.locator("header").evaluate((element) => getComputedStyle(element).display)).toBe("flex");
    await page.getByRole("button", { name: "Record", exact: true }).click();
    await page.getByText("Recording since").waitFor();
    await page.goto(`${site.url}?locked`);
    await page.getByRole("button", { name: "Locked" }).waitFor();
    await page.goto(`${site.url}index.html`);
    await notConnected(page);
});

test("keeps its own files and nothing else", async () => {
    const { site, page } = await visited();
    await page.goto(`${site.url}?schema=machine.schema.json`);
    await page.evaluate(() => fetch("./manifest.json?x"));
    const kept = await page.evaluate(async () => {
        const names = await caches.keys();
        const requests = await Promise.all(names.map(async (name) => (await caches.open(name)).keys()));
        return requests.flat().map(({ url }) => url);
    });
    const files = readdirSync(site.folder, { recursive: true, withFileTypes: true })
        .filter((entry) => entry.isFile() && entry.name !== "sw.js")
        .map((entry) => new URL(join(entry.parentPath.slice(site.folder.length + 1), entry.name), site.url).href);
    expect(kept.sort()).toEqual(files.sort());
    expect(site.asked).toContain("/machine.schema.json");
});

test("at the start after a new version has come, it is the new one, as a whole", async () => {
    const { site, page } = await visited();
    site.upgrade("Version 2");
    site.asked.length = 0;
    await page.reload();
    await notConnected(page);
    expect(await page.title()).toBe("Vorbel monitor");
    await newVersionWaits(page);
    expect(site.asked.filter((path) => path.startsWith("/assets/") && !path.includes("~"))).toEqual([]);
    await becomes(
        "Version 2",
        async () => void (await page.reload()),
        () => page,
    );
    await notConnected(page);
    await site.stop();
    await page.reload();
    await notConnected(page);
    expect(await page.title()).toBe("Version 2");
    await page.getByRole("button", { name: "Record", exact: true }).click();
    await page.getByText("Recording since").waitFor();
});

test("takes no half of a new version", async () => {
    const { site, page } = await visited();
    const old = readFileSync(join(site.folder, "index.html"));
    site.upgrade("Version 2");
    writeFileSync(join(site.folder, "index.html"), old); // the server is being upgraded
    await page.reload();
    await expect.poll(() => site.asked.filter((path) => path === "/icon.svg").length).toBeGreaterThan(1);
    await page.waitForFunction(async () => !(await navigator.serviceWorker.getRegistration())!.installing);
    await page.reload();
    await notConnected(page);
    expect(await page.title()).toBe("Vorbel monitor");
    expect(await page.evaluate(async () => (await navigator.serviceWorker.getRegistration())!.waiting)).toBeNull();
});

test("a page that runs has all its parts, also while another one is of a newer version", async () => {
    const { site, page } = await visited();
    site.upgrade("Version 2");
    await page.evaluate(async () => (await navigator.serviceWorker.getRegistration())!.update());
    await newVersionWaits(page);
    let other: Page | undefined;
    const openOther = async () => {
        await other?.close();
        other = await newTab(site);
    };
    await becomes("Version 2", openOther, () => other!);
    await page.getByRole("button", { name: "Record", exact: true }).click();
    await page.getByText("Recording since").waitFor();
});

test("while several pages run, none of them changes", async () => {
    const { site, page } = await visited();
    const other = await newTab(site);
    site.upgrade("Version 2");
    await page.evaluate(async () => (await navigator.serviceWorker.getRegistration())!.update());
    await newVersionWaits(page);
    await other.reload();
    await notConnected(other);
    expect(await other.title()).toBe("Vorbel monitor");
});

test("of versions long ago nothing stays", async () => {
    const { site, page } = await visited();
    for (const version of ["Version 2", "Version 3"]) {
        site.upgrade(version);
        await page.evaluate(async () => (await navigator.serviceWorker.getRegistration())!.update());
        await newVersionWaits(page);
        await becomes(
            version,
            async () => void (await page.reload()),
            () => page,
        );
    }
    const names = () => page.evaluate(() => caches.keys());
    await expect.poll(names).toEqual([`${site.url} Version2`, `${site.url} Version3`]);
});

test("can be installed", async () => {
    const { site, page } = await visited();
    const session = await browser.newCDPSession(page);
    const { errors, data } = await session.send("Page.getAppManifest");
    expect(errors).toEqual([]);
    expect((await session.send("Page.getInstallabilityErrors")).installabilityErrors).toEqual([]);
    const { icons, start_url } = JSON.parse(data!) as { icons: { src: string; sizes: string }[]; start_url: string };
    expect(new URL(start_url, site.url).href).toBe(site.url);
    for (const { src, sizes } of icons) {
        const size = await page.evaluate(async (src) => {
            const image = new Image();
            image.src = src;
            await image.decode();
            return `${image.naturalWidth}x${image.naturalHeight}`;
        }, src);
        if (sizes !== "any") expect(size).toBe(sizes);
    }
});

test("a notification that is pressed leads to the page, or opens it", async () => {
    const { site } = await visited();
    const worker = browser.serviceWorkers().find((each) => each.url().startsWith(site.url))!;
    const pressed = (open: number) =>
        worker.evaluate(async (open) => {
            const told: string[] = [];
            const pages = Array.from({ length: open }, () => ({ focus: () => Promise.resolve(told.push("shown")) }));
            const { clients } = globalThis as any;
            clients.matchAll = () => Promise.resolve(pages);
            clients.openWindow = (url: string) => Promise.resolve(told.push(url));
            const done: Promise<unknown>[] = [];
            const event = Object.assign(new Event("notificationclick"), {
                notification: { close: () => told.push("closed") },
                waitUntil: (each: Promise<unknown>) => done.push(each),
            });
            globalThis.dispatchEvent(event);
            await Promise.all(done);
            return told;
        }, open);
    expect(await pressed(2)).toEqual(["closed", "shown"]);
    expect(await pressed(0)).toEqual(["closed", site.url]);
});
