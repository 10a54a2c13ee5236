import { describe, expect, test } from "vitest";
import { page, row, sendSchema, value } from "./fixture.js";
import { every, puppet } from "./impostor.js";

/** What the table is good for beside showing values. */

const paths = () =>
    page.locator(".row .name").evaluateAll((names) => names.map((name) => name.getAttribute("data-path")));

test("all groups are folded, and unfolded, at once", async () => {
    await sendSchema();
    await row("battery.cells.a").waitFor();
    await page.getByRole("button", { name: "Fold all" }).click();
    await expect.poll(paths).toEqual(["battery", "door", "motor"]);
    await row("battery").getByRole("button", { name: "Unfold" }).click();
    await row("battery.cells").waitFor();
    expect(await row("battery.cells.a").count()).toBe(0);
    await page.getByRole("button", { name: "Fold all" }).click();
    await page.getByRole("button", { name: "Unfold all" }).click();
    await row("battery.cells.a").waitFor();
    await row("motor.speed").waitFor();
});

test("what is pinned stands above all others, and goes back to its place", async () => {
    await sendSchema();
    await row("motor.speed").hover();
    await row("motor.speed").getByRole("button", { name: "Keep at the top" }).click();
    await expect.poll(async () => (await paths())[0]).toBe("motor.speed");
    expect(await row("motor.speed").count()).toBe(1);
    expect(await row("motor.speed").locator(".name").textContent()).toBe("motor.speed");
    await page.getByLabel("Search values").fill("door");
    await expect.poll(paths).toEqual(["motor.speed", "door", "door.open"]);
    await page.getByLabel("Search values").fill("");
    await row("motor.speed").getByRole("button", { name: "Keep at the top" }).click();
    await expect.poll(async () => (await paths())[0]).toBe("battery");
});

test("only what changes from now on is shown when asked for", async () => {
    const { send } = await puppet();
    let count = 0;
    every(100, () => send({ still: 5, group: { count: ++count, off: true }, wave: count > 40 ? 2 : 1 }));
    await value("group.count").getByText(/\d/).waitFor();
    await page.getByRole("button", { name: "Only what changes" }).click();
    await expect.poll(paths).toEqual(["group", "group.count"]);
    await expect.poll(paths).toEqual(["group", "group.count", "wave"]);
    await page.getByRole("button", { name: "Only what changes" }).click();
    await row("still").waitFor();
});

describe("a value is copied while it changes", () => {
    const pasted = async () => {
        const search = page.getByLabel("Search values");
        await search.fill("");
        await search.press("Control+V");
        const text = await search.inputValue();
        await search.fill("");
        return text;
    };

    test("as it is at that moment, by the key C or a double click", async () => {
        const { send } = await puppet();
        let count = 1000;
        every(20, () => send({ count: ++count, text: `"a" ${count % 10}`, list: { deep: [1, 2, { a: count > 0 }] } }));
        await value("count").getByText(/\d/).waitFor();
        await row("count").click();
        for (const key of ["c", "Control+C"]) {
            const before = count;
            await page.keyboard.press(key);
            await page.getByText("Copied count").waitFor({ state: "attached" });
            const text = Number(await pasted());
            expect(text).toBeGreaterThan(before - 50);
            expect(text).toBeLessThan(count + 1);
            await row("count").click();
        }
        await value("text").dblclick();
        await page.getByText("Copied text").waitFor({ state: "attached" });
        expect(await pasted()).toMatch(/^"a" \d$/);
    });

    test("of arrays all elements", async () => {
        await sendSchema();
        await value("battery.cells.a").getByText("5 × [").dblclick();
        await page.getByText("Copied battery.cells.a").waitFor({ state: "attached" });
        expect(await pasted()).toMatch(/^3\.9\d*(, 3\.9\d*){4}$/);
    });
});

test.each([
    [740, 360],
    [640, 360],
    [915, 412],
])("a phone held sideways shows more than two rows: %d by %d pixels", async (width, height) => {
    await page.setViewportSize({ width, height });
    await sendSchema();
    await row("battery.cells").waitFor();
    const visible = await page.locator(".row").evaluateAll((rows) => {
        const grid = document.querySelector(".grid")!.getBoundingClientRect();
        return rows.filter((row) => {
            const { top, bottom } = row.getBoundingClientRect();
            return top >= grid.top && bottom <= Math.min(grid.bottom, window.innerHeight);
        }).length;
    });
    expect(visible).toBeGreaterThan(3);
    const { scrollWidth } = await page.evaluate(() => ({ scrollWidth: document.documentElement.scrollWidth }));
    expect(scrollWidth).toBe(width);
});
