import { mkdtempSync, readFileSync, rmSync } from "node:fs";
import { createServer, type Server, type ServerResponse } from "node:http";
import type { AddressInfo } from "node:net";
import { tmpdir } from "node:os";
import { extname, join, resolve } from "node:path";
import { fileURLToPath } from "node:url";
import { chromium, type BrowserContext, type HTTPCredentials } from "playwright-core";

export const dist = resolve(fileURLToPath(import.meta.url), "../../dist");
const examples = resolve(fileURLToPath(import.meta.url), "../../../../examples");
export const types: Record<string, string> = {
    ".html": "text/html",
    ".js": "text/javascript",
    ".css": "text/css",
    ".svg": "image/svg+xml",
    ".png": "image/png",
    ".json": "application/json",
};

/**
 * Serves the built page, with the machine's schema beside it, on a port of 127.0.0.1. What is asked for below the
 * paths of `others` comes from those servers, without that path.
 */
export async function serve(others: Record<string, string> = {}): Promise<{ server: Server; url: string }> {
    const server = createServer((request, response) => {
        const other = Object.keys(others).find((path) => request.url!.startsWith(path));
        if (other !== undefined) {
            void passOn(`${others[other]}/${request.url!.slice(other.length)}`, response);
            return;
        }
        const path = new URL(request.url!, "http://here").pathname;
        const file = path === "/" ? "/index.html" : path;
        try {
            const content = readFileSync(join(file === "/machine.schema.json" ? examples : dist, file));
            response.setHeader("content-type", types[extname(file)] ?? "application/octet-stream").end(content);
        } catch {
            response.writeHead(404).end();
        }
    });
    await new Promise<void>((listening) => server.listen(0, "127.0.0.1", listening));
    return { server, url: `http://127.0.0.1:${(server.address() as AddressInfo).port}/` };
}

async function passOn(url: string, response: ServerResponse): Promise<void> {
    const answer = await fetch(url).catch(() => undefined);
    response.writeHead(answer?.status ?? 502, { "content-type": "application/json" });
    response.end(answer ? Buffer.from(await answer.arrayBuffer()) : "");
}

/** How Chromium runs here, also where there is no display and no other network. */
export const browserArguments = [
    "--no-sandbox",
    "--disable-gpu",
    "--disable-quic",
    "--no-first-run",
    "--disable-background-networking",
    "--disable-component-update",
    "--disable-sync",
    "--disable-dev-shm-usage",
];

/** Debian's Chromium with a profile of its own, which is removed by end(). */
export async function startBrowser(
    more: string[] = [],
): Promise<{ browser: BrowserContext; end: () => Promise<void> }> {
    const profile = mkdtempSync(join(tmpdir(), "vorbel-chromium-"));
    const browser = await startWith(profile, more);
    const end = async () => {
        await browser.close();
        rmSync(profile, { recursive: true, force: true });
    };
    return { browser, end };
}

/** The same with a profile that stays, and with what it answers when a server asks for a password. */
export function startWith(profile: string, more: string[], httpCredentials?: HTTPCredentials): Promise<BrowserContext> {
    return chromium.launchPersistentContext(profile, {
        executablePath: "/usr/bin/chromium",
        headless: true,
        args: [...browserArguments, ...more],
        viewport: { width: 1280, height: 800 },
        acceptDownloads: true,
        ...(httpCredentials && { httpCredentials }),
    });
}
