import { describe, expect, test } from "vitest";
import { until } from "../../js/tests/machine.js";
import { changes, connected, machine, openSchema, page, row, sendSchema, startSetting, value } from "./fixture.js";
import { puppet } from "./impostor.js";

/** Names and schemas of every kind are shown as they are, and so that one sees what they are. */

const SPEED = { "@mac": 5, "@cmd": 2, "@format": "s" };
const SETPOINT = { "@mac": 5, "@cmd": 3, "@format": "s" };

test.each(["__proto__", "constructor", "toString", "hasOwnProperty", "length", "@x", ""])(
    "%j is a name like any other: shown, plotted and set",
    async (name) => {
        await sendSchema(
            JSON.parse(
                JSON.stringify({ group: { NAME: SPEED, other: SETPOINT }, NAME: SETPOINT }).replaceAll("NAME", name),
            ),
        );
        await changes(value(`group.${name}`));
        await row(`group.${name}`).getByRole("button", { name: "Plot" }).click();
        await page.locator(".legend .name", { hasText: `group.${name}` }).waitFor();
        await row(name === "" ? "" : name)
            .getByRole("button", { name: "Set" })
            .first()
            .click();
        await page.locator(".write .field").nth(1).waitFor();
        await page.keyboard.type("7");
        await page.keyboard.press("Enter");
        await until(() => machine.heard.length > 0, "a frame on the bus");
        expect(machine.heard).toEqual(["mac 5 cmd 3: 07 00"]);
    },
);

test("what would not be seen in a name, or would turn it around, is shown as what it is", async () => {
    const { send } = await puppet();
    const name = "limit\u202e051\u200b\u0007";
    const shown = "limit\\u{202e}051\\u{200b}\\u{7}";
    send({ [name]: "\u202eabc", "two  spaces": 1 });
    await value(shown).waitFor();
    expect(await row(shown).locator(".name span").last().textContent()).toBe(shown);
    expect(await value(shown).textContent()).toBe('"\\u{202e}abc"');
    await openSchema();
    await page.getByLabel("Schema as JSON").fill(JSON.stringify({ [name]: { ...SPEED, "@fator\u202e": 1 } }));
    await page.getByText(`${shown} "@fator\\u{202e}" is no option`).waitFor();
    await page.getByLabel("Schema as JSON").fill(JSON.stringify({ [name]: SPEED, "two  spaces": SETPOINT }));
    await page.getByRole("button", { name: "Use here only" }).click();
    await row(shown).getByRole("button", { name: "Plot" }).click();
    await startSetting(shown);
    await page.keyboard.type("7");
    await page.keyboard.press("Enter");
    await page.getByRole("log").getByText(`${shown} = 7`).waitFor();
    const unseen = await page.evaluate(() => {
        const attributes = [...document.querySelectorAll("body *")].flatMap((element) => [...element.attributes]);
        return [document.body.innerText, ...attributes.map(({ value }) => value)].filter((text) =>
            ["\u202e", "\u200b", "\u0007"].some((character) => text.includes(character)),
        );
    });
    expect(unseen).toEqual([]);
    expect(
        await row("two  spaces")
            .locator(".name span")
            .last()
            .evaluate((span) => span.textContent),
    ).toBe("two  spaces");
    expect(await page.locator(".row").allInnerTexts()).toContainEqual(expect.stringMatching(/^two {2}spaces/));
});

describe("a schema that is nested 5,000 deep", () => {
    test.each([
        ["objects", `${'{"a":'.repeat(5000)}{"@mac": 5}${"}".repeat(5000)}`, "is nested more than 500 deep"],
        ["lists", `${"[".repeat(5000)}${"]".repeat(5000)}`, "must be an object, not what is nested too deep"],
        [
            "lists for an option",
            `{"a": {"@mac": ${"[".repeat(5000)}${"]".repeat(5000)}}}`,
            "must be a whole number, not what is nested too deep",
        ],
    ])("is refused with words, not with a failure: %s", async (_, text, problem) => {
        await connected();
        await openSchema();
        await page.getByLabel("Schema as JSON").fill(text);
        await page.locator("#schema-problems").getByText(problem).waitFor();
        expect(await page.getByRole("button", { name: "Send to the daemon" }).isDisabled()).toBe(true);
        await page.getByLabel("Schema as JSON").fill(JSON.stringify({ a: SPEED }));
        await page.getByRole("button", { name: "Send to the daemon" }).click();
        await value("a").getByText(/^\d+$/).waitFor();
    });
});

test("names 31 levels deep are told apart on a phone of 360 pixels", async () => {
    await page.setViewportSize({ width: 360, height: 740 });
    const names = Array.from({ length: 30 }, (_, at) => `level${at + 1}`);
    const deep = names.reduceRight<object>((inner, name) => ({ [name]: inner }), { left: SPEED, right: SETPOINT });
    await sendSchema(deep);
    const path = (name: string) => [...names, name].join(".");
    await page.getByRole("treegrid").focus();
    await page.keyboard.press("End");
    await value(path("left")).getByText(/^\d+$/).waitFor();
    /** Of a text what is in sight, in pixels. */
    const inSight = (selector: string) =>
        page.locator(selector).evaluateAll((elements) =>
            elements.map((element) => {
                const { left, right, width } = element.getBoundingClientRect();
                const range = document.createRange();
                range.selectNodeContents(element);
                const text = range.getBoundingClientRect().width;
                return Math.round((100 * Math.min(right, 360, left + width) - 100 * Math.max(0, left)) / text);
            }),
        );
    const least = async () => Math.min(...(await inSight(".row .name > span:last-child")));
    await expect.poll(least).toBeGreaterThanOrEqual(99);
    await page.keyboard.press("Home");
    await expect.poll(least).toBeGreaterThanOrEqual(99);
    await page.keyboard.press("End");
    await row(path("left")).getByRole("button", { name: "Plot" }).click();
    await page.getByRole("button", { name: "plots" }).click();
    await expect.poll(() => inSight(".legend .name > span:last-child")).toEqual([100]);
    await page.getByRole("button", { name: "values" }).click();
    await startSetting(path("right"));
    expect(
        await page.getByRole("heading", { name: "Set level1" }).evaluate((head) => head.scrollWidth - head.clientWidth),
    ).toBe(0);
    expect(await page.evaluate(() => document.documentElement.scrollWidth)).toBe(360);
});
