/** Imports DBC files into schemas, and exports these, as the terminal tool's `schema import` and `schema export` do. */

import type { Schema } from "vorbel";
import { toMessages, type ExportOutcome } from "./exporting";
import { toSchema, type Outcome } from "./importing";
import { readDbc } from "./reader";
import { dbcOf } from "./writer";

export type { ExportOutcome, ExportVerdict } from "./exporting";
export type { Outcome, Verdict } from "./importing";
/**
 * The schema, what became of each signal in it, and beside them what was not understood, with the numbers of lines, and
 * how many messages have no signals.
 */
export type Imported = { schema: Schema; outcomes: Outcome[]; notes: string[] };

/** Says why, by its outcomes and notes. */
export class NothingImported extends Error {
    constructor(
        readonly outcomes: readonly Outcome[],
        readonly notes: readonly string[],
    ) {
        super("no signal of it can be imported");
    }
}

/** Throws NothingImported, and nothing else. */
export function importDbc(content: Uint8Array): Imported {
    const { messages, notes } = readDbc(content);
    const { schema, outcomes } = toSchema(messages);
    const empty = messages.filter(({ signals }) => signals.length === 0).length;
    if (empty > 0) notes.push(`${empty} ${empty === 1 ? "message" : "messages"} without signals left out`);
    if (Object.keys(schema).length === 0) throw new NothingImported(outcomes, notes);
    return { schema, outcomes, notes };
}

/** A file, how many messages it has, and what became of each leaf. Without a message, there is no file. */
export type Exported = {
    content: Uint8Array<ArrayBuffer> | undefined;
    messages: number;
    outcomes: ExportOutcome[];
};

/** Of a schema without errors. */
export function exportDbc(schema: Schema): Exported {
    const { messages, outcomes } = toMessages(schema);
    const content = messages.length > 0 ? dbcOf(messages) : undefined;
    return { content, messages: messages.length, outcomes };
}
