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

    /** Arrivals per second; undefined before there are two. Sinks when arrivals fail to come. */
    at(now: number): number | undefined {
        const [measured, intervals] = this.#steady();
        if (intervals === 0) return undefined;
        const overdue = Math.max(0, now - this.#last - measured / intervals);
        return (1000 * intervals) / (measured + overdue);
    }

    /** Milliseconds from one arrival to the next, as it was while they came; undefined before there are two. */
    get period(): number | undefined {
        const [measured, intervals] = this.#steady();
        if (intervals > 0) return measured / intervals;
        const first = this.#checkpoints[0];
        return first && this.#count > first[1] ? (this.#last - first[0]) / (this.#count - first[1]) : undefined;
    }

    /** A time and how many intervals it had. */
    #steady(): [measured: number, intervals: number] {
        // From checkpoint to checkpoint: both are the first arrival of a burst, if they come in bursts.
        const to = this.#checkpoints.at(-1);
        if (!to) return [0, 0];
        const isFarEnough = ([time, count]: [number, number]) =>
            to[0] - time >= ENOUGH_TIME && to[1] - count >= ENOUGH_ARRIVALS;
        const from = this.#checkpoints.findLast(isFarEnough) ?? this.#checkpoints[0]!;
        return [to[0] - from[0], to[1] - from[1]];
    }
}
