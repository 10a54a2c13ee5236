import { dotted, leavesOf, namesOf, toUrl, type Leaf, type Value } from "vorbel";
import { afterEach, beforeEach, describe, expect, onTestFinished, test, vi } from "vitest";
import { now, WallClock } from "../src/model/clock";
import { decimate } from "../src/model/decimate";
import { silenceIn } from "../src/model/doubt";
import { Draft } from "../src/model/draft";
import { History } from "../src/model/history";
import { lag } from "../src/model/lag";
import { planOf, touchedText, type Touched } from "../src/model/plan";
import { Log } from "../src/model/log";
import { readingAt, statistics } from "../src/model/measure";
import { Plots } from "../src/model/plots";
import { Rate } from "../src/model/rate";
import { Series } from "../src/model/series";
import { Session, type Surroundings } from "../src/model/session";
import { Source } from "../src/model/source";
import { ageText, clockText, hexText, numberText, rateText, valueText } from "../src/model/text";
import { Tree, TreeNode } from "../src/model/tree";
import { byName, parseInput, payloadOf, rangeText } from "../src/model/writing";
import { follow } from "../src/view/frame";
import { Pointer } from "../src/view/pointer";

function historyOf(readings: [number, number][], limit = 1000): History {
    const history = new History(limit);
    for (const [time, value] of readings) history.push(time, value);
    return history;
}

const contents = (history: History) =>
    Array.from({ length: history.length }, (_, at) => [history.timeAt(at), history.valueAt(at)]);
const counting = (count: number) => Array.from({ length: count }, (_, at): [number, number] => [at, 10 * at]);

describe("a history", () => {
    test("keeps what fits", () => expect(contents(historyOf(counting(40)))).toEqual(counting(40)));
    test("forgets the oldest at its limit", () => {
        expect(contents(historyOf(counting(150), 100))).toEqual(counting(150).slice(50));
    });
    test("grows again, in order, when its limit is raised", () => {
        const history = historyOf(counting(130), 100);
        history.limit = 1000;
        for (const [time, value] of counting(200).slice(130)) history.push(time, value);
        expect(contents(history)).toEqual(counting(200).slice(30));
    });
    test.each([
        [-1, 0],
        [0, 0],
        [4.5, 5],
        [5, 5],
        [39, 39],
        [40, 40],
    ])("finds the first reading from %d on", (time, index) => {
        expect(historyOf(counting(40)).indexAt(time)).toBe(index);
    });
});

describe("a rate", () => {
    function rateAfter(times: number[], now = times.at(-1)!): number | undefined {
        const rate = new Rate();
        for (const time of times) rate.arrived(time);
        return rate.at(now);
    }
    const every = (period: number, count: number) => Array.from({ length: count }, (_, at) => at * period);

    test("is unknown before the second arrival", () => {
        expect(rateAfter([])).toBeUndefined();
        expect(rateAfter([5])).toBeUndefined();
    });
    test.each([
        [1, 1000],
        [50, 20],
        [1000, 1],
        [20_000, 0.05],
    ])("of every %d ms is %d a second", (period, rate) => {
        expect(rateAfter(every(period, 10_000))).toBeCloseTo(rate, 6);
    });
    test("is not fooled by bursts", () => {
        const bursts = every(100, 200).flatMap((time) => [time, time, time, time, time]);
        expect(rateAfter(bursts)).toBeCloseTo(50, 0);
    });
    test("sinks when arrivals fail to come", () => {
        const times = every(100, 100);
        expect(rateAfter(times, 9900 + 100)).toBeCloseTo(10, 6);
        expect(rateAfter(times, 9900 + 10_000)!).toBeLessThan(2.5);
    });
    test.each([
        [[0], undefined],
        [[0, 100], 100],
        [[0, 10_000], 10_000],
        [[0, 1000, 2000], 1000],
        [every(50, 1000), 50],
        [[...every(1000, 20), ...every(10, 400).map((time) => 20_000 + time)], 10],
    ])("of %j has a period", (times, period) => {
        const rate = new Rate();
        for (const time of times) rate.arrived(time);
        expect(rate.period).toBe(period);
    });
    test("follows a change within seconds", () => {
        expect(rateAfter([...every(1000, 20), ...every(10, 400).map((time) => 20_000 + time)])).toBeCloseTo(100, 3);
    });
});

describe("a reading is overdue", () => {
    const observed = leavesOf({ x: { "@mac": 1, "@format": "s", "@observe": true } })[0]!;
    const gathered = leavesOf({ x: { "@mac": 1, "@format": "s", "@observe": true, "@flushSize": 2 } })[0]!;
    function seriesOf(times: number[]): Series {
        const series = new Series();
        for (const time of times) series.update(1, time);
        return series;
    }

    test.each<[string, number[], Leaf | undefined, number, boolean]>([
        ["two readings, in time", [0, 10_000], undefined, 10_000 + 31_000, false],
        ["two readings, late", [0, 10_000], undefined, 10_000 + 33_000, true],
        ["three readings, in time", [0, 1000, 2000], undefined, 2000 + 4900, false],
        ["three readings, late", [0, 1000, 2000], undefined, 2000 + 5100, true],
        ["two close together, late", [0, 100], undefined, 100 + 2400, true],
        ["one, not long ago", [0], undefined, 9000, false],
        ["one, long ago", [0], undefined, 11_000, true],
        ["one that comes only on change", [0, 100, 200], observed, 1e9, false],
        ["an array, which does not", [0, 100, 200], gathered, 1e9, true],
    ])("when it could no longer be the present: %s", (_, times, leaf, time, overdue) =>
        expect(seriesOf(times).isOverdue(time, leaf)).toBe(overdue),
    );
    test("and holds until the next if it comes only on change, or is a flag", () => {
        expect(seriesOf([0]).holds(undefined)).toBe(false);
        expect(seriesOf([0]).holds(gathered)).toBe(false);
        expect(seriesOf([0]).holds(observed)).toBe(true);
        const flag = new Series();
        flag.update(false, 0);
        expect(flag.holds(undefined)).toBe(true);
    });
    test("at once when the connection is lost, until the next", () => {
        const series = seriesOf([0, 100]);
        series.interrupt(110);
        expect(series.isOverdue(110, undefined)).toBe(true);
        expect(series.isOverdue(110, observed)).toBe(true);
        series.update(2, 5000);
        expect(series.isOverdue(5000, observed)).toBe(false);
    });
});

