import { readFileSync } from "node:fs";
import { join } from "node:path";
import { decodeValues, flatten, leavesOf, type Schema } from "vorbel";
import { expect, onTestFinished, test } from "vitest";
import { WebSocket } from "ws";
import { ADDRESS, Machine, machineSchema, project, until } from "../../js/tests/machine.js";
import { faults } from "./faults.js";
import { coloredPixels, connected, machine, page, row, sendSchema, shoot, value } from "./fixture.js";

/** The way from an unknown bus to named values, in the page. */

const PLANT = join(project, "clients/python/tests/buses/plant.dbc");

const button = (name: string | RegExp) => page.getByRole("button", { name });
const field = (name: string) => page.getByRole("textbox", { name });
const endpoint = (name: string) => page.getByRole("option", { name });
/** Column 0 is the whole byte, 8 its lowest bit. */
const cell = (byte: number, column = 0) => page.locator(`[data-cell="${byte} ${column}"]`);
const reading = (name: string) => page.getByRole("radio", { name, exact: true });
const selected = () => page.locator("p.selected").textContent();
const bar = () => page.locator("header.workshop-bar");
const told = () => page.locator(".schema-panel > .told").textContent();
const leafNames = () => page.locator(".leaves .name").allInnerTexts();

async function openWorkshop(): Promise<void> {
    await connected();
    await button("Workshop").click();
    await page.getByRole("dialog").getByRole("button", { name: "Open the workshop" }).click();
    await page.getByText("The other clients get none of their values").waitFor({ state: "attached" });
}

async function drag(from: ReturnType<typeof cell>, to: ReturnType<typeof cell>): Promise<void> {
    await from.hover();
    await page.mouse.down();
    await to.hover();
    await page.mouse.up();
}

/** The names that the daemon gives to the values of its next messages. */
async function namesHeard(count = 3): Promise<string[]> {
    const socket = new WebSocket(ADDRESS);
    const names = new Set<string>();
    let messages = 0;
    socket.on("message", (data: Buffer, isBinary: boolean) => {
        if (!isBinary) return;
        messages++;
        for (const name of flatten(decodeValues(data)).keys()) names.add(name);
    });
    await until(() => messages >= count, "messages of the daemon").finally(() => socket.close());
    return [...names].sort();
}

/** Sends a schema from elsewhere. */
async function sendFromElsewhere(schema: object): Promise<void> {
    const socket = new WebSocket(ADDRESS);
    await new Promise((opened) => socket.once("open", opened));
    socket.send(JSON.stringify(schema));
    await new Promise((closed) => socket.once("close", closed).close());
}

/** A file as somebody chooses one. */
async function choose(label: string, name: string, content: string | Buffer): Promise<void> {
    await page.getByLabel(label, { exact: true }).setInputFiles({ name, mimeType: "", buffer: Buffer.from(content) });
}

async function saved(): Promise<string> {
    const [download] = await Promise.all([page.waitForEvent("download"), button("Save as file").click()]);
    return readFileSync(await download.path(), "utf8");
}

