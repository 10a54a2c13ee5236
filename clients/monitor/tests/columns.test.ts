import { setTimeout as sleep } from "node:timers/promises";
import { expect, test } from "vitest";
import { openSchema, page, row, sendSchema, value } from "./fixture.js";
import { puppet } from "./impostor.js";

/** The columns of the table that somebody can choose. */

const LEAF = { "@mac": 5, "@cmd": 2, "@format": "s" };

async function choose(...columns: string[]): Promise<void> {
    await page.locator(".menu summary").click();
    for (const column of columns) await page.getByLabel(column, { exact: true }).check();
    await page.keyboard.press("Escape");
}

const cells = (path: string) => row(path).locator(".more > span").allTextContents();
const heads = () => page.getByRole("columnheader").allTextContents();

async function useHere(schema: object): Promise<void> {
    await openSchema();
    await page.getByLabel("Schema as JSON").fill(JSON.stringify(schema));
    await page.getByRole("button", { name: "Use here only" }).click();
}

test("there are none at first; those that are chosen stay after a reload", async () => {
    await sendSchema();
    await value("motor.speed")
        .getByText(/^\d+ rpm$/)
        .waitFor();
    expect(await page.locator(".more").count()).toBe(0);
    expect((await heads()).join()).not.toContain("Min");
    await choose("Maximum", "Bytes, hexadecimal");
    await expect
        .poll(async () => (await heads()).map((head) => head.trim()).slice(1, 5))
        .toEqual(["Value", "Max", "Hex", "per s"]);
    await expect
        .poll(() => cells("motor.speed"))
        .toEqual([expect.stringMatching(/^\d+ rpm$/), expect.stringMatching(/^[0-9a-f]{2} [0-9a-f]{2}$/)]);
    await page.reload();
    await value("motor.speed")
        .getByText(/^\d+ rpm$/)
        .waitFor();
    await expect.poll(() => cells("motor.speed")).toHaveLength(2);
});

test("they tell least, greatest and raw numbers, bytes, and what cannot be known", async () => {
    const { send } = await puppet();
    await useHere({
        scaled: { ...LEAF, "@factor": 10 },
        flag: { ...LEAF, "@asBool": true },
        list: { ...LEAF, "@flushSize": 3 },
    });
    send({ scaled: Math.fround(-0.1), flag: true, list: 7 });
    await value("scaled").getByText("-0.1").waitFor();
    send({ scaled: 25.6, flag: true, other: 3 });
    await value("scaled").getByText("25.6").waitFor();
    await choose("Minimum", "Maximum", "Raw number on the bus", "Bytes, hexadecimal");
    await expect.poll(() => cells("scaled")).toEqual(["-0.1", "25.6", "256", "00 01"]);
    expect(await cells("flag")).toEqual(["", "", "?", "?"]);
    expect(await cells("other")).toEqual(["3", "3", "?", "?"]);
    send({ scaled: 3 });
    await expect.poll(() => cells("scaled")).toEqual(["-0.1", "25.6", "30", "1e 00"]);
    await page.getByRole("columnheader", { name: "Max" }).getByRole("button", { name: "Reset the maximum" }).click();
    await expect.poll(() => cells("scaled")).toEqual(["-0.1", "", "30", "1e 00"]);
    send({ scaled: 2 });
    await expect.poll(() => cells("scaled")).toEqual(["-0.1", "2", "20", "14 00"]);
    expect(await row("scaled").locator(".more").first().getAttribute("title")).toMatch(/^since \d\d:\d\d:\d\d$/);
});

test("the menu is handled by keys, and closes when the focus leaves it", async () => {
    await sendSchema();
    await row("motor.speed").waitFor();
    const isOpen = () => page.locator(".menu").evaluate((menu) => (menu as HTMLDetailsElement).open);
    await page.locator(".menu summary").focus();
    await page.keyboard.press("Enter");
    await page.getByLabel("Minimum", { exact: true }).waitFor();
    await page.keyboard.press("Tab");
    await page.keyboard.press("Space");
    await expect.poll(async () => (await heads()).join()).toContain("Min");
    await page.keyboard.press("Escape");
    expect(await isOpen()).toBe(false);
    expect(await page.evaluate(() => document.activeElement!.tagName)).toBe("SUMMARY");
    await page.keyboard.press("Space");
    expect(await isOpen()).toBe(true);
    await page.getByLabel("Search values").focus();
    await expect.poll(isOpen).toBe(false);
});

test("where there is no room for them, the table scrolls sideways, by keys too, and names stay in sight", async () => {
    await sendSchema();
    await value("motor.speed")
        .getByText(/^\d+ rpm$/)
        .waitFor();
    await choose("Minimum", "Maximum", "Raw number on the bus", "Bytes, hexadecimal");
    const grid = page.locator("#values-grid");
    await row("motor.speed").click();
    const left = () =>
        row("motor.speed")
            .locator(".name")
            .evaluate((name) => name.getBoundingClientRect().left);
    const before = await left();
    for (let time = 0; time < 3; time++) await page.keyboard.press("Shift+ArrowRight");
    await expect.poll(() => grid.evaluate((element) => element.scrollLeft)).toBeGreaterThan(100);
    expect(Math.abs((await left()) - before)).toBeLessThan(15);
    await row("motor.speed").waitFor(); // still unfolded
    expect(await page.evaluate(() => document.documentElement.scrollWidth)).toBe(1280);
});

test("on a phone, they stand below with their names, and can be reset from the menu", async () => {
    await page.setViewportSize({ width: 360, height: 740 });
    const { send } = await puppet();
    await useHere({ motor: { speed: LEAF, other: { ...LEAF, "@skip": 2 } } });
    send({ motor: { speed: 4660, other: 1 } });
    await choose("Minimum", "Maximum", "Raw number on the bus", "Bytes, hexadecimal");
    await expect
        .poll(() => row("motor.speed").locator(".more").allTextContents())
        .toEqual(["Min 4660", "Max 4660", "Raw 4660", "Hex 34 12"]);
    await sleep(300);
    const outside = await page.locator(".row .more, .row .more > span").evaluateAll(
        (cells) =>
            cells.filter((cell) => {
                const row = cell.closest(".row")!.getBoundingClientRect();
                const { top, bottom, right } = cell.getBoundingClientRect();
                return top < row.top || bottom > row.bottom || right > window.innerWidth;
            }).length,
    );
    expect(outside).toBe(0);
    await page.locator(".menu summary").click();
    await page.getByRole("button", { name: "Reset the minimum" }).click();
    await expect.poll(async () => (await cells("motor.speed"))[0]).toBe("");
    expect(await page.evaluate(() => document.documentElement.scrollWidth)).toBe(360);
});
