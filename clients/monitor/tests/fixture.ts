import { mkdirSync } from "node:fs";
import type { Server } from "node:http";
import { join, resolve } from "node:path";
import { fileURLToPath } from "node:url";
import type { BrowserContext, Locator, Page } from "playwright-core";
import { afterAll, afterEach, beforeAll, beforeEach, expect } from "vitest";
import { Machine, machineSchema, type Link } from "../../js/tests/machine.js";
import { serve, startBrowser } from "./page.js";

/** What every test of the page finds: a simulated machine, the daemon, a browser that shows the page. */

const screenshots = resolve(fileURLToPath(import.meta.url), "../../../../docs/screenshots");
const keepScreenshots = Boolean(process.env["VORBEL_SCREENSHOTS"]);

export let machine: Machine;
export let url: string;
export let browser: BrowserContext;
export let page: Page;
let server: Server;
let endBrowser: () => Promise<void>;
/** What the page asked for from anywhere but its own server and the daemon, and what it complained of. */
let strange: string[];

beforeAll(async () => {
    ({ server, url } = await serve());
    ({ browser, end: endBrowser } = await startBrowser());
});
afterAll(async () => {
    await endBrowser();
    server.close();
});

beforeEach(async () => {
    await startMachine();
    strange = [];
    page = await newPage();
    await page.evaluate(() => localStorage.clear());
    await page.reload();
});
afterEach(async () => {
    await page.close();
    await machine.stop();
    expect(strange).toEqual([]);
});

/** The machine and its daemon; one that runs has to be stopped before. */
export async function startMachine(link?: Link): Promise<void> {
    machine = new Machine(link);
    machine.play();
    await machine.startDaemon();
}

/** A tab with the page, whose complaints fail the test; `query` is the part of its address from "?" on. */
export async function newPage(query = ""): Promise<Page> {
    const tab = await browser.newPage();
    tab.on("request", (request) => {
        if (!request.url().startsWith(url) && !/^(data|blob):/.test(request.url())) strange.push(request.url());
    });
    tab.on("pageerror", (error) => strange.push(String(error)));
    tab.on("console", (message) => {
        // While the daemon is away, and of what a link names wrongly.
        const expected =
            message.text().startsWith("WebSocket connection to") || message.location().url.includes("missing");
        if (message.type() === "error" && !expected) strange.push(message.text());
    });
    await tab.goto(url + query);
    return tab;
}

/** When a tab is next loaded, its files come from the server, whatever a service worker has kept. */
export async function keepNothing(tab: Page): Promise<void> {
    await page.evaluate(async () => (await navigator.serviceWorker.ready).unregister());
    await tab.addInitScript(() => Object.defineProperty(navigator, "serviceWorker", { value: undefined }));
}

export async function shoot(name: string): Promise<void> {
    if (!keepScreenshots) return;
    mkdirSync(screenshots, { recursive: true });
    await page.screenshot({ path: join(screenshots, `${name}.png`) });
}

export const row = (path: string) => page.locator(`.row:has(.name[data-path=${JSON.stringify(path)}])`);
export const value = (path: string) => row(path).locator(".value");
export const connected = () => page.locator(".state").getByText("Connected", { exact: true }).waitFor();

export async function openSchema(): Promise<void> {
    await page.getByRole("button", { name: "Schema", exact: true }).click();
}

export async function sendSchema(schema: object = machineSchema): Promise<void> {
    await connected();
    await openSchema();
    await page.getByLabel("Schema as JSON").fill(JSON.stringify(schema, null, 4));
    await page.getByRole("button", { name: "Send to the daemon" }).click();
}

export async function startSetting(path: string): Promise<void> {
    await row(path)
        .getByRole("button", { name: `Set ${path}`, exact: true })
        .click();
    await page.getByLabel(path, { exact: true }).waitFor();
}

/** Waits until the text of an element is another. */
export async function changes(element: Locator): Promise<void> {
    const before = await element.textContent();
    await expect.poll(() => element.textContent()).not.toBe(before);
}

/** How many pixels of a canvas have been drawn on in a strong colour. */
export function coloredPixels(canvas: Locator): Promise<number> {
    return canvas.evaluate((element) => {
        const { width, height } = element as HTMLCanvasElement;
        const { data } = (element as HTMLCanvasElement).getContext("2d")!.getImageData(0, 0, width, height);
        let count = 0;
        for (let at = 0; at < data.length; at += 4) {
            const [red, green, blue, alpha] = data.subarray(at, at + 4) as unknown as [number, number, number, number];
            if (alpha > 128 && Math.max(red, green, blue) - Math.min(red, green, blue) > 60) count++;
        }
        return count;
    });
}
