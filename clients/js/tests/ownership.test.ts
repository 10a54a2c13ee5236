import { setTimeout as sleep } from "node:timers/promises";
import { afterEach, beforeEach, expect, onTestFinished, test } from "vitest";
import { WebSocket } from "ws";
import { Client, type ClientOptions, type Schema, type WebSocketConstructor } from "../src/index.js";
import { Network } from "./link.js";
import { Machine, until } from "./machine.js";

const mine: Schema = { mine: { speed: { "@mac": 5, "@cmd": 2, "@format": "s" } } };
const theirs: Schema = { theirs: { "@mac": 5, "@cmd": 2, "@format": "s" } };

let machine: Machine;
let network: Network;
beforeEach(async () => {
    machine = new Machine();
    machine.play();
    await machine.startDaemon();
    network = await Network.open();
});
afterEach(async () => {
    network.close();
    await machine.stop();
});

/** A client, what it was told of its schema, and how many schemas it has sent. */
async function newClient(options: ClientOptions = {}) {
    let sent = 0;
    class Counting extends WebSocket {
        override send(data: any) {
            if (typeof data === "string") sent++;
            super.send(data);
        }
    }
    const client = new Client(network.address, {
        WebSocket: Counting as unknown as WebSocketConstructor,
        firstDelay: 50,
        longestDelay: 100,
        silentAfter: 2000,
        ...options,
    });
    onTestFinished(() => client.close());
    const events: [event: string, reason: string][] = [];
    client.on("schema", (event, reason) => events.push([event, reason]));
    await client.ready();
    return { client, events, sent: () => sent };
}

/** Waits until a value of the name comes. */
async function comes(client: Client, name: string): Promise<void> {
    for await (const values of client.values()) if (Object.hasOwn(values as object, name)) return;
}

async function restartDaemon(...clients: Client[]): Promise<void> {
    await machine.stopDaemon();
    for (const client of clients) await until(() => client.state !== "connected", "the loss");
    await machine.startDaemon();
    for (const client of clients) await client.ready(5000);
}

test("a restarted daemon is given the schema of its owner again", async () => {
    const { client, events, sent } = await newClient();
    client.setSchema(mine);
    expect(client.ownsSchema).toBe(true);
    await comes(client, "mine");
    await restartDaemon(client);
    await comes(client, "mine");
    expect(events).toEqual([["resent", "as a restarted daemon has none"]]);
    expect(sent()).toBe(2);
});

test("who sent the last schema owns it, and the other does not send its own any more", async () => {
    const [first, last] = [await newClient(), await newClient()];
    first.client.setSchema(mine);
    await comes(first.client, "mine");
    await sleep(1500);
    last.client.setSchema(theirs);
    await until(() => first.events.length > 0, "the replacement to be noticed");
    expect(first.events).toEqual([["replaced", "a value comes that it does not have: theirs"]]);
    expect([first.client.ownsSchema, last.client.ownsSchema]).toEqual([false, true]);
    for (let turn = 0; turn < 3; turn++) {
        await restartDaemon(first.client, last.client);
        await comes(first.client, "theirs");
        await sleep(1500);
    }
    expect([first.sent(), last.sent()]).toEqual([1, 4]);
    expect([first.client.ownsSchema, last.client.ownsSchema]).toEqual([false, true]);

    first.client.setSchema(mine);
    await until(() => !last.client.ownsSchema, "the replacement to be noticed");
    expect(first.client.ownsSchema).toBe(true);
});

test("values of the schema before, which are still on their way, say nothing", async () => {
    const { client, events } = await newClient();
    client.setSchema(theirs);
    await comes(client, "theirs");
    network.stall();
    await sleep(500);
    client.setSchema(mine);
    network.resume();
    await comes(client, "theirs");
    await comes(client, "mine");
    await sleep(1500);
    expect(events).toEqual([]);
});

test("a schema without values is replaced, too", async () => {
    const { client, events } = await newClient();
    client.setSchema({ quiet: { "@mac": 33, "@format": "s" } });
    const other = await newClient();
    other.client.setSchema(theirs);
    await until(() => events.length > 0, "the replacement to be noticed");
    expect(events).toEqual([["replaced", "a value comes that it does not have: theirs"]]);
});

