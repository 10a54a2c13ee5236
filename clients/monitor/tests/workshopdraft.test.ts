import { leavesOf, type Schema } from "vorbel";
import { describe, expect, test } from "vitest";
import { machineSchema } from "../../js/tests/machine.js";
import { Draft } from "../src/model/workshop/draft";

/** The schema that is made in the workshop. */

const at = (skip: number, others: object = {}) => ({ "@mac": 5, "@cmd": 2, "@format": "C", "@skip": skip, ...others });
const paths = (draft: Draft) => draft.leaves.map(({ path }) => path.join("."));

/** A draft, and how often it told of a change. */
function draftOf(schema: Schema = {}) {
    const draft = new Draft(schema);
    let changes = 0;
    draft.source.watch(() => changes++);
    return { draft, changes: () => changes };
}

describe("a draft", () => {
    test("begins with a schema, which is not changed", () => {
        const schema = { motor: { speed: at(0) } };
        const { draft } = draftOf(schema);
        expect(draft.schema).toEqual(schema);
        expect(draft.set("motor.current", at(1))).toBeUndefined();
        expect(schema).toEqual({ motor: { speed: at(0) } });
        expect(draft.schema).toEqual({ motor: { speed: at(0), current: at(1) } });
    });
    test("takes a leaf into a group that there is not yet, and tells", () => {
        const { draft, changes } = draftOf();
        expect(draft.set("a.b.c", at(0))).toBeUndefined();
        expect(draft.schema).toEqual({ a: { b: { c: at(0) } } });
        expect(changes()).toBe(1);
    });
    test("takes names with dots and any others", () => {
        const { draft } = draftOf();
        expect(draft.set("a\\.b.__proto__", at(0))).toBeUndefined();
        expect(draft.set("a\\.b.constructor", at(1))).toBeUndefined();
        expect(leavesOf(draft.schema).map(({ path }) => path)).toEqual([
            ["a.b", "__proto__"],
            ["a.b", "constructor"],
        ]);
    });
    test("has the leaves of an endpoint, and the options of each", () => {
        const { draft } = draftOf({ a: at(0), b: { ...at(1), "@cmd": 3 }, c: { ...at(2), "@mac": 6 }, d: at(3) });
        expect(draft.leavesAt(2 * 64 + 5).map(({ path }) => path)).toEqual([["a"], ["d"]]);
        expect(draft.leafAt("b")).toEqual({ ...at(1), "@cmd": 3 });
        expect([draft.leafAt("e"), draft.leafAt("b.@mac"), draftOf({ g: { a: at(0) } }).draft.leafAt("g")]).toEqual([
            undefined,
            undefined,
            undefined,
        ]);
    });
    test("replaces a leaf in its place, and keeps that when it gets another name in its group", () => {
        const { draft } = draftOf({ g: { a: at(0), b: at(1), c: at(2) } });
        expect(draft.set("g.b", at(3), "g.b")).toBeUndefined();
        expect(JSON.stringify(draft.schema)).toBe(JSON.stringify({ g: { a: at(0), b: at(3), c: at(2) } }));
        expect(draft.set("g.x", at(4), "g.b")).toBeUndefined();
        expect(JSON.stringify(draft.schema)).toBe(JSON.stringify({ g: { a: at(0), x: at(4), c: at(2) } }));
    });
    test("moves a leaf elsewhere, and leaves no empty group behind", () => {
        const { draft } = draftOf({ g: { inner: { a: at(0) } }, h: {} });
        expect(draft.set("k.a", at(0), "g.inner.a")).toBeUndefined();
        expect(draft.schema).toEqual({ h: {}, k: { a: at(0) } });
        expect(draft.set("k", at(0), "k.a")).toBeUndefined(); // the group has gone with its only leaf
        expect(draft.schema).toEqual({ h: {}, k: at(0) });
        expect(draft.set("k.b.a", at(0), "k")).toBeUndefined();
        expect(draft.schema).toEqual({ h: {}, k: { b: { a: at(0) } } });
    });
    test.each<[string, string, object, string | undefined, string]>([
        ["no name", "", at(5), undefined, "A value needs a name."],
        ["a name of blanks", "  ", at(5), undefined, "A value needs a name."],
        ["an empty name", "motor..x", at(5), undefined, "A name between two dots, or before or behind one, is empty."],
        ["a dot behind", "motor.", at(5), undefined, "A name between two dots, or before or behind one, is empty."],
        ["an option", "motor.@x", at(5), undefined, 'The name @x begins with "@", as only options do.'],
        ["a leaf", "motor.speed", at(5), undefined, "There is a value motor.speed already: choose another name."],
        ["another leaf's", "motor.speed", at(5), "alone", "There is a value motor.speed already: choose another name."],
        ["a group", "motor", at(5), undefined, "motor is a group of values: choose another name, or one within it."],
        ["in a leaf", "alone.x", at(5), undefined, "alone is a value: no other can stand in it."],
        ["deep in a leaf", "alone.x.y", at(5), undefined, "alone is a value: no other can stand in it."],
        [
            "a text",
            "motor.description",
            at(5),
            undefined,
            "motor.description is a text of its group: choose another name.",
        ],
        [
            "in a text",
            "motor.description.x",
            at(5),
            undefined,
            "motor.description is a text of its group: choose another name.",
        ],
        ["nothing former", "motor.x", at(5), "motor.gone", "There is no value motor.gone any more."],
        [
            "no scale",
            "motor.x",
            at(5, { scale: 0 }),
            undefined,
            'motor.x: "scale" is 0: all fields would mean the same.',
        ],
        ["no format", "x", { "@mac": 1, "@cmd": 1 }, undefined, 'x: has no "@format", so it never has a value.'],
        ["bits", "x", at(5, { bits: [4, 5] }), undefined, ""],
        ["no leaf", "x", { "@cmd": 1 }, undefined, ""],
    ])("refuses %s, and says so", (_, path, leaf, former, told) => {
        const schema = { motor: { description: "a drive", speed: at(0) }, alone: at(1) };
        const { draft, changes } = draftOf(schema);
        const complaint = draft.set(path, leaf as Schema, former);
        if (told) expect(complaint).toBe(told);
        else expect(complaint).toMatch(/^x: .*\.$/);
        expect([draft.schema, changes(), draft.canUndo]).toEqual([schema, 0, undefined]);
    });
    test("of a value without a name has no place for another", () => {
        const { draft } = draftOf(at(0));
        expect(draft.set("x", at(1))).toBe("The whole schema is a value: no other can stand in it.");
        draft.remove("");
        expect(draft.schema).toEqual({});
        expect(draft.set("x", at(1))).toBeUndefined();
    });
    test("takes what is doubtful, and tells of it", () => {
        const { draft } = draftOf({ a: at(0) });
        expect(draft.set("b", at(0))).toBeUndefined();
        expect(draft.problems().map(({ code, path }) => [code, path])).toEqual([["overlap", ["b"]]]);
    });
    test("complains only of what was wrong before where that is what it is about", () => {
        const { draft } = draftOf({ a: at(0, { scale: 0 }) });
        expect(draft.set("b", at(1))).toBeUndefined();
        expect(draft.problems().map(({ code }) => code)).toEqual(["member-range"]);
    });
    test("has the problems of what it is at present", () => {
        const { draft } = draftOf({ a: at(0) });
        expect(draft.problems()).toEqual([]);
        draft.set("b", at(0));
        expect(draft.problems()).toHaveLength(1);
        draft.undo();
        expect(draft.problems()).toEqual([]);
    });
    test("has no problem where it has nothing", () => expect(draftOf().draft.problems()).toEqual([]));
    test("refuses to lose a leaf that others depend on", () => {
        const { draft } = draftOf({ page: at(0), x: at(1, { when: { path: "page", is: 1 } }) });
        expect(draft.set("pages", at(0), "page")).toMatch(/^x: .*page.*\.$/);
    });
    test("loses a leaf, and with it the groups that are empty then", () => {
        const { draft, changes } = draftOf({
            g: { h: { a: at(0) } },
            k: { description: "texts stay", a: at(1) },
            b: at(2),
        });
        draft.remove("g.h.a");
        draft.remove("k.a");
        expect(draft.schema).toEqual({ k: { description: "texts stay" }, b: at(2) });
        draft.remove("b");
        draft.remove("b");
        draft.remove("never.there");
        expect(draft.schema).toEqual({ k: { description: "texts stay" } });
        expect(changes()).toBe(3);
    });
});

