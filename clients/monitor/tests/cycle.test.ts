import type { Page } from "playwright-core";
import { describe, expect, onTestFinished, test } from "vitest";
import { Network } from "../../js/tests/link.js";
import { until } from "../../js/tests/machine.js";
import { changes, connected, machine, newPage, openSchema, page, value } from "./fixture.js";
import { bar, button, hasEnded, openOrders, setHidden, startCycle, staysSilent } from "./orders.js";

/** What ends a cycle in the page, and that nothing resumes it. */

describe("a cycle ends at once", () => {
    test("by its button, which is in sight wherever the page is scrolled to", async () => {
        await startCycle();
        await page.setViewportSize({ width: 360, height: 740 });
        await page.locator(".orders").getByRole("button", { name: "Close" }).click();
        await page.getByRole("navigation").getByRole("button", { name: "log" }).click();
        await button("Stop").click();
        await hasEnded(/stopped at .*: stopped here/);
    });

    test("by Escape, pressed twice, also in a form", async () => {
        await startCycle();
        await page.getByLabel("Search values").focus();
        await page.keyboard.press("Escape");
        await page.waitForTimeout(1200);
        await page.keyboard.press("Escape");
        expect(await button("Stop").count()).toBe(1);
        await page.waitForTimeout(1200);
        await page.keyboard.press("Escape");
        await page.keyboard.press("Escape");
        await hasEnded(/Escape was pressed twice/);
    });

    test("when the page is hidden, which is told when it is seen again", async () => {
        await startCycle();
        await setHidden(true);
        await staysSilent();
        await setHidden(false);
        await hasEnded(/the page was hidden/);
        await page.getByRole("log").getByText("the page was hidden").waitFor();
    });

    test("when the page is reloaded, and does not resume", async () => {
        await startCycle();
        await page.reload();
        await connected();
        await staysSilent();
        expect(await bar().count()).toBe(0);
        await openOrders();
        await page
            .locator(".sent li")
            .getByText(/\(\d+ times until /)
            .waitFor();
    });

    test("when a recording is opened, and does not resume behind it", async () => {
        await startCycle();
        await page.getByLabel("File of a recording").setInputFiles({
            name: "run.jsonl",
            mimeType: "application/x-ndjson",
            buffer: Buffer.from('{"time":1700000000,"values":{"a":1}}\n'),
        });
        await button("Back to the present").waitFor();
        await hasEnded(/there is no connection/);
        await button("Back to the present").click();
        await connected();
        await staysSilent();
    });

    test("when the page is closed", async () => {
        await startCycle();
        const other = await newPage();
        await page.close();
        await other.waitForTimeout(300);
        const before = machine.heard.length;
        await other.waitForTimeout(1500);
        expect(machine.heard.length).toBe(before);
        await other.close();
    });

    test("when the page is locked, or a dialogue covers its Stop", async () => {
        await startCycle();
        await button("Lock").click();
        await hasEnded(/the page is locked/);
        await button("Locked").click();
        await button("Unlock").click();
        await staysSilent();
        machine.heard.length = 0;
        await startCycle();
        await openSchema();
        await hasEnded(/a dialogue covered the Stop button/);
    });

    test("when another client replaces the schema", async () => {
        await startCycle();
        const other = await newPage();
        await replaceSchema(other);
        await hasEnded(/another client may have replaced the schema/);
        await other.close();
    });

    test("when the network stalls, and nothing of it arrives later", async () => {
        const network = await Network.open();
        onTestFinished(() => network.close());
        await connected();
        await page.getByLabel("Address of the daemon").fill(network.address);
        await button("Connect").click();
        await until(() => network.connections > 0, "a connection");
        await startCycle();
        network.stall();
        await bar()
            .getByText(/nothing was written|nothing says whether/)
            .waitFor({ timeout: 30_000 });
        const before = machine.heard.length;
        network.resume();
        await connected();
        await page.waitForTimeout(2000);
        expect(machine.heard.length).toBeLessThanOrEqual(before + 1); // what had gone out before the stall
    });

    test("when the daemon ends, and does not resume with it", async () => {
        await startCycle();
        await machine.stopDaemon();
        await bar()
            .getByText(/stopped at/)
            .waitFor();
        machine.heard.length = 0;
        await machine.startDaemon();
        await connected();
        await changes(value("motor.speed"));
        await page.waitForTimeout(1500);
        expect(machine.heard).toEqual([]);
    });
});

async function replaceSchema(tab: Page): Promise<void> {
    await tab.getByRole("status").getByText("Connected").waitFor();
    await tab.getByRole("button", { name: "Schema", exact: true }).click();
    await tab.getByLabel("Schema as JSON").fill('{"theirs": {"@mac": 5, "@cmd": 2, "@format": "s"}}');
    await tab.getByRole("button", { name: "Send to the daemon" }).click();
}
