import { leavesOf } from "vorbel";
import { afterEach, beforeEach, describe, expect, test, vi } from "vitest";
import { Archive, joined, pointsIn, queryOf, stepOf } from "../src/model/archive.js";
import { now } from "../src/model/clock.js";
import { Continued } from "../src/model/continued.js";
import { decimate } from "../src/model/decimate.js";
import { History } from "../src/model/history.js";
import { curveOf } from "../src/model/plots.js";
import { Series } from "../src/model/series.js";
import { TreeNode } from "../src/model/tree.js";

function historyOf(...readings: [time: number, value: number][]): History {
    const history = new History(100);
    for (const [time, value] of readings) history.push(time, value);
    return history;
}

const readingsIn = (history: History | Continued) => {
    const { length } = history;
    return Array.from({ length }, (_, at) => [history.timeAt(at), history.valueAt(at)]);
};

describe("readings of before and after", () => {
    test("are one history, of which the page's own come last", () => {
        const all = new Continued(historyOf([1, 10], [2, 20], [3, 30], [9, 90]), historyOf([3, 31], [4, 41]));
        expect(readingsIn(all)).toEqual([
            [1, 10],
            [2, 20],
            [3, 31],
            [4, 41],
        ]);
        expect([0, 1, 1.5, 2, 3, 3.5, 4, 5].map((time) => all.indexAt(time))).toEqual([0, 0, 1, 1, 2, 3, 3, 4]);
    });

    test("are those of before alone while the page has none", () => {
        expect(readingsIn(new Continued(historyOf([1, 10], [2, 20]), new History(5)))).toEqual([
            [1, 10],
            [2, 20],
        ]);
    });

    test("are drawn as one curve", () => {
        const node = new TreeNode(["a"]);
        node.series = new Series();
        node.series.update(3, 3000);
        node.series.before = historyOf([1000, 1], [2000, 2]);
        const { lines } = decimate([curveOf(node)], 1000, 4000, 3);
        expect(lines[0]!.filter((value) => value !== undefined)).toEqual([1, 2, 3]);
    });
});

describe("what the database answers", () => {
    test("becomes the least, the greatest and the last of each step", () => {
        const history = joined(
            {
                least: [
                    [10_000, 1],
                    [20_000, 5],
                    [30_000, 2],
                ],
                most: [
                    [10_000, 9],
                    [20_000, 5],
                    [30_000, 2],
                ],
                last: [
                    [10_000, 4],
                    [20_000, 5],
                    [30_000, 2],
                ],
            },
            10,
            false,
        );
        expect(readingsIn(history)).toEqual([
            [0, 1],
            [5000, 9],
            [10_000, 4],
            [10_000, 5],
            [20_000, 2],
        ]);
    });

    test("is interrupted where nothing came for long, but for what holds until it changes", () => {
        const points: [number, number][] = [
            [10_000, 1],
            [320_001, 2],
        ];
        const parts = { least: points, most: points, last: points };
        expect(readingsIn(joined(parts, 10, true))).toEqual([
            [0, 1],
            [310_001, 2],
        ]);
        expect(readingsIn(joined(parts, 10, false))).toEqual([
            [0, 1],
            [10_000, NaN],
            [310_001, 2],
        ]);
    });

    test("is read as points", () => {
        const text = '{"status":"success","data":{"result":[{"values":[[1790000000,"1.5"],[1790000010,"NaN"]]}]}}';
        const [[time, value]] = pointsIn(text) as [[number, number]];
        expect(value).toBe(1.5);
        expect(Math.abs(time - 1790000000000)).toBeLessThan(1000);
        expect(pointsIn(text)).toHaveLength(1);
        expect(pointsIn('{"status":"success","data":{"result":[]}}')).toEqual([]);
    });

    test.each([
        ["<html>", "the history service answers with something else"],
        ["null", "the history service answers: undefined"],
        ['{"status":"error","error":"too many"}', "the history service answers: too many"],
        ['{"status":"success","data":{"result":[{"values":5}]}}', "the history service answers with something else"],
        [" ".repeat(2 ** 24 + 1), "the history service answers with more than 16 MiB"],
    ])("%.60s is refused", (text, problem) => expect(() => pointsIn(text)).toThrow(problem));
});