describe("a draft as a text", () => {
    test("has a line for each leaf", () => {
        const leaf = at(0, { labels: { "0": "off" }, warn: [null, 5], title: "Ä" });
        const { draft } = draftOf({ motor: { description: "a drive", speed: leaf, empty: {} }, x: at(1) });
        expect(draft.text).toBe(
            [
                "{",
                '    "motor": {',
                '        "description": "a drive",',
                '        "speed": {"@mac": 5, "@cmd": 2, "@format": "C", "@skip": 0, "labels": {"0": "off"}, ' +
                    '"warn": [null, 5], "title": "Ä"},',
                '        "empty": {}',
                "    },",
                '    "x": {"@mac": 5, "@cmd": 2, "@format": "C", "@skip": 1}',
                "}",
            ].join("\n"),
        );
        expect([draftOf().draft.text, draftOf(at(0)).draft.text]).toEqual([
            "{}",
            '{"@mac": 5, "@cmd": 2, "@format": "C", "@skip": 0}',
        ]);
    });
    test("is the same schema again", () => {
        const odd = { 'a"\\\n': { b: at(0, { unit: "\u2028" }) }, __proto: at(1) };
        for (const schema of [machineSchema, odd]) {
            const { draft } = draftOf();
            draft.load(draftOf(schema).draft.text);
            expect(draft.schema).toEqual(schema);
        }
    });
    test("replaces what was there when it is loaded", () => {
        const { draft } = draftOf({ a: at(0) });
        draft.load(JSON.stringify({ b: at(1) }));
        expect([draft.schema, draft.canUndo]).toEqual([{ b: at(1) }, "Load a schema"]);
        draft.undo();
        expect(draft.schema).toEqual({ a: at(0) });
    });
    test.each([
        ["no JSON", "{", /^Nothing was loaded: the document: is no JSON: /],
        ["no schema", "[]", /^Nothing was loaded: the document: must be an object, not \[\]/],
        ["no leaf", "{}", /^Nothing was loaded: the document: has no leaf/],
        ["a name twice", '{"a": {}, "a": {}}', /^Nothing was loaded: a: is there twice/],
        [
            "several mistakes",
            JSON.stringify({ a: at(0, { scale: 0 }), b: { "@mac": 70, "@cmd": 0, "@format": "C" } }),
            /^Nothing was loaded: a: .*, and 1 more$/,
        ],
    ])("of %s is not loaded, which is told", (_, text, told) => {
        const { draft, changes } = draftOf({ a: at(0) });
        expect(() => draft.load(text)).toThrow(told);
        expect([draft.schema, changes()]).toEqual([{ a: at(0) }, 0]);
    });
});

