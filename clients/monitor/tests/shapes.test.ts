import { ExtData } from "@msgpack/msgpack";
import { expect, test } from "vitest";
import { page, row, value } from "./fixture.js";
import { every, puppet } from "./impostor.js";
import { curve, FIRST, labels } from "./picture.js";

/** As what values are drawn: over their indices, over time, over frequency. */

const PERIOD = 50;
const LENGTH = 25;
/** Elements a second. */
const RATE = (1000 / PERIOD) * LENGTH;

/** An array as the daemon sends it. */
const floats = (elements: number[]) => new ExtData(23, new Uint8Array(Float32Array.from(elements).buffer));

/** Sends arrays of a sine of 50 Hz and of amplitude 3 above 10, sampled evenly. */
async function sendSine(): Promise<void> {
    const { send } = await puppet();
    let sent = 0;
    const begin = performance.now();
    every(PERIOD / 5, () => {
        for (; sent < (performance.now() - begin) / PERIOD; sent++) {
            const at = (index: number) => (sent * LENGTH + index) / RATE;
            const elements = Array.from({ length: LENGTH }, (_, index) => 10 + 3 * Math.sin(100 * Math.PI * at(index)));
            send({ sampled: floats(elements) });
        }
    });
    await value("sampled").getByText("25 × [").waitFor();
    await row("sampled").getByRole("button", { name: "Plot" }).click();
    await page.locator(".plots .u-over").waitFor();
}

const drawAs = (shape: string) => page.getByLabel("Draw sampled as").selectOption(shape);
const count = (heights: (number | undefined)[]) => heights.filter((height) => height !== undefined).length;

test("an array is a waveform, or runs over time, its elements between the messages", async () => {
    await sendSine();
    await page.getByRole("figure", { name: "Waveforms of sampled" }).waitFor();
    await drawAs("over time");
    await page.getByRole("figure", { name: "Plot of sampled over time" }).waitFor();
    await page.getByLabel("Time span").selectOption("10 s");
    await page.waitForTimeout(6500);
    await page.getByRole("button", { name: "Pause" }).click();
    await page.locator(".plots figure").first().focus();
    for (let time = 0; time < 7; time++) await page.keyboard.press("+"); // 10 s become 80 ms: four periods
    await page.waitForTimeout(500);
    const heights = await curve(FIRST);
    const seen = heights.filter((height) => height !== undefined);
    const middle = (Math.max(...seen) + Math.min(...seen)) / 2;
    const crossings = seen.slice(1).filter((height, at) => height > middle !== seen[at]! > middle).length;
    expect(crossings).toBeGreaterThanOrEqual(3);
    expect(crossings).toBeLessThanOrEqual(14);
    const over = (await page.locator(".plots .u-over").first().boundingBox())!;
    await page.mouse.move(over.x + over.width / 2, over.y + 40);
    await page
        .locator(".legend .number")
        .getByText(/^1?\d(\.\d+)?$/)
        .waitFor();
});

test("a spectrum has a sine's amplitude at its frequency, and the transform is loaded only for it", async () => {
    const loaded: string[] = [];
    page.on("request", (request) => loaded.push(request.url()));
    await sendSine();
    expect(loaded.filter((url) => url.includes("spectrum"))).toEqual([]);
    await drawAs("spectrum");
    const figure = page.getByRole("figure", { name: "Spectrum of sampled" });
    await figure.waitFor();
    await expect.poll(() => loaded.filter((url) => url.includes("spectrum"))).toHaveLength(1);
    await page.getByLabel("Time span").selectOption("10 s");
    await page.waitForTimeout(6000);
    await page.getByRole("button", { name: "Pause" }).click();
    await page.waitForTimeout(300);
    const words = (await figure.locator("figcaption").textContent())!;
    expect(words).toMatch(
        /^Amplitude over Hz, of \d+ readings, \d+(\.\d+)? a second; constant part (9\.99\d*|10(\.0\d*)?)$/,
    );
    const rate = Number(words.match(/([\d.]+) a second/)![1]);
    expect(rate).toBeGreaterThan(0.9 * RATE);
    expect(rate).toBeLessThan(1.1 * RATE);
    const texts = (await labels()).map(({ text }) => text);
    expect(texts).toEqual(expect.arrayContaining(["0", "50", "100", "150", "200"]));
    const amplitudes = (await labels()).map(({ text }) => Number(text)).filter((number) => number < 20);
    expect(Math.max(...amplitudes), "the constant part is not what the scale is for").toBeLessThan(4);
    // Highest at 50 Hz of all but what is constant.
    const heights = (await curve(FIRST)).map((height) => height ?? 0);
    const left = (await page.locator(".plots .u-over").first().boundingBox())!;
    const canvas = (await page.locator(".plots canvas").first().boundingBox())!;
    const inside = heights.slice(Math.round(left.x - canvas.x), Math.round(left.x - canvas.x + left.width));
    const begin = Math.round(0.05 * inside.length);
    const peak = inside.indexOf(Math.max(...inside.slice(begin)), begin) / inside.length;
    expect(peak).toBeGreaterThan(0.17);
    expect(peak).toBeLessThan(0.23);
    expect(count(heights)).toBeGreaterThan(100);
});

test("of an array that came once, a spectrum is over cycles per element; of a number, it is offered, of a flag not", async () => {
    const { send } = await puppet();
    send({
        sampled: floats(Array.from({ length: 64 }, (_, at) => Math.cos((Math.PI * at) / 4))),
        flag: true,
        number: 1,
    });
    await value("number").getByText("1").waitFor();
    for (const path of ["sampled", "flag", "number"]) await row(path).getByRole("button", { name: "Plot" }).click();
    await drawAs("spectrum");
    const caption = page.locator(".plots figcaption");
    await caption.getByText("Amplitude over cycles per element, of 64 elements; constant part").waitFor();
    expect(await page.getByLabel("Draw number as").locator("option").allTextContents()).toEqual([
        "over time",
        "spectrum",
    ]);
    expect(await page.getByLabel("Draw flag as").count()).toBe(0);
    await page.getByLabel("Draw number as").selectOption("spectrum");
    await caption.getByText("8 readings are needed, there are 1").waitFor();
});

test("as what it is drawn stays after a reload", async () => {
    await sendSine();
    await drawAs("spectrum");
    await page.getByRole("figure", { name: "Spectrum of sampled" }).waitFor();
    await page.reload();
    await page.getByRole("figure", { name: "Spectrum of sampled" }).waitFor();
});
