import { now, wallClock } from "./clock";
import { History } from "./history";
import { Source } from "./source";
import type { Series } from "./series";
import type { TreeNode } from "./tree";

/** The readings of before the page was there, from a database that is asked by PromQL over HTTP. */

/** Milliseconds without another wish before it is asked: who turns a wheel wants the last picture only. */
const CALM = 250;
/** Milliseconds between two questions for the same value, at least. */
const PAUSE = 1000;
/** After it did not answer, it is left alone for so long. */
const REST = 60_000;
/** What is asked for in one go, in points of one series. */
const MOST_POINTS = 4000;
/** Characters of an answer that are looked at. */
const LONGEST = 16 * 1024 * 1024;
/** Steps, in seconds, that are asked for: what has come once fits the next picture. */
const STEPS = [1, 2, 5, 10, 15, 30, 60, 120, 300, 600, 900, 1800, 3600, 7200, 14_400, 43_200, 86_400];

/** What a value is called in the database. */
export type Labels = { board: string; path: string };

/** What was asked for and came. Times are the page's, in milliseconds. */
type Piece = { from: number; to: number; step: number };

/** Asks for what plots have to show and the page does not know. It changes when something has come. */
export class Archive extends Source {
    /** Why there is none; undefined while it answers. */
    problem: string | undefined;
    readonly #pieces = new WeakMap<Series, Piece>();
    readonly #asked = new WeakMap<Series, number>();
    #wanted = new Map<TreeNode, Piece>();
    #isWaiting = false;
    #restsUntil = -Infinity;

    constructor(
        /** Where "/api/v1/query_range" is. */
        readonly url: string,
        readonly labelsOf: (node: TreeNode) => Labels | undefined,
        /** The text that a URL has. */
        readonly get: (url: string) => Promise<string>,
    ) {
        super();
    }

    /** A plot shows values between two times in so many pixels. */
    want(nodes: readonly TreeNode[], from: number, to: number, columns: number): void {
        if (now() < this.#restsUntil) return;
        const step = stepOf((to - from) / columns);
        for (const node of nodes) {
            const { series } = node;
            if (!series || series.waveform) continue;
            const begin = series.history.length > 0 ? series.history.timeAt(0) : to;
            if (begin <= from || this.#covers(series, from, Math.min(begin, to), step)) continue;
            // More than what is seen, as it moves on.
            const margin = (to - from) / 2;
            this.#wanted.set(node, { from: from - margin, to: Math.min(begin, to + margin), step });
        }
        if (this.#wanted.size === 0 || this.#isWaiting) return;
        this.#isWaiting = true;
        setTimeout(() => void this.#ask(), CALM);
    }

    #covers(series: Series, from: number, to: number, step: number): boolean {
        const piece = this.#pieces.get(series);
        if (!piece || piece.step > step) return false;
        return piece.from <= from && piece.to >= to - 2 * step * 1000;
    }

    async #ask(): Promise<void> {
        this.#isWaiting = false;
        const wanted = this.#wanted;
        this.#wanted = new Map();
        const time = now();
        for (const [node, piece] of wanted) {
            const labels = this.labelsOf(node);
            const series = node.series;
            if (!labels || !series || now() < this.#restsUntil || time - (this.#asked.get(series) ?? -Infinity) < PAUSE)
                continue;
            this.#asked.set(series, time);
            await this.#fetch(series, series.holds(node.leaf), labels, piece);
        }
    }

    async #fetch(series: Series, holds: boolean, labels: Labels, { from, to, step }: Piece): Promise<void> {
        const begin = Math.max(from, to - MOST_POINTS * step * 1000);
        try {
            // One after the other: where nobody answers, one question is enough.
            const parts = { least: [] as Point[], most: [] as Point[], last: [] as Point[] };
            for (const [part, which] of [
                ["least", "min"],
                ["most", "max"],
                ["last", "last"],
            ] as const) {
                parts[part] = pointsIn(await this.get(this.#urlOf(queryOf(which, labels, step), begin, to, step)));
            }
            series.before = joined(parts, step, holds);
            this.#pieces.set(series, { from, to, step });
            this.problem = undefined;
        } catch (error) {
            this.problem = (error as Error).message;
            this.#restsUntil = now() + REST;
        }
        this.changed();
    }

    #urlOf(query: string, from: number, to: number, step: number): string {
        const seconds = (time: number) => (wallClock.at(time) / 1000).toFixed(3);
        // What has come in the last seconds counts as well.
        const times = { start: seconds(from), end: seconds(to), step: `${step}s`, latency_offset: "1ms", nocache: "1" };
        return `${this.url.replace(/\/+$/, "")}/api/v1/query_range?${new URLSearchParams({ query, ...times })}`;
    }
}

/** Where the past is asked for: below the page's own server, unless somebody names another place. */
export function historyUrl(asked: string | null, page: string): string {
    return new URL(asked || "./history", page).href;
}

/** The smallest step that is no shorter than some milliseconds, in seconds. */
export function stepOf(milliseconds: number): number {
    return STEPS.find((step) => step * 1000 >= milliseconds) ?? STEPS.at(-1)!;
}

/** "min_over_time(vorbel_value{board="press7",path="motor.speed"}[10s])" */
export function queryOf(which: string, { board, path }: Labels, step: number): string {
    return `${which}_over_time(vorbel_value{board=${JSON.stringify(board)},path=${JSON.stringify(path)}}[${step}s])`;
}

type Answer = { status?: unknown; error?: unknown; data?: { result?: { values?: unknown }[] } };

function answerIn(text: string): Answer {
    try {
        return (JSON.parse(text) ?? {}) as Answer;
    } catch {
        throw new Error("the history service answers with something else");
    }
}

type Point = [time: number, value: number];

/** The points of an answer to query_range, of its only series. Throws what is wrong with it. */
export function pointsIn(text: string): Point[] {
    if (text.length > LONGEST) throw new Error("the history service answers with more than 16 MiB");
    const { status, data, error } = answerIn(text);
    if (status !== "success") throw new Error(`the history service answers: ${String(error ?? status)}`);
    const values: unknown = data?.result?.[0]?.values ?? [];
    if (!Array.isArray(values)) throw new Error("the history service answers with something else");
    return values
        .map(([seconds, value]): Point => [wallClock.when(Number(seconds) * 1000), Number(value)])
        .filter(([time, value]) => Number.isFinite(time) && Number.isFinite(value));
}

/** Longer than this, in milliseconds, and than three steps, without a reading is a gap. */
const GAP = 300_000;

/**
 * The least, the greatest and the last of each step, which ends at its time. A curve that does not hold its readings
 * is interrupted where none came for long.
 */
export function joined(
    { least, most, last }: { least: Point[]; most: Point[]; last: Point[] },
    step: number,
    holds: boolean,
): History {
    const [greatest, latest] = [new Map(most), new Map(last)];
    const width = step * 1000;
    const history = new History(4 * MOST_POINTS);
    let end = -Infinity;
    for (const [time, value] of least) {
        const begin = Math.max(end, time - width);
        if (!holds && begin - end > Math.max(GAP, 3 * width) && end > -Infinity) history.push(end, NaN);
        end = Math.max(end, time);
        history.push(begin, value);
        const [high = value, final = value] = [greatest.get(time), latest.get(time)];
        if (high !== value) history.push((begin + end) / 2, high);
        if (high !== value || final !== value) history.push(end, final);
    }
    return history;
}
