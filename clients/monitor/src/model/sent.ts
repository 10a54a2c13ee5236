import { dotted, WriteError, type Leaf, type Readings, type Value } from "vorbel";
import { now, wallClock } from "./clock";
import { hasMembers, Kept } from "./kept";
import type { Memory } from "./session";
import { hexText, stampText, unitText, valueText } from "./text";
import { payloadOf } from "./writing";

/** Who asks for values to be written. */
export type Sender = {
    /** As people see it: "form", "preset Start". */
    source: string;
    /** The orders of one cycle, which are listed as one. */
    cycle?: string;
    /** What gives up values that have not been sent yet. */
    signal?: AbortSignal;
    /** Milliseconds after which they are not sent any more. */
    patience?: number;
};

/**
 * "open": nothing says what became of it, because it is on its way, or because the page was closed meanwhile.
 * "refused": it did not go out. "unconfirmed": it went out, and nothing says whether it was handled.
 */
export type Outcome = "open" | "handled" | "refused" | "unconfirmed";

export type SentEntry = {
    id: string;
    /** By the clock on the wall, in milliseconds since 1970; of a cycle the first and the last. */
    time: number;
    until: number;
    source: string;
    /** "motor.setpoint = 1200: raw 1200" */
    text: string;
    /** "mac 5 cmd 3: b0 04" */
    frame: string;
    outcome: Outcome;
    /** Why it was not handled. */
    note: string;
    times: number;
};

/** How many entries are kept; all orders of a cycle are one for each frame. */
const KEPT = 300;

export const outcomeWords: Record<Outcome, string> = {
    open: "no answer known",
    handled: "handled",
    refused: "not sent",
    unconfirmed: "perhaps handled",
};

/** What went out, or was to go out, over all visits. An order is noted before it goes. */
export class SentLog {
    readonly kept: Kept<SentEntry>;

    constructor(memory: Memory) {
        this.kept = new Kept(memory, "sent", KEPT, isSentEntry);
    }

    /** Notes an order before it goes out; what is returned takes what became of it. */
    begin({ source, cycle }: Sender, values: ReadonlyMap<Leaf, Value>, frame = frameText(values)) {
        const time = wallClock.at(now());
        const id = cycle === undefined ? newId() : `${cycle} ${placeOf(values)}`;
        const text = [...values].map(([leaf, value]) => assignmentText(leaf, value)).join(", ");
        const entry = { id, time, until: time, source, text, frame, outcome: "open" as Outcome, note: "", times: 1 };
        const before = this.kept.find(id);
        if (!before) this.kept.put(entry);
        return {
            handled: (told: string) => this.#handled({ ...entry, text: told, outcome: "handled" }, before),
            failed: (outcome: Outcome, note: string) =>
                this.kept.put({ ...entry, id: before ? newId() : id, outcome, note }),
        };
    }

    /** The next of a cycle counts its entry up. */
    #handled(entry: SentEntry, before: SentEntry | undefined): void {
        this.kept.put(before ? { ...entry, time: before.time, times: before.times + 1 } : entry);
    }
}

/** One entry in a line, to be pasted into a table. */
export function sentLine({ time, until, source, text, frame, outcome, note, times }: SentEntry): string {
    const count = times > 1 ? `${times} times until ${stampText(until)}` : "";
    return [stampText(time), source, outcomeWords[outcome], text, frame, count, note].join("\t");
}

let ids = 0;

/** Unlike those of other pages, and of other visits. */
export function newId(): string {
    return `${now()}-${ids++}`;
}

/** "motor.setpoint = 1200 rpm", "motor.mode = slow" */
export function assignmentText(leaf: Leaf, value: Value): string {
    const isLabel = typeof value === "string" && Object.values(leaf.meaning.labels ?? {}).includes(value);
    const text = isLabel ? value : valueText(value) + (typeof value === "number" ? unitText(leaf) : "");
    return `${dotted(leaf.path)} = ${text}`;
}

export function frameText(values: ReadonlyMap<Leaf, Value>, readings?: Readings): string {
    try {
        const payload = payloadOf(values, readings);
        return placeOf(values) + (payload ? `: ${hexText(payload.bytes)}` : ", packed");
    } catch (error) {
        if (error instanceof WriteError) return placeOf(values); // which is why nothing goes out
        throw error;
    }
}

function placeOf(values: ReadonlyMap<Leaf, Value>): string {
    const [leaf] = values.keys();
    return `mac ${leaf!.mac} cmd ${leaf!.cmd}`;
}

function isSentEntry(entry: unknown): entry is SentEntry {
    const types = { id: "string", time: "number", until: "number", source: "string", text: "string" } as const;
    const more = { frame: "string", outcome: "string", note: "string", times: "number" } as const;
    return hasMembers(entry, { ...types, ...more }) && (entry as SentEntry).outcome in outcomeWords;
}
