import { Meanings, type Hello, type Schema } from "vorbel";
import { now, wallClock } from "../clock";
import { Source } from "../source";
import { lineOf, type Entry, type Origin } from "./entry";

/** Bytes of a recording at most. */
export const LIMIT = 128 * 1024 * 1024;
/** They are taken, and given up, in so many pieces. */
const PIECES = 128;
/** The present rate is that of so many last seconds. */
const MEASURED = 10;

/** What a recorder is told of where the values come from. */
export type Recorded = { address: string; hello: Hello | undefined; schema: Schema | undefined };

/** Lines one after the other, and what was in force when they began. */
type Chunk = { bytes: Uint8Array<ArrayBuffer>; used: number; messages: number; begin: number; origin: Origin };

/**
 * What came since it was begun, as lines of a .jsonl file. Made by who is asked to record, and fed by the session. It
 * takes `limit` bytes at most: what has just happened matters more than what was long ago, so the oldest messages go
 * when there is no room, and are counted.
 */
export class Recorder extends Source {
    readonly begun = now();
    /** When it ended; undefined while it goes on. */
    ended: number | undefined;
    messages = 0;
    /** Messages for which there was no room. */
    dropped = 0;
    /** It is in a file as well. */
    saved = false;
    /** Recordings tell the time of the clock on the wall, by which they are looked for, but do not follow when it is set. */
    readonly #ahead = wallClock.at(this.begun) - this.begun;
    readonly #encoder = new TextEncoder();
    #chunks: Chunk[] = [];
    #used = 0;
    #taken = 0;
    #written = 0;
    /** (time, bytes written until then), once a second. */
    #samples: [number, number][] = [];
    #source: Recorded | undefined;
    #origin: Origin = { address: "" };
    #meanings = new Meanings();

    constructor(readonly limit = LIMIT) {
        super();
    }

    take(entry: Entry, source: Recorded): void {
        if (this.ended !== undefined) return;
        if (!isSame(this.#source, source)) this.#setOrigin(entry.time, source);
        this.#append(entry);
        if (!("disconnected" in entry)) this.messages++;
        this.changed();
    }

    stop(): void {
        this.ended ??= now();
        this.changed();
    }

    /** Bytes that it holds. */
    get size(): number {
        return this.#used;
    }

    /** When the oldest that it holds came. */
    get from(): number {
        const first = this.#chunks[0]?.begin ?? this.begun;
        return this.dropped > 0 ? first : Math.min(first, this.begun); // what had waited came before
    }

    /** How many milliseconds it can hold at the present rate; undefined while nothing comes. */
    get capacity(): number | undefined {
        const [time, written] = this.#samples[0] ?? [now(), 0];
        const [elapsed, bytes] = [now() - time, this.#written - written];
        return bytes > 0 && elapsed > 0 ? (this.limit * elapsed) / bytes : undefined;
    }

    /** The recording as a file, which begins with where it comes from. */
    file(): Blob {
        const [first] = this.#chunks;
        const origin = { ...(first?.origin ?? this.#origin), ...(this.dropped > 0 && { dropped: this.dropped }) };
        const head = lineOf({ time: this.#wall(this.from), recording: origin });
        const lines = this.#chunks.map(({ bytes, used }) => bytes.subarray(0, used));
        return new Blob([head, ...lines], { type: "application/x-ndjson" });
    }

    #wall(time: number): number {
        return time + this.#ahead;
    }

    #setOrigin(time: number, { address, hello, schema }: Recorded): void {
        const isFirst = this.#source === undefined;
        this.#source = { address, hello, schema };
        this.#origin = { address, hello, schema };
        this.#meanings = new Meanings(schema);
        if (!isFirst) this.#append({ time, recording: this.#origin });
    }

    #append(entry: Entry): void {
        const line = this.#encoder.encode(lineOf({ ...entry, time: this.#wall(entry.time) }, this.#meanings));
        const chunk = this.#chunkFor(line.length, entry.time);
        if (!chunk) {
            this.dropped++;
            return;
        }
        chunk.bytes.set(line, chunk.used);
        chunk.used += line.length;
        if (!("disconnected" in entry || "recording" in entry)) chunk.messages++;
        this.#used += line.length;
        this.#sample(line.length);
    }

    /** Where a line of some bytes has room; undefined where it has none at all. */
    #chunkFor(size: number, time: number): Chunk | undefined {
        if (size > this.limit) return undefined;
        const last = this.#chunks.at(-1);
        if (last && last.used + size <= last.bytes.length) return last;
        const bytes = new Uint8Array(Math.max(size, Math.floor(this.limit / PIECES)));
        while (this.#taken + bytes.length > this.limit) this.#dropOldest();
        this.#taken += bytes.length;
        const chunk = { bytes, used: 0, messages: 0, begin: time, origin: this.#origin };
        this.#chunks.push(chunk);
        return chunk;
    }

    #dropOldest(): void {
        const { bytes, used, messages } = this.#chunks.shift()!;
        this.#taken -= bytes.length;
        this.#used -= used;
        this.dropped += messages;
    }

    #sample(bytes: number): void {
        const time = now();
        if (time - (this.#samples.at(-1)?.[0] ?? -Infinity) >= 1000) this.#samples.push([time, this.#written]);
        if (this.#samples.length > MEASURED) this.#samples.shift();
        this.#written += bytes;
    }
}

function isSame(one: Recorded | undefined, other: Recorded): boolean {
    return one?.address === other.address && one.hello === other.hello && one.schema === other.schema;
}
