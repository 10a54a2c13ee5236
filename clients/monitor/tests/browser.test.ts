import { mkdirSync, readFileSync } from "node:fs";
import type { Server } from "node:http";
import { join, resolve } from "node:path";
import { fileURLToPath } from "node:url";
import type { BrowserContext, Locator, Page } from "playwright-core";
import { afterAll, afterEach, beforeAll, beforeEach, describe, expect, test } from "vitest";
import { Machine, machineSchema, until } from "../../js/tests/machine.js";
import { serve, startBrowser } from "./page.js";

const screenshots = resolve(fileURLToPath(import.meta.url), "../../../../docs/screenshots");
const keepScreenshots = process.env["VORBEL_SCREENSHOTS"] !== undefined;

let machine: Machine;
let server: Server;
let url: string;
let browser: BrowserContext;
let endBrowser: () => Promise<void>;
let page: Page;
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
    machine = new Machine();
    await machine.play();
    await machine.startDaemon();
    page = await browser.newPage();
    strange = [];
    page.on("request", (request) => {
        if (!request.url().startsWith(url) && !/^(data|blob):/.test(request.url())) strange.push(request.url());
    });
    page.on("pageerror", (error) => strange.push(String(error)));
    page.on("console", (message) => {
        const expected = message.text().includes("ERR_CONNECTION_REFUSED"); // while the daemon is away
        if (message.type() === "error" && !expected) strange.push(message.text());
    });
    await page.goto(url);
    await page.evaluate(() => localStorage.clear());
    await page.reload();
});
afterEach(async () => {
    await page.close();
    await machine.stop();
    expect(strange).toEqual([]);
});

async function shoot(name: string): Promise<void> {
    if (!keepScreenshots) return;
    mkdirSync(screenshots, { recursive: true });
    await page.screenshot({ path: join(screenshots, `${name}.png`) });
}

const row = (path: string) => page.locator(`[id="row-${path}"]`);
const value = (path: string) => row(path).locator(".value");
const connected = () => page.getByRole("status").getByText("Connected").waitFor();

async function openSchema(): Promise<void> {
    await page.getByRole("button", { name: "Schema", exact: true }).click();
}

async function sendSchema(schema: object = machineSchema): Promise<void> {
    await connected();
    await openSchema();
    await page.getByLabel("Schema as JSON").fill(JSON.stringify(schema, null, 4));
    await page.getByRole("button", { name: "Send to the daemon" }).click();
}

async function startSetting(path: string): Promise<void> {
    await row(path).getByRole("button", { name: "Set" }).click();
    await page.getByLabel(path, { exact: true }).waitFor();
}

/** Waits until the text of an element is another. */
async function changes(element: Locator): Promise<void> {
    const before = await element.textContent();
    await expect.poll(() => element.textContent()).not.toBe(before);
}

