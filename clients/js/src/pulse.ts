/** How a connection's life is watched, in milliseconds. */
export type PulseOptions = {
    /** The silence after which the daemon is asked for a sign of life, time and again. */
    askAfter: number;
    /** The silence after which the connection counts as lost. */
    lostAfter: number;
};

/**
 * Notices that nothing comes any more. Silence is counted in ticks of a timer, none of them for longer than it should
 * be: a timer that fires late, because the program was busy or a hidden page is throttled, says nothing about the
 * other side, whose messages may be waiting behind it.
 */
export class Pulse {
    readonly #period: number;
    #silence = 0;
    #timer: ReturnType<typeof setInterval> | undefined;

    constructor(
        readonly options: PulseOptions,
        readonly ask: () => void,
        readonly lost: (silence: number) => void,
    ) {
        this.#period = Math.min(options.askAfter, options.lostAfter) / 4;
    }

    /** Begins anew. */
    start(): void {
        this.stop();
        this.heard();
        if (Number.isFinite(this.#period)) this.#timer = setInterval(() => this.#tick(), this.#period);
    }

    stop(): void {
        clearInterval(this.#timer);
    }

    /** Something came. */
    heard(): void {
        this.#silence = 0;
    }

    #tick(): void {
        this.#silence += this.#period;
        const { askAfter, lostAfter } = this.options;
        if (this.#silence >= lostAfter) {
            this.stop();
            this.lost(this.#silence);
        } else if (this.#silence >= askAfter) {
            this.ask();
        }
    }
}
