import { dotted, type Path } from "./paths.js";

/** What can be wrong with a schema or with values; docs/protocol.md has the table. */
export type ProblemCode =
    | "not-json"
    | "not-an-object"
    | "repeated-name"
    | "too-deep"
    | "no-leaf"
    | "unknown-option"
    | "options-without-mac"
    | "leaf-without-signs"
    | "option-without-sign"
    | "option-type"
    | "option-range"
    | "no-cmd"
    | "no-format"
    | "unknown-format"
    | "long-format"
    | "unreadable-array"
    | "beyond-frame"
    | "beyond-any-frame"
    | "write-only"
    | "packed-cut"
    | "no-effect"
    | "leaf-in-leaf"
    | "overlap"
    | "member-type"
    | "member-range"
    | "member-conflict"
    | "unknown-when"
    | "when-elsewhere"
    | "mixed-fragmentation"
    | "not-a-map"
    | "unknown-name"
    | "is-a-group"
    | "read-only"
    | "unknown-label"
    | "out-of-bounds"
    | "no-reading"
    | "shared-bits"
    | "not-selected"
    | "not-a-number"
    | "out-of-range";

/** Defined behaviour that is seldom meant; all others keep a schema from being sent. */
const WARNINGS: ReadonlySet<ProblemCode> = new Set([
    "beyond-frame",
    "leaf-in-leaf",
    "long-format",
    "mixed-fragmentation",
    "no-cmd",
    "no-effect",
    "option-without-sign",
    "overlap",
    "packed-cut",
    "write-only",
]);

export type Problem = { severity: "error" | "warning"; path: Path; code: ProblemCode; message: string };

/** What is wrong with a node that is known. */
export type Found = [code: ProblemCode, message: string];

export function problem(path: Path, code: ProblemCode, message: string): Problem {
    return { severity: WARNINGS.has(code) ? "warning" : "error", path, code, message };
}

/** A problem on one line, beginning with its path. */
export function describeProblem({ path, message }: Problem): string {
    return `${dotted(path) || "the document"}: ${message}`;
}

/** Thrown instead of sending a schema with errors. */
export class SchemaError extends Error {
    override name = "SchemaError";
    constructor(readonly problems: Problem[]) {
        super(`The schema was not sent:\n${problems.map(describeProblem).join("\n")}`);
    }
}

/** Thrown instead of sending values that the daemon would ignore or write otherwise. */
export class WriteError extends Error {
    override name = "WriteError";
    constructor(readonly problems: Problem[]) {
        super(`Nothing was written: ${problems.map(describeProblem).join("; ")}`);
    }
}

/** A value as it stands in JSON, cut where it is long. */
export function quoted(value: unknown): string {
    const text = typeof value === "number" || typeof value === "bigint" ? String(value) : jsonText(value);
    return text.length > 40 ? `${text.slice(0, 37)}...` : text;
}

function jsonText(value: unknown): string {
    try {
        return JSON.stringify(value, (_, item) => (typeof item === "bigint" ? String(item) : item)) ?? String(value);
    } catch (error) {
        if (!(error instanceof RangeError)) throw error;
        return "what is nested too deep"; // deeper than the stack of whoever writes JSON
    }
}

export function listed(names: readonly string[]): string {
    return names.map((name) => `"${name}"`).join(", ");
}
