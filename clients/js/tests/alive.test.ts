import { setTimeout as sleep } from "node:timers/promises";
import { afterEach, beforeEach, describe, expect, onTestFinished, test } from "vitest";
import { WebSocket } from "ws";
import {
    Client,
    NotConnectedError,
    SchemaError,
    UnconfirmedError,
    WriteError,
    type ClientOptions,
    type WebSocketConstructor,
} from "../src/index.js";
import { Network } from "./link.js";
import { Machine, machineSchema, until } from "./machine.js";

/** Like those of browsers. */
class WithoutPing extends WebSocket {
    override ping = undefined as never;
}

const kinds = [
    ["that can ping", WebSocket],
    ["that cannot ping", WithoutPing],
] as unknown as [string, WebSocketConstructor][];

/** Short, so that many of them pass in a test. */
const ASK_AFTER = 100;
const LOST_AFTER = 600;

let machine: Machine;
let network: Network;
beforeEach(async () => {
    machine = new Machine();
    network = await Network.open();
});
afterEach(async () => {
    network.close();
    await machine.stop();
});

function newClient(WebSocket: WebSocketConstructor, options: ClientOptions = {}): Client {
    const client = new Client(network.address, {
        WebSocket,
        firstDelay: 50,
        longestDelay: 200,
        askAfter: ASK_AFTER,
        lostAfter: LOST_AFTER,
        ...options,
    });
    onTestFinished(() => client.close());
    return client;
}

/** A client of the simulated machine, whose values come. */
async function ofMachine(WebSocket: WebSocketConstructor, options: ClientOptions = {}): Promise<Client> {
    machine.play();
    await machine.startDaemon();
    const client = newClient(WebSocket, options);
    await client.ready();
    client.setSchema(machineSchema);
    await client.values().next();
    return client;
}

