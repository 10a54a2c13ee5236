import { describe, expect, test } from "vitest";
import {
    assertSchema,
    checkSchema,
    Client,
    defineSchema,
    describeProblem,
    describeWritten,
    leavesOf,
    parseJson,
    parseSchema,
    prepareLeaf,
    prepareWrite,
    readOnlyReason,
    SchemaError,
    writableRange,
    WriteError,
    type Schema,
    type ValueMap,
} from "../src/index.js";

const leaf = (options: object = {}) => ({ "@mac": 5, "@cmd": 2, "@format": "s", ...options });
const told = (schema: unknown) =>
    checkSchema(schema).map((problem) => `${problem.severity}: ${describeProblem(problem)}`);
const motor = (options: object) => told({ motor: { speed: leaf(options) } });

test("what is nested too deep to be quoted is refused all the same", () => {
    const lists = JSON.parse("[".repeat(100_000) + "]".repeat(100_000));
    expect(told(lists)).toEqual([
        "error: the document: must be an object, not what is nested too deep: all leaves would be lost",
    ]);
    expect(motor({ "@skip": lists })).toEqual([
        'error: motor.speed: "@skip" must be a whole number, not what is nested too deep',
    ]);
});

describe("refused, with the path", () => {
    test.each<[string, object, string]>([
        ["an unknown option", { "@fromat": "s" }, `"@fromat" is no option; did you mean "@format"?`],
        ["an option in other letters", { "@flushsize": 4 }, `"@flushsize" is no option; did you mean "@flushSize"?`],
        ["a text for a number", { "@factor": "0.1" }, `"@factor" must be a number, not "0.1"`],
        ["a number for a text", { "@format": 5 }, `"@format" must be a text, not 5`],
        ["a fraction for a whole number", { "@skip": 1.5 }, `"@skip" must be a whole number, not 1.5`],
        ["a number for a truth", { "@asBool": 1 }, `"@asBool" must be true or false, not 1`],
        ["null", { "@mask": null }, `"@mask" must be a whole number, not null`],
        ["an object", { "@skip": {} }, `"@skip" must be a whole number, not {}`],
        [
            "an address that no frame has",
            { "@mac": 64 },
            `"@mac" is 64, outside 0 to 63: no frame carries such an address`,
        ],
        [
            "a command that no frame has",
            { "@cmd": 32 },
            `"@cmd" is 32, outside 0 to 31: no frame carries such a command`,
        ],
        [
            "a negative flush size",
            { "@flushSize": -1 },
            `"@flushSize" is -1, outside 0 to 2147483647: such a leaf never has a value`,
        ],
        [
            "a mask of more than 32 bits",
            { "@mask": 4294967296 },
            `"@mask" is 4294967296, outside -2147483648 to 4294967295: it must fit 32 bits`,
        ],
        ["the factor 0", { "@factor": 0 }, `"@factor" is 0: readings are divided by it in single precision`],
        [
            "an unknown format",
            { "@format": "x" },
            `"@format" "x" is unknown, so the leaf never has a value; known are C, c, S, s, Q, q, I, i, f, p`,
        ],
        ["a leaf that leaves every frame", { "@format": "i", "@skip": 61 }, "ends at byte 64: no frame is that long"],
        [
            "an array that cannot be sent",
            { "@format": "c", "@flushSize": 4 },
            `arrays of format "c" make every message undecodable, for all clients; "C" reads the same bytes`,
        ],
    ])("%s", (_, options, message) => expect(motor(options)).toEqual([`error: motor.speed: ${message}`]));

    test.each<[string, object, string]>([
        ["a member of another type", { unit: 5 }, '"unit" is 5: it must be a text'],
        [
            "labels of no fields",
            { labels: { on: "1" } },
            '"labels" is {"on":"1"}: it must be a map from whole numbers, as texts, to texts',
        ],
        ["too many decimals", { decimals: 16 }, '"decimals" is 16: it must be from 0 to 15'],
        ["bits that are not there", { bits: [16, 1] }, '"bits" is [16,1]: the reading has the bits 0 to 15'],
        ["the scale 0", { scale: 0 }, '"scale" is 0: all fields would mean the same'],
        ["bounds the wrong way round", { min: 2, max: 1 }, '"min" is above "max": 2 and 1'],
        ["limits the wrong way round", { alarm: [2, 1] }, 'the low end of "alarm" is above the high one: 2 and 1'],
        [
            "bits of what is scaled",
            { "@factor": 2, bits: [0, 1], signed: true },
            '"bits", "signed" needs whole numbers for readings, without a factor and "@asBool"',
        ],
        ["a float in two bytes", { float: true }, '"float" needs 4 bytes, the format "s" has 2'],
        [
            "one label twice",
            { labels: { "0": "a", "2": "b", "1": "b", "3": "b" } },
            '"b" in "labels" stands for several fields',
        ],
        ["a selector that is not there", { when: { path: "x", is: 1 } }, '"when" names "x", which is no leaf'],
        ["a selector that is the leaf", { when: { path: "motor.speed", is: 1 } }, '"when" leads back to motor.speed'],
    ])("%s", (_, options, message) => expect(motor(options)).toEqual([`error: motor.speed: ${message}`]));

    test.each<[string, object, string]>([
        ["elsewhere", { "@mac": 6 }, "is read from other frames"],
        ["seldom there", { "@observe": true }, "is not in every message"],
    ])("a selector that is %s", (_, options, why) => {
        const selector = leaf({ "@skip": 4, ...options });
        expect(told({ a: leaf({ when: { path: "b", is: 1 } }), b: selector })).toEqual([
            `error: a: "when" names b, which ${why}`,
        ]);
    });

    test.each<[string, object, string]>([
        ["a leaf without a format", { "@mac": 1, "@cmd": 2 }, `has no "@format", so it never has a value`],
        [
            "options without an address",
            { "@cmd": 1, "@format": "s" },
            `has "@cmd", "@format" but no "@mac": it is no leaf without one`,
        ],
        [
            "a leaf without any sign",
            { mac: 1, cmd: 1, format: "s" },
            `has "mac", "cmd", "format" but no "@mac": the names of options begin with "@"`,
        ],
    ])("%s", (_, a, message) => expect(told({ a, b: leaf() })).toEqual([`error: a: ${message}`]));

    test("a document without leaves", () => {
        expect(told({ a: {} })).toEqual([
            `error: the document: has no leaf, that is, no object with "@mac": all values would be lost`,
        ]);
    });

    test.each<[string, unknown, string]>([
        ["a list", [leaf()], `must be an object, not [{"@mac":5,"@cmd":2,"@format":"s"}]: all leaves would be lost`],
        ["null", null, "must be an object, not null: all leaves would be lost"],
    ])("a document that is %s", (_, document, message) => {
        expect(told(document)).toEqual([`error: the document: ${message}`]);
    });
});

