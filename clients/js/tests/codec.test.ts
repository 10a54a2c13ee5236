import { describe, expect, test } from "vitest";
import { decodeValues, encodeValues, flatten, nest, type Value, type ValueMap } from "../src/index.js";

const bytes = (hex: string) => Uint8Array.from(hex.split(" "), (byte) => parseInt(byte, 16));
const hex = (data: Uint8Array) => Array.from(data, (byte) => byte.toString(16).padStart(2, "0")).join(" ");

describe("typed arrays", () => {
    test.each([
        ["signed bytes", "c7 03 11 ff 00 7f", Int8Array.of(-1, 0, 127)],
        ["unsigned bytes", "d4 12 ff", Uint8Array.of(255)],
        ["signed 16-bit", "d6 13 ff ff 02 00", Int16Array.of(-1, 2)],
        ["unsigned 16-bit", "d6 14 01 00 01 02", Uint16Array.of(1, 513)],
        ["signed 32-bit", "d6 15 fe ff ff ff", Int32Array.of(-2)],
        ["unsigned 32-bit", "d6 16 ff ff ff ff", Uint32Array.of(4294967295)],
        ["single precision", "d6 17 00 00 80 3f", Float32Array.of(1)],
        ["an empty one", "c7 00 15", new Int32Array()],
    ])("%s", (_, message, array) => expect(decodeValues(bytes(message))).toStrictEqual(array));

    test("at an odd offset of the message", () => {
        expect(decodeValues(bytes("82 a1 61 d6 14 01 00 01 02 a1 62 05"))).toEqual({ a: Uint16Array.of(1, 513), b: 5 });
    });

    test("outlive the message's buffer", () => {
        const message = bytes("d6 14 01 00 01 02");
        const array = decodeValues(message);
        message.fill(0);
        expect(array).toEqual(Uint16Array.of(1, 513));
    });

    test("of a length that does not fit the width", () => {
        expect(() => decodeValues(bytes("c7 03 13 01 02 03"))).toThrow("type 19 holds 3 bytes, not a multiple of 2");
    });

    test("are not written", () => {
        expect(() => encodeValues({ a: Int16Array.of(1) })).toThrow("takes no typed arrays, and a Int16Array");
    });
});

describe("numbers on the wire", () => {
    test.each<[string, Value, string]>([
        ["a small whole number", 5, "05"],
        ["a negative whole number", -33, "d0 df"],
        ["32 bits", 4294967295, "ce ff ff ff ff"],
        ["a whole number beyond 32 bits", 2 ** 32, "cb 41 f0 00 00 00 00 00 00"],
        ["a fraction", 0.5, "cb 3f e0 00 00 00 00 00 00"],
        ["a bigint", 1n, "cf 00 00 00 00 00 00 00 01"],
        ["a truth", true, "c3"],
        ["nothing", null, "c0"],
        ["bytes", Uint8Array.of(1, 2), "c4 02 01 02"],
        ["a text", "ä", "a2 c3 a4"],
        ["a list", [1, -1], "92 01 ff"],
    ])("%s", (_, value, message) => expect(hex(encodeValues({ a: value }))).toBe(`81 a1 61 ${message}`));

    test.each<[string, string, Value]>([
        ["unsigned 64-bit", "cf ff ff ff ff ff ff ff ff", 18446744073709551615n],
        ["signed 64-bit", "d3 ff ff ff ff ff ff ff ff", -1n],
        ["single precision", "ca 3f 80 00 00", 1],
        ["unsigned 32-bit", "ce ff ff ff ff", 4294967295],
    ])("%s arrives", (_, message, value) => expect(decodeValues(bytes(message))).toBe(value));
});

describe("names that objects have already", () => {
    const proto = "5f 5f 70 72 6f 74 6f 5f 5f";
    test.each([
        ["a number", `81 a9 ${proto} 05`, '{"__proto__":5}'],
        ["a name of the long form", `81 d9 09 ${proto} 05`, '{"__proto__":5}'],
        ["a map", `82 a1 61 01 a9 ${proto} 81 a9 ${proto} 02`, '{"a":1,"__proto__":{"__proto__":2}}'],
        ["in a list", `91 81 a9 ${proto} c3`, '[{"__proto__":true}]'],
        ["others", "81 ab 63 6f 6e 73 74 72 75 63 74 6f 72 07", '{"constructor":7}'],
    ])("are names like any other: %s", (_, message, json) => {
        const values = decodeValues(bytes(message));
        expect(JSON.stringify(values)).toBe(json);
        expect(decodeValues(encodeValues(values as ValueMap))).toEqual(values);
        expect(Object.getPrototypeOf(values)).toBe(Array.isArray(values) ? Array.prototype : Object.prototype);
    });
    test("keep arrays", () => {
        const values = decodeValues(bytes(`81 a9 ${proto} d6 14 01 00 01 02`));
        expect([...flatten(values)]).toEqual([["__proto__", Uint16Array.of(1, 513)]]);
    });
});

describe("undecodable messages", () => {
    test.each([
        ["a name without its value at the end", "81 a1 61"],
        ["a name without its value in between", "82 a1 61 a1 62 01"],
        ["a name without its value in a nested map", "82 a1 6d 81 a1 61 a1 7a 01"],
        ["an empty message", ""],
        ["a second value", "01 02"],
    ])("%s", (_, message) => expect(() => decodeValues(message ? bytes(message) : new Uint8Array())).toThrow());
});

describe("paths", () => {
    test("flatten joins names by dots and keeps arrays whole", () => {
        const array = Float32Array.of(1);
        expect([...flatten({ motor: { speed: 5, phases: array }, door: { open: true } })]).toEqual([
            ["motor.speed", 5],
            ["motor.phases", array],
            ["door.open", true],
        ]);
    });

    test("a leaf at the root has the empty path", () => expect([...flatten(7)]).toEqual([["", 7]]));
    test("an empty map holds no values", () => expect([...flatten({ motor: {} })]).toEqual([]));
    test("nest", () => expect(nest(["motor", "setpoint"], 5)).toEqual({ motor: { setpoint: 5 } }));
    test("are written as deep as schemas can be", () => {
        const path = Array.from({ length: 1024 }, () => "a");
        expect(encodeValues(nest(path, 5))).toHaveLength(3 * 1024 + 1);
    });
    test("nothing is nested at the root", () => expect(() => nest([], 5)).toThrow(RangeError));
});
