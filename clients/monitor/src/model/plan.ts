import { dotted, FORMATS, type Leaf, type Readings, type Value } from "vorbel";
import { meantBy } from "./meaning";
import { bitsOf, isField, ownMask } from "./raw";
import { hexText, valueText } from "./text";
import { byName, payloadOf } from "./writing";

/** A leaf of a frame with its last reading, if there is one; of gathered ones, the last. */
export type Read = {
    leaf: Leaf;
    reading: number | boolean | undefined;
    /** It counts only in frames of another kind than this one. */
    isElsewhere?: boolean;
};

/** What goes out when values of the leaves of one frame are written. */
export type Plan = {
    /** The bytes of each frame; undefined where they cannot be told. */
    frames: Uint8Array[] | undefined;
    /** How many bytes do not go out, because a frame holds no more than eight. */
    cut: number;
    /** The bytes that differ from the last readings: "byte 0: 58 → b0"; undefined where nothing was read. */
    changes: string[] | undefined;
    /** Leaves that are not written and whose bytes go out as zero. */
    zeroed: Touched[];
    /** Leaves behind the last byte that goes out. */
    left: Touched[];
    /** Where the bits beside fields are taken from: "The other bits of byte 0 go out as they were last read or written". */
    beside: string[];
    /** Leaves that are not written and have bits in the same bytes as fields that are. */
    sharing: Touched[];
};

/** A leaf with its place, "motor.enabled (byte 4)", and what its last reading means, if there is one. */
export type Touched = { what: string; now: string | undefined };

/** "motor.enabled (byte 4), now true" */
export function touchedText({ what, now }: Touched): string {
    return now === undefined ? what : `${what}, now ${now}`;
}

const FRAME_BYTES = 8;

/** `all` has every leaf of the frame, those that are written among them. */
export function planOf(values: ReadonlyMap<Leaf, Value>, all: Read[], readings?: Readings): Plan {
    const payload = payloadOf(values, readings);
    if (!payload)
        return { frames: undefined, cut: 0, changes: undefined, zeroed: [], left: [], beside: [], sharing: [] };
    const isFragmented = [...values.keys()].sort(byName)[0]!.fragmentation;
    const sent = isFragmented ? payload.bytes : payload.bytes.subarray(0, FRAME_BYTES);
    const isUnwritten = ({ leaf, isElsewhere }: Read) => !values.has(leaf) && !isElsewhere && isPlaced(leaf);
    const unwritten = all.filter((each) => isUnwritten(each) && bytesOf(each.leaf).length > 0);
    const touches = ({ leaf }: Read) => bytesOf(leaf).some((at) => at < sent.length && !payload.written[at]);
    const fields = [...values.keys()].filter(isField);
    const shared = new Set(fields.flatMap(wholeBytesOf));
    return {
        frames: inFrames(sent),
        cut: payload.bytes.length - sent.length,
        changes: changesOf(sent, all, shared),
        zeroed: unwritten.filter(touches).map(touched),
        left: unwritten.filter(({ leaf }) => bytesOf(leaf).every((at) => at >= sent.length)).map(touched),
        beside: [...new Set(fields.map((leaf) => besideText(leaf, readings)))],
        sharing: unwritten.filter(({ leaf }) => bytesOf(leaf).some((at) => shared.has(at))).map(touched),
    };
}

/** Where the bits beside a field come from. */
function besideText(leaf: Leaf, readings: Readings | undefined): string {
    const from =
        readings?.(dotted(leaf.path)) === undefined ? 'as "initial" has them' : "as they were last read or written";
    return `The other bits of ${rangeOf(leaf)} go out ${from}`;
}

function rangeOf({ skip, format }: Leaf): string {
    const { width } = FORMATS[format]!;
    return width === 1 ? `byte ${skip}` : `bytes ${skip}–${skip + width - 1}`;
}

function wholeBytesOf({ skip, format }: Leaf): number[] {
    return Array.from({ length: FORMATS[format]!.width }, (_, at) => skip + at);
}

function inFrames(bytes: Uint8Array): Uint8Array[] {
    const count = Math.ceil(bytes.length / FRAME_BYTES);
    return Array.from({ length: count }, (_, at) => bytes.subarray(at * FRAME_BYTES, (at + 1) * FRAME_BYTES));
}

function isPlaced({ format }: Leaf): boolean {
    return (FORMATS[format]?.width ?? 0) > 0;
}

/** The bytes of which a leaf has bits. */
function bytesOf(leaf: Leaf): number[] {
    const mask = ownMask(leaf);
    return wholeBytesOf(leaf).filter((at) => (mask >> (8 * (at - leaf.skip))) & 0xff);
}

function touched({ leaf, reading }: Read): Touched {
    const now = reading === undefined ? undefined : valueText(meantBy(leaf, reading), leaf);
    return { what: `${dotted(leaf.path)} (${placeText(leaf)})`, now };
}

function placeText(leaf: Leaf): string {
    const { width } = FORMATS[leaf.format]!;
    const own = ownMask(leaf);
    const masks = bytesOf(leaf).map((at) => [at, (own >> (8 * (at - leaf.skip))) & 0xff] as const);
    const isWhole = masks.length === width && masks.every(([, mask]) => mask === 0xff);
    if (isWhole) return rangeOf(leaf);
    return masks.map(([at, mask]) => bitsText(at, mask)).join(", ");
}

/** "byte 4", or "bits 0, 1 of byte 4". */
function bitsText(byte: number, mask: number): string {
    if (mask === 0xff) return `byte ${byte}`;
    return `${bitNames(mask)} of byte ${byte}`;
}

/** "bits 0, 1" */
function bitNames(mask: number): string {
    const bits = eachBit(mask);
    return `bit${bits.length === 1 ? "" : "s"} ${bits.join(", ")}`;
}

/** In bytes that several leaves share, the bits that change are told, too. */
function changesOf(sent: Uint8Array, all: Read[], shared: ReadonlySet<number>): string[] | undefined {
    const { bits, known } = lastBits(all, sent.length);
    if (known.every((mask) => mask === 0)) return undefined;
    const changes: string[] = [];
    for (const [at, byte] of sent.entries()) {
        const changed = (byte ^ bits[at]!) & known[at]!;
        if (changed === 0) continue;
        const told = shared.has(at) && known[at] === 0xff ? ` (${bitNames(changed)})` : "";
        changes.push(changeText(at, byte, bits[at]!, known[at]!) + told);
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
        const told = reading === undefined ? undefined : bitsOf(leaf, reading);
        if (!told) continue;
        for (let at = leaf.skip; at < Math.min(leaf.skip + told.raw.length, length); at++) {
            const mask = (told.mask >> (8 * (at - leaf.skip))) & 0xff;
            bits[at] = (bits[at]! & ~mask) | (told.raw[at - leaf.skip]! & mask);
            known[at]! |= mask;
        }
    }
    return { bits, known };
}
