import { test } from "vitest";
import { changes, connected, page, sendSchema, value } from "./fixture.js";

/** A part that fails does not take the page with it. */

test("a part of the page that cannot be drawn says so, and can be tried again; the others go on", async () => {
    await page.evaluate(() => {
        const { toLocaleTimeString } = Object.getOwnPropertyDescriptors(Date.prototype);
        (window as any).mend = () => Object.defineProperty(Date.prototype, "toLocaleTimeString", toLocaleTimeString);
        Date.prototype.toLocaleTimeString = () => {
            throw new Error("there is no time");
        };
    });
    await sendSchema();
    await page.getByText("The log cannot be shown: there is no time").waitFor();
    await connected();
    await changes(value("motor.speed"));
    await page.evaluate(() => (window as any).mend());
    await page.getByRole("button", { name: "Try again" }).click();
    await page.getByRole("log").getByText("Schema of 11 leaves sent").waitFor();
});
