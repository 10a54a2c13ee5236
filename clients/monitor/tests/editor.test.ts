import { expect, test } from "vitest";
import { machineSchema } from "../../js/tests/machine.js";
import { connected, keepNothing, openSchema, page } from "./fixture.js";

/** The schema's editor while a check takes long: what it says, and lets one do, belongs to the text in it. */

const GOOD = JSON.stringify(machineSchema);
const MISTAKEN = '{"a": {"@mac": 99, "@cmd": 1, "@format": "C"}}';
const THREAD = "**/thread-*.js";

const field = () => page.getByLabel("Schema as JSON");
const sending = () => page.getByRole("button", { name: "Send to the daemon" });
const using = () => page.getByRole("button", { name: "Use here only" });

test("nothing can be sent or used before its check has ended", async () => {
    let goOn = () => {};
    const delay = new Promise<void>((resolve) => (goOn = resolve));
    await page.route(THREAD, async (route) => {
        await delay;
        await route.continue();
    });
    await keepNothing(page);
    await page.reload();
    await connected();
    await openSchema();
    await field().fill(GOOD);
    await page.locator('.problems[aria-busy="true"]').waitFor({ state: "attached" });
    expect(await sending().isDisabled()).toBe(true);
    expect(await using().isDisabled()).toBe(true);
    expect(await page.getByText("No problems found.").count()).toBe(0);
    goOn();
    await page.getByText("No problems found.").waitFor();
    await expect.poll(() => sending().isEnabled()).toBe(true);
});

test("a change after a check takes back what the check allowed, in the same frame", async () => {
    await connected();
    await openSchema();
    await field().fill(GOOD);
    await page.getByText("No problems found.").waitFor();
    await expect.poll(() => using().isEnabled()).toBe(true);
    const seen = await field().evaluate(async (area: HTMLTextAreaElement, text) => {
        const button = [...document.querySelectorAll("dialog button")].find(
            (each) => each.textContent === "Use here only",
        );
        area.value = text;
        area.dispatchEvent(new Event("input", { bubbles: true }));
        // Whoever is fast enough finds the text of before, which was checked.
        (button as HTMLButtonElement).click();
        await new Promise(requestAnimationFrame);
        return document.querySelector("dialog") ? "open" : localStorage.getItem("vorbel.schema");
    }, MISTAKEN);
    expect(["open", GOOD]).toContain(seen);
    expect(await page.evaluate(() => localStorage.getItem("vorbel.schema"))).not.toBe(MISTAKEN);
});

test("of texts that come one after the other the last one's problems stay", async () => {
    await connected();
    await openSchema();
    await field().focus();
    await page.keyboard.insertText(GOOD);
    for (const text of ["{", "{}", MISTAKEN, GOOD, MISTAKEN]) await field().fill(text);
    await page.locator('.problems[aria-busy="false"]').getByText("outside 0 to 63").waitFor();
    expect(await sending().isDisabled()).toBe(true);
    await field().fill(GOOD);
    await expect.poll(() => sending().isEnabled()).toBe(true);
    expect(await page.locator(".problems").getByText("outside").count()).toBe(0);
});

test("the check goes on in the page where its thread cannot be had, as from a server that is away", async () => {
    await page.route(THREAD, (route) => route.abort());
    await keepNothing(page);
    await page.reload();
    await connected();
    await openSchema();
    await field().fill(MISTAKEN);
    await page.getByText("outside 0 to 63").waitFor();
    expect(await sending().isDisabled()).toBe(true);
    await field().fill(GOOD);
    await expect.poll(() => sending().isEnabled()).toBe(true);
});
