import { describe, expect, test } from "vitest";
import { leavesOf, type Value } from "vorbel";
import { Plots, shapesOf } from "../src/model/plots";
import { samplesOf } from "../src/model/samples";
import { Series } from "../src/model/series";
import { FEWEST, spectrumOf } from "../src/model/spectrum";
import { Tree } from "../src/model/tree";

/** Arrays over time, and the spectra of readings. */

const sine = (length: number, frequency: number, rate: number, amplitude = 1, phase = 0.3) =>
    Float64Array.from({ length }, (_, at) => amplitude * Math.sin((2 * Math.PI * frequency * at) / rate + phase));

describe("a spectrum", () => {
    /** The amplitude at the bin nearest to a frequency. */
    function at(samples: Float64Array, rate: number, frequency: number): number {
        const { frequencies, amplitudes } = spectrumOf(samples, rate)!;
        const bin = Math.round(frequency / frequencies[1]!);
        expect(Math.abs(frequencies[bin]! - frequency)).toBeLessThanOrEqual(frequencies[1]! / 2 + 1e-9);
        return amplitudes[bin]!;
    }

    test.each([
        ["at a bin, of a power of two", 256, 16, 3],
        ["between bins", 256, 16.37, 3],
        ["of any number of samples", 1000, 100, 0.02],
        ["of any number, between bins", 777, 123.4567, 1e6],
        ["of few samples", 24, 60, 5],
        ["near half the rate", 256, 240, 2],
    ])("has the amplitude of a sine at its frequency: %s", (_, length, frequency, amplitude) => {
        const found = at(sine(length, frequency, 500, amplitude), 500, frequency);
        expect(found / amplitude).toBeGreaterThan(0.988);
        expect(found / amplitude).toBeLessThan(1.003);
    });
    test("is exact at a bin, and has next to nothing elsewhere", () => {
        const { amplitudes } = spectrumOf(sine(256, 32, 256, 3), 256)!;
        expect(amplitudes[4 * 32]!).toBeCloseTo(3, 9);
        const elsewhere = amplitudes.filter((_, bin) => Math.abs(bin - 4 * 32) > 4 * 4);
        expect(Math.max(...elsewhere)).toBeLessThan(0.03 * 3);
    });
    test("tells two sines apart, each with its amplitude", () => {
        const [one, other] = [sine(512, 50, 512, 4), sine(512, 60, 512, 1)];
        const both = one.map((value, index) => value + other[index]!);
        expect(at(both, 512, 50)).toBeCloseTo(4, 1);
        expect(at(both, 512, 60)).toBeCloseTo(1, 1);
    });
    test.each([64, 63, 100])("has what is constant at 0 alone: %d samples", (length) => {
        const { amplitudes } = spectrumOf(new Float64Array(length).fill(-7), 10)!;
        expect(amplitudes[0]).toBeCloseTo(7, 9);
        expect(Math.max(...amplitudes.subarray(1))).toBeLessThan(0.01);
    });
    test.each([64, 100])("has what alternates at half the rate alone: %d samples", (length) => {
        const { frequencies, amplitudes } = spectrumOf(
            Float64Array.from({ length }, (_, at) => (at % 2 ? -2 : 2)),
            10,
        )!;
        expect([frequencies.at(-1), amplitudes.length]).toEqual([5, frequencies.length]);
        expect(amplitudes.at(-1)).toBeCloseTo(2, 9);
        expect(Math.max(...amplitudes.subarray(0, -1))).toBeLessThan(1e-9);
    });
    test("of a sine above a constant has both", () => {
        const samples = sine(200, 25, 100, 1).map((value) => value + 10);
        expect([at(samples, 100, 0), at(samples, 100, 25)]).toEqual([expect.closeTo(10, 6), expect.closeTo(1, 2)]);
    });
    test("needs some samples", () => {
        expect(spectrumOf(new Float64Array(FEWEST - 1), 1)).toBeUndefined();
        expect(spectrumOf(new Float64Array(FEWEST), 1)).toBeDefined();
    });
});

describe("an array over time", () => {
    function seriesOf(...arrays: [time: number, elements: number[]][]): Series {
        const series = new Series();
        series.keepForPlot(true, "time");
        for (const [time, elements] of arrays) series.update(new Int16Array(elements), time);
        return series;
    }
    const readings = ({ history }: Series) =>
        Array.from({ length: history.length }, (_, at) => [history.timeAt(at), history.valueAt(at)]);

    test("has its elements spread since the array before, the last one now", () => {
        const series = seriesOf([1000, [1, 2]], [1400, [3, 4, 5, 6]], [1500, [7]]);
        expect(readings(series)).toEqual([
            [1100, 3],
            [1200, 4],
            [1300, 5],
            [1400, 6],
            [1500, 7],
        ]);
    });
    test("goes on after a gap, as far as usual, and not into what was before", () => {
        const series = seriesOf([1000, [1]], [1100, [2, 3]], [1200, [4, 5]]);
        series.interrupt(1290);
        series.update(new Int16Array([6, 7]), 1300);
        series.interrupt(5000);
        series.update(new Int16Array([8, 9]), 6000);
        expect(readings(series).slice(4)).toEqual([
            [1290, NaN],
            [1295, 6],
            [1300, 7],
            [5000, NaN],
            [5950, 8],
            [6000, 9],
        ]);
    });
    test("has no history where nobody draws it so, and none for an empty one", () => {
        const series = seriesOf([1000, [1]], [1100, []]);
        expect(readings(series)).toEqual([]);
        series.keepForPlot(true, "wave");
        series.update(new Int16Array([1]), 1200);
        series.keepForPlot(false, "time");
        series.update(new Int16Array([1]), 1300);
        expect(readings(series)).toEqual([]);
        series.keepForPlot(true, "spectrum");
        series.update(new Int16Array([1]), 1400);
        expect(readings(series)).toEqual([[1400, 1]]);
    });
});

