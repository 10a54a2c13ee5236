import type { AddressInfo } from "node:net";
import type { Page } from "playwright-core";
import { describe, expect, onTestFinished, test } from "vitest";
import { WebSocketServer } from "ws";
import { Network } from "../../js/tests/link.js";
import { Machine, machineSchema, until } from "../../js/tests/machine.js";
import {
    changes,
    connected,
    machine,
    newPage,
    openSchema,
    page,
    row,
    sendSchema,
    startMachine,
    startSetting,
    value,
} from "./fixture.js";

/** What can move a machine by accident, and what keeps it from doing so. */

const send = () => page.getByRole("button", { name: "Send", exact: true });
const preview = () => page.locator(".preview").textContent();
const outcome = () => page.locator(".write form > [role=status]");
const field = (path: string) => page.getByLabel(path, { exact: true });

async function hold(key: string, seconds: number): Promise<void> {
    for (let at = 0; at < seconds * 30; at++) {
        await page.keyboard.down(key);
        await page.waitForTimeout(33);
    }
    await page.keyboard.up(key);
}

describe("a key", () => {
    test("that is held on a row opens its form, and sends nothing", async () => {
        await sendSchema();
        await value("motor.speed")
            .getByText(/^\d+ rpm$/)
            .waitFor();
        await page.getByRole("treegrid").focus();
        await page.keyboard.press("End");
        await hold("Enter", 1);
        await page.getByRole("heading", { name: "Set motor.speed" }).waitFor();
        await page.waitForTimeout(300);
        expect(machine.heard).toEqual([]);
    });

    test("that is held in the form sends once what was typed", async () => {
        await sendSchema();
        await value("motor.speed")
            .getByText(/^\d+ rpm$/)
            .waitFor();
        await startSetting("motor.setpoint");
        await page.keyboard.type("1200");
        await hold("Enter", 1);
        await outcome().getByText("Handled at").waitFor();
        await page.waitForTimeout(300);
        await expect.poll(() => machine.heard).toEqual(["mac 5 cmd 3: b0 04"]);
    });

    test("that is held on a button presses it once", async () => {
        await sendSchema();
        await value("motor.speed")
            .getByText(/^\d+ rpm$/)
            .waitFor();
        await row("motor.speed").getByRole("button", { name: "Plot" }).focus();
        await hold("Enter", 0.5);
        await row("motor.speed").getByRole("button", { name: "Plot", pressed: true }).waitFor();
    });

    test("sends nothing that was not edited, and nothing twice", async () => {
        await sendSchema();
        await value("motor.speed")
            .getByText(/^\d+ rpm$/)
            .waitFor();
        await startSetting("motor.speed");
        expect(await send().isDisabled()).toBe(true);
        await page.keyboard.press("Enter");
        await page.keyboard.type("500");
        await page.keyboard.press("Enter");
        await outcome().getByText("Handled at").waitFor();
        expect(await send().isDisabled()).toBe(true);
        await page.keyboard.press("Enter");
        await page.waitForTimeout(300);
        await expect.poll(() => machine.heard).toEqual([expect.stringMatching(/^mac 5 cmd 2: f4 01 /)]);
    });
});

/** Connects the page to the daemon through a network that can stall. */
async function connectThrough(): Promise<Network> {
    const network = await Network.open();
    onTestFinished(() => network.close());
    await connected();
    await page.getByLabel("Address of the daemon").fill(network.address);
    await page.getByRole("button", { name: "Connect" }).click();
    await until(() => network.connections > 0, "a connection");
    await connected();
    return network;
}

/** The same, with a form in which something has been typed and not sent. */
async function typeThrough(text: string): Promise<Network> {
    const network = await connectThrough();
    await sendSchema();
    await value("motor.speed")
        .getByText(/^\d+ rpm$/)
        .waitFor();
    await startSetting("motor.setpoint");
    await page.keyboard.type(text);
    return network;
}

