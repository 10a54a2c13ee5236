import type { Leaf, NumericArray, Value } from "vorbel";
import { History } from "./history";
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
    value: Value = null;
    time = 0;
    /** When it was last another value than before; arrays are always new. */
    changed = -Infinity;
    readonly rate = new Rate();
    readonly history = new History(KEPT);
    /** Since the last reading there may have been others that did not come. */
    interrupted = false;

    update(value: Value, time: number): void {
        if (!Object.is(value, this.value)) this.changed = time;
        this.value = value;
        this.time = time;
        this.interrupted = false;
        this.rate.arrived(time);
        if (typeof value === "number" || typeof value === "boolean" || typeof value === "bigint") {
            this.history.push(time, Number(value));
        }
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

    /** Whether each reading holds until the next. */
    holds(leaf: Leaf | undefined): boolean {
        return this.isFlag || isObserved(leaf);
    }

    keepForPlot(): void {
        this.history.limit = KEPT_ON_PLOT;
    }

    /** The last reading as a number; of an array its last element. */
    get number(): number | undefined {
        const last = this.waveform ? this.waveform[this.waveform.length - 1] : this.value;
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