describe("decimation", () => {
    const draw = (readings: [number, number][], from: number, to: number, columns: number, holds = false) => {
        const { times, lines } = decimate([{ history: historyOf(readings), holds }], from, to, columns);
        return { times: [...times], line: lines[0]! };
    };

    test("keeps the extremes of every stretch, in order", () => {
        const { line } = draw(
            [
                [10, 5],
                [11, 9],
                [12, 1],
                [13, 4],
                [20, 7],
            ],
            10,
            30,
            2,
        );
        expect(line.slice(0, 4)).toEqual([9, 1, 7, undefined]);
    });
    test("has its stretches on a grid that time does not move", () => {
        expect(draw([], 100, 200, 10).times.slice(0, 3)).toEqual([100, 105, 110]);
        expect(draw([], 103, 203, 10).times.slice(0, 3)).toEqual([100, 105, 110]);
    });
    test("comes in from the reading before, and goes out to the one behind", () => {
        const { line } = draw(
            [
                [0, 3],
                [80, 2],
                [180, 12],
                [260, 4],
            ],
            100,
            200,
            10,
        );
        expect([line[0], line.at(-1)]).toEqual([4, 9.5]); // a fifth of the way up, and at 205 five sixteenths down
    });
    test("runs through where there is no reading, between those on either side", () => {
        const { line } = draw(
            [
                [0, 0],
                [1000, 1000],
            ],
            100,
            200,
            10,
        );
        expect(line).toEqual([100, ...new Array(20).fill(undefined), 205]);
    });
    test.each([
        ["before", [[50, NaN], [150, 1]], 0], // prettier-ignore
        ["behind", [[150, 1], [250, NaN]], -1], // prettier-ignore
    ] as [string, [number, number][], number][])(
        "comes from nowhere where it is interrupted %s",
        (_, readings, end) => {
            expect(draw(readings, 100, 200, 10).line.at(end) ?? undefined).toBeUndefined();
        },
    );
    test("ends before what comes later", () => {
        expect(
            draw(
                [
                    [150, 5],
                    [900, 7],
                ],
                100,
                200,
                10,
            ).line,
        ).not.toContain(7);
    });
    test("draws on what holds", () => {
        expect(draw([[150, 1]], 100, 200, 10, true).line.at(-1)).toBe(1);
        expect(draw([], 100, 200, 10, true).line.at(-1)).toBeUndefined();
    });
    test("holds until the present, and from before the beginning", () => {
        const curve = { history: historyOf([[50, 3]]), holds: true };
        const [line] = decimate([curve], 100, 200, 10, 150).lines;
        expect(line!.flatMap((value, slot) => (value === undefined ? [] : [[slot, value]]))).toEqual([
            [0, 3],
            [10, 3],
        ]);
        expect(decimate([curve], 100, 200, 10, 152).lines[0]![11]).toBe(3);
        expect(decimate([curve], 100, 200, 10, 90).lines[0]).toEqual(new Array(22).fill(undefined));
    });
    test("holds what came last, also where a stretch has greater and smaller ones", () => {
        const readings: [number, number][] = [
            [101, 0],
            [121, 1],
            [123, 0],
            [125, 1],
        ];
        const { line } = draw(readings, 100, 200, 10, true);
        expect(line.slice(4, 7)).toEqual([1, 0, 1]);
        expect(draw([...readings, [141, 5]], 100, 200, 10, true).line.slice(4, 10)).toEqual([
            1,
            0,
            1,
            undefined,
            5,
            undefined,
        ]);
    });
    test("does not grow where its last stretch ends otherwise than its extremes", () => {
        const late: [number, number][] = [
            [201, 0],
            [203, 1],
            [204, 0],
        ];
        expect(draw(late, 100, 200, 10, true).line).toHaveLength(22);
    });
    test("holds up to where the connection was lost", () => {
        const { line } = draw(
            [
                [101, 1],
                [135, NaN],
            ],
            100,
            200,
            10,
            true,
        );
        expect(line.slice(0, 9)).toEqual([
            1,
            undefined,
            undefined,
            undefined,
            undefined,
            undefined,
            undefined,
            1,
            null,
        ]);
    });
    test("has a gap from what is no finite number to the next that is one", () => {
        const { line } = draw(
            [
                [100, 1],
                [115, NaN],
                [145, 2],
                [146, Infinity],
                [147, 3],
            ],
            100,
            160,
            6,
        );
        const none = undefined;
        expect(line).toEqual([1, none, none, none, null, null, null, null, 2, 3, none, none, none, none]);
    });
    test("does not draw on across a gap that is open", () => {
        const { line } = draw(
            [
                [101, 1],
                [102, NaN],
            ],
            100,
            140,
            4,
            true,
        );
        expect(line.slice(0, 4)).toEqual([1, 1, null, null]);
        expect(line.at(-1)).toBeNull();
    });
});

describe("off a curve", () => {
    const history = historyOf([
        [100, 1],
        [200, 5],
        [250, NaN],
        [300, 3],
    ]);

    test.each([
        [99, 1, undefined],
        [100, 1, 1],
        [149, 1, 1],
        [151, 5, 1],
        [200, 5, 5],
        [240, undefined, 5],
        [251, undefined, undefined],
        [299, 3, undefined],
        [1000, 3, 3],
    ])("at %d is read the nearest, or what holds", (time, nearest, held) => {
        expect(readingAt({ history, holds: false }, time)).toBe(nearest);
        expect(readingAt({ history, holds: true }, time)).toBe(held);
    });
    test("there is nothing without readings", () => {
        const none = { history: historyOf([]), holds: false };
        expect(readingAt(none, 5)).toBeUndefined();
        expect(statistics(none, 0, 10)).toBeUndefined();
    });
    test("least, most and mean are those of the readings between two times", () => {
        expect(statistics({ history, holds: false }, 100, 300)).toEqual({ least: 1, most: 5, mean: 3 });
        expect(statistics({ history, holds: false }, 150, 299)).toEqual({ least: 5, most: 5, mean: 5 });
        expect(statistics({ history, holds: false }, 201, 299)).toBeUndefined();
    });
    test("or of what held, for as long as it did, but for gaps", () => {
        // 1 for 50 ms, 5 for 50 ms, a gap, 3 for 100 ms
        expect(statistics({ history, holds: true }, 150, 400)).toEqual({ least: 1, most: 5, mean: 3 });
        // 1 for 90 ms and 5 for 10 ms
        expect(statistics({ history, holds: true }, 110, 210)!.mean).toBeCloseTo(1.4, 9);
        expect(statistics({ history, holds: true }, 500, 600)).toEqual({ least: 3, most: 3, mean: 3 });
    });
});

describe("the marks", () => {
    test("are two at most, in order; a third one begins anew", () => {
        const pointer = new Pointer();
        pointer.mark(5);
        expect([pointer.marks, pointer.span]).toEqual([[5], undefined]);
        pointer.mark(3);
        expect(pointer.span).toEqual({ from: 3, to: 5 });
        pointer.moveMark(0, 9);
        expect(pointer.marks).toEqual([5, 9]);
        pointer.mark(1);
        expect(pointer.marks).toEqual([1]);
        pointer.moveMark(1, 4);
        expect(pointer.marks).toEqual([1, 4]);
        pointer.clear();
        expect(pointer.marks).toEqual([]);
    });
});

