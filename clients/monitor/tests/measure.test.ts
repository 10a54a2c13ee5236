import { setTimeout as sleep } from "node:timers/promises";
import { expect, test } from "vitest";
import { page, row, value } from "./fixture.js";
import { every, puppet } from "./impostor.js";
import { labels } from "./picture.js";

/** What is read off plots with a pointer. */

/** A plot of ten seconds, paused: "a" was 1 for more than three seconds, then 3 for three. */
async function pausedStep(): Promise<void> {
    const { send } = await puppet();
    let level = 1;
    const stop = every(50, () => send({ a: level, b: -level }));
    await value("a").getByText("1").waitFor();
    for (const path of ["a", "b"]) await row(path).getByRole("button", { name: "Plot" }).click();
    await page.getByLabel("Time span").selectOption("10 s");
    await sleep(3500);
    level = 3;
    await sleep(3000);
    await page.getByRole("button", { name: "Pause" }).click();
    level = 7;
    await value("a").getByText("7").waitFor();
    stop();
}

/** Where a time lies in the plot, in seconds before its end. */
async function place(before: number): Promise<{ x: number; y: number }> {
    const { x, y, width, height } = (await page.locator(".plots .u-over").boundingBox())!;
    return { x: x + width * (1 - before / 10), y: y + height / 2 };
}

const legend = () => page.locator(".legend .number").allTextContents();

test("the legend tells the values where one points, and those of the present when one does not", async () => {
    await pausedStep();
    await expect.poll(legend).toEqual(["7", "-7"]);
    const [early, late] = [await place(4.5), await place(1)];
    await page.mouse.move(early.x, early.y);
    await expect.poll(legend).toEqual(["1", "-1"]);
    await page
        .locator(".pointed")
        .getByText(/^at \d\d:\d\d:\d\d\.\d{3}$/)
        .waitFor();
    await page.mouse.move(late.x, late.y);
    await expect.poll(legend).toEqual(["3", "-3"]);
    await page.mouse.move(1, 1);
    await expect.poll(legend).toEqual(["7", "-7"]);
});

test("two marks measure the difference, the least, the most and the mean between them", async () => {
    await pausedStep();
    const measured = async () =>
        page
            .locator(".measurements tr")
            .evaluateAll((rows) =>
                rows.map((row) => [...row.querySelectorAll("th, td")].map((cell) => cell.textContent)),
            );
    await page.getByRole("button", { name: "Measure" }).click();
    await expect.poll(async () => (await measured())[0]).toEqual(["in sight", "least", "most", "mean"]);
    expect((await measured())[1]!.slice(0, 3)).toEqual(["a", "1", "3"]);
    for (const before of [1.5, 4.5]) {
        const { x, y } = await place(before);
        await page.mouse.click(x, y);
    }
    await expect
        .poll(async () => (await measured())[0]!.slice(1))
        .toEqual(["A", "B", "B − A", "least", "most", "mean"]);
    const [head, a, b] = await measured();
    expect(parseFloat(head![0]!)).toBeCloseTo(3, 0);
    expect(a!.slice(0, 6)).toEqual(["a", "1", "3", "2", "1", "3"]);
    expect(b!.slice(0, 6)).toEqual(["b", "-1", "-3", "-2", "-3", "-1"]);
    expect(Number(a![6])).toBeGreaterThan(1.7);
    expect(Number(a![6])).toBeLessThan(2.3);
    const letters = (await labels()).map(({ text }) => text).filter((text) => /^[AB]$/.test(text));
    expect(letters.sort()).toEqual(["A", "B"]);
    await page.keyboard.press("Escape");
});

test("marks are set and taken away by keys, too", async () => {
    await pausedStep();
    await page.locator("figure").first().focus();
    const { x, y } = await place(4.5);
    await page.mouse.move(x, y);
    await page.keyboard.press("a");
    await page.mouse.move((await place(1)).x, y);
    await page.keyboard.press("b");
    await expect
        .poll(() => page.locator(".measurements tbody tr").first().locator("td").allTextContents())
        .toEqual(["1", "3", "2", "1", "3", expect.anything()]);
    await page.keyboard.press("Escape");
    await page.locator(".measurements").waitFor({ state: "detached" });
});
