/**
 * Milliseconds since 1970 by a clock that only goes forward, whatever is done to the system's. All threads of the page
 * agree on it.
 */
export function now(): number {
    return performance.timeOrigin + performance.now();
}

/** Less than people notice. */
const TOLERANCE = 100;

/**
 * What clocks on the wall say. The system's is set now and then, and goes on while a computer sleeps; times from
 * before that keep the names that they had.
 */
export class WallClock {
    /** From when on the wall's clock is ahead by how much, oldest first. */
    #steps: [from: number, ahead: number][] = [];

    /** Sees whether the system's clock was set; to be called now and then. */
    check(): void {
        const ahead = Date.now() - now();
        const known = this.#steps.at(-1);
        if (known && Math.abs(ahead - known[1]) < TOLERANCE) return;
        this.#steps.push([known ? now() : -Infinity, ahead]);
    }

    /** The milliseconds since 1970 that the wall's clock showed at a time. */
    at(time: number): number {
        this.check();
        const [, ahead] = this.#steps.findLast(([from]) => from <= time)!;
        return time + ahead;
    }
}

export const wallClock = new WallClock();
