import { expect, test } from "vitest";
import { faults } from "./faults.js";
import { connected, machine, openSchema, page, row, sendSchema, startSetting, url, value } from "./fixture.js";

test.each([
    ["light", 1280, 800],
    ["dark", 1280, 800],
    ["light", 360, 740],
    ["dark", 360, 740],
] as const)(
    "no state has faults that can be found by a program: %s, %d pixels wide",
    async (colorScheme, width, height) => {
        await page.emulateMedia({ colorScheme });
        await page.setViewportSize({ width, height });
        const narrow = width < 820;
        const turnTo = async (name: string) => {
            if (narrow) await page.getByRole("navigation").getByRole("button", { name }).click();
        };
        await connected();
        expect(await faults(), "no values").toEqual([]);
        await openSchema();
        expect(await faults(), "no schema").toEqual([]);
        await page.getByLabel("Schema as JSON").fill('{"a": {"@mac": 64, "@format": "p", "@fator": 2}}');
        expect(await faults(), "a schema with problems").toEqual([]);
        await page.keyboard.press("Escape");

        await sendSchema();
        await page.getByLabel("Search values").fill("motor");
        await value("motor.speed")
            .getByText(/^\d+ rpm$/)
            .waitFor();
        await row("motor.speed").getByRole("button", { name: "Plot" }).click();
        await row("motor.current").getByRole("button", { name: "Plot" }).click();
        expect(await faults(), "values").toEqual([]);
        await turnTo("plots");
        await page.getByRole("button", { name: "Pause" }).click();
        expect(await faults(), "plots").toEqual([]);
        await turnTo("values");
        await startSetting("motor.setpoint");
        await page.keyboard.type("40000");
        expect(await faults(), "a value that does not fit").toEqual([]);
        await page.keyboard.press("Control+A");
        await page.keyboard.type("1200");
        await page.keyboard.press("Enter");
        await page.getByText("Handled at").waitFor();
        expect(await faults(), "a sent value").toEqual([]);
        await page.getByRole("button", { name: "Record", exact: true }).click();
        await page.getByText(/[1-9]\d* messages/).waitFor();
        await page.getByRole("button", { name: "Stop", exact: true }).click();
        await page.getByText("Recorded from").waitFor();
        expect(await faults(), "what was recorded").toEqual([]);
        await page.getByRole("button", { name: "Look at it" }).click();
        await page.getByText("this is the past").waitFor();
        expect(await faults(), "a recording").toEqual([]);
        await page.getByRole("button", { name: "Back to the present" }).click();
        await connected();
        await turnTo("values");
        await page.getByLabel("Search values").fill("motor");
        await startSetting("motor.setpoint");
        await page.keyboard.press("Escape");
        await row("motor.enabled").getByRole("button", { name: "Why" }).click();
        expect(await faults(), "a read-only value").toEqual([]);
        await page.keyboard.press("Escape");
        await page.getByLabel("Search values").fill("nothing like this");
        expect(await faults(), "nothing found").toEqual([]);

        await machine.stopDaemon();
        await page.getByText("nothing answers").first().waitFor();
        await page.getByLabel("Search values").fill("motor");
        await page.waitForTimeout(3000); // values grow old, and amber
        expect(await faults(), "the daemon is away").toEqual([]);
        expect(await page.evaluate(() => document.documentElement.scrollWidth), "nothing sticks out").toBe(width);
        await turnTo("log");
        expect(await faults(), "the log").toEqual([]);
        await page.getByLabel("Address of the daemon").fill("http://machine");
        await page.getByRole("button", { name: "Connect" }).click();
        expect(await faults(), "a wrong address").toEqual([]);
        expect(await page.evaluate(() => document.documentElement.scrollWidth), "nothing sticks out").toBe(width);
    },
);

test.each([
    ["light", 1280],
    ["dark", 360],
] as const)("nor has what keeps a machine from being moved: %s, %d pixels wide", async (colorScheme, width) => {
    await page.emulateMedia({ colorScheme });
    await page.setViewportSize({ width, height: 800 });
    const sticksOut = () => page.evaluate((width) => document.documentElement.scrollWidth - width, width);
    await page.goto(`${url}?locked&address=${"a-long-name.".repeat(8)}example.com`);
    await page.getByRole("dialog").waitFor();
    expect([await faults(), await sticksOut()], "a link to a stranger").toEqual([[], 0]);
    await page.keyboard.press("Escape");
    await page.getByRole("button", { name: "Locked" }).click();
    expect([await faults(), await sticksOut()], "unlocking").toEqual([[], 0]);
    await page.getByRole("button", { name: "Unlock" }).click();

    const frame = { "@mac": 5, "@cmd": 3, "@format": "S" };
    await sendSchema({ kp: { ...frame, "@skip": 2 }, limit: frame, alive: { ...frame, "@cmd": 2 } });
    await value("alive").getByText(/^\d+$/).waitFor();
    await page.waitForTimeout(1500);
    await page.evaluate(() => {
        const socket = new WebSocket("ws://127.0.0.1:10443");
        socket.onopen = () => socket.send('{"other": {"@mac": 5, "@cmd": 2, "@format": "S"}}');
    });
    await page.locator(".notice").waitFor();
    await startSetting("kp");
    await page.keyboard.type("9");
    await page.getByLabel("Send it nevertheless").waitFor();
    expect([await faults(), await sticksOut()], "consequences").toEqual([[], 0]);
});

