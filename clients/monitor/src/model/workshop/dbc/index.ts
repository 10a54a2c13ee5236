/** Imports DBC files into schemas, with the results of the terminal tool's `schema import`. */

import type { Schema } from "vorbel";
import { toSchema, type Outcome } from "./importing";
import { readDbc } from "./reader";

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
