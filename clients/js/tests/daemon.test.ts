import { afterEach, beforeEach, describe, expect, onTestFinished, test, vi } from "vitest";
import { WebSocket } from "ws";
import {
    Client,
    flatten,
    NotConnectedError,
    SchemaError,
    WriteError,
    type ClientOptions,
    type Schema,
    type Undecodable,
    type Value,
    type WebSocketConstructor,
} from "../src/index.js";
import { cases, valueOf as valueOfCase, type Members, type Writes } from "./conformance.js";
import { ADDRESS, Machine, machineSchema, until, type Link } from "./machine.js";

function newClient(options: ClientOptions = {}): Client {
    const client = new Client(ADDRESS, {
        WebSocket: WebSocket as unknown as WebSocketConstructor,
        firstDelay: 50,
        longestDelay: 200,
        ...options,
    });
    onTestFinished(() => client.close());
    return client;
}

/** The first value of a path that fulfils a condition. */
async function valueOf(client: Client, path: string, fits: (value: Value) => boolean = () => true): Promise<Value> {
    for await (const values of client.values()) {
        const value = flatten(values).get(path);
        if (value !== undefined && fits(value)) return value;
    }
    throw new Error("closed");
}

let machine: Machine;
beforeEach(() => void (machine = new Machine()));
afterEach(() => machine.stop());

const links: Link[] = ["serialport", "socketcan"];

