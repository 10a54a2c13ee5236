import { setTimeout as sleep } from "node:timers/promises";
import { describe, expect, test } from "vitest";
import { openSchema, page, row, value } from "./fixture.js";
import { every, puppet } from "./impostor.js";
import { curve, FIRST, labels, SECOND } from "./picture.js";

/** What plots show between readings, beyond them, and of many values. */

const LEAF = { "@mac": 5, "@cmd": 2, "@format": "s" };

async function useSchema(schema: object): Promise<void> {
    await openSchema();
    await page.getByLabel("Schema as JSON").fill(JSON.stringify(schema));
    await page.getByRole("button", { name: "Use here only" }).click();
}

async function plot(...paths: string[]): Promise<void> {
    for (const path of paths) await row(path).getByRole("button", { name: "Plot" }).click();
}

/** The different heights at which a curve runs for at least so many pixels, in order. */
function levels(heights: (number | undefined)[], least: number): number[] {
    const runs: { height: number; count: number }[] = [];
    for (const height of heights) {
        if (height === undefined) continue;
        const run = runs.at(-1);
        if (run && Math.abs(run.height - height) < 1) run.count++;
        else runs.push({ height, count: 1 });
    }
    return runs.filter(({ count }) => count >= least).map(({ height }) => height);
}

const drawn = (heights: (number | undefined)[]) => heights.filter((height) => height !== undefined).length;
const widthOf = (heights: unknown[]) => heights.length;

describe("a value that comes only when it changes", () => {
    test.each([
        ["a number", { ...LEAF, "@observe": true }, 0, 1000],
        ["a flag", { ...LEAF, "@asBool": true }, false, true],
    ])("holds until then, and on to the present: %s", async (_, leaf, low, high) => {
        const { send } = await puppet();
        await useSchema({ a: leaf });
        send({ a: low });
        await value("a").getByText(String(low)).waitFor();
        await plot("a");
        await page.getByLabel("Time span").selectOption("10 s");
        await sleep(2000);
        send({ a: high });
        await sleep(2500);
        await page.getByRole("button", { name: "Pause" }).click();
        await sleep(300);
        const heights = await curve(FIRST);
        const seen = levels(heights, 0.1 * widthOf(heights));
        expect(seen).toHaveLength(2);
        expect(seen[1]! - seen[0]!).toBeGreaterThan(50);
        // From four and a half of ten seconds ago until now, and without a way up that takes time.
        expect(drawn(heights)).toBeGreaterThan(0.36 * widthOf(heights));
        const rise = heights.filter((height) => height && height > seen[0]! + 5 && height < seen[1]! - 5);
        expect(rise.length).toBeLessThan(4);
    });

    test("is not held beyond the end of the connection", async () => {
        const { send, sockets } = await puppet();
        await useSchema({ a: { ...LEAF, "@observe": true } });
        send({ a: 1 });
        await value("a").getByText("1").waitFor();
        await plot("a");
        await page.getByLabel("Time span").selectOption("10 s");
        await sleep(1000);
        for (const socket of sockets) socket.terminate();
        await sleep(3000);
        await page.getByRole("button", { name: "Pause" }).click();
        await sleep(300);
        const heights = await curve(FIRST);
        expect(drawn(heights)).toBeGreaterThan(5);
        expect(drawn(heights)).toBeLessThan(0.25 * widthOf(heights));
    });
});

/** Pauses, and zooms in. */
async function zoomIn(times: number): Promise<void> {
    await page.locator(".plots figure").first().focus();
    await page.keyboard.press("Space");
    await press("+", times);
}

async function press(key: string, times: number): Promise<void> {
    for (let time = 0; time < times; time++) await page.keyboard.press(key);
    await sleep(300);
}

