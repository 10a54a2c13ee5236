import { readFileSync } from "node:fs";
import { describe, expect, test } from "vitest";
import { machineSchema, until, type Link } from "../../js/tests/machine.js";
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
    shoot,
    startMachine,
    startSetting,
    value,
} from "./fixture.js";

test("connects to where the page came from and shows what the daemon is", async () => {
    await connected();
    await page.getByText("demo machine").waitFor();
    await expect.poll(() => page.locator(".device code").textContent()).toBe("A7");
    await page.getByText("No values yet").waitFor();
    await shoot("connected");
});

test("loads the machine's schema and sees its values change", async () => {
    await sendSchema();
    await value("motor.speed")
        .getByText(/^\d+ rpm$/)
        .waitFor();
    await changes(value("motor.speed"));
    await value("battery.cells.a")
        .getByText(/^5 × \[3\.9/)
        .waitFor();
    await value("door.open")
        .getByText(/open|closed/)
        .waitFor();
    await expect.poll(() => row("motor.speed").locator(".rate").textContent()).toMatch(/^(19|2\d)$/);
    await expect.poll(() => coloredPixels(row("motor.speed").locator("canvas"))).toBeGreaterThan(30);
    await page.waitForTimeout(4000);
    await shoot("values");
});

test.each<Link>(["serialport", "socketcan"])(
    "works on the link %s, from the bus to the page and back",
    async (link) => {
        await machine.stop();
        await startMachine(link);
        await sendSchema();
        await value("motor.speed")
            .getByText(/^\d+ rpm$/)
            .waitFor();
        await changes(value("motor.speed"));
        await row("motor.speed").getByRole("button", { name: "Plot" }).click();
        await expect.poll(() => coloredPixels(page.locator(".plots canvas"))).toBeGreaterThan(10);
        await startSetting("motor.setpoint");
        await page.keyboard.type("1200");
        await page.keyboard.press("Enter");
        await until(() => machine.heard.length > 0, "a frame on the bus");
        expect(machine.heard).toEqual(["mac 5 cmd 3: b0 04"]);
    },
);

test("takes the schema and the plot that a link asks for", async () => {
    await sendSchema(); // what explains the values to the daemon
    const other = await newPage("?schema=machine.schema.json&plot=motor.speed,door.open");
    await other.getByRole("button", { name: "Set motor.setpoint" }).waitFor();
    const plotted = async () => (await other.locator(".legend .name").allTextContents()).sort();
    await expect.poll(plotted).toEqual(["door.open", "motor.speed"]);
    await expect.poll(() => coloredPixels(other.locator(".plots canvas"))).toBeGreaterThan(10);
    await other.close();
});

test("tells which schema of a link could not be loaded", async () => {
    const other = await newPage("?schema=missing.json");
    await other.getByRole("log").getByText("The schema missing.json could not be loaded").waitFor();
    await other.getByRole("log").getByText("the page's server answers 404").waitFor();
    await other.close();
});

test("opens a schema from a file and saves the one in use", async () => {
    await connected();
    await openSchema();
    const text = JSON.stringify({ speed: machineSchema["motor"] });
    await page
        .getByLabel("Schema file")
        .setInputFiles({ name: "a.json", mimeType: "application/json", buffer: Buffer.from(text) });
    await page.getByText("No problems found.").waitFor();
    await page.getByRole("button", { name: "Send to the daemon" }).click();
    await value("speed.speed")
        .getByText(/^\d+ rpm$/)
        .waitFor();
    await openSchema();
    const [download] = await Promise.all([
        page.waitForEvent("download"),
        page.getByRole("button", { name: "Save as file" }).click(),
    ]);
    expect(readFileSync(await download.path(), "utf8")).toBe(text);
});

test("opens a schema file that is dropped", async () => {
    await openSchema();
    const dropped = await page.evaluateHandle(() => {
        const transfer = new DataTransfer();
        transfer.items.add(new File(['{"dropped": {}}'], "a.json"));
        return transfer;
    });
    await page.getByLabel("Schema as JSON").dispatchEvent("drop", { dataTransfer: dropped });
    await expect.poll(() => page.getByLabel("Schema as JSON").inputValue()).toBe('{"dropped": {}}');
});

test("keeps a schema that is set while disconnected for the next connection", async () => {
    await connected();
    await page.getByRole("button", { name: "Disconnect" }).click();
    await openSchema();
    await page.getByLabel("Schema as JSON").fill(JSON.stringify(machineSchema));
    await page.getByRole("button", { name: "Send to the daemon" }).click();
    await page.getByRole("log").getByText("goes out with the next connection").waitFor();
    await page.getByRole("button", { name: "Connect" }).click();
    await value("motor.speed")
        .getByText(/^\d+ rpm$/)
        .waitFor();
});

test("shows a schema's problems at their paths and does not send it", async () => {
    await connected();
    await openSchema();
    const leaf = { "@mac": 5, "@cmd": 2, "@format": "s" };
    const broken = { motor: { speed: { ...leaf, "@fator": 10 }, current: { ...leaf, "@skip": "2" } } };
    await page.getByLabel("Schema as JSON").fill(JSON.stringify(broken, null, 4));
    const problems = page.locator("#schema-problems li");
    await expect
        .poll(() => problems.allTextContents())
        .toEqual([
            'error: motor.current "@skip" must be a whole number, not "2"',
            'error: motor.speed "@fator" is no option; did you mean "@factor"?',
        ]);
    expect(await page.getByRole("button", { name: "Send to the daemon" }).isDisabled()).toBe(true);
    await shoot("schema");
    await page.getByLabel("Schema as JSON").fill('{"motor": ');
    await expect.poll(() => problems.allTextContents()).toEqual([expect.stringMatching(/^error: document is no JSON/)]);
});

test("plots values together, pauses and zooms", async () => {
    await sendSchema();
    await row("motor.speed").getByRole("button", { name: "Plot" }).click();
    await row("motor.current").getByRole("button", { name: "Plot" }).click();
    await row("door.open").getByRole("button", { name: "Plot" }).click();
    await value("battery.cells.a").getByText("5 × [").waitFor();
    await row("battery.cells.a").getByRole("button", { name: "Plot" }).click();
    const canvases = page.locator(".plots canvas");
    await expect.poll(() => canvases.count()).toBe(2); // a plot over time and a waveform
    await page.getByLabel("Time span").selectOption("10 s");
    await page.waitForTimeout(6000);
    await expect.poll(() => coloredPixels(canvases.nth(0))).toBeGreaterThan(300);
    await expect.poll(() => coloredPixels(canvases.nth(1))).toBeGreaterThan(100);
    await shoot("plots");
    const sticksOut = () => page.locator(".side").evaluate((side) => side.scrollWidth - side.clientWidth);
    expect(await sticksOut()).toBe(0);

    const picture = () => canvases.nth(0).evaluate((canvas) => (canvas as HTMLCanvasElement).toDataURL());
    await page.getByRole("button", { name: "Pause" }).click();
    const paused = await picture();
    await page.waitForTimeout(500);
    expect(await picture()).toBe(paused);
    await page.getByRole("button", { name: "Zoom in" }).click();
    await expect.poll(picture).not.toBe(paused);
    const box = (await canvases.nth(0).boundingBox())!;
    const zoomed = await picture();
    await page.mouse.move(box.x + box.width * 0.4, box.y + 100);
    await page.mouse.down();
    await page.mouse.move(box.x + box.width * 0.6, box.y + 110, { steps: 4 });
    await page.mouse.up();
    await expect.poll(picture).not.toBe(zoomed);
    await page.getByRole("button", { name: "Go on" }).click();
    const live = await picture();
    await expect.poll(picture).not.toBe(live);
});

test("keeps the stretch of a waveform that was zoomed into", async () => {
    await sendSchema();
    await value("battery.cells.a").getByText("5 × [").waitFor();
    await row("battery.cells.a").getByRole("button", { name: "Plot" }).click();
    const canvas = page.locator(".plots canvas");
    await expect.poll(() => coloredPixels(canvas)).toBeGreaterThan(100);
    const box = (await canvas.boundingBox())!;
    await page.mouse.move(box.x + box.width * 0.3, box.y + 100);
    await page.mouse.down();
    await page.mouse.move(box.x + box.width * 0.6, box.y + 110, { steps: 4 });
    await page.mouse.up();
    /** The numbers below the curve: the canvas's last rows, which new readings leave alone. */
    const axis = () =>
        canvas.evaluate((element) => {
            const { width, height } = element as HTMLCanvasElement;
            const lowest = (element as HTMLCanvasElement).getContext("2d")!.getImageData(0, height - 25, width, 25);
            return lowest.data.join();
        });
    await page.waitForTimeout(300);
    const zoomed = await axis();
    await changes(page.locator(".legend .number"));
    await page.waitForTimeout(300);
    expect(await axis()).toBe(zoomed);
    await page.mouse.dblclick(box.x + box.width * 0.4, box.y + 100);
    await expect.poll(axis).not.toBe(zoomed);
});

describe("writing", () => {
    test("puts the exact frame on the bus and echoes it", async () => {
        await sendSchema();
        await value("motor.speed")
            .getByText(/^\d+ rpm$/)
            .waitFor();
        await row("motor.speed").getByRole("button", { name: "Plot" }).click();
        await startSetting("motor.setpoint");
        await page.keyboard.type("1200");
        await expect.poll(() => page.locator(".preview").textContent()).toBe("mac 5 cmd 3b0 04");
        await page.keyboard.press("Enter");
        await until(() => machine.heard.length > 0, "a frame on the bus");
        expect(machine.heard).toEqual(["mac 5 cmd 3: b0 04"]);
        const entry = page.getByRole("log").getByRole("listitem").first();
        await expect
            .poll(() => entry.textContent())
            .toMatch(/^\d\d:\d\d:\d\dHandled: motor\.setpoint = 1200 rpm: raw 1200mac 5 cmd 3: b0 04$/);
        await expect.poll(() => value("motor.setpoint").textContent()).toBe("sent 1200 rpm");
        await expect.poll(async () => parseFloat((await value("motor.speed").textContent())!)).toBeGreaterThan(1100);
        await shoot("writing");
    });

    test("refuses what the leaf cannot hold", async () => {
        await sendSchema();
        await startSetting("motor.setpoint");
        await page.getByText("a whole number, -6000 to 6000 rpm").waitFor(); // no complaint before anything is typed
        expect(await page.getByRole("button", { name: "Send", exact: true }).isDisabled()).toBe(true);
        await page.keyboard.type("70000");
        await page.getByText("takes at least -6000 and at most 6000, not 70000").waitFor();
        expect(await page.getByRole("button", { name: "Send", exact: true }).isDisabled()).toBe(true);
        await page.keyboard.press("Enter");
        await page.waitForTimeout(300);
        expect(machine.heard).toEqual([]);
    });

    test("sends the values of one frame together", async () => {
        await sendSchema();
        await value("motor.speed")
            .getByText(/^\d+ rpm$/)
            .waitFor(); // the link is open
        await startSetting("motor.current");
        await page.getByLabel("motor.current", { exact: true }).fill("1.5");
        await page.getByLabel("motor.speed", { exact: true }).fill("-2");
        await page.keyboard.press("Enter");
        await until(() => machine.heard.length > 0, "a frame on the bus");
        expect(machine.heard).toEqual(["mac 5 cmd 2: fe ff 96 00"]);
    });

    test("offers the last readings, of arrays the last element", async () => {
        await sendSchema();
        await value("battery.cells.a").getByText("5 × [").waitFor();
        await startSetting("battery.cells.b");
        for (const cell of ["a", "b", "c", "d"]) {
            expect(await page.getByLabel(`battery.cells.${cell}`, { exact: true }).inputValue()).toMatch(/^3\.9\d*$/);
        }
    });

    test("is refused while the daemon is away, and not kept for later", async () => {
        await sendSchema();
        await value("motor.speed")
            .getByText(/^\d+ rpm$/)
            .waitFor();
        await startSetting("motor.setpoint");
        await page.keyboard.type("1200");
        await machine.stopDaemon();
        await page.getByText("Not connected", { exact: true }).waitFor();
        await page.keyboard.press("Enter");
        await page.getByRole("log").getByText("Not sent: motor.setpoint = 1200").waitFor();
        await machine.startDaemon();
        await changes(value("motor.speed"));
        expect(machine.heard).toEqual([]);
    });

    test("is refused for read-only leaves, with the reason", async () => {
        await sendSchema();
        await row("door.open").getByRole("button", { name: "Why door.open cannot be set" }).click();
        await page
            .getByRole("alert")
            .getByText('door.open cannot be set: it is read-only, because "@asBool"')
            .waitFor();
        await shoot("read-only");
    });
});

test("survives a daemon restart, schema, plot and all", async () => {
    await sendSchema();
    await value("motor.speed")
        .getByText(/^\d+ rpm$/)
        .waitFor();
    await row("motor.speed").getByRole("button", { name: "Plot" }).click();
    await page.waitForTimeout(3000);
    await machine.stopDaemon();
    await page.getByRole("status").getByText("Not connected").waitFor();
    await page.waitForTimeout(2500);
    await shoot("daemon-away");
    await machine.startDaemon();
    await connected();
    await changes(value("motor.speed"));
    await page.getByRole("log").getByText("Schema sent again").waitFor();
    const canvas = page.locator(".plots canvas");
    const pixels = await coloredPixels(canvas);
    await expect.poll(() => coloredPixels(canvas)).not.toBe(pixels);
});

test("tells of messages that cannot be decoded, with their bytes, and goes on", async () => {
    const leaf = { "@mac": 5, "@cmd": 2 };
    const broken = {
        good: { ...leaf, "@format": "s" },
        lost: { ...leaf, "@skip": 4, "@format": "c", "@flushSize": 2 },
    };
    // The page itself refuses such a schema, but another client may have sent it.
    await page.evaluate((schema) => {
        const socket = new WebSocket("ws://127.0.0.1:10443");
        socket.onopen = () => socket.send(JSON.stringify(schema));
    }, broken);
    await page.getByText(/\d+ undecodable/).waitFor();
    await page.getByRole("log").getByText("a4 6c 6f 73 74").waitFor();
    await changes(value("good"));
});

test("remembers the address and the schema, and sends neither by itself", async () => {
    await sendSchema();
    await value("motor.speed")
        .getByText(/^\d+ rpm$/)
        .waitFor();
    await page.getByLabel("Address of the daemon").fill("localhost:10443");
    await page.getByRole("button", { name: "Connect" }).click();
    await connected();
    await machine.stopDaemon();
    await machine.startDaemon();
    await page.reload();
    await connected();
    expect(await page.getByLabel("Address of the daemon").inputValue()).toBe("localhost:10443");
    await page.waitForTimeout(1000);
    expect(await value("motor.speed").textContent()).toBe("–"); // its place is known, its value is not sent
    await openSchema();
    await page.getByRole("button", { name: "Send to the daemon" }).click();
    await value("motor.speed")
        .getByText(/^\d+ rpm$/)
        .waitFor();
});

test("says what is wrong with an address", async () => {
    await page.getByLabel("Address of the daemon").fill("http://machine");
    await page.getByRole("button", { name: "Connect" }).click();
    await page.getByRole("alert").getByText('"http://machine" is no WebSocket address').waitFor();
});

describe("by keyboard and search", () => {
    /** The path of the row that a screen reader is told of. */
    const activeRow = () =>
        page.evaluate(() => {
            const id = document.querySelector("[role=treegrid]")!.getAttribute("aria-activedescendant");
            return document
                .getElementById(id ?? "")
                ?.querySelector(".name")
                ?.getAttribute("data-path");
        });

    test("the table folds, plots and sets", async () => {
        await sendSchema();
        await value("motor.speed")
            .getByText(/^\d+ rpm$/)
            .waitFor();
        await page.getByRole("treegrid").focus();
        await page.keyboard.press("Home");
        await expect.poll(activeRow).toBe("battery");
        await page.keyboard.press("ArrowLeft");
        await row("battery").and(page.locator('[aria-expanded="false"]')).waitFor();
        expect(await row("battery.charge").count()).toBe(0);
        await page.keyboard.press("ArrowRight");
        await row("battery.charge").waitFor();
        await page.keyboard.press("End");
        await expect.poll(activeRow).toBe("motor.speed");
        await page.keyboard.press("p");
        await page.locator(".plots canvas").first().waitFor();
        await page.keyboard.press("Enter");
        await page.getByRole("heading", { name: "Set motor.speed" }).waitFor();
        await page.keyboard.press("Escape");
        expect(await page.evaluate(() => document.activeElement?.id)).toBe("values-grid");
    });

    test("the browser's own keys stay the browser's", async () => {
        await sendSchema();
        await value("motor.speed")
            .getByText(/^\d+ rpm$/)
            .waitFor();
        await page.getByRole("treegrid").focus();
        await page.keyboard.press("End");
        await page.keyboard.press("Control+p");
        await page.keyboard.press("Alt+ArrowUp");
        await expect.poll(activeRow).toBe("motor.speed");
        expect(await page.locator(".plots canvas").count()).toBe(0);
    });

    test("the schema's dialog gives the focus back", async () => {
        await connected();
        await openSchema();
        await page.getByRole("button", { name: "Close" }).click();
        await page.getByRole("dialog").waitFor({ state: "detached" });
        expect(await page.evaluate(() => document.activeElement?.textContent?.trim())).toBe("Schema");
    });

    test("the plot pauses and zooms", async () => {
        await sendSchema();
        await value("motor.speed")
            .getByText(/^\d+ rpm$/)
            .waitFor();
        await row("motor.speed").getByRole("button", { name: "Plot" }).click();
        await page.locator("figure").focus();
        await page.keyboard.press("Space");
        await page.getByRole("button", { name: "Go on", pressed: true }).waitFor();
        await page.keyboard.press("Space");
        await page.keyboard.press("+");
        await expect.poll(() => page.getByLabel("Time span").locator("option:checked").textContent()).toBe("30 s");
    });

    test("the search leaves the paths that have all words", async () => {
        await sendSchema();
        await page.getByLabel("Search values").fill("CELL b");
        const names = () => page.locator(".row .name span:last-child").allTextContents();
        await expect.poll(async () => (await names()).join()).toBe("battery,cells,a,b,c,d"); // "b" is in "battery"
        await page.getByLabel("Search values").fill("cells.b");
        await expect.poll(async () => (await names()).join()).toBe("battery,cells,b");
    });
});

test("fits a phone of 360 pixels, light and dark", async () => {
    await page.setViewportSize({ width: 360, height: 740 });
    await sendSchema();
    await page.getByLabel("Search values").fill("motor");
    await value("motor.speed")
        .getByText(/^\d+ rpm$/)
        .waitFor();
    await row("motor.speed").getByRole("button", { name: "Plot" }).click();
    await row("motor.current").getByRole("button", { name: "Plot" }).click();
    await page.waitForTimeout(4000);
    const width = () => page.evaluate(() => document.documentElement.scrollWidth);
    expect(await width()).toBe(360);
    await page.emulateMedia({ colorScheme: "dark" });
    await page.waitForTimeout(700); // the sparklines are drawn anew
    await shoot("phone-values");
    await page.getByRole("button", { name: "plots" }).click();
    await page.waitForTimeout(500);
    expect(await width()).toBe(360);
    await expect.poll(() => coloredPixels(page.locator(".plots canvas"))).toBeGreaterThan(100);
    await shoot("phone-plots");
    await page.getByRole("button", { name: "log", exact: true }).click();
    await page.getByRole("log").getByText("Schema of 11 leaves sent").waitFor();
    expect(await width()).toBe(360);
});
