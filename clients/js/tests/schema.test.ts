import { describe, expect, test } from "vitest";
import { assertSchema, checkSchema, describeProblem, leavesOf, parseSchema, readOnlyReason, SchemaError, writableRange } from "../src/index.js";

const leaf = (options: object = {}) => ({ "@mac": 5, "@cmd": 2, "@format": "s", ...options });
const told = (schema: unknown) =>
    checkSchema(schema).map((problem) => `${problem.severity}: ${describeProblem(problem)}`);
const motor = (options: object) => told({ motor: { speed: leaf(options) } });

describe("accepted", () => {
    test.each<[string, unknown]>([
        ["nothing at all", {}],
        ["a leaf at the root", leaf()],
        ["every option", { a: leaf({ "@skip": 2, "@factor": 0.1, "@flushSize": 4, "@mask": 255, "@fragmentation": false }) }],
        ["leaves side by side in a frame", { a: leaf(), b: leaf({ "@skip": 2 }) }],
        ["the same bytes of other frames", { a: leaf(), b: leaf({ "@mac": 6 }), c: leaf({ "@cmd": 3 }) }],
        ["different bits of one byte", {
            ready: leaf({ "@format": "C", "@mask": 1, "@asBool": true }),
            fault: leaf({ "@format": "C", "@mask": 2, "@asBool": true }),
        }],
        ["a leaf beyond the first frame of several", { a: leaf({ "@skip": 12, "@fragmentation": true }) }],
        ["notes for people", { motor: { note: "left", speed: leaf({ unit: "rpm" }) } }],
    ])("%s", (_, schema) => expect(told(schema)).toEqual([]));
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
        ["an address that no frame has", { "@mac": 64 }, `"@mac" is 64, outside 0 to 63: no frame carries such an address`],
        ["a command that no frame has", { "@cmd": 32 }, `"@cmd" is 32, outside 0 to 31: no frame carries such a command`],
        ["a negative flush size", { "@flushSize": -1 }, `"@flushSize" is -1, outside 0 to 2147483647: such a leaf never has a value`],
        ["a mask of more than 32 bits", { "@mask": 4294967296 },
            `"@mask" is 4294967296, outside -2147483648 to 4294967295: it must fit 32 bits`],
        ["the factor 0", { "@factor": 0 }, `"@factor" is 0: readings are divided by it, so each would be infinite`],
        ["an unknown format", { "@format": "x" },
            `"@format" "x" is unknown, so the leaf never has a value; known are C, c, S, s, Q, q, I, i, f, p`],
        ["a leaf that leaves every frame", { "@format": "i", "@skip": 61 }, "ends at byte 64: no frame is that long"],
        ["an array that cannot be sent", { "@format": "c", "@flushSize": 4 },
            `arrays of format "c" make every message undecodable, for all clients; "C" reads the same bytes`],
    ])("%s", (_, options, message) => expect(motor(options)).toEqual([`error: motor.speed: ${message}`]));

    test("a leaf without a command is doubtful", () => {
        expect(told({ a: { "@mac": 1, "@format": "s" } })).toEqual([`warning: a: has no "@cmd", which counts as 0`]);
    });

    test("a leaf without a format", () => {
        expect(told({ a: { "@mac": 1 } })).toEqual([`error: a: has no "@format", so it never has a value`]);
    });

    test("options without an address", () => {
        expect(told({ a: { "@cmd": 1, "@format": "s" } })).toEqual([
            `error: a: has "@cmd", "@format" but no "@mac": it is no leaf without one`,
        ]);
    });

    test.each<[string, unknown, string]>([
        ["a list", [leaf()], `must be an object, not [{"@mac":5,"@cmd":2,"@format":"s"}]: all leaves would be lost`],
        ["null", null, "must be an object, not null: all leaves would be lost"],
    ])("a document that is %s", (_, document, message) => {
        expect(told(document)).toEqual([`error: the document: ${message}`]);
    });

    test("two writable leaves on overlapping bytes", () => {
        expect(told({ motor: { speed: leaf(), current: leaf({ "@skip": 1 }) } })).toEqual([
            "error: motor.current: overlaps motor.speed at byte 1 of mac 5, cmd 2: writing one destroys the other",
        ]);
        expect(told({ a: leaf({ "@format": "i" }), b: leaf({ "@format": "f" }) })).toEqual([
            "error: b: overlaps a at bytes 0 to 3 of mac 5, cmd 2: writing one destroys the other",
        ]);
    });

    test("every problem is told, not only the first", () => {
        expect(told({ a: leaf({ "@mac": -1, "@factor": 0 }), b: leaf({ "@cmd": 99 }) })).toHaveLength(3);
    });
});