test.each([
    [1, 1],
    [1000, 1],
    [1001, 2],
    [3_600_000, 3600],
    [1e12, 86_400],
])("for pixels of %d ms, steps of %d s are asked for", (pixel, step) => expect(stepOf(pixel)).toBe(step));

test("names in a query are texts, whatever they hold", () => {
    expect(queryOf("min", { board: 'a"b\\', path: "motor.speed" }, 10)).toBe(
        'min_over_time(vorbel_value{board="a\\"b\\\\",path="motor.speed"}[10s])',
    );
});

describe("an archive", () => {
    let asked: URL[];
    let answer: () => Promise<string>;
    let archive: Archive;
    let node: TreeNode;
    const success = '{"status":"success","data":{"result":[]}}';

    beforeEach(() => {
        vi.useFakeTimers();
        asked = [];
        answer = () => Promise.resolve(success);
        node = new TreeNode(["press7", "motor", "speed"]);
        node.series = new Series();
        [node.leaf] = leavesOf({ a: { "@mac": 1, "@format": "s" } });
        const labels = { board: "press7", path: "motor.speed" };
        archive = new Archive(
            "https://page/history/",
            (each) => (each === node ? labels : undefined),
            (url) => {
                asked.push(new URL(url));
                return answer();
            },
        );
    });
    afterEach(() => void vi.useRealTimers());

    test("is asked, once, for what the page does not know, in steps of the plot's pixels", async () => {
        const to = now();
        node.series!.update(5, to - 60_000);
        for (let at = 0; at < 10; at++) archive.want([node], to - 3_600_000, to, 600);
        await vi.advanceTimersByTimeAsync(249);
        expect(asked).toEqual([]);
        await vi.advanceTimersByTimeAsync(1);
        expect(asked.map(({ pathname }) => pathname)).toEqual(new Array(3).fill("/history/api/v1/query_range"));
        const [least] = asked;
        const { query, start, end, step } = Object.fromEntries(least!.searchParams);
        expect(query).toBe('min_over_time(vorbel_value{board="press7",path="motor.speed"}[10s])');
        expect(step).toBe("10s");
        expect(Number(end) - Number(start)).toBeCloseTo(5340, 0); // half a width more than is seen, to the first reading
        archive.want([node], to - 3_600_000, to, 600);
        await vi.advanceTimersByTimeAsync(5000);
        expect(asked).toHaveLength(3);
        archive.want([node], to - 36_000_000, to, 600);
        await vi.advanceTimersByTimeAsync(5000);
        expect(asked).toHaveLength(6);
    });

    test("is asked again for a closer look", async () => {
        const to = now();
        archive.want([node], to - 3_600_000, to, 600);
        await vi.advanceTimersByTimeAsync(2000);
        archive.want([node], to - 1_800_000, to - 1_200_000, 600);
        await vi.advanceTimersByTimeAsync(2000);
        expect(asked.map(({ searchParams }) => searchParams.get("step"))).toEqual([
            ...new Array(3).fill("10s"),
            ...new Array(3).fill("1s"),
        ]);
    });

    test("is not asked for what the page has itself", async () => {
        const to = now();
        node.series!.update(5, to - 60_000);
        archive.want([node], to - 60_000, to, 600);
        await vi.advanceTimersByTimeAsync(5000);
        expect(asked).toEqual([]);
    });

    test("that does not answer is left alone for a minute, and says so once", async () => {
        let told = 0;
        archive.watch(() => told++);
        answer = () => Promise.reject(new Error("there is no history service"));
        const others = [1, 2, 3].map(() => Object.assign(new TreeNode(["b"]), { series: new Series() }));
        const all = new Archive("https://page/history", () => ({ board: "b", path: "p" }), archive.get);
        all.want(others, now() - 3_600_000, now(), 600);
        await vi.advanceTimersByTimeAsync(1000);
        expect(asked.splice(0)).toHaveLength(1);
        const want = () => archive.want([node], now() - 3_600_000, now(), 600);
        for (let at = 0; at < 20; at++) {
            want();
            await vi.advanceTimersByTimeAsync(1000);
        }
        expect([asked.length, told, archive.problem]).toEqual([1, 1, "there is no history service"]);
        answer = () => Promise.resolve(success);
        await vi.advanceTimersByTimeAsync(60_000);
        want();
        await vi.advanceTimersByTimeAsync(1000);
        expect([asked.length, archive.problem]).toEqual([4, undefined]);
    });
});
