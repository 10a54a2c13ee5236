import { spawnSync } from "node:child_process";
import { join } from "node:path";
import { setImmediate } from "node:timers/promises";
import { describe, expect, test } from "vitest";
import { encodeValues, prepareWrite, type Schema, type ValueMap } from "../src/index.js";
import { build } from "./machine.js";

/** Scaled values on their way through the daemon's conversion, in numbers that are too large for the running daemon. */

const factors = [
    1e-6,
    2e-6,
    1e-5,
    1e-4,
    0.001,
    0.0054931640625,
    0.01,
    0.1,
    0.125,
    0.3,
    1 / 3,
    0.5,
    0.7,
    0.999,
    0.9999999,
    1.0000001,
    1.1,
    1.5,
    2,
    3,
    7,
    10,
    12.5,
    60,
    100,
    128,
    182.04,
    256,
    360,
    1000,
    1024,
    3600,
    10000,
    32768,
    1e5,
    123456.789,
    999999,
    1e6,
    -1,
    -0.1,
    -100,
];

/** A leaf for each factor, in the order of their frames. */
function schemaOf(format: string): Schema {
    return Object.fromEntries(
        factors.map((factor, at) => [nameOf(at), { "@mac": at, "@cmd": 1, "@format": format, "@factor": factor }]),
    );
}

function nameOf(at: number): string {
    return `leaf ${String(at).padStart(2, "0")}`;
}

function valuesOf(raw: number): ValueMap {
    return Object.fromEntries(factors.map((factor, at) => [nameOf(at), raw / factor]));
}

/** The payloads that messages become, one after the other, without their lengths. */
function converted(schema: Schema, messages: ValueMap[]): Buffer[] {
    const input = messages.flatMap((message) => {
        const packed = encodeValues(message);
        const length = Buffer.alloc(4);
        length.writeUInt32LE(packed.length);
        return [length, packed];
    });
    const options = { input: Buffer.concat(input), maxBuffer: 1 << 28 };
    const { stdout, status } = spawnSync(
        join(build, "clients/conformance/vorbel_converter"),
        [JSON.stringify(schema)],
        options,
    );
    expect(status).toBe(0);
    const payloads: Buffer[] = [];
    for (let at = 0; at < stdout.length; at += 1 + stdout[at]!)
        payloads.push(stdout.subarray(at + 1, at + 1 + stdout[at]!));
    return payloads;
}

/** Numbers that are the same from run to run, evenly spread over 32 bits and a sign. */
function* numbers(count: number): Generator<number> {
    let state = 1;
    for (let at = 0; at < count; at++) {
        state = (Math.imul(state, 1664525) + 1013904223) | 0;
        yield state >> (at % 24);
    }
}

/** Parts of them, between which vitest hears that this goes on: it gives up what is silent for a minute. */
async function* inParts(all: number[]): AsyncGenerator<number[]> {
    for (let at = 0; at < all.length; at += 4096) {
        yield all.slice(at, at + 4096);
        await setImmediate();
    }
}

describe.each<[string, number]>([
    ["s", 16],
    ["C", 8],
])("format %s", (format, bits) => {
    test("every raw number can be written with every factor", async () => {
        const schema = schemaOf(format);
        const all = Array.from({ length: 2 ** bits }, (_, at) => at - 2 ** (bits - 1));
        for await (const raws of inParts(all)) {
            const messages = raws.map((raw) => prepareWrite(schema, valuesOf(raw)));
            const told = messages.flatMap(({ written }) => written.map(({ raw }) => raw));
            const expected = raws.flatMap((raw) => factors.map(() => raw + 0));
            expect(told.findIndex((raw, at) => raw !== expected[at])).toBe(-1);
            const payloads = converted(
                schema,
                messages.map(({ values }) => values),
            );
            expect(payloads).toHaveLength(expected.length);
            expect(payloads.findIndex((payload, at) => payload.readIntLE(0, bits / 8) !== expected[at])).toBe(-1);
        }
    }, 240_000);
});

describe.each(["i", "f"])("format %s", (format) => {
    test("larger numbers come out as they are told, and exact up to 23 bits", () => {
        const schema = schemaOf(format);
        const raws = [...numbers(5000)];
        const messages = raws.map((raw) => prepareWrite(schema, valuesOf(raw)));
        const written = messages.flatMap((message) => message.written);
        expect(written.filter(({ nearest, raw }) => Math.abs(nearest) < 2 ** 23 && raw !== nearest)).toEqual([]);
        expect(written.filter(({ nearest, raw }) => Math.abs(raw - nearest) > Math.abs(nearest) * 2 ** -23)).toEqual(
            [],
        );
        expect(written.some(({ nearest, raw }) => raw !== nearest)).toBe(true);
        const read = (payload: Buffer) => (format === "i" ? payload.readInt32LE() : payload.readFloatLE());
        const told = written.map(({ raw }) => (format === "i" ? raw : Math.fround(raw)));
        const payloads = converted(
            schema,
            messages.map(({ values }) => values),
        ).map(read);
        expect(payloads.findIndex((payload, at) => payload !== told[at])).toBe(-1);
    }, 60_000);
});
