import { FORMATS, type Leaf, type Value } from "vorbel";
import { bitsOf, rawNumber, type Bits } from "./raw";
import { hexText, listText, numberText } from "./text";

/** What the table can show beside a value. */
export const COLUMNS = ["min", "max", "raw", "hex"] as const;
export type Column = (typeof COLUMNS)[number];

/** What cannot be known. */
export const UNKNOWN = "?";

/** The numbers on the bus that a reading came from; of an array the first ones. */
export function rawText(reading: Value, leaf: Leaf | undefined, most?: number): string {
    return eachText(reading, leaf, most, (reading, leaf) => {
        const raw = rawNumber(leaf, reading);
        return raw === undefined ? UNKNOWN : numberText(raw, { ...leaf, meaning: {} });
    });
}

/** The bytes that a reading came from, in their order on the bus. */
export function bytesText(reading: Value, leaf: Leaf | undefined, most?: number): string {
    if (leaf?.format === "p" && reading instanceof Uint8Array) return hexText(reading);
    return eachText(reading, leaf, most, (reading, leaf) => {
        const bits = bitsOf(leaf, reading);
        return bits ? digitsText(bits) : UNKNOWN;
    });
}

type TextOf = (reading: number | boolean, leaf: Leaf) => string;

/** Without a leaf of a known width, nothing says how a value was read. */
function eachText(reading: Value, leaf: Leaf | undefined, most: number | undefined, textOf: TextOf): string {
    if (!leaf || !FORMATS[leaf.format]?.width) return UNKNOWN;
    if (typeof reading === "number" || typeof reading === "boolean") return textOf(reading, leaf);
    if (!ArrayBuffer.isView(reading)) return UNKNOWN;
    return listText(reading.length, (at) => textOf(reading[at]!, leaf), most);
}

/** Both digits of each byte; of one that is known in part, those of which all bits are. */
function digitsText({ raw, mask }: Bits): string {
    const digit = (byte: number, known: number, shift: 0 | 4) =>
        (known >> shift) % 16 === 15 ? ((byte >> shift) % 16).toString(16) : UNKNOWN;
    const byteText = (byte: number, at: number) => {
        const known = (mask >> (8 * at)) & 0xff;
        return digit(byte, known, 4) + digit(byte, known, 0);
    };
    return Array.from(raw, byteText).join(" ");
}
