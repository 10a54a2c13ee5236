import { describe, expect, onTestFinished, test, vi } from "vitest";
import {
    Client,
    defineSchema,
    encodeValues,
    leavesOf,
    Meanings,
    prepareWrite,
    SchemaError,
    UnconfirmedError,
    WriteError,
    type Schema,
    type Value,
    type ValueMap,
    type WebSocketConstructor,
    type WebSocketLike,
} from "../src/index.js";

const leaf = (options: object = {}) => ({ "@mac": 1, "@cmd": 1, "@format": "C", ...options });
const page = (is: number, path = "page") => ({ when: { path, is } });

describe("meanings", () => {
    const meanings = new Meanings({
        page: leaf(),
        speed: leaf({ "@format": "S", scale: 0.5, unit: "rpm", warn: [null, 100] }),
        cells: leaf({ "@format": "S", "@flushSize": 2, scale: 0.5, unit: "V", labels: { "5": "five" }, alarm: [0, 3] }),
        raw: leaf({ "@flushSize": 2, labels: { "1": "one" }, unit: "V" }),
        two: leaf(page(2)),
    });

    test("come flat, with all that is known, for what counts", () => {
        const flat = meanings.flat({ page: 1, speed: 300, two: 5, group: { other: "x" } });
        expect([...flat.keys()]).toEqual(["page", "speed", "group.other"]);
        const { reading, value, label, unit, level, shown } = flat.get("speed")!;
        expect([reading, value, label, unit, level, shown]).toEqual([300, 150, undefined, "rpm", "warn", "150 rpm"]);
        const other = flat.get("group.other")!;
        expect([other.value, other.label, other.unit, other.level, other.shown]).toEqual([
            "x",
            undefined,
            "",
            "",
            '"x"',
        ]);
    });

    test("are those of one reading, too", () => {
        expect(meanings.of("speed", 3).shown).toBe("1.5 rpm");
        expect(meanings.of("nosuch", 0.10000000149011612).shown).toBe("0.1");
        expect(new Meanings().of("", null).shown).toBe("null");
    });

    test("of an array are its elements', and the last one's", () => {
        const cells = meanings.of("cells", Uint16Array.of(2, 7));
        expect([cells.value, cells.label, cells.level, cells.shown]).toEqual([
            [1, 3.5],
            undefined,
            "alarm",
            "2 × … 3.5 V",
        ]);
        expect(meanings.of("cells", Uint16Array.of(9, 5)).shown).toBe("2 × … five");
        const none = meanings.of("cells", new Uint16Array());
        expect([none.value, none.level, none.shown]).toEqual([[], "", "[]"]);
        const raw = meanings.of("raw", Uint8Array.of(1));
        expect([raw.value, raw.label, raw.shown]).toEqual([Uint8Array.of(1), undefined, "1 × … one"]);
    });

    test("keep whole numbers as they are, however many digits these have", () => {
        const { a, b } = { a: leaf({ "@format": "I", scale: 0.5 }), b: leaf({ "@format": "I", unit: "x" }) };
        const wide = new Meanings({ a, b });
        expect(wide.of("a", 123456792).value).toBe(61728396);
        expect(wide.of("b", 4294967295).shown).toBe("4294967295 x");
    });

    test.each([
        [-1, "1.5"],
        [16, "1.5"],
        [15, "1.500000000000000"],
        [0, "2"],
    ])("show %i decimals as far as they can be shown", (decimals, text) => {
        expect(new Meanings({ a: leaf({ "@format": "f", decimals }) }).of("a", 1.5).shown).toBe(text);
    });

    test("are not found in what all objects have", () => {
        const odd = new Meanings({ a: leaf({ labels: {} }) });
        expect(odd.of("a", "constructor").label).toBeUndefined();
        expect(odd.flat({ constructor: 5 }).get("constructor")!.value).toBe(5);
    });

    test("are as good as they can be for readings of another schema", () => {
        const part = new Meanings({ a: leaf({ bits: [0, 2], scale: 2, labels: { "1": "on" } }) });
        expect(["x", null, true, { b: 1 }].map((reading) => part.of("a", reading).value)).toEqual([
            "x",
            null,
            2,
            { b: 1 },
        ]);
    });

    test.each<[string, Schema, Value, string[]]>([
        ["itself", { a: leaf(page(1, "a")) }, { a: 1 }, []],
        ["another in a circle", { a: leaf(page(1, "b")), b: leaf(page(1, "a")) }, { a: 1, b: 1 }, []],
        ["a group", { a: leaf(page(1, "g")), g: { x: leaf() } }, { a: 1, g: { x: 1 } }, ["g.x"]],
        ["what is gathered", { a: leaf(page(1, "p")), p: leaf() }, { a: 1, p: Uint8Array.of(1) }, ["p"]],
    ])("do not count that wait for %s", (_, schema, values, counts) => {
        expect([...new Meanings(schema).flat(values).keys()]).toEqual(counts);
    });
});

