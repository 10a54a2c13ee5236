/** The members of a leaf that say what its readings mean to people; docs/protocol.md has their table. */

import { isNumber, isObject, isWhole, NUMBER, TEXT, TRUTH, type Kind } from "./kinds.js";

/** A low and a high end, either of which may be open. */
export type Limits = readonly [low: number | null, high: number | null];

/** What the members of a leaf can be; all of them may be absent. */
export type Members = {
    /** What the value is called; otherwise the last name of its path. */
    title?: string;
    description?: string;
    unit?: string;
    /** How many decimals are shown; otherwise as many as the value has. */
    decimals?: number;
    /** The bits of the reading that hold the field: the lowest, and how many. */
    bits?: readonly [lowest: number, count: number];
    /** The bytes of the reading stand in the other order. */
    swapped?: boolean;
    /** The field is two's complement. */
    signed?: boolean;
    /** The four bytes of a whole number are a number of single precision. */
    float?: boolean;
    /** A value is its field, times this ... */
    scale?: number;
    /** ... plus this. */
    offset?: number;
    /** Names of fields, which are whole numbers written as texts. */
    labels?: { readonly [field: string]: string };
    /** Bounds of the value for writing. */
    min?: number;
    max?: number;
    /** Beyond these ends the value is marked. */
    warn?: Limits;
    alarm?: Limits;
    /** No client writes it, although the daemon would. */
    readonly?: boolean;
    /** The reading that the bits beside a field are taken from before one came. */
    initial?: number;
    /** The value counts only in messages in which the leaf at that path has that field. */
    when?: { readonly path: string; readonly is: number };
};

function isPair(value: unknown): value is [unknown, unknown] {
    return Array.isArray(value) && value.length === 2;
}

function areLabels(value: unknown): boolean {
    return (
        isObject(value) &&
        Object.entries(value).every(([name, text]) => /^(0|-?[1-9][0-9]*)$/.test(name) && typeof text === "string")
    );
}

const WHOLE = "a whole number";
const LIMITS: Kind = {
    words: "[low, high], each a number or null",
    fits: (value) => isPair(value) && value.every((end) => end === null || isNumber(end)),
};

export const MEMBERS: ReadonlyMap<string, Kind> = new Map<keyof Members, Kind>([
    ["title", TEXT],
    ["description", TEXT],
    ["unit", TEXT],
    ["decimals", { words: WHOLE, fits: isWhole, least: 0, most: 15 }],
    ["bits", { words: "[the lowest bit, how many]", fits: (value) => isPair(value) && value.every(isWhole) }],
    ["swapped", TRUTH],
    ["signed", TRUTH],
    ["float", TRUTH],
    ["scale", NUMBER],
    ["offset", NUMBER],
    ["labels", { words: "a map from whole numbers, as texts, to texts", fits: areLabels }],
    ["min", NUMBER],
    ["max", NUMBER],
    ["warn", LIMITS],
    ["alarm", LIMITS],
    ["readonly", TRUTH],
    ["initial", { words: WHOLE, fits: isWhole, least: -(2 ** 31), most: 2 ** 32 - 1 }],
    [
        "when",
        {
            words: '{"path": a text, "is": a whole number}',
            fits: (value) => isObject(value) && typeof value.path === "string" && isWhole(value.is),
        },
    ],
]);

/** These hold an object, which is a node to the daemon, though one without leaves. */
export const MAPS: ReadonlySet<string> = new Set(["labels", "when"]);

/** Whether this is a member for people, and not a node of the schema that has the name of one. */
export function isMember(name: string, value: unknown): boolean {
    if (!isObject(value)) return MEMBERS.has(name);
    return MAPS.has(name) && !Object.hasOwn(value, "@mac") && !Object.values(value).some(isObject);
}

/** The members of a node of which the type is right. */
export function membersOf(node: { [name: string]: unknown }): Members {
    const members: { [name: string]: unknown } = {};
    for (const name of Object.keys(node)) {
        if (MEMBERS.get(name)?.fits(node[name]) && isMember(name, node[name])) members[name] = node[name];
    }
    return members;
}
