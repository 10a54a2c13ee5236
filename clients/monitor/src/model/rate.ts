const CHECKPOINTS = 40;
const SPACING = 250; // milliseconds
const ENOUGH_ARRIVALS = 8;
const ENOUGH_TIME = 2000;

/**
 * How often something arrives. Measured over the last two seconds or eight arrivals, whichever is longer: steady
 * for slow values, not fooled by fast ones that come in bursts.
 */
export class Rate {
    #count = 0;
    #last = 0;
    /** (time, count) pairs at arrivals, oldest first. */
    #checkpoints: [number, number][] = [];

    arrived(time: number): void {
        this.#count++;
        this.#last = time;
        const newest = this.#checkpoints.at(-1);
        if (newest && time - newest[0] < SPACING) return;
        this.#checkpoints.push([time, this.#count]);
        if (this.#checkpoints.length > CHECKPOINTS) this.#checkpoints.shift();
    }

    /** Arrivals per second; undefined before the second. Sinks when arrivals fail to come. */
    at(now: number): number | undefined {
        const from = this.#checkpoints.findLast(
            ([time, count]) => this.#last - time >= ENOUGH_TIME && this.#count - count >= ENOUGH_ARRIVALS,
        ) ?? this.#checkpoints[0];
        if (!from || this.#count === from[1]) return undefined;
        const intervals = this.#count - from[1];
        const measured = this.#last - from[0];
        const overdue = Math.max(0, now - this.#last - measured / intervals);
        return (1000 * intervals) / Math.max(1, measured + overdue);
    }
}
