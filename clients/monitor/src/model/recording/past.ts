import type { Leaf, Value } from "vorbel";
import { History } from "../history";
import { Rate } from "../rate";
import { Series } from "../series";

/** What stands where the connection was lost. */
const GAP = Symbol("gap");

/** All readings of a value, of which it shows the one of a time. */
export class RecordedSeries extends Series {
    override readonly history = new History(Infinity);
    override readonly rate: Rate = new PastRate(this);
    /** The readings themselves, as soon as there is one that the history cannot tell. */
    #values: (Value | typeof GAP)[] | undefined;
    /** What the daemon sent, as soon as that is something else. */
    #readings: Value[] | undefined;
    #areFlags = false;
    #gaps = new Set<number>();
    /** The readings that are others than those before them. */
    #changes: number[] = [];
    #newest: Value | undefined;
    /** Which reading is shown; -1 before the first one. */
    shown = -1;

    /** `count` hears of each reading, and may refuse it by throwing. */
    constructor(readonly count: () => void = () => undefined) {
        super();
    }

    override update(reading: Value, time: number): void {
        this.count();
        const value = this.meantBy(reading);
        if (this.converts) (this.#readings ??= []).push(reading);
        if (this.history.length === 0) this.#areFlags = typeof value === "boolean";
        const isPlain = typeof value === (this.#areFlags ? "boolean" : "number");
        if (!isPlain) this.#values ??= this.#all();
        this.#values?.push(value);
        if (!Object.is(value, this.#newest)) this.#changes.push(this.history.length);
        this.#newest = value;
        this.history.push(time, typeof value === "number" || typeof value === "boolean" ? Number(value) : NaN);
    }

    /** Only before the first reading: what was read is kept as what it meant. */
    override explain(leaf: Leaf | undefined): void {
        if (this.history.length === 0) super.explain(leaf);
    }

    override interrupt(time: number): void {
        if (this.history.length === 0) return;
        this.#gaps.add(this.history.length);
        this.#values?.push(GAP);
        this.#readings?.push(null);
        this.history.push(time, NaN);
    }

    /** Shows what was the present at a time. */
    seek(time: number): void {
        const last = lastAt(this.history, time);
        this.shown = last;
        while (this.#gaps.has(this.shown)) this.shown--;
        this.interrupted = this.shown < last;
        this.value = this.shown < 0 ? null : this.#valueAt(this.shown);
        this.reading = this.#readings?.[this.shown] ?? this.value;
        this.time = this.shown < 0 ? 0 : this.history.timeAt(this.shown);
        const change = this.#changes.findLast((index) => index <= this.shown);
        this.changed = change === undefined ? -Infinity : this.history.timeAt(change);
    }

    override get hasReading(): boolean {
        return this.shown >= 0;
    }

    override get keepsElements(): boolean {
        return false;
    }

    override get end(): number {
        return this.shown + 1;
    }

    override get isFlag(): boolean {
        return this.#areFlags && !this.#values;
    }

    override isOverdue(time: number, leaf: Leaf | undefined): boolean {
        return this.hasReading && super.isOverdue(time, leaf);
    }

    override keepForPlot(): void {
        // All of it is kept anyway.
    }

    #all(): (Value | typeof GAP)[] {
        return Array.from({ length: this.history.length }, (_, index) =>
            this.#gaps.has(index) ? GAP : this.#valueAt(index),
        );
    }

    #valueAt(index: number): Value {
        if (this.#values) return this.#values[index] as Value;
        const number = this.history.valueAt(index);
        return this.#areFlags ? number !== 0 : number;
    }
}

/** The index of the last reading that had come at a time; -1 when there was none. */
export function lastAt(history: History, time: number): number {
    return history.indexAt(time + HALF_A_MICROSECOND) - 1;
}

/** Recordings have whole ones. */
const HALF_A_MICROSECOND = 0.0005;

/** Readings that are looked at for a rate, and their age: as many and as long as the rate of the present takes. */
const MOST = 4000;
const LONGEST = 10_000;

/** How often readings came, before the one that is shown. */
class PastRate extends Rate {
    constructor(readonly series: RecordedSeries) {
        super();
    }

    override at(now: number): number | undefined {
        return this.#measured().at(now);
    }

    override get period(): number | undefined {
        return this.#measured().period;
    }

    #measured(): Rate {
        const { history, shown } = this.series;
        const from = Math.max(0, shown - MOST, Math.min(shown - 20, history.indexAt(this.series.time - LONGEST)));
        const rate = new Rate();
        for (let index = from; index <= shown; index++) rate.arrived(history.timeAt(index));
        return rate;
    }
}
