import { dotted, FORMATS, type Leaf, prepareLeaf, readOnlyReason, type Value, writableRange, WriteError } from "vorbel";
import { numberText } from "./text";

/** What was typed for a leaf: the value to write, or why it cannot be written. */
export type Parsed = { value: Value; problem?: undefined } | { problem: string; value?: undefined };

export function parseInput(leaf: Leaf, text: string): Parsed {
    const reason = readOnlyReason(leaf);
    if (reason) return { problem: `${dotted(leaf.path)} cannot be written: ${reason}` };
    return leaf.format === "p" ? parsePacked(text) : parseNumber(leaf, text.trim());
}

function parsePacked(text: string): Parsed {
    try {
        return { value: JSON.parse(text) };
    } catch (error) {
        return { problem: `is no JSON: ${(error as Error).message}` };
    }
}

function parseNumber(leaf: Leaf, text: string): Parsed {
    const value = Number(text);
    if (text === "" || !Number.isFinite(value)) return { problem: "must be a number" };
    try {
        prepareLeaf(leaf, value);
    } catch (error) {
        if (!(error instanceof WriteError)) return { problem: (error as Error).message };
        const { least, most } = writableRange(leaf)!;
        return { problem: `must lie between ${numberText(least)} and ${numberText(most)}` };
    }
    return { value };
}

/** What can be typed, for people: "0 to 32.767 in steps of 0.001". */
export function rangeText(leaf: Leaf): string {
    const range = writableRange(leaf);
    if (!range) return "any value, as JSON";
    if (range.step === undefined) return "any number (single precision)";
    const ends = `${numberText(range.least)} to ${numberText(range.most)}`;
    return range.step === 1 ? `a whole number, ${ends}` : `${ends}, in steps of ${numberText(range.step)}`;
}

/**
 * The payload that the daemon makes of values for leaves of the same frames, as far as it can be told here:
 * undefined with a leaf of format "p". Bytes that no value covers are zero.
 */
export function payloadOf(values: ReadonlyMap<Leaf, Value>): Uint8Array | undefined {
    const leaves = [...values.keys()];
    if (leaves.some(({ format }) => format === "p")) return undefined;
    const payload = new Uint8Array(Math.max(...leaves.map(({ skip, format }) => skip + FORMATS[format]!.width)));
    const view = new DataView(payload.buffer);
    const inOrder = [...values].sort(([a], [b]) => byName(a, b));
    for (const [leaf, value] of inOrder) place(view, leaf, prepareLeaf(leaf, value).written!.raw);
    return payload;
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