describe("a network that stalls", () => {
    test("is told within seconds, and what is written meanwhile never reaches the bus", async () => {
        const network = await typeThrough("1200");
        network.stall();
        await page.keyboard.press("Enter");
        await outcome().getByText("Sending…").waitFor();
        expect(await send().isDisabled()).toBe(true);
        await page.getByRole("log").getByText("Connection lost").waitFor({ timeout: 10_000 });
        expect(await page.locator(".state strong").textContent()).not.toBe("Connected");
        await outcome()
            .getByText(/nothing was written$/)
            .waitFor();
        await page
            .getByRole("log")
            .getByText(/no answer for 5 s/)
            .waitFor();
        await page.getByRole("log").getByText("Not sent: motor.setpoint = 1200").waitFor();
        expect(await page.getByText("Handled").count()).toBe(0);
        network.resume();
        await connected();
        await changes(value("motor.speed"));
        await page.waitForTimeout(3000);
        expect(machine.heard).toEqual([]);
        await send().click(); // what was typed is still there
        await outcome().getByText("Handled at").waitFor();
        await expect.poll(() => machine.heard).toEqual(["mac 5 cmd 3: b0 04"]);
    });

    test("lets nothing be sent twice, and keeps what is typed meanwhile", async () => {
        const network = await typeThrough("12");
        network.stall();
        await page.keyboard.press("Enter");
        await outcome().getByText("Sending…").waitFor();
        await page.keyboard.type("5");
        await page.keyboard.press("Enter");
        expect(await send().isDisabled()).toBe(true);
        network.resume();
        await outcome().getByText("Handled at").waitFor();
        await page.waitForTimeout(300);
        expect(machine.heard).toEqual(["mac 5 cmd 3: 0c 00"]);
        expect(await field("motor.setpoint").inputValue()).toBe("125");
        expect(await send().isDisabled()).toBe(false);
    });

    test("is told also where the bus is silent, and silence alone is no stall", async () => {
        await machine.stopDaemon();
        await machine.startDaemon({ VORBEL_SOURCE: "none" });
        const network = await connectThrough();
        const losses = () => page.getByRole("log").getByText("Connection lost").count();
        const before = await losses();
        await page.waitForTimeout(8000);
        expect(await losses()).toBe(before);
        network.stall();
        await expect.poll(losses, { timeout: 10_000 }).toBe(before + 1);
        network.resume();
        await connected();
    });

    test("is not what a page that was busy for long takes its own lateness for", async () => {
        await connectThrough();
        await page.evaluate(() => {
            const end = performance.now() + 9000;
            while (performance.now() < end);
        });
        await page.waitForTimeout(2000);
        expect(await page.getByRole("log").getByText("Connection lost").count()).toBe(0);
    });
});

/** The simulated machine is replaced by frames of node 5, command 3, four a second: payloads with their seconds. */
async function replay(...payloads: [payload: string, seconds: number][]): Promise<void> {
    await machine.stop();
    const frames = payloads.flatMap(([payload, seconds]) => new Array<string>(4 * seconds).fill(payload));
    const lines = frames.map((payload, at) => `(${(at / 4).toFixed(2)}) can0 0C5#${payload}`);
    const bus = new Machine();
    onTestFinished(() => bus.stop());
    bus.replay(lines, 2);
    await bus.startDaemon();
    heard = bus.heard;
}
let heard: string[] = [];

const at = (skip: number, format: string, more = {}) => ({
    "@mac": 5,
    "@cmd": 3,
    "@skip": skip,
    "@format": format,
    ...more,
});

