/** The part of the browsers' WebSocket that is used; the `ws` package offers it too. */
export type WebSocketLike = {
    binaryType: string;
    readonly readyState: number;
    /** `arrival` where the socket knows it better than whoever is called, who may be late; as on "values". */
    onmessage: ((event: { data: any; arrival?: number }) => void) | null;
    onclose: ((event: { code: number; reason: string; wasClean: boolean }) => void) | null;
    onerror: ((event: any) => void) | null;
    send(data: string | Uint8Array): void;
    close(): void;
    /** Only outside of browsers. */
    ping?(data: string): void;
    on?(event: "pong", listener: (data: { toString(): string }) => void): unknown;
    off?(event: "pong", listener: (data: { toString(): string }) => void): unknown;
    terminate?(): void;
    /** What the `ws` package runs on. */
    _socket?: { resetAndDestroy?(): unknown } | null;
};
export type WebSocketConstructor = new (url: string) => WebSocketLike;

/** The WebSocket's readyState while it can send. */
export const OPEN = 1;

/** What the daemon says of itself whenever a client connects. */
export type Hello = { type: string; id?: string };

export function parseHello(text: string): Hello | undefined {
    try {
        const hello = JSON.parse(text)?.hello;
        return typeof hello?.type === "string" ? hello : undefined;
    } catch {
        return undefined;
    }
}

/** Ends a connection by the closing handshake, and hears no more of it. */
export function leave(socket: WebSocketLike): void {
    deafen(socket);
    socket.close();
}

/**
 * Ends a connection on which nothing moves, where a closing handshake would never end, with all that waits to be sent:
 * the system would go on trying, and an order that has grown old would arrive when the network is back. Browsers
 * offer no more than the handshake.
 */
export function abandon(socket: WebSocketLike): void {
    deafen(socket);
    try {
        socket._socket?.resetAndDestroy?.();
    } catch {
        // Only plain TCP can be reset.
    }
    if (socket.terminate) socket.terminate();
    else socket.close();
}

function deafen(socket: WebSocketLike): void {
    socket.onmessage = socket.onclose = null;
    socket.onerror = () => {}; // closing an unfinished connection is an error to some implementations
}