/** How many pixels of a canvas have been drawn on in a strong colour. */
function coloredPixels(canvas: Locator): Promise<number> {
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

test("connects to where the page came from and shows what the daemon is", async () => {
    await connected();
    await page.getByText("demo machine").waitFor();
    await expect.poll(() => page.locator(".device code").textContent()).toBe("A7");
    await page.getByText("No values yet").waitFor();
    await shoot("connected");
});

test("loads the machine's schema and sees its values change", async () => {
    await sendSchema();
    await value("motor.speed").getByText(/^\d+$/).waitFor();
    await changes(value("motor.speed"));
    await value("battery.cells.a").getByText(/^5 × \[3\.9/).waitFor();
    await value("door.open").getByText(/true|false/).waitFor();
    await expect.poll(() => row("motor.speed").locator(".rate").textContent()).toMatch(/^(19|2\d)$/);
    await expect.poll(() => coloredPixels(row("motor.speed").locator("canvas"))).toBeGreaterThan(30);
    await page.waitForTimeout(4000);
    await shoot("values");
});

test("opens a schema from a file and saves the one in use", async () => {
    await connected();
    await openSchema();
    const text = JSON.stringify({ speed: machineSchema["motor"] });
    await page.getByLabel("Schema file").setInputFiles({ name: "a.json", mimeType: "application/json", buffer: Buffer.from(text) });
    await page.getByText("No problems found.").waitFor();
    await page.getByRole("button", { name: "Send to the daemon" }).click();
    await value("speed.speed").getByText(/^\d+$/).waitFor();
    await openSchema();
    const [download] = await Promise.all([page.waitForEvent("download"), page.getByRole("button", { name: "Save as file" }).click()]);
    expect(readFileSync(await download.path(), "utf8")).toBe(text);
});

test("shows a schema's problems at their paths and does not send it", async () => {
    await connected();
    await openSchema();
    const leaf = { "@mac": 5, "@cmd": 2, "@format": "s" };
    const broken = { motor: { speed: { ...leaf, "@fator": 10 }, current: { ...leaf, "@skip": "2" } } };
    await page.getByLabel("Schema as JSON").fill(JSON.stringify(broken, null, 4));
    const problems = page.locator("#schema-problems li");
    await expect.poll(() => problems.allTextContents()).toEqual([
        'error: motor.current "@skip" must be a whole number, not "2"',
        'error: motor.speed "@fator" is no option; did you mean "@factor"?',
    ]);
    expect(await page.getByRole("button", { name: "Send to the daemon" }).isDisabled()).toBe(true);
    await shoot("schema");
    await page.getByLabel("Schema as JSON").fill('{"motor": ');
    await expect.poll(() => problems.allTextContents()).toEqual([expect.stringMatching(/^error: document is no JSON/)]);
});

test("plots values together, pauses and zooms", async () => {
    await sendSchema();
    await row("motor.speed").getByRole("button", { name: "Plot" }).click();
    await row("motor.current").getByRole("button", { name: "Plot" }).click();
    await row("door.open").getByRole("button", { name: "Plot" }).click();
    await value("battery.cells.a").getByText("5 × [").waitFor();
    await row("battery.cells.a").getByRole("button", { name: "Plot" }).click();
    const canvases = page.locator(".plots canvas");
    await expect.poll(() => canvases.count()).toBe(2); // a plot over time and a waveform
    await page.getByLabel("Time span").selectOption("10 s");
    await page.waitForTimeout(6000);
    await expect.poll(() => coloredPixels(canvases.nth(0))).toBeGreaterThan(300);
    await expect.poll(() => coloredPixels(canvases.nth(1))).toBeGreaterThan(100);
    await shoot("plots");

    const picture = () => canvases.nth(0).evaluate((canvas) => (canvas as HTMLCanvasElement).toDataURL());
    await page.getByRole("button", { name: "Pause" }).click();
    const paused = await picture();
    await page.waitForTimeout(500);
    expect(await picture()).toBe(paused);
    await page.getByRole("button", { name: "Zoom in" }).click();
    await expect.poll(picture).not.toBe(paused);
    const box = (await canvases.nth(0).boundingBox())!;
    const zoomed = await picture();
    await page.mouse.move(box.x + box.width * 0.4, box.y + 100);
    await page.mouse.down();
    await page.mouse.move(box.x + box.width * 0.6, box.y + 110, { steps: 4 });
    await page.mouse.up();
    await expect.poll(picture).not.toBe(zoomed);
    await page.getByRole("button", { name: "Go on" }).click();
    const live = await picture();
    await expect.poll(picture).not.toBe(live);
});

describe("writing", () => {
    test("puts the exact frame on the bus and echoes it", async () => {
        await sendSchema();
        await value("motor.speed").getByText(/^\d+$/).waitFor();
        await row("motor.speed").getByRole("button", { name: "Plot" }).click();
        await startSetting("motor.setpoint");
        await page.keyboard.type("1200");
        await expect.poll(() => page.locator(".preview").textContent()).toBe("mac 5 cmd 3b0 04");
        await page.keyboard.press("Enter");
        await until(() => machine.heard.length > 0, "a frame on the bus");
        expect(machine.heard).toEqual(["mac 5 cmd 3: b0 04"]);
        const entry = page.getByRole("log").getByRole("listitem").first();
        await expect.poll(() => entry.textContent()).toMatch(/^\d\d:\d\d:\d\dSent: motor\.setpoint = 1200mac 5 cmd 3: b0 04$/);
        await expect.poll(() => value("motor.setpoint").textContent()).toBe("sent 1200");
        await expect.poll(async () => Number(await value("motor.speed").textContent())).toBeGreaterThan(1100);
        await shoot("writing");
    });

    test("refuses what the leaf cannot hold", async () => {
        await sendSchema();
        await startSetting("motor.setpoint");
        await page.keyboard.type("40000");
        await page.getByText("must lie between -32768 and 32767").waitFor();
        expect(await page.getByRole("button", { name: "Send", exact: true }).isDisabled()).toBe(true);
        await page.keyboard.press("Enter");
        await page.waitForTimeout(300);
        expect(machine.heard).toEqual([]);
    });

    test("sends the values of one frame together", async () => {
        await sendSchema();
        await value("motor.speed").getByText(/^\d+$/).waitFor(); // the link is open
        await startSetting("motor.current");
        await page.getByLabel("motor.current", { exact: true }).fill("1.5");
        await page.getByLabel("motor.speed", { exact: true }).fill("-2");
        await page.keyboard.press("Enter");
        await until(() => machine.heard.length > 0, "a frame on the bus");
        expect(machine.heard).toEqual(["mac 5 cmd 2: fe ff 96 00"]);
    });

    test("is refused for read-only leaves, with the reason", async () => {
        await sendSchema();
        await row("door.open").getByRole("button", { name: "Why door.open cannot be set" }).click();
        await page.getByRole("alert").getByText('door.open cannot be set: it is read-only, because "@asBool"').waitFor();
        await shoot("read-only");
    });
});

test("survives a daemon restart, schema and all", async () => {
    await sendSchema();
    await value("motor.speed").getByText(/^\d+$/).waitFor();
    await machine.stopDaemon();
    await page.getByRole("status").getByText("Not connected").waitFor();
    await page.waitForTimeout(2500);
    await shoot("daemon-away");
    await machine.startDaemon();
    await connected();
    await changes(value("motor.speed"));
    await page.getByRole("log").getByText("Schema sent again").waitFor();
});

test("tells of messages that cannot be decoded, with their bytes, and goes on", async () => {
    const leaf = { "@mac": 5, "@cmd": 2 };
    const broken = { good: { ...leaf, "@format": "s" }, lost: { ...leaf, "@skip": 4, "@format": "c", "@flushSize": 2 } };
    // The page itself refuses such a schema, but another client may have sent it.
    await page.evaluate((schema) => {
        const socket = new WebSocket("ws://127.0.0.1:10443");
        socket.onopen = () => socket.send(JSON.stringify(schema));
    }, broken);
    await page.getByText(/\d+ undecodable/).waitFor();
    await page.getByRole("log").getByText("a4 6c 6f 73 74").waitFor();
    await changes(value("good"));
});

test("remembers the address and the schema, and sends neither by itself", async () => {
    await sendSchema();
    await value("motor.speed").getByText(/^\d+$/).waitFor();
    await page.getByLabel("Address of the daemon").fill("localhost:10443");
    await page.getByRole("button", { name: "Connect" }).click();
    await connected();
    await machine.stopDaemon();
    await machine.startDaemon();
    await page.reload();
    await connected();
    expect(await page.getByLabel("Address of the daemon").inputValue()).toBe("localhost:10443");
    await page.waitForTimeout(1000);
    expect(await value("motor.speed").textContent()).toBe("–"); // its place is known, its value is not sent
    await openSchema();
    await page.getByRole("button", { name: "Send to the daemon" }).click();
    await value("motor.speed").getByText(/^\d+$/).waitFor();
});

test("says what is wrong with an address", async () => {
    await page.getByLabel("Address of the daemon").fill("http://machine");
    await page.getByRole("button", { name: "Connect" }).click();
    await page.getByRole("alert").getByText('"http://machine" is no WebSocket address').waitFor();
});

describe("by keyboard and search", () => {
    const activeRow = () => page.getByRole("treegrid").getAttribute("aria-activedescendant");

    test("the table folds, plots and sets", async () => {
        await sendSchema();
        await value("motor.speed").getByText(/^\d+$/).waitFor();
        await page.getByRole("treegrid").focus();
        await page.keyboard.press("Home");
        await expect.poll(activeRow).toBe("row-battery");
        await page.keyboard.press("ArrowLeft");
        await page.locator('[id="row-battery"][aria-expanded="false"]').waitFor();
        expect(await row("battery.charge").count()).toBe(0);
        await page.keyboard.press("ArrowRight");
        await row("battery.charge").waitFor();
        await page.keyboard.press("End");
        await expect.poll(activeRow).toBe("row-motor.speed");
        await page.keyboard.press("p");
        await page.locator(".plots canvas").first().waitFor();
        await page.keyboard.press("Enter");
        await page.getByRole("heading", { name: "Set motor.speed" }).waitFor();
        await page.keyboard.press("Escape");
        expect(await page.evaluate(() => document.activeElement?.id)).toBe("values-grid");
    });

    test("the search leaves the paths that have all words", async () => {
        await sendSchema();
        await page.getByLabel("Search values").fill("CELL b");
        const names = () => page.locator(".row .name span:last-child").allTextContents();
        await expect.poll(async () => (await names()).join()).toBe("battery,cells,a,b,c,d"); // "b" is in "battery"
        await page.getByLabel("Search values").fill("cells.b");
        await expect.poll(async () => (await names()).join()).toBe("battery,cells,b");
    });
});

test("fits a phone of 360 pixels, light and dark", async () => {
    await page.setViewportSize({ width: 360, height: 740 });
    await sendSchema();
    await page.getByLabel("Search values").fill("motor");
    await value("motor.speed").getByText(/^\d+$/).waitFor();
    await row("motor.speed").getByRole("button", { name: "Plot" }).click();
    await row("motor.current").getByRole("button", { name: "Plot" }).click();
    await page.waitForTimeout(4000);
    const width = () => page.evaluate(() => document.documentElement.scrollWidth);
    expect(await width()).toBe(360);
    await page.emulateMedia({ colorScheme: "dark" });
    await shoot("phone-values");
    await page.getByRole("button", { name: "plots" }).click();
    await page.waitForTimeout(500);
    expect(await width()).toBe(360);
    await expect.poll(() => coloredPixels(page.locator(".plots canvas"))).toBeGreaterThan(100);
    await shoot("phone-plots");
    await page.getByRole("button", { name: "log", exact: true }).click();
    await page.getByRole("log").getByText("Schema of 11 leaves sent").waitFor();
    expect(await width()).toBe(360);
});
