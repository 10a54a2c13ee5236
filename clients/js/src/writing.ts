import type { Value, ValueMap } from "./codec.js";
import { contradictions, Fields, unselected } from "./fields.js";
import {
    digitsOf,
    fieldFor,
    fieldOf,
    fieldRange,
    isScaledForPeople,
    meantBy,
    readingWith,
    valueOf,
} from "./meaning.js";
import { dotted, isMap, namesOf, nest, type Path } from "./paths.js";
import { listed, problem, quoted, WriteError, type Problem, type ProblemCode } from "./problem.js";
import {
    FORMATS,
    isArranged,
    isLeaf,
    isPart,
    isScaled,
    isSingle,
    isWhole,
    nodeBelow,
    toLeaf,
    widthOf,
    type Leaf,
    type Schema,
} from "./schema.js";
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

/** The last reading of a path that counted: what the bits beside a field are taken from. */
export type Readings = (path: string) => Value | undefined;

/**
 * The message that makes the daemon write, for every number in nested `values`, the nearest raw number, and for every
 * label its field. Throws a WriteError, with all problems, for what it would ignore or write otherwise.
 */
export function prepareWrite(schema: Schema, values: unknown, readings: Readings = () => undefined): Message {
    if (!isMap(values))
        throw new WriteError([
            problem([], "not-a-map", "only a map of values, named as in the schema, can be written"),
        ]);
    const preparation = new Preparation();
    const sent = preparation.members(schema, values, []);
    const written = preparation.put(readings);
    const fieldIn = (each: Written) => fieldOf(each.leaf, readingOf(each));
    const problems = [...preparation.problems, ...contradictions(written), ...unselected(written, fieldIn)];
    if (problems.length > 0) throw new WriteError(problems);
    return { values: sent, written };
}

/** The same for one leaf, whatever its "when": what to send, and which number that will write, if it is a number. */
export function prepareLeaf(
    leaf: Leaf,
    value: Value,
    readings: Readings = () => undefined,
): { sent: Value; written?: Written } {
    const preparation = new Preparation();
    const sent: ValueMap = {};
    preparation.leaf(leaf, value, sent, "value");
    const [written] = preparation.put(readings);
    if (preparation.problems.length > 0) throw new WriteError(preparation.problems);
    return { sent: sent.value!, ...(written && { written }) };
}

/** The values that write one value at a path and, with it, what its "when" asks for. */
export function withSelectors(schema: Schema, path: Path, value: Value): ValueMap {
    let values = nest(path, value);
    const asked = new Set<string>();
    let when = leafAt(schema, path)?.meaning.when;
    while (when && !asked.has(when.path)) {
        asked.add(when.path);
        const selector = leafAt(schema, namesOf(when.path));
        if (selector) values = merged(values, selector.path, meantBy(selector, when.is));
        when = selector?.meaning.when;
    }
    return values;
}

function leafAt(schema: Schema, path: Path): Leaf | undefined {
    const node = path.reduce<Schema | undefined>((at, name) => at && nodeBelow(at, name), schema);
    return node && isLeaf(node) ? toLeaf(node, path) : undefined;
}

/** Values and one more at a path; those that are there already stay as they are. */
function merged(values: ValueMap, [name, ...below]: Path, value: Value): ValueMap {
    if (name === undefined) return values;
    if (below.length === 0) return { [name]: value, ...values };
    const inner = Object.hasOwn(values, name) ? values[name]! : {};
    return { ...values, [name]: isMap(inner) ? merged(inner, below, value) : inner };
}

/** What a raw number stands for. */
export function readingOf({ leaf, raw }: Written): number {
    return isScaled(leaf) ? raw / leaf.factor : raw;
}

/** Whether something else was written than asked for. */
export function isRounded({ leaf, value, raw }: Written): boolean {
    const asked = fieldFor(leaf, value) * (isScaled(leaf) ? leaf.factor : 1);
    const field = isArranged(leaf) ? (fieldOf(leaf, raw) as number) : raw;
    const written = isSingle(leaf) ? shortest(field) : field;
    return Math.abs(asked - written) > 1e-12 * Math.max(1, Math.abs(written));
}

