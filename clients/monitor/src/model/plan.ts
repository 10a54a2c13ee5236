import { dotted, FORMATS, isScaled, type Leaf, type Value } from "vorbel";
import { hexText } from "./text";
import { byName, payloadOf, place } from "./writing";

/** A leaf of a frame with its last reading, if there is one; of gathered ones, the last. */
export type Read = { leaf: Leaf; reading: number | boolean | undefined };

/** What goes out when values of the leaves of one frame are written. */
export type Plan = {
    /** The bytes of each frame; undefined where they cannot be told, with a value of the format "p". */
    frames: Uint8Array[] | undefined;
    /** How many bytes do not go out, because a frame holds no more than eight. */
    cut: number;
    /** The bytes that differ from the last readings: "byte 0: 58 → b0"; undefined where nothing was read. */
    changes: string[] | undefined;
    /** Leaves that are not written and whose bytes go out as zero: "motor.enabled (byte 4), now true". */
    zeroed: string[];
    /** Leaves behind the last byte that goes out. */
    left: string[];
};

const FRAME_BYTES = 8;

/** `all` has every leaf of the frame, those that are written among them. */
export function planOf(values: ReadonlyMap<Leaf, Value>, all: Read[]): Plan {
    const payload = payloadOf(values);
    if (!payload) return { frames: undefined, cut: 0, changes: undefined, zeroed: [], left: [] };
    const isFragmented = [...values.keys()].sort(byName)[0]!.fragmentation;
    const sent = isFragmented ? payload : payload.subarray(0, FRAME_BYTES);
    const unwritten = all.filter(({ leaf }) => !values.has(leaf) && isPlaced(leaf) && bytesOf(leaf).length > 0);
    const covered = coverage([...values.keys()], sent.length);
    const touches = ({ leaf }: Read) => bytesOf(leaf).some((at) => at < sent.length && !covered[at]);
    return {
        frames: inFrames(sent),
        cut: payload.length - sent.length,
        changes: changesOf(sent, all),
        zeroed: unwritten.filter(touches).map(describeRead),
        left: unwritten.filter(({ leaf }) => bytesOf(leaf).every((at) => at >= sent.length)).map(describeRead),
    };
}

function inFrames(bytes: Uint8Array): Uint8Array[] {
    const count = Math.ceil(bytes.length / FRAME_BYTES);
    return Array.from({ length: count }, (_, at) => bytes.subarray(at * FRAME_BYTES, (at + 1) * FRAME_BYTES));
}

function isPlaced({ format }: Leaf): boolean {
    return (FORMATS[format]?.width ?? 0) > 0;
}

/** The bytes that values are written to. */
function coverage(leaves: Leaf[], length: number): boolean[] {
    const covered = new Array<boolean>(length).fill(false);
    for (const { skip, format } of leaves) covered.fill(true, skip, skip + FORMATS[format]!.width);
    return covered;
}

/** The bits of a leaf's raw number that count. */
function maskOf({ format, mask }: Leaf): number {
    return FORMATS[format]!.masked ? mask : -1;
}

/** The bytes of which a leaf has bits. */
function bytesOf(leaf: Leaf): number[] {
    const { width } = FORMATS[leaf.format]!;
    const all = Array.from({ length: width }, (_, at) => at);
    return all.filter((at) => (maskOf(leaf) >> (8 * at)) & 0xff).map((at) => leaf.skip + at);
}

function describeRead({ leaf, reading }: Read): string {
    const now = reading === undefined ? "" : `, now ${reading}`;
    return `${dotted(leaf.path)} (${placeText(leaf)})${now}`;
}

function placeText(leaf: Leaf): string {
    const { width } = FORMATS[leaf.format]!;
    const masks = bytesOf(leaf).map((at) => [at, (maskOf(leaf) >> (8 * (at - leaf.skip))) & 0xff] as const);
    const isWhole = masks.length === width && masks.every(([, mask]) => mask === 0xff);
    if (isWhole && width > 1) return `bytes ${leaf.skip}–${leaf.skip + width - 1}`;
    return masks.map(([at, mask]) => bitsText(at, mask)).join(", ");
}

/** "byte 4", or "bits 0, 1 of byte 4". */
function bitsText(byte: number, mask: number): string {
    if (mask === 0xff) return `byte ${byte}`;
    const bits = eachBit(mask);
    return `bit${bits.length === 1 ? "" : "s"} ${bits.join(", ")} of byte ${byte}`;
}

function changesOf(sent: Uint8Array, all: Read[]): string[] | undefined {
    const { bits, known } = lastBits(all, sent.length);
    if (known.every((mask) => mask === 0)) return undefined;
    const changes: string[] = [];
    for (const [at, byte] of sent.entries()) {
        if (((byte ^ bits[at]!) & known[at]!) !== 0) changes.push(changeText(at, byte, bits[at]!, known[at]!));
    }
    return changes;
}

/** Of a byte that was read in part, the bits that change: "bit 0 of byte 4: 1 → 0". */
function changeText(at: number, byte: number, was: number, known: number): string {
    if (known === 0xff) return `byte ${at}: ${hexText([was])} → ${hexText([byte])}`;
    const changed = (byte ^ was) & known;
    const digits = (bits: number) => eachBit(changed).map((bit) => (bits >> bit) & 1);
    return `${bitsText(at, changed)}: ${digits(was).join(", ")} → ${digits(byte).join(", ")}`;
}

function eachBit(mask: number): number[] {
    return [0, 1, 2, 3, 4, 5, 6, 7].filter((bit) => (mask >> bit) & 1);
}

/** The bits that the last readings tell of a payload, and which of them they tell. */
function lastBits(all: Read[], length: number): { bits: Uint8Array; known: Uint8Array } {
    const bits = new Uint8Array(length);
    const known = new Uint8Array(length);
    for (const { leaf, reading } of all) {
        const told = isPlaced(leaf) ? rawBits(leaf, reading) : undefined;
        if (!told) continue;
        for (let at = leaf.skip; at < Math.min(leaf.skip + told.raw.length, length); at++) {
            const mask = (told.mask >> (8 * (at - leaf.skip))) & 0xff;
            bits[at] = (bits[at]! & ~mask) | (told.raw[at - leaf.skip]! & mask);
            known[at]! |= mask;
        }
    }
    return { bits, known };
}

/** A reading's bytes on the bus, and which of their bits it tells; undefined where it tells none. */
function rawBits(leaf: Leaf, reading: number | boolean | undefined) {
    if (reading === undefined) return undefined;
    if (leaf.asBool) return flagBits(leaf, Boolean(reading));
    if (typeof reading === "boolean") return undefined;
    const number = isScaled(leaf) ? Math.round(reading * leaf.factor) : reading;
    const isExact = !isScaled(leaf) || Math.abs(number) <= 2 ** 24; // as far as single precision tells
    return isExact && Number.isFinite(number) ? { raw: bytesFor(leaf, number), mask: maskOf(leaf) } : undefined;
}

/** Not set, all of its bits are 0; set, only a single one is known to be 1. */
function flagBits(leaf: Leaf, isSet: boolean) {
    if (leaf.format === "f") return undefined;
    const mask = maskOf(leaf);
    const isSingle = (mask & (mask - 1)) === 0;
    if (isSet && !isSingle) return undefined;
    return { raw: bytesFor(leaf, isSet ? mask : 0), mask };
}

function bytesFor(leaf: Leaf, raw: number): Uint8Array {
    const bytes = new Uint8Array(FORMATS[leaf.format]!.width);
    place(new DataView(bytes.buffer), { ...leaf, skip: 0 }, raw);
    return bytes;
}
