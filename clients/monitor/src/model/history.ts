/**
 * The last readings of one value with their times, oldest first. It grows to `limit` readings and then forgets
 * the oldest: thousands of values have a history, of which few are ever looked at closely.
 */
export class History {
    #times = new Float64Array(16);
    #values = new Float64Array(16);
    #start = 0;
    length = 0;
    /** Whether there were more readings than it has. */
    isCut = false;

    constructor(public limit: number) {}

    /** Appends a reading; `time` must not lie before the last one. */
    push(time: number, value: number): void {
        if (this.length === this.#times.length && this.length < this.limit) this.#grow();
        const at = (this.#start + this.length) % this.#times.length;
        this.#times[at] = time;
        this.#values[at] = value;
        if (this.length < this.#times.length) this.length++;
        else this.#forgetOldest();
    }

    /** As if there had been none. */
    clear(): void {
        this.#start = this.length = 0;
        this.isCut = true;
    }

    timeAt(index: number): number {
        return this.#times[(this.#start + index) % this.#times.length]!;
    }

    valueAt(index: number): number {
        return this.#values[(this.#start + index) % this.#values.length]!;
    }

    /** The index of the first reading at or after a time; `length` when there is none. */
    indexAt(time: number): number {
        let [low, high] = [0, this.length];
        while (low < high) {
            const middle = (low + high) >> 1;
            if (this.timeAt(middle) < time) low = middle + 1;
            else high = middle;
        }
        return low;
    }

    #forgetOldest(): void {
        this.#start = (this.#start + 1) % this.#times.length;
        this.isCut = true;
    }

    #grow(): void {
        const size = Math.min(this.limit, 2 * this.length);
        this.#times = this.#unrolled(this.#times, size);
        this.#values = this.#unrolled(this.#values, size);
        this.#start = 0;
    }

    #unrolled(ring: Float64Array, size: number): Float64Array<ArrayBuffer> {
        const grown = new Float64Array(size);
        grown.set(ring.subarray(this.#start));
        grown.set(ring.subarray(0, this.#start), ring.length - this.#start);
        return grown;
    }
}
