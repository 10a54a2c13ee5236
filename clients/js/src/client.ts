import { toUrl } from "./address.js";
import { decodeValues, encodeValues, type Value, type ValueMap } from "./codec.js";
import { assertSchema, type CheckOptions } from "./check.js";
import { isMap, namesOf, nest, type Path } from "./paths.js";
import { Queue } from "./queue.js";
import type { Schema, SchemaOf } from "./schema.js";
import { prepareWrite, type Message, type Written } from "./writing.js";

/** What the daemon says of itself whenever a client connects. */
export type Hello = { type: string; id?: string };

/** "waiting" is between two attempts, "connected" begins with the daemon's first hello. */
export type State = "connecting" | "connected" | "waiting" | "closed";

/** A message that could not be decoded; the stream goes on after it. */
export type Undecodable = { bytes: Uint8Array; error: Error };

type Events = {
    /** The new state, and for people what led to it. */
    state: [state: State, reason: string];
    /** Every hello, also those that another client's arrival causes. */
    hello: [hello: Hello];
    /** When it arrived is in milliseconds since 1970, by the clock of performance.now(). */
    values: [values: Value, arrival: number];
    undecodable: [message: Undecodable];
};

/** The part of the browsers' WebSocket that is used; the `ws` package offers it too. */
export type WebSocketLike = {
    binaryType: string;
    readonly readyState: number;
    /** `arrival` where the socket knows it better than whoever is called, who may be late; as on "values". */
    onmessage: ((event: { data: any; arrival?: number }) => void) | null;
    onclose: ((event: { code: number; reason: string }) => void) | null;
    onerror: ((event: any) => void) | null;
    send(data: string | Uint8Array): void;
    close(): void;
    /** Only outside of browsers. */
    ping?(data: string): void;
    on?(event: "pong", listener: (data: { toString(): string }) => void): unknown;
    off?(event: "pong", listener: (data: { toString(): string }) => void): unknown;
};
export type WebSocketConstructor = new (url: string) => WebSocketLike;

export type ClientOptions = {
    /** The implementation to use; needed where there is no global one, as in Node before 22. */
    WebSocket?: WebSocketConstructor;
    /** Milliseconds before the second attempt; doubled with each that fails. Default 500. */
    firstDelay?: number;
    /** The longest pause between two attempts, in milliseconds. Default 10000. */
    longestDelay?: number;
    /** Milliseconds that an attempt may take until the hello. Default 10000. */
    patience?: number;
};

/** Messages one after the other, and how many were lost because they were not taken in time. */
export type ValueStream = AsyncIterableIterator<Value> & { readonly lost: number };

export type WriteOptions = {
    /** False sends the values as they are, whatever is wrong with them. */
    check?: boolean;
    /** What the daemon's schema is known to be; otherwise that which this client set. */
    schema?: Schema | undefined;
};

/** What the daemon takes in one message, in bytes; it ends the connection at more. */
const MESSAGE_LIMIT = 4 * 1024 * 1024;

/** The WebSocket's readyState while it can send. */
const OPEN = 1;

/** Thrown when something is to be sent and no daemon is there to take it. */
export class NotConnectedError extends Error {
    override name = "NotConnectedError";
}

/**
 * A client of one daemon. It connects with connect() and keeps the connection until close(): when it is lost,
 * it is tried again after growing pauses. The schema that was last set is sent again after every reconnection,
 * because a restarted daemon has none. Written values are never kept for later: what cannot be sent at once is
 * refused, so that no machine moves on an order that has grown old.
 */