describe("the tree", () => {
    const names = (tree: Tree, search = "") => tree.rows(search).map((node) => node.dotted);

    test("grows with messages, sorted as people count", () => {
        const tree = new Tree();
        tree.update({ b: { cell10: 1, cell9: 2 }, a: 3 }, 0);
        expect(names(tree)).toEqual(["a", "b", "b.cell9", "b.cell10"]);
    });
    test("counts a change of shape only when names come", () => {
        const tree = new Tree();
        tree.update({ a: 1 }, 0);
        const { shape } = tree;
        tree.update({ a: 2 }, 1);
        expect(tree.shape).toBe(shape);
        tree.update({ b: 2 }, 1);
        expect(tree.shape).not.toBe(shape);
    });
    test("shows a value at the root", () => {
        const tree = new Tree();
        tree.update(5, 0);
        expect(tree.rows().map(({ name }) => name)).toEqual(["(the whole message)"]);
    });
    test("folds", () => {
        const tree = new Tree();
        tree.update({ a: { b: { c: 1 } }, d: 2 }, 0);
        const { shape } = tree;
        tree.fold(tree.find(["a"])!, true);
        expect(tree.shape).not.toBe(shape);
        expect(names(tree)).toEqual(["a", "d"]);
        expect(names(tree, "c")).toEqual(["a", "a.b", "a.b.c"]);
    });
    test("knows which have had a value, also when more come", () => {
        const tree = new Tree();
        const valued = () => tree.valued.map(({ dotted }) => dotted);
        tree.update({ a: { b: 1 } }, 0);
        expect(valued()).toEqual(["a.b"]);
        tree.update({ c: 1 }, 0);
        expect(valued()).toEqual(["a.b", "c"]);
    });
    test("has what is pinned above all others, also under a new schema", () => {
        const tree = new Tree();
        tree.update({ a: { b: 1, c: 2 }, d: 2 }, 0);
        tree.pin(tree.find(["d"])!, true);
        tree.pin(tree.find(["a", "c"])!, true);
        expect(names(tree)).toEqual(["a.c", "d", "a", "a.b"]);
        expect(names(tree, "b")).toEqual(["a.c", "d", "a", "a.b"]);
        tree.useSchema({ a: { b: { "@mac": 1 } }, d: { "@mac": 1 } });
        expect(names(tree)).toEqual(["d", "a", "a.b"]);
        tree.pin(tree.find(["d"])!, false);
        expect(names(tree)).toEqual(["a", "a.b", "d"]);
    });
    test("finds what has changed since a time", () => {
        const tree = new Tree();
        tree.update({ a: { b: 1, c: NaN }, d: 2 }, 10);
        tree.update({ a: { b: 2, c: NaN }, d: 2 }, 20);
        expect(tree.rows("", 9).map(({ dotted }) => dotted)).toEqual(["a", "a.b", "a.c", "d"]);
        expect(tree.rows("", 10).map(({ dotted }) => dotted)).toEqual(["a", "a.b"]);
        expect(tree.rows("d", 10)).toEqual([]);
        expect(tree.rows("", 20)).toEqual([]);
    });
    test("folds and unfolds all at once", () => {
        const tree = new Tree();
        tree.update({ a: { b: { c: 1 } }, d: 2 }, 0);
        const { shape } = tree;
        tree.foldAll(true);
        expect(tree.shape).not.toBe(shape);
        expect(names(tree)).toEqual(["a", "d"]);
        tree.foldAll(false);
        expect(names(tree)).toEqual(["a", "a.b", "a.b.c", "d"]);
        expect(tree.groups.map(({ dotted }) => dotted)).toEqual(["a", "a.b"]);
        tree.update({ c: { d: 1 } }, 0);
        expect(tree.groups.map(({ dotted }) => dotted)).toEqual(["a", "a.b", "c"]);
        expect(tree.groups).toBe(tree.groups); // not sought again for every drawing
    });
    test("interrupts the curves of all that has come", () => {
        const tree = new Tree();
        tree.update({ a: 1, b: { c: true } }, 5);
        tree.interrupt(7);
        const { history } = tree.find(["b", "c"])!.series!;
        expect(contents(history)).toEqual([
            [5, 1],
            [7, NaN],
        ]);
    });
    test("tells a dot within a name from one between names", () => {
        const tree = new Tree();
        tree.update({ "a.b": 1, a: { b: 2 } }, 0);
        expect(names(tree)).toEqual(["a", "a.b", "a\\.b"]);
    });
    test("counts the values that its schema does not have", () => {
        const tree = new Tree();
        tree.useSchema({ a: { "@mac": 1, "@cmd": 1, "@format": "s" } });
        tree.update({ a: 1 }, 0);
        expect(tree.unexplained).toBe(0);
        tree.update({ b: 1 }, 0);
        tree.update({ b: 2 }, 1);
        expect(tree.unexplained).toBe(1);
    });
    test("keeps the readings of the leaves that a new schema still has", () => {
        const leaf = { "@mac": 1, "@cmd": 1, "@format": "s" };
        const tree = new Tree();
        tree.update({ a: { b: 5 }, c: 6 }, 7);
        tree.useSchema({ a: { b: leaf }, d: leaf });
        expect(names(tree)).toEqual(["a", "a.b", "d"]);
        expect(tree.find(["a", "b"])!.series!.value).toBe(5);
        expect(tree.sameFrame(tree.find(["d"])!.leaf!).map((node) => node.dotted)).toEqual(["a.b", "d"]);
    });
});

