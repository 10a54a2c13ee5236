import { readFileSync } from "node:fs";
import { createRequire } from "node:module";
import { mkdirSync } from "node:fs";
import type { Server } from "node:http";
import { join } from "node:path";
import type { BrowserContext, Page } from "playwright-core";
import { afterAll, beforeAll, describe, expect, onTestFinished, test } from "vitest";
import { Machine, project } from "../../js/tests/machine.js";
import { serve, startBrowser } from "./page.js";
import { Database, Gateway, Mosquitto, Nats, passwordOf, type BrokerProgram } from "./plant.js";

const keepScreenshots = Boolean(process.env["VORBEL_SCREENSHOTS"]);
const axe = readFileSync(createRequire(import.meta.url).resolve("axe-core/axe.min.js"), "utf8");

let server: Server;
let url: string;
let browser: BrowserContext;
let endBrowser: () => Promise<void>;
const machine = new Machine();
const database = new Database();

beforeAll(async () => {
    await database.begin();
    ({ server, url } = await serve({ "/history/": database.url }));
    ({ browser, end: endBrowser } = await startBrowser());
    machine.play();
    await machine.startDaemon();
});
afterAll(async () => {
    await endBrowser();
    server.close();
    await machine.stop();
    await database.stop();
});

const status = (page: Page) => page.getByRole("status").first();
const boardRow = (page: Page, board: string) => page.locator(`.row:has([data-board=${JSON.stringify(board)}])`);
const shownValue = (page: Page, path: string) => page.locator(`.row:has(.name[data-path="${path}"]) .value`);
const openBoard = (page: Page, board: string) => page.getByRole("button", { name: board, exact: true }).click();

async function showValue(page: Page, path: string): Promise<void> {
    await page.getByLabel("Value to show of each board").fill(path);
    await page.keyboard.press("Enter");
    await page.getByRole("columnheader", { name: path }).waitFor();
}

async function startSetting(page: Page, path: string, text: string): Promise<void> {
    await page.getByRole("button", { name: `Set ${path}`, exact: true }).click();
    await page.getByLabel(path, { exact: true }).fill(text);
    await page.keyboard.press("Enter");
}

async function faults(page: Page): Promise<string[]> {
    await page.evaluate(`${axe}; 0`);
    return page.evaluate(async () => {
        const rules = ["wcag2a", "wcag2aa", "wcag21a", "wcag21aa", "wcag22aa", "best-practice"];
        const { violations } = await (window as any).axe.run(document, { runOnly: rules });
        return violations.flatMap((each: any) => each.nodes.map((node: any) => `${each.id}: ${node.target}`));
    });
}

const brokers: [string, () => BrokerProgram][] = [
    ["mosquitto", () => new Mosquitto()],
    ["nats-server", () => new Nats()],
];