test("labels and selectors are no leaves, but leaves named like them are", () => {
    const named = { when: leaf(), labels: leaf() };
    const paths = (schema: Schema) => leavesOf(schema).map(({ path }) => path.join("."));
    expect(paths({ a: leaf({ labels: { "0": "off" }, ...page(1) }) })).toEqual(["a"]);
    expect(paths(named)).toEqual(["labels", "when"]);
    expect(paths({ a: leaf(named) })).toEqual(["a", "a.labels", "a.when"]);
    expect(leavesOf({ a: leaf(named) })[0]!.meaning).toEqual({});
});

test("the compiler refuses members of leaves that do not exist or are of another type", () => {
    const all = {
        ...{ title: "A", description: "x", unit: "V", decimals: 1, scale: 0.5, offset: 1, min: 0, max: 1 },
        ...{ swapped: false, signed: true, float: false, readonly: false, initial: 0 },
    };
    const own: Schema = { a: leaf({ mine: 5 }) };
    defineSchema(own);
    defineSchema({
        remark: 5,
        a: { "@mac": 1, ...all, bits: [0, 4], labels: { "0": "off", 1: "on" }, warn: [null, 5], alarm: [0, null] },
        b: { "@mac": 1, when: { path: "a", is: 1 }, inside: { "@mac": 2, unit: "V" } },
    });
    // @ts-expect-error: no such member
    defineSchema({ a: { "@mac": 1, readOnly: true } });
    // @ts-expect-error: no such member, in a leaf within another
    defineSchema({ a: { "@mac": 1, b: { "@mac": 1, lables: 5 } } });
    // @ts-expect-error: a text for a number
    defineSchema({ a: { "@mac": 1, scale: "2" } });
    // @ts-expect-error: one bit too few
    defineSchema({ a: { "@mac": 1, bits: [1] } });
    // @ts-expect-error: a number for a label
    defineSchema({ a: { "@mac": 1, labels: { "0": 1 } } });
    // @ts-expect-error: a text for a number
    defineSchema({ a: { "@mac": 1, warn: [null, "5"] } });
    // @ts-expect-error: no path
    defineSchema({ a: { "@mac": 1, when: { is: 5 } } });
});

