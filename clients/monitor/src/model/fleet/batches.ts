import { isMap, type Value, type ValueMap } from "vorbel";
import type { TreeNode } from "../tree";

/** Batches of values as a gateway publishes them. */

/** One message of the daemon: what it held, and when it came to the gateway, in milliseconds since 1970. */
export type Told = { time: number; values: unknown };

/** A batch that has not been there before: its messages, and how many batches before it did not come. */
export type Batch = { missed: number; messages: Told[] };

/** Puts a board's batches into their order: what comes twice counts once, and what does not come is counted. */
export class Batches {
    #boot: number | undefined;
    #next = 0;

    /** A batch as it came; undefined for one that was there before. Throws what is wrong with it. */
    take(text: string): Batch | undefined {
        const { boot, n, t, v } = membersOf(text);
        if (!isCount(boot) || !isCount(n)) throw new Error("it has no number");
        if (!isTime(t) || !Array.isArray(v)) throw new Error("it has no values");
        const messages = v.map((entry) => messageOf(entry, t));
        if (this.#boot !== undefined && (boot < this.#boot || (boot === this.#boot && n < this.#next)))
            return undefined;
        const missed = boot === this.#boot ? n - this.#next : 0;
        this.#boot = boot;
        this.#next = n + 1;
        return { missed, messages };
    }
}

function membersOf(text: string): Record<string, unknown> {
    const found: unknown = JSON.parse(text);
    if (!isMap(found)) throw new Error("it is no batch");
    return found;
}

function messageOf(entry: unknown, begin: number): Told {
    if (!Array.isArray(entry) || entry.length !== 2) throw new Error("one of its messages cannot be read");
    const [offset, values] = entry as [unknown, unknown];
    if (!isTime(offset)) throw new Error("one of its messages has no time");
    return { time: begin + offset, values };
}

function isCount(value: unknown): value is number {
    return Number.isSafeInteger(value) && (value as number) >= 0;
}

function isTime(value: unknown): value is number {
    return typeof value === "number" && Math.abs(value) < 8.64e15;
}

/** Values of JSON as a daemon gives them: lists of numbers as arrays, and what is no finite number as NaN. */
export function readingsOf(value: unknown, node: TreeNode | undefined): Value {
    if (node?.leaf?.format === "p") return value as Value; // whatever it was
    if (value === null) return NaN;
    if (Array.isArray(value)) return arrayOf(value);
    if (!isMap(value)) return value as Value;
    const readings: ValueMap = {};
    for (const [name, each] of Object.entries(value)) {
        // "__proto__" is a name as well.
        const reading = readingsOf(each, node?.children.get(name));
        Object.defineProperty(readings, name, { value: reading, enumerable: true, configurable: true, writable: true });
    }
    return readings;
}

function arrayOf(list: unknown[]): Value {
    const isNumbers = list.every((item) => typeof item === "number" || item === null);
    return isNumbers ? (Float64Array.from(list, (item) => item ?? NaN) as unknown as Value) : (list as Value);
}
