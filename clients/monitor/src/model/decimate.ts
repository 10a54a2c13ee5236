import type { History } from "./history";

/**
 * What is to be drawn. One that `holds` keeps each reading until the next, as does a value that comes only when it
 * changes; others go straight from reading to reading.
 */
export type Curve = { history: Readings; holds: boolean };

/** What is asked of a history here. */
export type Readings = Pick<History, "length" | "timeAt" | "valueAt" | "indexAt">;

/**
 * Histories as lines over common times: of each of `columns` equal stretches between two times, the least and
 * the greatest reading of every history, in the order in which they occurred. What takes longer than a pixel
 * is drawn, however short it was, and the cost of drawing does not grow with the number of readings.
 * Stretches without a reading are undefined, and null where the curve is interrupted: after a reading that is no
 * finite number, until the next that is one. Lines run to both ends: there stands what holds, or what lies between the
 * readings on either side. Nothing holds beyond the present.
 * The stretches lie on a fixed grid, so that lines do not shimmer while time moves on.
 */
export function decimate(curves: Curve[], from: number, to: number, columns: number, present = Infinity) {
    const width = (to - from) / columns;
    const first = Math.floor(from / width);
    const count = Math.ceil(to / width) - first + 1;
    const grid = { first, width, count };
    const times = Float64Array.from({ length: 2 * count }, (_, slot) => timeOf(grid, slot));
    const lines = curves.map(({ history, holds }) =>
        holds ? heldLine(history, grid, present) : straightLine(history, grid),
    );
    return { times, lines };
}

type Line = (number | null | undefined)[];
/** Stretches of a width in milliseconds, each with two slots; the first one begins `first` widths after 1970. */
type Grid = { first: number; width: number; count: number };

function timeOf({ first, width }: Grid, slot: number): number {
    return (first + slot / 2) * width;
}

function straightLine(history: Readings, grid: Grid): Line {
    const line: Line = new Array(2 * grid.count).fill(undefined);
    const last = line.length - 1;
    const begin = history.indexAt(timeOf(grid, 0));
    let gap = Infinity; // the slot where it begins
    widen(line, 0, between(history, begin, timeOf(grid, 0)));
    let at = begin;
    for (; at < history.length; at++) {
        const column = columnOf(history.timeAt(at), grid);
        if (column >= grid.count) break;
        const value = finite(history.valueAt(at));
        if (value !== undefined) {
            line.fill(null, gap, 2 * column);
            gap = Infinity;
            widen(line, 2 * column, value);
        } else {
            gap = Math.min(gap, 2 * column + 2);
        }
    }
    line.fill(null, gap);
    if (gap === Infinity) line[last] ??= between(history, at, timeOf(grid, last));
    return line;
}

function heldLine(history: Readings, grid: Grid, present: number): Line {
    const line: Line = new Array(2 * grid.count).fill(undefined);
    const begin = history.indexAt(timeOf(grid, 0));
    let held = finite(begin > 0 ? history.valueAt(begin - 1) : NaN);
    let gap = Infinity;
    let latest = 0; // the column of the last reading
    if (timeOf(grid, 0) <= present) widen(line, 0, held);
    for (let at = begin; at < history.length; at++) {
        const column = columnOf(history.timeAt(at), grid);
        if (column >= grid.count) break;
        if (column > latest) settle(line, latest, held);
        latest = column;
        const value = finite(history.valueAt(at));
        if (value !== undefined) {
            line.fill(null, gap, 2 * column);
            gap = Infinity;
            widen(line, 2 * column, value);
        } else if (gap === Infinity) {
            line[2 * column + 1] ??= held;
            gap = 2 * column + 2;
        }
        held = value;
    }
    line.fill(null, gap);
    if (gap === Infinity) holdOn(line, grid, latest, held, present);
    return line;
}

/** What came last in a column goes on into the next one, also where the column's extremes do not end with it. */
function settle(line: Line, column: number, held: number | undefined): void {
    const shown = line[2 * column + 1] ?? line[2 * column];
    if (shown !== held) widen(line, 2 * column + 2, held);
}

/** Draws what is held on to the present, or to the end if that comes first. */
function holdOn(line: Line, grid: Grid, latest: number, held: number | undefined, present: number): void {
    const slot = Math.min(line.length - 1, Math.ceil(2 * (present / grid.width - grid.first)));
    if (slot < 0) return;
    if (latest + 1 < grid.count) settle(line, latest, held);
    line[slot] ??= held;
}

function finite(value: number): number | undefined {
    return Number.isFinite(value) ? value : undefined;
}

function columnOf(time: number, { first, width }: Grid): number {
    return Math.max(0, Math.floor(time / width) - first);
}

/** What lies at a time on the straight line between the reading before an index and the one there. */
function between(history: Readings, index: number, time: number): number | undefined {
    if (index === 0 || index >= history.length) return undefined;
    const [earlier, later] = [history.timeAt(index - 1), history.timeAt(index)];
    const [from, to] = [history.valueAt(index - 1), history.valueAt(index)];
    if (!Number.isFinite(from) || !Number.isFinite(to)) return undefined;
    return later > earlier ? from + ((to - from) * (time - earlier)) / (later - earlier) : to;
}

/** Lets the pair at `slot` cover a further reading; the extreme that came later stays second. */
function widen(values: Line, slot: number, value: number | undefined): void {
    if (value === undefined) return;
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