describe("values that share a frame", () => {
    test("follow the bus until they are edited, and what goes out is shown before", async () => {
        await replay(["0100" + "0A00" + "0500", 6], ["0100" + "1400" + "0600", 25]);
        await sendSchema({ kp: at(0, "S"), limit: at(2, "S"), ti: at(4, "S") });
        await value("limit").getByText("10").waitFor();
        await startSetting("kp");
        expect(await field("limit").inputValue()).toBe("10");
        await field("ti").fill("9");
        await expect.poll(() => field("limit").inputValue()).toBe("20");
        expect(await field("ti").inputValue()).toBe("9");
        await field("kp").fill("7");
        await expect.poll(preview).toBe("mac 5 cmd 307 00 14 00 09 00");
        await expect
            .poll(() => page.locator(".changes").textContent())
            .toBe("Changes byte 0: 01 → 07; byte 4: 06 → 09");
        await page.keyboard.press("Enter");
        await outcome().getByText("Handled at").waitFor();
        await expect.poll(() => heard).toEqual(["mac 5 cmd 3: 07 00 14 00 09 00"]);
        // What was sent is no longer being edited.
        await expect.poll(() => field("ti").inputValue()).toBe("6");
    });

    test("are replaced as a whole by what is typed, though they have changed under the cursor", async () => {
        await replay(["0100", 5], ["0200", 25]);
        await sendSchema({ kp: at(0, "S") });
        await value("kp").getByText("1").waitFor();
        await startSetting("kp");
        expect(await field("kp").inputValue()).toBe("1");
        await expect.poll(() => field("kp").inputValue()).toBe("2");
        await page.waitForTimeout(300);
        await page.keyboard.type("7");
        expect(await field("kp").inputValue()).toBe("7");
    });

    test("and cannot be written ask before they become zero", async () => {
        await replay(["8107001E00", 30]);
        await sendSchema({
            enable: at(0, "C", { "@mask": 1 }),
            level: at(1, "S"),
            ready: at(0, "C", { "@mask": 0x80, "@asBool": true }),
            rest: at(4, "C", { "@asBool": true }),
        });
        await value("level").getByText("7").waitFor();
        await startSetting("level");
        await page.keyboard.type("9");
        await page.getByText("These go out as zero").waitFor();
        expect(await page.locator(".consequences li").allTextContents()).toEqual([
            "enable (bit 0 of byte 0), now 1",
            "ready (bit 7 of byte 0), now true",
        ]);
        await page.getByText("The frame ends before rest (byte 4), now false").waitFor();
        expect(await page.locator(".changes").textContent()).toBe(
            "Changes bits 0, 7 of byte 0: 1, 1 → 0, 0; byte 1: 07 → 09",
        );
        expect(await preview()).toBe("mac 5 cmd 300 09 00");
        expect(await send().isDisabled()).toBe(true);
        await page.keyboard.press("Enter");
        await page.waitForTimeout(300);
        expect(heard).toEqual([]);
        await page.getByLabel("Send it nevertheless").check();
        await send().click();
        await outcome().getByText("Handled at").waitFor();
        await expect.poll(() => heard).toEqual(["mac 5 cmd 3: 00 09 00"]);
        await field("level").fill("10");
        expect(await page.getByLabel("Send it nevertheless").isChecked()).toBe(false);
        expect(await send().isDisabled()).toBe(true);
    });

    test("are left as they are where another value has their bytes and can be written", async () => {
        await replay(["8107001E00", 30]);
        await sendSchema({ enable: at(0, "C", { "@mask": 1 }), flags: at(0, "C"), level: at(1, "S") });
        await value("flags").getByText("129").waitFor();
        await startSetting("level");
        await page.keyboard.type("9");
        await expect.poll(preview).toBe("mac 5 cmd 381 09 00");
        expect(await page.locator(".consequences").count()).toBe(0);
        await page.keyboard.press("Enter");
        await outcome().getByText("Handled at").waitFor();
        await expect.poll(() => heard).toEqual(["mac 5 cmd 3: 81 09 00"]);
    });

    test("and were never read ask before they become zero", async () => {
        await sendSchema({ alive: { "@mac": 5, "@cmd": 2, "@format": "s" }, kp: at(2, "S"), limit: at(0, "S") });
        await value("alive").getByText(/^\d+$/).waitFor();
        await startSetting("kp");
        await page.keyboard.type("9");
        await page.getByText("Nothing of this frame has been read").waitFor();
        expect(await page.locator(".consequences li").allTextContents()).toEqual(["limit (bytes 0–1)"]);
        expect(await send().isDisabled()).toBe(true);
        await field("limit").fill("3");
        await expect.poll(preview).toBe("mac 5 cmd 303 00 09 00");
        expect(await send().isDisabled()).toBe(false);
    });

    test("go out in as many frames as are shown", async () => {
        const fragmented = { "@fragmentation": true };
        await sendSchema({
            alive: { "@mac": 5, "@cmd": 2, "@format": "s" },
            a: at(0, "I", fragmented),
            b: at(4, "I", fragmented),
            c: at(8, "S", fragmented),
        });
        await value("alive").getByText(/^\d+$/).waitFor();
        await startSetting("a");
        await field("a").fill("1");
        await field("b").fill("2");
        await field("c").fill("3");
        const frames = page.locator(".preview code");
        await expect.poll(() => frames.allTextContents()).toEqual(["01 00 00 00 02 00 00 00", "03 00"]);
        await page.keyboard.press("Enter");
        await outcome().getByText("Handled at").waitFor();
        await expect.poll(() => machine.heard).toEqual(["mac 5 cmd 3: 01 00 00 00 02 00 00 00", "mac 5 cmd 3: 03 00"]);
    });
});