describe("doubtful, with the path", () => {
    test.each<[string, object, string]>([
        [
            "a leaf that leaves the frame",
            { "@format": "i", "@skip": 5 },
            `ends at byte 8: it is read from CAN FD frames only, and not written without "@fragmentation"`,
        ],
        [
            "a packed leaf",
            { "@format": "p", "@fragmentation": true },
            `format "p" is only for writing: the leaf never has a value`,
        ],
        [
            "observing an array",
            { "@observe": true, "@flushSize": 4 },
            `"@observe" is ignored, because "@flushSize" is set`,
        ],
        [
            "a mask that masks nothing",
            { "@format": "q", "@mask": 1 },
            `"@mask" has no effect on format "q" but makes the leaf read-only`,
        ],
        ["a long format", { "@format": "short" }, `only the first character of "@format" counts: "s"`],
        ["an option without its sign", { mask: 1 }, `"mask" is ignored; did you mean "@mask"?`],
        ["a byte swapped", { "@format": "C", swapped: true }, '"swapped" has no effect on a single byte'],
        [
            "an initial reading of a whole",
            { initial: 5 },
            '"initial" has no effect without "bits" that leave others over',
        ],
        [
            "a leaf inside a leaf",
            { inner: leaf({ "@cmd": 3 }) },
            "holds objects inside of a leaf: their values and its own replace one another",
        ],
    ])("%s", (_, options, message) => expect(motor(options)).toEqual([`warning: motor.speed: ${message}`]));

    test("a leaf without a command", () => {
        expect(told({ a: { "@mac": 1, "@format": "s" } })).toEqual([`warning: a: has no "@cmd", which counts as 0`]);
    });

    test("overlaps, asking each leaf as much however many are in its frames", () => {
        let asked = 0;
        const whenIs = (is: number) => ({
            path: "page",
            get is() {
                asked++;
                return is;
            },
        });
        const askedFor = (count: number) => {
            asked = 0;
            const place = { "@mac": 5, "@cmd": 2, "@format": "C" };
            const selected = Array.from({ length: count }, (_, at) => [
                `v${at}`,
                { ...place, "@skip": 1, when: whenIs(at) },
            ]);
            expect(checkSchema({ page: { ...place, "@skip": 0 }, ...Object.fromEntries(selected) })).toEqual([]);
            return asked;
        };
        expect(askedFor(800) / askedFor(100)).toBeLessThan(8.2);
    });

    test("two writable leaves on overlapping bytes", () => {
        expect(told({ motor: { speed: leaf({ "@skip": 1 }), current: leaf() } })).toEqual([
            "warning: motor.speed: overlaps motor.current at byte 1 of mac 5, cmd 2: written together, one destroys the other",
        ]);
        expect(told({ a: leaf({ "@format": "i" }), b: leaf({ "@format": "f" }) })).toEqual([
            "warning: b: overlaps a at bytes 0 to 3 of mac 5, cmd 2: written together, one destroys the other",
        ]);
    });

    test("a read-only leaf on another's bytes", () => {
        expect(told({ a: leaf(), b: leaf({ "@asBool": true }) })).toEqual([
            "warning: b: overlaps a at bytes 0 to 1 of mac 5, cmd 2",
        ]);
    });

    test("frames that are to be cut and not to be cut", () => {
        expect(told({ a: leaf(), b: leaf({ "@skip": 2, "@fragmentation": true }) })[0]).toMatch(
            /^warning: b: "@fragmentation" differs from a's/,
        );
    });

    test("is sent all the same", () => expect(() => assertSchema({ a: leaf({ mask: 1 }) })).not.toThrow());
});

