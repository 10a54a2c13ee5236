import { FORMATS, isScaled, leavesOf, type Leaf } from "vorbel";
import { meantBy } from "../meaning";
import { maskOf, ownMask } from "../raw";
import { valueText } from "../text";
import { BYTES, NODES } from "./frames";

/** Which bits of frames are looked at, and how they can be read. */

/**
 * Bits of the payload, ends included, counted from 0: bit b of byte k is 8 * k + b, b = 0 the lowest bit of its byte.
 * Whole bytes are 8 * k to 8 * m + 7. Of several bytes and not all their bits, those that a field of the number has
 * whose low byte comes first.
 */
export type Selection = { identifier: number; first: number; last: number };

/** The options and members of a leaf of a schema. */
export type Leafish = { [option: string]: unknown };

/** A way to read a selection. `name` is for people: "unsigned, high byte first". */
export type Candidate = { key: string; name: string; leaf: Leafish };

type Kind = "flag" | "unsigned" | "signed" | "float";

const NAMES: Record<Kind, string> = {
    flag: "flag",
    unsigned: "unsigned",
    signed: "signed",
    float: "single precision",
};

/** How many bytes a reading has, by how many the selection touches. */
const WIDTHS: Readonly<Record<number, number>> = { 1: 1, 2: 2, 3: 4, 4: 4 };
const UNSIGNED: Readonly<Record<number, string>> = { 1: "C", 2: "S", 4: "I" };
/** The daemon takes "c" for unsigned as well. */
const SIGNED: Readonly<Record<number, string>> = { 2: "s", 4: "i" };

/** The bytes that a leaf reads, and which bits of the number whose low byte comes first. */
type Window = { skip: number; width: number; lowest: number; count: number };

/**
 * The ways to read bits of frames of so many bytes; none where no reading has them. With the high byte first, and not
 * all bits of the bytes at both ends, these are as many bits of each byte, and others of them: the low ones of the
 * first byte and the high ones of the last, which are together there.
 */
export function candidatesOf(selection: Selection, length = BYTES): Candidate[] {
    const window = windowOf(selection, length);
    if (!window) return [];
    const orders = isWithinByte(selection) ? [false] : [false, true];
    const place = { "@mac": selection.identifier % NODES, "@cmd": Math.floor(selection.identifier / NODES) };
    return orders.flatMap((swapped) =>
        kindsOf(window).map((kind) => {
            const order = isWithinByte(selection) ? "" : swapped ? ", high byte first" : ", low byte first";
            return {
                key: `${kind}${swapped ? " swapped" : ""}`,
                name: NAMES[kind] + order,
                leaf: { ...place, ...arrangement(kind, window, swapped) },
            };
        }),
    );
}

function isWithinByte({ first, last }: Selection): boolean {
    return first >> 3 === last >> 3;
}

/** Of three bytes, there is a fourth: the one before, with which the frame need not be longer, if there is one. */
function windowOf({ first, last }: Selection, length: number): Window | undefined {
    const [from, to] = [first >> 3, last >> 3];
    const touched = to - from + 1;
    const width = WIDTHS[touched];
    if (first < 0 || last < first || to >= length || !width || width > length) return undefined;
    const skip = touched === 3 ? Math.max(0, from - 1) : from;
    return { skip, width, lowest: first - 8 * skip, count: last - first + 1 };
}

function isWhole({ width, count }: Window): boolean {
    return count === 8 * width;
}

function kindsOf(window: Window): Kind[] {
    if (window.count === 1) return ["flag"];
    return isWhole(window) && window.width === 4 ? ["unsigned", "signed", "float"] : ["unsigned", "signed"];
}

/** The options and members that take the bits out of the payload. */
function arrangement(kind: Kind, window: Window, swapped: boolean): Leafish {
    const { skip, width } = window;
    const order = swapped ? { swapped } : {};
    if (kind === "float") {
        return swapped ? { "@format": "I", "@skip": skip, ...order, float: true } : { "@format": "f", "@skip": skip };
    }
    const isSigned = kind === "signed";
    const signedFormat = isSigned && isWhole(window) && !swapped ? SIGNED[width] : undefined;
    return {
        "@format": signedFormat ?? UNSIGNED[width],
        "@skip": skip,
        ...(isWhole(window) ? {} : { bits: [lowestOf(window, swapped), window.count] }),
        ...order,
        ...(isSigned && !signedFormat ? { signed: true } : {}),
    };
}

/** The place of the lowest bit within the number in its order. */
function lowestOf({ width, lowest, count }: Window, swapped: boolean): number {
    return swapped ? 8 * width - lowest - count : lowest;
}

/** The bits of the payload that a leaf has, counted as those of a selection. */
export function payloadBits(leaf: Leafish): number[] {
    const known = leafOf(leaf);
    const width = FORMATS[known?.format ?? ""]?.width ?? 0;
    if (!known || width === 0) return [];
    const mask = ownMask(known);
    const bits = Array.from({ length: 8 * width }, (_, bit) => bit);
    return bits.filter((bit) => (mask >>> bit) & 1).map((bit) => 8 * known.skip + bit);
}

const leaves = new WeakMap<Leafish, Leaf>();

function leafOf(leafish: Leafish): Leaf | undefined {
    let leaf = leaves.get(leafish);
    if (!leaf) {
        leaf = leavesOf(leafish)[0];
        if (leaf) leaves.set(leafish, leaf);
    }
    return leaf;
}

/** What the daemon reads of a payload; undefined where the payload is too short. */
function readingOf(leaf: Leaf, payload: Uint8Array): number | boolean | undefined {
    const { width = 0 } = FORMATS[leaf.format] ?? {};
    if (width === 0 || leaf.skip + width > payload.length) return undefined;
    const raw = rawOf(leaf, new DataView(payload.buffer, payload.byteOffset, payload.byteLength));
    if (leaf.asBool) return raw !== 0;
    return isScaled(leaf) ? Math.fround(Math.fround(raw) * Math.fround(1 / Math.fround(leaf.factor))) : raw;
}

function rawOf(leaf: Leaf, view: DataView): number {
    const { format, skip } = leaf;
    const mask = maskOf(leaf);
    if (format === "f") return view.getFloat32(skip, true);
    const { width, signed } = FORMATS[format]!;
    if (width === 1) return view.getUint8(skip) & mask;
    if (width === 2)
        return signed ? ((view.getUint16(skip, true) & mask) << 16) >> 16 : view.getUint16(skip, true) & mask;
    return signed ? view.getInt32(skip, true) & mask : (view.getUint32(skip, true) & mask) >>> 0;
}

/** What a payload means to a leaf; undefined where it is too short for it. */
export function valueIn(leafish: Leafish, payload: Uint8Array): number | undefined {
    const leaf = leafOf(leafish);
    const reading = leaf && readingOf(leaf, payload);
    return reading === undefined ? undefined : Number(meantBy(leaf!, reading));
}

/** The same as people read it, with its label or unit. */
export function textIn(leafish: Leafish, payload: Uint8Array): string {
    const leaf = leafOf(leafish);
    const reading = leaf && readingOf(leaf, payload);
    return reading === undefined ? "–" : valueText(meantBy(leaf!, reading), leaf);
}
