import { leavesOf, type Value } from "vorbel";
import { describe, expect, test } from "vitest";
import { bytesText, rawText } from "../src/model/columns";
import { ExtremesOfAll } from "../src/model/extremes";
import { bitsOf, rawNumber } from "../src/model/raw";
import { Tree } from "../src/model/tree";

/** What the table's further columns say. */

const leafOf = (options: object) => leavesOf({ a: { "@mac": 1, ...options } })[0]!;

describe("of a reading, raw number and bytes are told", () => {
    test.each<[string, object, Value, string, string]>([
        ["an unsigned byte", { "@format": "C" }, 200, "200", "c8"],
        ["a small letter's byte", { "@format": "c" }, 200, "200", "c8"],
        ["two bytes, the low one first", { "@format": "S" }, 0x1234, "4660", "34 12"],
        ["a negative number", { "@format": "s" }, -2, "-2", "fe ff"],
        ["four bytes", { "@format": "i" }, -2, "-2", "fe ff ff ff"],
        ["the greatest of four bytes", { "@format": "I" }, 4294967295, "4294967295", "ff ff ff ff"],
        ["single precision", { "@format": "f" }, 1.25, "1.25", "00 00 a0 3f"],
        ["infinity", { "@format": "f" }, Infinity, "Infinity", "00 00 80 7f"],
        ["a scaled number", { "@format": "s", "@factor": 100 }, Math.fround(-0.01), "-1", "ff ff"],
        ["a scaled byte", { "@format": "c", "@factor": 10 }, 25.5, "255", "ff"],
        ["a negative factor", { "@format": "S", "@factor": -2 }, -2.5, "5", "05 00"],
        ["a factor below one", { "@format": "S", "@factor": 0.5 }, 20, "10", "0a 00"],
        ["a mask without effect", { "@format": "q", "@mask": 1 }, 256, "256", "00 01"],
        ["a mask of all bits", { "@format": "S", "@mask": 65535 }, 256, "256", "00 01"],
        ["a flag that is not set", { "@format": "S", "@asBool": true }, false, "0", "00 00"],
        [
            "an array",
            { "@format": "S", "@flushSize": 3 },
            new Uint16Array([1, 513, 2]),
            "3 × [1, 513, …]",
            "3 × [01 00, 01 02, …]",
        ],
        ["a scaled array", { "@format": "S", "@factor": 10 }, new Float32Array([0.1]), "1 × [1]", "1 × [01 00]"],
        ["bytes", { "@format": "p" }, new Uint8Array([1, 171]), "?", "01 ab"],
    ])("%s", (_, options, value, raw, bytes) => {
        expect([rawText(value, leafOf(options)), bytesText(value, leafOf(options))]).toEqual([raw, bytes]);
    });

    test.each<[string, object, Value, string]>([
        ["half a byte of a mask", { "@format": "C", "@mask": 0xf0 }, 0x30, "3?"],
        ["a bit of a mask", { "@format": "C", "@mask": 1 }, 1, "??"],
        ["the low byte of a mask", { "@format": "s", "@mask": 255 }, 255, "ff ??"],
        ["the high byte of a mask", { "@format": "I", "@mask": -16777216 }, 0xab000000, "?? ?? ?? ab"],
        ["a flag that is set", { "@format": "C", "@asBool": true }, true, "?"],
        ["a flag of one bit", { "@format": "C", "@mask": 4, "@asBool": true }, true, "??"],
        ["a flag of a float", { "@format": "f", "@asBool": true }, false, "?"],
        ["a scaled float", { "@format": "f", "@factor": 10 }, 1.2, "?"],
        ["not-a-number, which has many forms", { "@format": "f" }, NaN, "?"],
        ["a scaled number beyond single precision", { "@format": "i", "@factor": 100 }, Math.fround(167772.17), "?"],
        ["a factor of zero", { "@format": "S", "@factor": 0 }, Infinity, "?"],
        ["a reading that the factor cannot make", { "@format": "S", "@factor": 10 }, 0.55, "?"],
        ["a reading that the format cannot hold", { "@format": "C" }, 256, "?"],
        ["one below", { "@format": "C" }, -1, "?"],
        ["one beyond a sign", { "@format": "s" }, 32768, "?"],
        ["a fraction of a whole number", { "@format": "S" }, 1.5, "?"],
        ["a text", { "@format": "S" }, "x", "?"],
        ["a flag without its option", { "@format": "S" }, true, "?"],
        ["an unknown format", { "@format": "x" }, 1, "?"],
        ["a packed value", { "@format": "p" }, 1, "?"],
    ])("not of %s", (_, options, value, bytes) => {
        expect([rawText(value, leafOf(options)), bytesText(value, leafOf(options))]).toEqual(["?", bytes]);
    });

    test("not without a leaf", () => expect([rawText(1, undefined), bytesText(1, undefined)]).toEqual(["?", "?"]));
    test("of an array's flags one by one", () => {
        const flags = leafOf({ "@format": "C", "@asBool": true, "@flushSize": 2 });
        const value = new Uint8Array([0, 1]);
        expect([rawText(value, flags), bytesText(value, flags)]).toEqual(["2 × [0, ?]", "2 × [00, ?]"]);
    });
    test("of as many elements as are asked for", () => {
        expect(bytesText(new Uint8Array(5), leafOf({ "@format": "C" }), 4)).toBe("5 × [00, 00, 00, 00, …]");
    });
    test("of a scaled number only where no other makes the same reading", () => {
        const leaf = leafOf({ "@format": "I", "@factor": 3 });
        const scale = Math.fround(1 / 3);
        const readingOf = (raw: number) => Math.fround(Math.fround(raw) * scale);
        for (let raw = 0; raw <= 2 ** 24; raw = 1 + Math.ceil(raw * 1.0007)) {
            const same = [-3, -2, -1, 1, 2, 3].some(
                (more) => raw + more >= 0 && readingOf(raw + more) === readingOf(raw),
            );
            expect(rawNumber(leaf, readingOf(raw)), String(raw)).toBe(same ? undefined : raw);
        }
    });
    test("as bits, too", () => {
        expect(bitsOf(leafOf({ "@format": "S", "@mask": 0x0103 }), 0x0102)).toEqual({
            raw: new Uint8Array([2, 1]),
            mask: 0x0103,
        });
    });
});

