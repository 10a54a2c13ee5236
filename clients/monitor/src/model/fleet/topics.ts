import type { Path } from "vorbel";

/** Names of topics: docs/gateway.md has their table. */

/** Bytes of UTF-8 that mean something to a broker; so do control characters and what is none in Unicode. */
const SPECIAL = /[/+#%.*>$ \p{Cc}\p{Noncharacter_Code_Point}]/gu;
const encoder = new TextEncoder();
const decoder = new TextDecoder("utf-8", { fatal: true, ignoreBOM: true });

/** A name as one level of a topic. */
export function levelOf(name: string): string {
    return name.replace(SPECIAL, (character) => Array.from(encoder.encode(character), percent).join(""));
}

function percent(byte: number): string {
    return `%${byte.toString(16).toUpperCase().padStart(2, "0")}`;
}

/** The name that a level stands for. A % without two digits behind it stands for itself. */
export function nameOf(level: string): string {
    if (!level.includes("%")) return level;
    const bytes: number[] = [];
    for (const [part, digits] of level.matchAll(/%([0-9A-Fa-f]{2})|%|[^%]+/g)) {
        if (digits === undefined) bytes.push(...encoder.encode(part));
        else bytes.push(parseInt(digits, 16));
    }
    try {
        return decoder.decode(Uint8Array.from(bytes));
    } catch {
        return level; // no name of a gateway's
    }
}

/** "now/motor/speed" */
export function nowOf(path: Path): string {
    return ["now", ...path.map(levelOf)].join("/");
}

/** "set/operator/motor/setpoint" */
export function setOf(user: string, path: Path): string {
    return ["set", user, ...path.map(levelOf)].join("/");
}

/** The level of the board, and what stands behind it; undefined for what does not begin with the prefix. */
export function partsOf(prefix: string, topic: string): { level: string; rest: string } | undefined {
    if (!topic.startsWith(`${prefix}/`)) return undefined;
    const begin = prefix.length + 1;
    const end = topic.indexOf("/", begin);
    if (end <= begin) return undefined;
    return { level: topic.slice(begin, end), rest: topic.slice(end + 1) };
}

/** What is wrong with a prefix; undefined for one that a gateway may have. */
export function problemOfPrefix(prefix: string): string | undefined {
    if (prefix === "" || prefix.split("/").includes("")) return "The prefix is names with / between them";
    if (/[+#]/.test(prefix)) return "The prefix has no + or #";
    return undefined;
}
