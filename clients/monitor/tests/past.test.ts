import { readFileSync, statSync } from "node:fs";
import { expect, test } from "vitest";
import type { Download } from "playwright-core";
import { changes, coloredPixels, machine, newPage, page, row, sendSchema, url, value } from "./fixture.js";
import { every, puppet } from "./impostor.js";

/** Recording in the page, and looking at recordings. */

const bar = () => page.getByRole("region", { name: "Recording" });
const press = (name: string) => page.getByRole("button", { name, exact: true }).click();
const banner = () => page.getByText("Recording: this is the past.");
const slider = () => page.getByLabel("Time in the recording");

async function scrollTo(share: number): Promise<void> {
    await slider().evaluate((input: HTMLInputElement, share) => {
        input.value = String(share * Number(input.max));
        input.dispatchEvent(new Event("input", { bubbles: true }));
    }, share);
}

async function save(format: string): Promise<Download> {
    await page.getByLabel("Format", { exact: true }).selectOption(format);
    const [file] = await Promise.all([page.waitForEvent("download"), press("Save")]);
    await page.getByText("It was saved.").waitFor();
    return file;
}

/** Opens a file as if it was dropped. */
async function drop(name: string, content: string, target = "main"): Promise<void> {
    const files = await page.evaluateHandle(
        ([name, content]) => {
            const transfer = new DataTransfer();
            transfer.items.add(new File([content!], name!));
            return transfer;
        },
        [name, content],
    );
    await page.dispatchEvent(target, "drop", { dataTransfer: files });
}

const recorded = (...lines: object[]) => lines.map((line) => `${JSON.stringify(line)}\n`).join("");
const T = 1700000000;
const three = recorded(
    { time: T, values: { motor: { speed: 1 }, on: true } },
    { time: T + 5, values: { motor: { speed: 2 }, word: "five" } },
    { time: T + 10, values: { motor: { speed: 3 }, on: false } },
);

test("records what comes, says how long it can, and shows it again as the past", async () => {
    const { send } = await puppet();
    let count = 0;
    const stop = every(50, () => send({ motor: { speed: count++ } }));
    await changes(value("motor.speed"));
    await row("motor.speed").getByRole("button", { name: "Plot" }).click();
    await press("Record");
    await bar().getByText("Recording since").waitFor();
    await bar()
        .getByText(/At this rate it holds \d+ (min|h), then the oldest goes/)
        .waitFor();
    await bar()
        .getByText(/\b\d{2,} messages, 0\.0 of 128 MiB/)
        .waitFor();
    await press("Stop");
    await bar()
        .getByText(/Recorded from \d\d:\d\d:\d\d to/)
        .waitFor();
    stop();
    await press("Look at it");
    await banner().waitFor();
    expect(await page.getByRole("button", { name: "Connect" }).count()).toBe(0);
    await page.getByText("of puppet").waitFor();
    const first = Number(await value("motor.speed").textContent());
    await scrollTo(1);
    await expect.poll(async () => Number(await value("motor.speed").textContent())).toBeGreaterThan(first + 8);
    await press("Message before");
    await press("Message before");
    await expect.poll(() => coloredPixels(page.locator(".plots canvas"))).toBeGreaterThan(100);
    await press("Back to the present");
    await page.locator(".state").getByText("Connected", { exact: true }).waitFor();
    expect(await banner().count()).toBe(0);
    expect(await row("motor.speed").locator(".age.stale").count()).toBe(1); // nothing has come since
});

test("in the past nothing can be sent, nothing is connected, and nothing of the present is shown", async () => {
    await sendSchema();
    await changes(value("motor.speed"));
    await page.getByLabel("File of a recording").setInputFiles({
        name: "run.jsonl",
        mimeType: "application/x-ndjson",
        buffer: Buffer.from(three),
    });
    await banner().waitFor();
    await page.getByText("2023-11-").waitFor();
    expect(await value("motor.speed").textContent()).toBe("1");
    expect(await row("motor.speed").getByRole("button").count()).toBe(2); // to pin and to plot
    await row("motor.speed").locator(".name").click();
    await page.keyboard.press("Enter");
    expect(await page.getByRole("heading", { name: /^Set / }).count()).toBe(0);
    expect(await page.getByRole("button", { name: "Schema", exact: true }).count()).toBe(0);
    expect(await value("word").textContent()).toBe("–");
    expect(await row("motor.current").count()).toBe(0);
    expect(machine.heard).toEqual([]);
    await press("Back to the present");
    await changes(value("motor.current"));
});

test("scrolls, steps and plays, with the times of the recording", async () => {
    await drop("run.jsonl", three);
    await banner().waitFor();
    const shown = () => Promise.all([value("motor.speed").textContent(), value("on").textContent()]);
    const clock = page.locator(".transport output");
    const begin = await clock.textContent();
    await press("Next message");
    await expect.poll(shown).toEqual(["2", "true"]);
    expect(await clock.textContent()).not.toBe(begin);
    await expect.poll(() => row("on").locator(".age").textContent()).toBe("5.0 s");
    await scrollTo(1);
    await expect.poll(shown).toEqual(["3", "false"]);
    await press("Message before");
    await expect.poll(shown).toEqual(["2", "true"]);
    await slider().focus();
    await page.keyboard.press("Home");
    await expect.poll(shown).toEqual(["1", "true"]);
    expect(await clock.textContent()).toBe(begin);
    await page.getByLabel("Speed", { exact: true }).selectOption("10");
    await press("Play the recording");
    await page.getByRole("button", { name: "Pause the recording" }).waitFor();
    await expect.poll(shown).toEqual(["3", "false"]);
    await page.getByRole("button", { name: "Play the recording" }).waitFor(); // at the end
});

