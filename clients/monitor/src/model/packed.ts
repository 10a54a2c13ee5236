import { encodeValues, isMap, type Value } from "vorbel";

/**
 * The bytes that the daemon makes of a value for a leaf of the format "p" of that name: a map of one. It sorts the
 * names of maps by their characters; numbers it keeps as they were sent. Undefined where a text is not sent as it is.
 */
export function packedBytes(name: string, value: Value): number[] | undefined {
    try {
        return packed({ [name]: value });
    } catch {
        return undefined;
    }
}

function packed(value: Value): number[] {
    if (Array.isArray(value)) return [...header(value.length, 0x90, 0xdc), ...value.flatMap(packed)];
    if (isMap(value)) {
        const names = Object.keys(value).sort();
        return [
            ...header(names.length, 0x80, 0xde),
            ...names.flatMap((name) => [...text(name), ...packed(value[name]!)]),
        ];
    }
    return typeof value === "string" ? text(value) : alone(value);
}

/** Halves of pairs have no UTF-8, and a byte order mark at the beginning is taken for one. */
function text(value: string): number[] {
    if (/^\uFEFF|\p{Cs}/u.test(value)) throw new RangeError("it does not stay as it is");
    return alone(value);
}

/** What is sent, without the map around it: one byte, and one for the empty name. */
function alone(value: Value): number[] {
    return [...encodeValues({ "": value }).subarray(2)];
}

/** Of as many as fit a short header, or else with 16 or 32 bits. */
function header(length: number, short: number, long: number): number[] {
    if (length < 16) return [short + length];
    if (length < 0x10000) return [long, length >> 8, length & 0xff];
    return [long + 1, length >>> 24, (length >> 16) & 0xff, (length >> 8) & 0xff, length & 0xff];
}