describe.each(brokers)("at %s", (name, make) => {
    const broker = make();
    const gateways = ["press7", "press8"].map((id) => new Gateway(id, broker));

    beforeAll(async () => {
        await broker.begin();
        for (const gateway of gateways) gateway.begin();
    });
    afterAll(async () => {
        await Promise.all(gateways.map((gateway) => gateway.stop()));
        await broker.stop();
    });

    /** The way in, in a tab whose complaints fail the test. */
    async function newPage(query = `?fleet=${broker.url}`): Promise<Page> {
        const page = await browser.newPage();
        page.setDefaultTimeout(15_000);
        const complaints: string[] = [];
        page.on("pageerror", (error) => complaints.push(String(error)));
        page.on("console", (message) => {
            const isExpected = message.text().startsWith("WebSocket connection to"); // while the broker is away
            if (message.type() === "error" && !isExpected) complaints.push(message.text());
        });
        onTestFinished(async () => {
            await page.evaluate(() => localStorage.clear());
            await page.close();
            expect(complaints).toEqual([]);
        });
        await page.goto(url + query);
        return page;
    }

    async function logIn(page: Page, user: string, password = passwordOf(user)): Promise<void> {
        await page.getByLabel("User", { exact: true }).fill(user);
        await page.getByLabel("Password", { exact: true }).fill(password);
        await page.getByRole("button", { name: "Connect" }).click();
    }

    async function enter(user: string): Promise<Page> {
        const page = await newPage();
        await logIn(page, user);
        await boardRow(page, "press7").getByText("demo machine").waitFor();
        await boardRow(page, "press8").getByText("demo machine").waitFor();
        return page;
    }

    test("all boards are shown, with the values that one picks, and as one sorts and searches them", async () => {
        const page = await enter("observer");
        await status(page).getByText("Connected").waitFor();
        await page.getByText("2 boards, 2 online").waitFor();
        await showValue(page, "motor.speed");
        await showValue(page, "battery.charge");
        await boardRow(page, "press7")
            .locator('[data-path="motor.speed"]')
            .getByText(/^\d+ rpm$/)
            .waitFor();
        await boardRow(page, "press8")
            .locator('[data-path="battery.charge"]')
            .getByText(/^\d+\.\d %$/)
            .waitFor();
        const names = () => page.locator(".row .name").allTextContents();
        expect(await names()).toEqual(["press7", "press8"]);
        await page.getByRole("columnheader", { name: "Board" }).getByRole("button").click();
        await expect.poll(names).toEqual(["press8", "press7"]);
        await page.getByLabel("Search boards").fill("demo press7");
        await expect.poll(names).toEqual(["press7"]);
        await page.reload();
        await logIn(page, "observer");
        await boardRow(page, "press8")
            .locator('[data-path="motor.speed"]')
            .getByText(/^\d+ rpm$/)
            .waitFor();
        expect(await names(), "is remembered").toEqual(["press8", "press7"]);
        await page.getByRole("button", { name: "Show motor.speed no longer" }).click();
        await page.getByRole("columnheader", { name: "motor.speed" }).waitFor({ state: "detached" });
    });

    test("a board opens as a daemon's view does, and takes values", async () => {
        const page = await enter("operator");
        await openBoard(page, "press7");
        await shownValue(page, "motor.speed")
            .getByText(/^\d+ rpm$/)
            .waitFor();
        await page.getByRole("button", { name: "Plot motor.speed" }).click();
        await page.locator(".plots canvas").waitFor();
        await startSetting(page, "motor.setpoint", "1200");
        await page.getByText("Done: 1200 (raw 1200)").waitFor();
        expect(machine.heard.at(-1)).toBe("mac 5 cmd 3: b0 04");
        await shownValue(page, "motor.setpoint")
            .getByText(/^Done at [\d:]+: 1200 \(raw 1200\)$/)
            .waitFor();
        await page.getByLabel("motor.setpoint", { exact: true }).fill("7000");
        await page.getByText("takes at least -6000 and at most 6000, not 7000").waitFor();
        await startSetting(page, "battery.charge", "50");
        await page.locator(".write").getByText("may not write").waitFor();
        await page.getByRole("button", { name: "All boards" }).click();
        await boardRow(page, "press8").waitFor();
    });

    test("what others write is told beside the value", async () => {
        const [one, other] = [await enter("operator"), await enter("observer")];
        await openBoard(other, "press8");
        await shownValue(other, "motor.speed")
            .getByText(/^\d+ rpm$/)
            .waitFor();
        await openBoard(one, "press8");
        await startSetting(one, "motor.setpoint", "900");
        await one.getByText("Done: 900 (raw 900)").waitFor();
        await shownValue(other, "motor.setpoint")
            .getByText(/: operator: 900 \(raw 900\)$/)
            .waitFor();
    });

    test("values of several boards are drawn in one plot", async () => {
        const page = await enter("observer");
        await showValue(page, "motor.speed");
        for (const board of ["press7", "press8"]) {
            await page.getByRole("button", { name: `plot motor.speed of ${board}` }).click();
        }
        const drawn = "Plot of press7.motor.speed in rpm, press8.motor.speed in rpm over time";
        await page.getByRole("figure", { name: drawn }).locator("canvas").waitFor();
        await page.getByRole("button", { name: "Take press8.motor.speed off the plot" }).click();
        await page.getByRole("figure", { name: "Plot of press7.motor.speed in rpm over time" }).waitFor();
    });

    test("a password is kept only where somebody asks for it", async () => {
        const page = await enter("observer");
        const kept = () => page.evaluate(() => JSON.stringify({ ...localStorage }));
        expect(await kept()).not.toContain("secret");
        await page.getByRole("button", { name: "Log out" }).click();
        await page.getByLabel("Remember user and password").check();
        await logIn(page, "observer");
        await boardRow(page, "press7").waitFor();
        expect(await kept()).toContain(passwordOf("observer"));
        await page.reload();
        await boardRow(page, "press7").waitFor();
        await page.getByRole("button", { name: "Log out" }).click();
        expect(await kept()).not.toContain("secret");
        await page.reload();
        await page.getByRole("button", { name: "Connect" }).waitFor();
    });

    test("a wrong password is told as such, and the next one gets in", async () => {
        const page = await newPage();
        await logIn(page, "observer", "wrong");
        await page.getByRole("alert").getByText("the broker refuses this user or password").waitFor();
        expect(await page.getByLabel("User", { exact: true }).inputValue()).toBe("observer");
        expect(await page.getByLabel("Password", { exact: true }).inputValue()).toBe("");
        await logIn(page, "observer");
        await boardRow(page, "press7").waitFor();
    });

    test("no state of the page has faults that a program finds", async () => {
        const page = await newPage();
        expect(await faults(page), "the way in").toEqual([]);
        await logIn(page, "operator");
        await boardRow(page, "press8").getByText("demo machine").waitFor();
        for (const path of ["motor.speed", "motor.current", "battery.charge"]) await showValue(page, path);
        await boardRow(page, "press8").locator('[data-path="battery.charge"]').getByText("%").waitFor();
        await page.getByRole("button", { name: "plot motor.speed of press7" }).click();
        await page.locator(".plots canvas").waitFor();
        for (const colorScheme of ["dark", "light"] as const) {
            await page.emulateMedia({ colorScheme });
            expect(await faults(page), `all boards, ${colorScheme}`).toEqual([]);
        }
        await openBoard(page, "press7");
        await shownValue(page, "motor.speed")
            .getByText(/^\d+ rpm$/)
            .waitFor();
        await startSetting(page, "motor.setpoint", "1200");
        await page.getByText("Done: 1200").waitFor();
        expect(await faults(page), "one board").toEqual([]);
        await page.setViewportSize({ width: 360, height: 740 });
        await page.keyboard.press("Escape");
        expect(await faults(page), "one board on a phone").toEqual([]);
        await page.getByRole("button", { name: "All boards" }).click();
        await boardRow(page, "press7").waitFor();
        expect(await faults(page), "all boards on a phone").toEqual([]);
        expect(await page.evaluate(() => document.documentElement.scrollWidth), "nothing sticks out").toBe(360);
    });

    test("by the keyboard alone, one finds a board, opens it and comes back", async () => {
        const page = await enter("observer");
        await page.locator("#boards-grid").focus();
        await page.keyboard.press("End");
        await expect.poll(() => boardRow(page, "press8").getAttribute("aria-selected")).toBe("true");
        await page.keyboard.press("Enter");
        await page.getByRole("heading", { name: "press8" }).waitFor();
        await page.keyboard.press("Enter"); // the focus is on the way back
        await boardRow(page, "press7").waitFor();
        await expect.poll(() => page.evaluate(() => document.activeElement?.id)).toBe("boards-grid");
    });

    if (name === "mosquitto") {
        test("what the broker of MQTT 5 refuses is read-only from then on, with the reason", async () => {
            const page = await enter("observer");
            await openBoard(page, "press7");
            await shownValue(page, "motor.speed")
                .getByText(/^\d+ rpm$/)
                .waitFor();
            await startSetting(page, "motor.setpoint", "1300");
            await page.getByRole("button", { name: "Why motor.setpoint cannot be set" }).waitFor();
            await page
                .getByText("the broker does not let this user write it (Publish error: Not authorized)")
                .waitFor();
            expect(machine.heard).not.toContain("mac 5 cmd 3: 14 05");
        });
    } else {
        test("what the broker of MQTT 3.1.1 drops without a word is told as unanswered", async () => {
            const page = await enter("observer");
            await openBoard(page, "press7");
            await shownValue(page, "motor.speed")
                .getByText(/^\d+ rpm$/)
                .waitFor();
            await startSetting(page, "motor.setpoint", "1300");
            await page.locator(".write").getByText("nothing says whether it was done").waitFor();
            expect(machine.heard).not.toContain("mac 5 cmd 3: 14 05");
        });

        test("what the broker does not let one read is told", async () => {
            const page = await enter("stranger");
            await page.getByText("The broker does not let this user read vorbel/+/schema.").waitFor();
            await openBoard(page, "press7");
            await page.getByText("the broker does not let this user read values").first().waitFor();
        });
    }

    test("the past comes from the history when one zooms out", async () => {
        const now = Date.now();
        const lines = Array.from({ length: 1800 }, (_, at) => {
            const value = at === 900 ? 5555 : 1000;
            return `vorbel,board=press7,path=motor.speed value=${value} ${now - 2000 * (1800 - at)}`;
        });
        await database.take(lines);
        const page = await enter("observer");
        await showValue(page, "motor.speed");
        await page.getByRole("button", { name: "plot motor.speed of press7" }).click();
        await page.locator(".plots canvas").waitFor();
        await page.getByLabel("Time span").selectOption("1 h");
        await page.getByRole("button", { name: "Measure" }).click();
        await page.getByRole("row", { name: "press7.motor.speed" }).getByText("5555 rpm").waitFor();
    });

    test("a picture of a week is drawn anew when the past has come", async () => {
        const day = 86_400_000;
        const lines = Array.from({ length: 1440 }, (_, at) => {
            return `vorbel,board=press8,path=motor.speed value=${100 * (at % 60)} ${Date.now() - 3 * day - 60_000 * at}`;
        });
        await database.take(lines);
        const page = await enter("observer");
        await showValue(page, "motor.speed");
        await page.getByRole("button", { name: "plot motor.speed of press8" }).click();
        await page.locator(".plots canvas").waitFor();
        await page.getByLabel("Time span").selectOption("1 week");
        // Of the middle of the plot: how much of it is drawn in colour.
        const drawn = () =>
            page
                .locator(".plots canvas")
                .first()
                .evaluate((canvas: HTMLCanvasElement) => {
                    const { width, height } = canvas;
                    const { data } = canvas
                        .getContext("2d")!
                        .getImageData(width / 4, height / 4, width / 2, height / 4);
                    const isColoured = (at: number) => Math.abs(data[at]! - data[at + 2]!) > 60 && data[at + 3]! > 128;
                    return Array.from({ length: data.length / 4 }, (_, at) => isColoured(4 * at)).filter(Boolean)
                        .length;
                });
        await expect.poll(drawn, { timeout: 15_000 }).toBeGreaterThan(500);
    });

    test("hostile names and messages do no harm", async () => {
        const page = await enter("observer");
        const name = '<img src=x onerror="document.title=1">\u202e';
        const publisher = await broker.publisher();
        onTestFinished(async () => void (await publisher.endAsync()));
        const say = (topic: string, payload: string) => publisher.publishAsync(`vorbel/${topic}`, payload, { qos: 1 });
        const status = (type: string) => JSON.stringify({ online: true, type, id: null, since: 1, boot: 1, lost: 0 });
        await say(`press8/status`, "{".repeat(100_000));
        await page.getByText("1 unreadable").waitFor();
        await say(`press8/status`, status(name));
        await boardRow(page, "press8").getByText(name.replace("\u202e", "\\u{202e}")).waitFor();
        await showValue(page, "motor.speed");
        await boardRow(page, "press8").locator('[data-path="motor.speed"]').getByText("rpm").waitFor();
        await say("press8/now/motor/speed", `[${"1,".repeat(400_000)}1]`);
        await page.getByText("2 unreadable").waitFor();
        expect(await page.title()).toBe("Vorbel monitor");
    });

    test("a daemon's own page has the past, too, where its address names the history", async () => {
        await database.take([`vorbel,board=A7,path=motor.speed value=4444 ${Date.now() - 1_800_000}`]);
        const page = await newPage("?history&plot=motor.speed");
        await page.locator(".plots canvas").waitFor();
        await page.getByLabel("Time span").selectOption("1 h");
        await page.getByRole("button", { name: "Measure" }).click();
        await page.getByRole("row", { name: "motor.speed" }).getByText("4444").waitFor();
    });

    test("a board that goes is told to be offline, and a broker that comes back is found again", async () => {
        const page = await enter("observer");
        await gateways[1]!.kill();
        await boardRow(page, "press8").getByText("offline").waitFor();
        await page.getByText("2 boards, 1 online").waitFor();
        gateways[1]!.begin();
        await page.getByText("2 boards, 2 online").waitFor();
        await broker.kill();
        await status(page).getByText("Not connected").waitFor();
        await broker.begin();
        await status(page).getByText("Connected", { exact: true }).waitFor();
        await page.getByText("2 boards, 2 online").waitFor();
    });

    test.runIf(keepScreenshots && name === "mosquitto")("a picture of it", async () => {
        const page = await enter("operator");
        for (const path of ["motor.speed", "motor.current", "battery.charge"]) await showValue(page, path);
        for (const board of ["press7", "press8"]) {
            await page.getByRole("button", { name: `plot motor.speed of ${board}` }).click();
        }
        await page.waitForTimeout(20_000);
        const folder = join(project, "docs/screenshots");
        mkdirSync(folder, { recursive: true });
        await page.screenshot({ path: join(folder, "fleet.png") });
    });
});