describe("writing", () => {
    const leafOf = (options: object): Leaf => leavesOf({ x: { "@mac": 1, "@cmd": 1, ...options } })[0]!;

    test.each<[string, object, string, Value]>([
        ["a whole number", { "@format": "s" }, " -32768 ", -32768],
        ["a scaled number", { "@format": "S", "@factor": 1000 }, "32.767", 32.767],
        ["a float", { "@format": "f" }, "1e-3", 0.001],
        ["a fraction, which is rounded", { "@format": "s" }, "1.5", 1.5],
        ["the largest of a format without a sign", { "@format": "s" }, "65535", 65535],
        ["packed JSON", { "@format": "p" }, '{"a": [1]}', { a: [1] }],
    ])("takes %s", (_, options, text, value) => expect(parseInput(leafOf(options), text)).toEqual({ value }));

    test.each<[string, object, string, string]>([
        ["nothing", { "@format": "s" }, "", "must be a number"],
        ["words", { "@format": "s" }, "fast", "must be a number"],
        ["infinity", { "@format": "f" }, "Infinity", "must be a number"],
        ["what would wrap", { "@format": "s" }, "65536", "must lie between -32768 and 65535"],
        ["what would be clamped", { "@format": "S", "@factor": 1000 }, "40", "must lie between -32.768 and 32.767"],
        [
            "a read-only leaf",
            { "@format": "s", "@mask": 1 },
            "1",
            'x cannot be written: it is read-only, because "@mask" keeps only some of the bits',
        ],
    ])("refuses %s", (_, options, text, problem) => expect(parseInput(leafOf(options), text)).toEqual({ problem }));

    test("says what fails instead of failing, for it is asked while the form is drawn", () => {
        const broken = Object.defineProperty(leafOf({ "@format": "s" }), "factor", {
            get: () => {
                throw new RangeError("no factor");
            },
        });
        expect(parseInput(broken, "5")).toEqual({ problem: "no factor" });
    });

    test("refuses packed text that is no JSON", () => {
        expect(parseInput(leafOf({ "@format": "p" }), "{").problem).toMatch(/^is no JSON/);
    });

    test.each<[object, string]>([
        [{ "@format": "C" }, "a whole number, -128 to 255"],
        [{ "@format": "S", "@factor": 1000 }, "-32.768 to 32.767, in steps of 0.001"],
        [{ "@format": "f" }, "any number (single precision)"],
        [{ "@format": "p" }, "any value, as JSON"],
    ])("tells the range of %j", (options, text) => expect(rangeText(leafOf(options))).toBe(text));

    test.each<[string, [object, number][], number[]]>([
        ["little-endian", [[{ "@format": "s" }, 1200]], [0xb0, 0x04]],
        ["unsigned", [[{ "@format": "I" }, 0xfffffffe]], [0xfe, 0xff, 0xff, 0xff]],
        ["behind a gap of zeros", [[{ "@format": "c", "@skip": 2 }, -1]], [0, 0, 0xff]],
        ["rounded", [[{ "@format": "s" }, 1.5]], [2, 0]],
        ["scaled and rounded", [[{ "@format": "s", "@factor": 10 }, -1.29]], [0xf3, 0xff]],
        ["scaled, where single precision would be one too low", [[{ "@format": "s", "@factor": 100 }, 0.53]], [53, 0]],
        ["a scaled float, rounded", [[{ "@format": "f", "@factor": 10 }, 1.25]], [0, 0, 0x50, 0x41]],
        [
            "together",
            [
                [{ "@format": "C", "@skip": 1 }, 2],
                [{ "@format": "C" }, 1],
            ],
            [1, 2],
        ],
    ])("tells the payload: %s", (_, values, payload) => {
        const made = payloadOf(new Map(values.map(([options, value]) => [leafOf(options), value])))!;
        expect([...made.bytes]).toEqual(payload);
    });

    test.each<[string, string, Value, string]>([
        ["a number", "config", 1, "81 a6 63 6f 6e 66 69 67 01"],
        ["a negative one", "c", -200, "81 a1 63 d1 ff 38"],
        ["one beyond 32 bits, as a float of 64", "c", 2 ** 32, "81 a1 63 cb 41 f0 00 00 00 00 00 00"],
        ["a fraction", "c", 0.5, "81 a1 63 cb 3f e0 00 00 00 00 00 00"],
        ["a flag", "c", true, "81 a1 63 c3"],
        ["a text", "c", "ä", "81 a1 63 a2 c3 a4"],
        ["a list", "c", [1, null, "x"], "81 a1 63 93 01 c0 a1 78"],
        ["a list of as many as fit the short header", "c", new Array(15).fill(0), "81 a1 63 9f" + " 00".repeat(15)],
        ["a list of many", "c", new Array(16).fill(0), "81 a1 63 dc 00 10" + " 00".repeat(16)],
        ["a map, sorted by names", "c", { b: 1, "10": 2, "9": 3 }, "81 a1 63 83 a2 31 30 02 a1 39 03 a1 62 01"],
        ["a map within a list", "c", [{}], "81 a1 63 91 80"],
        ["a name like no other", "c", JSON.parse('{"__proto__": 1}'), "81 a1 63 81 a9 5f 5f 70 72 6f 74 6f 5f 5f 01"],
    ])("tells the payload of packed values: %s", (_, name, value, bytes) => {
        const leaf = { ...leafOf({ "@format": "p" }), path: ["group", name] };
        expect(hexText(payloadOf(new Map([[leaf, value]]))!.bytes)).toBe(bytes);
    });
    test("of a list of very many has a longer header", () => {
        const { bytes } = payloadOf(new Map([[leafOf({ "@format": "p" }), new Array(70000).fill(0)]]))!;
        expect(hexText(bytes.subarray(-70005, -69999))).toBe("dd 00 01 11 70 00");
    });
    test.each([
        ["half a pair", "\ud800"],
        ["a byte order mark", "\ufeffx"],
        ["a name with half a pair", { "\udfff": 1 }],
    ])("does not guess the payload of %s", (_, value) => {
        expect(payloadOf(new Map([[leafOf({ "@format": "p" }), value]]))).toBeUndefined();
    });
    test("appends packed values to what was written before, and later ones overwrite them", () => {
        const named = (name: string, options: object) => ({ ...leafOf(options), path: [name] });
        const [a, c] = [named("a", { "@format": "S", "@skip": 1 }), named("c", { "@format": "C", "@skip": 4 })];
        const p = named("b", { "@format": "p", "@skip": 9 });
        const made = payloadOf(
            new Map<Leaf, Value>([
                [c, 255],
                [p, 7],
                [a, 0x0102],
            ]),
        )!;
        expect([hexText(made.bytes), made.written]).toEqual([
            "00 02 01 81 ff 62 07",
            [false, true, true, true, true, true, true],
        ]);
        expect(payloadOf(new Map<Leaf, Value>([[p, null]]))!.bytes).toHaveLength(0);
    });
});

