import type uPlot from "uplot";
import { wallClock } from "../model/clock";
import { clockText, numberText, shown, stampText } from "../model/text";
import type { TreeNode } from "../model/tree";
import { color } from "./canvas";

/** Axes of plots, and the ranges of values that they show. */

export function axis(options: uPlot.Axis): uPlot.Axis {
    return {
        stroke: color("--quiet"),
        font: "12px system-ui, sans-serif",
        grid: { stroke: color("--grid"), width: 1 },
        ticks: { show: false },
        ...options,
    };
}

/** Seconds between two labels of a time axis, from a hundredth of a millisecond to ten days. */
const TIME_STEPS = [
    ...[-5, -4, -3, -2, -1].flatMap((power) => [1, 2, 5].map((digit) => Number(`${digit}e${power}`))),
    ...[1, 2, 5, 10, 15, 30, 60, 120, 300, 600, 900, 1800, 3600, 7200, 14_400, 28_800, 86_400],
    ...[2, 5, 10].map((days) => days * 86_400),
];

/** Times of day with as many decimals as tell one label from the next. Times are in seconds since 1970. */
export function timeAxis(): uPlot.Axis {
    return axis({
        size: 34,
        incrs: TIME_STEPS,
        space: (_, __, from, to) => (to - from > DAY ? 110 : 70 + 8 * decimalsOf((to - from) / 8)),
        splits: (_, __, from, to, step) => timeSplits(from, to, step),
        values: ({ scales }, seconds, __, ___, step) => {
            const { min, max } = scales["x"]!;
            const isLong = max! - min! > DAY;
            return seconds.map((second) => (isLong ? dayText(second) : clockText(second * 1000, decimalsOf(step))));
        },
    });
}

/** In seconds. */
const DAY = 86_400;

/** "11-22 13:04" */
function dayText(second: number): string {
    return stampText(wallClock.at(second * 1000)).slice(5, 16);
}

/** Multiples of a step on the wall's clock. */
function timeSplits(from: number, to: number, step: number): number[] {
    const ahead = wallClock.at(to * 1000) / 1000 - to;
    const first = Math.ceil((from + ahead) / step);
    const count = Math.max(0, Math.floor((to + ahead) / step) - first + 1);
    return Array.from({ length: count }, (_, at) => (first + at) * step - ahead);
}

function decimalsOf(step: number): number {
    return Math.max(0, Math.ceil(-Math.log10(step) - 1e-9));
}

/** What an axis of values takes from the width of a plot, in pixels. */
export const AXIS_WIDTH = 48;

/** What the units beside an axis take more. */
export const UNIT_WIDTH = 16;

/** A scale of values: its colour where there are several, and what its values are measured in. */
export type ValueScale = { name: string; stroke: string; units: string };

/** The units of values that are drawn by one scale, each once. */
export function unitsOf(nodes: TreeNode[]): string {
    const units = nodes.map(({ leaf }) => shown(leaf?.meaning.unit ?? "")).filter(Boolean);
    return [...new Set(units)].join(", ");
}

/** Where an axis begins and ends, whatever is in sight, if all values that are drawn by it have bounds. */
export function boundsOf(nodes: TreeNode[]): [least: number, most: number] | undefined {
    const bounds = nodes.map(({ leaf }) => [leaf?.meaning.min ?? NaN, leaf?.meaning.max ?? NaN] as const);
    const least = Math.min(...bounds.map(([min]) => min));
    const most = Math.max(...bounds.map(([, max]) => max));
    return least < most ? [least, most] : undefined;
}

/** One axis for each scale, left and right in turn; several have the colours of their curves. */
export function valueAxes(scales: ValueScale[]): uPlot.Axis[] {
    return scales.map(({ name, stroke, units }, at) =>
        axis({
            scale: name,
            side: at % 2 === 0 ? 3 : 1,
            size: AXIS_WIDTH,
            gap: 4,
            values: (_, splits, __, ___, step) => splits.map((split) => axisText(split, step)),
            ...(scales.length > 1 ? { stroke, font: LABEL_FONT } : {}),
            ...(at > 0 ? { grid: { show: false } } : {}),
            ...(units ? { label: units, labelSize: UNIT_WIDTH, labelGap: 0, labelFont: LABEL_FONT } : {}),
        }),
    );
}

const LABEL_FONT = "11px system-ui, sans-serif";

/** A number in the little room that an axis has, as far as it goes with the decimals that its neighbours differ by. */
function axisText(value: number, step: number): string {
    const exact = value.toFixed(Math.min(20, decimalsOf(step)));
    if (exact.length <= 8) return exact;
    const text = numberText(value);
    return text.length <= 8 ? text : value.toExponential(text.includes("e") ? 1 : 2).replace("e+", "e");
}

/** A little air above and below what is in sight; a constant value lies in the middle. */
export function paddedRange(_: uPlot, least: number | null, most: number | null): [number, number] {
    if (least == null || most == null) return [0, 1];
    const padding = 0.08 * (most - least) || Math.abs(most) * 0.1 || 1;
    return [least - padding, most + padding];
}

/** The same around all that is drawn by a scale, also from beyond the edges, where there may be nothing between. */
function wholeRange(plot: uPlot, scale: string, bounds: [number, number] | undefined): [number, number] {
    let [least, most] = bounds ?? [Infinity, -Infinity];
    for (const [at, series] of plot.series.entries()) {
        if (at === 0 || series.scale !== scale) continue;
        for (const value of plot.data[at] ?? []) {
            if (value == null) continue;
            least = Math.min(least, value);
            most = Math.max(most, value);
        }
    }
    return least > most ? [0, 1] : paddedRange(plot, least, most);
}

/** What scales were zoomed to, by their names. */
export type Zooms = ReadonlyMap<string, [number, number]>;

/** A scale of numbers. */
export function numberScale(name: string, zooms: () => Zooms, bounds?: [number, number]): uPlot.Scale {
    return { range: (plot) => zooms().get(name) ?? wholeRange(plot, name, bounds) };
}

/** Closer together than this share of themselves, numbers can hardly be told apart. */
const CLOSEST = 1e-9;

/** What all scales of numbers show between two shares of the plot's height, from its top. */
export function zoomed(plot: uPlot, top: number, bottom: number): Zooms {
    const zooms = new Map<string, [number, number]>();
    for (const [name, { min, max }] of Object.entries(plot.scales)) {
        if (name === "x" || min == null || max == null) continue;
        const range: [number, number] = [max - bottom * (max - min), max - top * (max - min)];
        const isTooClose = range[1] - range[0] < CLOSEST * Math.max(Math.abs(min), Math.abs(max));
        zooms.set(name, isTooClose ? [min, max] : range);
    }
    return zooms;
}

/** Of the scale of a flag: from one flag to the next one above it. */
const LANE = 1.5;

/** A scale that puts one of several flags into a lane of its own. */
export function laneScale(lane: number, lanes: number): uPlot.Scale {
    const bottom = -0.25 - LANE * lane;
    return { range: [bottom, bottom + LANE * lanes] };
}

/** The two states of all flags, by the scale of the lowest one. */
export function flagAxis(scale: string, lanes: number, side: 1 | 3): uPlot.Axis {
    const states = Array.from({ length: 2 * lanes }, (_, at) => LANE * (at >> 1) + (at % 2));
    return axis({
        scale,
        side,
        size: 18,
        gap: 4,
        grid: { show: false },
        splits: () => states,
        values: () => states.map((_, at) => String(at % 2)),
    });
}