test.each([
    ["light", 1280],
    ["dark", 360],
] as const)("nor has what is chosen to be seen: %s, %d pixels wide", async (colorScheme, width) => {
    await page.emulateMedia({ colorScheme });
    await page.setViewportSize({ width, height: 800 });
    const sticksOut = () => page.evaluate((width) => document.documentElement.scrollWidth - width, width);
    await page.goto(`${url}?plot=motor.speed,battery.cells.a`);
    await sendSchema();
    await value("battery.cells.a").getByText("5 × [").waitFor();
    await page.locator(".menu summary").click();
    for (const column of ["Minimum", "Maximum", "Raw number on the bus", "Bytes, hexadecimal"]) {
        await page.getByLabel(column, { exact: true }).check();
    }
    expect([await faults(), await sticksOut()], "columns, and a link's view").toEqual([[], 0]);
    await page.keyboard.press("Escape");
    await page.getByRole("button", { name: "Copy a link to this view" }).click();
    await page.getByRole("dialog").waitFor();
    expect([await faults(), await sticksOut()], "the link").toEqual([[], 0]);
    await page.keyboard.press("Escape");
    if (width < 820) await page.getByRole("navigation").getByRole("button", { name: "plots" }).click();
    await page.getByLabel("Draw battery.cells.a as").selectOption("spectrum");
    await page.getByRole("figure", { name: "Spectrum of battery.cells.a" }).waitFor();
    await page.getByText("Amplitude over").waitFor();
    expect([await faults(), await sticksOut()], "a spectrum").toEqual([[], 0]);
});

test.each([
    ["light", 1280],
    ["dark", 360],
] as const)("nor has what goes out by itself, or is in alarm: %s, %d pixels wide", async (colorScheme, width) => {
    await page.emulateMedia({ colorScheme });
    await page.setViewportSize({ width, height: 800 });
    const state = async () => [
        await faults(),
        await page.evaluate((width) => document.documentElement.scrollWidth - width, width),
    ];
    await sendSchema();
    await page.getByLabel("Search values").fill("motor");
    await value("motor.speed")
        .getByText(/^\d+ rpm$/)
        .waitFor();
    await startSetting("motor.setpoint");
    await page.getByText("Limits", { exact: true }).click();
    await page.getByLabel("High").fill("none");
    expect(await state(), "wrong limits").toEqual([[], 0]);
    await page.keyboard.press("Escape");
    await row("motor.speed").getByRole("button", { name: "Set" }).click();
    await page.getByText("Limits", { exact: true }).click();
    await page.getByLabel("High").fill("-1");
    await page.getByRole("button", { name: "Set limits" }).click();
    await page.getByRole("button", { name: "1 in alarm" }).click();
    expect(await state(), "alarms").toEqual([[], 0]);

    await page.keyboard.press("Escape");
    await startSetting("motor.setpoint");
    await page.keyboard.type("1200");
    await page.getByRole("button", { name: "Keep…" }).click();
    await page.getByLabel("Name of the preset").fill("A name that is rather long ".repeat(4));
    await page.keyboard.press("Enter");
    await page.getByRole("button", { name: "New sequence" }).click();
    await page.getByLabel("Steps").fill("0 motor.setpoint = one");
    expect(await state(), "presets and sequences").toEqual([[], 0]);
    await page.getByRole("button", { name: "Repeat…" }).click();
    await page.getByLabel("Milliseconds from one to the next").fill("1");
    expect(await state(), "a question").toEqual([[], 0]);
    await page.getByLabel("Milliseconds from one to the next").fill("1000");
    await page.getByRole("dialog").getByRole("button", { name: "Repeat" }).click();
    await page.getByRole("button", { name: "Stop" }).waitFor();
    expect(await state(), "a cycle").toEqual([[], 0]);
    await page.keyboard.press("Escape"); // looking for faults may have kept the page busy for so long that it ended
    await page.keyboard.press("Escape");
    await page
        .getByText(/stopped at/)
        .first()
        .waitFor();
    expect(await state(), "its end").toEqual([[], 0]);
});

test("fingers find what they can press", async () => {
    await page.setViewportSize({ width: 360, height: 740 });
    await sendSchema();
    await page.getByLabel("Search values").fill("motor");
    await value("motor.speed")
        .getByText(/^\d+ rpm$/)
        .waitFor();
    await row("motor.speed").getByRole("button", { name: "Plot" }).click();
    const small = () =>
        page.getByRole("button").evaluateAll((buttons) =>
            buttons.flatMap((button) => {
                const { width, height } = button.getBoundingClientRect();
                // The whole row folds; what is hidden is pressed through another button.
                const shown = width > 0 && !button.matches(".fold, .hidden");
                return shown && (width < 42 || height < 42)
                    ? [`${button.textContent || button.ariaLabel}: ${width} × ${height}`]
                    : [];
            }),
        );
    expect(await small()).toEqual([]);
    await page.getByRole("navigation").getByRole("button", { name: "plots" }).click();
    expect(await small()).toEqual([]);
});