test("leads from an unknown bus to a plotted, named and scaled value by mouse", async () => {
    await openWorkshop();
    await endpoint("049 node 9 command 1").click();
    await drag(cell(0), cell(1));
    expect(await selected()).toBe("Selected: byte 0 to 1, 16 bits");
    await reading("unsigned, low byte first").check();
    await expect.poll(() => page.locator(".reading.chosen .number").textContent()).toMatch(/^39\d\d$/);
    await expect.poll(() => coloredPixels(page.locator(".live canvas"))).toBeGreaterThan(30);
    await field("Name").fill("battery.first");
    await field("Unit").fill("V");
    await field("Scale").fill("0.001");
    await field("Decimals").fill("3");
    await expect.poll(() => page.locator(".naming output").textContent()).toMatch(/^3\.9\d\d V$/);
    const selection = page.locator(".live li", { hasText: "unsigned, low byte first" });
    await expect.poll(() => selection.locator(".number").textContent()).toMatch(/^3\.9\d\d V$/);
    await field("Offset").fill("1");
    await expect.poll(() => selection.locator(".number").textContent()).toMatch(/^4\.9\d\d V$/);
    await field("Offset").fill("1,");
    await expect.poll(() => selection.locator(".number").textContent()).toMatch(/^3\.9\d\d V$/);
    await field("Offset").fill("");
    await button("Add to the schema").click();
    await expect.poll(told).toBe("battery.first is in the schema.");
    await button("Plot battery.first").click();
    const named = page.locator(".live li", { hasText: "battery.first" });
    await expect.poll(() => named.locator(".number").textContent()).toMatch(/^3\.9\d\d V$/);
    await button("Leave with the new schema").click();
    await expect.poll(() => value("battery.first").textContent()).toMatch(/^3\.9\d\d V$/);
    expect(await namesHeard()).toEqual(["battery.first"]);
    await row("battery.first").getByRole("button", { name: "Plot" }).click();
    await expect.poll(() => coloredPixels(page.locator(".plots canvas"))).toBeGreaterThan(10);
});

test("does the same by keyboard alone, and tells it in words", async () => {
    const press = async (...keys: string[]) => {
        for (const key of keys) await page.keyboard.press(key);
    };
    const focused = () =>
        page.evaluate(() => {
            const { ariaLabel, textContent, id } = document.activeElement as HTMLElement;
            return ariaLabel ?? (id || textContent);
        });
    await connected();
    await button("Workshop").focus();
    await press("Enter");
    await page.getByRole("dialog").waitFor();
    await press("Tab", "Enter");
    await expect.poll(() => page.getByRole("option").count()).toBe(4);
    expect(await focused()).toBe("Workshop");
    await press("Tab", "End", "ArrowUp", "Home");
    const isFocused = (name: string) => endpoint(name).evaluate((option) => option === document.activeElement);
    expect(await isFocused("085 node 5 command 2")).toBe(true);
    await press("ArrowDown");
    expect(await isFocused("049 node 9 command 1")).toBe(true);
    await press("ArrowUp", "Tab");
    await expect.poll(() => page.evaluate(() => document.activeElement!.getAttribute("data-cell"))).toBe("0 0");
    await press("ArrowDown", "ArrowDown", "Shift+ArrowDown");
    expect(await selected()).toBe("Selected: byte 2 to 3, 16 bits");
    await press("ArrowUp", "Space");
    expect(await selected()).toBe("Selected: byte 2, 8 bits");
    await press("End", "Space", "Shift+ArrowLeft");
    expect(await selected()).toBe("Selected: byte 2 bit 0 to 1, 2 bits");
    await press("PageUp", "Home", "Space", "Shift+ArrowDown");
    expect(await selected()).toBe("Selected: byte 0 to 1, 16 bits");
    await press("Tab", "Space", "ArrowDown");
    await expect.poll(() => reading("signed, low byte first").isChecked()).toBe(true);
    await press("Tab");
    expect(await focused()).toBe("leaf-name");
    await page.keyboard.type("motor.turns");
    await press("Tab", "Tab");
    await page.keyboard.type("1/s");
    await press("Tab");
    await page.keyboard.type("0.0166667");
    await press("Tab", "Tab");
    await page.keyboard.type("2");
    await press("Enter");
    await expect.poll(told).toBe("motor.turns is in the schema.");
    expect(await focused()).toBe("leaf-name");
    await button("Leave with the new schema").focus();
    await press("Enter");
    await expect.poll(() => value("motor.turns").textContent()).toMatch(/^(9|10)\.\d\d 1\/s$/);
    await expect.poll(focused).toBe("workshop-button");
});

