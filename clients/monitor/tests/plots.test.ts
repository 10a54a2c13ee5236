import { setTimeout as sleep } from "node:timers/promises";
import { expect, test } from "vitest";
import { page, row, value } from "./fixture.js";
import { every, puppet } from "./impostor.js";

/** Several plots. */

async function threeCurves(): Promise<void> {
    const { send } = await puppet();
    every(50, () => {
        const phase = performance.now() / 500;
        send({ a: Math.sin(phase), b: Math.cos(phase), c: phase });
    });
    await value("c").getByText(/\d/).waitFor();
    for (const path of ["a", "b", "c"]) await row(path).getByRole("button", { name: "Plot" }).click();
    await page.locator(".plots .u-over").waitFor();
}

/** The values of each plot. */
const plots = () =>
    page
        .locator(".plot-box")
        .evaluateAll((boxes) =>
            boxes.map((box) =>
                [...box.querySelectorAll(".legend .name")].map(({ textContent }) => textContent).join(""),
            ),
        );
const item = (path: string) => page.locator(".legend .name", { hasText: path });

test("a curve is dragged into a plot of its own, and into another's", async () => {
    await threeCurves();
    expect(await plots()).toEqual(["abc"]);
    await item("b").hover();
    await page.mouse.down();
    await page.mouse.move(0, 0, { steps: 3 });
    await page.locator(".new-plot").hover();
    await page.locator(".new-plot").hover();
    await page.mouse.up();
    await expect.poll(plots).toEqual(["ac", "b"]);
    expect(await page.locator(".new-plot").count()).toBe(0);
    await item("c").dragTo(page.locator(".plot-box").nth(1));
    await expect.poll(plots).toEqual(["a", "bc"]);
    expect(await page.locator(".plots .u-over").count()).toBe(2);
});

test("a curve is moved by a button, too", async () => {
    await threeCurves();
    await page.getByRole("button", { name: "Move a to the plot below" }).click();
    await expect.poll(plots).toEqual(["bc", "a"]);
    await page.getByRole("button", { name: "Move a to the plot below" }).click();
    await expect.poll(plots).toEqual(["bca"]);
});

test("plots are as high as they are made, and a pointer in one reads all", async () => {
    await threeCurves();
    await page.getByRole("button", { name: "Move a to the plot below" }).click();
    const box = page.locator(".uplot-box").first();
    const corner = (await box.boundingBox())!;
    await page.mouse.move(corner.x + corner.width - 4, corner.y + corner.height - 4);
    await page.mouse.down();
    await page.mouse.move(corner.x + corner.width - 4, corner.y + corner.height + 96, { steps: 5 });
    await page.mouse.up();
    const canvas = () =>
        page
            .locator(".plots canvas")
            .first()
            .evaluate((element) => element.clientHeight);
    await expect.poll(canvas).toBeGreaterThan(300);
    await page.getByLabel("Time span").selectOption("10 s");
    await sleep(2000);
    await page.getByRole("button", { name: "Pause" }).click();
    const over = (await page.locator(".plots .u-over").first().boundingBox())!;
    await page.mouse.move(over.x + over.width * 0.9, over.y + 50);
    await page.locator(".pointed").waitFor();
    const lines = await page
        .locator(".plots .u-cursor-x")
        .evaluateAll((lines) => lines.map((line) => line.getBoundingClientRect().left > 10));
    expect(lines).toEqual([true, true]);
});