describe("doubtful, with the path", () => {
    test.each<[string, object, string]>([
        ["a leaf that leaves the frame", { "@format": "i", "@skip": 5 },
            `ends at byte 8: it is read from CAN FD frames only, and not written without "@fragmentation"`],
        ["a packed leaf", { "@format": "p", "@fragmentation": true }, `format "p" is only for writing: the leaf never has a value`],
        ["observing an array", { "@observe": true, "@flushSize": 4 }, `"@observe" is ignored, because "@flushSize" is set`],
        ["a mask that masks nothing", { "@format": "q", "@mask": 1 },
            `"@mask" has no effect on format "q" but makes the leaf read-only`],
        ["a long format", { "@format": "short" }, `only the first character of "@format" counts: "s"`],
        ["an option without its sign", { mask: 1 }, `"mask" is ignored; did you mean "@mask"?`],
        ["a leaf inside a leaf", { inner: leaf({ "@cmd": 3 }) },
            `"inner" lies inside a leaf: one of the two hides the other's value`],
    ])("%s", (_, options, message) => expect(motor(options)).toEqual([`warning: motor.speed: ${message}`]));

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

test("thousands of leaves on one byte are told by their first thousand overlaps, soon", () => {
    const crowd = Object.fromEntries(Array.from({ length: 5000 }, (_, at) => [`leaf${at}`, leaf()]));
    const begin = performance.now();
    expect(told(crowd)).toHaveLength(1000);
    expect(performance.now() - begin).toBeLessThan(5000); // all pairs would take minutes
});

test("JSON that is none is a schema's error", () => {
    expect(() => parseSchema('{"a": }')).toThrow(SchemaError);
    expect(() => parseSchema('{"a": }')).toThrow(/the document: is no JSON/);
});

test("a name that occurs twice in one object is an error", () => {
    const text = `{"motor": {"speed": ${JSON.stringify(leaf())}, "a": [{"x": "}"}], "sp\\u0065ed": {}}, "speed": 1}`;
    expect(() => parseSchema(text)).toThrow(/\nmotor\.speed: is there twice; only the last one would count$/);
    expect(() => parseSchema(text.replace("u0065", "u0066"))).not.toThrow();
});

test("leaves come by name, with the daemon's defaults", () => {
    expect(leavesOf({ b: leaf(), a: { x: { "@mac": 1, "@format": "float" } } })).toEqual([
        { path: ["a", "x"], mac: 1, cmd: 0, format: "f", skip: 0, flushSize: 0, factor: 1, mask: -1, asBool: false, observe: false, fragmentation: false },
        { path: ["b"], mac: 5, cmd: 2, format: "s", skip: 0, flushSize: 0, factor: 1, mask: -1, asBool: false, observe: false, fragmentation: false },
    ]);
});

describe("what can be written", () => {
    const first = (options: object) => leavesOf({ a: leaf(options) })[0]!;

    test.each<[string, object, object | undefined]>([
        ["a signed byte's letter reads unsigned", { "@format": "c" }, { least: 0, most: 255, step: 1 }],
        ["signed 16-bit", { "@format": "q" }, { least: -32768, most: 32767, step: 1 }],
        ["unsigned 16-bit", { "@format": "S" }, { least: 0, most: 65535, step: 1 }],
        ["scaled unsigned 16-bit is clamped to the signed range", { "@format": "S", "@factor": 1000 },
            { least: 0, most: 32.767, step: 0.001 }],
        ["a negative factor", { "@format": "s", "@factor": -2 }, { least: -16383.5, most: 16384, step: 0.5 }],
        ["a scaled float is cut to whole numbers", { "@format": "f", "@factor": 10 },
            { least: -214748364.8, most: 214748364.7, step: 0.1 }],
        ["packed", { "@format": "p" }, undefined],
    ])("%s", (_, options, range) => expect(writableRange(first(options))).toEqual(range));

    test("a float has no step", () => expect(writableRange(first({ "@format": "f" }))).not.toHaveProperty("step"));

    test.each<[string, object, RegExp | undefined]>([
        ["@asBool", { "@asBool": true }, /read-only, because "@asBool"/],
        ["@mask", { "@mask": 255 }, /read-only, because "@mask"/],
        ["the mask that masks nothing", { "@mask": -1 }, undefined],
        ["the same, unsigned", { "@mask": 0xffffffff }, undefined],
        ["neither", {}, undefined],
    ])("read-only for %s", (_, options, reason) => {
        const given = readOnlyReason(first(options));
        if (reason) expect(given).toMatch(reason);
        else expect(given).toBeUndefined();
    });
});