test("a silence that is usual is none", async () => {
    await machine.stop();
    machine = new Machine();
    machine.replay(
        [0, 3, 6, 9, 12].map((at) => `(${at}.0) can0 085#0100`),
        3,
    );
    await machine.startDaemon();
    const { client, events } = await newClient({ silentAfter: 1000 });
    client.setSchema(mine);
    for (let count = 0; count < 4; count++) await comes(client, "mine");
    expect(events).toEqual([]);
});

test("a daemon that was only out of reach keeps the schema, which is not sent again", async () => {
    const { client, events, sent } = await newClient();
    client.setSchema(mine);
    await comes(client, "mine");
    network.cut();
    await until(() => events.length > 0, "the decision");
    expect(events).toEqual([["kept", "its values come"]]);
    expect(sent()).toBe(1);
});

test("a schema that came while the client was away is not replaced by its own", async () => {
    const { client, events, sent } = await newClient();
    client.setSchema(mine);
    await comes(client, "mine");
    network.stall();
    network.cut();
    await until(() => client.state !== "connected", "the loss");
    const other = new Client("127.0.0.1", { WebSocket: WebSocket as unknown as WebSocketConstructor });
    onTestFinished(() => other.close());
    await other.ready();
    other.setSchema(theirs);
    await comes(other, "theirs");
    network.resume();
    await comes(client, "theirs");
    await sleep(1500);
    expect(events.map(([event]) => event)).toEqual(["replaced"]);
    expect(sent()).toBe(1);
});

test("a schema whose values have all fallen silent may be another's, until they come again", async () => {
    const [first, last] = [await newClient(), await newClient()];
    first.client.setSchema(mine);
    for (let count = 0; count < 3; count++) await comes(first.client, "mine");
    last.client.setSchema({}, { clear: true });
    await until(() => first.events.length > 0, "the silence to be noticed");
    expect(first.events).toEqual([["silent", expect.stringMatching(/^none of its values has come for \d s$/)]]);
    await restartDaemon(first.client, last.client);
    await sleep(2000);
    expect(first.sent()).toBe(1);
    expect(first.client.ownsSchema).toBe(false);
    last.client.setSchema(mine);
    await comes(first.client, "mine");
    expect(first.events.map(([event]) => event)).toEqual(["silent", "heard"]);
    expect(first.client.ownsSchema).toBe(true);
});

test("a schema that is released after a silence is not taken back", async () => {
    const { client, events } = await newClient();
    client.setSchema(mine);
    for (let count = 0; count < 3; count++) await comes(client, "mine");
    const other = await newClient();
    other.client.setSchema({}, { clear: true });
    await until(() => events.length > 0, "the silence to be noticed");
    client.releaseSchema();
    other.client.setSchema(mine);
    await comes(client, "mine");
    expect([client.ownsSchema, events.length]).toEqual([false, 1]);
});

test("silence says nothing of values that come only when they change", async () => {
    const { client, events } = await newClient({ silentAfter: 1000 });
    client.setSchema({ door: { "@mac": 5, "@cmd": 2, "@skip": 4, "@format": "C", "@observe": true } });
    await comes(client, "door");
    await sleep(3000);
    expect(events).toEqual([]);
});

test("a schema that is released is not sent again, and not taken back when its values come", async () => {
    const { client, events, sent } = await newClient();
    client.setSchema(mine);
    await comes(client, "mine");
    client.releaseSchema();
    client.releaseSchema();
    expect(events).toEqual([["released", "it is not sent again by itself"]]);
    expect(client.ownsSchema).toBe(false);
    await restartDaemon(client);
    await sleep(1500);
    expect(sent()).toBe(1);
    expect(client.schema).toBe(mine); // values are still checked by it
});

test("a schema that is released while it is about to be sent again is not sent", async () => {
    const { client, sent } = await newClient();
    client.setSchema(mine);
    await comes(client, "mine");
    await restartDaemon(client);
    client.releaseSchema();
    await sleep(1500);
    expect(sent()).toBe(1);
});
