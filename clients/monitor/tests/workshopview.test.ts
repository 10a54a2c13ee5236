import { describe, expect, test } from "vitest";
import { between, isIn, moved, wordsOf, type Cell } from "../src/view/workshop/cells";
import { leafOf, NO_TEXTS, problemsOf, textsOf } from "../src/view/workshop/texts";

/** What the workshop's page works out for its cells and its form. */

const WHOLE = 0;
const cell = (byte: number, column: number): Cell => ({ byte, column });

describe("the grid", () => {
    test.each([
        [cell(0, WHOLE), cell(0, WHOLE), 0, 7, "byte 0, 8 bits"],
        [cell(2, WHOLE), cell(3, WHOLE), 16, 31, "byte 2 to 3, 16 bits"],
        [cell(3, WHOLE), cell(2, WHOLE), 16, 31, "byte 2 to 3, 16 bits"],
        [cell(1, 8), cell(1, 8), 8, 8, "byte 1 bit 0, 1 bit"],
        [cell(1, 1), cell(1, 1), 15, 15, "byte 1 bit 7, 1 bit"],
        [cell(1, 5), cell(1, 2), 11, 14, "byte 1 bit 3 to 6, 4 bits"],
        [cell(0, 4), cell(1, 7), 4, 9, "byte 0 bit 4 to byte 1 bit 1, 6 bits"],
        [cell(1, 4), cell(0, WHOLE), 0, 12, "byte 0 bit 0 to byte 1 bit 4, 13 bits"],
    ])("selects from %j to %j", (one, other, first, last, words) => {
        const selection = between(5, one, other);
        expect(selection).toEqual({ identifier: 5, first, last });
        expect(wordsOf(selection)).toBe(words);
    });

    test("a cell is selected when all of its bits are", () => {
        const selection = between(5, cell(0, 4), cell(1, WHOLE));
        const cells = [cell(0, WHOLE), cell(0, 4), cell(0, 5), cell(0, 3), cell(1, WHOLE), cell(1, 8), cell(2, 8)];
        expect(cells.map((each) => isIn(selection, each))).toEqual([false, true, false, true, true, true, false]);
        expect(isIn(undefined, cell(0, WHOLE))).toBe(false);
    });

    test.each([
        ["ArrowUp", cell(1, 3), cell(0, 3)],
        ["ArrowUp", cell(0, 3), cell(0, 3)],
        ["ArrowDown", cell(1, 3), cell(2, 3)],
        ["ArrowDown", cell(2, 3), cell(2, 3)],
        ["ArrowLeft", cell(1, 1), cell(1, 0)],
        ["ArrowLeft", cell(1, 0), cell(1, 0)],
        ["ArrowRight", cell(1, 7), cell(1, 8)],
        ["ArrowRight", cell(1, 8), cell(1, 8)],
        ["Home", cell(1, 5), cell(1, 0)],
        ["End", cell(1, 5), cell(1, 8)],
        ["PageUp", cell(1, 5), cell(0, 5)],
        ["PageDown", cell(1, 5), cell(2, 5)],
        ["a", cell(1, 5), undefined],
    ])("%s leads from %j to %j, of three rows", (key, from, to) => {
        expect(moved(from, key, 3)).toEqual(to);
    });
});

describe("the form", () => {
    const reading = { "@mac": 5, "@cmd": 2, "@format": "S", "@skip": 2 };

    test("makes members of what is typed, and none of what is empty", () => {
        const texts = { name: "a", title: " T ", unit: "", scale: "-1e-2", offset: ".5", decimals: "0" };
        expect(leafOf(reading, texts)).toEqual({ ...reading, title: "T", scale: -0.01, offset: 0.5, decimals: 0 });
        expect(leafOf({ ...reading, unit: "A", scale: 2, warn: [null, 6] }, NO_TEXTS)).toEqual({
            ...reading,
            warn: [null, 6],
        });
    });

    test("leaves out what is wrong", () => {
        const texts = { ...NO_TEXTS, unit: "V", scale: "0", offset: "1,", decimals: "16" };
        expect(leafOf(reading, texts)).toEqual({ ...reading, unit: "V" });
    });

    test("begins with what a leaf has", () => {
        const leaf = { ...reading, title: "T", unit: "A", scale: 0.01, offset: -40, decimals: 0 };
        const texts = textsOf("motor.current", leaf);
        expect(texts).toEqual({
            name: "motor.current",
            title: "T",
            unit: "A",
            scale: "0.01",
            offset: "-40",
            decimals: "0",
        });
        expect(leafOf(leaf, texts)).toEqual(leaf);
        expect(textsOf("a", { ...reading, unit: ["A"] }).unit).toBe("");
    });

    test.each([
        ["scale", "0,01", "The scale is a number, such as 0.01."],
        ["scale", "1 2", "The scale is a number, such as 0.01."],
        ["scale", "-0.0", "A scale of 0 leaves nothing."],
        ["scale", "1e999", "The scale is a number, such as 0.01."],
        ["scale", " +1e3 ", undefined],
        ["offset", "Infinity", "The offset is a number, such as -40."],
        ["offset", "0", undefined],
        ["decimals", "1.5", "A whole number from 0 to 15."],
        ["decimals", "16", "A whole number from 0 to 15."],
        ["decimals", "15", undefined],
    ] as const)("%s %j: %s", (name, text, problem) => {
        expect(problemsOf({ ...NO_TEXTS, [name]: text })[name]).toBe(problem);
    });
});
