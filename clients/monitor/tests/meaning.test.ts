import { spawnSync } from "node:child_process";
import { resolve } from "node:path";
import { fileURLToPath } from "node:url";
import { McapStreamReader } from "@mcap/core";
import { dotted, encodeValues, leavesOf, Meanings, type Leaf, type Value } from "vorbel";
import { afterEach, beforeEach, describe, expect, test, vi } from "vitest";
import { now } from "../src/model/clock";
import { bytesText, rawText } from "../src/model/columns";
import { draftOf, planOfText, planOfValues } from "../src/model/course";
import { Draft } from "../src/model/draft";
import { ExtremesOfAll } from "../src/model/extremes";
import { Guard, HOLD } from "../src/model/limits";
import { touchedText } from "../src/model/plan";
import { rowsOf } from "../src/model/recording/csv";
import { lineOf, type Entry } from "../src/model/recording/entry";
import type { Playback } from "../src/model/recording/playback";
import { Recordings } from "../src/model/recording/recordings";
import type { Session } from "../src/model/session";
import { hexText, numberText, valueText, wholeText } from "../src/model/text";
import { Tree } from "../src/model/tree";
import { parseInput, rangeText, writtenOf } from "../src/model/writing";
import { Daemon, memoryOf, sessionOn } from "./wire";

/** What readings mean to people, from the schema's members for them. */

const byte = (cmd: number, members = {}) => ({ "@mac": 5, "@cmd": cmd, "@format": "C", ...members });
const paged = (is: number, members = {}) => ({
    ...{ "@mac": 6, "@cmd": 1, "@format": "S", "@skip": 1, when: { path: "page", is } },
    ...members,
});
const schema = {
    heat: byte(1, { offset: -40, unit: "°C", decimals: 1, title: "Winding", warn: [0, 80], alarm: [-10, 90] }),
    state: byte(2, { bits: [0, 4], labels: { 0: "off", 1: "running" } }),
    mode: byte(2, { bits: [4, 3], max: 5 }),
    fault: byte(2, { bits: [7, 1], readonly: true, labels: { 0: "none", 1: "broken" } }),
    page: { "@mac": 6, "@cmd": 1, "@format": "C" },
    one: paged(1, { scale: 0.1, unit: "V" }),
    two: paged(2),
    list: { "@mac": 7, "@cmd": 1, "@format": "S", "@flushSize": 2, swapped: true, unit: "mm" },
    open: byte(3, { "@asBool": true, labels: { 0: "closed", 1: "open" } }),
    volts: { "@mac": 8, "@cmd": 1, "@format": "S", "@factor": 10, unit: "V" },
};

const leafOf = (options: object): Leaf => leavesOf({ x: byte(1, options) })[0]!;

function treeOf(...messages: Value[]): Tree {
    const tree = new Tree();
    tree.useSchema(schema);
    for (const [at, values] of messages.entries()) tree.update(values, at + 1);
    return tree;
}

const seriesOf = (tree: Tree, name: string) => tree.find([name])!.series!;
const textIn = (tree: Tree, name: string) => valueText(seriesOf(tree, name).value, tree.find([name])!.leaf);

function historyOf(tree: Tree, name: string): number[] {
    const { history } = seriesOf(tree, name);
    return Array.from({ length: history.length }, (_, at) => history.valueAt(at));
}

