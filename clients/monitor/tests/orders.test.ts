import { describe, expect, test } from "vitest";
import { connected, machine, openSchema, page, sendSchema, startSetting, value } from "./fixture.js";
import { bar, button, dialog, hasEnded, openOrders, ORDER, type } from "./orders.js";

/** Presets, sequences and cycles in the page: nothing of them goes out unseen, late, or after its end. */

test("the page begins without what only orders need, which comes when it is asked for", async () => {
    const asked: string[] = [];
    page.on("request", (request) => asked.push(request.url()));
    await page.reload();
    await connected();
    expect(asked.filter((each) => each.includes("orders"))).toEqual([]);
    await openOrders();
    await page.getByRole("heading", { name: "Presets", exact: true }).waitFor();
    expect(asked.filter((each) => each.includes("orders")).length).toBeGreaterThan(0);
});

describe("a preset", () => {
    test("is kept from the form, shown before it goes, and goes when it is agreed to", async () => {
        await type();
        await button("Keep…").click();
        await page.getByLabel("Name of the preset").fill("Fast");
        await page.keyboard.press("Enter");
        await button("Send… Fast").click();
        await dialog().getByText("motor.setpoint = 1200").waitFor();
        expect(await dialog().locator(".preview").textContent()).toBe("mac 5 cmd 3b0 04");
        await page.keyboard.press("Enter"); // no decision
        await page.keyboard.press("Escape");
        await page.waitForTimeout(300);
        expect(machine.heard).toEqual([]);
        await button("Send… Fast").click();
        await dialog().getByRole("button", { name: "Send" }).click();
        await bar()
            .getByText(/done at .* \(1 handled\)/)
            .waitFor();
        await expect.poll(() => machine.heard).toEqual([ORDER]);

        await page.reload();
        await connected();
        await openOrders();
        await page.locator(".sent li").getByText("motor.setpoint = 1200 rpm: raw 1200").waitFor();
        expect(await page.locator(".sent li").textContent()).toMatch(/handled .*mac 5 cmd 3: b0 04preset Fast$/);
        await button("Send… Fast").waitFor();
        expect(machine.heard).toEqual([ORDER]);
    });

    test("is refused, with the reason, where the schema lacks its paths or nothing can be sent", async () => {
        await type();
        await button("Keep…").click();
        await page.getByLabel("Name of the preset").fill("Fast");
        await page.keyboard.press("Enter");
        await button("Send… Fast").click();
        await dialog().getByRole("button", { name: "Cancel" }).click();
        await machine.stopDaemon();
        await page.getByText("Not connected", { exact: true }).waitFor();
        await button("Send… Fast").click();
        await dialog().getByText("Nothing can be sent: there is no connection").waitFor();
        expect(await dialog().getByRole("button", { name: "Send" }).isDisabled()).toBe(true);
        await page.keyboard.press("Escape");
        await openSchema();
        await page.getByLabel("Schema as JSON").fill('{"other": {"@mac": 5, "@cmd": 3, "@format": "s"}}');
        await button("Use here only").click();
        await page.getByText("motor.setpoint: the schema used here does not have it").waitFor();
        expect(await button("Send… Fast").isDisabled()).toBe(true);
        expect(await button("Repeat… Fast").isDisabled()).toBe(true);
        await button("Delete Fast").click();
        await dialog().getByRole("button", { name: "Delete" }).click();
        await expect.poll(() => page.getByText("Fast").count()).toBe(0);
    });

    test("that makes bytes zero waits for a tick", async () => {
        await sendSchema({
            alive: { "@mac": 5, "@cmd": 2, "@format": "s" },
            kp: { "@mac": 5, "@cmd": 3, "@format": "S", "@skip": 2 },
            limit: { "@mac": 5, "@cmd": 3, "@format": "S" },
        });
        await value("alive").getByText(/^\d+$/).waitFor();
        await startSetting("kp");
        await page.keyboard.type("9");
        await button("Repeat…").click();
        await dialog().getByText("limit (bytes 0–1)").waitFor();
        const repeat = dialog().getByRole("button", { name: "Repeat" });
        expect(await repeat.isDisabled()).toBe(true);
        await dialog().getByLabel("Send it nevertheless").check();
        for (const wrong of ["99", "", "100.5", "3600001"]) {
            await page.getByLabel("Milliseconds from one to the next").fill(wrong);
            expect(await repeat.isDisabled()).toBe(true);
        }
        await page.getByLabel("Milliseconds from one to the next").fill("3600000");
        await repeat.click();
        await expect.poll(() => machine.heard).toEqual(["mac 5 cmd 3: 00 00 09 00"]);
    });
});