describe("an import", () => {
    test("adds what is not there, and overwrites nothing", () => {
        const { draft, changes } = draftOf({ motor: { speed: at(0) }, door: at(1) });
        const added = draft.merge({
            motor: { description: "a drive", speed: at(2), current: at(3) },
            door: { open: at(4) },
            pump: { a: at(5), b: at(6) },
        });
        expect(added).toEqual({ added: 5, renamed: ["motor.speed_2", "door_2.open"] });
        expect(draft.schema).toEqual({
            motor: { speed: at(0), description: "a drive", speed_2: at(2), current: at(3) },
            door: at(1),
            door_2: { open: at(4) },
            pump: { a: at(5), b: at(6) },
        });
        expect([changes(), draft.canUndo]).toEqual([1, "Import 5 values"]);
    });
    test("adds nothing twice", () => {
        const { draft, changes } = draftOf({ a: at(0), text: "mine" });
        expect(draft.merge({ a: at(0), text: "theirs" })).toEqual({ added: 0, renamed: [] });
        expect([draft.schema, changes()]).toEqual([{ a: at(0), text: "mine" }, 0]);
    });
    test("takes names that neither side has", () => {
        const { draft } = draftOf({ a: at(0), a_2: at(1) });
        expect(draft.merge({ a: at(2), a_3: at(3) })).toEqual({ added: 2, renamed: ["a_4"] });
        expect(paths(draft)).toEqual(["a", "a_2", "a_3", "a_4"]);
    });
    test("keeps what selects a value under its new name, and leaves the paths of others", () => {
        const mine = at(3, { when: { path: "g.page", is: 1 } });
        const { draft } = draftOf({ g: { page: at(0) }, mine });
        const theirs = (path: string) => at(2, { when: { path, is: 7 } });
        const { renamed } = draft.merge({
            g: { page: at(1), x: theirs("g.page") },
            h: { y: theirs("h.page"), page: at(4) },
        });
        expect(renamed).toEqual(["g.page_2"]);
        expect(draft.schema).toEqual({
            g: { page: at(0), page_2: at(1), x: theirs("g.page_2") },
            h: { y: theirs("h.page"), page: at(4) },
            mine,
        });
    });
    test("of a whole group under another name leads to what is in that", () => {
        const { draft } = draftOf({ g: at(0) });
        draft.merge({ g: { page: at(1), x: at(2, { when: { path: "g.page", is: 7 } }) } });
        expect(draft.schema).toEqual({
            g: at(0),
            g_2: { page: at(1), x: at(2, { when: { path: "g_2.page", is: 7 } }) },
        });
    });
    test("of a value without a name has one", () => {
        const { draft } = draftOf();
        expect(draft.merge(at(0))).toEqual({ added: 1, renamed: [] });
        expect([draft.schema, draft.canUndo]).toEqual([{ value: at(0) }, "Import 1 value"]);
    });
    test("beside a value without a name is not possible", () => {
        expect(() => draftOf(at(0)).draft.merge({ a: at(1) })).toThrow(
            "The schema is a single value without a name: nothing can stand beside it",
        );
    });
});

