import {
    dotted,
    FORMATS,
    type Leaf,
    type Path,
    nest,
    prepareLeaf,
    prepareWrite,
    readOnlyReason,
    type Readings,
    type Schema,
    type Value,
    type ValueMap,
    writableRange,
    WriteError,
    type Written,
} from "vorbel";
import { packedBytes } from "./packed";
import { exactText, shown, unitText } from "./text";

/** What was typed for a leaf: the value to write, or why it cannot be written. */
export type Parsed = { value: Value; problem?: undefined } | { problem: string; value?: undefined };

/** `readings` are what the bits beside a field are taken from. */
export function parseInput(leaf: Leaf, text: string, readings?: Readings): Parsed {
    const reason = readOnlyReason(leaf);
    if (reason) return { problem: `${dotted(leaf.path)} cannot be written: ${reason}` };
    return leaf.format === "p" ? parsePacked(text) : parseMeant(leaf, text, readings);
}

function parsePacked(text: string): Parsed {
    try {
        return { value: JSON.parse(text) };
    } catch (error) {
        return { problem: `is no JSON: ${(error as Error).message}` };
    }
}

function parseMeant(leaf: Leaf, text: string, readings?: Readings): Parsed {
    const value = meantIn(leaf, text);
    if (value === undefined) return { problem: "must be a number" };
    try {
        prepareLeaf(leaf, value, readings);
    } catch (error) {
        return { problem: problemText(leaf, error as Error) };
    }
    return { value };
}

/** What a text means: a label, or a number. Where there are labels, which ones is told of any other. */
function meantIn({ meaning }: Leaf, text: string): Value | undefined {
    const labels = Object.values(meaning.labels ?? {});
    const typed = text.trim();
    const label = [text, typed].find((each) => labels.includes(each));
    if (label !== undefined || typed === "") return label;
    const number = Number(typed);
    if (Number.isFinite(number)) return number;
    return labels.length > 0 ? typed : undefined;
}

function problemText(leaf: Leaf, error: Error): string {
    const [problem] = error instanceof WriteError ? error.problems : [];
    if (problem?.code !== "out-of-range") return problem?.message ?? error.message;
    const { least, most } = writableRange(leaf)!;
    return `must lie between ${exactText(least)} and ${exactText(most)}`;
}

/** Labels that a line has room for. */
const MANY = 8;

/** What can be typed, for people: "0 to 32.767 in steps of 0.001". */
export function rangeText(leaf: Leaf): string {
    const labels = Object.values(leaf.meaning.labels ?? {});
    const named = labels.slice(0, MANY).map((label) => `${shown(label)}, `);
    return `${named.join("")}${labels.length > MANY ? "…, " : ""}${labels.length > 0 ? "or " : ""}${numbersText(leaf)}`;
}

function numbersText(leaf: Leaf): string {
    const range = writableRange(leaf);
    if (!range) return "any value, as JSON";
    const { least, most, step } = range;
    const { min, max } = leaf.meaning;
    const unit = unitText(leaf);
    if (step === undefined && min === undefined && max === undefined) return `any number${unit} (single precision)`;
    const ends = `${exactText(least)} to ${exactText(most)}${unit}`;
    if (step === undefined) return `${ends} (single precision)`;
    return step === 1 ? `a whole number, ${ends}` : `${ends}, in steps of ${exactText(step)}`;
}

/** Values by name, as a message has them. */
export function messageOf(values: ReadonlyMap<Leaf, Value>): ValueMap {
    const message: ValueMap = {};
    for (const [{ path }, value] of values) merge(message, nest(path, value));
    return message;
}

function merge(into: ValueMap, from: ValueMap): void {
    for (const [name, value] of Object.entries(from)) {
        if (Object.hasOwn(into, name)) merge(into[name] as ValueMap, value as ValueMap);
        else Object.defineProperty(into, name, { value, enumerable: true }); // "__proto__" is a name as well
    }
}

/** The part of a schema that has these leaves. */
export function schemaOf(leaves: Iterable<Leaf>): Schema {
    const schema: Schema = {};
    for (const leaf of leaves) Object.assign(nodeAt(schema, leaf.path), membersOf(leaf));
    return schema;
}

