import { setTimeout as sleep } from "node:timers/promises";
import { expect, test } from "vitest";
import { connected, machine, openSchema, page, row, sendSchema, value } from "./fixture.js";
import { every, puppet } from "./impostor.js";

/** What is no longer the present is marked; what still is, is not. */

const stale = (path: string) => row(path).locator(".value.stale");
const LEAF = { "@mac": 5, "@cmd": 2, "@format": "s" };

test("a value that fails to come is overdue also after two or three readings", async () => {
    const { send } = await puppet();
    send({ two: 1, three: 1 });
    await sleep(300);
    send({ two: 2, three: 2 });
    await sleep(300);
    send({ three: 3 });
    await value("three").getByText("3").waitFor();
    expect(await stale("three").count()).toBe(0);
    await sleep(4000);
    expect(await stale("two").count()).toBe(1);
    expect(await stale("three").count()).toBe(1);
});

test("a value that comes only when it changes is not overdue while the connection lasts", async () => {
    const { send, sockets } = await puppet();
    await openSchema();
    await page.getByLabel("Schema as JSON").fill(JSON.stringify({ a: { ...LEAF, "@observe": true }, b: LEAF }));
    await page.getByRole("button", { name: "Use here only" }).click();
    for (let reading = 0; reading < 12; reading++) {
        send({ a: reading, b: reading });
        await sleep(100);
    }
    const stop = every(100, () => send({ b: 1 }));
    await sleep(5000);
    expect(await stale("a").count()).toBe(0);
    expect(await stale("b").count()).toBe(0);
    stop();
    for (const socket of sockets) socket.terminate();
    await page.getByRole("status").getByText("Not connected").waitFor();
    await sleep(1000);
    expect(await stale("a").count()).toBe(1);
    // The next connection says nothing of a value that has not come over it.
    await connected();
    await sleep(1000);
    expect(await stale("a").count()).toBe(1);
    send({ a: 5 });
    await expect.poll(() => stale("a").count()).toBe(0);
});

test("within a second of the connection's end every value is marked", async () => {
    await sendSchema();
    await value("battery.cells.d").getByText("5 × [").waitFor();
    await value("motor.speed").getByText(/\d/).waitFor();
    await machine.stopDaemon();
    await page.getByRole("status").getByText("Not connected").waitFor();
    await sleep(1000);
    const shown = page.locator(".row:has(.age:not(:empty))");
    expect(await shown.count()).toBeGreaterThan(8);
    expect(await shown.locator(".value.stale").count()).toBe(await shown.count());
});
