import { isMap, justified, Meanings, type Meant, type Schema, type Value } from "vorbel";
import { isMeant } from "../meaning";

/** What came, and when, in milliseconds since 1970. */
export type Entry = { time: number } & (
    | { values: Value; told?: Told }
    | { undecodable: Uint8Array; reason: string }
    | { disconnected: string }
    | { recording: Origin }
);

/** What a recording says of values, by dotted path, for those who do not have the schema. */
export type Told = Map<string, { value: Value; unit: string; label: string }>;

/** Where a recording's values come from, from an entry on. */
export type Origin = {
    address: string;
    hello?: { type: string; id?: string | undefined } | undefined;
    /** What explained the values. */
    schema?: Schema | undefined;
    /** How many messages came before, and were dropped. */
    dropped?: number;
};

/**
 * One line of a recording, as `vorbel-cli record` writes it into a .jsonl file.
 * Beside the readings stand, by path, the values or labels of those that mean something else.
 */
export function lineOf(entry: Entry, meanings = new Meanings()): string {
    const meant = "values" in entry ? meantIn(entry.values, meanings) : "";
    return `{"time":${secondsOf(entry.time)},${contentOf(entry)}${meant && `,"meant":${meant}`}}\n`;
}

/** As JSON; empty where readings mean nothing but themselves. */
export function meantIn(values: Value, meanings: Meanings): string {
    const members: string[] = [];
    for (const [path, meant] of meanings.flat(values)) {
        if (meant.leaf && isMeant(meant.leaf)) members.push(`${JSON.stringify(path)}:${jsonOf(labelOrValue(meant))}`);
    }
    return members.length > 0 ? `{${members.join(",")}}` : "";
}

function labelOrValue({ label, value }: Meant): Value {
    return label ?? value;
}

/** The milliseconds of seconds that were written. Throws on what no date can have. */
export function timeOf(seconds: unknown): number {
    if (typeof seconds !== "number" || !(Math.abs(seconds) <= 8.64e12)) throw new Error("it has no time");
    return seconds * 1000;
}

/** The time with microseconds, which is more than clocks tell. */
function secondsOf(time: number): string {
    return String(Math.round(time * 1000) / 1e6);
}

function contentOf(entry: Entry): string {
    if ("values" in entry) return `"values":${jsonOf(entry.values)}`;
    if ("disconnected" in entry) return `"disconnected":${JSON.stringify(entry.disconnected)}`;
    if ("recording" in entry) return `"recording":${JSON.stringify(entry.recording)}`;
    const bytes = Array.from(entry.undecodable, (byte) => byte.toString(16).padStart(2, "0")).join("");
    return `"undecodable":"${bytes}","reason":${JSON.stringify(entry.reason)}`;
}

/** A value as JSON: arrays as lists, what is not finite as text. */
export function jsonOf(value: Value): string {
    if (typeof value === "number") return numberJson(value);
    if (typeof value === "bigint") return String(value);
    if (ArrayBuffer.isView(value)) return `[${Array.from(value as ArrayLike<number>, numberJson).join(",")}]`;
    if (Array.isArray(value)) return `[${value.map(jsonOf).join(",")}]`;
    if (!isMap(value)) return JSON.stringify(value);
    return `{${Object.keys(value)
        .map((name) => `${JSON.stringify(name)}:${jsonOf(value[name]!)}`)
        .join(",")}}`;
}

function numberJson(value: number): string {
    return Number.isFinite(value) ? numberText(value) : `"${numberText(value)}"`;
}

/** A number as recordings spell it, with the digits that it justifies; also one that is not finite. */
export function numberText(value: number): string {
    if (Number.isFinite(value)) return String(justified(value));
    return Number.isNaN(value) ? "nan" : value > 0 ? "inf" : "-inf";
}

const notFinite: Readonly<Record<string, number>> = { nan: NaN, inf: Infinity, "-inf": -Infinity };

/** The number that a text stands for in a recording; undefined where it is a mere text. */
export function notFiniteOf(text: string): number | undefined {
    return Object.hasOwn(notFinite, text) ? notFinite[text] : undefined;
}
