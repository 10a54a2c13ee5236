import { McapStreamReader, McapWriter, type McapTypes } from "@mcap/core";
import { isMap, Meanings, type Value, type ValueMap } from "vorbel";
import { jsonOf, lineOf, meantIn, type Entry, type Origin } from "./entry";
import { entryOf } from "./jsonlines";
import { linesOf } from "./lines";
import { BrokenRecording, type Reading } from "./reading";

/**
 * Recordings as MCAP files, for Foxglove, PlotJuggler and others, with four topics of JSON messages: "values" as they
 * came; "value" for what came without a name, since messages are objects there; "meant" for the values and labels, by
 * path, of readings that mean something else; "recording" for all else, as lines of a .jsonl file.
 */
const PIECE = 1024 * 1024;

/** The MCAP file of a .jsonl file. */
export async function writeMcap(file: Blob, progress: (read: number) => void): Promise<Blob> {
    const shape = await shapeOf(file, progress);
    const output = new Output();
    const writer = new McapWriter({ writable: output });
    await writer.start({ profile: "", library: "vorbel monitor" });
    const channels = await registered(writer, shape.values);
    let sequence = 0;
    let meanings = new Meanings();
    for await (const entry of entriesOf(file, progress)) {
        if ("recording" in entry) meanings = new Meanings(entry.recording.schema);
        const logTime = BigInt(Math.round(entry.time * 1000)) * 1000n;
        for (const { topic, text } of messagesOf(entry, meanings)) {
            const data = encoder.encode(text);
            const channelId = channels.get(topic)!;
            await writer.addMessage({ channelId, sequence: sequence++, logTime, publishTime: logTime, data });
        }
    }
    if (shape.origin) await writer.addMetadata({ name: "recording", metadata: metadataOf(shape.origin) });
    await writer.end();
    return output.file();
}

const encoder = new TextEncoder();
const decoder = new TextDecoder();

class Output {
    #parts: Uint8Array<ArrayBuffer>[] = [];
    #size = 0;

    async write(bytes: Uint8Array): Promise<void> {
        this.#parts.push(bytes.slice()); // the writer uses its buffer again
        this.#size += bytes.length;
        return Promise.resolve();
    }

    position(): bigint {
        return BigInt(this.#size);
    }

    file(): Blob {
        return new Blob(this.#parts, { type: "application/octet-stream" });
    }
}

async function* entriesOf(file: Blob, progress: (read: number) => void): AsyncGenerator<Entry> {
    for await (const { text } of linesOf(file, progress)) {
        const entry = entryOf(text);
        if (entry) yield entry;
    }
}

type Topic = "values" | "value" | "meant" | "recording";
type Message = { topic: Topic; text: string };

function messagesOf(entry: Entry, meanings: Meanings): Message[] {
    if (!("values" in entry)) return [{ topic: "recording", text: lineOf(entry).trimEnd() }];
    const meant = meantIn(entry.values, meanings);
    return [readingsOf(entry.values), ...(meant ? [{ topic: "meant" as const, text: meant }] : [])];
}

function readingsOf(values: Value): Message {
    if (isMap(values)) return { topic: "values", text: jsonOf(values) };
    return { topic: "value", text: jsonOf({ value: values }) };
}

type Shape = { type: string; properties?: Record<string, Shape>; items?: Shape };

/** What the values look like, and where they came from first. */
async function shapeOf(file: Blob, progress: (read: number) => void): Promise<{ values: Shape; origin?: Origin }> {
    const shape: { values: Shape; origin?: Origin } = { values: { type: "object", properties: emptyMap() } };
    for await (const entry of entriesOf(file, progress)) {
        if ("recording" in entry) shape.origin ??= entry.recording;
        else if ("values" in entry && isMap(entry.values)) widen(shape.values, entry.values);
    }
    return shape;
}

/** Without a prototype, so that any name can be one of it. */
function emptyMap(): Record<string, Shape> {
    return Object.create(null) as Record<string, Shape>;
}

function widen(shape: Shape, values: ValueMap): void {
    for (const name of Object.keys(values)) {
        const value = values[name]!;
        const member = ((shape.properties ??= emptyMap())[name] ??= shapeOfValue(value));
        if (isMap(value)) widen(member, value);
    }
}

function shapeOfValue(value: Value): Shape {
    if (isMap(value)) return { type: "object", properties: emptyMap() };
    if (ArrayBuffer.isView(value)) return { type: "array", items: { type: "number" } };
    return { type: typeof value === "boolean" || typeof value === "string" ? typeof value : "number" };
}

async function registered(writer: McapWriter, values: Shape): Promise<Map<Topic, number>> {
    const shapes: Record<Topic, Shape> = {
        values,
        value: { type: "object", properties: { value: { type: "number" } } },
        meant: { type: "object" },
        recording: { type: "object", properties: { time: { type: "number" } } },
    };
    const channels = new Map<Topic, number>();
    for (const topic of Object.keys(shapes) as Topic[]) {
        const data = encoder.encode(JSON.stringify(shapes[topic]));
        const schemaId = await writer.registerSchema({ name: `vorbel.${topic}`, encoding: "jsonschema", data });
        const channel = { topic, schemaId, messageEncoding: "json", metadata: new Map<string, string>() };
        channels.set(topic, await writer.registerChannel(channel));
    }
    return channels;
}

function metadataOf({ address, hello, schema }: Origin): Map<string, string> {
    const metadata = { address, type: hello?.type, id: hello?.id, schema: schema && JSON.stringify(schema) };
    return new Map(Object.entries(metadata).filter((each): each is [string, string] => each[1] !== undefined));
}

/** Reads an MCAP file of the page. */
export async function readMcap({ file, take, progress }: Reading): Promise<void> {
    const reader = new McapStreamReader();
    const topics = new Map<number, string>();
    for (let at = 0; at < file.size && !reader.done(); at += PIECE) {
        progress(at);
        const bytes = new Uint8Array(await file.slice(at, at + PIECE).arrayBuffer());
        try {
            reader.append(bytes);
            for (let record; (record = reader.nextRecord());) takeRecord(record, topics, take);
        } catch (error) {
            throw new BrokenRecording((error as Error).message);
        }
    }
    if (!reader.done()) throw new BrokenRecording("it is cut off");
}

function takeRecord(record: McapTypes.TypedMcapRecord, topics: Map<number, string>, take: Reading["take"]): void {
    if (record.type === "Channel") {
        if (record.messageEncoding !== "json") throw new Error(`the topic ${record.topic} is not in JSON`);
        topics.set(record.id, record.topic);
    } else if (record.type === "Message") {
        const entry = entryFrom(record, topics.get(record.channelId));
        if (entry) take(entry);
    }
}

function entryFrom({ data, logTime }: McapTypes.Message, topic: string | undefined): Entry | undefined {
    const text = decoder.decode(data);
    if (topic === "recording") return entryOf(text);
    if (topic === "meant") return undefined; // the schema says it
    if (topic !== "values" && topic !== "value") throw new Error(`the topic ${topic} is none of a recording`);
    const entry = entryOf(`{"time":${Number(logTime / 1000n) / 1e6},"values":${text}}`);
    if (topic === "values" || !entry || !("values" in entry) || !isMap(entry.values)) return entry;
    return { ...entry, values: entry.values["value"]! };
}