describe("a value", () => {
    test.each<[string, Value, string]>([
        ["heat", 125, "85.0 °C"],
        ["state", 0x81, "running"],
        ["state", 0x83, "3"],
        ["mode", 0xd3, "5"],
        ["fault", 0xd3, "broken"],
        ["list", Uint16Array.of(0x0100, 0x0200), "2 × [1, 2] mm"],
        ["open", true, "open"],
        ["open", false, "closed"],
        ["volts", Math.fround(0.9), "0.9 V"],
        ["volts", NaN, "NaN V"],
    ])("of %s, read as %j, is shown as %s", (name, reading, text) => {
        expect(textIn(treeOf({ [name]: reading }), name)).toBe(text);
    });

    test("is drawn and compared as what it means, and its reading stays beside it", () => {
        const tree = new Tree();
        tree.useSchema(schema);
        const extremes = new ExtremesOfAll(tree);
        extremes.begin(0);
        for (const heat of [125, 30, 60]) tree.update({ heat }, heat);
        const { reading, value, extremes: found } = seriesOf(tree, "heat");
        expect([reading, value, found!.least, found!.most]).toEqual([60, 20, -10, 85]);
        expect(historyOf(tree, "heat")).toEqual([85, -10, 20]);
        const { leaf } = tree.find(["heat"])!;
        expect([rawText(reading, leaf), bytesText(reading, leaf)]).toEqual(["60", "3c"]);
    });

    test("of an array is an array of what its elements mean", () => {
        const tree = treeOf({ list: Uint16Array.of(0x0100, 0x0200) });
        const { reading, waveform, number } = seriesOf(tree, "list");
        expect([Array.from(waveform!), number]).toEqual([[1, 2], 2]);
        expect(rawText(reading, tree.find(["list"])!.leaf)).toBe("2 × [256, 512]");
    });

    test("counts only in the messages that its selector is for", () => {
        const tree = treeOf({ page: 1, one: 33, two: 33 }, { page: 2, one: 7, two: 7 }, { one: 9 });
        expect([historyOf(tree, "one"), historyOf(tree, "two")]).toEqual([[33 * 0.1], [7]]);
        expect(seriesOf(tree, "one").time).toBe(1);
        expect(treeOf({ page: 1, one: 33, two: 33 }).find(["two"])!.series).toBeUndefined();
    });

    test("with labels holds until the next one", () => {
        const { series, leaf } = treeOf({ state: 1 }).find(["state"])!;
        expect(series!.holds(leaf)).toBe(true);
        expect(series!.holds(leafOf({ labels: {} }))).toBe(false);
    });

    test("is found by its path and by its title", () => {
        const tree = treeOf();
        const found = (search: string) => tree.rows(search).map((node) => node.dotted);
        expect([found("winding"), found("hea"), found("heat wind")]).toEqual([["heat"], ["heat"], ["heat"]]);
    });

    test("is copied as its label, or without its unit", () => {
        const { leaf } = treeOf().find(["state"])!;
        expect([wholeText(1, leaf), wholeText(3, leaf), wholeText(85, leafOf({ unit: "K" }))]).toEqual([
            "running",
            "3",
            "85",
        ]);
    });

    test("is shown with nothing in its label and unit that would not be seen", () => {
        const leaf = leafOf({ unit: "\u202e", labels: { 1: "a\u0000" } });
        expect([valueText(1, leaf), valueText(2, leaf)]).toEqual(["a\\u{0}", "2 \\u{202e}"]);
    });

    test.each<[object, number, string]>([
        [{ decimals: 0 }, 2.5, "3"],
        [{ decimals: 2 }, 2, "2.00"],
        [{ decimals: 99 }, 2, "2"],
        [{ decimals: 2 }, Infinity, "Infinity"],
        [{ scale: 0.1 }, 0.1 * 3, "0.3"],
        [{ "@format": "S", "@factor": 10, scale: 0.25 }, 0.25, "0.25"],
        [{ scale: 1e-7 }, 0.12345678912, "0.1234567891"],
    ])("with %j has %s as the digits that it justifies", (members, value, text) => {
        expect(numberText(value, leafOf(members))).toBe(text);
    });

    test("has its label by its field, whatever that is scaled to", () => {
        const leaf = leafOf({ scale: 0.5, offset: -1, labels: { 4: "open" } });
        expect([valueText(1, leaf), valueText(4, leaf)]).toEqual(["open", "4"]);
    });

    test("begins anew where another schema makes other numbers of it, and only there", () => {
        const tree = treeOf({ heat: 125, mode: 0x10 }, { heat: 126, mode: 0x20 });
        tree.useSchema({ ...schema, heat: { ...schema.heat, offset: 0 }, mode: { ...schema.mode, unit: "x" } });
        expect([historyOf(tree, "heat"), historyOf(tree, "mode")]).toEqual([[126], [1, 2]]);
    });

    test("begins anew with another factor beneath it, and so do its extremes", () => {
        const scaled = (factor: number) => ({ x: byte(1, { "@factor": factor, scale: 2 }) });
        const tree = new Tree();
        tree.useSchema(scaled(10));
        const extremes = new ExtremesOfAll(tree);
        extremes.begin(0);
        for (const x of [9, 4]) tree.update({ x }, 1);
        tree.useSchema(scaled(100));
        expect(historyOf(tree, "x")).toEqual([8]);
        expect(seriesOf(tree, "x").extremes!.most).toBe(8);
    });
});