describe.each(kinds)("with a WebSocket %s", (_, WebSocket) => {
    test("a stalled network is noticed, writes are refused, and the connection comes back", async () => {
        await machine.startDaemon({ VORBEL_SOURCE: "none" });
        const client = newClient(WebSocket);
        await client.ready();
        network.stall();
        await until(() => client.state === "waiting", "the loss to be noticed");
        expect(client.reason).toMatch(/^no answer for 0\.\d+ s; next attempt in /);
        expect(() => client.set("a", 1)).toThrow(NotConnectedError);
        expect(() => client.set("a", 1)).toThrow(/no answer for 0\.\d+ s.*: nothing was written$/);
        network.resume();
        await client.ready(5000);
    });

    test("a daemon that has nothing to say stays connected, because it is asked", async () => {
        await machine.startDaemon({ VORBEL_SOURCE: "none" });
        const client = newClient(WebSocket);
        await client.ready();
        const states: string[] = [];
        client.on("state", (state) => states.push(state));
        await sleep(6 * LOST_AFTER);
        expect(states).toEqual([]);
    });

    test("a daemon that talks is not asked", async () => {
        const client = await ofMachine(WebSocket);
        const before = network.connections;
        let asked = 0;
        client.on("hello", () => asked++);
        await sleep(10 * ASK_AFTER);
        expect(network.connections).toBe(before);
        expect(asked).toBe(0);
    });

    test("a program that was busy for long does not take that for the daemon's silence", async () => {
        await machine.startDaemon({ VORBEL_SOURCE: "none" });
        const client = newClient(WebSocket);
        await client.ready();
        const states: string[] = [];
        client.on("state", (state) => states.push(state));
        for (let turn = 0; turn < 3; turn++) {
            const end = performance.now() + 4 * LOST_AFTER;
            while (performance.now() < end);
            await sleep(20);
        }
        await sleep(2 * LOST_AFTER);
        expect(states).toEqual([]);
    });

    test("what is delivered has been handled, one after the other", async () => {
        const client = await ofMachine(WebSocket);
        const deliveries = [1, 2, 3].map((setpoint) => client.deliver({ motor: { setpoint } }));
        expect((await deliveries[0]!).map(({ raw }) => raw)).toEqual([1]);
        await Promise.all(deliveries);
        await until(() => machine.heard.length === 3, "three frames", 1);
        expect(machine.heard).toEqual(["mac 5 cmd 3: 01 00", "mac 5 cmd 3: 02 00", "mac 5 cmd 3: 03 00"]);
    });

    test("a schema that is delivered is in force, and belongs to who delivered it", async () => {
        const client = await ofMachine(WebSocket);
        const speed = { "@mac": 5, "@cmd": 2, "@format": "s" };
        const other = newClient(WebSocket);
        await other.ready();
        await other.deliverSchema({ other: speed });
        expect(other.ownsSchema).toBe(true);
        const seen = newClient(WebSocket); // on its connection nothing of before is on its way
        await seen.ready();
        expect(Object.keys((await seen.values().next()).value as object)).toEqual(["other"]);
        await until(() => !client.ownsSchema, "the former owner to notice", 3);
    });

    test("a schema that is delivered can be written by", async () => {
        const client = await ofMachine(WebSocket);
        await client.deliverSchema({ low: { "@mac": 5, "@cmd": 2, "@format": "s", bits: [0, 4] } });
        await client.values().next();
        await until(() => {
            try {
                client.set("low", 5);
                return true;
            } catch {
                return false; // none of its readings has come yet
            }
        }, "a reading");
    });

    test("a schema with errors, or without a connection, is not delivered", async () => {
        const client = await ofMachine(WebSocket);
        await expect(client.deliverSchema({ a: { "@mac": 70, "@format": "C" } })).rejects.toThrow(SchemaError);
        await expect(client.deliverSchema({})).rejects.toThrow(SchemaError);
        expect(client.schema).toBe(machineSchema);
        client.close();
        await expect(client.deliverSchema(machineSchema)).rejects.toThrow(/closed here.*: the schema was not sent$/);
        expect(client.ownsSchema).toBe(true);
    });

    test("a schema without an answer after it may be in force", async () => {
        let isCutting = false;
        class Cutting extends (WebSocket as any) {
            send(data: unknown) {
                super.send(data);
                if (isCutting) network.cut();
            }
        }
        const client = await ofMachine(Cutting as unknown as WebSocketConstructor);
        isCutting = true;
        await expect(client.deliverSchema(machineSchema)).rejects.toThrow(UnconfirmedError);
    });

    test("a schema over a network that stalls is not waited for for ever", async () => {
        const client = await ofMachine(WebSocket, { lostAfter: 600_000 });
        network.stall();
        await expect(client.deliverSchema(machineSchema, { timeout: 200 })).rejects.toThrow("no answer in time");
    });

    test("a client that finishes leaves when all that it sent was handled", async () => {
        const client = await ofMachine(WebSocket);
        for (let setpoint = 1; setpoint <= 5; setpoint++) client.set("motor.setpoint", setpoint);
        const ended = client.values().next();
        const finish = client.finish();
        expect(client.state).toBe("closed");
        await finish;
        await until(() => machine.heard.length === 5, "five frames", 1);
        expect((await ended).done).toBe(true);
        await expect(client.finish()).rejects.toThrow(/^Not connected to .*closed here/);
    });

    test("a client that finishes says when nothing tells whether all was handled", async () => {
        const client = await ofMachine(WebSocket);
        network.stall();
        await expect(client.finish(200)).rejects.toThrow(UnconfirmedError);
        const other = newClient(WebSocket, { lostAfter: 600_000 });
        network.resume();
        await other.ready();
        network.stall();
        const finish = expect(other.finish()).rejects.toThrow("the connection broke off");
        network.cut();
        await finish;
    });

    test("what cannot be delivered at once is never delivered", async () => {
        const client = await ofMachine(WebSocket);
        network.stall();
        const refusals = [1, 2].map((setpoint) => expect(client.deliver({ motor: { setpoint } })).rejects);
        for (const refusal of refusals) await refusal.toThrow(/: nothing was written$/);
        await expect(client.deliver({ motor: { setpoint: 3 } })).rejects.toThrow(NotConnectedError);
        network.resume();
        await client.ready(5000);
        await client.values().next();
        await sleep(500);
        expect(machine.heard).toEqual([]);
    });

    test("what was sent without an answer after it is told from what was not sent", async () => {
        class Stalling extends (WebSocket as any) {
            send(data: unknown) {
                if (typeof data !== "string") network.stall();
                super.send(data);
            }
        }
        const client = await ofMachine(Stalling as unknown as WebSocketConstructor);
        await expect(client.deliver({ motor: { setpoint: 1 } })).rejects.toThrow(UnconfirmedError);
    });

    test("what was sent on a connection that breaks off may have been handled", async () => {
        class Cutting extends (WebSocket as any) {
            send(data: unknown) {
                super.send(data);
                if (typeof data !== "string") network.cut();
            }
        }
        const client = await ofMachine(Cutting as unknown as WebSocketConstructor, { lostAfter: 600_000 });
        await expect(client.deliver({ motor: { setpoint: 1 } })).rejects.toThrow(UnconfirmedError);
    });

    test("an answer that is taken too late allows nothing any more", async () => {
        let isBusy = false;
        class Busy extends (WebSocket as any) {
            emit(event: string, ...parameters: unknown[]) {
                const isAnswer = event === "pong" || (event === "message" && parameters[1] === false);
                const end = performance.now() + (isAnswer && isBusy ? 2 * LOST_AFTER : 0);
                while (performance.now() < end);
                return super.emit(event, ...parameters);
            }
        }
        const client = await ofMachine(Busy as unknown as WebSocketConstructor);
        isBusy = true;
        await expect(client.deliver({ motor: { setpoint: 1 } })).rejects.toThrow(/: nothing was written$/);
        isBusy = false;
        await sleep(300);
        expect(machine.heard).toEqual([]);
    });

    test("what is given up before it was sent is never sent", async () => {
        const client = await ofMachine(WebSocket);
        const giving = new AbortController();
        const refusal = expect(client.deliver({ motor: { setpoint: 1 } }, { signal: giving.signal })).rejects;
        giving.abort();
        await refusal.toThrow(/given up.*: nothing was written$/);
        await sleep(300);
        expect(machine.heard).toEqual([]);
    });

    test("what is to be sent soon or never is not sent later", async () => {
        const client = await ofMachine(WebSocket, { lostAfter: 600_000 });
        network.stall();
        const delivery = client.deliver({ motor: { setpoint: 1 } }, { patience: 200 });
        await expect(delivery).rejects.toThrow(/no answer in time.*: nothing was written$/);
        network.resume();
        await sleep(300);
        expect(machine.heard).toEqual([]);
    });

    test("what the schema does not allow is not delivered", async () => {
        const client = await ofMachine(WebSocket);
        await expect(client.deliver({ motor: { speeed: 1 } })).rejects.toThrow(WriteError);
    });

    test("a client that is closed gives up what it is about to deliver", async () => {
        const client = await ofMachine(WebSocket, { lostAfter: 600_000 });
        network.stall();
        const refusal = expect(client.deliver({ motor: { setpoint: 1 } })).rejects.toThrow(NotConnectedError);
        await sleep(50);
        client.close();
        const waiting = sleep(1000).then(() => "still waiting");
        expect(await Promise.race([refusal.then(() => "refused"), waiting])).toBe("refused");
        await expect(client.deliver({ motor: { setpoint: 1 } })).rejects.toThrow(/closed here.*nothing was written$/);
    });
});

test("a stalled connection is reset, so that the system sends nothing of it when the network is back", async () => {
    await machine.startDaemon({ VORBEL_SOURCE: "none" });
    const client = newClient(WebSocket as unknown as WebSocketConstructor);
    await client.ready();
    network.stall();
    await until(() => client.state === "waiting", "the loss to be noticed");
    client.close();
    network.resume();
    await until(() => network.ends.length > 0, "the end of the connection");
    expect(network.ends[0]).toBe("ECONNRESET");
});

test("a connection ends without an answer at all where nobody asks", async () => {
    await machine.startDaemon({ VORBEL_SOURCE: "none" });
    const client = newClient(WithoutPing as unknown as WebSocketConstructor, { askAfter: Infinity });
    await client.ready();
    await until(() => client.state === "waiting", "the loss");
});

test("nothing is asked and nothing lost where neither is wanted", async () => {
    await machine.startDaemon({ VORBEL_SOURCE: "none" });
    const client = newClient(WithoutPing as unknown as WebSocketConstructor, {
        askAfter: Infinity,
        lostAfter: Infinity,
    });
    await client.ready();
    network.stall();
    await sleep(2 * LOST_AFTER);
    expect([client.state, network.connections]).toEqual(["connected", 1]);
});
