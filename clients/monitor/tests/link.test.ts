import { expect, test } from "vitest";
import { connected, newPage, page, row, sendSchema, url, value } from "./fixture.js";

/** The view of the last visit, and that of a link. */

const paths = () =>
    page.locator(".row .name").evaluateAll((names) => names.map((name) => name.getAttribute("data-path")));
const plotted = () =>
    page
        .locator(".plot-box")
        .evaluateAll((boxes) =>
            boxes.map((box) => [...box.querySelectorAll(".legend .name")].map(({ textContent }) => textContent).join()),
        );
const kept = () => page.evaluate(() => localStorage.getItem("vorbel.view"));
const linkWith = (view: object) => `?view=${encodeURIComponent(JSON.stringify({ version: 1, ...view }))}`;

/** Changes all that a view has. */
async function arrange(): Promise<void> {
    await sendSchema();
    await value("motor.speed")
        .getByText(/^\d+ rpm$/)
        .waitFor();
    for (const path of ["motor.speed", "motor.current"]) {
        await row(path).getByRole("button", { name: "Plot" }).click();
    }
    await page.getByRole("button", { name: "Move motor.speed to the plot below" }).click();
    await page.getByLabel("Time span").selectOption("5 min");
    await row("battery.cells").getByRole("button", { name: "Fold" }).click();
    await row("door.open").hover();
    await row("door.open").getByRole("button", { name: "Keep at the top" }).click();
    await page.locator(".menu summary").click();
    await page.getByLabel("Raw number on the bus").check();
    await page.keyboard.press("Escape");
}

async function expectArranged(tab = page): Promise<void> {
    const titles = () =>
        tab.locator(".row .name").evaluateAll((names) => names.map((name) => name.getAttribute("data-path")));
    await expect
        .poll(titles)
        .toEqual([
            "door.open",
            "battery",
            "battery.cells",
            "battery.charge",
            "battery.temperature",
            "door",
            "motor",
            "motor.current",
            "motor.enabled",
            "motor.setpoint",
            "motor.speed",
        ]);
    await expect.poll(() => tab.locator(".plot-box").count()).toBe(2);
    expect(await tab.getByLabel("Time span").inputValue()).toBe("300");
    await expect.poll(() => tab.getByRole("columnheader", { name: "Raw" }).count()).toBe(1);
}

test("plots, span, folds, pins, filters and columns are as they were after a reload", async () => {
    await arrange();
    await page.reload();
    await expectArranged();
    await expect.poll(plotted).toEqual(["motor.current", "motor.speed"]);
    await page.getByLabel("Search values").fill("motor s");
    await page.getByRole("button", { name: "Only what changes" }).click();
    await page.reload();
    await expect.poll(() => page.getByLabel("Search values").inputValue()).toBe("motor s");
    expect(await page.getByRole("button", { name: "Only what changes" }).getAttribute("aria-pressed")).toBe("true");
});

test("a link has the view alone, and what else somebody ticks", async () => {
    await arrange();
    await page.getByRole("button", { name: "Copy a link to this view" }).click();
    const link = async () => new URL(await page.getByLabel("The link").inputValue());
    expect([...(await link()).searchParams.keys()]).toEqual(["view"]);
    expect((await link()).href).not.toContain("10443");
    await page.getByLabel("With the daemon's address").check();
    await expect.poll(async () => (await link()).searchParams.get("address")).toBe("ws://127.0.0.1:10443");
    expect(await page.getByLabel("With the schema").count()).toBe(0);
    await page.getByLabel("With the daemon's address").uncheck();
    const copied = (await link()).href;
    await page.getByRole("button", { name: "Copy", exact: true }).click();
    await page.getByText("The link is copied").waitFor({ state: "attached" });
    const search = page.getByLabel("Search values");
    await search.press("Control+V");
    expect(await search.inputValue()).toBe(copied);

    await page.evaluate(() => localStorage.removeItem("vorbel.view"));
    await page.goto(copied);
    await expectArranged();
});

test("a link to a page with a schema from a file can bring that, too", async () => {
    await page.goto(`${url}?schema=machine.schema.json`);
    await page.getByRole("button", { name: "Use it" }).click();
    await row("motor.speed").waitFor();
    await page.getByRole("button", { name: "Copy a link to this view" }).click();
    await page.getByLabel("With the schema machine.schema.json").check();
    expect(new URL(await page.getByLabel("The link").inputValue()).searchParams.get("schema")).toBe(
        "machine.schema.json",
    );
});

test("a link is shown for the visit, and overwrites what is kept only when something is changed", async () => {
    await arrange();
    const before = await kept();
    await page.goto(url + linkWith({ search: "charge", span: 10, plots: [[{ path: "battery.charge" }]] }));
    await expect.poll(paths).toEqual(["door.open", "battery", "battery.charge"].slice(1));
    await expect.poll(plotted).toEqual(["battery.charge"]);
    await page.getByText("This view comes from a link.").waitFor();
    await value("battery.charge").getByText(/\d/).waitFor();
    expect(await kept()).toBe(before);
    await page.goto(url);
    await expectArranged();
    await page.goBack();
    await expect.poll(plotted).toEqual(["battery.charge"]);
    await page.getByLabel("Time span").selectOption("1 min");
    await page.getByText("This view comes from a link.").waitFor({ state: "detached" });
    expect(page.url()).toBe(url);
    await page.reload();
    await expect.poll(plotted).toEqual(["battery.charge"]);
    expect(await page.getByLabel("Time span").inputValue()).toBe("60");
});

test("a link's view is kept when somebody says so", async () => {
    await sendSchema();
    await page.goto(url + linkWith({ search: "charge" }));
    await page.getByRole("button", { name: "Keep it" }).click();
    await page.goto(url);
    await expect.poll(() => page.getByLabel("Search values").inputValue()).toBe("charge");
});

test.each([
    ["of a later version", { version: 2, search: "x" }, "it is of another version of this page"],
    ["with what is no view", { plots: { a: 1 } }, "its plots cannot be read"],
    ["that is too long", { search: "x".repeat(7000) }, "it is too long"],
])("a link %s is told of, and changes nothing", async (_, view, problem) => {
    const tab = await newPage(linkWith(view));
    await tab.getByText(`The link's view is not shown: ${problem}.`).waitFor();
    await tab.getByRole("log").getByText("The link's view cannot be shown").waitFor();
    await tab.locator(".state").getByText("Connected", { exact: true }).waitFor();
    expect(await tab.getByLabel("Search values").inputValue()).toBe("");
    await tab.locator(".notice").getByRole("button", { name: "Close" }).click();
    await tab.locator(".notice").waitFor({ state: "detached" });
    expect(tab.url()).toBe(url);
    await tab.close();
});

test("a link with strange names is shown with them, and breaks nothing", async () => {
    const strange = ["__proto__", "constructor", "\u202e<b>", "a".repeat(500)];
    await page.goto(url + linkWith({ folds: strange, pins: strange, plots: [strange.map((path) => ({ path }))] }));
    await connected();
    await sendSchema();
    await value("motor.speed")
        .getByText(/^\d+ rpm$/)
        .waitFor();
    expect(await plotted()).toEqual([]);
});
