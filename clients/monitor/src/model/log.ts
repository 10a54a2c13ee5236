import { now } from "./clock";
import { Source } from "./source";

export type Kind = "sent" | "schema" | "connection" | "problem";
export type Entry = { id: number; kind: Kind; time: number; text: string; detail: string; times: number };

const KEPT = 200;

/** What went out and what happened, newest first. */
export class Log extends Source {
    entries: Entry[] = [];
    #next = 0;

    /** A repetition of the newest entry only counts it up: a broken leaf fails many times a second. */
    add(kind: Kind, text: string, detail = ""): void {
        const [newest] = this.entries;
        const repeated = newest?.kind === kind && newest.text === text && kind !== "sent";
        const entry: Entry = repeated
            ? { ...newest, time: now(), detail, times: newest.times + 1 }
            : { id: this.#next++, kind, time: now(), text, detail, times: 1 };
        this.entries = [entry, ...this.entries.slice(repeated ? 1 : 0, KEPT)];
        this.changed();
    }

    clear(): void {
        this.entries = [];
        this.changed();
    }
}
