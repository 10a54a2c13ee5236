import type { History } from "./history";
import type { TreeNode } from "./tree";

/** Readings as if they had come evenly. */
export type Samples = {
    values: Float64Array;
    /** How many a second; undefined where nothing tells. */
    rate: number | undefined;
};

/**
 * A value's readings between two times: those since the last gap, and no more than the last `most`. Their distance is
 * the mean of all, as what comes at even times arrives at uneven ones. Where no element of an array has a time, they
 * are the last array.
 */
export function samplesOf({ series }: TreeNode, from: number, to: number, most: number): Samples {
    const { history, waveform } = series!;
    const [begin, end] = lastPiece(history, from, to, most);
    if (waveform && end - begin < 2) return { values: Float64Array.from(waveform.slice(-most)), rate: undefined };
    const values = Float64Array.from({ length: end - begin }, (_, at) => history.valueAt(begin + at));
    const time = end > begin ? history.timeAt(end - 1) - history.timeAt(begin) : 0;
    return { values, rate: time > 0 ? (1000 * (values.length - 1)) / time : undefined };
}

/** The indices of the last readings that are numbers, and the one behind them. */
function lastPiece(history: History, from: number, to: number, most: number): [begin: number, end: number] {
    const first = history.indexAt(from);
    const isNumber = (at: number) => Number.isFinite(history.valueAt(at));
    let end = history.indexAt(to);
    while (end > first && !isNumber(end - 1)) end--;
    let begin = end;
    while (begin > first && end - begin < most && isNumber(begin - 1)) begin--;
    return [begin, end];
}