const SPEED = { "@mac": 5, "@cmd": 2, "@format": "s" };

describe("the schema", () => {
    async function sendFrom(tab: Page, schema: object): Promise<void> {
        await tab.getByRole("status").getByText("Connected").waitFor();
        await tab.getByRole("button", { name: "Schema", exact: true }).click();
        await tab.getByLabel("Schema as JSON").fill(JSON.stringify(schema));
        await tab.getByRole("button", { name: "Send to the daemon" }).click();
    }

    async function restartDaemon(): Promise<void> {
        await machine.stopDaemon();
        await page.getByText("Not connected", { exact: true }).waitFor();
        await machine.startDaemon();
        await connected();
    }

    test("belongs to who sent the last one: a page whose own was replaced says so and does not fight", async () => {
        await sendSchema({ mine: SPEED });
        await changes(value("mine"));
        await page.waitForTimeout(1500);
        const other = await newPage();
        await sendFrom(other, { theirs: SPEED });
        const notice = page.locator(".notice");
        await notice.getByText("Another client has replaced the schema.").waitFor();
        await notice.getByText("Who sent the last one owns it").waitFor();
        for (let turn = 0; turn < 2; turn++) {
            await restartDaemon();
            await page.waitForTimeout(4000);
            await changes(other.locator(".row:has([title=theirs]) .value"));
            expect(await page.getByRole("log").getByText("Schema sent again").count()).toBe(0);
            expect(await other.locator(".notice").count()).toBe(0);
        }
        await notice.getByRole("button", { name: "Send the one here" }).click();
        await changes(value("mine"));
        expect(await notice.count()).toBe(0);
        await other.locator(".notice").waitFor();
        await other.close();
    });

    test("of another client may be in force: values ask before they go out by its names", async () => {
        await sendSchema({ mine: SPEED, setpoint: at(0, "s") });
        await changes(value("mine"));
        await page.waitForTimeout(1500);
        const other = await newPage();
        await sendFrom(other, { theirs: SPEED, setpoint: at(4, "s") });
        await page.locator(".notice").waitFor();
        await startSetting("setpoint");
        await page.keyboard.type("9");
        await page.getByText("in its schema, these names may belong to other frames").waitFor();
        expect(await send().isDisabled()).toBe(true);
        await page.keyboard.press("Enter");
        await page.waitForTimeout(300);
        expect(machine.heard).toEqual([]);
        await other.close();
    });

    test("that is only remembered may not be the daemon's, which is told as well", async () => {
        await sendSchema({ mine: SPEED });
        await changes(value("mine"));
        const other = await newPage();
        await changes(other.locator(".row:has([title=mine]) .value"));
        expect(await other.locator(".notice").count()).toBe(0);
        await sendFrom(page, { theirs: SPEED });
        await other.locator(".notice").getByText("Another client may have replaced the schema.").waitFor();
        await page.waitForTimeout(1500);
        expect(await page.locator(".notice").count()).toBe(0);
        await other.close();
    });

    test("of which no value comes any more may be another's, which is told", async () => {
        await sendSchema({ mine: SPEED });
        for (let count = 0; count < 4; count++) await changes(value("mine"));
        await page.evaluate(() => {
            const socket = new WebSocket("ws://127.0.0.1:10443");
            socket.onopen = () => socket.send("{}");
        });
        const notice = page.locator(".notice");
        await notice.getByText("Another client may have replaced the schema.").waitFor({ timeout: 20_000 });
        await restartDaemon();
        await page.waitForTimeout(3000);
        expect(await page.getByRole("log").getByText("Schema sent again").count()).toBe(0);
    });

    test("that is used here only is never sent, nor the one that was sent before it", async () => {
        await sendSchema({ mine: SPEED });
        await changes(value("mine"));
        await openSchema();
        await page.getByLabel("Schema as JSON").fill(JSON.stringify({ other: SPEED }));
        await page.getByRole("button", { name: "Use here only" }).click();
        await restartDaemon();
        const before = await value("mine").allTextContents(); // came until the restart
        await page.waitForTimeout(4000);
        expect(await value("other").textContent()).toBe("–");
        expect(await value("mine").allTextContents()).toEqual(before);
        expect(await page.getByRole("log").getByText("Schema sent again").count()).toBe(0);
    });
});

