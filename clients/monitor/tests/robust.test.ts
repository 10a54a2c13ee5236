import { encode, ExtData } from "@msgpack/msgpack";
import { expect, onTestFinished, test } from "vitest";
import { Machine, until } from "../../js/tests/machine.js";
import {
    changes,
    coloredPixels,
    connected,
    machine,
    newPage,
    openSchema,
    page,
    row,
    sendSchema,
    startSetting,
    value,
} from "./fixture.js";
import { connectTo, impostor } from "./impostor.js";

const SPEED = { "@mac": 5, "@cmd": 2, "@format": "s" };

test("shows names of all kinds as they are, and tells a dot within one from a dot between two", async () => {
    const long = "long ".repeat(60).trim();
    const html = `<img src=x onerror="document.title='broken'"> & 'quotes'`;
    await sendSchema({
        "a.b": SPEED,
        a: { b: { "@mac": 5, "@cmd": 3, "@format": "s" } },
        [html]: { ...SPEED, "@mask": 255 },
        [long]: { [long]: { ...SPEED, "@mask": 127 } },
        x: { ...SPEED, "@skip": 2, "@format": "S" }, // the plot has a scale of this name
        "größe 漢字": { "@mac": 12, "@cmd": 1, "@format": "C" },
    });
    await page.getByText(html, { exact: true }).waitFor();
    await expect.poll(() => page.locator(".row .name").count()).toBe(8);
    expect(await page.title()).toBe("Vorbel monitor");
    await row("a.b").locator(".value").getByText("–").waitFor();
    await row("a\\.b").locator(".value").getByText(/^\d+$/).waitFor();
    for (const path of ["a\\.b", "x", "größe 漢字", html.replaceAll(".", "\\."), `${long}.${long}`]) {
        await row(path).getByRole("button", { name: "Plot" }).click();
    }
    await expect.poll(() => coloredPixels(page.locator(".plots canvas"))).toBeGreaterThan(100);
    for (const width of [1280, 360]) {
        await page.setViewportSize({ width, height: 740 });
        expect(await page.evaluate(() => document.documentElement.scrollWidth)).toBe(width);
    }
    await row("a.b").getByRole("button", { name: "Set" }).click();
    await page.getByRole("heading", { name: "Set a.b" }).waitFor();
    await page.keyboard.type("7");
    await page.keyboard.press("Enter");
    await until(() => machine.heard.length > 0, "a frame on the bus");
    expect(machine.heard).toEqual(["mac 5 cmd 3: 07 00"]);
});

test("says so when another client has changed the schema", async () => {
    await sendSchema({ mine: SPEED });
    await value("mine").getByText(/^\d+$/).waitFor();
    const other = await newPage();
    await other.getByRole("button", { name: "Schema", exact: true }).click();
    await other.getByLabel("Schema as JSON").fill(JSON.stringify({ theirs: SPEED }));
    await other.getByRole("button", { name: "Send to the daemon" }).click();
    await changes(value("theirs"));
    await page.getByRole("log").getByText("Another client has replaced the schema").waitFor();
    await page.locator(".row:has([title=mine]) .stale").first().waitFor();
    expect(await row("theirs").getByRole("button", { name: "Set" }).count()).toBe(0);
    await other.close();
});

/** Eight leaves to a frame, in groups of a hundred frames. */
function bigSchema(leaves: number): object {
    const schema: Record<string, Record<string, object>> = {};
    for (let at = 0; at < leaves; at++) {
        const frame = at >> 3;
        const group = (schema[`group${frame % 100}`] ??= {});
        group[`value${at}`] = { "@mac": frame % 64, "@cmd": frame >> 6, "@format": "C", "@skip": at % 8 };
    }
    return schema;
}

async function sendFile(schema: object): Promise<void> {
    await connected();
    await openSchema();
    const buffer = Buffer.from(JSON.stringify(schema, null, 4));
    await page.getByLabel("Schema file").setInputFiles({ name: "big.json", mimeType: "application/json", buffer });
    await page.getByRole("button", { name: "Send to the daemon" }).click();
}

/** Frames of such a schema, one after the other, as a log of so many seconds. */
function bigLog(leaves: number, perSecond: number, seconds: number): string[] {
    return Array.from({ length: perSecond * seconds }, (_, at) => {
        const frame = at % (leaves >> 3);
        const payload = Buffer.alloc(8, at / leaves).toString("hex");
        return `(${(at / perSecond).toFixed(6)}) can0 ${frame.toString(16).padStart(3, "0")}#${payload}`;
    });
}