describe("what is typed", () => {
    const read = () => 0x8b;
    test.each<[string, object, string, Value]>([
        ["a label", schema.state, "running", "running"],
        ["a label among spaces", schema.state, " running ", "running"],
        ["a number that has a label", schema.state, "1", 1],
        ["a number without a label", schema.state, "7", 7],
        ["a label with spaces of its own", { labels: { 0: " x " } }, " x ", " x "],
        ["a label before the number that it looks like", { labels: { 0: "1" } }, "1", "1"],
        ["a value", schema.heat, "25", 25],
    ])("may be %s", (_, options, text, value) => {
        expect(parseInput(leafOf(options), text, read)).toEqual({ value });
    });

    test.each<[string, object, string, string]>([
        ["no label", schema.state, "stopped", 'has no label "stopped": there are "off", "running"'],
        ["nothing", schema.state, " ", "must be a number"],
        ["beyond the bounds", schema.mode, "6", "takes at most 5, not 6"],
        ["beyond the bits", schema.state, "16", "must lie between 0 and 15"],
        ["what its byte cannot mean", schema.heat, "216", "must lie between -40 and 215"],
        ["read-only", schema.fault, "1", 'x cannot be written: it is read-only, because its schema has "readonly"'],
    ])("is refused where it is %s", (_, options, text, problem) => {
        expect(parseInput(leafOf(options), text, read)).toEqual({ problem });
    });

    test("is refused without a reading of the bits beside it, unless there is an initial one", () => {
        expect(parseInput(leafOf(schema.mode), "1").problem).toMatch(
            /^shares its bytes with other bits, and no reading/,
        );
        expect(parseInput(leafOf({ ...schema.mode, initial: 0 }), "1")).toEqual({ value: 1 });
    });

    test.each<[object, string]>([
        [schema.state, "off, running, or a whole number, 0 to 15"],
        [schema.heat, "a whole number, -40 to 215 °C"],
        [{ "@format": "S", scale: 0.1, unit: "V", max: 10 }, "0 to 10 V, in steps of 0.1"],
        [{ "@format": "f", unit: "m" }, "any number m (single precision)"],
        [{ "@format": "f", min: 0 }, "0 to 3.402823e+38 (single precision)"],
        [
            { labels: Object.fromEntries("abcdefghi".split("").entries()) },
            "a, b, c, d, e, f, g, h, …, or a whole number, -128 to 255",
        ],
    ])("can be, by %j, %s", (options, text) => expect(rangeText(leafOf(options))).toBe(text));
});