test("sends nothing before somebody agrees, and gives the former schema back", async () => {
    await sendSchema();
    await until(() => machine.schemas.length === 1, "the schema");
    await button("Workshop").click();
    await page.getByText("The daemon has one schema for all its clients.").waitFor();
    await page.getByText("On leaving, the former schema comes back").waitFor();
    await page.getByRole("dialog").getByRole("button", { name: "Cancel" }).click();
    await value("motor.speed")
        .getByText(/^\d+ rpm$/)
        .waitFor();
    await button("Workshop").click();
    await page.waitForTimeout(500);
    expect(machine.schemas.length).toBe(1);
    await page.getByRole("dialog").getByRole("button", { name: "Open the workshop" }).click();
    await endpoint("085 node 5 command 2").waitFor();
    expect(await bar().getByRole("heading").innerText()).toBe(
        "Workshop: the daemon's schema is replaced for all clients.",
    );
    await until(() => machine.schemas.length > 1, "the workshop's schema");
    expect(await namesHeard()).toContain("085.0");
    const before = machine.schemas.length;
    await button("Leave: former schema back").click();
    await expect.poll(() => bar().count()).toBe(0);
    await value("motor.speed")
        .getByText(/^\d+ rpm$/)
        .waitFor();
    expect(machine.schemas.slice(before).at(-1)).toMatch(/Received schema: QJsonDocument\(\{"battery":/);
    expect(await namesHeard(20)).toEqual(expect.arrayContaining(["motor.current", "motor.enabled", "motor.speed"]));
    expect(await page.locator(".notice").count()).toBe(0);
    expect(machine.heard).toEqual([]);
});

test("leaves the daemon without a schema where the page has none", async () => {
    await connected();
    await button("Workshop").click();
    await page.getByText("This page has no schema").waitFor();
    await page.getByRole("dialog").getByRole("button", { name: "Open the workshop" }).click();
    await endpoint("085 node 5 command 2").waitFor();
    expect(await button("Leave with the new schema").isDisabled()).toBe(true);
    await button("Leave: no schema, as before").click();
    await page.getByText("No values yet").waitFor();
    await until(() => /QJsonDocument\(\{\}\)/.test(machine.schemas.at(-1)!), "no schema");
});

test("does not open while the page is locked, and says why", async () => {
    await connected();
    await button("Lock").click();
    await expect
        .poll(() => button("Workshop").getAttribute("title"))
        .toBe("The page is locked: the workshop needs to send a schema");
    await button("Workshop").click({ force: true }); // which is told to be disabled
    await page.getByRole("alert").getByText("The page is locked, so that no schema can be sent").waitFor();
    expect(await button("Open the workshop").isDisabled()).toBe(true);
    await page.keyboard.press("Escape");
    expect(machine.schemas).toEqual([]);
});

test("shows bytes, their heat, ranges and bits, and which have names", async () => {
    await sendSchema();
    await openWorkshop();
    await endpoint("085 node 5 command 2").click();
    const bytes = endpoint("085 node 5 command 2").locator(".byte");
    await expect
        .poll(() => bytes.allInnerTexts())
        .toEqual([...Array(5).fill(expect.stringMatching(/^[\dA-F]{2}$/)), "", "", ""]);
    await expect.poll(() => bytes.nth(0).getAttribute("data-heat")).toBe("4");
    await expect.poll(() => bytes.nth(4).getAttribute("data-heat")).toBe("0");
    expect(await page.locator(".byte-grid .names").allInnerTexts()).toEqual([
        "motor.speed",
        "motor.speed",
        "motor.current",
        "motor.current",
        "motor.enabled",
    ]);
    await expect.poll(() => cell(0, 8).getAttribute("class")).toBe("bit changed named");
    expect(await cell(4, 1).getAttribute("class")).toBe("bit named");
    await expect.poll(() => page.locator(".byte-grid .range").nth(4).textContent()).toBe("01");
    await expect.poll(() => page.locator(".byte-grid .range").nth(0).textContent()).toMatch(/^[\dA-F]{2}–[\dA-F]{2}$/);
    expect(await cell(4, 8).textContent()).toBe("bit 0: 1, has a name");
});

test("selects bits by dragging and by Shift and a click", async () => {
    await openWorkshop();
    await endpoint("085 node 5 command 2").click();
    await drag(cell(0, 5), cell(0, 1));
    expect(await selected()).toBe("Selected: byte 0 bit 3 to 7, 5 bits");
    await cell(1, 7).click({ modifiers: ["Shift"] });
    expect(await selected()).toBe("Selected: byte 0 bit 3 to byte 1 bit 1, 7 bits");
    const read = () =>
        page.locator(".read").evaluateAll((bits) => bits.map((bit) => (bit as HTMLElement).dataset["cell"]));
    expect(await read()).toEqual(["0 1", "0 2", "0 3", "0 4", "0 5", "1 7", "1 8"]);
    await reading("unsigned, high byte first").check(); // the low bits of the first byte, the high ones of the last
    await expect.poll(read).toEqual(["0 4", "0 5", "0 6", "0 7", "0 8", "1 1", "1 2"]);
    await cell(4, 8).click();
    expect(await selected()).toBe("Selected: byte 4 bit 0, 1 bit");
    await expect.poll(() => page.locator(".reading .name").allInnerTexts()).toEqual(["flag"]);
    await drag(cell(0), cell(4));
    expect(await selected()).toBe("Selected: byte 0 to 4, 40 bits");
    await page.getByText("No format has all of these bits").waitFor();
});

test("says at the field what is wrong, and changes, renames and removes what is there", async () => {
    await openWorkshop();
    await endpoint("089 node 9 command 2").click();
    await cell(0).click();
    await field("Scale").fill("0,5");
    await page.getByText("The scale is a number, such as 0.01.").waitFor();
    expect(await field("Scale").getAttribute("aria-invalid")).toBe("true");
    expect(await button("Add to the schema").isDisabled()).toBe(true);
    await field("Scale").fill("0");
    await page.getByText("A scale of 0 leaves nothing.").waitFor();
    await field("Scale").fill("0.5");
    await field("Offset").fill("x");
    await page.getByText("The offset is a number, such as -40.").waitFor();
    await field("Offset").fill("");
    await field("Decimals").fill("16");
    await page.getByText("A whole number from 0 to 15.").waitFor();
    await field("Decimals").fill("1");
    await button("Add to the schema").click();
    await page.getByText("Give it a name, such as motor.speed.").waitFor();
    await field("Name").fill("battery.charge");
    await field("Name").press("Enter");
    await expect.poll(leafNames).toEqual([expect.stringContaining("battery.charge")]);
    expect(await field("Scale").inputValue()).toBe("");
    await field("Name").fill("battery.charge");
    await field("Name").press("Enter");
    await page.getByText("There is a value battery.charge already: choose another name.").waitFor();

    await button("Plot battery.charge").click();
    await button("Change battery.charge").click();
    await page.getByRole("heading", { name: "Change battery.charge" }).waitFor();
    expect(await reading("as it is in the schema").isChecked()).toBe(true);
    expect([await field("Scale").inputValue(), await field("Decimals").inputValue()]).toEqual(["0.5", "1"]);
    await field("Name").fill("battery.level");
    await field("Unit").fill("%");
    await button("Change it").click();
    await expect.poll(told).toBe("battery.level is changed.");
    await expect.poll(() => page.locator(".live .name").allInnerTexts()).toContain("battery.level");
    expect(JSON.parse(await saved())).toEqual({
        battery: { level: { "@mac": 9, "@cmd": 2, "@format": "C", "@skip": 0, unit: "%", scale: 0.5, decimals: 1 } },
    });
    await button("Remove battery.level").click();
    await page.getByText("Nothing has a name yet.").waitFor();
});

test("a value that is changed can be read from other bits, and keeps what else it has", async () => {
    await sendSchema({ a: { "@mac": 5, "@cmd": 2, "@format": "S", "@skip": 2, unit: "A", warn: [null, 6] } });
    await openWorkshop();
    await endpoint("085 node 5 command 2").waitFor();
    await button("Change a").click();
    expect(await selected()).toBe("Selected: byte 2 to 3, 16 bits");
    await drag(cell(0), cell(1));
    await reading("signed, high byte first").check();
    await button("Change it").click();
    await button("Change a").click();
    await button("Undo").click(); // what was changed is not there any more
    await page.getByRole("heading", { name: "Name it" }).waitFor();
    await button("Redo").click();
    expect(JSON.parse(await saved())).toEqual({
        a: {
            "@mac": 5,
            "@cmd": 2,
            "@format": "S",
            "@skip": 0,
            swapped: true,
            signed: true,
            unit: "A",
            warn: [null, 6],
        },
    });
});

test("undoes and does again, by buttons and keys", async () => {
    await openWorkshop();
    await endpoint("085 node 5 command 2").click();
    await cell(0).click();
    expect(await button("Undo").getAttribute("title")).toBe("Nothing to undo");
    for (const name of ["one", "two"]) {
        await field("Name").fill(name);
        await field("Name").press("Enter");
        await expect.poll(told).toBe(`${name} is in the schema.`);
    }
    expect(await button("Undo").getAttribute("title")).toBe("Undo: Add two (Ctrl+Z)");
    await page.keyboard.press("Control+z");
    await expect.poll(leafNames).toHaveLength(1);
    expect(await told()).toBe("Undone: Add two");
    await button("Undo").click();
    await expect.poll(leafNames).toHaveLength(0);
    expect(await button("Undo").isDisabled()).toBe(true);
    expect(await button("Redo").getAttribute("title")).toBe("Redo: Add one (Ctrl+Shift+Z)");
    await button("Redo").click();
    await expect.poll(leafNames).toHaveLength(1);
    await field("Name").focus();
    await page.keyboard.press("Control+Shift+z");
    await expect.poll(leafNames).toHaveLength(2);
    expect(await told()).toBe("Done again: Add two");
    await page.keyboard.type("typed");
    await page.keyboard.press("Control+z"); // takes back what was typed
    await expect.poll(() => field("Name").inputValue()).toBe("");
    expect(await leafNames()).toHaveLength(2);
});

test("asks before what was made is lost", async () => {
    await openWorkshop();
    await endpoint("085 node 5 command 2").click();
    await cell(0).click();
    await field("Name").fill("one");
    await field("Name").press("Enter");
    const asked = page.waitForEvent("dialog");
    page.reload().catch(() => undefined); // it does not come to that
    expect((await asked).type()).toBe("beforeunload");
    await (await asked).dismiss();
    await button("Leave: no schema, as before").click();
    await page.getByRole("dialog").getByRole("button", { name: "Stay" }).click();
    await expect.poll(leafNames).toHaveLength(1);
    await button("Leave: no schema, as before").click();
    await button("Leave without it").click();
    await page.getByText("No values yet").waitFor();
});

test("opens a schema file, refuses one that is wrong, and saves what was made", async () => {
    await openWorkshop();
    await choose("Schema file", "a.json", JSON.stringify(machineSchema));
    await expect.poll(told).toBe("a.json is open.");
    expect(await leafNames()).toHaveLength(leavesOf(machineSchema).length);
    await choose("Schema file", "b.json", '{"a": {"@mac": 64}}');
    await page.getByRole("alert").getByText("Nothing was loaded").waitFor();
    expect(JSON.parse(await saved())).toEqual(machineSchema);
    await button("Undo").click();
    await page.getByText("Nothing has a name yet.").waitFor();
});

test("takes schemas and DBC files that are dropped", async () => {
    await openWorkshop();
    const drop = async (name: string, text: string) => {
        const dataTransfer = await page.evaluateHandle(
            ([name, text]) => {
                const transfer = new DataTransfer();
                transfer.items.add(new File([text!], name!));
                return transfer;
            },
            [name, text],
        );
        await page.locator("main").dispatchEvent("drop", { dataTransfer });
    };
    await drop("a.json", '{"dropped": {"@mac": 5, "@cmd": 2, "@format": "C"}}');
    await expect.poll(told).toBe("a.json is open.");
    await drop("PLANT.DBC", readFileSync(PLANT, "utf8"));
    await page.getByRole("heading", { name: "Imported PLANT.DBC" }).waitFor();
});

test("imports a DBC file, tells what became of its signals, and takes it back", async () => {
    await openWorkshop();
    await choose("DBC file", "plant.dbc", readFileSync(PLANT));
    const report = page.getByRole("dialog");
    await report.getByRole("heading", { name: "Imported plant.dbc" }).waitFor();
    const sum = await report.getByRole("status").innerText();
    const [, all, exact, readOnly, impossible, added] =
        /^(\d+) signals: (\d+) exact, (\d+) read-only, (\d+) not possible\. (\d+) added/.exec(sum)!.map(Number) as [
            number,
            number,
            number,
            number,
            number,
            number,
        ];
    expect(exact + readOnly + impossible).toBe(all);
    expect(Math.min(exact, readOnly, impossible)).toBeGreaterThan(0);
    const reasons = await report.getByRole("listitem").allInnerTexts();
    const told = (verdict: string) => reasons.filter((reason) => reason.includes(` ${verdict}: `)).length;
    expect([told("read-only"), told("not possible")]).toEqual([readOnly, impossible]);
    await button("Close").click();
    expect(leavesOf(JSON.parse(await saved()) as Schema)).toHaveLength(added);
    expect(await button("Undo").getAttribute("title")).toBe(`Undo: Import ${added} values (Ctrl+Z)`);
    await button("Undo").click();
    await page.getByText("Nothing has a name yet.").waitFor();
    await choose("DBC file", "plant.dbc", readFileSync(PLANT));
    await button("Undo the import").click();
    await page.getByText("Nothing has a name yet.").waitFor();
    await choose("DBC file", "empty.dbc", 'VERSION ""\n');
    await report.getByRole("heading", { name: "Nothing was imported from empty.dbc" }).waitFor();
    expect(await button("Undo the import").isDisabled()).toBe(true);
    await button("Close").click();
});

test("exports a DBC file by keyboard, and tells what it has no words for", async () => {
    const byte = { "@mac": 5, "@cmd": 2, "@format": "C" };
    const schema = {
        motor: {
            speed: { ...byte, "@skip": 0, unit: "°C", title: "Speed" },
            größe: { ...byte, "@skip": 1, scale: 0.5 },
            far: { ...byte, "@skip": 9 },
        },
    };
    await openWorkshop();
    await choose("Schema file", "a.json", JSON.stringify(schema));
    await expect.poll(told).toBe("a.json is open.");
    await button("Export DBC").focus();
    const [file] = await Promise.all([page.waitForEvent("download"), page.keyboard.press("Enter")]);
    expect(file.suggestedFilename()).toBe("vorbel.dbc");
    const report = page.getByRole("dialog", { name: "Exported vorbel.dbc" });
    expect(await report.getByRole("status").innerText()).toBe(
        "3 values: 1 exact, 1 incomplete, 1 not possible. 1 message in the file.",
    );
    expect(await report.getByRole("listitem").allInnerTexts()).toEqual([
        'motor.speed incomplete: without "title"',
        "motor.far not possible: it is beyond 8 bytes",
    ]);
    const lines = readFileSync(await file.path(), "latin1").split("\n");
    expect(lines.filter((line) => /^(BO_| SG_|BA_) /.test(line))).toEqual([
        "BO_ 133 motor: 2 Vector__XXX",
        ' SG_ speed : 0|8@1+ (1,0) [0|0] "°C" Vector__XXX',
        ' SG_ gr__e : 8|8@1+ (0.5,0) [0|0] "" Vector__XXX',
        'BA_ "VorbelPath" SG_ 133 gr__e "motor.größe";',
    ]);
    await page.keyboard.press("Escape");
    await expect.poll(() => report.count()).toBe(0);
    expect(await button("Export DBC").evaluate((element) => element === document.activeElement)).toBe(true);
    expect(await told()).toBe("vorbel.dbc is exported.");
});

test("exports nothing where there is nothing, or only what no DBC file can say, and tells why", async () => {
    await openWorkshop();
    const downloads: unknown[] = [];
    page.on("download", (download) => downloads.push(download));
    await button("Export DBC").click();
    await page.getByRole("alert").getByText("Nothing was exported. Nothing has a name yet.").waitFor();
    const packed = { "@mac": 5, "@cmd": 2, "@format": "p", "@fragmentation": true };
    await choose("Schema file", "a.json", JSON.stringify({ a: packed }));
    await expect.poll(told).toBe("a.json is open.");
    expect(await page.getByRole("alert").getByText("Nothing was exported").count()).toBe(0);
    await choose("Schema file", "b.json", '{"a": {"@mac": 64}}');
    const refusal = page.getByRole("alert").getByText("Nothing was loaded");
    await refusal.waitFor();
    await button("Export DBC").click();
    const report = page.getByRole("dialog", { name: "Nothing was exported" });
    expect(await report.getByRole("status").innerText()).toBe(
        "1 value: 0 exact, 0 incomplete, 1 not possible. 0 messages in the file.",
    );
    expect(await report.getByRole("listitem").allInnerTexts()).toEqual(['a not possible: a signal has no format "p"']);
    await button("Close").click();
    expect(await refusal.count()).toBe(0);
    expect(await told()).toBe("a.json is open.");
    expect(downloads).toEqual([]);
});

test("tells when another client sends a schema, which stays", async () => {
    await sendSchema();
    await openWorkshop();
    await endpoint("085 node 5 command 2").waitFor();
    await sendFromElsewhere({ other: { "@mac": 5, "@cmd": 2, "@format": "S" } });
    await bar().getByText("Another client has sent a schema, which stays").waitFor();
    await button("Leave: the other client's stays").click();
    await page.getByText("Another client has replaced the schema.").waitFor();
    expect(await namesHeard()).toEqual(["other"]);
});

test("tells when the daemon is away, and goes on when it is back", async () => {
    await openWorkshop();
    await endpoint("085 node 5 command 2").click();
    await cell(0).click();
    await field("Name").fill("kept");
    await field("Name").press("Enter");
    await machine.stopDaemon();
    await bar().getByText("The connection is lost").waitFor();
    await machine.startDaemon();
    await bar().getByText("The other clients get none of their values").waitFor();
    expect(await leafNames()).toEqual([expect.stringContaining("kept")]);
    await expect.poll(() => namesHeard().catch(() => [])).toContain("085.0");
});

test("after a page that was closed in it, the next one puts the former schema back, or forgets it", async () => {
    await sendSchema();
    await openWorkshop();
    await endpoint("085 node 5 command 2").waitFor();
    await machine.stopDaemon(); // or the page would put it back when it goes
    await page.reload();
    await machine.startDaemon();
    await connected();
    await page.getByText("The last workshop was not left: the daemon may still have its schema.").waitFor();
    await page.getByText("of 11 leaves").waitFor();
    await button("Put the former schema back").click();
    await expect.poll(() => page.getByText("The last workshop was not left").count()).toBe(0);
    await value("motor.speed")
        .getByText(/^\d+ rpm$/)
        .waitFor();
    expect(await namesHeard(20)).toContain("motor.speed");

    await openWorkshop();
    await machine.stopDaemon();
    await page.reload();
    await button("Forget it").click();
    await expect.poll(() => button("Forget it").count()).toBe(0);
    await page.reload();
    await page.waitForTimeout(500);
    expect(await button("Forget it").count()).toBe(0);
});

test.each([
    ["light", 1280],
    ["dark", 1280],
    ["light", 360],
    ["dark", 360],
] as const)("has no faults that can be found by a program: %s, %d pixels wide", async (colorScheme, width) => {
    await page.emulateMedia({ colorScheme });
    await page.setViewportSize({ width, height: 800 });
    const sticksOut = () => page.evaluate((width) => document.documentElement.scrollWidth - width, width);
    const state = async () => [await faults(), await sticksOut()];
    await sendSchema();
    await button("Workshop").click();
    await page.getByRole("dialog").waitFor();
    expect(await state(), "the question").toEqual([[], 0]);
    await page.getByRole("dialog").getByRole("button", { name: "Open the workshop" }).click();
    await endpoint("085 node 5 command 2").waitFor();
    expect(await state(), "what talks").toEqual([[], 0]);
    await endpoint("085 node 5 command 2").click();
    await drag(cell(0), cell(1));
    await field("Name").fill("motor.turns");
    await field("Unit").fill("1/s");
    await field("Scale").fill("0.0166667");
    await field("Decimals").fill("2");
    await button("Plot motor.current").click();
    await page.waitForTimeout(4000);
    await page.locator("main").evaluate((main) => main.scrollTo(0, 0));
    if (colorScheme === "light") await shoot(width === 360 ? "phone-workshop" : "workshop");
    expect(await state(), "a reading").toEqual([[], 0]);
    if (width === 360) expect(await tooSmallForFingers()).toEqual([]);
    await field("Scale").fill("none");
    expect(await state(), "a wrong scale").toEqual([[], 0]);
    await field("Scale").fill("");
    await field("Name").press("Enter");
    await page.getByText("motor.turns overlaps motor.speed").waitFor();
    expect(await state(), "doubts").toEqual([[], 0]);
    await button("Change motor.speed").click();
    expect(await state(), "a change").toEqual([[], 0]);
    await choose("DBC file", "plant.dbc", readFileSync(PLANT));
    await page.getByRole("heading", { name: "Imported plant.dbc" }).waitFor();
    expect(await state(), "a report").toEqual([[], 0]);
    await button("Close").click();
    await button("Export DBC").click();
    await page.getByRole("heading", { name: "Exported vorbel.dbc" }).waitFor();
    expect(await state(), "a report of an export").toEqual([[], 0]);
    await button("Close").click();
    await sendFromElsewhere({ other: { "@mac": 5, "@cmd": 2, "@format": "S" } });
    await bar().getByText("Another client has sent a schema").waitFor();
    expect(await state(), "another's schema").toEqual([[], 0]);
});

/** What can be pressed and is smaller than a finger. */
function tooSmallForFingers(): Promise<string[]> {
    return page.locator("button:visible, [role=option], [data-cell], .reading").evaluateAll((elements) =>
        elements.flatMap((element) => {
            const { width, height } = element.getBoundingClientRect();
            const isBit = element.matches(".bit"); // eight of them have to stand side by side
            return height < 42 || (width < 42 && !isBit) ? [`${element.textContent}: ${width} × ${height}`] : [];
        }),
    );
}

test("follows 200 endpoints with 1,000 frames a second", async () => {
    await machine.stop();
    const busy = new Machine();
    onTestFinished(() => busy.stop());
    busy.replay(manyFrames(), 5);
    await busy.startDaemon({ QT_LOGGING_RULES: "default.debug=false" });
    await openWorkshop();
    await expect.poll(() => page.getByRole("option").count()).toBe(200);
    await page.getByRole("option").first().click();
    const { frames, pictures, seconds } = await page.evaluate(async () => {
        const count = () =>
            Number(/[\d,]+/.exec(document.querySelector(".endpoints .quiet")!.textContent)![0].replaceAll(",", ""));
        let pictures = 0;
        const draw = () => requestAnimationFrame(() => (pictures++, draw()));
        draw();
        const [begin, before] = [performance.now(), count()];
        await new Promise((later) => setTimeout(later, 5000));
        return { frames: count() - before, pictures, seconds: (performance.now() - begin) / 1000 };
    });
    console.log(`${(frames / seconds).toFixed(0)} frames and ${(pictures / seconds).toFixed(0)} pictures a second`);
    expect(frames / seconds).toBeGreaterThan(800);
    expect(pictures / seconds).toBeGreaterThan(15);
});

/** A log of half a minute, with another first byte in each frame. */
function manyFrames(): string[] {
    return Array.from({ length: 30_000 }, (_, at) => {
        const identifier = (0x100 + 2 * (at % 200)).toString(16).toUpperCase();
        const byte = (Math.floor(at / 200) % 256).toString(16).padStart(2, "0");
        return `(${(1_700_000_000 + at / 1000).toFixed(6)}) can0 ${identifier}#${byte}11223344556677`;
    });
}
