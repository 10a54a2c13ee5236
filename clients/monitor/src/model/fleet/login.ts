import { hasMembers } from "../kept";
import type { Memory } from "../session";
import type { Login } from "../../socket/brokermessages";

/** What somebody types to get in, and where the boards are. */
export type Entry = Login & { prefix: string };

/** The URL of a broker's WebSocket listener: as it is, or below the page's own server. Throws on what is none. */
export function brokerUrl(text: string, page: string): string {
    const base = new URL(page);
    base.protocol = base.protocol === "https:" ? "wss:" : "ws:";
    let url: URL;
    try {
        url = new URL(text.trim() || "/mqtt", base);
    } catch {
        throw new Error("The address is that of a WebSocket listener, such as wss://broker.example.com/mqtt");
    }
    if (url.protocol === "http:" || url.protocol === "https:") {
        url.protocol = url.protocol === "http:" ? "ws:" : "wss:";
    }
    if (url.protocol !== "ws:" && url.protocol !== "wss:") throw new Error("The address begins with ws:// or wss://");
    if (url.username || url.password) throw new Error("User and password have fields of their own");
    url.hash = "";
    return url.href;
}

const NAME = "broker";

/** The login that somebody wished to be remembered, if it is for this broker and these boards. */
export function rememberedLogin(memory: Memory, url: string, prefix: string): Entry | undefined {
    try {
        const kept: unknown = JSON.parse(memory.load(NAME) ?? "");
        const types = { url: "string", user: "string", password: "string", prefix: "string" } as const;
        if (!hasMembers(kept, types)) return undefined;
        const entry = kept as Entry;
        return entry.url === url && entry.prefix === prefix ? entry : undefined;
    } catch {
        return undefined;
    }
}

/** Keeps a login beyond the visit, as somebody wishes; undefined forgets what is kept. */
export function rememberLogin(memory: Memory, entry: Entry | undefined): void {
    if (entry || memory.load(NAME)) memory.save(NAME, entry ? JSON.stringify(entry) : "");
}
