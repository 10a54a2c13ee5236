import type { Batch } from "./batch";

/** What the page sends to the thread that holds its connections: where to connect to, and a port to talk about it. */
export type Opening = { url: string; port: MessagePort };

/** What the page wants of a connection. "handled" asks for what has arrived since. */
export type Order = { send: string | Uint8Array<ArrayBuffer> } | { close: true } | { handled: true };

export type End = { code: number; reason: string; wasClean: boolean };

/**
 * What became of a connection. "down" comes at once, so that nothing more is sent; "end" after all that has arrived.
 * Beside the messages stands how many wait after them.
 */
export type News = { up: true } | { down: true } | { batch: Batch; waiting: number } | { end: End };
