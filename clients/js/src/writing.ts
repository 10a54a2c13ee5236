import type { Value, ValueMap } from "./codec.js";
import { justified } from "./digits.js";
import { isMap, type Path } from "./paths.js";
import { listed, problem, quoted, WriteError, type Problem } from "./problem.js";
import { FORMATS, isLeaf, isObject, isScaled, toLeaf, type Leaf, type Schema } from "./schema.js";
import { LARGEST_SINGLE, nextTo, shortest } from "./single.js";

/** A number that was written. */
export type Written = {
    leaf: Leaf;
    /** As it was asked for. */
    value: number;
    /** What stands in the payload. */
    raw: number;
    /**
     * What would have been nearest to the value; another number than `raw` only where the daemon's single precision
     * does not reach: with a factor, beyond 24 bits.
     */
    nearest: number;
};

/** What to send for values, and which numbers it will write. */
export type Message = { values: ValueMap; written: Written[] };

/**
 * The message that makes the daemon write, for every number in nested `values`, the nearest raw number. Throws a
 * WriteError, with all problems, for what it would ignore or write otherwise.
 */
export function prepareWrite(schema: Schema, values: unknown): Message {
    if (!isMap(values))
        throw new WriteError([
            problem([], "not-a-map", "only a map of values, named as in the schema, can be written"),
        ]);
    const preparation = new Preparation();
    const sent = preparation.members(schema, values, []);
    if (preparation.problems.length > 0) throw new WriteError(preparation.problems);
    return { values: sent, written: preparation.written };
}

/** The same for one leaf: what to send, and which number that will write, if it is a number. */
export function prepareLeaf(leaf: Leaf, value: Value): { sent: Value; written?: Written } {
    const refusal = refusalOf(leaf, value);
    if (refusal) throw new WriteError([refusal]);
    if (leaf.format === "p" || value === null) return { sent: value };
    const number = Number(value);
    if (!isScaled(leaf)) {
        const raw = isFloat(leaf) ? Math.fround(number) : nearestWhole(number);
        return { sent: raw, written: { leaf, value: number, raw, nearest: raw } };
    }
    const nearest = nearestWhole(number * leaf.factor);
    const sent = sentFor(leaf, nearest);
    return { sent, written: { leaf, value: number, raw: rawWritten(leaf, sent), nearest } };
}

/** What a raw number stands for. */
export function readingOf({ leaf, raw }: Written): number {
    return isScaled(leaf) ? raw / leaf.factor : raw;
}

/** Whether something else was written than asked for. */
export function isRounded({ leaf, value, raw }: Written): boolean {
    const asked = isScaled(leaf) ? value * leaf.factor : value;
    const written = isFloat(leaf) ? shortest(raw) : raw;
    return Math.abs(asked - written) > 1e-12 * Math.max(1, Math.abs(written));
}

/** What went out, for people: "raw 53, which is 0.53". */
export function describeWritten(written: Written): string {
    const { leaf, raw, nearest } = written;
    const rounded = isRounded(written) ? `, which is ${Number(justified(readingOf(written)).toPrecision(10))}` : "";
    const missed = raw === nearest ? "" : ` instead of ${nearest}, which the daemon's single precision does not reach`;
    return `raw ${isFloat(leaf) ? shortest(raw) : raw}${rounded}${missed}`;
}

/** Why a leaf cannot be written, in words; undefined when it can. */
export function readOnlyReason(leaf: Leaf): string | undefined {
    if (leaf.asBool) return `it is read-only, because "@asBool" keeps only whether the reading is zero`;
    if (leaf.mask !== -1) return `it is read-only, because "@mask" keeps only some of the bits`;
    if (!FORMATS[leaf.format]) return `it has no known "@format"`;
    return undefined;
}

/** The values that a leaf can be given. */
export type Range = {
    least: number;
    most: number;
    /** Distance between two values that reach the bus as different ones; undefined when they are continuous. */
    step?: number;
};

/**
 * What can be written to a leaf; undefined for format "p", which takes anything. The daemon writes formats with a sign
 * and those without alike; scaled values it clamps to the signed range, and cuts to whole numbers even for floats.
 */
export function writableRange(leaf: Leaf): Range | undefined {
    if (!FORMATS[leaf.format]?.width) return undefined;
    const [least, most] = rawRange(leaf);
    if (!isScaled(leaf)) return isFloat(leaf) ? { least, most } : { least, most, step: 1 };
    const ends = [least / leaf.factor, most / leaf.factor];
    return { least: Math.min(...ends), most: Math.max(...ends), step: Math.abs(1 / leaf.factor) };
}

/** The walk along values and schema. */
class Preparation {
    readonly problems: Problem[] = [];
    readonly written: Written[] = [];