/** What went out, for people: "raw 53, which is 0.53". */
export function describeWritten(written: Written): string {
    const { leaf, raw, nearest } = written;
    const rounded = isRounded(written) ? `, which is ${digitsOf(leaf, meantOf(written))}` : "";
    const missed = raw === nearest ? "" : ` instead of ${nearest}, which the daemon's single precision does not reach`;
    return `raw ${leaf.format === "f" && !isScaled(leaf) ? shortest(raw) : raw}${rounded}${missed}`;
}

function meantOf(written: Written): number {
    return valueOf(written.leaf, readingOf(written)) as number;
}

/** Why a leaf cannot be written, in words; undefined when it can. */
export function readOnlyReason(leaf: Leaf): string | undefined {
    if (leaf.asBool) return `it is read-only, because "@asBool" keeps only whether the reading is zero`;
    if (leaf.mask !== -1) return `it is read-only, because "@mask" keeps only some of the bits`;
    if (leaf.meaning.readonly) return `it is read-only, because its schema has "readonly"`;
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
    const { min = -Infinity, max = Infinity, scale = 1, offset = 0 } = leaf.meaning;
    const factor = isScaled(leaf) ? leaf.factor : 1;
    const ends = rawRange(leaf).map((raw) => (raw / factor) * scale + offset);
    const range = { least: Math.max(min, Math.min(...ends)), most: Math.min(max, Math.max(...ends)) };
    return isSingle(leaf) ? range : { ...range, step: Math.abs(scale / factor) };
}

/** A number to be written, and where in the message what is sent for it stands. */
type Entry = { leaf: Leaf; value: number; into: ValueMap; name: string };

/** The walk along values and schema, and then what is sent for the numbers. */
class Preparation {
    readonly problems: Problem[] = [];
    readonly #entries: Entry[] = [];

    members(node: Schema, values: ValueMap, path: Path): ValueMap {
        const sent = { ...values };
        for (const name of Object.keys(values)) this.#member(node, sent, name, [...path, name]);
        return sent;
    }

    #member(node: Schema, sent: ValueMap, name: string, path: Path): void {
        const member = nodeBelow(node, name);
        const value = sent[name]!;
        if (!member) this.#refuse(path, "unknown-name", "does not exist in the schema");
        else if (isMap(value) && isGroup(member)) sent[name] = this.members(member, value, path);
        else if (isLeaf(member)) this.leaf(toLeaf(member, path), value, sent, name);
        else {
            const names = listed(Object.keys(member)) || "it is empty";
            this.#refuse(path, "is-a-group", `is a group of values, not a value: ${names}`);
        }
    }

    leaf(leaf: Leaf, given: Value, into: ValueMap, name: string): void {
        const value = ofLabel(leaf, given);
        const refusal = refusalOf(leaf, value);
        into[name] = value;
        if (refusal) this.problems.push(refusal);
        else if (leaf.format !== "p" && value !== null) this.#entries.push({ leaf, value: Number(value), into, name });
    }

    put(readings: Readings): Written[] {
        const parts = this.#entries.filter(({ leaf }) => isPart(leaf));
        const fields = new Fields(parts.map(({ leaf, value }) => ({ leaf, reading: arranged(leaf, value) })));
        this.problems.push(...fields.conflicts);
        return this.#entries.flatMap((entry) => {
            const { leaf, value, into, name } = entry;
            const sending = isPart(leaf) ? exactly(fields.reading(leaf, former(leaf, readings))) : sendingOf(entry);
            if (!sending) return this.#refuse(leaf.path, "no-reading", NO_READING);
            into[name] = sending.sent;
            return { leaf, value, raw: sending.raw, nearest: sending.nearest };
        });
    }

    #refuse(path: Path, code: ProblemCode, message: string): [] {
        this.problems.push(problem(path, code, message));
        return [];
    }
}

/** Whether there are names below to be written: leaves may have some, too. */
function isGroup(node: Schema): boolean {
    if (!isLeaf(node)) return true;
    return toLeaf(node, []).format !== "p" && Object.keys(node).some((name) => nodeBelow(node, name));
}

// What is sent for the numbers

/** What to send for a number, and the raw number that it becomes beside the one that would be nearest. */
type Sending = { sent: number; raw: number; nearest: number };

function sendingOf({ leaf, value }: Entry): Sending {
    if (isArranged(leaf)) return exactly(arranged(leaf, value));
    const field = fieldFor(leaf, value);
    if (!isScaled(leaf)) return exactly(rounded(leaf, field));
    const nearest = nearestWhole(field * leaf.factor);
    const sent = sentFor(leaf, nearest);
    return { sent, raw: rawWritten(leaf, sent), nearest };
}

