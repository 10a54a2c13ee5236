import { expect, test } from "vitest";
import { changes, openSchema, page, row, sendSchema, value } from "./fixture.js";
import { every, puppet } from "./impostor.js";

/** The page says, in one place, when the daemon seems to have another schema than its own. */

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

async function useHere(schema: object): Promise<void> {
    await openSchema();
    await page.getByLabel("Schema as JSON").fill(JSON.stringify(schema));
    await page.getByRole("button", { name: "Use here only" }).click();
}

const notice = () => page.locator(".notice");

test("a schema that another client replaced is told by values that come, until it is sent again", async () => {
    await sendSchema({ mine: SPEED });
    await value("mine").getByText(/^\d+$/).waitFor();
    await page.waitForTimeout(1500);
    expect(await notice().count()).toBe(0);
    await sendAsAnother(JSON.stringify({ theirs: SPEED }));
    await notice().getByText("Another client has replaced the schema.").waitFor();
    await notice().getByText("a value comes that it does not have: theirs").waitFor();
    expect(await notice().count()).toBe(1);
    await notice().getByRole("button", { name: "See the schema" }).click();
    await page.getByRole("button", { name: "Send to the daemon" }).click();
    await notice().waitFor({ state: "detached" });
});

test("a schema that another client cleared is told by silence, until values come again", async () => {
    await sendSchema({
        mine: SPEED,
        set: { ...SPEED, "@cmd": 3 },
        observed: { ...SPEED, "@mask": 1, "@observe": true },
    });
    await value("mine").getByText(/^\d+$/).waitFor();
    await page.waitForTimeout(3000);
    expect(await notice().count()).toBe(0);
    await sendAsAnother("{}");
    await notice().getByText("Another client may have replaced the schema.").waitFor({ timeout: 20_000 });
    await notice()
        .getByText(/none of its values has come for \d+ s/)
        .waitFor();
    await openSchema();
    await page.getByRole("button", { name: "Send to the daemon" }).click();
    await changes(value("mine"));
    await notice().waitFor({ state: "detached" });
});

test("of a schema that is only used here, the same is told by the page's own look", async () => {
    const { send } = await puppet();
    await useHere({ mine: SPEED, set: { ...SPEED, "@cmd": 3 } });
    let reading = 0;
    const stop = every(200, () => send({ mine: ++reading }));
    await value("mine").getByText(/^\d+$/).waitFor();
    await page.waitForTimeout(6000);
    expect(await notice().count()).toBe(0);
    stop();
    await notice().getByText("Another client may have replaced the schema.").waitFor();
    await notice()
        .getByText(/none of its values has come since \d\d:\d\d:\d\d$/)
        .waitFor();
    await row("set").getByRole("button", { name: "Set set" }).click();
    await page.keyboard.type("9");
    await page.getByText("in its schema, these names may belong to other frames").waitFor();
    send({ mine: ++reading });
    await notice().waitFor({ state: "detached" });
    send({ theirs: 1, mine: ++reading });
    await notice().getByText("a value comes that it does not have: theirs").waitFor();
    expect(await notice().count()).toBe(1);
});