describe("a draft", () => {
    function draft(main: string, typed: Record<string, string>, ...messages: Value[]) {
        return draftIn(treeOf(...messages), main, typed);
    }
    function draftIn(tree: Tree, main: string, typed: Record<string, string>) {
        const node = (name: string) => tree.find([name])!;
        const edits = new Map(Object.entries(typed).map(([name, text]) => [node(name), text]));
        const made = new Draft(node(main), tree.sameFrame(node(main).leaf!), edits, tree.readings, undefined);
        return {
            made,
            plan: made.plan,
            isComplete: made.isComplete,
            consequences: made.consequences,
            fields: made.fields.map(({ node, text }) => `${node.name} ${text}`),
            values: Object.fromEntries([...made.values].map(([{ path }, value]) => [dotted(path), value])),
            problems: Object.fromEntries([...made.problems].map(([{ path }, problem]) => [dotted(path), problem])),
            bytes: made.plan?.frames?.map(hexText),
        };
    }

    test("of a field leaves the other bits as they were read, and tells what else it touches", () => {
        const { bytes, plan, isComplete, consequences } = draft(
            "mode",
            { mode: "5" },
            { state: 0x8b, mode: 0x8b, fault: 0x8b },
        );
        expect([bytes, isComplete, consequences]).toEqual([["db"], true, ""]);
        expect(plan!.changes).toEqual(["byte 0: 8b → db (bits 4, 6)"]);
        expect(plan!.beside).toEqual(["The other bits of byte 0 go out as they were last read or written"]);
        expect(plan!.sharing.map(touchedText)).toEqual(["fault (bit 7 of byte 0), now broken"]);
    });

    test("offers labels as the present values, and keeps those exactly that are not typed", () => {
        const { fields, values } = draft("mode", { mode: "5" }, { state: 0x81, mode: 0x81, fault: 0x81 });
        expect([fields, values]).toEqual([["mode 5", "state running"], { mode: 5, state: 1 }]);
    });

    test("puts several fields into the same bytes", () => {
        expect(draft("mode", { mode: "5", state: "off" }, { state: 0x8b, mode: 0x8b }).bytes).toEqual(["d0"]);
    });

    test("of a field without a reading says why it cannot go out", () => {
        const { problems, isComplete, plan } = draft("mode", { mode: "5" });
        expect([Object.keys(problems), isComplete, plan]).toEqual([["mode"], false, undefined]);
    });

    test("of a field goes by what was written, until a reading comes", () => {
        const tree = new Tree();
        tree.useSchema({ x: byte(1, { bits: [0, 4], initial: 0 }), y: byte(1, { bits: [4, 4], initial: 0 }) });
        tree.wrote([...writtenOf(draftIn(tree, "x", { x: "3" }).made.values, tree.readings).values()]);
        expect(draftIn(tree, "y", { y: "5" }).bytes).toEqual(["53"]);
        tree.update({ x: 0x21, y: 0x21 }, 1);
        expect(draftIn(tree, "y", { y: "5" }).bytes).toEqual(["51"]);
    });

    test("of a field goes by no reading from before a gap, or under another schema", () => {
        const tree = treeOf({ mode: 0x8b });
        const isRefused = () => Object.keys(draftIn(tree, "mode", { mode: "5" }).problems).length > 0;
        const again = () => tree.update({ mode: 0x8b }, 9);
        expect(isRefused()).toBe(false);
        const doubts = [() => tree.interrupt(5), () => tree.doubt(), () => tree.useSchema(schema)];
        for (const doubt of doubts) {
            doubt();
            expect(isRefused()).toBe(true);
            again();
            expect(isRefused()).toBe(false);
        }
    });

    test("tells that the bits beside a field are the initial ones", () => {
        const tree = new Tree();
        tree.useSchema({ x: byte(1, { bits: [0, 4], initial: 0x50 }) });
        const { bytes, plan } = draftIn(tree, "x", { x: "3" });
        expect([bytes, plan!.beside]).toEqual([["53"], ['The other bits of byte 0 go out as "initial" has them']]);
    });

    test("takes its fields out of swapped bytes", () => {
        const tree = new Tree();
        const wide = { "@format": "S", "@skip": 1, bits: [0, 4], swapped: true };
        tree.useSchema({ x: byte(1, wide), y: byte(1, { ...wide, bits: [12, 4], readonly: true }) });
        tree.update({ x: 0x3412, y: 0x3412 }, 1);
        const { bytes, plan } = draftIn(tree, "x", { x: "9" });
        expect([bytes, plan!.changes]).toEqual([["00 12 39"], ["byte 2: 34 → 39 (bits 0, 2, 3)"]]);
        expect(plan!.sharing.map(touchedText)).toEqual(["y (bits 4, 5, 6, 7 of byte 1), now 1"]);
    });

    test("goes by what was last sent where nothing is read", () => {
        const tree = new Tree();
        tree.useSchema({ x: byte(1), y: byte(1, { "@skip": 1, offset: -40 }) });
        tree.find(["y"])!.sent = 65;
        expect(draftIn(tree, "x", { x: "1" })).toMatchObject({ values: { x: 1, y: 25 }, bytes: ["01 41"] });
    });

    test("tells of a neighbour the bits that its mask leaves it", () => {
        const tree = new Tree();
        tree.useSchema({ x: byte(1, { bits: [0, 4], initial: 0 }), y: byte(1, { "@mask": 0x70, bits: [6, 2] }) });
        const { plan } = draftIn(tree, "x", { x: "9" });
        expect(plan!.sharing.map(touchedText)).toEqual(["y (bit 6 of byte 0)"]);
    });

    test("goes by labels of what selects a value, whatever they are scaled to", () => {
        const tree = new Tree();
        const page = { ...schema.page, scale: 10, labels: { 2: "second" } };
        tree.useSchema({ ...schema, page });
        expect(draftIn(tree, "two", { two: "7" })).toMatchObject({
            fields: ["two 7", "page second"],
            bytes: ["02 07 00"],
        });
        tree.update({ page: 2, two: 5 }, 1);
        expect(draftIn(tree, "page", { page: "second" }).values).toEqual({ page: "second", two: 5 });
        expect(draftIn(tree, "two", { two: "7", page: "second" })).toMatchObject({ problems: {}, bytes: ["02 07 00"] });
    });

    test("leaves out what follows the bus and would contradict a field, in whichever order", () => {
        for (const [field, whole] of [
            ["a", "b"],
            ["b", "a"],
        ] as const) {
            const tree = new Tree();
            tree.useSchema({ [field]: byte(1, { bits: [0, 4] }), [whole]: byte(1) });
            tree.update({ [field]: 0x21, [whole]: 0x21 }, 1);
            expect(draftIn(tree, field, { [field]: "5" })).toMatchObject({ values: { [field]: 5 }, bytes: ["25"] });
            expect(draftIn(tree, whole, { [whole]: "5" })).toMatchObject({ values: { [whole]: 5 }, bytes: ["05"] });
            expect(draftIn(tree, whole, { [whole]: "5", [field]: "6" }).isComplete).toBe(false);
        }
    });

    test("has what selects a value, and not what another selector is for", () => {
        const { fields, values, bytes, problems } = draft("two", { two: "7" }, { page: 1, one: 33 });
        expect(problems).toEqual({});
        expect([fields, values, bytes]).toEqual([["two 7", "page 2"], { two: 7, page: 2 }, ["02 07 00"]]);
    });

    test("refuses a value whose selector was typed otherwise", () => {
        const { problems, isComplete } = draft("two", { two: "7", page: "1" }, { page: 2, two: 3 });
        expect([problems, isComplete]).toEqual([{ two: "counts only where page is 2: write that with it" }, false]);
    });

    test("leaves out the one that is asked for while its selector is typed otherwise", () => {
        expect(draft("two", { page: "1" }, { page: 2, two: 3 })).toMatchObject({
            values: { page: 1 },
            isComplete: true,
        });
    });

    test("of the selector goes out with what counts then", () => {
        expect(draft("page", { page: "1" }, { page: 1, one: 33 }, { page: 2, two: 7 }).bytes).toEqual(["01 21 00"]);
        expect(draft("page", { page: "2" }, { page: 1, one: 33 }).values).toEqual({ page: 2 });
    });

    test("does not call that zeroed which does not count in its frame", () => {
        const { consequences, plan } = draft("page", { page: "2" }, { page: 1, one: 33 });
        expect([consequences, plan!.left.map(touchedText)]).toEqual(["", ["two (bytes 1–2)"]]);
    });

    test("compares with what was read last where values share bytes", () => {
        const { plan } = draft("two", { two: "7" }, { page: 2, two: 5 }, { page: 1, one: 33 });
        expect(plan!.changes).toEqual(["byte 0: 01 → 02", "byte 1: 21 → 07"]);
    });
});