describe("values that share bytes", () => {
    const schema = {
        a: leaf({ bits: [0, 5] }),
        b: leaf({ bits: [4, 4] }),
        far: leaf({ "@skip": 4, bits: [0, 5] }),
        near: leaf({ "@format": "S", "@skip": 3, bits: [8, 5] }),
        byte: leaf({ "@cmd": 2 }),
        flag: leaf({ "@cmd": 2, bits: [7, 1] }),
        single: leaf({ "@cmd": 3, "@format": "f" }),
        whole: leaf({ "@cmd": 3, "@format": "s", "@skip": 2 }),
        sign: leaf({ "@cmd": 3, "@format": "C", "@skip": 3, bits: [7, 1] }),
        other: leaf({ "@mac": 2, bits: [0, 5] }),
    };
    const write = (values: ValueMap, reading: number) => prepareWrite(schema, values, () => reading);

    test("and differ are told at the later by name, whatever the order in which they are given", () => {
        expect(() => write({ b: 0, a: 31 }, 0)).toThrow(/^Nothing was written: b: has bits that another value/);
        expect(() => write({ a: 31, b: 0 }, 0)).toThrow(/^Nothing was written: b: has bits that another value/);
        expect(() => write({ flag: 1, byte: 1 }, 0)).toThrow(/^Nothing was written: flag: has bits that another/);
        expect(() => write({ far: 1, near: 2 }, 0)).toThrow(/^Nothing was written: near: has bits/);
    });

    test("and agree are written", () => {
        const raws = (values: ValueMap, reading: number) => write(values, reading).written.map(({ raw }) => raw);
        expect(raws({ a: 31, b: 1 }, 0)).toEqual([31, 31]);
        expect(raws({ far: 1, near: 1 }, 0x20)).toEqual([0x21, 0x120]);
        expect(raws({ single: -1.5, sign: 1 }, 0x3f)).toEqual([-1.5, 0xbf]);
        expect(raws({ whole: -2, sign: 1 }, 0x7f)).toEqual([-2, 0xff]);
    });

    test("are those of the same bytes of the same frame", () => {
        const raws = (values: ValueMap) => write(values, 0).written.map(({ raw }) => raw);
        expect(raws({ a: 31, far: 0, near: 0 })).toEqual([31, 0, 0]);
        expect(raws({ b: 15, flag: 0 })).toEqual([240, 0]);
        expect(raws({ a: 31, byte: 0 })).toEqual([31, 0]);
        expect(raws({ a: 31, other: 0 })).toEqual([31, 0]);
    });

    test("may differ where no field is", () => {
        const { written } = write({ single: -1.5, whole: -16639, sign: 1 }, 0x3f);
        expect(written.map(({ raw }) => raw)).toEqual([-1.5, -16639, 0xbf]);
        expect(() => write({ single: 1.5, sign: 1 }, 0x3f)).toThrow(/: single: has bits/);
    });
});

