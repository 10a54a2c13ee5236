import type { Leaf, NumericArray, Value } from "vorbel";
import type { Extremes } from "./extremes";
import { History } from "./history";
import { conversionOf, hasLabels, isConverted, meantBy } from "./meaning";
import type { Shape } from "./plots";
import { Rate } from "./rate";

/** Readings kept of every value, so that a plot begins with a past; and of those on a plot. */
const KEPT = 1024;
const KEPT_ON_PLOT = 1 << 18;

/** A value may be late by so many of its periods, and so many milliseconds. */
const PATIENCE = { periods: 3, time: 2000 };
/** As long as no second reading has told the period, in milliseconds. */
const FIRST_PATIENCE = 10_000;

/** Whether a leaf's value comes only when it changes. */
export function isObserved(leaf: Leaf | undefined): boolean {
    return leaf !== undefined && leaf.observe && leaf.flushSize <= 0;
}

/** One value over time. Times are milliseconds since 1970. */
export class Series {
    /** As the daemon sent it. */
    reading: Value = null;
    /** What that means, which is what is kept, drawn and compared. */
    value: Value = null;
    time = 0;
    /** When it was last another value than before; arrays are always new. */
    changed = -Infinity;
    readonly rate = new Rate();
    readonly history = new History(KEPT);
    /** Those of before the page was there, as far as somebody has fetched them. */
    before: History | undefined;
    /** Since the last reading there may have been others that did not come. */
    interrupted = false;
    /** While somebody wants them. */
    extremes: Extremes | undefined;

    /** Whether elements of arrays go into the history. */
    spreads = false;
    /** Hears of every reading. */
    guard: ((value: Value, time: number) => void) | undefined;

    /** The leaf that says what readings mean, where they mean something else than themselves. */
    #converting: Leaf | undefined;

    update(reading: Value, time: number): void {
        const value = this.meantBy(reading);
        if (this.spreads && ArrayBuffer.isView(value)) this.#spread(value, time);
        this.reading = reading;
        this.interrupted = false;
        this.rate.arrived(time);
        this.#take(value, time);
    }

    /** From now on the leaf says what readings mean; those before may have meant something else. */
    explain(leaf: Leaf | undefined): void {
        const isSame = conversionOf(leaf) === conversionOf(this.#converting);
        this.#converting = leaf && isConverted(leaf) ? leaf : undefined;
        if (isSame || this.reading === null) return;
        this.history.clear();
        this.extremes?.forget(this.time);
        this.#take(this.meantBy(this.reading), this.time);
    }

    /** Whether what is kept are other numbers than the readings. */
    protected get converts(): boolean {
        return this.#converting !== undefined;
    }

    protected meantBy(reading: Value): Value {
        return this.#converting ? meantBy(this.#converting, reading) : reading;
    }

    #take(value: Value, time: number): void {
        if (!Object.is(value, this.value)) this.changed = time;
        this.value = value;
        this.time = time;
        this.extremes?.take(value);
        if (typeof value === "number" || typeof value === "boolean" || typeof value === "bigint") {
            this.history.push(time, Number(value));
        }
        this.guard?.(value, time);
    }

    /**
     * The elements of an array, as if they had come one by one since the array before: the last one came now. After a
     * gap they take as long as usual; where nothing tells how long that is, they have no times.
     */
    #spread(array: NumericArray, time: number): void {
        const { history } = this;
        const before = this.interrupted ? time - (this.rate.period ?? NaN) : this.time;
        const from = history.length > 0 ? Math.max(before, history.timeAt(history.length - 1)) : before;
        if (!(from > 0)) return;
        const step = (time - from) / array.length;
        for (let at = 0; at < array.length; at++) history.push(from + (at + 1) * step, array[at]!);
    }

    /** A gap in the curve: readings may have been missed from a time on. */
    interrupt(time: number): void {
        this.interrupted = true;
        if (this.history.length > 0) this.history.push(time, NaN);
    }

    /** Whether the last reading is no longer the present: one should have come since, or could not. */
    isOverdue(time: number, leaf: Leaf | undefined): boolean {
        if (this.interrupted) return true;
        if (isObserved(leaf)) return false;
        const { period } = this.rate;
        const patience = period === undefined ? FIRST_PATIENCE : PATIENCE.time + PATIENCE.periods * period;
        return time - this.time > patience;
    }

    /** Whether each reading holds until the next; between two labels there is nothing. */
    holds(leaf: Leaf | undefined): boolean {
        return this.isFlag || isObserved(leaf) || (leaf !== undefined && hasLabels(leaf));
    }

    get hasReading(): boolean {
        return true;
    }

    /** How many readings of the history have come. */
    get end(): number {
        return this.history.length;
    }

    /** Whether the elements of its arrays can be drawn over time. */
    get keepsElements(): boolean {
        return true;
    }

    /** Arrays have a history only where their elements are drawn over time. */
    keepForPlot(isPlotted: boolean, shape: Shape): void {
        if (isPlotted) this.history.limit = KEPT_ON_PLOT;
        this.spreads = isPlotted && shape !== "wave";
    }

    /** The last value as a number; of an array its last element. */
    get number(): number | undefined {
        const last = lastOf(this.value);
        return typeof last === "number" ? last : undefined;
    }

    /** The array, when the value is one: a waveform instead of a history. */
    get waveform(): NumericArray | undefined {
        return ArrayBuffer.isView(this.value) ? this.value : undefined;
    }

    get isFlag(): boolean {
        return typeof this.value === "boolean";
    }
}

/** The last element of an array; any other value is its own. */
export function lastOf(value: Value): Value | undefined {
    return ArrayBuffer.isView(value) ? value.at(-1) : value;
}