describe("what goes out", () => {
    /** Leaves of one frame by name, with their last readings, and those of which are written. */
    function plan(schema: Record<string, object>, readings: Record<string, number | boolean>, written: object) {
        const leaves = leavesOf(Object.fromEntries(Object.entries(schema).map(([n, o]) => [n, { "@mac": 1, ...o }])));
        const all = leaves.map((leaf) => ({ leaf, reading: readings[leaf.path[0]!] }));
        const values = Object.entries(written).map(([name, value]): [Leaf, Value] => [
            leaves.find(({ path }) => path[0] === name)!,
            value as Value,
        ]);
        return planOf(new Map(values), all);
    }
    const at = (skip: number, format: string, more = {}) => ({ "@skip": skip, "@format": format, ...more });
    const hex = (frames: Uint8Array[] | undefined) => frames?.map(hexText);
    const texts = (all: Touched[]) => all.map(touchedText);

    test("differs from the last readings in the bytes that are told", () => {
        const schema = { a: at(0, "S"), b: at(2, "S", { "@factor": 10 }), c: at(4, "f"), d: at(8, "C") };
        const { frames, changes, cut, zeroed, left } = plan(
            schema,
            { a: 0x1234, b: 25.6, c: 1 },
            { a: 0x1235, b: 25.6, c: 2 },
        );
        expect(hex(frames)).toEqual(["35 12 00 01 00 00 00 40"]);
        expect(changes).toEqual(["byte 0: 34 → 35", "byte 6: 80 → 00", "byte 7: 3f → 40"]);
        expect([cut, zeroed, texts(left)]).toEqual([0, [], ["d (byte 8)"]]);
    });
    test.each<[string, object, number | boolean, string[] | undefined]>([
        ["nothing was read", { "@format": "C" }, NaN, undefined],
        ["a negative number", { "@format": "s" }, -2, ["byte 0: fe → 00", "byte 1: ff → 00"]],
        [
            "a masked number, in its bits",
            { "@format": "S", "@mask": 0x0103 },
            0x0102,
            ["bit 1 of byte 0: 1 → 0", "bit 0 of byte 1: 1 → 0"],
        ],
        ["a mask without effect", { "@format": "q", "@mask": 1 }, 256, ["byte 1: 01 → 00"]],
        [
            "a flag of one bit that is set",
            { "@format": "C", "@mask": 4, "@asBool": true },
            true,
            ["bit 2 of byte 0: 1 → 0"],
        ],
        ["a flag of one bit that is not", { "@format": "C", "@mask": 4, "@asBool": true }, false, []],
        ["a flag of many bits that is set", { "@format": "C", "@asBool": true }, true, undefined],
        ["a flag of many bits that is not", { "@format": "C", "@asBool": true }, false, []],
        ["a flag of a float", { "@format": "f", "@asBool": true }, false, undefined],
        ["a scaled number", { "@format": "s", "@factor": 100 }, -0.01, ["byte 0: ff → 00", "byte 1: ff → 00"]],
        ["a scaled number beyond single precision", { "@format": "i", "@factor": 100 }, 167772.17, undefined],
    ])("compares with %s", (_, options, reading, changes) => {
        const found = plan({ read: options, written: at(4, "C") }, { read: reading }, { written: 0 });
        expect(found.changes).toEqual(changes);
    });
    test.each<[string, object, string[]]>([
        ["a byte", at(1, "C", { "@asBool": true }), ["x (byte 1)"]],
        ["bytes", at(0, "S", { "@mask": 65535 }), ["x (bytes 0–1)"]],
        ["bits", at(0, "S", { "@mask": 0x8003 }), ["x (bits 0, 1 of byte 0, bit 7 of byte 1)"]],
        ["a whole byte and bits", at(0, "S", { "@mask": 0xff03 }), ["x (bits 0, 1 of byte 0, byte 1)"]],
        ["bits further on", at(1, "C", { "@mask": 6 }), ["x (bits 1, 2 of byte 1)"]],
        ["whole bytes of a mask", at(0, "S", { "@mask": 0xff00 }), ["x (byte 1)"]],
        ["bytes that are partly written", at(1, "S", { "@asBool": true }), ["x (bytes 1–2)"]],
        ["nothing", at(0, "S", { "@mask": 0 }), []],
        ["what has no bytes", at(0, "x"), []],
        ["what is written by another", at(2, "C", { "@mask": 1 }), []],
        ["what is behind the end", at(3, "C", { "@mask": 1 }), []],
    ])("zeroes %s", (_, options, zeroed) => {
        expect(plan({ x: options, written: at(2, "C") }, {}, { written: 1 }).zeroed.map(touchedText)).toEqual(zeroed);
    });
    test("leaves out only what lies behind it as a whole", () => {
        const { left } = plan(
            { x: at(1, "S"), y: at(3, "S"), z: at(3, "S", { "@mask": 0 }), written: at(1, "C") },
            {},
            { written: 1 },
        );
        expect(texts(left)).toEqual(["y (bytes 3–4)"]);
    });
    test("tells the present reading of what it zeroes", () => {
        const { zeroed } = plan({ x: at(0, "C"), written: at(2, "C") }, { x: 7 }, { written: 1 });
        expect([zeroed, texts(zeroed)]).toEqual([[{ what: "x (byte 0)", now: "7" }], ["x (byte 0), now 7"]]);
    });
    test("is cut off after eight bytes, and what lies beyond is left out", () => {
        const { frames, cut, left } = plan({ a: at(6, "I"), b: at(9, "C") }, {}, { a: 0x01020304 });
        expect([hex(frames), cut, texts(left)]).toEqual([["00 00 00 00 00 00 04 03"], 2, ["b (byte 9)"]]);
    });
    test("is as many frames as it takes where the first leaf by name is fragmented", () => {
        const [fragmented, whole] = [at(0, "I", { "@fragmentation": true }), at(6, "I")];
        const both = { a: 1, b: 2 };
        expect(hex(plan({ a: fragmented, b: whole }, {}, both).frames)).toEqual(["01 00 00 00 00 00 02 00", "00 00"]);
        expect(hex(plan({ b: fragmented, a: whole }, {}, both).frames)).toEqual(["02 00 00 00 00 00 01 00"]);
    });
    test("of values that overlap is the later one by name", () => {
        expect(hex(plan({ a: at(0, "S"), b: at(0, "C") }, {}, { b: 3, a: 0x0102 }).frames)).toEqual(["03 01"]);
        expect(hex(plan({ a: at(0, "C"), b: at(0, "S") }, {}, { b: 0x0102, a: 3 }).frames)).toEqual(["02 01"]);
    });
    test.each<[string, string[], string[]]>([
        ["names", ["b", "a", "B"], ["B", "a", "b"]],
        ["groups before what they hold", ["a.b.c", "a", "a.b"], ["a", "a.b", "a.b.c"]],
        ["what a group holds before the next", ["b", "a.z", "a-b"], ["a.z", "a-b", "b"]],
    ])("comes in the order of the daemon: %s", (_, paths, order) => {
        const leaves = paths.map((path): Leaf => ({ ...leavesOf({ "@mac": 1 })[0]!, path: namesOf(path) }));
        expect(leaves.sort(byName).map(({ path }) => dotted(path))).toEqual(order);
    });
    test("has packed values behind the others, and zeroes what lies between", () => {
        const { frames, cut, zeroed } = plan({ x: at(0, "C"), a: at(1, "C"), b: at(0, "p") }, { x: 5 }, { a: 2, b: 1 });
        expect([hex(frames), cut, texts(zeroed)]).toEqual([["00 02 81 a1 62 01"], 0, ["x (byte 0), now 5"]]);
        const config = plan({ config: at(0, "p") }, {}, { config: 1 });
        expect([hex(config.frames), config.cut]).toEqual([["81 a6 63 6f 6e 66 69 67"], 1]);
        expect(hex(plan({ config: at(0, "p", { "@fragmentation": true }) }, {}, { config: 1 }).frames)).toEqual([
            "81 a6 63 6f 6e 66 69 67",
            "01",
        ]);
    });
    test("is not guessed of packed values that do not stay as they are", () => {
        const { frames, changes } = plan({ a: { "@format": "p" } }, {}, { a: "\ud800" });
        expect([frames, changes]).toEqual([undefined, undefined]);
    });
});

