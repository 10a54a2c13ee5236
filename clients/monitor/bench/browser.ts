import { spawn } from "node:child_process";
import { once } from "node:events";
import { mkdtempSync, rmSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { chromium, type Page } from "playwright-core";
import { WebSocket } from "ws";
import { browserArguments } from "../tests/page.js";

/**
 * Debian's Chromium that nobody watches while it is measured: whoever drives it hears of every message, which costs as
 * much as the page.
 */
export class Browser {
    readonly pid: number;
    readonly #process;
    readonly #profile = mkdtempSync(join(tmpdir(), "vorbel-chromium-"));
    readonly #endpoint: Promise<string>;

    constructor() {
        const options = ["--headless", "--remote-debugging-port=0", "--window-size=1280,900", "--hide-scrollbars"];
        this.#process = spawn(
            "/usr/bin/chromium",
            [...browserArguments, ...options, `--user-data-dir=${this.#profile}`, "about:blank"],
            { stdio: ["ignore", "ignore", "pipe"] },
        );
        this.pid = this.#process.pid!;
        let said = "";
        this.#endpoint = new Promise((resolve) => {
            this.#process.stderr.setEncoding("utf8").on("data", (piece: string) => {
                said += piece;
                const found = /DevTools listening on (ws:\S+)/.exec(said);
                if (found) resolve(found[1]!);
            });
        });
    }

    /** Takes hold of the page, and lets it go. */
    async drive<T>(act: (page: Page) => Promise<T>): Promise<T> {
        const connection = await chromium.connectOverCDP(await this.#endpoint);
        try {
            return await act(connection.contexts()[0]!.pages()[0]!);
        } finally {
            await connection.close();
        }
    }

    /** What an expression gives in the page, for little. */
    async ask<T>(expression: string): Promise<T> {
        const { host } = new URL(await this.#endpoint);
        const targets: any[] = await (await fetch(`http://${host}/json`)).json();
        const socket = new WebSocket(targets.find(({ type }) => type === "page").webSocketDebuggerUrl);
        await once(socket, "open");
        socket.send(JSON.stringify({ id: 1, method: "Runtime.evaluate", params: { expression, returnByValue: true } }));
        const [answer] = (await once(socket, "message")) as [Buffer];
        socket.close();
        return JSON.parse(answer.toString()).result.result.value;
    }

    async end(): Promise<void> {
        const ended = once(this.#process, "exit");
        const connection = await chromium.connectOverCDP(await this.#endpoint);
        const session = await connection.newBrowserCDPSession();
        await session.send("Browser.close").catch(() => {}); // all its processes, so that none writes into the profile
        await ended;
        rmSync(this.#profile, { recursive: true, force: true, maxRetries: 20 });
    }
}
