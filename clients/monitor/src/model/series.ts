import type { NumericArray, Value } from "vorbel";
import { History } from "./history";
import { Rate } from "./rate";

/** Readings kept of every value, so that a plot begins with a past; and of those on a plot. */
const KEPT = 1024;
const KEPT_ON_PLOT = 1 << 18;

/** One value over time. Times are milliseconds since 1970. */
export class Series {
    value: Value = null;
    time = 0;
    readonly rate = new Rate();
    readonly history = new History(KEPT);

    update(value: Value, time: number): void {
        this.value = value;
        this.time = time;
        this.rate.arrived(time);
        if (typeof value === "number" || typeof value === "boolean" || typeof value === "bigint") {
            this.history.push(time, Number(value));
        }
    }

    /** A gap in the curve: readings may have been missed from a time on. */
    interrupt(time: number): void {
        if (this.history.length > 0) this.history.push(time, NaN);
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