function nodeAt(schema: Schema, path: Path): Schema {
    let node = schema;
    for (const name of path) {
        if (!Object.hasOwn(node, name)) Object.defineProperty(node, name, { value: {}, enumerable: true });
        node = node[name] as Schema;
    }
    return node;
}

function membersOf({ meaning, ...others }: Leaf): Schema {
    const options = Object.entries(others).filter(([name]) => name !== "path");
    const named = options.map(([name, value]) => [`@${name}`, value]);
    return { ...meaning, ...Object.fromEntries(named) };
}

/**
 * The raw numbers that values become together: fields of the same bytes go out in one, and a value that counts only
 * beside another goes out only with that. Throws a WriteError for what does not.
 */
export function writtenOf(values: ReadonlyMap<Leaf, Value>, readings?: Readings): Map<Leaf, Written> {
    const numbers = [...values].filter(([{ format }, value]) => format !== "p" && value !== null);
    const depends = ({ meaning }: Leaf) => meaning.bits !== undefined || meaning.when !== undefined;
    if (!numbers.some(([leaf]) => depends(leaf))) {
        return new Map(numbers.map(([leaf, value]) => [leaf, prepareLeaf(leaf, value).written!]));
    }
    const { written } = prepareWrite(schemaOf(values.keys()), messageOf(values), readings);
    const byPath = new Map(written.map((each) => [dotted(each.leaf.path), each]));
    return new Map(numbers.map(([leaf]) => [leaf, byPath.get(dotted(leaf.path))!]));
}

/** A payload, and which of its bytes were written: the others are zero. */
export type Payload = { bytes: Uint8Array; written: boolean[] };

/** The payload that the daemon makes of values for leaves of the same frames; undefined where that cannot be told. */
export function payloadOf(values: ReadonlyMap<Leaf, Value>, readings?: Readings): Payload | undefined {
    const written = writtenOf(values, readings);
    const payload: Payload = { bytes: new Uint8Array(), written: [] };
    const inOrder = [...values].sort(([a], [b]) => byName(a, b));
    for (const [leaf, value] of inOrder) {
        if (value === null) continue; // nothing is written
        if (leaf.format !== "p") write(payload, leaf, written.get(leaf)!.raw);
        else if (!append(payload, leaf, value)) return undefined;
    }
    return payload;
}

function write(payload: Payload, leaf: Leaf, raw: number): void {
    cover(payload, leaf.skip, FORMATS[leaf.format]!.width);
    place(new DataView(payload.bytes.buffer), leaf, raw);
}

/** A packed value stands behind all that was written before it. */
function append(payload: Payload, { path }: Leaf, value: Value): boolean {
    const packed = packedBytes(path.at(-1)!, value);
    if (!packed) return false;
    const { length } = payload.bytes;
    cover(payload, length, packed.length);
    payload.bytes.set(packed, length);
    return true;
}

/** Lets a payload be long enough for bytes that will be written. */
function cover(payload: Payload, from: number, count: number): void {
    const { bytes, written } = payload;
    payload.bytes = new Uint8Array(Math.max(bytes.length, from + count));
    payload.bytes.set(bytes);
    for (let at = written.length; at < payload.bytes.length; at++) written[at] = false;
    written.fill(true, from, from + count);
}

/** Puts a raw number where its leaf has it. */
export function place(view: DataView, { format, skip }: Leaf, raw: number): void {
    const width = FORMATS[format]!.width;
    if (format === "f") view.setFloat32(skip, raw, true);
    else if (width === 1) view.setInt8(skip, raw);
    else if (width === 2) view.setInt16(skip, raw, true);
    else view.setInt32(skip, raw, true);
}

/** The order in which the daemon takes the values of a message: of two that overlap, the later one stays. */
export function byName({ path: a }: Leaf, { path: b }: Leaf): number {
    const at = a.findIndex((name, index) => name !== b[index]);
    if (at < 0) return a.length - b.length;
    return b[at] === undefined || a[at]! > b[at] ? 1 : -1;
}