function exactly(raw: number): Sending;
function exactly(raw: number | undefined): Sending | undefined;
function exactly(raw: number | undefined): Sending | undefined {
    return raw === undefined ? undefined : { sent: raw, raw, nearest: raw };
}

/** The reading of a value whose field has to be put into it. */
function arranged(leaf: Leaf, value: number): number {
    return readingWith(leaf, rounded(leaf, fieldFor(leaf, value)));
}

/** What the bits beside a field are taken from. */
function former(leaf: Leaf, readings: Readings): number | undefined {
    const reading = readings(dotted(leaf.path));
    return typeof reading === "number" ? reading : leaf.meaning.initial;
}

const NO_READING =
    'shares its bytes with other bits, and no reading of these came yet; "initial" would say what they are';

// Labels and numbers

/** The value that a label stands for; any other is its own. */
function ofLabel(leaf: Leaf, value: Value): Value {
    const field = Object.entries(leaf.meaning.labels ?? {}).find(([, label]) => label === value)?.[0];
    return field === undefined ? value : meantBy(leaf, Number(field));
}

function refusalOf(leaf: Leaf, value: Value): Problem | undefined {
    const labels = Object.values(leaf.meaning.labels ?? {});
    if (typeof value === "string" && labels.length > 0)
        return problem(leaf.path, "unknown-label", `has no label ${quoted(value)}: there are ${listed(labels)}`);
    const reason = readOnlyReason(leaf);
    if (reason) return problem(leaf.path, reasonCode(leaf), reason);
    if (leaf.format === "p" || value === null) return undefined;
    if ((typeof value !== "number" && typeof value !== "bigint") || Number.isNaN(value)) {
        return problem(leaf.path, "not-a-number", `takes a number, not ${quoted(value)}`);
    }
    return boundsRefusal(leaf, Number(value)) ?? rangeRefusal(leaf, Number(value));
}

function reasonCode({ asBool, mask, format, meaning }: Leaf): "read-only" | "no-format" | "unknown-format" {
    if (asBool || mask !== -1 || meaning.readonly) return "read-only";
    return format === "" ? "no-format" : "unknown-format";
}

function boundsRefusal({ path, meaning: { min, max } }: Leaf, value: number): Problem | undefined {
    if (value >= (min ?? -Infinity) && value <= (max ?? Infinity)) return undefined;
    const bounds = [min === undefined ? [] : `at least ${min}`, max === undefined ? [] : `at most ${max}`].flat();
    return problem(path, "out-of-bounds", `takes ${bounds.join(" and ")}, not ${value}`);
}

function rangeRefusal(leaf: Leaf, value: number): Problem | undefined {
    const [least, most] = rawRange(leaf);
    const field = fieldFor(leaf, value);
    const product = isScaled(leaf) ? field * leaf.factor : field;
    const raw = rounded(leaf, product);
    if (raw >= least && raw <= most) return undefined;
    const meant = field === value ? "" : ` is the field ${field}, which`;
    const scaled = isScaled(leaf) ? ` times the factor ${leaf.factor} is ${product}, which` : "";
    const range = isSingle(leaf) ? "single precision" : `${least} to ${most}`;
    return problem(leaf.path, "out-of-range", `${value}${meant}${scaled} is outside of ${range}`);
}

/** The nearest number that stands for it on the bus: those of scaled floats are whole, too. */
function rounded(leaf: Leaf, number: number): number {
    return isSingle(leaf) ? Math.fround(number) : nearestWhole(number);
}

/** Halves go up, as they do in the daemon. */
function nearestWhole(number: number): number {
    return Math.round(number) + 0; // no -0
}

/**
 * The raw numbers that the daemon writes as they are: it does not tell formats with a sign from those without. A field
 * that means something else than itself has those that it can be read as.
 */
function rawRange(leaf: Leaf): [least: number, most: number] {
    if (isSingle(leaf)) return [-LARGEST_SINGLE, LARGEST_SINGLE];
    if (isArranged(leaf) || (isScaledForPeople(leaf) && isWhole(leaf))) return fieldRange(leaf);
    const bits = 8 * widthOf(leaf);
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
