import { isMap } from "vorbel";

/** What a board's `status` says. */
export type Status =
    | { online: false }
    | { online: true; type: string; id: string | undefined; since: number | undefined; boot: number; lost: number };

/** Characters of a type or an ID that are kept. */
const LONGEST = 200;

/** Reads it; undefined for what is none. */
export function parseStatus(text: string): Status | undefined {
    const found = parsed(text);
    if (!isMap(found) || typeof found["online"] !== "boolean") return undefined;
    if (!found["online"]) return { online: false };
    const { type, id, since, boot, lost } = found;
    return {
        online: true,
        type: textOf(type) ?? "",
        id: textOf(id),
        since: numberOf(since),
        boot: numberOf(boot) ?? 0,
        lost: numberOf(lost) ?? 0,
    };
}

function parsed(text: string): unknown {
    try {
        return JSON.parse(text);
    } catch {
        return undefined;
    }
}

function textOf(value: unknown): string | undefined {
    return typeof value === "string" ? value.slice(0, LONGEST) : undefined;
}

function numberOf(value: unknown): number | undefined {
    return typeof value === "number" && Number.isFinite(value) ? value : undefined;
}
