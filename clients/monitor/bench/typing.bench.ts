import { loadavg } from "node:os";
import type { Page } from "playwright-core";
import { afterAll, beforeAll, test } from "vitest";
import { serve } from "../tests/page.js";
import { Browser } from "./browser.js";
import { browserTimes, since } from "./processes.js";

/** How long a key takes in the schema's editor, from when it was pressed until the page has drawn it. */

const KEYS = 40;
const SIZES = { "2,000 leaves of 250 frames": [250, 8], "16,384 leaves of 2,048 frames": [2048, 8] } as const;

function schemaText(frames: number, leaves: number): string {
    const frame = (at: number) =>
        Array.from({ length: leaves }, (_, skip) => [
            `value${at * leaves + skip}`,
            { "@mac": at % 64, "@cmd": at >> 6, "@format": "C", "@skip": skip },
        ]);
    const groups = Array.from({ length: frames }, (_, at) => [`frame${at}`, Object.fromEntries(frame(at))]);
    return JSON.stringify(Object.fromEntries(groups), null, 4);
}

/** Notes the time from each key to the end of the frame that shows it. */
const NOTE = `
    window.noted = [];
    addEventListener("keydown", ({ timeStamp }) => {
        const { port1, port2 } = new MessageChannel();
        port1.onmessage = () => { noted.push(performance.now() - timeStamp); port1.close(); };
        requestAnimationFrame(() => port2.postMessage(0));
    }, true);`;

let url: string;
let close: () => void;
beforeAll(async () => {
    const served = await serve();
    url = served.url;
    close = () => served.server.close();
});
afterAll(() => close());

async function openPlain(page: Page, text: string): Promise<void> {
    await page.goto(url + "machine.schema.json"); // a page without a program of its own
    await page.evaluate((text) => {
        document.body.innerHTML = `<textarea spellcheck="false" style="width: 700px; height: 400px"></textarea>`;
        document.querySelector("textarea")!.value = text;
    }, text);
}

async function openEditor(page: Page, text: string): Promise<void> {
    await page.goto(url);
    await page.getByRole("button", { name: "Schema", exact: true }).click();
    const buffer = Buffer.from(text);
    await page.getByLabel("Schema file").setInputFiles({ name: "big.json", mimeType: "application/json", buffer });
    await page
        .locator("button.primary:enabled", { hasText: "Send to the daemon" })
        .or(page.locator(".fine"))
        .first()
        .waitFor();
}

/** Puts the caret into a name in the middle of the text: all remains to be checked. */
async function aim(page: Page): Promise<void> {
    await page.locator("textarea").evaluate((area: HTMLTextAreaElement) => {
        area.focus();
        const at = area.value.indexOf('"value', area.value.length / 2) + 1;
        area.setSelectionRange(at, at);
    });
    await page.waitForTimeout(2000);
    await page.evaluate(NOTE);
}

/** The times that keys took, in ascending order. */
async function type(page: Page): Promise<number[]> {
    for (let key = 0; key < KEYS; key++) {
        await page.keyboard.press("x");
        await page.waitForTimeout(60);
    }
    await page.waitForFunction(`noted.length === ${KEYS}`);
    return (await page.evaluate<number[]>("noted")).sort((one, other) => one - other);
}

/** Beside the times of the clock those of the processor, which what else goes on there matters less to. */
async function measured(text: string, open: (page: Page, text: string) => Promise<void>): Promise<string> {
    const browser = new Browser();
    try {
        return await browser.drive(async (page) => {
            await open(page, text);
            await aim(page);
            const before = browserTimes(browser.pid);
            const times = await type(page);
            const spent = since(before, browserTimes(browser.pid)).get("renderer: main")!;
            const share = (part: number) => times[Math.floor(part * (times.length - 1))]!.toFixed(0);
            return (
                `${((1000 * spent) / KEYS).toFixed(0)} ms of the processor a key; by the clock half below ` +
                `${share(0.5)} ms, nine of ten below ${share(0.9)} ms, all below ${share(1)} ms`
            );
        });
    } finally {
        await browser.end();
    }
}

for (const [name, [frames, leaves]] of Object.entries(SIZES)) {
    test(name, async () => {
        const text = schemaText(frames, leaves);
        const size = `${name}, ${Math.round(text.length / 1000)} kB`;
        console.log(`${size}: a bare text field: ${await measured(text, openPlain)}`);
        console.log(`${size}: the editor: ${await measured(text, openEditor)}, load ${loadavg()[0]!.toFixed(1)}`);
    });
}