export class Client {
    readonly url: string;
    #options: Required<ClientOptions>;
    #state: State = "closed";
    #reason = "not connected yet";
    /** Why the last attempt or connection ended, until the next success. */
    #failure: string | undefined;
    #hello: Hello | undefined;
    #schema: Schema | undefined;
    #socket: WebSocketLike | undefined;
    #attempts = 0;
    #pings = 0;
    #lost = 0;
    #timer: ReturnType<typeof setTimeout> | undefined;
    #listeners: { [E in keyof Events]: Set<(...args: Events[E]) => void> } = {
        state: new Set(),
        hello: new Set(),
        values: new Set(),
        undecodable: new Set(),
    };

    /** `address` as toUrl() takes it: "192.168.1.20", "ws://machine:10443". Throws SyntaxError on others. */
    constructor(address: string, options: ClientOptions = {}) {
        this.url = toUrl(address);
        const WebSocket = options.WebSocket ?? (globalThis.WebSocket as unknown as WebSocketConstructor);
        if (!WebSocket) {
            throw new TypeError("There is no global WebSocket here: pass one, such as that of the ws package");
        }
        this.#options = { firstDelay: 500, longestDelay: 10_000, patience: 10_000, ...options, WebSocket };
    }

    get state(): State {
        return this.#state;
    }

    /** For people: what led to the present state. */
    get reason(): string {
        return this.#reason;
    }

    /** The daemon's last hello; undefined until the first. */
    get hello(): Hello | undefined {
        return this.#hello;
    }

    /** The schema that this client set; another client may have replaced it at the daemon since. */
    get schema(): Schema | undefined {
        return this.#schema;
    }

    /** How many messages slow readers of values() have lost, all in all. */
    get lost(): number {
        return this.#lost;
    }

    /** Calls `listener` on every such event from now on; returns a function that ends this. */
    on<E extends keyof Events>(event: E, listener: (...args: Events[E]) => void): () => void {
        const listeners = this.#listeners[event];
        listeners.add(listener);
        return () => void listeners.delete(listener);
    }

    /** Starts connecting, or retries at once when waiting. Returns itself; ready() tells when it succeeded. */
    connect(): this {
        if (this.#state === "closed" || this.#state === "waiting") this.#attempt();
        return this;
    }

    /**
     * The hello, as soon as connected. Rejects when the client is closed, or when `timeout` milliseconds pass;
     * the client itself goes on trying then.
     */
    ready(timeout = Infinity): Promise<Hello> {
        this.connect();
        if (this.#state === "connected") return Promise.resolve(this.#hello!);
        return new Promise((resolve, reject) => {
            const fail = () =>
                settle(() =>
                    reject(new NotConnectedError(`No connection to ${this.url}: ${this.#failure ?? this.#reason}`)),
                );
            const timer = timeout === Infinity ? undefined : setTimeout(fail, timeout);
            const off = this.on("state", (state) => {
                if (state === "connected") settle(() => resolve(this.#hello!));
                if (state === "closed") fail();
            });
            const settle = (finish: () => void) => {
                clearTimeout(timer);
                off();
                finish();
            };
        });
    }

    /** Ends the connection, the attempts at one, and all iterations over values. */
    close(): void {
        if (this.#state === "closed") return;
        this.#dropSocket();
        this.#enter("closed", "closed here");
    }

    /**
     * Sets the daemon's schema, for all its clients: at once when connected, and after every reconnection. It is
     * checked first; a SchemaError lists what is wrong with it, and then nothing is sent. `clear: true` takes one
     * without leaves, which clears the one in force; `check: false` sends whatever it is.
     */
    setSchema<const S extends Schema>(
        schema: S & SchemaOf<S>,
        { check = true, clear = false }: CheckOptions & { check?: boolean } = {},
    ): void {
        if (check) assertSchema(schema, { clear });
        assertSize(new TextEncoder().encode(JSON.stringify(schema)), "The schema");
        this.#schema = schema;
        if (this.#state === "connected") this.#sendSchema();
    }

    /**
     * Writes values to the bus, named as in the schema, and returns which numbers go out. They are checked first; a
     * WriteError lists what the daemon would ignore or write otherwise, and then nothing is sent. Scaled ones are sent
     * so that the daemon, which multiplies in single precision and cuts off, writes the nearest raw number. Where no
     * schema is known, values go as they are. The daemon does not acknowledge them.
     */
    write(values: ValueMap, { check = true, schema = this.#schema }: WriteOptions = {}): Written[] {
        const { values: sent, written } = check && schema ? prepareWrite(schema, values) : unprepared(values);
        const message = encodeValues(sent);
        assertSize(message, "The message");
        // A socket that is closing takes what it is given and sends nothing of it.
        if (this.#state !== "connected" || this.#socket!.readyState !== OPEN) {
            throw new NotConnectedError(`Not connected to ${this.url} (${this.#reason}): nothing was written`);
        }
        this.#socket!.send(message);
        return written;
    }

    /**
     * Writes one value: set("motor.setpoint", 5), or set(["motor", "setpoint"], 5). A dot within a name is `\.` in a
     * path.
     */
    set(path: string | Path, value: Value, options: WriteOptions = {}): Written | undefined {
        return this.write(nest(typeof path === "string" ? namesOf(path) : path, value), options)[0];
    }

    /**
     * Resolves when the daemon has handled all that was sent before, for it answers in that order. Rejects with
     * NotConnectedError when the connection is lost before, or after `timeout` milliseconds; nothing says then whether
     * it arrived. It takes a WebSocket that can ping, such as that of the ws package; those of browsers cannot.
     */
    confirmed(timeout = 10_000): Promise<void> {
        const socket = this.#socket;
        if (this.#state !== "connected" || !socket)
            return Promise.reject(new NotConnectedError(`Not connected to ${this.url} (${this.#reason})`));
        if (!socket.ping || !socket.on || !socket.off)
            return Promise.reject(new TypeError("This WebSocket cannot ping: that of the ws package can"));
        const mark = `vorbel ${++this.#pings}`;
        return new Promise((resolve, reject) => {
            const fail = (reason: string) =>
                settle(() => reject(new NotConnectedError(`${this.url} did not confirm what was sent: ${reason}`)));
            const timer = setTimeout(() => fail("no answer in time"), timeout);
            const off = this.on("state", (_, reason) => fail(reason));
            const answered = (data: { toString(): string }) => data.toString() === mark && settle(resolve);
            const settle = (finish: () => void) => {
                clearTimeout(timer);
                off();
                socket.off!("pong", answered);
                finish();
            };
            socket.on!("pong", answered);
            socket.ping!(mark);
        });
    }

    /**
     * All messages from now on, nested as in the schema, over reconnections, until close(). A slow reader loses
     * the oldest when `limit` of them wait; `lost` of what is returned counts them.
     */
    values({ limit = 1000 } = {}): ValueStream {
        const queue = new Queue<Value>(
            limit,
            () => off.forEach((each) => each()),
            () => this.#lost++,
        );
        const off = [
            this.on("values", (values) => queue.push(values)),
            this.on("state", (state) => state === "closed" && queue.end()),
        ];
        return queue;
    }

    #attempt(): void {
        this.#dropSocket();
        this.#enter("connecting", `connecting to ${this.url}`);
        if (this.#state !== "connecting") return; // a listener closed the client
        let socket: WebSocketLike;
        try {
            socket = new this.#options.WebSocket(this.url);
        } catch (error) {
            this.#lose(String(error));
            return;
        }
        this.#socket = socket;
        socket.binaryType = "arraybuffer";
        let failure = "";
        socket.onerror = (event) => (failure = event?.message ?? "");
        socket.onclose = (event) => this.#lose(failure || event.reason || this.#closing(event.code));
        socket.onmessage = (event) => this.#receive(event.data, event.arrival ?? now());
        this.#timer = setTimeout(() => this.#lose("no hello came in time"), this.#options.patience);
    }

    /** Browsers tell a page no more than a code; 1006 stands for whatever was no proper end. */
    #closing(code: number): string {
        if (code !== 1006) return `connection closed (code ${code})`;
        return this.#state === "connected" ? "the connection broke off" : `nothing answers at ${this.url}`;
    }

    #lose(reason: string): void {
        this.#dropSocket();
        this.#failure = reason;
        const { firstDelay, longestDelay } = this.#options;
        const pause = Math.min(longestDelay, firstDelay * 2 ** this.#attempts++);
        // Half of it at random: many clients of a restarted daemon do not come back at the same moment.
        const delay = pause * (0.5 + Math.random() / 2);
        this.#timer = setTimeout(() => this.#attempt(), delay);
        this.#enter("waiting", `${reason}; next attempt in ${(delay / 1000).toFixed(1)} s`);
    }

    #dropSocket(): void {
        clearTimeout(this.#timer);
        const socket = this.#socket;
        this.#socket = undefined;
        if (!socket) return;
        socket.onmessage = socket.onclose = null;
        socket.onerror = () => {}; // closing an unfinished connection is an error to some implementations
        socket.close();
    }

    #enter(state: State, reason: string): void {
        this.#state = state;
        this.#reason = reason;
        this.#emit("state", state, reason);
    }

    #receive(data: string | ArrayBuffer, arrival: number): void {
        if (typeof data === "string") this.#receiveText(data);
        else this.#receiveValues(new Uint8Array(data), arrival);
    }

    #receiveText(text: string): void {
        const hello = parseHello(text);
        if (!hello) {
            this.#reportUndecodable(new TextEncoder().encode(text), new Error("a text that is no hello"));
            return;
        }
        this.#hello = hello;
        if (this.#state === "connecting") this.#welcome();
        this.#emit("hello", hello);
    }

    #welcome(): void {
        clearTimeout(this.#timer);
        this.#attempts = 0;
        this.#failure = undefined;
        this.#enter("connected", `connected to ${this.url}`);
        if (this.#schema && this.#state === "connected") this.#sendSchema();
    }

    #receiveValues(bytes: Uint8Array, arrival: number): void {
        let values: Value;
        try {
            values = decodeValues(bytes);
        } catch (error) {
            this.#reportUndecodable(bytes, error as Error);
            return;
        }
        this.#emit("values", values, arrival);
    }

    #reportUndecodable(bytes: Uint8Array, error: Error): void {
        if (this.#listeners.undecodable.size === 0) {
            const hex = Array.from(bytes.subarray(0, 64), (byte) => byte.toString(16).padStart(2, "0")).join(" ");
            console.warn(`vorbel: skipped a message of ${bytes.length} bytes (${error.message}): ${hex}`);
        }
        this.#emit("undecodable", { bytes, error });
    }

    #sendSchema(): void {
        this.#socket!.send(JSON.stringify(this.#schema));
    }

    #emit<E extends keyof Events>(event: E, ...args: Events[E]): void {
        for (const listener of [...this.#listeners[event]]) listener(...args);
    }
}

function now(): number {
    return performance.timeOrigin + performance.now();
}

function unprepared(values: ValueMap): Message {
    if (!isMap(values)) throw new TypeError("Only a map of values, named as in the schema, can be written");
    return { values, written: [] };
}

function assertSize(message: Uint8Array, name: string): void {
    if (message.length <= MESSAGE_LIMIT) return;
    throw new RangeError(
        `${name} has ${message.length} bytes, more than the 4 MiB that the daemon takes: nothing was sent`,
    );
}

function parseHello(text: string): Hello | undefined {
    try {
        const hello = JSON.parse(text)?.hello;
        return typeof hello?.type === "string" ? hello : undefined;
    } catch {
        return undefined;
    }
}
