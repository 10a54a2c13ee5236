import { decodeValues } from "vorbel";
import type { WebSocketLike } from "vorbel";
import { Session, type Memory } from "../src/model/session";

/** A daemon without a network, by the clock of the test: it greets, and takes what is sent. */
export class Daemon {
    /** What has arrived, and how many milliseconds after the daemon began. */
    readonly heard: { at: number; values: unknown }[] = [];
    /** Milliseconds until it greets. */
    latency = 5;
    /** What is said to connections waits for the network to move again. */
    isStalled = false;
    /** Whether connections end without a proper close. */
    breaksOff = false;
    readonly sockets = new Set<Socket>();
    readonly #begun = performance.now();
    #waiting: (() => void)[] = [];

    resume(): void {
        this.isStalled = false;
        for (const say of this.#waiting.splice(0)) say();
    }

    /** All connections break off. */
    cut(): void {
        for (const socket of this.sockets) socket.end(1006);
    }

    hear(values: Uint8Array): void {
        this.heard.push({ at: Math.round(performance.now() - this.#begun), values: decodeValues(values) });
    }

    /** Acts when what was said has come through the network. */
    say(act: () => void): void {
        setTimeout(() => (this.isStalled ? this.#waiting.push(act) : act()), this.latency);
    }
}

/** The end of a connection that a client has, without a network. */
export abstract class Socket implements WebSocketLike {
    binaryType = "arraybuffer";
    readyState = 1;
    onmessage: WebSocketLike["onmessage"] = null;
    onclose: WebSocketLike["onclose"] = null;
    onerror: WebSocketLike["onerror"] = null;

    greet(): void {
        this.onmessage?.({ data: '{"hello": {"type": "wire"}}' });
    }

    end(code: number, wasClean = code === 1000): void {
        this.onclose?.({ code, reason: "", wasClean });
    }

    abstract send(data: string | Uint8Array): void;

    abstract close(): void;
}

function socketTo(daemon: Daemon) {
    return class extends Socket {
        constructor() {
            super();
            daemon.sockets.add(this);
            daemon.say(() => this.greet());
        }
        override send(data: string | Uint8Array) {
            if (typeof data !== "string") daemon.hear(data);
        }
        override close() {
            daemon.sockets.delete(this);
            daemon.say(() => this.end(1000, !daemon.breaksOff));
        }
    };
}

/** Storage that lasts as long as the test. */
export function memoryOf(remembered: Record<string, string> = {}): Memory & { saved: Map<string, string> } {
    const saved = new Map(Object.entries(remembered));
    return { saved, load: (name) => saved.get(name), save: (name, text) => void saved.set(name, text) };
}

/** Where the browser keeps nothing. */
export const forbidden: Memory = { load: () => undefined, save: () => {} };

/** A session with a schema, on its way to be connected. */
export function sessionOn(daemon: Daemon, schema: object, memory: Memory = memoryOf()): Session {
    const query = { get: () => null };
    const read = () => Promise.reject(new Error("no file"));
    const session = new Session({ home: "plant", query, memory, read, WebSocket: socketTo(daemon) });
    session.setSchema(JSON.stringify(schema), false);
    return session;
}