describe.each(links)("a running machine on the link %s", (link) => {
    beforeEach(async () => {
        machine = new Machine(link);
        machine.play();
        await machine.startDaemon();
    });

    test("greets with its type and id", async () => {
        expect(await newClient().ready()).toEqual({ type: "demo machine", id: "A7" });
    });

    test("sends the values that the schema names", async () => {
        const client = newClient();
        await client.ready();
        client.setSchema(machineSchema);
        expect(await valueOf(client, "motor.speed", (speed) => (speed as number) > 500)).toBeLessThan(700);
        expect(await valueOf(client, "motor.enabled")).toBe(true);
        const cells = await valueOf(client, "battery.cells.a");
        expect(cells).toBeInstanceOf(Float32Array);
        expect(cells).toHaveLength(5);
        expect((cells as Float32Array)[0]).toBeCloseTo(3.9, 0);
    });

    test("takes what is written, as exact frames", async () => {
        const client = newClient();
        await client.ready();
        client.setSchema(machineSchema);
        await valueOf(client, "motor.speed");
        expect(client.write({ motor: { setpoint: 1200 } }).map(({ raw }) => raw)).toEqual([1200]);
        expect(client.set("motor.setpoint", -2)?.raw).toBe(-2);
        client.set(["motor", "setpoint"], 2.6);
        await until(() => machine.heard.length === 3, "three frames");
        expect(machine.heard).toEqual(["mac 5 cmd 3: b0 04", "mac 5 cmd 3: fe ff", "mac 5 cmd 3: 03 00"]);
    });

    test("is spared what it would not write as it stands, unless that is wanted", async () => {
        const client = newClient();
        await client.ready();
        client.setSchema(machineSchema);
        await valueOf(client, "motor.speed");
        expect(() => client.set("motor.setpoint", 70000.5)).toThrow(WriteError);
        expect(client.set("motor.setpoint", 70000.5, { check: false })).toBeUndefined();
        const other = newClient();
        await other.ready();
        expect(() => other.set("motor.setpoint", 70000.5, { schema: machineSchema })).toThrow(WriteError);
        other.set("motor.setpoint", "5"); // without a schema, nobody knows
        await until(() => machine.heard.length === 2, "two frames");
        // 70000.5 is rounded by the daemon, then wrapped into 16 bits.
        expect(machine.heard).toEqual(["mac 5 cmd 3: 71 11", "mac 5 cmd 3: 05 00"]);
    });

    test("goes on after a message that cannot be decoded", async () => {
        const client = newClient();
        const undecodable: Undecodable[] = [];
        client.on("undecodable", (message) => undecodable.push(message));
        await client.ready();
        const lost = { "@mac": 5, "@cmd": 2, "@skip": 4, "@format": "c", "@flushSize": 4 };
        client.setSchema({ good: { "@mac": 5, "@cmd": 2, "@format": "s" }, lost }, { check: false });
        await until(() => undecodable.length === 2, "two undecodable messages");
        const name = Buffer.from(undecodable[0]!.bytes).subarray(-5).toString("latin1");
        expect(name).toBe("\xa4lost"); // the name went out, its value did not
        expect(undecodable[0]!.error.message).toMatch(/Insufficient data|out of range|Offset/i);
        expect(await valueOf(client, "good")).toBeTypeOf("number");
    });

    test("warns of undecodable messages when nobody listens for them", async () => {
        const warn = vi.spyOn(console, "warn").mockImplementation(() => {});
        const client = newClient();
        await client.ready();
        client.setSchema({ "@mac": 5, "@cmd": 2, "@skip": 4, "@format": "c", "@flushSize": 2 }, { check: false });
        await until(() => warn.mock.calls.length > 0, "a warning");
        expect(warn.mock.calls[0]![0]).toMatch(/^vorbel: skipped a message of 0 bytes \(/);
        warn.mockRestore();
    });

    test("is served to two clients alike, under the schema of either", async () => {
        const [one, two] = [newClient(), newClient()];
        await Promise.all([one.ready(), two.ready()]);
        two.setSchema(machineSchema);
        await Promise.all([valueOf(one, "door.open"), valueOf(two, "door.open")]);
    });

    test("keeps its schema when the schema to be set has errors", async () => {
        const client = newClient();
        await client.ready();
        client.setSchema(machineSchema);
        const broken: Schema = { a: { "@mac": "5", "@format": "s" } };
        expect(() => client.setSchema(broken)).toThrow(SchemaError);
        expect(client.schema).toBe(machineSchema);
        await valueOf(client, "motor.speed");
    });

    test("takes an unchecked schema", async () => {
        const client = newClient();
        await client.ready();
        const unchecked: Schema = { a: { "@mac": 5, "@cmd": 2, "@format": "s", "@note": 1 } };
        client.setSchema(unchecked, { check: false });
        await valueOf(client, "a");
    });
});

test("what all clients write comes out as they agreed", async () => {
    machine.play();
    await machine.startDaemon();
    const client = newClient();
    await client.ready();
    client.setSchema({ alive: { "@mac": 5, "@cmd": 2, "@format": "s" } });
    await valueOf(client, "alive"); // the link is up
    const [writes, members] = [cases<Writes>("writes"), cases<Members>("members")];
    client.setSchema(writes.schema, { check: false });
    for (const { values } of writes.written) client.write(valueOfCase(values));
    client.setSchema(members.schema, { check: false });
    for (const { values, readings = {} } of members.written)
        client.write(valueOfCase(values), { readings: (path) => readings[path] });
    const expected = [...writes.written, ...members.written]
        .flatMap(({ frames }) => frames)
        .map(([mac, cmd, payload]) => `mac ${mac} cmd ${cmd}: ${payload}`);
    await until(() => machine.heard.length >= expected.length, "all frames");
    expect(machine.heard).toEqual(expected);
});

test("a field is written into the last reading of its bytes", async () => {
    await machine.startDaemon();
    const client = newClient();
    await client.ready();
    const { schema } = cases<Members>("members");
    client.setSchema(schema, { check: false });
    machine.replay(["(1.0) can0 081#8B", "(6.0) can0 7FF#"], 3);
    expect(await valueOf(client, "mode")).toBe(0x8b);
    client.set("mode", 5);
    await until(() => machine.heard.length > 0, "a frame");
    expect(machine.heard).toEqual(["mac 1 cmd 2: db"]);
});

describe.each(links)("typed arrays on the link %s", (link) => {
    test("of every format arrive as sent on the bus", async () => {
        machine = new Machine(link);
        await machine.startDaemon();
        const client = newClient();
        await client.ready();
        const two = (format: string, skip: number, more = {}) => {
            return { "@mac": 1, "@cmd": 1, "@format": format, "@skip": skip, "@flushSize": 2, ...more };
        };
        const integers = { C: two("C", 0), S: two("S", 2), s: two("s", 2), I: two("I", 4), i: two("i", 4) };
        const floats = { f: two("f", 4), scaled: two("C", 0, { "@factor": 2 }) };
        client.setSchema({ ...integers, ...floats });
        const values = client.values();
        const [first, second] = ["(1.0) can0 041#FF010280FFFFFFFF", "(1.1) can0 041#00010000000080BF"];
        const last = "(6.0) can0 7FF#"; // keeps the link up meanwhile
        machine.replay([first, second, last], 3);
        expect((await values.next()).value).toStrictEqual({
            C: Uint8Array.of(255, 0),
            I: Uint32Array.of(0xffffffff, 0xbf800000),
            S: Uint16Array.of(0x8002, 0),
            f: Float32Array.of(NaN, -1),
            i: Int32Array.of(-1, 0xbf800000 | 0),
            s: Int16Array.of(-32766, 0),
            scaled: Float32Array.of(127.5, 0),
        });
    });
});

describe("connections", () => {
    test("begin when the daemon comes, and come back when it does, with the schema", async () => {
        machine.play();
        const client = newClient();
        const states: string[] = [];
        client.on("state", (state) => states.push(state));
        client.setSchema(machineSchema); // kept until there is a connection
        await expect(client.ready(300)).rejects.toThrow(/^No connection to ws:\/\/127\.0\.0\.1:10443: .*ECONNREFUSED/);
        await machine.startDaemon();
        await client.ready();
        await valueOf(client, "motor.speed");
        states.length = 0;

        await machine.stopDaemon();
        await until(() => states.includes("waiting"), "the loss to be noticed");
        expect(() => client.set("motor.setpoint", 1)).toThrow(NotConnectedError);
        await machine.startDaemon();
        await valueOf(client, "motor.speed");
        expect(states[0]).toBe("waiting");
        expect(states.at(-1)).toBe("connected");
        expect(machine.heard).toEqual([]);
    });

    test("are tried after growing pauses", async () => {
        const client = newClient({ firstDelay: 40, longestDelay: 100 });
        const starts: number[] = [];
        client.on("state", (state) => state === "connecting" && starts.push(performance.now()));
        client.connect();
        await until(() => starts.length === 5, "five attempts");
        const pauses = starts.slice(1).map((at, index) => at - starts[index]!);
        expect(pauses[0]).toBeGreaterThanOrEqual(19);
        expect(pauses[1]).toBeGreaterThanOrEqual(39);
        for (const pause of pauses.slice(2)) expect(pause).toBeGreaterThanOrEqual(49);
    });

    test("can be closed: iterations end, nothing is tried again", async () => {
        await machine.startDaemon({ VORBEL_SOURCE: "none" });
        const client = newClient();
        await client.ready();
        const next = client.values().next();
        client.close();
        expect(await next).toEqual({ done: true, value: undefined });
        expect(client.state).toBe("closed");
        await expect(Promise.race([client.values().next(), Promise.resolve("nothing")])).resolves.toBe("nothing");
    });

    test("that are closing take no values, which would be lost", async () => {
        await machine.startDaemon({ VORBEL_SOURCE: "none" });
        let socket: WebSocket | undefined;
        class Closing extends WebSocket {
            constructor(url: string) {
                super(url);
                // eslint-disable-next-line @typescript-eslint/no-this-alias -- the client keeps it to itself
                socket = this;
            }
        }
        const client = newClient({ WebSocket: Closing as unknown as WebSocketConstructor });
        await client.ready();
        socket!.close();
        expect(client.state).toBe("connected"); // the handshake of closing is not over
        expect(() => client.set("a", 1)).toThrow(NotConnectedError);
    });

    test("have one schema sent per connection, not per hello", async () => {
        await machine.startDaemon({ VORBEL_SOURCE: "none" });
        const sent: unknown[] = [];
        class Recording extends WebSocket {
            override send(data: Uint8Array | string) {
                sent.push(data);
                super.send(data);
            }
        }
        const client = newClient({ WebSocket: Recording as unknown as WebSocketConstructor });
        let hellos = 0;
        client.on("hello", () => hellos++);
        client.setSchema(machineSchema);
        await client.ready();
        await newClient().ready(); // makes the daemon greet everybody again
        await until(() => hellos >= 2, "the second hello");
        expect(sent).toEqual([JSON.stringify(machineSchema)]);
    });

    test("refuse what is no map, and what the daemon would hang up on", () => {
        const client = newClient();
        expect(() => client.write({ a: "x".repeat(2 ** 22) })).toThrow(
            /^The message has 41943\d\d bytes, more than the 4 MiB/,
        );
        expect(() => client.setSchema({ note: "x".repeat(2 ** 22) }, { clear: true })).toThrow(/^The schema has/);
        expect(() => client.write([1] as never)).toThrow(TypeError);
        expect(() => client.write(5 as never)).toThrow(TypeError);
    });
});

describe("confirmed", () => {
    test("means that the daemon has handled all before", async () => {
        machine.play();
        await machine.startDaemon();
        const client = newClient();
        await client.ready();
        client.setSchema(machineSchema);
        await valueOf(client, "motor.speed");
        for (let count = 0; count < 5; count++) client.set("motor.setpoint", count);
        await Promise.all([client.confirmed(), client.confirmed()]);
        await until(() => machine.heard.length === 5, "five frames", 1);
    });

    test("is refused where there is no connection, and ends with it", async () => {
        await machine.startDaemon({ VORBEL_SOURCE: "none" });
        const client = newClient();
        await expect(client.confirmed()).rejects.toThrow(NotConnectedError);
        await client.ready();
        const confirmation = client.confirmed();
        client.close();
        await expect(confirmation).rejects.toThrow(/did not confirm what was sent: closed here/);
    });

    test("waits no longer than it is told", async () => {
        await machine.startDaemon({ VORBEL_SOURCE: "none" });
        class Silent extends WebSocket {
            override ping() {}
        }
        const client = newClient({ WebSocket: Silent as unknown as WebSocketConstructor });
        await client.ready();
        await expect(client.confirmed(50)).rejects.toThrow(/no answer in time/);
    });

    test("takes a WebSocket that can ping", async () => {
        await machine.startDaemon({ VORBEL_SOURCE: "none" });
        class Browsers extends WebSocket {
            override ping = undefined as never;
        }
        const client = newClient({ WebSocket: Browsers as unknown as WebSocketConstructor });
        await client.ready();
        await expect(client.confirmed()).rejects.toThrow("This WebSocket cannot ping");
    });
});

test("slow readers lose the oldest messages, not memory, and can tell how many", async () => {
    machine.play();
    await machine.startDaemon();
    const client = newClient();
    const values = client.values({ limit: 2 });
    await client.ready();
    client.setSchema({ speed: { "@mac": 5, "@cmd": 2, "@format": "s" } });
    let count = 0;
    client.on("values", () => count++);
    await until(() => count >= 5, "five messages");
    client.close();
    const left = [await values.next(), await values.next(), await values.next()];
    expect(left.map(({ done }) => done)).toEqual([false, false, true]);
    expect(values.lost).toBe(count - 2);
    expect(client.lost).toBe(count - 2);
});