describe("a session", () => {
    let daemon: Daemon;
    let session: Session;
    const leaf = (name: string) => session.tree.find([name])!.leaf!;
    const heard = () => daemon.heard.map(({ values }) => values);

    beforeEach(async () => {
        vi.useFakeTimers();
        daemon = new Daemon();
        session = sessionOn(daemon, schema);
        await vi.advanceTimersByTimeAsync(10);
    });
    afterEach(() => {
        session.disconnect();
        vi.useRealTimers();
    });

    async function write(values: Record<string, Value>): Promise<void> {
        const written = session.write(new Map(Object.entries(values).map(([name, value]) => [leaf(name), value])));
        written.catch(() => undefined); // whoever awaits it hears of that
        await vi.advanceTimersByTimeAsync(100);
        return written;
    }

    test("writes labels and values, fields into their bytes, and tells them with units", async () => {
        session.tree.update({ mode: 0x8b, state: 0x8b }, now());
        await write({ mode: 5, state: "running" });
        await write({ heat: 25 });
        expect(heard()).toEqual([{ mode: 0xd1, state: 0xd1 }, { heat: 65 }]);
        const [heat, fields] = session.sent.kept.entries;
        expect([fields!.text, fields!.frame]).toEqual([
            "mode = 5: raw 209, state = running: raw 209",
            "mac 5 cmd 2: d1",
        ]);
        expect([heat!.text, heat!.frame]).toEqual(["heat = 25 °C: raw 65", "mac 5 cmd 1: 41"]);
        expect(valueText(session.tree.find(["heat"])!.sent!, leaf("volts"))).toBe("65 V"); // the reading is kept
    });

    test("sends no field without a reading, and notes why", async () => {
        await expect(write({ mode: 5 })).rejects.toThrow(/^Nothing was written: mode: shares its bytes/);
        expect(heard()).toEqual([]);
        expect(session.sent.kept.entries[0]).toMatchObject({ outcome: "refused", frame: "mac 5 cmd 2" });
    });

    test("goes by no reading from before another client's schema", async () => {
        session.setSchema(JSON.stringify(schema), true);
        const say = (values: Value) =>
            [...daemon.sockets].forEach((socket) => socket.onmessage?.({ data: encodeValues(values as never) }));
        await vi.advanceTimersByTimeAsync(1600); // until then there may be values of a schema before
        say({ mode: 0x80 });
        await write({ mode: 5 });
        say({ stranger: 1 });
        expect(session.foreign?.certain).toBe(true);
        await expect(write({ mode: 4 })).rejects.toThrow("no reading of these came yet");
        expect(heard()).toEqual([{ mode: 0xd0 }]);
    });

    test("sends nothing beyond its bounds", async () => {
        session.tree.update({ mode: 0 }, now());
        await expect(write({ mode: 6 })).rejects.toThrow("mode: takes at most 5, not 6");
        expect(heard()).toEqual([]);
    });

    test("keeps presets by labels and values, and refuses those that it does not know", () => {
        const plan = (text: string) => planOfValues(session.tree, [{ path: "state", text }]);
        expect(plan("stopped").problems).toEqual(['state: has no label "stopped": there are "off", "running"']);
        const { steps, problems } = plan("running"); // though nothing has been read yet
        expect(problems).toEqual([]);
        session.tree.update({ state: 0x20 }, now());
        expect([...draftOf(steps[0]!.orders[0]!, session).plan!.frames![0]!]).toEqual([0x21]);
    });

    test.each<[string, string]>([
        ["by what counts", "0 one = 3.3\n1 two = 7\n2 one = 2"],
        ["by both", "0 page = 1\n0 one = 3.3\n1 two = 7\n2 one = 2"],
        ["by the selector itself", "0 one = 3.3\n1 page = 2\n1 two = 7\n2 page = 1\n2 one = 2"],
    ])("sends frames of several kinds in a sequence, %s", (_, text) => {
        const { steps, problems } = planOfText(session.tree, text);
        expect(problems).toEqual([]);
        const frames = steps.map(({ orders }) => hexText(draftOf(orders[0]!, session).plan!.frames![0]!));
        expect(frames).toEqual(["01 21 00", "02 07 00", "01 14 00"]);
    });

    test("holds what a sequence has set before, where it counts as well", () => {
        const { steps } = planOfText(session.tree, "0 page = 1\n0 one = 3.3\n1 page = 1");
        expect(hexText(draftOf(steps[1]!.orders[0]!, session).plan!.frames![0]!)).toBe("01 21 00");
    });
});

