/** From readings to what they mean, and back; docs/protocol.md says how. */

import type { Value } from "./codec.js";
import { justified } from "./digits.js";
import { bitsOf, FORMATS, isArranged, isSingle, isWhole, widthOf, type Leaf } from "./schema.js";

export type Level = "" | "warn" | "alarm";

// Fields

/** The field that a reading, one that is no array, holds. */
export function fieldOf(leaf: Leaf, reading: Value): Value {
    if (typeof reading === "boolean") return Number(reading);
    if (typeof reading !== "number" || !isArranged(leaf)) return reading;
    const ordered = inOrder(leaf, reading);
    if (isSingle(leaf)) return singleOf(ordered);
    const [lowest, count] = bitsOf(leaf);
    const field = (ordered >>> lowest) % 2 ** count;
    return leaf.meaning.signed && field >= 2 ** (count - 1) ? field - 2 ** count : field;
}

/** The reading, as a number without a sign, that holds a field within fieldRange(), and zeros beside it. */
export function readingWith(leaf: Leaf, field: number): number {
    if (isSingle(leaf)) return inOrder(leaf, bitsOfSingle(field));
    const [lowest, count] = bitsOf(leaf);
    return inOrder(leaf, ((field >>> 0) % 2 ** count) << lowest);
}

/** The bits of a reading that its field has. */
export function maskOf(leaf: Leaf): number {
    const [lowest, count] = bitsOf(leaf);
    return inOrder(leaf, (2 ** count - 1) << lowest);
}

/** The whole numbers that the field of a leaf with whole numbers can be. */
export function fieldRange(leaf: Leaf): [least: number, most: number] {
    const [, count] = bitsOf(leaf);
    const isSigned = isArranged(leaf) ? leaf.meaning.signed : FORMATS[leaf.format]!.signed;
    return isSigned ? [-(2 ** (count - 1)), 2 ** (count - 1) - 1] : [0, 2 ** count - 1];
}

const view = new DataView(new ArrayBuffer(4));

/** The bytes of a reading in the order that its field needs, and back, as a number without a sign. */
function inOrder(leaf: Leaf, reading: number): number {
    const beyond = 32 - 8 * widthOf(leaf);
    view.setInt32(0, reading << beyond);
    return view.getUint32(0, leaf.meaning.swapped) >>> (leaf.meaning.swapped ? 0 : beyond);
}

function singleOf(bits: number): number {
    view.setInt32(0, bits);
    return view.getFloat32(0);
}

export function bitsOfSingle(number: number): number {
    view.setFloat32(0, number);
    return view.getUint32(0);
}

// Values

/** Whether values differ from fields. */
export function isScaledForPeople({ meaning: { scale = 1, offset = 0 } }: Leaf): boolean {
    return scale !== 1 || offset !== 0;
}

/** The value of a reading, or the list of those of an array's. */
export function valueOf(leaf: Leaf, reading: Value): Value {
    if (!isArranged(leaf) && !isScaledForPeople(leaf)) return reading;
    if (ArrayBuffer.isView(reading)) return Array.from(reading, (each) => valueOf(leaf, each));
    const field = fieldOf(leaf, reading);
    return typeof field === "number" ? meantBy(leaf, field) : field;
}

/** The value of a field. */
export function meantBy(leaf: Leaf, field: number): number {
    if (!isScaledForPeople(leaf)) return field;
    const { scale = 1, offset = 0 } = leaf.meaning;
    return exact(leaf, field) * scale + offset;
}

/** The field, not rounded, that stands for a value. */
export function fieldFor(leaf: Leaf, value: number): number {
    const { scale = 1, offset = 0 } = leaf.meaning;
    return (value - offset) / scale;
}

/** Whole numbers are exact; of all others, the digits that their origin justifies are taken. */
function exact(leaf: Leaf, field: number): number {
    return isWhole(leaf) && !isSingle(leaf) ? field : justified(field, leaf);
}

export function labelOf(leaf: Leaf, reading: Value): string | undefined {
    const { labels = {} } = leaf.meaning;
    const field = fieldOf(leaf, reading);
    return typeof field === "number" && Object.hasOwn(labels, field) ? labels[field] : undefined;
}

/** Which limits a value is beyond; none if it is no number. */
export function levelOf(leaf: Leaf, value: Value): Level {
    if (typeof value !== "number" && typeof value !== "boolean") return "";
    for (const level of ["alarm", "warn"] as const) {
        const [low, high] = leaf.meaning[level] ?? [null, null];
        if ((low !== null && Number(value) < low) || (high !== null && Number(value) > high)) return level;
    }
    return "";
}

/** A value with the digits that it has, ten at most where it is no whole number of the bus. */
export function digitsOf(leaf: Leaf, value: number): number {
    if (isScaledForPeople(leaf)) return Number(value.toPrecision(10));
    return isWhole(leaf) && !isSingle(leaf) ? value : Number(justified(value, leaf).toPrecision(10));
}
