import type { Curve } from "./decimate";

/** What is read off curves. */

/** The reading that a curve shows at a time: the one that holds, or else the nearest; undefined where there is none. */
export function readingAt({ history, holds }: Curve, time: number): number | undefined {
    const next = history.indexAt(time);
    const isNext = next < history.length && (history.timeAt(next) === time || (!holds && isNearer(next)));
    const index = isNext ? next : next - 1;
    if (index < 0) return undefined;
    const value = history.valueAt(index);
    return Number.isFinite(value) ? value : undefined;

    function isNearer(index: number): boolean {
        return index === 0 || history.timeAt(index) - time < time - history.timeAt(index - 1);
    }
}

export type Statistics = { least: number; most: number; mean: number };

/**
 * Of a curve between two times: of its readings, or, where they hold, of what it was for how long. Undefined where
 * there is nothing.
 */
export function statistics(curve: Curve, from: number, to: number): Statistics | undefined {
    let [least, most, sum, weight] = [Infinity, -Infinity, 0, 0];
    for (const [value, share] of curve.holds ? periods(curve, from, to) : readings(curve, from, to)) {
        if (!Number.isFinite(value)) continue;
        least = Math.min(least, value);
        most = Math.max(most, value);
        sum += share * value;
        weight += share;
    }
    return weight > 0 ? { least, most, mean: sum / weight } : undefined;
}

type Weighted = [value: number, weight: number];

function* readings({ history }: Curve, from: number, to: number): Generator<Weighted> {
    for (let at = history.indexAt(from); at < history.length && history.timeAt(at) <= to; at++) {
        yield [history.valueAt(at), 1];
    }
}

function* periods({ history }: Curve, from: number, to: number): Generator<Weighted> {
    for (let at = Math.max(0, history.indexAt(from) - 1); at < history.length && history.timeAt(at) < to; at++) {
        const end = at + 1 < history.length ? Math.min(to, history.timeAt(at + 1)) : to;
        yield [history.valueAt(at), end - Math.max(from, history.timeAt(at))];
    }
}
