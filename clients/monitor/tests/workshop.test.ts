import { execFileSync } from "node:child_process";
import { join } from "node:path";
import { checkSchema, leavesOf, type Value } from "vorbel";
import { describe, expect, test } from "vitest";
import { project } from "../../js/tests/machine.js";
import { covering, framesIn, identifierText } from "../src/model/workshop/frames";
import { candidatesOf, payloadBits, textIn, valueIn, type Candidate } from "../src/model/workshop/selection";
import { interrupted } from "../src/model/workshop/interrupted";
import { heat, RECENT, Traffic, type Endpoint } from "../src/model/workshop/traffic";
import { memoryOf } from "./wire";

/** What the workshop sees of a bus, and how it reads bits; no daemon is needed for that. */

const bytes = (...values: number[]) => Uint8Array.from(values);
const asMessage = (identifier: number, ...payload: number[]): Value => ({
    [identifierText(identifier)]: Object.fromEntries(payload.map((byte, at) => [String(at), byte])),
});

describe("the schema for all frames", () => {
    test("is the one that the terminal's tool sends", () => {
        const program = "import json; from vorbel.tap import covering; print(json.dumps(covering()))";
        const options = { cwd: join(project, "clients/python"), maxBuffer: 2 ** 24 };
        expect(covering()).toEqual(JSON.parse(execFileSync("/usr/bin/python3", ["-c", program], options).toString()));
    });
    test("has nothing that is wrong or doubtful", () => expect(checkSchema(covering())).toEqual([]));
    test("has eight bytes of every node and command", () => {
        const leaves = leavesOf(covering());
        expect(leaves.length).toBe(64 * 32 * 8);
        expect(leaves.every(({ path, mac, cmd }) => path[0] === identifierText(cmd * 64 + mac))).toBe(true);
        expect(new Set(leaves.map(({ path }) => path.join("."))).size).toBe(leaves.length);
    });
});

describe("a message", () => {
    test("of one to eight bytes is a frame with these", () => {
        for (let length = 1; length <= 8; length++) {
            const payload = Array.from({ length }, (_, at) => 255 - 30 * at);
            expect(framesIn(asMessage(0x7ff, ...payload))).toEqual([{ identifier: 0x7ff, payload: bytes(...payload) }]);
        }
    });
    test("may have several frames", () => {
        const values = { ...(asMessage(0x0a5, 1) as object), ...(asMessage(0x100, 2, 3) as object) } as Value;
        const found = framesIn(values).sort((a, b) => a.identifier - b.identifier);
        expect(found).toEqual([
            { identifier: 0x0a5, payload: bytes(1) },
            { identifier: 0x100, payload: bytes(2, 3) },
        ]);
    });
    test.each<[string, Value]>([
        ["a bare value", 5],
        ["another group", { motor: { "0": 1 } }],
        ["an identifier of other letters", { "0a5": { "0": 1 } }],
        ["an identifier beyond all", { "800": { "0": 1 } }],
        ["a value in place of the bytes", { "0A5": 1 }],
        ["no byte", { "0A5": {} }],
        ["bytes without the first", { "0A5": { "1": 1 } }],
        ["a gap between bytes", { "0A5": { "0": 1, "2": 1 } }],
        ["another name beside bytes", { "0A5": { "0": 1, speed: 1 } }],
        ["nine bytes", asMessage(0x0a5, 0, 1, 2, 3, 4, 5, 6, 7, 8)],
        ["a number beyond a byte", { "0A5": { "0": 256 } }],
        ["a negative number", { "0A5": { "0": -1 } }],
        ["a fraction", { "0A5": { "0": 0.5 } }],
        ["a flag", { "0A5": { "0": true } }],
    ])("of %s is no frame", (_, values) => expect(framesIn(values)).toEqual([]));
});

