import type { Value } from "vorbel";
import { Rate } from "../rate";
import { BYTES, framesIn, NODES, type Frame } from "./frames";

/** What was seen on a bus: how often, how long, between which bounds, and the last frames of each endpoint. */

/** How many frames of an endpoint are kept. */
export const RECENT = 1024;

/** The last frames and their times. What is kept takes the same room from the first on. */
export class Recent {
    readonly #times = new Float64Array(RECENT);
    readonly #lengths = new Uint8Array(RECENT);
    readonly #bytes = new Uint8Array(RECENT * BYTES);
    #count = 0;

    /** How many are there. */
    get length(): number {
        return Math.min(this.#count, RECENT);
    }

    push(payload: Uint8Array, time: number): void {
        const place = this.#count++ % RECENT;
        this.#times[place] = time;
        this.#lengths[place] = payload.length;
        this.#bytes.set(payload, place * BYTES);
    }

    /** The time of a frame, 0 being the oldest. */
    timeAt(at: number): number {
        return this.#times[this.#placeOf(at)]!;
    }

    /** Its bytes, which are others once a later frame has taken their place. */
    payloadAt(at: number): Uint8Array {
        const place = this.#placeOf(at);
        return this.#bytes.subarray(place * BYTES, place * BYTES + this.#lengths[place]!);
    }

    #placeOf(at: number): number {
        return (this.#count - this.length + at) % RECENT;
    }
}

/** What was seen of one identifier. */
export class Endpoint {
    /** Frames. */
    count = 0;
    /** The last one. */
    payload: Uint8Array = new Uint8Array();
    readonly lengths = new Set<number>();
    /** The least and the greatest that each byte was. */
    readonly low = new Uint8Array(BYTES).fill(0xff);
    readonly high = new Uint8Array(BYTES);
    /** When each byte was another than before; -Infinity: never. */
    readonly changedAt = new Float64Array(BYTES).fill(-Infinity);
    /** Of each byte the bits that were ever others than before. */
    readonly changedBits = new Uint8Array(BYTES);
    readonly recent = new Recent();
    readonly #rate = new Rate();
    /** What each byte was in the last frame that had it. */
    readonly #last = new Uint8Array(BYTES);
    /** How many bytes of any frame came. */
    #known = 0;

    constructor(readonly identifier: number) {}

    get node(): number {
        return this.identifier % NODES;
    }

    get command(): number {
        return Math.floor(this.identifier / NODES);
    }

    take(payload: Uint8Array, time: number): void {
        this.count++;
        this.payload = payload;
        this.lengths.add(payload.length);
        this.recent.push(payload, time);
        this.#rate.arrived(time);
        for (let at = 0; at < payload.length; at++) this.#takeByte(at, payload[at]!, time);
        this.#known = Math.max(this.#known, payload.length);
    }

    /** Frames a second, lately. */
    rate(now: number): number {
        return this.#rate.at(now) ?? 0;
    }

    #takeByte(at: number, byte: number, time: number): void {
        const changed = at < this.#known ? byte ^ this.#last[at]! : 0;
        if (changed) {
            this.changedAt[at] = time;
            this.changedBits[at]! |= changed;
        }
        this.#last[at] = byte;
        this.low[at] = Math.min(this.low[at]!, byte);
        this.high[at] = Math.max(this.high[at]!, byte);
    }
}

/** The endpoints of a bus. */
export class Traffic {
    frames = 0;
    readonly #endpoints = new Map<number, Endpoint>();

    get endpoints(): ReadonlyMap<number, Endpoint> {
        return this.#endpoints;
    }

    /** In the order of nodes, then of commands. */
    get sorted(): Endpoint[] {
        return [...this.#endpoints.values()].sort((a, b) => a.node - b.node || a.command - b.command);
    }

    /** A message has come. */
    take(values: Value, time: number): void {
        for (const frame of framesIn(values)) this.#takeFrame(frame, time);
    }

    #takeFrame({ identifier, payload }: Frame, time: number): void {
        let endpoint = this.#endpoints.get(identifier);
        if (!endpoint) this.#endpoints.set(identifier, (endpoint = new Endpoint(identifier)));
        endpoint.take(payload, time);
        this.frames++;
    }
}

/** Milliseconds after which a change is cold. */
const COLD = 3000;

/** How lately a byte has changed: 1 just now, 0 long ago or never. */
export function heat(endpoint: Endpoint, byte: number, now: number): number {
    const age = now - endpoint.changedAt[byte]!;
    return Math.min(1, Math.max(0, 1 - age / COLD));
}