    members(node: Schema, values: ValueMap, path: Path): ValueMap {
        const sent: [string, Value][] = [];
        for (const [name, value] of Object.entries(values)) {
            const prepared = this.#member(Object.hasOwn(node, name) ? node[name] : undefined, value, [...path, name]);
            if (prepared !== undefined) sent.push([name, prepared]);
        }
        return Object.fromEntries(sent);
    }

    #member(member: unknown, value: Value, path: Path): Value | undefined {
        if (!isObject(member)) return this.#refuse(problem(path, "unknown-name", "does not exist in the schema"));
        if (isMap(value) && isGroup(member)) return this.members(member, value, path);
        if (isLeaf(member)) return this.#leaf(toLeaf(member, path), value);
        return this.#refuse(
            problem(
                path,
                "is-a-group",
                `is a group of values, not a value: ${listed(Object.keys(member)) || "it is empty"}`,
            ),
        );
    }

    #leaf(leaf: Leaf, value: Value): Value | undefined {
        const refusal = refusalOf(leaf, value);
        if (refusal) return this.#refuse(refusal);
        const { sent, written } = prepareLeaf(leaf, value);
        if (written) this.written.push(written);
        return sent;
    }

    #refuse(refusal: Problem): undefined {
        this.problems.push(refusal);
    }
}

/** Whether there are names below to be written: leaves may have some, too. */
function isGroup(node: Schema): boolean {
    if (!isLeaf(node)) return true;
    return toLeaf(node, []).format !== "p" && Object.values(node).some(isObject);
}

function refusalOf(leaf: Leaf, value: Value): Problem | undefined {
    const reason = readOnlyReason(leaf);
    if (reason) return problem(leaf.path, reasonCode(leaf), reason);
    if (leaf.format === "p" || value === null) return undefined;
    if ((typeof value !== "number" && typeof value !== "bigint") || Number.isNaN(value)) {
        return problem(leaf.path, "not-a-number", `takes a number, not ${quoted(value)}`);
    }
    return rangeRefusal(leaf, Number(value));
}

function reasonCode({ asBool, mask, format }: Leaf): "read-only" | "no-format" | "unknown-format" {
    if (asBool || mask !== -1) return "read-only";
    return format === "" ? "no-format" : "unknown-format";
}

function rangeRefusal(leaf: Leaf, number: number): Problem | undefined {
    const [least, most] = rawRange(leaf);
    const product = isScaled(leaf) ? number * leaf.factor : number;
    const rounded = isFloat(leaf) ? Math.fround(product) : nearestWhole(product);
    if (rounded >= least && rounded <= most) return undefined;
    const scaled = isScaled(leaf) ? ` times the factor ${leaf.factor} is ${product}, which` : "";
    const range = isFloat(leaf) ? "single precision" : `${least} to ${most}`;
    return problem(leaf.path, "out-of-range", `${number}${scaled} is outside of ${range}`);
}

/** Scaled floats are cut to whole numbers, too. */
function isFloat(leaf: Leaf): boolean {
    return leaf.format === "f" && !isScaled(leaf);
}

/** Halves go up, as they do in the daemon. */
function nearestWhole(number: number): number {
    return Math.round(number) + 0; // no -0
}

/** The raw numbers that the daemon writes as they are. */
function rawRange(leaf: Leaf): [least: number, most: number] {
    if (isFloat(leaf)) return [-LARGEST_SINGLE, LARGEST_SINGLE];
    const bits = 8 * FORMATS[leaf.format]!.width;
    return [-(2 ** (bits - 1)), 2 ** (isScaled(leaf) ? bits - 1 : bits) - 1];
}

/** What a scaled leaf's payload holds when a number of single precision is sent: the daemon multiplies, clamps and cuts off. */
export function rawWritten(leaf: Leaf, sent: number): number {
    const [least, most] = rawRange(leaf);
    const product = Math.fround(Math.fround(leaf.factor) * sent);
    return Math.trunc(Math.min(Math.max(product, least), most)) + 0; // no -0
}

/**
 * Of the numbers of single precision around nearest / factor, the one that the daemon turns into that raw number, or
 * else into the one nearest to it. Further ones miss by more.
 */
function sentFor(leaf: Leaf, nearest: number): number {
    const quotient = Math.fround(nearest / Math.fround(leaf.factor)) + 0; // no -0
    const middle = Math.min(Math.max(quotient, -LARGEST_SINGLE), LARGEST_SINGLE);
    const distance = (sent: number) => Math.abs(rawWritten(leaf, sent) - nearest);
    if (distance(middle) === 0) return middle;
    const candidates = [middle, ...nextTo(middle).filter(Number.isFinite)];
    return candidates.reduce((best, sent) => (distance(sent) < distance(best) ? sent : best));
}
