/** What the page sends to the thread that holds its connections: where to connect to, and a port to talk about it. */
export type Opening = { url: string; port: MessagePort };

/** What the page wants of a connection. "handled" asks for what has arrived since. */
export type Order = { send: string | Uint8Array<ArrayBuffer> } | { close: true } | { handled: true };

export type Arrival = { data: string | ArrayBuffer; arrival: number };
export type End = { code: number; reason: string; wasClean: boolean };

/**
 * What became of a connection. "down" comes at once, so that nothing more is sent; "end" after all that has arrived.
 * Beside the arrivals stands how many wait after them.
 */
export type News = { up: true } | { down: true } | { arrivals: Arrival[]; waiting: number } | { end: End };