test("thousands of leaves on one byte are told once each", () => {
    const crowd = Object.fromEntries(Array.from({ length: 5000 }, (_, at) => [`leaf${at}`, leaf()]));
    expect(told(crowd)).toHaveLength(4999);
});

test("clearing is asked for", () => {
    expect(() => assertSchema({})).toThrow(SchemaError);
    expect(() => assertSchema({}, { clear: true })).not.toThrow();
});

test("JSON that is none is a schema's error", () => {
    expect(() => parseSchema('{"a": }')).toThrow(SchemaError);
    expect(() => parseSchema('{"a": }')).toThrow(/the document: is no JSON/);
});

test("a name that occurs twice in one object is an error", () => {
    const text = `{"motor": {"speed": ${JSON.stringify(leaf())}, "a": [{"x": "}"}], "sp\\u0065ed": {}}, "speed": 1}`;
    expect(() => parseSchema(text)).toThrow(/\nmotor\.speed: is there twice; only the last one would count\n/);
    expect(() => parseJson(text)).toThrow(/\nmotor\.speed: is there twice; only the last one would count$/);
    expect(
        parseSchema(text.replace("u0065", "u0066").replace("{}}", '{}, "x": ' + JSON.stringify(leaf()) + "}")),
    ).toHaveProperty("motor");
});

test("leaves come by name, with the daemon's defaults", () => {
    const defaults = {
        skip: 0,
        flushSize: 0,
        factor: 1,
        mask: -1,
        asBool: false,
        observe: false,
        fragmentation: false,
        meaning: {},
    };
    expect(leavesOf({ b: leaf(), a: { x: { "@mac": 1, "@format": "float" } } })).toEqual([
        {
            path: ["a", "x"],
            mac: 1,
            cmd: 0,
            format: "f",
            ...defaults,
        },
        {
            path: ["b"],
            mac: 5,
            cmd: 2,
            format: "s",
            ...defaults,
        },
    ]);
});