describe("a draft", () => {
    const frame = { "@mac": 1, "@cmd": 1 };
    /** The fields and values of a form for the first leaf of a schema, with readings and what was typed. */
    function draft(schema: Record<string, object>, readings: object, typed: Record<string, string>, foreign?: string) {
        const tree = new Tree();
        const whole = Object.entries(schema).map(([name, options]) => [name, { ...frame, ...options }]);
        tree.useSchema(Object.fromEntries(whole));
        tree.update(readings as Value, 0);
        const node = (name: string) => tree.find([name])!;
        const edits = new Map(Object.entries(typed).map(([name, text]) => [node(name), text]));
        const main = node(Object.keys(schema)[0]!);
        const made = new Draft(main, tree.sameFrame(main.leaf!), edits, tree.readings, foreign);
        const values = Object.fromEntries([...made.values].map(([leaf, value]) => [dotted(leaf.path), value]));
        return { ...made, values, isComplete: made.isComplete };
    }
    const schema = { a: { "@format": "S" }, b: { "@format": "S", "@skip": 2 } };

    test("has the present readings of what was not typed", () => {
        expect(draft(schema, { a: 1, b: 2 }, { b: "3" }).values).toEqual({ a: 1, b: 3 });
        expect(draft(schema, { a: 1, b: 2 }, { b: "3" }).isComplete).toBe(true);
        expect(draft(schema, { a: 1, b: 2 }, {}).values).toEqual({ a: 1, b: 2 });
        expect(draft(schema, { a: 1, b: 2 }, {}).isComplete).toBe(false);
    });
    test("has nothing to send where nothing is known", () => {
        const { plan, values, isComplete } = draft(schema, {}, {});
        expect([plan, values, isComplete]).toEqual([undefined, {}, false]);
    });
    test("offers the one that is asked for first, then the others that can be written", () => {
        const others = { a: schema.a, c: { "@format": "C", "@mask": 1 }, d: { "@format": "C", "@cmd": 2 } };
        const names = draft({ b: schema.b, ...others }, {}, {}).fields.map(({ node }) => node.name);
        expect(names).toEqual(["b", "a"]);
    });
    test("has the readings of neighbours, byte by byte", () => {
        const [first, last] = [{ "@format": "C" }, { "@format": "C", "@skip": 1 }];
        expect(draft({ a: first, b: last }, { a: 1, b: 2 }, { a: "3" }).values).toEqual({ a: 3, b: 2 });
        expect(draft({ a: last, b: first }, { a: 1, b: 2 }, { a: "3" }).values).toEqual({ a: 3, b: 2 });
    });
    test("is exact where the text is not", () => {
        const float = { a: { "@format": "C" }, f: { "@format": "f", "@skip": 4 } };
        const reading = Math.fround(16777217 / 3);
        expect(draft(float, { f: reading }, { a: "1" }).values).toEqual({ a: 1, f: reading });
    });
    test("leaves out what was emptied, and sends nothing but emptiness never", () => {
        expect(draft(schema, { a: 1, b: 2 }, { a: "3", b: "" }).values).toEqual({ a: 3 });
        expect(draft(schema, { a: 1, b: 2 }, { b: "" }).isComplete).toBe(false);
    });
    test("is incomplete with a problem anywhere", () => {
        expect(draft(schema, { a: 1, b: 2 }, { a: "3", b: "x" }).isComplete).toBe(false);
    });
    test("does not let a reading undo what was typed for the same bytes", () => {
        const overlapping = { a: { "@format": "C" }, b: { "@format": "S" } };
        expect(draft(overlapping, { a: 1, b: 0x0201 }, { a: "9" }).values).toEqual({ a: 9 });
        expect(draft(overlapping, { a: 1, b: 0x0201 }, { b: "9" }).values).toEqual({ a: 1, b: 9 });
        expect(draft(overlapping, { a: 1, b: 0x0201 }, { a: "9", b: "8" }).values).toEqual({ a: 9, b: 8 });
    });
    test("asks anew when what has to be agreed to changes, not when a reading does", () => {
        const flagged = { a: { "@format": "C", "@skip": 1 }, on: { "@format": "C", "@mask": 1 } };
        const first = draft(flagged, { on: 1 }, { a: "1" }).consequences;
        expect(first).not.toBe("");
        expect(draft(flagged, { on: 0 }, { a: "1" }).consequences).toBe(first);
        expect(draft(flagged, { on: 1 }, { a: "1" }, "why").consequences).not.toBe(first);
        expect(draft(schema, { a: 1, b: 2 }, { a: "1" }).consequences).toBe("");
        const named = (name: string) => ({ a: flagged.a, [name]: flagged.on });
        const one = draft(named("x, now 1"), {}, { a: "1" }).consequences;
        expect(draft(named("x, now 2"), {}, { a: "1" }).consequences).not.toBe(one);
    });
});

