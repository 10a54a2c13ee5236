import { isMap, type Schema, type Value } from "vorbel";

/**
 * Every frame of the bus as it is: by a schema that has a leaf of one byte for each byte of each frame. What comes is
 * one message for each frame, and in it as many bytes as the frame has. What it does not tell: empty frames, of which
 * nothing comes; bytes beyond the eighth; whether an identifier was an extended one, of which the lower eleven bits
 * count, and whether a frame was a remote or an error frame.
 */

export const NODES = 64;
export const COMMANDS = 32;
/** Of a classic frame. */
export const BYTES = 8;

/** What came of a frame: its identifier and its bytes, one at least. */
export type Frame = { identifier: number; payload: Uint8Array };

/** An identifier as people write it, which is the name of its group. */
export function identifierText(identifier: number): string {
    return identifier.toString(16).toUpperCase().padStart(3, "0");
}

const identifiers = new Map(
    Array.from({ length: NODES * COMMANDS }, (_, identifier) => [identifierText(identifier), identifier]),
);

/** The schema for all frames. */
export function covering(): Schema {
    const groups = [...identifiers].map(([name, identifier]) => [name, groupOf(identifier)]);
    return Object.fromEntries(groups);
}

function groupOf(identifier: number): Schema {
    const [mac, cmd] = [identifier % NODES, Math.floor(identifier / NODES)];
    const leaves = Array.from({ length: BYTES }, (_, at) => [
        String(at),
        { "@mac": mac, "@cmd": cmd, "@format": "C", "@skip": at },
    ]);
    return Object.fromEntries(leaves);
}

/** The frames that a message tells of. Values of another schema, which were on their way, are none. */
export function framesIn(values: Value): Frame[] {
    if (!isMap(values)) return [];
    const frames: Frame[] = [];
    for (const name in values) {
        const identifier = identifiers.get(name);
        const payload = identifier === undefined ? undefined : payloadIn(values[name]!);
        if (payload) frames.push({ identifier: identifier!, payload });
    }
    return frames;
}

/** The bytes under their places, from the first on; undefined where it is anything else. */
function payloadIn(group: Value): Uint8Array | undefined {
    if (!isMap(group)) return undefined;
    const { length } = Object.keys(group);
    if (length < 1 || length > BYTES) return undefined;
    const payload = new Uint8Array(length);
    for (let at = 0; at < length; at++) {
        const byte = group[at];
        if (typeof byte !== "number" || byte !== (byte & 0xff)) return undefined;
        payload[at] = byte;
    }
    return payload;
}