describe("what was written", () => {
    const schema = {
        s: leaf(),
        volt: leaf({ "@factor": 100 }),
        f: leaf({ "@format": "f" }),
        i: leaf({ "@format": "i", "@factor": 1000 }),
        wide: leaf({ "@format": "I" }),
        state: leaf({ labels: { "0": "off", "1": "on" } }),
        speed: leaf({ "@cmd": 3, min: 0, max: 3000 }),
        least: leaf({ "@cmd": 3, min: 0.5 }),
        celsius: leaf({ "@format": "C", offset: -40, scale: 0.5 }),
        half: leaf({ "@format": "I", float: true, swapped: true, scale: 0.5 }),
        mode: leaf({ "@format": "C", "@cmd": 4, bits: [4, 3] }),
        paged: leaf({ "@cmd": 5, when: { path: "page", is: 1 } }),
    };
    const told = (values: ValueMap) => prepareWrite(schema, values).written.map(describeWritten);

    test.each<[ValueMap, string]>([
        [{ s: 1200 }, "raw 1200"],
        [{ s: 1.6 }, "raw 2, which is 2"],
        [{ s: 5n }, "raw 5"],
        [{ volt: 0.53 }, "raw 53"],
        [{ volt: 0.534 }, "raw 53, which is 0.53"],
        [{ f: 0.1 }, "raw 0.1"],
        [{ f: 16777217 }, "raw 16777216, which is 16777216"],
        [
            { i: 2000000.001 },
            "raw 2000000000, which is 2000000 instead of 2000000001, which the daemon's single precision does not reach",
        ],
        [{ wide: 123456792.4 }, "raw 123456792, which is 123456792"],
        [{ state: "on" }, "raw 1"],
        [{ celsius: 0.1 }, "raw 80, which is 0"],
        [{ half: 0.05 }, "raw 3452750909"],
        [{ half: 1 / 3 }, "raw 2880055871, which is 0.33333335"],
    ])("%o", (values, text) => expect(told(values)).toEqual([text]));

    test.each<[ValueMap, string]>([
        [{ s: 65536 }, "Nothing was written: s: 65536 is outside of -32768 to 65535"],
        [
            { volt: 400 },
            "Nothing was written: volt: 400 times the factor 100 is 40000, which is outside of -32768 to 32767",
        ],
        [{ celsius: -41 }, "Nothing was written: celsius: -41 is the field -2, which is outside of 0 to 255"],
        [{ half: 2e38 }, "Nothing was written: half: 2e+38 is the field 4e+38, which is outside of single precision"],
        [{ state: "On" }, 'Nothing was written: state: has no label "On": there are "off", "on"'],
        [{ speed: -1 }, "Nothing was written: speed: takes at least 0 and at most 3000, not -1"],
        [{ least: 0 }, "Nothing was written: least: takes at least 0.5, not 0"],
        [
            { mode: 1 },
            'Nothing was written: mode: shares its bytes with other bits, and no reading of these came yet; "initial" would say what they are',
        ],
        [{ paged: 1 }, "Nothing was written: paged: counts only where page is 1: write that with it"],
        [{ f: 1e39 }, "Nothing was written: f: 1e+39 is outside of single precision"],
        [{ s: "5" }, `Nothing was written: s: takes a number, not "5"`],
        [
            { s: Uint8Array.of(1), t: 1 },
            `Nothing was written: s: takes a number, not {"0":1}; t: does not exist in the schema`,
        ],
    ])("refused: %o", (values, text) => expect(() => told(values)).toThrow(text));

    test("one leaf is prepared by itself, or refused", () => {
        const [volt] = leavesOf({ volt: schema.volt });
        expect(prepareLeaf(volt!, 0.53).written!.raw).toBe(53);
        expect(() => prepareLeaf(volt!, "x")).toThrow(WriteError);
    });

    test("one leaf is prepared by itself, as a part of its reading", () => {
        const [mode] = leavesOf({ mode: schema.mode });
        expect(() => prepareLeaf(mode!, 5)).toThrow(/no reading of these/);
        expect(prepareLeaf(mode!, 5, (path) => (path === "mode" ? 0x8b : undefined)).sent).toBe(0xdb);
        const [paged] = leavesOf({ paged: schema.paged });
        expect(prepareLeaf(paged!, 5)).toMatchObject({ sent: 5, written: { raw: 5 } });
        expect(prepareLeaf(paged!, null)).toEqual({ sent: null });
    });
});