describe("limits of the schema", () => {
    let session: Session;
    let told: string[];
    let guard: Guard;

    beforeEach(() => {
        vi.useFakeTimers();
        session = sessionOn(new Daemon(), schema);
        session.disconnect();
        told = [];
        guard = new Guard(session, memoryOf(), ({ path, level, side }) => told.push(`${path} ${level} ${side}`));
    });
    afterEach(() => void vi.useRealTimers());

    function read(heat: number, seconds = 0): void {
        vi.advanceTimersByTime(1000 * seconds);
        const { shape } = session.tree;
        session.tree.update({ heat: heat + 40 }, now());
        if (session.tree.shape !== shape) session.status.changed();
    }
    const found = () => guard.alarms.entries.map(({ level, limit, extreme }) => `${level} ${limit} ${extreme}`);

    test.each<[number, string[], [number, number]]>([
        [80, [], [0, 0]],
        [81, ["heat warn high"], [0, 1]],
        [91, ["heat alarm high"], [1, 0]],
        [-5, ["heat warn low"], [0, 1]],
        [-11, ["heat alarm low"], [1, 0]],
    ])("mark %s and tell of it by what it means", (heat, expected, counts) => {
        read(heat);
        expect([told, [guard.count, guard.warnings]]).toEqual([expected, counts]);
        expect(guard.isWarned(["heat"])).toBe(counts[1] > 0);
    });

    test("raise an alarm where there was a warning, and chatter is one alarm", () => {
        read(85);
        read(95, 1);
        for (let at = 0; at < 5; at++) {
            read(85, 1);
            read(96, 1);
        }
        guard.look();
        expect(told).toEqual(["heat warn high", "heat alarm high"]);
        expect(found()).toEqual(["alarm 90 96", "warn 80 85"]);
    });

    test("warn at once on the other side of an alarm", () => {
        read(95);
        read(-5, 1);
        expect([told, guard.count]).toEqual([["heat alarm high", "heat warn low"], 0]);
    });

    test("list a warning and the alarm that follows at the same moment", () => {
        read(85);
        read(95);
        expect(found()).toEqual(["alarm 90 95", "warn 80 85"]);
    });

    test("warn again when an alarm is over", () => {
        read(95);
        read(85, 1);
        read(85, HOLD / 1000);
        expect([told, guard.count, guard.warnings]).toEqual([["heat alarm high", "heat warn high"], 0, 1]);
        read(20, 1);
        read(20, HOLD / 1000);
        expect([guard.count, guard.warnings]).toEqual([0, 0]);
    });

    test("yield to those that are set here, and hold again without them", () => {
        read(85);
        guard.setLimits(["heat"], { high: 100 });
        expect([guard.count, guard.warnings]).toEqual([0, 0]);
        read(95);
        expect(guard.count).toBe(0);
        read(101);
        expect([told.at(-1), guard.count]).toEqual(["heat alarm high", 1]);
        guard.setLimits(["heat"], {});
        expect([guard.count, found()[0]]).toEqual([1, "alarm 90 101"]);
    });

    test("end with the schema that has them", () => {
        read(95);
        session.setSchema(JSON.stringify({ heat: { ...schema.heat, alarm: [null, 200], warn: [null, null] } }), false);
        expect([guard.count, guard.alarms.entries[0]!.end]).toEqual([0, 0]);
        expect(session.tree.hasLimits).toBe(true);
        session.setSchema(JSON.stringify({ heat: byte(1) }), false);
        expect(session.tree.hasLimits).toBe(false);
    });
});

