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
    /** After which time the wall's clock is ahead by how much, oldest first. */
    #steps: [after: number, ahead: number][] = [[-Infinity, 0]];
    #checked = now();

    /** Sees whether the system's clock was set; to be called now and then. */
    check(): void {
        const ahead = Date.now() - now();
        if (Math.abs(ahead - this.#steps.at(-1)![1]) > TOLERANCE) this.#steps.push([this.#checked, ahead]);
        this.#checked = now();
    }

    /** The milliseconds since 1970 that the wall's clock showed at a time. */
    at(time: number): number {
        this.check();
        const [, ahead] = this.#steps.findLast(([after]) => after < time)!;
        return time + ahead;
    }

    /** The time at which the wall's clock showed so many milliseconds since 1970; the last one, if there were several. */
    when(shown: number): number {
        const [, ahead] = this.#steps.findLast(([after, ahead]) => after < shown - ahead)!;
        return shown - ahead;
    }
}

export const wallClock = new WallClock();