describe("a session", () => {
    const schema = '{"a": {"@mac": 5, "@cmd": 2, "@format": "s"}}';
    const addresses: string[] = [];
    beforeEach(() => {
        addresses.length = 0;
        vi.stubGlobal(
            "WebSocket",
            class {
                constructor(url: string) {
                    addresses.push(url);
                }
                close() {}
            },
        );
    });
    afterEach(() => void vi.unstubAllGlobals());

    function sessionWith(query: Record<string, string>, remembered: Record<string, string> = {}, text = schema) {
        const saved = new Map(Object.entries(remembered));
        const surroundings: Surroundings = {
            home: "plant",
            query: new URLSearchParams(query),
            memory: { load: (name) => saved.get(name), save: (name, text) => void saved.set(name, text) },
            read: (name) => (name === "a.json" ? Promise.resolve(text) : Promise.reject(new Error("no such file"))),
        };
        const session = new Session(surroundings);
        session.disconnect();
        return { session, saved };
    }

    test.each([
        ["where it runs", {}, {}, "plant"],
        ["where it was last", {}, { address: "last" }, "last"],
        ["where it was last, when it is asked to", { address: "ws://last:10443/" }, { address: "last" }, "last"],
        ["where it was last, without a password", {}, { address: "ws://a:b@last" }, "ws://last"],
    ])("begins %s", (_, query, remembered, address) => {
        const { session, saved } = sessionWith(query, remembered);
        expect([session.address, addresses, saved.get("address")]).toEqual([address, [toUrl(address)], address]);
    });

    test("uses the schema that it remembers, if it is still one", () => {
        expect(leavesOf(sessionWith({}, { schema }).session.schema!)).toHaveLength(1);
        expect(sessionWith({}, { schema: "{" }).session.schema).toBeUndefined();
    });

    test("connects nowhere and remembers nothing when it is asked to go elsewhere, until somebody agrees", () => {
        const { session, saved } = sessionWith({ address: "ws://a:b@asked" }, { address: "last" });
        expect([session.asked, addresses, saved.get("address")]).toEqual([{ address: "ws://a:b@asked" }, [], "last"]);
        session.acceptLink();
        expect([session.asked, addresses]).toEqual([{}, ["ws://a:b@asked"]]);
        expect(saved.get("address")).toBe("ws://asked");
    });

    test("goes where it was last when nobody agrees", () => {
        const { session, saved } = sessionWith({ address: "asked" }, { address: "last" });
        session.declineLink();
        expect([session.asked, addresses, saved.get("address")]).toEqual([{}, ["ws://last:10443"], "last"]);
    });

    test("counts the least and greatest readings of another daemon anew, as long as somebody looks", () => {
        const { session } = sessionWith({});
        session.chooseColumns(["min"]);
        const before = now();
        session.connect("other");
        session.tree.update({ a: 1 }, now());
        const { since } = session.tree.find(["a"])!.series!.extremes!;
        expect([since.least >= before, since.most >= before]).toEqual([true, true]);
        session.chooseColumns(["raw"]);
        expect(session.tree.find(["a"])!.series!.extremes).toBeUndefined();
        session.disconnect();
    });

    test("says which address of a link is none", () => {
        const { session } = sessionWith({ address: "http://asked" }, { address: "last" });
        expect(addresses).toEqual(["ws://last:10443"]);
        expect(session.log.entries.at(-1)).toMatchObject({
            text: "The link's address is none",
            detail: "http://asked",
        });
    });

    test("reads a schema that it is asked to use, and remembers it once somebody agrees", async () => {
        const { session, saved } = sessionWith({ schema: "a.json" });
        await vi.waitFor(() => expect(session.asked).toEqual({ schema: { name: "a.json", text: schema } }));
        expect([session.schema, saved.get("schema")]).toEqual([undefined, undefined]);
        session.acceptLink();
        expect([session.schema, saved.get("schema")]).toEqual([JSON.parse(schema), schema]);
    });

    test("asks for no schema that it remembers, and forgets one that nobody agrees to", async () => {
        const same = sessionWith({ schema: "a.json" }, { schema });
        const other = sessionWith({ schema: "a.json" }, { schema: "{}" });
        await vi.waitFor(() => expect(other.session.asked.schema).toBeDefined());
        expect(same.session.asked).toEqual({});
        other.session.declineLink();
        expect([other.session.asked, other.saved.get("schema")]).toEqual([{}, "{}"]);
    });

    test.each([
        ["a link says so", { locked: "" }, {}, true],
        ["it was", {}, { locked: "yes" }, true],
        ["it was not", {}, { locked: "" }, false],
        ["nobody said so", {}, {}, false],
    ])("is locked where %s: %j", (_, query, remembered, locked) => {
        expect(sessionWith(query, remembered).session.locked).toBe(locked);
    });

    test("sends nothing while it is locked", async () => {
        const { session, saved } = sessionWith({ locked: "" }, { schema });
        const leaf = leavesOf(session.schema!)[0]!;
        await expect(session.write(new Map([[leaf, 1]]))).rejects.toThrow("The page is locked: nothing was written");
        expect(() => session.setSchema(schema, true)).toThrow("The page is locked: nothing was sent");
        session.unlock();
        expect([session.locked, saved.get("locked")]).toEqual([false, ""]);
        await expect(session.write(new Map([[leaf, 1]]))).rejects.toThrow("Not connected");
        session.lock();
        expect([session.locked, saved.get("locked")]).toEqual([true, "yes"]);
    });

    test("says which schema could not be read", async () => {
        const { session } = sessionWith({ schema: "b.json" });
        await vi.waitFor(() =>
            expect(session.log.entries[0]).toMatchObject({
                text: "The schema b.json could not be loaded",
                detail: "no such file",
            }),
        );
    });
});

describe("drawing", () => {
    /** Counts the drawings of a source that changes, frame by frame of a screen that is moved on by hand. */
    function drawings(pause: number) {
        const frames: (() => void)[] = [];
        vi.stubGlobal("requestAnimationFrame", (draw: () => void) => frames.push(draw));
        vi.stubGlobal("window", globalThis);
        const source = new Source();
        let count = 0;
        const stop = follow(source, () => count++, pause);
        onTestFinished(stop);
        const showFrame = () => frames.splice(0).forEach((draw) => draw());
        return { source, showFrame, stop, count: () => count };
    }
    beforeEach(() => void vi.useFakeTimers());
    afterEach(() => {
        vi.useRealTimers();
        vi.unstubAllGlobals();
    });

    test("happens once a frame, however often values change", () => {
        const { source, showFrame, count } = drawings(0);
        for (let frame = 0; frame < 3; frame++) {
            for (let change = 0; change < 1000; change++) source.changed();
            showFrame();
        }
        expect(count()).toBe(3);
        showFrame();
        expect(count()).toBe(3);
    });
    test("happens no more often than asked for, and not too seldom", () => {
        const { source, showFrame, count } = drawings(100);
        for (let time = 0; time < 1000; time += 10) {
            source.changed();
            showFrame();
            vi.advanceTimersByTime(10);
        }
        expect(count()).toBe(10);
    });
    test("that fails is reported, and does not keep others from theirs", () => {
        const reported = vi.fn();
        vi.stubGlobal("reportError", reported);
        const { source, showFrame, count } = drawings(0);
        const failing = new Source();
        const stop = follow(failing, () => {
            throw new Error("no picture");
        });
        onTestFinished(stop);
        failing.changed();
        source.changed();
        showFrame();
        expect(count()).toBe(1);
        expect(reported).toHaveBeenCalledOnce();
    });
    test("waits while the page is behind, but for one a second", () => {
        const { source, showFrame, count } = drawings(0);
        vi.advanceTimersByTime(2000);
        lag.set(300);
        for (let time = 0; time < 3000; time += 10) {
            source.changed();
            showFrame();
            vi.advanceTimersByTime(10);
        }
        expect(count()).toBe(3);
        lag.set(0);
        showFrame();
        expect(count()).toBe(4);
    });
    test("ends", () => {
        const { source, showFrame, stop, count } = drawings(0);
        source.changed();
        stop();
        showFrame();
        expect(count()).toBe(0);
    });
});

test("the log counts repetitions instead of listing them, but lists everything that was sent", () => {
    const log = new Log();
    log.add("problem", "lost", "1");
    log.add("problem", "lost", "2");
    log.add("sent", "a = 1");
    log.add("sent", "a = 1");
    expect(log.entries.map(({ text, times }) => [text, times])).toEqual([
        ["a = 1", 1],
        ["a = 1", 1],
        ["lost", 2],
    ]);
    expect(log.entries.at(-1)!.detail).toBe("2");
    for (let count = 0; count < 500; count++) log.add("sent", `a = ${count}`);
    expect(log.entries.length).toBeLessThan(300);
});