describe("samples", () => {
    function nodeWith(readings: [number, number][], value?: Value) {
        const tree = new Tree();
        tree.update({ a: value ?? 0 }, 0);
        const node = tree.find(["a"])!;
        node.series = new Series();
        for (const [time, reading] of readings) node.series.history.push(time, reading);
        if (value) node.series.value = value;
        return node;
    }
    const regular = (count: number): [number, number][] => Array.from({ length: count }, (_, at) => [10 * at, at]);

    test("are those between two times, at their mean rate", () => {
        const { values, rate } = samplesOf(nodeWith(regular(50)), 100, 200, 1000);
        expect([[...values], rate]).toEqual([[10, 11, 12, 13, 14, 15, 16, 17, 18, 19], 100]);
    });
    test("that arrive in bursts have the mean rate as well", () => {
        const bursts = regular(40).map(([time, value]): [number, number] => [Math.floor(time / 50) * 50, value]);
        const { rate } = samplesOf(nodeWith(bursts), 0, 1000, 1000);
        expect(rate).toBeCloseTo((1000 * 39) / 350, 6);
    });
    test("are the last ones, where there are too many", () => {
        expect([...samplesOf(nodeWith(regular(50)), 0, 1000, 3).values]).toEqual([47, 48, 49]);
    });
    test("begin after the last gap, also where one is open", () => {
        const readings = regular(20);
        readings[5]![1] = NaN;
        readings[12]![1] = Infinity;
        readings[19]![1] = NaN;
        expect([...samplesOf(nodeWith(readings), 0, 1000, 100).values]).toEqual([13, 14, 15, 16, 17, 18]);
    });
    test("are the last array at an unknown rate, where none of its elements has a time", () => {
        const { values, rate } = samplesOf(nodeWith([], new Int8Array([1, 2, 3])), 0, 1000, 2);
        expect([[...values], rate]).toEqual([[2, 3], undefined]);
    });
    test("are none, where there is nothing", () => {
        expect(samplesOf(nodeWith([]), 0, 1000, 100)).toEqual({ values: new Float64Array(), rate: undefined });
    });
});

describe("a value is drawn", () => {
    const [observed] = leavesOf({ a: { "@mac": 1, "@format": "S", "@observe": true } });
    function nodeOf(value: Value) {
        const tree = new Tree();
        tree.update({ a: value }, 0);
        return tree.find(["a"])!;
    }
    test.each<[string, Value, string[]]>([
        ["an array", new Int8Array(2), ["wave", "time", "spectrum"]],
        ["a number", 1, ["time", "spectrum"]],
        ["a flag", true, ["time"]],
    ])("as what it can be: %s", (_, value, shapes) => {
        const [plots, node] = [new Plots(), nodeOf(value)];
        expect([shapesOf(node), plots.shapeOf(node)]).toEqual([shapes, shapes[0]]);
        plots.add([node]);
        for (const shape of ["wave", "time", "spectrum"] as const) {
            plots.drawAs(node, shape);
            expect(plots.shapeOf(node)).toBe(shapes.includes(shape) ? shape : shapes[0]);
        }
    });
    test("over time, if it comes only when it changes", () => {
        const node = nodeOf(1);
        node.leaf = observed;
        expect(shapesOf(node)).toEqual(["time"]);
    });
    test("as chosen, also elsewhere and by its successor, but not when it is plotted again", () => {
        const [plots, node, next] = [new Plots(), nodeOf(1), nodeOf(2)];
        plots.add([node]);
        plots.drawAs(node, "spectrum");
        plots.move(node, undefined);
        expect(plots.shapeOf(node)).toBe("spectrum");
        plots.replace(() => next);
        expect(plots.shapeOf(next)).toBe("spectrum");
        plots.remove(next);
        plots.add([next]);
        expect(plots.shapeOf(next)).toBe("time");
    });
    test("where there is a place reserved for it, in the order of these", () => {
        const plots = new Plots();
        const [first, second] = [plots.reserve(), plots.reserve()];
        const [a, b, c] = [nodeOf(1), nodeOf(2), nodeOf(3)];
        plots.place(a, second);
        plots.place(b, first);
        plots.place(c, first);
        plots.place(c, second);
        expect(plots.all.map(({ nodes }) => nodes)).toEqual([[b, c], [a]]);
        expect([a, b, c].map((node) => plots.lineOf(node))).toEqual([0, 1, 2]);
    });
});