describe("traffic", () => {
    const ID = 3 * 64 + 5;

    function seen(...frames: [time: number, ...payload: number[]][]): Endpoint {
        const traffic = new Traffic();
        for (const [time, ...payload] of frames) traffic.take(asMessage(ID, ...payload), time);
        return traffic.endpoints.get(ID)!;
    }

    test("has the endpoints in the order of nodes, then of commands", () => {
        const traffic = new Traffic();
        for (const identifier of [0x7ff, 0x001, 0x041, 0x000]) traffic.take(asMessage(identifier, 1), 0);
        expect(traffic.sorted.map(({ node, command }) => [node, command])).toEqual([
            [0, 0],
            [1, 0],
            [1, 1],
            [63, 31],
        ]);
        expect(traffic.frames).toBe(4);
    });
    test("counts frames, and knows their lengths and the last one", () => {
        const endpoint = seen([0, 1, 2], [1, 3], [2, 4, 5]);
        expect([endpoint.identifier, endpoint.node, endpoint.command]).toEqual([ID, 5, 3]);
        expect(endpoint.count).toBe(3);
        expect([...endpoint.lengths]).toEqual([2, 1]);
        expect(endpoint.payload).toEqual(bytes(4, 5));
    });
    test("knows the bounds of each byte, also of one that was always the same", () => {
        const { low, high } = seen([0, 7, 200], [1, 9, 200], [2, 8]);
        expect([...low.subarray(0, 2)]).toEqual([7, 200]);
        expect([...high.subarray(0, 2)]).toEqual([9, 200]);
    });
    test("knows when which byte changed, and which of its bits ever did; the first frame changes nothing", () => {
        const first = seen([10, 0xff, 0xff]);
        expect([...first.changedAt]).toEqual(new Array(8).fill(-Infinity));
        expect([...first.changedBits]).toEqual(new Array(8).fill(0));
        const endpoint = seen([10, 0x00, 0x10], [20, 0x01, 0x10], [30, 0x03, 0x10], [40, 0x03, 0x10]);
        expect([...endpoint.changedAt.subarray(0, 2)]).toEqual([30, -Infinity]);
        expect([...endpoint.changedBits.subarray(0, 2)]).toEqual([0x03, 0]);
    });
    test("takes no change of the length for a change of a byte", () => {
        const same = seen([10, 1, 2], [20, 1], [30, 1, 2], [40, 1, 2, 3]);
        expect([...same.changedAt]).toEqual(new Array(8).fill(-Infinity));
        const other = seen([10, 1, 2], [20, 1], [30, 1, 6]);
        expect([...other.changedAt.subarray(0, 2)]).toEqual([-Infinity, 30]);
        expect(other.changedBits[1]).toBe(4);
    });
    test("has the last frames with their times, and not more than fit", () => {
        const traffic = new Traffic();
        for (let at = 0; at < RECENT + 10; at++) traffic.take(asMessage(ID, at & 0xff, at >> 8), 2 * at);
        const { recent } = traffic.endpoints.get(ID)!;
        expect(recent.length).toBe(RECENT);
        const all = Array.from({ length: RECENT }, (_, at) => [recent.timeAt(at), ...recent.payloadAt(at)]);
        expect(all).toEqual(all.map((_, at) => [2 * (at + 10), (at + 10) & 0xff, (at + 10) >> 8]));
    });
    test("has as many bytes of a former frame as it had", () => {
        const { recent } = seen([0, 1, 2, 3], [1, 4]);
        expect([recent.length, recent.payloadAt(0), recent.payloadAt(1)]).toEqual([2, bytes(1, 2, 3), bytes(4)]);
        const traffic = new Traffic();
        for (let at = 0; at < RECENT; at++) traffic.take(asMessage(ID, 1, 2, 3, 4, 5, 6, 7, 8), at);
        traffic.take(asMessage(ID, 9), RECENT);
        expect(traffic.endpoints.get(ID)!.recent.payloadAt(RECENT - 1)).toEqual(bytes(9));
    });
    test("has a rate over the last two seconds", () => {
        const every = (period: number, count: number, from = 0) =>
            Array.from({ length: count }, (_, at): [number, number] => [from + at * period, 0]);
        expect(seen([0, 1]).rate(0)).toBe(0);
        expect(seen(...every(10, 500)).rate(4990)).toBeCloseTo(100, 6);
        expect(seen(...every(10, 500), ...every(100, 40, 5000)).rate(8900)).toBeCloseTo(10, 0);
        expect(seen(...every(10, 500)).rate(60_000)).toBeLessThan(4);
    });
    test("costs the same for the millionth frame as for the first", () => {
        const traffic = new Traffic();
        const message = asMessage(ID, 1, 2, 3, 4, 5, 6, 7, 8);
        const spent = Array.from({ length: 20 }, (_, turn) => {
            const begin = performance.now();
            for (let at = 0; at < 20_000; at++) traffic.take(message, turn * 20_000 + at);
            return performance.now() - begin;
        });
        const least = (times: number[]) => Math.min(...times);
        expect(least(spent.slice(10))).toBeLessThan(3 * least(spent.slice(0, 10)));
    });
    test.each([
        [0, 1],
        [1500, 0.5],
        [3000, 0],
        [10_000, 0],
        [-5, 1],
    ])("is, %d ms after a change, as warm as %d", (age, warmth) => {
        const endpoint = seen([0, 1, 1], [1000, 2, 1]);
        expect(heat(endpoint, 0, 1000 + age)).toBe(warmth);
        expect(heat(endpoint, 1, 1000 + age)).toBe(0);
    });
});

