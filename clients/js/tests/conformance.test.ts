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
    namesOf,
    prepareWrite,
    WriteError,
    type Problem,
    type Schema,
} from "../src/index.js";
import { cases, valueOf, type MessageCase, type Paths, type SchemaCase, type Writes } from "./conformance.js";

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
    function problemsOf({ schema, text, nested = 0, beside, clear = false }: SchemaCase): Problem[] {
        if (text !== undefined) return checkText(text);
        let outer = schema!;
        for (let depth = 0; depth < nested; depth++) outer = { n: outer };
        return checkSchema({ ...outer, ...beside }, { clear });
    }
    test.each(cases<{ cases: SchemaCase[] }>("schemas").cases)("$name", (each) => {
        const found = problemsOf(each).map(({ severity, path, code }) => [severity, dotted(path), code]);
        expect(found.sort()).toEqual([...each.problems].sort());
    });
});

describe("writes", () => {
    const { schema, written, refused } = cases<Writes>("writes");
    test.each(written)("$values", ({ values, raw, rounded = [], missed = {} }) => {
        const numbers = prepareWrite(schema, valueOf(values)).written;
        const byPath = (each: typeof numbers, number: "raw" | "nearest") =>
            Object.fromEntries(each.map((one) => [dotted(one.leaf.path), one[number]]));
        expect(byPath(numbers, "raw")).toEqual(raw);
        expect(numbers.filter(isRounded).map(({ leaf }) => dotted(leaf.path))).toEqual(rounded);
        expect(
            byPath(
                numbers.filter(({ raw, nearest }) => raw !== nearest),
                "nearest",
            ),
        ).toEqual(missed);
    });
    test.each(refused)("refusing $values", ({ values, problems }) => {
        let found: Problem[] = [];
        try {
            prepareWrite(schema, valueOf(values));
        } catch (error) {
            expect(error).toBeInstanceOf(WriteError);
            found = (error as WriteError).problems;
        }
        expect(found.map(({ path, code }) => [dotted(path), code])).toEqual(problems);
        expect(found.every(({ severity }) => severity === "error")).toBe(true);
    });
});

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