describe("a client", () => {
    const schema = {
        page: leaf(),
        mode: leaf({ "@cmd": 2, bits: [4, 3] }),
        low: leaf({ "@cmd": 2, bits: [0, 4] }),
        many: leaf({ "@cmd": 3, bits: [0, 4], "@flushSize": 2 }),
        two: leaf({ "@skip": 1, bits: [0, 4], ...page(2) }),
    };

    const settled = async () => {
        for (let turns = 0; turns < 20; turns++) await Promise.resolve();
    };
    const HELLO = '{"hello": {"type": ""}}';

    /** A client of a daemon that says what it is told to say, and greets everybody when it is told to. */
    function newSilentClient() {
        const sockets: (WebSocketLike & { readyState: number; sent: unknown[] })[] = [];
        const open = () => sockets.filter(({ readyState }) => readyState === 1);
        class Socket {
            readyState = 1;
            sent: unknown[] = [];
            constructor() {
                sockets.push(this as never);
            }
            send(data: unknown) {
                this.sent.push(data);
            }
            close() {
                this.readyState = 3;
            }
        }
        const options = { askAfter: Infinity, lostAfter: Infinity };
        const client = new Client("machine", { WebSocket: Socket as unknown as WebSocketConstructor, ...options });
        onTestFinished(() => client.close());
        const greet = async () => {
            for (const socket of open()) socket.onmessage?.({ data: HELLO });
            await settled();
        };
        const connect = () => {
            client.connect();
            return greet();
        };
        const breakOff = () => {
            const socket = open()[0]!;
            socket.readyState = 3;
            socket.onclose!({ code: 1006, reason: "", wasClean: false });
        };
        const sayBytes = (bytes: Uint8Array) => open()[0]!.onmessage!({ data: bytes.slice().buffer });
        const say = (values: ValueMap) => sayBytes(encodeValues(values));
        return { client, say, sayBytes, greet, connect, breakOff, open, sockets };
    }

    /** The same with a schema that the daemon has. */
    async function newClient() {
        const made = newSilentClient();
        await made.connect();
        made.client.setSchema(schema);
        await made.greet();
        expect(made.open().length).toBe(1);
        return made;
    }

    const early = { code: "no-reading" };
    const refusal = (write: () => unknown) => {
        try {
            write();
        } catch (error) {
            return (error as WriteError).problems[0];
        }
        return undefined;
    };

    test("writes a field into the last reading", async () => {
        const { client, say } = await newClient();
        expect(refusal(() => client.write({ mode: 5 }))).toMatchObject(early);
        say({ mode: 0xff });
        say({ mode: 0x8b });
        say({ page: 1 });
        expect(client.write({ mode: 5 })[0]!.raw).toBe(0xdb);
        expect(client.set("mode", 5)!.raw).toBe(0xdb);
    });

    test("takes only readings that counted", async () => {
        const { client, say } = await newClient();
        say({ page: 1, two: 0x20 });
        expect(refusal(() => client.write({ page: 2, two: 1 }))).toMatchObject(early);
        say({ page: 2, two: 0x30 });
        say({ page: 1, two: 0x40 });
        expect(client.write({ page: 2, two: 1 }).map(({ raw }) => raw)).toEqual([2, 0x31]);
    });

    test("sets a value together with what selects it", async () => {
        const { client, say } = await newClient();
        say({ page: 2, two: 0x30 });
        expect(client.set("two", 1)).toMatchObject({ value: 1, raw: 0x31 });
        expect(client.set("two", null)).toBeUndefined();
        expect(refusal(() => client.write({ two: 1 }))).toMatchObject({ code: "not-selected" });
    });

    test("takes the last of what was gathered", async () => {
        const { client, sayBytes } = await newClient();
        const many = [0x81, 0xa4, ...Buffer.from("many")];
        sayBytes(Uint8Array.from([...many, 0xd5, 18, 0x50, 0x70]));
        sayBytes(Uint8Array.from([...many, 0xc7, 0, 18])); // none
        expect(client.write({ many: 1 })[0]!.raw).toBe(0x71);
    });

    test("takes readings that it is given instead of its own", async () => {
        const { client, say } = await newClient();
        say({ mode: 0x8b });
        const readings = (path: string) => (path === "mode" ? 0 : undefined);
        expect(client.write({ mode: 5 }, { readings })[0]!.raw).toBe(0x50);
    });

    test("forgets readings when another client replaces the schema", async () => {
        vi.useFakeTimers();
        onTestFinished(() => void vi.useRealTimers());
        const { client, say } = await newClient();
        vi.advanceTimersByTime(1000);
        say({ mode: 0x8b });
        expect(client.write({ mode: 5 })[0]!.raw).toBe(0xdb);
        say({ theirs: 1 });
        expect(client.ownsSchema).toBe(false);
        expect(refusal(() => client.write({ mode: 5 }))).toMatchObject(early);
        say({ mode: 0x8b });
        expect(refusal(() => client.write({ mode: 5 }))).toMatchObject(early);
    });

    test("takes no readings of its own schema for another one", async () => {
        const { client, say } = await newClient();
        say({ mode: 0x8b });
        const other = { mode: leaf({ "@cmd": 9, bits: [0, 1] }) };
        expect(refusal(() => client.write({ mode: 1 }, { schema: other }))).toMatchObject(early);
    });

    test("forgets readings with the schema, and with the connection", async () => {
        const { client, say, connect, greet, breakOff } = await newClient();
        say({ mode: 0x8b });
        client.setSchema(schema);
        await greet();
        expect(refusal(() => client.write({ mode: 5 }))).toMatchObject(early);
        say({ mode: 0x8b });
        breakOff();
        await connect();
        expect(refusal(() => client.write({ mode: 5 }))).toMatchObject(early);
        say({ mode: 0x8b });
        expect(client.write({ mode: 5 })[0]!.raw).toBe(0xdb);
    });

    test("takes no readings before the daemon has its schema, in which others may have these names", async () => {
        const { client, say, connect, greet, breakOff, open } = newSilentClient();
        await connect();
        client.setSchema(schema);
        say({ mode: 0x8b });
        expect(refusal(() => client.write({ mode: 5 }))).toMatchObject(early);
        breakOff();
        await connect();
        expect(open()[0]!.sent).toEqual([JSON.stringify(schema)]); // nothing said that it had arrived
        say({ mode: 0x8b });
        expect(refusal(() => client.write({ mode: 5 }))).toMatchObject(early);
        await greet();
        say({ mode: 0x8b });
        expect(client.write({ mode: 5 })[0]!.raw).toBe(0xdb);
    });

    test("takes no readings before everybody was greeted, as those on their way come before that", async () => {
        const { client, say, connect, greet, sockets } = newSilentClient();
        await connect();
        client.setSchema(schema);
        sockets.at(-1)!.onmessage!({ data: HELLO });
        await settled();
        say({ mode: 0x8b });
        expect(refusal(() => client.write({ mode: 5 }))).toMatchObject(early);
        await greet();
        say({ mode: 0x8b });
        expect(client.write({ mode: 5 })[0]!.raw).toBe(0xdb);
    });

    test("takes no readings before a restarted daemon has its schema again", async () => {
        vi.useFakeTimers();
        onTestFinished(() => void vi.useRealTimers());
        const { client, say, connect, greet, breakOff, open } = await newClient();
        breakOff();
        await connect();
        vi.advanceTimersByTime(1000);
        expect(open()[0]!.sent).toEqual([JSON.stringify(schema)]);
        say({ mode: 0x8b });
        expect(refusal(() => client.write({ mode: 5 }))).toMatchObject(early);
        await greet();
        say({ mode: 0x8b });
        expect(client.write({ mode: 5 })[0]!.raw).toBe(0xdb);
    });

    test("asks nobody whether the daemon has a schema without fields of some bits", async () => {
        const { client, connect, sockets } = newSilentClient();
        await connect();
        client.setSchema({ page: leaf() });
        expect(sockets.length).toBe(1);
    });

    test("writes one field after the other, before a reading comes", async () => {
        const { client, say } = await newClient();
        say({ mode: 0x8b, low: 0x8b });
        expect(client.write({ mode: 5 })[0]!.raw).toBe(0xdb);
        expect(client.write({ low: 1 })[0]!.raw).toBe(0xd1);
        say({ mode: 0x0f, low: 0x0f });
        expect(client.write({ mode: 5 })[0]!.raw).toBe(0x5f);
    });

    test("delivers by the readings of the moment", async () => {
        const { client, say, sockets, greet } = await newClient();
        say({ mode: 0x8b, low: 0x8b });
        const mode = client.deliver({ mode: 5 });
        const low = client.deliver({ low: 1 });
        await settled();
        say({ mode: 0x84, low: 0x84 });
        const arrived = async (message: ValueMap) => {
            await greet();
            const visit = sockets.at(-1)!;
            expect(visit.sent).toEqual([encodeValues(message)]);
            visit.onclose!({ code: 1000, reason: "", wasClean: true });
            await settled();
        };
        await arrived({ mode: 0xd4 });
        expect((await mode).map(({ raw }) => raw)).toEqual([0xd4]);
        await arrived({ low: 0xd1 });
        expect((await low).map(({ raw }) => raw)).toEqual([0xd1]);
    });

    test("delivers nothing under another schema than it was meant for", async () => {
        const { client, sockets, greet } = await newClient();
        const delivery = client.deliver({ page: 1 });
        const other = client.deliver({ page: 1 }, { schema });
        await settled();
        client.setSchema({ page: leaf({ "@cmd": 9 }) });
        await greet();
        await expect(delivery).rejects.toThrow("the schema is another by now");
        await settled();
        await greet();
        expect(sockets.at(-1)!.sent).toEqual([encodeValues({ page: 1 })]);
        sockets.at(-1)!.onclose!({ code: 1000, reason: "", wasClean: true });
        expect(await other).toMatchObject([{ raw: 1 }]);
    });

    test("refuses at once what can never be delivered, whatever is on its way before", async () => {
        const { client } = await newClient();
        client.deliver({ page: 1 }).catch(() => {});
        await expect(client.deliver({ page: 256 })).rejects.toThrow(WriteError);
        client.close();
    });

    test("forgets readings where nothing says whether an order was handled", async () => {
        const { client, say, sockets, greet } = await newClient();
        say({ mode: 0x8b });
        const delivery = client.deliver({ mode: 5 });
        await settled();
        await greet();
        sockets.at(-1)!.onclose!({ code: 1006, reason: "", wasClean: false });
        await expect(delivery).rejects.toThrow(UnconfirmedError);
        expect(refusal(() => client.write({ mode: 5 }))).toMatchObject(early);
    });

    test("refuses a schema with wrong members", async () => {
        const { client } = await newClient();
        const wrong: Schema = { a: leaf({ bits: [4, 9] }) };
        expect(() => client.setSchema(wrong)).toThrow(SchemaError);
    });
});