describe("bits of frames", () => {
    const ID = 2 * 64 + 5;
    const found = (first: number, last: number, length?: number) =>
        candidatesOf({ identifier: ID, first, last }, length);
    const byName = (candidates: Candidate[]) => Object.fromEntries(candidates.map(({ name, leaf }) => [name, leaf]));
    const at = { "@mac": 5, "@cmd": 2 };

    test.each<[string, number, number, Record<string, object>]>([
        [
            "one byte",
            8,
            15,
            {
                unsigned: { ...at, "@format": "C", "@skip": 1 },
                signed: { ...at, "@format": "C", "@skip": 1, signed: true },
            },
        ],
        [
            "two bytes",
            16,
            31,
            {
                "unsigned, low byte first": { ...at, "@format": "S", "@skip": 2 },
                "signed, low byte first": { ...at, "@format": "s", "@skip": 2 },
                "unsigned, high byte first": { ...at, "@format": "S", "@skip": 2, swapped: true },
                "signed, high byte first": { ...at, "@format": "S", "@skip": 2, swapped: true, signed: true },
            },
        ],
        [
            "three bytes, with the one before",
            40,
            63,
            {
                "unsigned, low byte first": { ...at, "@format": "I", "@skip": 4, bits: [8, 24] },
                "signed, low byte first": { ...at, "@format": "I", "@skip": 4, bits: [8, 24], signed: true },
                "unsigned, high byte first": { ...at, "@format": "I", "@skip": 4, bits: [0, 24], swapped: true },
                "signed, high byte first": {
                    ...at,
                    "@format": "I",
                    "@skip": 4,
                    bits: [0, 24],
                    swapped: true,
                    signed: true,
                },
            },
        ],
        [
            "the first three bytes, with the one behind",
            0,
            23,
            {
                "unsigned, low byte first": { ...at, "@format": "I", "@skip": 0, bits: [0, 24] },
                "signed, low byte first": { ...at, "@format": "I", "@skip": 0, bits: [0, 24], signed: true },
                "unsigned, high byte first": { ...at, "@format": "I", "@skip": 0, bits: [8, 24], swapped: true },
                "signed, high byte first": {
                    ...at,
                    "@format": "I",
                    "@skip": 0,
                    bits: [8, 24],
                    swapped: true,
                    signed: true,
                },
            },
        ],
        [
            "four bytes",
            32,
            63,
            {
                "unsigned, low byte first": { ...at, "@format": "I", "@skip": 4 },
                "signed, low byte first": { ...at, "@format": "i", "@skip": 4 },
                "single precision, low byte first": { ...at, "@format": "f", "@skip": 4 },
                "unsigned, high byte first": { ...at, "@format": "I", "@skip": 4, swapped: true },
                "signed, high byte first": { ...at, "@format": "I", "@skip": 4, swapped: true, signed: true },
                "single precision, high byte first": { ...at, "@format": "I", "@skip": 4, swapped: true, float: true },
            },
        ],
        ["one bit", 19, 19, { flag: { ...at, "@format": "C", "@skip": 2, bits: [3, 1] } }],
        [
            "some bits of a byte",
            26,
            28,
            {
                unsigned: { ...at, "@format": "C", "@skip": 3, bits: [2, 3] },
                signed: { ...at, "@format": "C", "@skip": 3, bits: [2, 3], signed: true },
            },
        ],
        [
            "some bits of two bytes",
            0,
            11,
            {
                "unsigned, low byte first": { ...at, "@format": "S", "@skip": 0, bits: [0, 12] },
                "signed, low byte first": { ...at, "@format": "S", "@skip": 0, bits: [0, 12], signed: true },
                "unsigned, high byte first": { ...at, "@format": "S", "@skip": 0, bits: [4, 12], swapped: true },
                "signed, high byte first": {
                    ...at,
                    "@format": "S",
                    "@skip": 0,
                    bits: [4, 12],
                    swapped: true,
                    signed: true,
                },
            },
        ],
    ])("are read, of %s, in all ways that there are", (_, first, last, expected) => {
        expect(byName(found(first, last))).toEqual(expected);
    });
    test("have names and keys that tell them apart, and readings without a problem", () => {
        for (const { first, last } of selections()) {
            const candidates = found(first, last);
            expect(new Set(candidates.map(({ key }) => key)).size).toBe(candidates.length);
            expect(new Set(candidates.map(({ name }) => name)).size).toBe(candidates.length);
            for (const { leaf } of candidates) expect(checkSchema({ leaf })).toEqual([]);
        }
    });
    test.each([
        ["of more than four bytes", 7, 40, 8],
        ["that end before they begin", 9, 8, 8],
        ["before the first", -8, -1, 8],
        ["beyond the frame", 56, 64, 8],
        ["beyond a shorter frame", 8, 15, 1],
        ["of three bytes where there is no fourth", 0, 23, 3],
    ])("%s have no reading", (_, first, last, length) => expect(found(first, last, length)).toEqual([]));
    test("of three bytes are read from a frame that has a fourth, wherever it is", () => {
        expect(found(8, 31, 4)[0]!.leaf).toMatchObject({ "@skip": 0, bits: [8, 24] });
        expect(found(0, 23, 4)[0]!.leaf).toMatchObject({ "@skip": 0, bits: [0, 24] });
    });
    test("are those that were chosen; with the high byte first as many of each byte", () => {
        for (const { first, last } of selections()) {
            const chosen = Array.from({ length: last - first + 1 }, (_, at) => first + at);
            for (const { leaf } of found(first, last)) {
                const bits = payloadBits(leaf);
                const counts = (of: number[]) =>
                    Array.from({ length: 8 }, (_, k) => of.filter((b) => b >> 3 === k).length);
                expect(counts(bits)).toEqual(counts(chosen));
                if (!leaf["swapped"]) expect(bits).toEqual(chosen);
            }
        }
        expect(payloadBits(found(0, 11)[2]!.leaf)).toEqual([0, 1, 2, 3, 4, 5, 6, 7, 12, 13, 14, 15]);
        expect(payloadBits(found(4, 15)[2]!.leaf)).toEqual([0, 1, 2, 3, 8, 9, 10, 11, 12, 13, 14, 15]);
        expect(payloadBits({ ...at })).toEqual([]);
    });

    test("mean numbers", () => {
        const payload = bytes(0x12, 0x34, 0xff, 0x80, 0x00, 0x00, 0x20, 0xc1);
        const meant = (first: number, last: number) => found(first, last).map(({ leaf }) => valueIn(leaf, payload));
        expect(meant(16, 23)).toEqual([255, -1]);
        expect(meant(0, 15)).toEqual([0x3412, 0x3412, 0x1234, 0x1234]);
        expect(meant(16, 31)).toEqual([0x80ff, 0x80ff - 0x10000, 0xff80, -0x80]);
        expect(meant(0, 11)).toEqual([0x412, 0x412, 0x123, 0x123]);
        expect(meant(8, 31)).toEqual([0x80ff34, 0x80ff34 - 0x1000000, 0x34ff80, 0x34ff80]);
        expect(meant(32, 63)[2]).toBe(-10);
        expect(meant(31, 31)).toEqual([1]);
        expect(meant(30, 30)).toEqual([0]);
    });
    test("of bytes in a larger buffer are those bytes", () => {
        const payload = bytes(9, 9, 9, 0x34, 0x12).subarray(3);
        expect(valueIn({ ...at, "@format": "S" }, payload)).toBe(0x1234);
        expect(valueIn({ ...at, "@format": "I" }, payload)).toBeUndefined();
    });
    test("are read as people do: with scale, decimals, unit and labels", () => {
        const leaf = { ...at, "@format": "C", scale: 0.5, offset: -40, unit: "°C", decimals: 1 };
        expect([textIn(leaf, bytes(100)), valueIn(leaf, bytes(100))]).toEqual(["10.0 °C", 10]);
        const labelled = { ...at, "@format": "C", bits: [0, 1], labels: { "1": "on" } };
        expect([textIn(labelled, bytes(3)), textIn(labelled, bytes(2))]).toEqual(["on", "0"]);
    });
    test("are not there in frames that are too short, nor where nothing is read", () => {
        expect([textIn({ ...at, "@format": "S" }, bytes(1)), valueIn({ ...at, "@format": "S" }, bytes(1))]).toEqual([
            "–",
            undefined,
        ]);
        expect(valueIn({ ...at, "@format": "p" }, bytes(1))).toBeUndefined();
        expect(valueIn({ ...at }, bytes(1))).toBeUndefined();
        expect([valueIn({ unit: "V" }, bytes(1)), textIn({ unit: "V" }, bytes(1))]).toEqual([undefined, "–"]);
    });
});

/** All ways to choose bits that lie within four bytes. */
function selections(): { first: number; last: number }[] {
    return Array.from({ length: 64 }, (_, first) => first).flatMap((first) =>
        Array.from({ length: 64 - first }, (_, more) => ({ first, last: first + more })).filter(
            ({ last }) => (last >> 3) - (first >> 3) < 4,
        ),
    );
}

describe("the record of a workshop that was not left", () => {
    const mine = { mine: { "@mac": 5, "@cmd": 2, "@format": "s" } };
    const record = { workshop: JSON.stringify({ address: "ws://plant", schema: mine }) };

    test("is none while its page is there, which says so", () => {
        const after = (seconds: number) => String(Date.now() - 1000 * seconds);
        const at = (sign: string) => interrupted(memoryOf({ ...record, "workshop.alive": sign }))?.schema;
        expect([at(after(60)), at(after(91)), at("")]).toEqual([undefined, mine, mine]);
    });

    test.each(["", "{", "[]", "null", '{"schema": {}}', '{"address": "a", "schema": []}', '{"address": 5}'])(
        "is not taken from %j",
        (text) => expect(interrupted(memoryOf({ workshop: text }))).toBeUndefined(),
    );
});
