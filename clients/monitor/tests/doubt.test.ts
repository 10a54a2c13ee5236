import { setTimeout as sleep } from "node:timers/promises";
import { expect, test } from "vitest";
import { changes, openSchema, page, sendSchema, value } from "./fixture.js";

/** The page says when the daemon seems to have another schema than its own. */

const SPEED = { "@mac": 5, "@cmd": 2, "@format": "s" };

/** Sends a text to the daemon as another client. */
async function sendAsAnother(text: string): Promise<void> {
    await page.evaluate((text) => {
        const socket = new WebSocket("ws://127.0.0.1:10443");
        socket.onopen = () => {
            socket.send(text);
            socket.close();
        };
    }, text);
}

const doubt = () => page.locator(".doubt");

test("a schema that another client replaced is told by values that come, until it is sent again", async () => {
    await sendSchema({ mine: SPEED });
    await value("mine").getByText(/^\d+$/).waitFor();
    expect(await doubt().count()).toBe(0);
    await sendAsAnother(JSON.stringify({ theirs: SPEED }));
    await doubt().getByText("Values come that the schema used here does not have, such as theirs").waitFor();
    await doubt().getByRole("button", { name: "See the schema" }).click();
    await page.getByRole("button", { name: "Send to the daemon" }).click();
    await doubt().waitFor({ state: "detached" });
});

test("a schema that another client cleared is told by silence, until values come again", async () => {
    await sendSchema({
        mine: SPEED,
        set: { ...SPEED, "@cmd": 3 },
        observed: { ...SPEED, "@mask": 1, "@observe": true },
    });
    await value("mine").getByText(/^\d+$/).waitFor();
    await sleep(3000);
    expect(await doubt().count()).toBe(0);
    await sendAsAnother("{}");
    await doubt()
        .getByText(/^No value of this schema has come since \d\d:\d\d:\d\d: another client has cleared or replaced it/)
        .waitFor();
    await openSchema();
    await page.getByRole("button", { name: "Send to the daemon" }).click();
    await changes(value("mine"));
    await doubt().waitFor({ state: "detached" });
});
