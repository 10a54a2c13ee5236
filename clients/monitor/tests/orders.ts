import { expect } from "vitest";
import { until } from "../../js/tests/machine.js";
import { machine, page, sendSchema, startSetting, value } from "./fixture.js";

/** What tests of presets, sequences and cycles share. */

export const bar = () => page.getByRole("region", { name: "What goes out by itself" });
export const dialog = () => page.getByRole("dialog");
export const button = (name: string | RegExp) => page.getByRole("button", { name, exact: typeof name === "string" });
export const openOrders = () => button("Presets and sequences").click();
export const ORDER = "mac 5 cmd 3: b0 04";

/** A schema in force, and a form in which a setpoint has been typed. */
export async function type(text = "1200"): Promise<void> {
    await sendSchema();
    await value("motor.speed")
        .getByText(/^\d+ rpm$/)
        .waitFor();
    await startSetting("motor.setpoint");
    await page.keyboard.type(text);
}

/** Sends the typed setpoint again and again. */
export async function startCycle(period = "200"): Promise<void> {
    await type();
    await button("Repeat…").click();
    await page.getByLabel("Milliseconds from one to the next").fill(period);
    await dialog().getByRole("button", { name: "Repeat" }).click();
    await until(() => machine.heard.length >= 3, "a few orders");
}

/** It has ended for that reason, and nothing goes out any more. */
export async function hasEnded(reason: RegExp): Promise<void> {
    await bar().getByText(reason).waitFor();
    expect(await button("Stop").count()).toBe(0);
    await staysSilent();
}

export async function staysSilent(): Promise<void> {
    await page.waitForTimeout(300); // what was on its way may have arrived
    const before = machine.heard.length;
    await page.waitForTimeout(1500);
    expect(machine.heard.length).toBe(before);
}

/** As the browser does when another tab comes to the front. */
export const setHidden = (hidden: boolean) =>
    page.evaluate((hidden) => {
        Object.defineProperty(document, "hidden", { value: hidden, configurable: true });
        document.dispatchEvent(new Event("visibilitychange"));
    }, hidden);