test.each(["jsonl", "csv", "mcap"])("what is saved as .%s can be opened", async (format) => {
    await sendSchema();
    await changes(value("motor.speed"));
    await press("Record");
    await bar().getByText("Recording since").waitFor();
    await changes(value("motor.speed"));
    await changes(value("motor.speed"));
    await press("Stop");
    const file = await save(format);
    expect(file.suggestedFilename()).toMatch(new RegExp(`^vorbel-\\d{4}-\\d\\d-\\d\\d-\\d{6}\\.${format}$`));
    const path = await file.path();
    expect(statSync(path).size).toBeGreaterThan(100);
    await page.getByLabel("File of a recording").setInputFiles({
        name: file.suggestedFilename(),
        mimeType: "application/octet-stream",
        buffer: readFileSync(path),
    });
    await banner().waitFor();
    await page.getByText(format === "csv" ? "without a schema" : "of demo machine A7 at").waitFor();
    await scrollTo(1);
    await value("motor.speed").getByText(/^\d/).waitFor();
});

test.each([
    ["what is no JSON", "x.jsonl", "hello\n", "line 1 is none of a recording"],
    [
        "what is nested too deep",
        "x.jsonl",
        `{"time":1,"values":${'{"a":'.repeat(5000)}1${"}".repeat(5000)}}\n`,
        "nested more than 1025 deep",
    ],
    ["another magic", "x.mcap", "this is something else", "Expected MCAP magic"],
    ["a picture", "x.png", "PNG", "recordings end in .jsonl, .csv or .mcap"],
])("%s is refused, and the page goes on", async (_, name, content, reason) => {
    await sendSchema();
    await drop(name, content);
    await page.getByRole("alert").getByText(reason).waitFor();
    await changes(value("motor.speed"));
    await page.getByRole("button", { name: "Close" }).click();
    await expect.poll(() => page.getByRole("alert").getByText(reason).count()).toBe(0);
});

test("strange names of a recording are names, and one that was cut off is shown as far as it goes", async () => {
    await drop("x.jsonl", `{"time":${T},"values":{"__proto__":{"toString":5},"\u202ebad":6}}\n{"time":17000`);
    await page.getByText("Only this much could be read: its last line is cut off.").waitFor();
    expect(await value("__proto__.toString").textContent()).toBe("5");
    expect(await value("\\u{202e}bad").textContent()).toBe("6");
});

test("a schema that is dropped into its dialogue is none of a recording", async () => {
    await page.getByRole("button", { name: "Schema", exact: true }).click();
    await drop("x.json", '{"a": {"@mac": 5, "@cmd": 2, "@format": "s"}}', "textarea");
    await page.getByText("No problems found.").waitFor();
    expect(await page.getByText("cannot be opened").count()).toBe(0);
});

test("a recording that is in no file is given up only after a question", async () => {
    const { send } = await puppet();
    every(50, () => send({ a: Math.random() }));
    await press("Record");
    await bar()
        .getByText(/[1-9]\d* messages/)
        .waitFor();
    await press("Stop");
    await bar().getByText("Recorded from").waitFor();
    const asked: string[] = [];
    page.on("dialog", (dialog) => {
        asked.push(dialog.type());
        void dialog.dismiss();
    });
    const before = await bar().textContent();
    await page.evaluate(() => setTimeout(() => location.reload()));
    await expect.poll(() => asked).toEqual(["beforeunload"]);
    await press("Record");
    await press("Keep it");
    expect(await bar().textContent()).toBe(before);
    await press("Record");
    await press("Record anew");
    await bar().getByText("Recording since").waitFor();
    await press("Stop");
    await press("Discard");
    await expect.poll(() => bar().count()).toBe(0);
});

test("fits a phone, and is said to those who do not see it", async () => {
    await page.setViewportSize({ width: 360, height: 740 });
    await press("Record");
    await bar().waitFor();
    const width = () => page.evaluate(() => document.documentElement.scrollWidth);
    expect(await width()).toBe(360);
    await drop("run.jsonl", three);
    await banner().waitFor();
    expect(await width()).toBe(360);
    expect(await page.getByRole("status").getByText("this is the past").count()).toBe(1);
    await value("motor.speed").waitFor();
});

test("what it takes to record is loaded when it is first wanted", async () => {
    const tab = await newPage();
    const loaded = () =>
        tab.evaluate(() =>
            performance.getEntriesByType("resource").map(({ name }) => name.replace(/.*\/|-[^-]*$/g, "")),
        );
    expect(await loaded()).not.toContain("recording");
    await tab.getByRole("button", { name: "Record", exact: true }).click();
    await tab.getByText("Recording since").waitFor();
    expect(await loaded()).toContain("recording");
    expect(await loaded()).not.toContain("mcap");
    expect(tab.url()).toBe(url);
    await tab.close();
});