/** Somebody else's daemon, and how often it was connected to. */
async function stranger() {
    const server = new WebSocketServer({ port: 0, host: "127.0.0.1" });
    onTestFinished(() => server.close());
    const visits = { count: 0 };
    server.on("connection", (socket) => {
        visits.count++;
        socket.send('{"hello": {"type": "stranger"}}');
    });
    await new Promise((listening) => server.once("listening", listening));
    return { host: `127.0.0.1:${(server.address() as AddressInfo).port}`, visits };
}

const stored = (tab: Page) => tab.evaluate(() => JSON.stringify(Object.entries(localStorage)));

describe("a link", () => {
    test("to another daemon connects and saves nothing before somebody agrees to the host that it names", async () => {
        await connected();
        const before = await stored(page);
        const { host, visits } = await stranger();
        const tab = await newPage(`?address=${encodeURIComponent(`ws://alice:secret@${host}`)}`);
        const dialog = tab.getByRole("dialog");
        await dialog.getByRole("heading", { name: `Connect to ${host}?` }).waitFor();
        expect(await dialog.textContent()).not.toContain("secret");
        await tab.waitForTimeout(1000);
        expect([visits.count, await stored(tab)]).toEqual([0, before]);
        await tab.keyboard.press("Enter"); // the answer in focus is the harmless one
        await tab.getByRole("status").getByText("Connected").waitFor();
        await tab.getByText("demo machine").waitFor();
        expect([visits.count, await stored(tab)]).toEqual([0, before]);

        await tab.reload();
        await tab.keyboard.press("Escape");
        await tab.getByText("demo machine").waitFor();
        expect(visits.count).toBe(0);

        await tab.reload();
        await dialog.getByRole("button", { name: `Connect to ${host}` }).click();
        await tab.getByText("stranger").waitFor();
        expect(await stored(tab)).toContain(host);
        expect(await stored(tab)).not.toContain("secret");
        await tab.close();
    });

    test("with a schema saves nothing before somebody agrees", async () => {
        await connected();
        const tab = await newPage("?schema=machine.schema.json");
        const dialog = tab.getByRole("dialog");
        await dialog.getByText("machine.schema.json").waitFor();
        expect(await stored(tab)).not.toContain("motor");
        expect(await tab.locator(".row").count()).toBe(0);
        await dialog.getByRole("button", { name: "Ignore the link" }).click();
        expect(await stored(tab)).not.toContain("motor");
        await tab.reload();
        await dialog.getByRole("button", { name: "Use it" }).click();
        await tab.getByRole("button", { name: "Set motor.setpoint" }).waitFor();
        expect(await stored(tab)).toContain("motor");
        await tab.reload(); // which was agreed to before
        await tab.getByRole("button", { name: "Set motor.setpoint" }).waitFor();
        expect(await dialog.count()).toBe(0);
        await tab.close();
    });

    test("takes no schema from another server", async () => {
        const tab = await newPage("?schema=http://127.0.0.1:1/a.json");
        await tab.getByRole("log").getByText("it does not lie on the page's own server").waitFor();
        await tab.close();
    });
});

test("a password in an address is not kept, nor shown in the log", async () => {
    await connected();
    await page.evaluate(() => localStorage.setItem("vorbel.address", "ws://alice:secret@127.0.0.1:10443"));
    await page.reload();
    await connected();
    expect(await stored(page)).not.toContain("secret");
    await page.getByLabel("Address of the daemon").fill("ws://alice:secret@localhost:10443");
    await page.getByRole("button", { name: "Connect" }).click();
    await page.getByRole("log").getByText("localhost").waitFor();
    expect(await stored(page)).toContain("localhost");
    expect(await stored(page)).not.toContain("secret");
    expect(await page.getByRole("log").textContent()).not.toContain("secret");
});

describe("a page that is locked", () => {
    test("by its link sends nothing, and says so", async () => {
        await sendSchema();
        await value("motor.speed")
            .getByText(/^\d+ rpm$/)
            .waitFor();
        const tab = await newPage("?locked");
        await tab.getByRole("button", { name: "Locked", pressed: true }).waitFor();
        await tab.getByRole("button", { name: "Set motor.setpoint" }).click();
        await tab.getByRole("alert").getByText("motor.setpoint cannot be set: the page is locked").waitFor();
        expect(await tab.getByRole("button", { name: "Send", exact: true }).count()).toBe(0);
        await tab.getByRole("button", { name: "Schema", exact: true }).click();
        expect(await tab.getByRole("button", { name: "Send to the daemon" }).isDisabled()).toBe(true);
        await tab.keyboard.press("Escape");

        const lock = tab.getByRole("button", { name: "Locked" });
        await lock.click();
        await tab.keyboard.press("Enter"); // no decision
        await lock.click();
        await tab.getByRole("button", { name: "Unlock" }).click();
        await tab.getByRole("button", { name: "Lock", exact: true, pressed: false }).waitFor();
        await tab.getByRole("button", { name: "Set motor.setpoint" }).click();
        await tab.getByLabel("motor.setpoint", { exact: true }).fill("1200");
        await tab.keyboard.press("Enter");
        await tab.getByText("Handled at").waitFor();
        await expect.poll(() => machine.heard).toEqual(["mac 5 cmd 3: b0 04"]);
        await tab.reload();
        await lock.waitFor(); // as the link says
        await tab.close();
    });

    test("by a press stays so until it is unlocked", async () => {
        await page.getByRole("button", { name: "Lock", exact: true }).click();
        await page.reload();
        await page.getByRole("button", { name: "Locked" }).click();
        await page.getByRole("button", { name: "Unlock" }).click();
        await page.reload();
        await page.getByRole("button", { name: "Lock", exact: true }).waitFor();
    });

    test("gives up what is about to be sent", async () => {
        const network = await typeThrough("1200");
        network.stall();
        await page.keyboard.press("Enter");
        await outcome().getByText("Sending…").waitFor();
        await page.getByRole("button", { name: "Lock", exact: true }).click();
        network.resume();
        await page.getByRole("log").getByText("Not sent: motor.setpoint = 1200").waitFor();
        await page.waitForTimeout(1000);
        expect(machine.heard).toEqual([]);
    });

    test("does not send its schema again either, and closes the form", async () => {
        await sendSchema(machineSchema);
        await value("motor.speed")
            .getByText(/^\d+ rpm$/)
            .waitFor();
        await startSetting("motor.setpoint");
        await page.keyboard.type("1200");
        await page.getByRole("button", { name: "Lock", exact: true }).click();
        await page.getByRole("alert").getByText("the page is locked").waitFor();
        expect(await send().count()).toBe(0);
        await machine.stop();
        await startMachine();
        await connected();
        await page.waitForTimeout(3000);
        expect(await page.getByRole("log").getByText("Schema sent again").count()).toBe(0);
        expect(machine.heard).toEqual([]);
    });
});