describe("a silence that speaks for another schema in the daemon", () => {
    const leaf = { "@mac": 1, "@cmd": 1, "@format": "s" };
    const schema = { a: leaf, b: leaf, changes: { ...leaf, "@observe": true }, written: leaf };
    /** What is thought at a time of a tree that got messages at times, connected since 0. */
    function silence(messages: [number, Value][], time: number, connected: number | undefined = 0) {
        const tree = new Tree();
        tree.useSchema(schema);
        for (const [at, values] of messages) tree.update(values, at);
        return silenceIn(tree, connected, time);
    }
    const running: [number, Value][] = [0, 1000, 2000].map((time) => [time, { a: 1, b: 2, changes: 3 }]);

    test("is none while values come", () => expect(silence(running, 2100)).toBeUndefined());
    test("is there when all have failed to come that should", () =>
        expect(silence(running, 10_000)).toEqual({
            certain: false,
            reason: `none of its values has come since ${clockText(2000)}`,
        }));
    test("is none while one still comes", () =>
        expect(silence([...running, [9000, { b: 1 }]], 10_000)).toBeUndefined());
    test("is not that of values that come only when they change", () =>
        expect(silence([[0, { changes: 1 }]], 1e6)).toBeUndefined());
    test("is none before there was a value, or a connection", () => {
        expect(silence([], 1e6)).toBeUndefined();
        const tree = new Tree();
        tree.useSchema(schema);
        tree.update({ a: 1 }, 0);
        expect(silenceIn(tree, undefined, 1e6)).toBeUndefined();
        expect(silenceIn(tree, 1e6 - 4000, 1e6)).toBeUndefined();
        expect(silenceIn(tree, 1e6 - 6000, 1e6)).toBeDefined();
    });
});

describe("the plots", () => {
    const node = (name: string) => new TreeNode([name]);
    const [a, b, c] = [node("a"), node("b"), node("c")];

    test("have a line for each value, which it keeps, and give the number of one that went to the next", () => {
        const plots = new Plots();
        plots.add([a, b]);
        plots.add([b]);
        expect(plots.nodes).toEqual([a, b]);
        plots.remove(a);
        plots.add([c]);
        plots.add([a]);
        expect([a, b, c].map((each) => plots.lineOf(each))).toEqual([2, 1, 0]);
    });
    test("move a value to another plot, or to a new one, with its line; what is empty is gone", () => {
        const plots = new Plots();
        const shown = () => plots.all.map(({ nodes }) => nodes.map(({ name }) => name).join(""));
        plots.add([a, b, c]);
        plots.move(b, plots.below(b));
        expect(shown()).toEqual(["ac", "b"]);
        plots.move(c, plots.below(c));
        expect(shown()).toEqual(["a", "bc"]);
        plots.move(a, plots.below(a));
        expect(shown()).toEqual(["bca"]);
        plots.move(a, undefined);
        plots.move(a, plots.below(a)); // from the last one, alone there, to the first
        expect(shown()).toEqual(["bca"]);
        expect([a, b, c].map((each) => plots.lineOf(each))).toEqual([0, 1, 2]);
        plots.move(node("none"), undefined);
        expect(shown()).toEqual(["bca"]);
    });
    test("keep lines for what takes the place of others", () => {
        const plots = new Plots();
        plots.add([a, b]);
        plots.replace((each) => (each === b ? c : undefined));
        expect([plots.nodes, plots.lineOf(c), plots.lineOf(b)]).toEqual([[c], 1, undefined]);
        plots.clear();
        expect(plots.all).toEqual([]);
    });
});

describe("the clocks", () => {
    test("agree, until the system's is set; times from before keep what the wall showed then", () => {
        let ahead = 0;
        vi.spyOn(Date, "now").mockImplementation(() => now() + ahead);
        const wall = new WallClock();
        const before = now();
        expect(wall.at(before)).toBeCloseTo(before, -1);
        ahead = 3_600_000;
        expect(wall.at(now()) - now()).toBeCloseTo(3_600_000, -1);
        expect(wall.at(before)).toBeCloseTo(before, -1);
        vi.restoreAllMocks();
    });
});

describe("texts", () => {
    test.each([
        [0, 0, "00"],
        [1999.6, 0, "01"],
        [1999.6, 1, "01.9"],
        [1250, 3, "01.250"],
        [1250.04, 5, "01.25004"],
    ])("of the time %d with %d decimals", (time, decimals, text) => {
        expect(clockText(Math.floor(now() / 60_000) * 60_000 + time, decimals).slice(6)).toBe(text);
    });
    test("of times a hundredth of a millisecond apart", () => {
        const minute = Math.floor(now() / 60_000) * 60_000;
        for (let at = 0; at < 100; at++) {
            expect(clockText(minute + at / 100, 5).slice(6)).toBe(`00.000${String(at).padStart(2, "0")}`);
        }
    });
    test.each<[number, string]>([
        [Math.fround(0.1), "0.1"],
        [Math.fround(3.93), "3.93"],
        [4294967295, "4294967295"],
        [-0.5, "-0.5"],
        [1e20, "100000000000000000000"],
        [NaN, "NaN"],
    ])("of the number %d", (value, text) => expect(numberText(value)).toBe(text));
    test.each<[string, Value, string]>([
        ["nil", null, "nil"],
        ["a truth", true, "true"],
        ["a text", 'a"b', '"a\\"b"'],
        ["a bigint", 2n ** 63n, "9223372036854775808"],
        ["a short array", Int8Array.of(1, -2), "2 × [1, -2]"],
        ["a long array", new Float32Array(100), "100 × [0, 0, …]"],
        ["a list", [1, "a"], '[1, "a"]'],
    ])("of %s", (_, value, text) => expect(valueText(value)).toBe(text));
    test.each<[number, object, string]>([
        [Math.fround(0.9000000357627869), { "@factor": 10 }, "0.9"],
        [Math.fround(8 / 3), { "@factor": 3 }, "2.67"],
    ])("of the reading %d at %j", (value, options, text) => {
        const leaf = leavesOf({ "@mac": 1, "@format": "s", ...options })[0]!;
        expect(valueText(value, leaf)).toBe(text);
        expect(valueText(Float32Array.of(value), leaf)).toBe(`1 × [${text}]`);
    });
    test.each([
        [0, "0.0 s"],
        [9940, "9.9 s"],
        [9960, "10 s"],
        [99_000, "99 s"],
        [100_000, "2 min"],
        [7_200_000, "2 h"],
        [-5, "0.0 s"],
    ])("of the age %d", (age, text) => expect(ageText(age)).toBe(text));
    test.each<[number | undefined, string]>([
        [undefined, "–"],
        [0.25, "0.3"],
        [9.96, "10"],
        [1234.5, "1235"],
    ])("of the rate %d", (rate, text) => expect(rateText(rate)).toBe(text));
});