describe("the extremes", () => {
    function treeWith(readings: Value[]): Tree {
        const tree = new Tree();
        for (const [time, a] of readings.entries()) tree.update({ a }, time + 1);
        return tree;
    }
    const of = (tree: Tree, name = "a") => {
        const { least, most, since } = tree.find([name])!.series!.extremes!;
        return [least, most, since.least, since.most];
    };

    test("cost nothing before somebody wants them, and when nobody does any more", () => {
        const tree = treeWith([1]);
        const all = new ExtremesOfAll(tree);
        expect(tree.find(["a"])!.series!.extremes).toBeUndefined();
        all.begin(0);
        all.end();
        tree.update({ a: 1, b: 1 }, 2);
        expect([tree.find(["a"])!.series!.extremes, tree.find(["b"])!.series!.extremes]).toEqual([
            undefined,
            undefined,
        ]);
    });
    test("begin with the readings that are still known, and go on", () => {
        const tree = treeWith([9, 3, 5]);
        new ExtremesOfAll(tree).begin(2);
        expect(of(tree)).toEqual([3, 5, 2, 2]);
        tree.update({ a: 2, b: 7 }, 4);
        tree.update({ a: 6, b: NaN }, 5);
        expect([of(tree), of(tree, "b")]).toEqual([
            [2, 6, 2, 2],
            [7, 7, 2, 2],
        ]);
    });
    test("say since when, where older readings are forgotten", () => {
        const tree = treeWith(Array.from({ length: 1500 }, (_, at) => at));
        new ExtremesOfAll(tree).begin(0);
        expect(of(tree)).toEqual([1500 - 1024, 1499, 1501 - 1024, 1501 - 1024]);
    });
    test("are those of elements, of arrays", () => {
        const tree = treeWith([new Int8Array([1, 5]), new Int8Array([2, 4])]);
        new ExtremesOfAll(tree).begin(0);
        expect(of(tree)).toEqual([2, 4, 2, 2]);
        tree.update({ a: new Int8Array([-1, 3]) }, 3);
        expect(of(tree)).toEqual([-1, 4, 2, 2]);
    });
    test("begin anew, one without the other", () => {
        const tree = treeWith([1, 9]);
        const all = new ExtremesOfAll(tree);
        all.begin(0);
        all.reset("most", 3);
        expect(of(tree)).toEqual([1, -Infinity, 0, 3]);
        tree.update({ a: 4, b: 4 }, 4);
        expect([of(tree), of(tree, "b")]).toEqual([
            [1, 4, 0, 3],
            [4, 4, 0, 3],
        ]);
        all.reset("least", 5);
        expect(of(tree)).toEqual([Infinity, 4, 5, 3]);
    });
    test.each<[string, Value]>([
        ["flags", true],
        ["texts", "x"],
    ])("are not those of %s", (_, value) => {
        const tree = treeWith([value]);
        new ExtremesOfAll(tree).begin(0);
        tree.update({ a: value }, 3);
        expect(of(tree).slice(0, 2)).toEqual([Infinity, -Infinity]);
    });
});