describe("zooming", () => {
    test("between two readings shows the line between them, from edge to edge", async () => {
        const { send } = await puppet();
        let reading = 0;
        every(1000, () => send({ a: (reading += 5) }));
        await value("a").getByText("5", { exact: true }).waitFor();
        await plot("a");
        await page.getByLabel("Time span").selectOption("10 s");
        await sleep(7000);
        await zoomIn(6); // 10 s become 0.16 s
        const heights = await curve(FIRST);
        expect(drawn(heights)).toBeGreaterThan(0.8 * widthOf(heights));
        const seen = heights.filter((height) => height !== undefined);
        expect(seen.at(-1)! - seen[0]!).toBeGreaterThan(50); // it rises
    });

    test("by a drag up or down shows values closer, and a double click all of them again", async () => {
        const { send } = await puppet();
        every(20, () => send({ a: 1000 + 0.1 * Math.sin(performance.now() / 200) }));
        await value("a").getByText(/\d/).waitFor();
        await plot("a");
        await page.getByLabel("Time span").selectOption("10 s");
        await sleep(3000);
        const values = async () =>
            (await labels())
                .map(({ text }) => text)
                .filter((text) => /^[\d.]+$/.test(text))
                .map(Number);
        const whole = await values();
        const { x, y, width, height } = (await page.locator(".plots .u-over").boundingBox())!;
        const drag = async (from: number, to: number) => {
            await page.mouse.move(x + width / 2, y + height * from);
            await page.mouse.down();
            await page.mouse.move(x + width / 2 + 3, y + height * to, { steps: 4 });
            await page.mouse.up();
        };
        await drag(0.4, 0.6);
        const closer = await values();
        const extent = (values: number[]) => Math.max(...values) - Math.min(...values);
        expect(extent(closer)).toBeLessThan(0.4 * extent(whole));
        expect(new Set(closer).size).toBe(closer.length);
        expect(await page.getByRole("button", { name: "Pause" }).count()).toBe(1); // time goes on
        for (let time = 0; time < 25; time++) await drag(0.4, 0.6); // no height is too small
        await page.mouse.dblclick(x + width / 2, y + height / 2);
        await expect.poll(async () => extent(await values())).toBeGreaterThan(0.5 * extent(whole));
    });

    test("far in tells times apart by decimals", async () => {
        const { send } = await puppet();
        every(20, () => send({ a: Math.sin(performance.now()) }));
        await value("a").getByText(/\d/).waitFor();
        await plot("a");
        await page.getByLabel("Time span").selectOption("10 s");
        await sleep(1000);
        await zoomIn(6);
        const times = (await labels()).map(({ text }) => text).filter((text) => text.includes(":"));
        expect(times.length).toBeGreaterThan(2);
        expect(new Set(times).size).toBe(times.length);
        for (const time of times) expect(time).toMatch(/^\d\d:\d\d:\d\d\.\d+$/);
    });

    test("has no depth, and no height, at which the plot fails", async () => {
        const { send } = await puppet();
        every(20, () => send({ a: performance.now() }));
        await value("a").getByText(/\d/).waitFor();
        await plot("a");
        await page.getByLabel("Time span").selectOption("10 s");
        await sleep(6000);
        await zoomIn(100);
        const heights = await curve(FIRST);
        expect(drawn(heights)).toBeGreaterThan(0.8 * widthOf(heights));
        const times = (await labels()).map(({ text }) => text).filter((text) => text.includes(":"));
        expect(new Set(times).size).toBeGreaterThan(1);
        expect(new Set(times).size).toBe(times.length);
        await press("-", 100);
        expect((await labels()).length).toBeGreaterThan(2);
    });
});

describe("many curves", () => {
    test("have a colour each, which stays when another goes, and an axis of that colour", async () => {
        const { send } = await puppet();
        const paths = Array.from({ length: 12 }, (_, at) => `v${at}`);
        every(50, () => {
            const phase = performance.now() / 500;
            send(Object.fromEntries(paths.map((path, at) => [path, (at + 1) * Math.sin(phase + at)])));
        });
        await value("v11").getByText(/\d/).waitFor();
        await plot(...paths);
        await sleep(500);
        const swatches = () =>
            page
                .locator(".legend li")
                .evaluateAll((items) =>
                    items.map((item) => [
                        item.querySelector(".name")!.textContent,
                        getComputedStyle(item.querySelector(".swatch")!).backgroundColor,
                    ]),
                );
        const all = await swatches();
        expect(new Set(all.map(([, color]) => color)).size).toBe(12);
        const colors = new Set((await labels()).map(({ color }) => color));
        expect(colors.size).toBe(13); // and that of the times
        await page.getByRole("button", { name: "Take v2 off the plot" }).click();
        await expect.poll(swatches).toEqual(all.filter(([name]) => name !== "v2"));
        expect(await page.evaluate(() => document.documentElement.scrollWidth)).toBe(1280);
    });

    test("that are flags do not hide one another", async () => {
        const { send } = await puppet();
        every(100, () => send({ a: true, b: true }));
        await value("b").getByText("true").waitFor();
        await plot("a", "b");
        await page.getByLabel("Time span").selectOption("10 s");
        await sleep(2000);
        const [a] = levels(await curve(FIRST), 20);
        const [b] = levels(await curve(SECOND), 20);
        expect(Math.abs(a! - b!)).toBeGreaterThan(20);
    });
});