const TIME = 1700000000250;
const messages: Value[] = [
    { heat: 125, state: 1, mode: 0x51, fault: 0x81, open: true },
    { page: 1, one: 33, two: 33, volts: Math.fround(0.9), state: 7 },
    { page: 2, one: 7, two: 7, list: Uint16Array.of(0x0100, 0x0200), nothing: 3 },
];

/** What the tool writes for them. */
function toolsTexts(suffix: string): string[] {
    const program = `
import array, json, sys
from vorbel.client import Values
from vorbel.meaning import Meanings
from vorbel.recording import FORMATS
schema, messages = json.load(sys.stdin)
for message in messages:
    if "list" in message:
        message["list"] = array.array("H", message["list"])
texts = [FORMATS["${suffix}"][0](Values(message, ${TIME / 1000}), Meanings(schema)) for message in messages]
sys.stdout.write(json.dumps(texts))`;
    const plain = (_: string, value: unknown) => (ArrayBuffer.isView(value) ? Array.from(value as Uint16Array) : value);
    const { stdout, stderr } = spawnSync("/usr/bin/python3", ["-c", program], {
        cwd: resolve(fileURLToPath(import.meta.url), "../../../python"),
        input: JSON.stringify([schema, messages], plain),
        encoding: "utf8",
    });
    expect(stderr).toBe("");
    return JSON.parse(stdout);
}