describe("what can be written", () => {
    const first = (options: object) => leavesOf({ a: leaf(options) })[0]!;

    test.each<[string, object, object | undefined]>([
        ["a byte", { "@format": "c" }, { least: -128, most: 255, step: 1 }],
        ["signed 16-bit", { "@format": "q" }, { least: -32768, most: 65535, step: 1 }],
        ["unsigned 16-bit", { "@format": "S" }, { least: -32768, most: 65535, step: 1 }],
        [
            "scaled 16-bit is clamped to the signed range",
            { "@format": "S", "@factor": 1000 },
            { least: -32.768, most: 32.767, step: 0.001 },
        ],
        ["a negative factor", { "@format": "s", "@factor": -2 }, { least: -16383.5, most: 16384, step: 0.5 }],
        [
            "a scaled float is cut to whole numbers",
            { "@format": "f", "@factor": 10 },
            { least: -214748364.8, most: 214748364.7, step: 0.1 },
        ],
        ["packed", { "@format": "p" }, undefined],
        ["bits", { bits: [4, 3] }, { least: 0, most: 7, step: 1 }],
        ["bits with a sign", { bits: [4, 3], signed: true }, { least: -4, most: 3, step: 1 }],
        ["all bits swapped", { "@format": "I", swapped: true }, { least: 0, most: 4294967295, step: 1 }],
        ["scaled here", { "@format": "q", scale: -0.5, offset: 1 }, { least: -16382.5, most: 16385, step: 0.5 }],
        ["scaled here and there", { "@factor": 8, scale: 2 }, { least: -8192, most: 8191.75, step: 0.25 }],
        ["bounded", { min: 0 }, { least: 0, most: 65535, step: 1 }],
        ["bounded, more than it can be", { min: -1e6, max: 5 }, { least: -32768, most: 5, step: 1 }],
    ])("%s", (_, options, range) => expect(writableRange(first(options))).toEqual(range));

    test("a float has no step", () => {
        expect(writableRange(first({ "@format": "f", scale: 2 }))).not.toHaveProperty("step");
        expect(writableRange(first({ "@format": "I", float: true }))).not.toHaveProperty("step");
    });

    test.each<[string, object, RegExp | undefined]>([
        ["@asBool", { "@asBool": true }, /read-only, because "@asBool"/],
        ["@mask", { "@mask": 255 }, /read-only, because "@mask"/],
        ["the mask that masks nothing", { "@mask": -1 }, undefined],
        ["the same, unsigned", { "@mask": 0xffffffff }, undefined],
        ["readonly", { readonly: true }, /read-only, because its schema has "readonly"/],
        ["readonly that is not", { readonly: false }, undefined],
        ["neither", {}, undefined],
    ])("read-only for %s", (_, options, reason) => {
        const given = readOnlyReason(first(options));
        if (reason) expect(given).toMatch(reason);
        else expect(given).toBeUndefined();
    });
});

test("the compiler refuses options that do not exist or are of another type", () => {
    defineSchema({ motor: { speed: { "@mac": 5, "@cmd": 2, "@format": "s", unit: "rpm" }, note: "left" }, list: [1] });
    defineSchema(JSON.parse("{}") as Schema);
    // @ts-expect-error: no such option
    defineSchema({ motor: { speed: { "@mac": 5, "@factr": 10 } } });
    // @ts-expect-error: a text for a number
    defineSchema({ motor: { speed: { "@mac": "5" } } });
    // @ts-expect-error: a number for a truth
    defineSchema({ "@asBool": 1 });
    const client = new Client("localhost", { WebSocket: class {} as never });
    // @ts-expect-error: no such option
    expect(() => client.setSchema({ a: { "@mac": 5, "@factr": 10 } })).toThrow(SchemaError);
});
