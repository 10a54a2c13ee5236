import type { Value } from "vorbel";
import type { Series } from "./series";
import type { Tree } from "./tree";

export type End = "least" | "most";

/** The least and the greatest reading of one value, and since when; those of arrays are of their elements. */
export class Extremes {
    least = Infinity;
    most = -Infinity;
    readonly since: Record<End, number>;

    constructor(since: Readonly<Record<End, number>>) {
        this.since = { ...since };
    }

    take(value: Value): void {
        if (typeof value === "number") this.#widen(value);
        else if (ArrayBuffer.isView(value)) value.forEach((element: number) => this.#widen(element));
    }

    reset(end: End, time: number): void {
        this[end] = end === "least" ? Infinity : -Infinity;
        this.since[end] = time;
    }

    /** What was taken means something else. */
    forget(time: number): void {
        for (const end of ["least", "most"] as const) this.reset(end, time);
    }

    /** What is no number is neither. */
    #widen(value: number): void {
        if (value < this.least) this.least = value;
        if (value > this.most) this.most = value;
    }
}

/** The extremes of all values of a tree. While nobody wants them, they cost nothing. */
export class ExtremesOfAll {
    #since: Record<End, number> | undefined;

    constructor(readonly tree: Tree) {}

    /** Begins with what is still known from a time on. */
    begin(since: number): void {
        if (this.#since) return;
        this.#since = { least: since, most: since };
        for (const { series } of this.tree.valued) this.#attach(series!);
        this.tree.onSeries = (series) => void (series.extremes = new Extremes(this.#since!));
    }

    end(): void {
        this.#since = this.tree.onSeries = undefined;
        for (const { series } of this.tree.valued) series!.extremes = undefined;
    }

    reset(end: End, time: number): void {
        if (!this.#since) return;
        this.#since[end] = time;
        for (const { series } of this.tree.valued) series!.extremes?.reset(end, time);
    }

    #attach(series: Series): void {
        const from = Math.max(this.#since!.least, knownSince(series));
        series.extremes = new Extremes({ least: from, most: from });
        const { history, waveform, isFlag } = series;
        if (waveform) series.extremes.take(waveform);
        if (waveform || isFlag) return;
        for (let at = history.indexAt(from); at < history.length; at++) series.extremes.take(history.valueAt(at));
    }
}

/** Since when all readings are known; of arrays, only the last one is kept. */
function knownSince({ history, waveform, time }: Series): number {
    if (waveform) return time;
    return history.isCut ? history.timeAt(0) : -Infinity;
}
