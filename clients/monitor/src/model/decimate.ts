import type { History } from "./history";

/** What is to be drawn; `holds` draws the last reading on to the end, as for a flag that changes now and then. */
export type Curve = { history: History; holds: boolean };

/**
 * Histories as lines over common times: of each of `columns` equal stretches between two times, the least and
 * the greatest reading of every history, in the order in which they occurred. What takes longer than a pixel
 * is drawn, however short it was, and the cost of drawing does not grow with the number of readings.
 * Stretches without a reading are undefined, and null where the curve is interrupted: after a reading that is no
 * finite number, until the next that is one.
 * The stretches lie on a fixed grid, so that lines do not shimmer while time moves on.
 */
export function decimate(curves: Curve[], from: number, to: number, columns: number) {
    const width = (to - from) / columns;
    const first = Math.floor(from / width);
    const count = Math.ceil(to / width) - first + 1;
    const times = Float64Array.from({ length: 2 * count }, (_, at) => (first + at / 2) * width);
    return { times, lines: curves.map((curve) => line(curve, first, width, count)) };
}

type Line = (number | null | undefined)[];

function line({ history, holds }: Curve, first: number, width: number, count: number): Line {
    const values: Line = new Array(2 * count).fill(undefined);
    let last: number | undefined;
    let gap = Infinity; // the slot where it begins
    // One reading from before, so that the line comes in from the edge.
    let at = Math.max(0, history.indexAt(first * width) - 1);
    for (; at < history.length; at++) {
        const column = Math.max(0, Math.floor(history.timeAt(at) / width) - first);
        if (column >= count) break;
        last = history.valueAt(at);
        if (Number.isFinite(last)) {
            values.fill(null, gap, 2 * column);
            gap = Infinity;
            widen(values, 2 * column, last);
        } else {
            gap = Math.min(gap, 2 * column + 2);
        }
    }
    values.fill(null, gap);
    if (holds && gap === Infinity) values[2 * count - 1] = last;
    return values;
}

/** Lets the pair at `slot` cover a further reading; the extreme that came later stays second. */
function widen(values: Line, slot: number, value: number): void {
    const [a, b] = [values[slot], values[slot + 1]];
    if (a == null) {
        values[slot] = value;
    } else if (b == null) {
        values[slot + 1] = value;
    } else if (value > Math.max(a, b) || value < Math.min(a, b)) {
        const opposite = value > Math.max(a, b) ? Math.min(a, b) : Math.max(a, b);
        values[slot] = opposite;
        values[slot + 1] = value;
    }
}
