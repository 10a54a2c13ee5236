import { flatten, isMap, type Value, type ValueMap } from "vorbel";
import { notFiniteOf, timeOf, type Entry, type Origin, type Told } from "./entry";
import { linesOf } from "./lines";
import { BrokenRecording, type Reading } from "./reading";

/** Maps in maps; more than schemas can have. */
const DEEPEST = 1025;

/** Reads a .jsonl file, of the page or of `vorbel-cli record`. */
export async function readJsonLines({ file, take, progress }: Reading): Promise<void> {
    let isMeant = false; // where nothing is told then, nothing counts that would be
    for await (const { text, number, finished } of linesOf(file, progress)) {
        try {
            const entry = entryOf(text);
            if (entry) take(isMeant && "values" in entry ? { told: new Map(), ...entry } : entry);
            isMeant ||= entry !== undefined && "told" in entry;
        } catch (error) {
            if (!finished) throw new BrokenRecording("its last line is cut off");
            throw new BrokenRecording(`line ${number} is none of a recording: ${(error as Error).message}`);
        }
    }
}

/** What a line tells; undefined of what other recorders may have written. Throws on what is no such line. */
export function entryOf(line: string): Entry | undefined {
    const content: unknown = parse(line);
    if (!isMap(content)) throw new Error("it is no JSON object");
    const { time: seconds, values, meant, recording, disconnected, undecodable, reason } = content as Line;
    const time = timeOf(seconds);
    if (values !== undefined && values !== null) return valuesEntry(time, revived(values), meant);
    if (isMap(recording)) return { time, recording: originOf(recording) };
    if (typeof disconnected === "string") return { time, disconnected };
    if (typeof undecodable !== "string") return undefined;
    return { time, undecodable: bytesOf(undecodable), reason: String(reason) };
}

type Line = Record<string, unknown>;

function valuesEntry(time: number, values: Value, meant: unknown): Entry {
    if (!isMap(meant)) return { time, values };
    const readings = flatten(values);
    const told: Told = new Map();
    for (const [path, value] of Object.entries(meant)) {
        const reading = readings.get(path);
        if (reading === undefined) continue;
        const labelOrValue = revived(value);
        const isLabel = typeof labelOrValue === "string";
        told.set(path, { value: isLabel ? reading : labelOrValue, unit: "", label: isLabel ? labelOrValue : "" });
    }
    return { time, values, told };
}

/** Whole numbers that JSON.parse() would round. */
const LARGE = /"(?:[^"\\]|\\.)*"|(?<![\w.+-])-?\d{16,}(?![\d.eE])/g;
/** What stands before them while they are texts; no name or text of a recording begins so. */
const MARK = "\0whole ";

function parse(line: string): unknown {
    if (!/\d{16}/.test(line)) return JSON.parse(line);
    return JSON.parse(line.replace(LARGE, (token) => (token.startsWith('"') ? token : JSON.stringify(MARK + token))));
}

/** The values that a line was made of, as far as it tells: lists of numbers are arrays, some texts are numbers. */
function revived(value: unknown, depth = 0): Value {
    if (depth > DEEPEST) throw new Error(`it is nested more than ${DEEPEST} deep`);
    if (typeof value === "string") return revivedText(value);
    if (Array.isArray(value)) return revivedList(value.map((item) => revived(item, depth + 1)));
    if (!isMap(value)) return value as Value;
    for (const name of Object.keys(value)) value[name] = revived(value[name], depth + 1);
    return value;
}

function revivedText(text: string): Value {
    if (!text.startsWith(MARK)) return notFiniteOf(text) ?? text;
    const whole = BigInt(text.slice(MARK.length));
    return Number.isSafeInteger(Number(whole)) ? Number(whole) : whole;
}

function revivedList(items: Value[]): Value {
    if (!items.every((item) => typeof item === "number")) return items;
    return Float64Array.from(items) as unknown as Value; // of the daemon's arrays each fits into it
}

function originOf(recording: ValueMap): Origin {
    const { address, hello, schema, dropped } = recording as Record<string, unknown>;
    return {
        address: typeof address === "string" ? address : "",
        hello: isMap(hello) ? { type: textOf(hello["type"]) ?? "", id: textOf(hello["id"]) } : undefined,
        schema: isMap(schema) ? schema : undefined,
        ...(typeof dropped === "number" && { dropped }),
    };
}

function textOf(value: Value | undefined): string | undefined {
    return typeof value === "string" ? value : undefined;
}

function bytesOf(hex: string): Uint8Array {
    return Uint8Array.from(hex.match(/../g) ?? [], (byte) => parseInt(byte, 16));
}
