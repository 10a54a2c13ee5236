import type { Readings } from "./decimate";

/** Readings that came before others, as one history; of the former those that are older than the latter. */
export class Continued implements Readings {
    readonly #count: number;

    constructor(
        readonly older: Readings,
        readonly newer: Readings,
    ) {
        this.#count = newer.length > 0 ? older.indexAt(newer.timeAt(0)) : older.length;
    }

    get length(): number {
        return this.#count + this.newer.length;
    }

    timeAt(index: number): number {
        return index < this.#count ? this.older.timeAt(index) : this.newer.timeAt(index - this.#count);
    }

    valueAt(index: number): number {
        return index < this.#count ? this.older.valueAt(index) : this.newer.valueAt(index - this.#count);
    }

    indexAt(time: number): number {
        const at = this.older.indexAt(time);
        return at < this.#count ? at : this.#count + this.newer.indexAt(time);
    }
}
