import { readFileSync } from "node:fs";
import type { Schema, Value } from "../src/index.js";
import { project } from "./machine.js";

export type Frame = [mac: number, cmd: number, payload: string];
export type Severity = "error" | "warning";

export type Paths = { paths: PathCase[]; read: PathCase[]; flat: { values: Value; flat: Record<string, Value> }[] };
type PathCase = { names: string[]; path: string };
export type SchemaCase = {
    name: string;
    schema?: Schema;
    text?: string;
    nested?: number;
    beside?: Schema;
    clear?: boolean;
    problems: [severity: Severity, path: string, code: string][];
};
export type Writes = {
    schema: Schema;
    written: WriteCase[];
    refused: { values: unknown; problems: [path: string, code: string][] }[];
};
export type WriteCase = {
    values: unknown;
    raw: Record<string, number>;
    rounded?: string[];
    missed?: Record<string, number>;
    frames: Frame[];
};
export type MessageCase = {
    name: string;
    message: string;
    value?: unknown;
    undecodable?: boolean;
    shown?: Record<string, string>;
    schema?: Schema;
    frames?: Frame[];
};

export type Members = {
    readings: ReadingCase[];
    counting: { name: string; schema: Schema; values: Value; counts: string[] }[];
    schema: Schema;
    written: (WriteCase & { readings?: Record<string, number> })[];
    refused: { values: unknown; readings?: Record<string, number>; problems: [path: string, code: string][] }[];
    following: { name: string; schema: Schema; steps: Step[] }[];
};
export type Step =
    | { reads: unknown }
    | { writes: unknown; raw: Record<string, number> }
    | { writes: unknown; refused: [path: string, code: string][] };
export type ReadingCase = {
    name: string;
    leaf: Schema;
    reading: unknown;
    field?: unknown;
    value: unknown;
    label?: string;
    level?: string;
    shown?: string;
};

/** What all clients agree on, as the file of that name says it. */
export function cases<T>(name: string): T {
    return JSON.parse(readFileSync(`${project}/clients/conformance/${name}.json`, "utf8"));
}

const special: Record<string, number> = { nan: NaN, inf: Infinity, "-inf": -Infinity };
const arrays = {
    int8: Int8Array,
    uint8: Uint8Array,
    int16: Int16Array,
    uint16: Uint16Array,
    int32: Int32Array,
    uint32: Uint32Array,
    float32: Float32Array,
};

/** The value that a case means. */
export function valueOf(notation: any): any {
    if (Array.isArray(notation)) return notation.map(valueOf);
    if (typeof notation !== "object" || notation === null) return notation;
    const kind = notation["$"];
    if (kind === undefined)
        return Object.fromEntries(Object.entries(notation).map(([name, member]) => [name, valueOf(member)]));
    if (kind in special) return special[kind];
    return arrays[kind as keyof typeof arrays].from(notation.elements.map(valueOf));
}