describe("a change", () => {
    test("is undone and done again, step by step", () => {
        const { draft, changes } = draftOf();
        draft.set("a", at(0));
        draft.set("b", at(1), "a");
        draft.set("b", at(2), "b");
        draft.remove("b");
        const names = ["Add a", "Rename a to b", "Change b", "Remove b"];
        const states = [{}, { a: at(0) }, { b: at(1) }, { b: at(2) }, {}];
        for (let step = 4; step > 0; step--) {
            expect([draft.schema, draft.canUndo, draft.canRedo]).toEqual([states[step], names[step - 1], names[step]]);
            draft.undo();
        }
        for (let step = 0; step < 4; step++) {
            expect([draft.schema, draft.canUndo, draft.canRedo]).toEqual([states[step], names[step - 1], names[step]]);
            draft.redo();
        }
        expect([draft.schema, draft.canRedo, changes()]).toEqual([{}, undefined, 12]);
    });
    test("that follows what was undone leaves nothing to be done again", () => {
        const { draft } = draftOf();
        draft.set("a", at(0));
        draft.undo();
        draft.set("b", at(0));
        expect(draft.canRedo).toBeUndefined();
    });
    test("that changes nothing is none", () => {
        const { draft, changes } = draftOf({ a: at(0) });
        expect(draft.set("a", at(0), "a")).toBeUndefined();
        draft.undo();
        draft.redo();
        expect([draft.canUndo, draft.canRedo, changes()]).toEqual([undefined, undefined, 0]);
    });
    test("can be undone as long as it is one of the last hundred", () => {
        const { draft } = draftOf();
        for (let count = 0; count < 105; count++) draft.set(`a${count}`, at(0));
        let undone = 0;
        while (draft.canUndo !== undefined) {
            draft.undo();
            undone++;
        }
        expect([undone, draft.leaves.length]).toEqual([100, 5]);
    });
});
