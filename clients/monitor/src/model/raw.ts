import { FORMATS, isScaled, prepareLeaf, type Leaf } from "vorbel";
import { place } from "./writing";

/** What a reading tells of the bytes that it came from. */

/** A reading's bytes in their order on the bus, and the bits of the number in them that it tells. */
export type Bits = { raw: Uint8Array; mask: number };

/** The bits of a leaf's raw number that count. */
export function maskOf({ format, mask }: Leaf): number {
    return FORMATS[format]!.masked ? mask : -1;
}

/** Whether a leaf has some bits of its bytes only, and is written into what is known of the others. */
export function isField({ format, meaning: { bits } }: Leaf): boolean {
    return bits !== undefined && bits[1] < 8 * (FORMATS[format]?.width ?? 0);
}

/** The bits of a leaf's bytes that mean something to it. */
export function ownMask(leaf: Leaf): number {
    if (!isField(leaf)) return maskOf(leaf);
    const { bits, swapped = false } = leaf.meaning;
    const all = { ...leaf, mask: -1, meaning: { bits: bits!, swapped, initial: 0 } };
    return maskOf(leaf) & prepareLeaf(all, 2 ** bits![1] - 1).written!.raw;
}

/** Undefined where a reading tells none of its bits. */
export function bitsOf(leaf: Leaf, reading: number | boolean): Bits | undefined {
    const number = keptNumber(leaf, reading);
    return number === undefined ? undefined : { raw: bytesFor(leaf, number), mask: maskOf(leaf) };
}

/** The number on the bus that a reading came from; undefined where the reading does not tell all of its bits. */
export function rawNumber(leaf: Leaf, reading: number | boolean): number | undefined {
    const width = FORMATS[leaf.format]?.width;
    if (!width) return undefined;
    const isWhole = (~maskOf(leaf) & (width === 4 ? -1 : 2 ** (8 * width) - 1)) === 0;
    return isWhole ? keptNumber(leaf, reading) : undefined;
}

/** The number of the bits that the mask keeps. */
function keptNumber(leaf: Leaf, reading: number | boolean): number | undefined {
    if (!FORMATS[leaf.format]?.width) return undefined;
    if (leaf.asBool) return flagNumber(leaf, Boolean(reading));
    if (typeof reading === "boolean") return undefined;
    if (leaf.format === "f") return isScaled(leaf) || Number.isNaN(reading) ? undefined : reading;
    const number = isScaled(leaf) ? unscaled(leaf, reading) : reading;
    return number !== undefined && isInFormat(leaf, number) ? number : undefined;
}

/** Not set, all of its bits are 0; set, only a single one is known to be 1. */
function flagNumber(leaf: Leaf, isSet: boolean): number | undefined {
    if (leaf.format === "f") return undefined; // there is a -0
    const mask = maskOf(leaf);
    const isSingle = (mask & (mask - 1)) === 0;
    if (!isSet) return 0;
    return isSingle ? mask : undefined;
}

/** Beyond, numbers of single precision leave some out. */
const EXACT = 2 ** 24;
/** How far rounding in single precision, of the factor, its reciprocal and their product, can lead from the number. */
const ASTRAY = 4;

/** The only whole number that the daemon makes this reading of; undefined where several do, or none. */
function unscaled({ factor }: Leaf, reading: number): number | undefined {
    const scale = Math.fround(1 / Math.fround(factor));
    const near = Math.round(reading * factor);
    if (!(Math.abs(near) <= EXACT)) return undefined;
    const candidates = Array.from({ length: 2 * ASTRAY + 1 }, (_, at) => near - ASTRAY + at);
    const fitting = candidates.filter((raw) => Math.fround(Math.fround(raw) * scale) === Math.fround(reading));
    return fitting.length === 1 ? fitting[0]! + 0 : undefined; // no -0
}

function isInFormat({ format }: Leaf, number: number): boolean {
    const { width, signed } = FORMATS[format]!;
    const values = 2 ** (8 * width);
    const least = signed ? -values / 2 : 0;
    return Number.isInteger(number) && number >= least && number < least + values;
}

function bytesFor(leaf: Leaf, raw: number): Uint8Array {
    const bytes = new Uint8Array(FORMATS[leaf.format]!.width);
    place(new DataView(bytes.buffer), { ...leaf, skip: 0 }, raw);
    return bytes;
}
