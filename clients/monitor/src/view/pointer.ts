import { Source } from "../model/source";
import type { Window } from "./window";

/** Where in time somebody points at the plots, and which times are marked to measure between them. */
export class Pointer {
    readonly moves = new Source();
    readonly marking = new Source();
    /** At most two, the earlier one first. */
    marks: readonly number[] = [];
    #time: (() => number) | undefined;

    /** Follows a place whose time changes while the plot moves on; undefined when nobody points. */
    follow(time: (() => number) | undefined): void {
        this.#time = time;
        this.moves.changed();
    }

    get time(): number | undefined {
        return this.#time?.();
    }

    /** What lies between two marks. */
    get span(): Window | undefined {
        const [from, to] = this.marks;
        return from !== undefined && to !== undefined ? { from, to } : undefined;
    }

    /** One more mark; a third one begins anew. */
    mark(time: number): void {
        this.#setMarks(this.marks.length < 2 ? [...this.marks, time] : [time]);
    }

    /** Moves the first or the second mark, or sets one that is missing. */
    moveMark(which: 0 | 1, time: number): void {
        this.#setMarks(
            this.marks.length > which
                ? this.marks.map((mark, at) => (at === which ? time : mark))
                : [...this.marks, time],
        );
    }

    clear(): void {
        this.#setMarks([]);
    }

    #setMarks(marks: readonly number[]): void {
        this.marks = [...marks].sort((one, other) => one - other);
        this.marking.changed();
    }
}