test("thousands of values at the rate of the line: only rows in sight, drawn ten times a second", async () => {
    const leaves = 3000;
    await machine.stop();
    const busy = new Machine();
    onTestFinished(() => busy.stop());
    busy.replay(bigLog(leaves, 7000, 25), 5);
    await busy.startDaemon({ QT_LOGGING_RULES: "default.debug=false" });
    await sendFile(bigSchema(leaves));
    await row("group0.value0").locator(".rate").getByText(/\d/).waitFor();
    await expect.poll(() => page.locator(".title .quiet").first().textContent()).toBe(String(leaves));

    const drawings = () =>
        page.evaluate(async () => {
            let count = 0;
            const observer = new MutationObserver(() => count++);
            observer.observe(document.querySelector(".all")!, { subtree: true, characterData: true, childList: true });
            await new Promise((later) => setTimeout(later, 3000));
            observer.disconnect();
            return count;
        });
    const count = await drawings();
    expect(count).toBeGreaterThan(1); // once a second where the page cannot follow
    expect(count).toBeLessThan(3 * (10 + 2) + 6); // on change, and for the ages
    expect(await page.locator(".row").count()).toBeLessThan(40);

    await page.getByRole("treegrid").focus();
    await page.keyboard.press("End");
    await row("group99.value2399").waitFor();
    await row("group99.value2399").locator(".value").getByText(/^\d+$/).waitFor();
    await page.getByLabel("Search values").fill("group42 value4");
    await expect.poll(() => page.locator(".row").count()).toBeLessThan(10);
});

test("five thousand leaves are checked, shown and found", async () => {
    await sendFile(bigSchema(5000));
    await expect.poll(() => page.locator(".title .quiet").first().textContent()).toBe("5000");
    await page.getByLabel("Search values").fill("value4999");
    await row("group24.value4999").waitFor();
    await startSetting("group24.value4999");
    await page.keyboard.type("5");
    await expect.poll(() => page.locator(".preview").textContent()).toBe("mac 48 cmd 900 00 00 00 00 00 00 05");
    await page.keyboard.press("Escape");
    await openSchema();
    const crowd = Object.fromEntries(Array.from({ length: 5000 }, (_, at) => [`leaf${at}`, SPEED]));
    await page.getByLabel("Schema as JSON").fill(JSON.stringify(crowd));
    await page.getByText("… and 4899 more.").waitFor();
});

test("takes what is malformed for what it is, and goes on", async () => {
    const deep = Array.from({ length: 500 }).reduce<object>((inner) => ({ a: inner }), { z: 1 });
    const { address, close } = await impostor((socket) => {
        socket.send('{"hello": {"type": "<b>other</b>", "id": "ü"}}');
        socket.send("no hello");
        socket.send('{"hello": 5}');
        for (const bytes of [
            [],
            [0xc1],
            [0x81],
            [0x82, 0xa1, 0x61],
            [1, 2],
            [0xdf, 0xff, 0xff, 0xff, 0xff],
            [0xc7, 3, 19, 1, 2, 3],
        ]) {
            socket.send(Uint8Array.from(bytes));
        }
        for (const value of [
            null,
            5,
            [1, "a"],
            { a: { b: null } },
            { e: new ExtData(99, Uint8Array.of(1)) },
            { d: deep },
            { "": { "": 1 } },
        ]) {
            socket.send(encode(value, { maxDepth: 1000 }));
        }
        socket.send(encode({ a: 1, odd: { nan: NaN, most: Infinity, list: [1, [2]], text: "<i>x</i>" } }));
        socket.send(encode({ last: 42 }));
    });
    await connectTo(address);
    await page.getByText("<b>other</b>").waitFor();
    await page.getByText("9 undecodable").waitFor();
    await page.getByLabel("Search values").fill("last");
    await value("last").getByText("42").waitFor();
    await page.getByLabel("Search values").fill("odd");
    await expect.poll(() => value("odd.nan").textContent()).toBe("NaN");
    await expect.poll(() => value("odd.text").textContent()).toBe('"<i>x</i>"');
    close();
});

test("draws arrays of a hundred thousand elements", async () => {
    const { address, close } = await impostor((socket) => {
        socket.send('{"hello": {"type": "scope"}}');
        const timer = setInterval(() => {
            const phase = Math.random();
            const wave = Float32Array.from({ length: 100_000 }, (_, at) => Math.sin(at / 5000 + phase));
            wave[5] = NaN;
            socket.send(encode({ wave: new ExtData(23, new Uint8Array(wave.buffer)), tick: phase }));
        }, 200);
        socket.on("close", () => clearInterval(timer));
    });
    await connectTo(address);
    await value("wave")
        .getByText(/^100000 × \[/)
        .waitFor();
    await row("wave").getByRole("button", { name: "Plot" }).click();
    await expect.poll(() => coloredPixels(page.locator(".plots canvas"))).toBeGreaterThan(500);
    const before = Date.now();
    for (let turn = 0; turn < 10; turn++) await page.evaluate(() => new Promise(requestAnimationFrame));
    expect(Date.now() - before).toBeLessThan(5000); // the page still answers
    close();
});
