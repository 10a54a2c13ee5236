import { Source } from "./source";

/** How far the page's thread is behind what has arrived for it. */
export class Lag extends Source {
    /** The age of what it handles, in milliseconds; 0 while nothing waits. */
    behind = 0;

    set(behind: number): void {
        if (behind === this.behind) return;
        this.behind = behind;
        this.changed();
    }
}

/** There is one thread, and so one of these. */
export const lag = new Lag();
