import { expect, test } from "vitest";
import { faults } from "./faults.js";
import { coloredPixels, machine, page, row, sendSchema, startSetting, value } from "./fixture.js";
import { every, puppet } from "./impostor.js";

/** What readings mean, in the page: in the table, on plots, in forms, and beyond limits. */

const byte = (skip: number, members: object) => ({ "@mac": 5, "@cmd": 2, "@format": "C", "@skip": skip, ...members });
const schema = {
    heat: byte(0, {
        ...{ offset: -40, unit: "°C", decimals: 1, title: "Winding", description: "of the rotor" },
        ...{ warn: [null, 80], alarm: [null, 90], min: -40, max: 120 },
    }),
    state: byte(1, { bits: [0, 4], labels: { 0: "off", 1: "running" } }),
    open: byte(3, { "@asBool": true, labels: { 0: "closed", 1: "open" } }),
};
const button = (name: string | RegExp) => page.getByRole("button", { name });

/** A daemon that sends what it is told to, again and again. */
async function told(): Promise<(readings: object) => void> {
    const { send } = await puppet();
    await sendSchema(schema);
    let readings: object = { heat: 125, state: 0x81, open: true };
    every(100, () => send(readings));
    await value("heat").getByText("85.0 °C").waitFor();
    return (others) => (readings = others);
}

test("the table and the legend show it, and the path stays", async () => {
    await told();
    await expect.poll(() => value("state").textContent()).toBe("running");
    await value("open").locator(".flag.true").getByText("open").waitFor();
    expect(await row("heat").locator(".name").getAttribute("title")).toBe("heat\nWinding\nof the rotor");
    expect(await row("heat").locator(".name").textContent()).toBe("heat");
    await page.locator(".menu summary").click();
    for (const name of ["Minimum", "Raw number on the bus"]) await page.getByLabel(name, { exact: true }).check();
    await page.keyboard.press("Escape");
    await expect.poll(() => row("heat").locator(".more > span").allTextContents()).toEqual(["85.0 °C", "125"]);
    await page.getByLabel("Search values").fill("winding");
    await expect.poll(() => page.locator(".row").count()).toBe(1);
    await page.getByLabel("Search values").fill("");

    for (const path of ["heat", "state"]) await row(path).getByRole("button", { name: "Plot" }).click();
    await page.getByRole("figure", { name: /^Plot of heat in °C, state over time/ }).waitFor();
    const legend = page.locator(".legend .number");
    await expect.poll(() => legend.allTextContents()).toEqual(["85.0 °C", "running"]);
    await button("Measure").click();
    await page.getByRole("region", { name: "Measurements" }).getByText("85 °C").first().waitFor();
    await expect.poll(() => coloredPixels(page.locator(".plots canvas").first())).toBeGreaterThan(100);
});

test("an axis has the unit beside it, and the ends that the schema names", async () => {
    await told();
    await row("heat").getByRole("button", { name: "Plot" }).click();
    await page.locator(".plots canvas").first().waitFor();
    const area = async () => (await page.locator(".u-over").boundingBox())!;
    const { x } = (await page.locator(".uplot-box").boundingBox())!;
    expect((await area()).x - x).toBeGreaterThanOrEqual(48 + 16);
    const heights = await page
        .locator(".plots canvas")
        .first()
        .evaluate((element) => {
            const { width, height } = element as HTMLCanvasElement;
            const { data } = (element as HTMLCanvasElement).getContext("2d")!.getImageData(0, 0, width, height);
            const rows = new Set<number>();
            for (let at = 0; at < data.length; at += 4) {
                const [red, green, blue, alpha] = data.subarray(at, at + 4) as unknown as [
                    number,
                    number,
                    number,
                    number,
                ];
                if (alpha > 128 && Math.max(red, green, blue) - Math.min(red, green, blue) > 60)
                    rows.add(Math.floor(at / 4 / width) / height);
            }
            return [...rows];
        });
    // 85 of -40 to 120, and a little air, stands above the middle: alone it would stand in it.
    expect(Math.max(...heights)).toBeLessThan(0.4);
});

test("a form takes labels and values, and shows what else goes out in the same bytes", async () => {
    const motor = (skip: number, format: string, more = {}) => ({ ...byte(skip, more), "@format": format });
    await sendSchema({
        speed: motor(0, "s", { unit: "rpm" }),
        current: motor(2, "S", { scale: 0.01, unit: "A" }),
        boost: motor(4, "C", { bits: [1, 2], max: 2, labels: { 0: "none", 2: "high" } }),
        on: motor(4, "C", { bits: [0, 1], readonly: true, labels: { 1: "yes" } }),
    });
    await value("boost").getByText("none").waitFor();
    await startSetting("boost");
    const input = page.getByLabel("boost", { exact: true });
    expect(await input.inputValue()).toBe("none");
    const offered = page.locator(`datalist#${await input.getAttribute("list")} option`);
    expect(await offered.evaluateAll((options) => options.map((each) => (each as HTMLOptionElement).value))).toEqual([
        "none",
        "high",
    ]);
    for (const [typed, problem] of [
        ["low", 'has no label "low": there are "none", "high"'],
        ["3", "takes at most 2, not 3"],
    ] as const) {
        await input.fill(typed);
        await page.getByText(problem).waitFor();
        expect(await page.getByRole("button", { name: "Send", exact: true }).isDisabled()).toBe(true);
    }
    await input.fill("high");
    await page.getByText("The other bits of byte 4 go out as they were last read or written.").waitFor();
    await page.getByText("In the same bytes: on (bit 0 of byte 4), now yes.").waitFor();
    await page.getByText(/byte 4: 01 → 05 \(bit 2\)/).waitFor();
    expect(await faults()).toEqual([]);
    await page.keyboard.press("Enter");
    await page.getByText("Handled at").waitFor();
    await expect.poll(() => machine.heard).toEqual([expect.stringMatching(/^mac 5 cmd 2: .* 05$/)]);
    await page
        .getByRole("log")
        .getByText(/boost = high: raw 5/)
        .waitFor();
});

test("limits of the schema mark the row, count, and yield to those that are set here", async () => {
    const say = await told();
    await button("1 warned").waitFor();
    await value("heat").and(page.locator(".warned")).waitFor();
    say({ heat: 135 });
    await button("1 in alarm").click();
    await expect
        .poll(() => page.locator(".alarm-list li").first().textContent())
        .toMatch(/^heat too high: 95\.0 °C, limit 90\.0 °C/);
    await value("heat").and(page.locator(".beyond")).waitFor();
    await page.setViewportSize({ width: 360, height: 740 });
    expect(await faults()).toEqual([]);
    expect(await page.evaluate(() => document.documentElement.scrollWidth)).toBe(360);
    await page.setViewportSize({ width: 1280, height: 800 });
    await button("Set heat").click();
    await page.getByText("Winding: of the rotor").waitFor();
    await page.getByText("Limits", { exact: true }).click();
    await page.getByText("The schema: alarm above 90 °C, warning above 80 °C.", { exact: true }).waitFor();
    await page.getByLabel("High").fill("200");
    await button("Set limits").click();
    await page.getByText("What is set here holds instead.").waitFor();
    await expect.poll(() => value("heat").and(page.locator(".beyond")).count()).toBe(0);
    await page.getByLabel("High").fill("");
    await button("Set limits").click();
    await page.getByText("Those of the schema hold").waitFor();
    await button("1 in alarm").waitFor();
});