describe("a recording", () => {
    const entries = messages.map((values, at): Entry => ({ time: TIME + at, values }));
    const source = { address: "ws://x", hello: undefined, schema };

    async function opened(content: string | Blob, name: string): Promise<Playback> {
        const recordings = new Recordings(sessionOn(new Daemon(), {}));
        await recordings.open(new Blob([content]), name);
        expect(recordings.problem).toBe("");
        recordings.playback!.seek(recordings.playback!.end);
        return recordings.playback!;
    }
    async function saved(format: "jsonl" | "csv" | "mcap"): Promise<Blob> {
        const recordings = new Recordings(sessionOn(new Daemon(), {}));
        recordings.record();
        for (const entry of entries) recordings.recorder!.take(entry, source);
        return (await recordings.export(format))!;
    }
    const textsIn = ({ tree }: Playback) =>
        Object.fromEntries(
            tree.valued.flatMap(({ path, reading, leaf }) =>
                reading ? [[dotted(path), valueText(reading.value, leaf)]] : [],
            ),
        );
    const texts = {
        ...{ fault: "broken", heat: "85.0 °C", mode: "5", open: "open", page: "2", state: "7" },
        ...{ list: "2 × [1, 2] mm", nothing: "3", one: "3.3 V", two: "7", volts: "0.9 V" },
    };

    test("is what the tool writes, line by line and row by row", () => {
        const meanings = new Meanings(schema);
        const made = entries.map((entry) => ({ ...entry, time: TIME }));
        expect(made.map((entry) => lineOf(entry, meanings))).toEqual(toolsTexts(".jsonl"));
        expect(made.map((entry) => rowsOf(entry, meanings))).toEqual(toolsTexts(".csv"));
    });

    test("is saved as that", async () => {
        const lines = (await (await saved("jsonl")).text()).trimEnd().split("\n").slice(1);
        expect(lines.map((line) => JSON.parse(line).meant)[0]).toEqual({
            ...{ heat: 85, state: "running", mode: 5, fault: "broken", open: "open" },
        });
        const rows = (await (await saved("csv")).text()).split("\n");
        expect(rows[0]).toBe("time,path,index,value,unit,label");
        expect(rows.map((row) => row.replace(/^[\d.]+,/, ""))).toEqual(
            expect.arrayContaining(["heat,,85,°C,", "state,,1,,running", "list,1,2,mm,", "one,,3.3000000000000003,V,"]),
        );
        expect(rows.filter((row) => /,(one|two),/.test(row))).toHaveLength(2);
    });

    test.each(["jsonl", "mcap"] as const)(
        "shows from a .%s file what readings mean, and the readings",
        async (format) => {
            const playback = await opened(await saved(format), `x.${format}`);
            expect(textsIn(playback)).toEqual(texts);
            const { series, leaf } = playback.tree.find(["heat"])!;
            expect([rawText(series!.reading, leaf), series!.value]).toEqual(["125", 85]);
            expect(playback.tree.find(["one"])!.series!.history.length).toBe(1);
        },
    );

    test("shows from a .csv file the values with units and labels, as far as they say", async () => {
        const playback = await opened(await saved("csv"), "x.csv");
        expect(textsIn(playback)).toEqual({ ...texts, heat: "85 °C" });
    });

    test("opens a .csv file of readings, as it was written before", async () => {
        const playback = await opened("time,path,index,value\n1,a,,5\n2,b,0,1\n2,b,1,2\n", "x.csv");
        expect(textsIn(playback)).toEqual({ a: "5", b: "2 × [1, 2]" });
    });

    test("keeps all labels that a .csv file has told", async () => {
        const content = "time,path,index,value,unit,label\n1,a,,0,,off\n2,a,,1,,on\n3,a,,2,,\n";
        const playback = await opened(content, "x.csv");
        const seen = [1, 2, 3].map((_, at) => {
            playback.seek(playback.begin + 1000 * at);
            return textsIn(playback)["a"];
        });
        expect(seen).toEqual(["off", "on", "2"]);
    });

    test("takes no reading for a value that does not count, where the tool says what counts", async () => {
        const lines = ['{"time":1,"values":{"a":1,"b":1},"meant":{"a":5}}', '{"time":2,"values":{"a":2,"b":2}}'];
        expect(textsIn(await opened(`${lines.join("\n")}\n`, "x.jsonl"))).toEqual({ a: "5", b: "2" });
    });

    test("has the readings on either side of a gap", async () => {
        const head: Entry = { time: TIME, recording: { address: "", schema } };
        const entries: Entry[] = [
            { time: TIME, values: { heat: 125 } },
            { time: TIME + 1, disconnected: "x" },
            { time: TIME + 2, values: { heat: 126 } },
        ];
        const playback = await opened([head, ...entries].map((entry) => lineOf(entry)).join(""), "x.jsonl");
        const { series } = playback.tree.find(["heat"])!;
        expect([series!.reading, series!.value]).toEqual([126, 86]);
        playback.seek(playback.begin);
        expect([series!.reading, series!.value]).toEqual([125, 85]);
    });

    test("is refused where a row has not as many cells as the first", async () => {
        const recordings = new Recordings(sessionOn(new Daemon(), {}));
        await recordings.open(new Blob(["time,path,index,value\n1,a,,5,V,\n"]), "x.csv");
        expect(recordings.problem).toContain("it has 6 cells instead of 4");
    });

    test("of the tool, without a schema, shows what it says beside the readings", async () => {
        const lines = toolsTexts(".jsonl").map((line, at) => line.replace(`${TIME / 1000}`, `${(TIME + at) / 1000}`));
        const { tree } = await opened(lines.join(""), "x.jsonl");
        const text = (name: string) => valueText(tree.find([name])!.series!.value, tree.find([name])!.leaf);
        expect(["heat", "state", "fault", "open", "list", "one"].map(text)).toEqual([
            ...["85", "7", "broken", "open", "2 × [1, 2]", "3.3"],
        ]);
    });

    test("has what readings mean as a topic of its own in MCAP", async () => {
        const reader = new McapStreamReader();
        reader.append(new Uint8Array(await (await saved("mcap")).arrayBuffer()));
        const topics = new Map<number, string>();
        const meant: unknown[] = [];
        for (let record; (record = reader.nextRecord());) {
            if (record.type === "Channel") topics.set(record.id, record.topic);
            if (record.type !== "Message" || topics.get(record.channelId) !== "meant") continue;
            meant.push(JSON.parse(new TextDecoder().decode(record.data)));
        }
        expect(meant[2]).toEqual({ list: [1, 2] });
        expect(meant).toHaveLength(3);
    });
});
