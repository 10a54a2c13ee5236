import { describe, expect, test } from "vitest";
import {
    checkSchema,
    checkText,
    decodeValues,
    dotted,
    flatten,
    isRounded,
    justified,
    leavesOf,
    Meanings,
    Meant,
    namesOf,
    prepareWrite,
    WriteError,
    type Problem,
    type Schema,
} from "../src/index.js";
import { fieldOf } from "../src/meaning.js";
import { LastReadings } from "../src/readings.js";
import {
    cases,
    valueOf,
    type Members,
    type MessageCase,
    type Paths,
    type SchemaCase,
    type Step,
    type Writes,
} from "./conformance.js";

const bytes = (hex: string) => Uint8Array.from(hex.split(" ").filter(Boolean), (byte) => parseInt(byte, 16));

describe("paths", () => {
    const { paths, read, flat } = cases<Paths>("paths");
    test.each(paths)("$path", ({ names, path }) => {
        expect(dotted(names)).toBe(path);
        expect(namesOf(path)).toEqual(names);
    });
    test.each(read)("$path is read", ({ names, path }) => expect(namesOf(path)).toEqual(names));
    test.each(flat)("flat values of $values", ({ values, flat }) => {
        expect(Object.fromEntries(flatten(values))).toEqual(flat);
    });
});

describe("schemas", () => {
    function problemsIn({ schema, text, nested = 0, beside, clear = false }: SchemaCase): Problem[] {
        if (text !== undefined) return checkText(text);
        let outer = schema!;
        for (let depth = 0; depth < nested; depth++) outer = { n: outer };
        return checkSchema({ ...outer, ...beside }, { clear });
    }
    test.each(cases<{ cases: SchemaCase[] }>("schemas").cases)("$name", (each) => {
        const found = problemsIn(each).map(({ severity, path, code }) => [severity, dotted(path), code]);
        expect(found.sort()).toEqual([...each.problems].sort());
    });
});

type Numbers = ReturnType<typeof prepareWrite>["written"];

function byPath(numbers: Numbers, number: "raw" | "nearest"): Record<string, number> {
    return Object.fromEntries(numbers.map((one) => [dotted(one.leaf.path), one[number]]));
}

/** What keeps values from being written. */
function problemsOf(write: () => unknown): Problem[] {
    try {
        write();
    } catch (error) {
        expect(error).toBeInstanceOf(WriteError);
        return (error as WriteError).problems;
    }
    return [];
}

describe("writes", () => {
    const { schema, written, refused } = cases<Writes>("writes");
    test.each(written)("$values", ({ values, raw, rounded = [], missed = {} }) => {
        const numbers = prepareWrite(schema, valueOf(values)).written;
        expect(byPath(numbers, "raw")).toEqual(raw);
        expect(numbers.filter(isRounded).map(({ leaf }) => dotted(leaf.path))).toEqual(rounded);
        const others = numbers.filter(({ raw, nearest }) => raw !== nearest);
        expect(byPath(others, "nearest")).toEqual(missed);
    });
    test.each(refused)("refusing $values", ({ values, problems }) => {
        const found = problemsOf(() => prepareWrite(schema, valueOf(values)));
        expect(found.map(({ path, code }) => [dotted(path), code])).toEqual(problems);
        expect(found.every(({ severity }) => severity === "error")).toBe(true);
    });
});

describe("members for people", () => {
    const { readings, counting, schema, written, refused, following } = cases<Members>("members");
    test.each(readings)("$name", (each) => {
        const [leaf] = leavesOf({ a: { "@mac": 1, "@cmd": 1, ...each.leaf } });
        const meant = new Meant(valueOf(each.reading), leaf);
        expect(meant.value).toStrictEqual(valueOf(each.value));
        expect([meant.label, meant.level]).toEqual([each.label, each.level ?? ""]);
        expect(meant.unit).toBe(each.leaf.unit ?? "");
        if (!("field" in each)) return;
        expect(fieldOf(leaf!, meant.reading)).toStrictEqual(valueOf(each.field));
        expect(meant.shown).toBe(each.shown);
    });
    test.each(counting)("$name", ({ schema, values, counts }) => {
        expect([...new Meanings(schema).flat(values).keys()]).toEqual(counts);
    });
    test.each(written)("$values with $readings", ({ values, readings = {}, raw, rounded = [] }) => {
        const numbers = prepareWrite(schema, valueOf(values), (path) => readings[path]).written;
        expect(byPath(numbers, "raw")).toEqual(raw);
        expect(numbers.filter(isRounded).map(({ leaf }) => dotted(leaf.path))).toEqual(rounded);
    });
    test.each(refused)("refusing $values with $readings", ({ values, readings = {}, problems }) => {
        const found = problemsOf(() => prepareWrite(schema, valueOf(values), (path) => readings[path]));
        expect(found.map(({ path, code }) => [dotted(path), code])).toEqual(problems);
        expect(found.every(({ severity }) => severity === "error")).toBe(true);
    });
    test.each(following)("$name", ({ schema, steps }) => {
        const last = new LastReadings(schema);
        last.begin();
        for (const step of steps) follow(step, schema, last);
    });
});

function follow(step: Step, schema: Schema, last: LastReadings): void {
    if ("reads" in step) return last.heard(valueOf(step.reads));
    const prepare = () => prepareWrite(schema, valueOf(step.writes), (path) => last.of(path)).written;
    if ("refused" in step) {
        expect(problemsOf(prepare).map(({ path, code }) => [dotted(path), code])).toEqual(step.refused);
        return;
    }
    const written = prepare();
    expect(byPath(written, "raw")).toEqual(step.raw);
    last.wrote(written);
}

describe("values", () => {
    test.each(cases<{ messages: MessageCase[] }>("values").messages)(
        "$name",
        ({ message, value, undecodable, shown = {}, schema }) => {
            if (undecodable) {
                expect(() => decodeValues(bytes(message))).toThrow();
                return;
            }
            const values = decodeValues(bytes(message));
            expect(values).toStrictEqual(valueOf(value));
            for (const [path, text] of Object.entries(shown)) {
                const leaf = leavesOf(schema as Schema).find((each) => dotted(each.path) === path);
                expect(String(justified(flatten(values).get(path) as number, leaf))).toBe(text);
            }
        },
    );
});
