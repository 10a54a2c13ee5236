import { isMap } from "vorbel";

/** What became of a write, as a gateway tells it. */
export type Done = {
    user: string | undefined;
    /** With dots; undefined where it is not about a value. */
    path: string | undefined;
    value: unknown;
    /** The number in the payload; undefined if nothing was sent. */
    raw: number | undefined;
    ok: boolean;
    error: string;
};

/** Reads it; undefined for what is none. */
export function parseDone(text: string): Done | undefined {
    let found: unknown;
    try {
        found = JSON.parse(text);
    } catch {
        return undefined;
    }
    if (!isMap(found) || typeof found["ok"] !== "boolean") return undefined;
    const { user, path, value, raw, ok, error } = found as Record<string, unknown>;
    return {
        user: typeof user === "string" ? user : undefined,
        path: typeof path === "string" ? path : undefined,
        value,
        raw: typeof raw === "number" ? raw : undefined,
        ok: ok as boolean,
        error: typeof error === "string" ? error : "",
    };
}