test("a sequence shows all its steps, goes out at its times, and says what it has done", async () => {
    await sendSchema();
    await value("motor.speed")
        .getByText(/^\d+ rpm$/)
        .waitFor();
    await openOrders();
    await button("New sequence").click();
    await page.getByLabel("Name of the sequence").fill("Ramp");
    await page.getByLabel("Steps").fill("0 motor.setpoint = 100\n1 motor.setpoint = one");
    await page.getByText("Line 2: motor.setpoint: must be a number").waitFor();
    await page.getByLabel("Steps").fill("0 motor.setpoint = 256\n1 motor.setpoint = 512\n4 motor.setpoint = 0");
    await button("Save").click();
    await page.getByText("3 steps, 4 s").waitFor();
    await button("Start… Ramp").click();
    expect(await dialog().locator(".steps li").allTextContents()).toEqual([
        expect.stringMatching(/^0 smotor\.setpoint = 256/),
        expect.stringMatching(/^1 smotor\.setpoint = 512/),
        expect.stringMatching(/^4 smotor\.setpoint = 0/),
    ]);
    await page.waitForTimeout(300);
    expect(machine.heard).toEqual([]);
    await dialog().getByRole("button", { name: "Start" }).click();
    await bar().getByText("step 3 of 3, 2 handled").waitFor();
    expect(machine.heard).toEqual(["mac 5 cmd 3: 00 01", "mac 5 cmd 3: 00 02"]);
    await bar()
        .getByText(/done at .* \(3 handled\)/)
        .waitFor();
    await expect.poll(() => machine.heard.length).toBe(3);
    await bar().getByRole("button", { name: "Close" }).click();
    await button("Start… Ramp").click();
    await dialog().getByRole("button", { name: "Start" }).click();
    await bar().getByText("step 3 of 3").waitFor();
    await page.keyboard.press("Enter"); // Stop has the focus
    await hasEnded(/stopped here \(2 handled\)/);
    expect(machine.heard).toHaveLength(5);
});

test("what went out can be copied and cleared", async () => {
    await page.context().grantPermissions(["clipboard-read", "clipboard-write"]);
    await type();
    await page.keyboard.press("Enter");
    await page.getByText("Handled at").waitFor();
    await openOrders();
    await button("Copy").click();
    await page.getByText("1 lines copied").waitFor();
    const copied = await page.evaluate(() => navigator.clipboard.readText());
    expect(copied).toMatch(
        /^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\tform\thandled\tmotor\.setpoint = 1200 rpm: raw 1200\tmac 5 cmd 3: b0 04\t\t$/,
    );
    await page.locator(".orders .part").last().getByRole("button", { name: "Clear" }).click();
    await dialog().getByRole("button", { name: "Clear" }).click();
    await expect.poll(() => page.locator(".sent li").count()).toBe(0);
});

test("a browser that keeps nothing takes nothing else away", async () => {
    await page.addInitScript(() => {
        const refuse = () => {
            throw new DOMException("full", "QuotaExceededError");
        };
        Storage.prototype.setItem = refuse;
    });
    await page.reload();
    await type();
    await button("Keep…").click();
    await page.getByLabel("Name of the preset").fill("Fast");
    await page.keyboard.press("Enter");
    await page.getByText("its storage is full or forbidden").waitFor();
    await button("Send… Fast").click();
    await dialog().getByRole("button", { name: "Send" }).click();
    await bar()
        .getByText(/\(1 handled\)/)
        .waitFor();
    await page.locator(".sent li").getByText("motor.setpoint = 1200 rpm: raw 1200").waitFor();
});
