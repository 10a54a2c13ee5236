import { toUrl, withoutPassword } from "./address.js";
import { decodeValues, encodeValues, type Value, type ValueMap } from "./codec.js";
import { assertSchema, type CheckOptions } from "./check.js";
import { isMap, namesOf, nest, type Path } from "./paths.js";
import { Ownership, type SchemaEvent } from "./ownership.js";
import { Pulse } from "./pulse.js";
import { Queue } from "./queue.js";
import { LastReadings } from "./readings.js";
import type { Schema, SchemaOf } from "./schema.js";
import {
    abandon,
    leave,
    OPEN,
    parseHello,
    type Hello,
    type WebSocketConstructor,
    type WebSocketLike,
} from "./socket.js";
import { Visit } from "./visit.js";
import { prepareWrite, withSelectors, type Message, type Readings, type Written } from "./writing.js";

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
    /** What became of the schema that this client set, and for people why. */
    schema: [event: SchemaEvent, reason: string];
};

export type ClientOptions = {
    /** The implementation to use; needed where there is no global one, as in Node before 22. */
    WebSocket?: WebSocketConstructor;
    /** Milliseconds before the second attempt; doubled with each that fails. Default 500. */
    firstDelay?: number;
    /** The longest pause between two attempts, in milliseconds. Default 10000. */
    longestDelay?: number;
    /** Milliseconds that an attempt may take until the hello. Default 10000. */
    patience?: number;
    /** Milliseconds of silence after which the daemon is asked for a sign of life. Default 2000; Infinity: never. */
    askAfter?: number;
    /**
     * Milliseconds without any message or answer after which the connection counts as lost and is dropped, with
     * everything that it has not sent yet. Default 5000; Infinity waits for ever.
     */
    lostAfter?: number;
    /**
     * Milliseconds in which none of the schema's values has come after which another client may have replaced it, so
     * that it is not sent again after a reconnection. Default 10000; Infinity for clients that nobody looks after.
     */
    silentAfter?: number;
};

export type SetOptions = CheckOptions & {
    /** False sends the schema whatever is wrong with it. */
    check?: boolean;
};

/** Messages one after the other, and how many were lost because they were not taken in time. */
export type ValueStream = AsyncIterableIterator<Value> & { readonly lost: number };

export type WriteOptions = {
    /** False sends the values as they are, whatever is wrong with them. */
    check?: boolean;
    /** What the daemon's schema is known to be; otherwise that which this client set. */
    schema?: Schema | undefined;
    /** The last readings that counted, which fields of some bits are written into; otherwise those that came here. */
    readings?: Readings | undefined;
};

export type DeliverOptions = WriteOptions & {
    /** What gives up a message that has not been sent yet. */
    signal?: AbortSignal | undefined;
    /** Milliseconds after which it is not sent any more. Default, and the most: `lostAfter`. */
    patience?: number | undefined;
};

/** What goes out, and which numbers that writes. */
type Prepared = { message: Uint8Array; written: Written[] };

/** What is to be sent in time or never; how is said at the last moment, by the readings of then. */
type Order = { prepare: () => Prepared; deadline: number; signal: AbortSignal | undefined };

const DEFAULTS = {
    firstDelay: 500,
    longestDelay: 10_000,
    patience: 10_000,
    askAfter: 2000,
    lostAfter: 5000,
    silentAfter: 10_000,
};

/** What the daemon takes in one message, in bytes; it ends the connection at more. */
const MESSAGE_LIMIT = 4 * 1024 * 1024;

/** Thrown when something is to be sent and no daemon is there to take it. */
export class NotConnectedError extends Error {
    override name = "NotConnectedError";
}

/** Thrown when something was sent and nothing says whether the daemon has handled it. */
export class UnconfirmedError extends Error {
    override name = "UnconfirmedError";
}

/** How long a daemon that was found again is listened to for values of the schema in force, in milliseconds. */
const LISTENING = 1000;

/**
 * A client of one daemon. It connects with connect() and keeps the connection until close(): when it is lost,
 * it is tried again after growing pauses. It is lost also when nothing comes, not even what is asked for. The schema
 * that was last set is sent again when a daemon that was found again has none, unless another client has replaced it
 * since. Written values are never kept for later: what cannot be sent at once is refused, so that no machine moves on
 * an order that has grown old.
 */
export class Client {
    readonly url: string;
    #options: Required<ClientOptions>;
    #state: State = "closed";
    #reason = "not connected yet";
    /** Why the last attempt or connection ended, until the next success. */
    #failure: string | undefined;
    #hello: Hello | undefined;
    /** The address as it may be shown. */
    readonly #name: string;
    readonly #ownership: Ownership;
    readonly #pulse: Pulse;
    #readings = new LastReadings();
    /** Connections besides the one that is kept. */
    readonly #visits = new Set<Visit>();
    #deliveries: Promise<unknown> = Promise.resolve();
    #socket: WebSocketLike | undefined;
    #attempts = 0;
    #pings = 0;
    #lost = 0;
    #timer: ReturnType<typeof setTimeout> | undefined;
    #listening: ReturnType<typeof setTimeout> | undefined;
    #listeners: { [E in keyof Events]: Set<(...args: Events[E]) => void> } = {
        state: new Set(),
        hello: new Set(),
        values: new Set(),
        undecodable: new Set(),
        schema: new Set(),
    };

    /** `address` as toUrl() takes it: "192.168.1.20", "ws://machine:10443". Throws SyntaxError on others. */
    constructor(address: string, options: ClientOptions = {}) {
        this.url = toUrl(address);
        this.#name = withoutPassword(this.url);
        const WebSocket = options.WebSocket ?? (globalThis.WebSocket as unknown as WebSocketConstructor);
        if (!WebSocket) {
            throw new TypeError("There is no global WebSocket here: pass one, such as that of the ws package");
        }
        this.#options = { ...DEFAULTS, ...options, WebSocket };
        this.#ownership = new Ownership(this.#options.silentAfter, (event, reason) => {
            if (event === "replaced") this.#readings.end();
            this.#emit("schema", event, reason);
        });
        this.#pulse = new Pulse(
            this.#options,
            () => this.#ask(),
            (silence) => this.#lose(`no answer for ${silence / 1000} s`, abandon),
        );
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
        return this.#ownership.schema;
    }

    /** Whether this client's schema is the last that was sent, as far as can be known; only then it is sent again. */
    get ownsSchema(): boolean {
        return this.#ownership.owner;
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
                    reject(new NotConnectedError(`No connection to ${this.#name}: ${this.#failure ?? this.#reason}`)),
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

    /**
     * Ends the connection as close() does, and resolves when the daemon has handled all that was sent on it before.
     * Rejects with NotConnectedError when there is none, and with UnconfirmedError when nothing says whether it was
     * handled, `timeout` milliseconds later at the latest.
     */
    async finish(timeout = 10_000): Promise<void> {
        const socket = this.#state === "connected" ? this.#socket : undefined;
        const reason = this.#reason;
        if (socket) this.#socket = undefined; // it is left below
        this.close();
        if (!socket) throw new NotConnectedError(`Not connected to ${this.#name} (${reason})`);
        const visit = new Visit(() => socket);
        await visit.leave(timeout).catch((error: Error) => this.#doubt(error.message));
    }

    /** Ends the connection, the attempts at one, and all iterations over values. */
    close(): void {
        if (this.#state === "closed") return;
        this.#dropSocket(leave);
        this.#enter("closed", "closed here");
    }

    /**
     * Sets the daemon's schema, for all its clients: at once when connected, or with the next connection, and again
     * when a daemon has lost it, unless another client has sent one since: on("schema", ...) tells. It is checked
     * first; a SchemaError lists what is wrong with it, and then nothing is sent. `clear: true` takes one without
     * leaves, which clears the one in force; `check: false` sends whatever it is.
     */
    setSchema<const S extends Schema>(schema: S & SchemaOf<S>, options: SetOptions = {}): void {
        assertSendable(schema, options);
        this.#own(schema);
        if (this.#state === "connected") this.#sendSchema();
    }

    /**
     * Sets the daemon's schema as setSchema() does, and resolves when the daemon has handled it. Rejects with
     * NotConnectedError when nothing was sent, and with UnconfirmedError when no answer came after it was sent, each
     * `timeout` milliseconds later at the latest. A WebSocket that cannot ping, such as those of browsers, sends it
     * over a connection of its own, past what is still on its way over the one that is kept.
     */
    async deliverSchema<const S extends Schema>(
        schema: S & SchemaOf<S>,
        { timeout = 10_000, ...options }: SetOptions & { timeout?: number } = {},
    ): Promise<void> {
        assertSendable(schema, options);
        if (this.#state !== "connected") this.#refuseSchema(this.#reason);
        if (!canPing(this.#socket!)) return this.#deliverSchemaByVisit(schema, timeout);
        this.#own(schema);
        this.#sendSchema();
        await this.confirmed(timeout).catch((error: Error) => this.#doubt(error.message));
    }

    async #deliverSchemaByVisit(schema: Schema, timeout: number): Promise<void> {
        const visit = this.#newVisit();
        try {
            await visit.greeted(timeout).catch((error: Error) => this.#refuseSchema(error.message));
            this.#own(schema);
            this.#beginSchema();
            await visit.deliver(JSON.stringify(schema), timeout).catch((error: Error) => this.#doubt(error.message));
            this.#beginReadings();
        } finally {
            this.#end(visit);
        }
    }

    #refuseSchema(reason: string): never {
        throw new NotConnectedError(`Not connected to ${this.#name} (${reason}): the schema was not sent`);
    }

    #own(schema: Schema): void {
        this.#ownership.take(schema);
        this.#readings = new LastReadings(schema);
    }

    /** Leaves the daemon's schema to others: it is not sent again by itself. Values are still checked by it. */
    releaseSchema(): void {
        this.#ownership.release();
    }

    /**
     * Writes values to the bus, named as in the schema, and returns which numbers go out. They are checked first; a
     * WriteError lists what the daemon would ignore or write otherwise, and then nothing is sent. Scaled ones are sent
     * so that the daemon, which multiplies in single precision and cuts off, writes the nearest raw number. A field of
     * some bits is written into the last reading that counted, so that its other bits stay as they were. Where no
     * schema is known, values go as they are. The daemon does not acknowledge them, and while the network stalls, they
     * wait in it until the loss is noticed or it moves again: deliver() does not let them.
     */
    write(values: ValueMap, options: WriteOptions = {}): Written[] {
        return this.#send(this.#prepare(values, options));
    }

    /**
     * Writes as write() does, but only after the daemon has answered just now, and resolves when it has handled the
     * values. Rejects with NotConnectedError when nothing was sent, because no answer came in time (`patience`), and
     * with UnconfirmedError when none came after it was sent. One follows the other, in the order of the calls. A
     * WebSocket that cannot ping, such as those of browsers, sends them over a connection of their own.
     */
    async deliver(values: ValueMap, options: DeliverOptions = {}): Promise<Written[]> {
        const { signal, patience = Infinity } = options;
        const { schema } = this;
        const prepare = () => {
            if (!options.schema && schema !== this.schema) this.#refuse("the schema is another by now");
            return this.#prepare(values, options);
        };
        prepare(); // what would be refused is refused at once
        const deadline = performance.now() + Math.min(patience, this.#deliveryLimit);
        const order = { prepare, deadline, signal };
        const delivery = this.#deliveries.then(() => this.#deliver(order));
        this.#deliveries = delivery.catch(() => {});
        return delivery;
    }

    /**
     * Writes one value: set("motor.setpoint", 5), or set(["motor", "setpoint"], 5). A dot within a name is `\.` in a
     * path. What selects it by its "when" goes out with it.
     */
    set(path: string | Path, value: Value, options: WriteOptions = {}): Written | undefined {
        const names = typeof path === "string" ? namesOf(path) : path;
        const { check = true, schema = this.schema } = options;
        const values = check && schema ? withSelectors(schema, names, value) : nest(names, value);
        const isAsked = ({ leaf }: Written) => names.every((name, at) => leaf.path[at] === name);
        return this.write(values, options).find(isAsked);
    }

    /**
     * Resolves when the daemon has handled all that was sent before, for it answers in that order. Rejects with
     * NotConnectedError when the connection is lost before, or after `timeout` milliseconds; nothing says then whether
     * it arrived. It takes a WebSocket that can ping, such as that of the ws package; those of browsers cannot, and
     * have deliver().
     */
    confirmed(timeout = 10_000): Promise<void> {
        const socket = this.#socket;
        if (this.#state !== "connected" || !socket)
            return Promise.reject(new NotConnectedError(`Not connected to ${this.#name} (${this.#reason})`));
        if (!canPing(socket))
            return Promise.reject(new TypeError("This WebSocket cannot ping: that of the ws package can"));
        const mark = `vorbel ${++this.#pings}`;
        return new Promise((resolve, reject) => {
            const fail = (reason: string) =>
                settle(() => reject(new NotConnectedError(`${this.#name} did not confirm what was sent: ${reason}`)));
            const timer = setTimeout(() => fail("no answer in time"), timeout);
            const off = this.on("state", (_, reason) => fail(reason));
            const answered = (data: { toString(): string }) => data.toString() === mark && settle(resolve);
            const settle = (finish: () => void) => {
                clearTimeout(timer);
                off();
                socket.off("pong", answered);
                finish();
            };
            socket.on("pong", answered);
            socket.ping(mark);
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
        this.#dropSocket(leave);
        this.#enter("connecting", `connecting to ${this.#name}`);
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
        socket.on?.("pong", () => this.#pulse.heard());
        this.#timer = setTimeout(() => this.#lose("no hello came in time"), this.#options.patience);
    }

    /** Browsers tell a page no more than a code; 1006 stands for whatever was no proper end. */
    #closing(code: number): string {
        if (code !== 1006) return `connection closed (code ${code})`;
        return this.#state === "connected" ? "the connection broke off" : `nothing answers at ${this.#name}`;
    }

    #lose(reason: string, end = leave): void {
        this.#dropSocket(end);
        this.#failure = reason;
        const { firstDelay, longestDelay } = this.#options;
        const pause = Math.min(longestDelay, firstDelay * 2 ** this.#attempts++);
        // Half of it at random: many clients of a restarted daemon do not come back at the same moment.
        const delay = pause * (0.5 + Math.random() / 2);
        this.#timer = setTimeout(() => this.#attempt(), delay);
        this.#enter("waiting", `${reason}; next attempt in ${(delay / 1000).toFixed(1)} s`);
    }

    #dropSocket(end: (socket: WebSocketLike) => void): void {
        clearTimeout(this.#timer);
        clearTimeout(this.#listening);
        this.#pulse.stop();
        this.#ownership.stop();
        this.#readings.forget(); // nobody knows what they are meanwhile
        const socket = this.#socket;
        this.#socket = undefined;
        if (socket) end(socket);
        for (const visit of this.#visits) visit.end();
    }

    /** Asks for a sign of life, which comes as an answer to a ping or, where there is none, as one more hello. */
    #ask(): void {
        const socket = this.#socket!;
        if (canPing(socket)) {
            socket.ping("");
        } else if (this.#visits.size === 0) {
            const visit = this.#newVisit();
            const leave = () => this.#end(visit);
            visit.greeted(this.#options.lostAfter).then(leave, leave);
        }
    }

    #newVisit(): Visit {
        const visit = new Visit(() => {
            const socket = new this.#options.WebSocket(this.url);
            socket.binaryType = "arraybuffer";
            return socket;
        });
        this.#visits.add(visit);
        return visit;
    }

    #end(visit: Visit): void {
        this.#visits.delete(visit);
        visit.end();
    }

    #prepare(values: ValueMap, { check = true, schema = this.schema, readings }: WriteOptions): Prepared {
        // Those of this client's schema say nothing about another.
        const last = readings ?? ((path) => (schema === this.schema ? this.#readings.of(path) : undefined));
        const { values: sent, written } = check && schema ? prepareWrite(schema, values, last) : unprepared(values);
        const message = encodeValues(sent);
        assertSize(message, "The message");
        return { message, written };
    }

    #send({ message, written }: Prepared): Written[] {
        // A socket that is closing takes what it is given and sends nothing of it.
        if (this.#state !== "connected" || this.#socket!.readyState !== OPEN) this.#refuse(this.#reason);
        this.#socket!.send(message);
        this.#readings.wrote(written);
        return written;
    }

    #refuse(reason: string): never {
        throw new NotConnectedError(`Not connected to ${this.#name} (${reason}): nothing was written`);
    }

    async #deliver(order: Order): Promise<Written[]> {
        if (this.#state !== "connected") this.#refuse(this.#reason);
        this.#refuseOld(order);
        return canPing(this.#socket!) ? this.#deliverBetweenPings(order) : this.#deliverByVisit(order);
    }

    #refuseOld({ deadline, signal }: Order): void {
        if (signal?.aborted) this.#refuse("given up");
        if (performance.now() > deadline) this.#refuse("no answer in time");
    }

    async #deliverBetweenPings(order: Order): Promise<Written[]> {
        await this.confirmed(order.deadline - performance.now()).catch(() => this.#refuse("no answer in time"));
        this.#refuseOld(order);
        const written = this.#send(order.prepare());
        await this.confirmed(this.#deliveryLimit).catch((error: Error) => this.#doubt(error.message));
        return written;
    }

    async #deliverByVisit(order: Order): Promise<Written[]> {
        const visit = this.#newVisit();
        try {
            const patience = order.deadline - performance.now();
            await visit.greeted(patience).catch((error: Error) => this.#refuse(error.message));
            this.#refuseOld(order);
            const { message, written } = order.prepare();
            this.#readings.wrote(written);
            await visit.deliver(message, this.#deliveryLimit).catch((error: Error) => this.#doubt(error.message));
            return written;
        } finally {
            this.#end(visit);
        }
    }

    /** An order grows old, even where a connection is never given up. */
    get #deliveryLimit(): number {
        const { lostAfter } = this.#options;
        return Number.isFinite(lostAfter) ? lostAfter : DEFAULTS.lostAfter;
    }

    #doubt(reason: string): never {
        this.#readings.forget();
        throw new UnconfirmedError(`Sent, but nothing says whether ${this.#name} has handled it: ${reason}`);
    }

    #enter(state: State, reason: string): void {
        this.#state = state;
        this.#reason = reason;
        this.#emit("state", state, reason);
    }

    #receive(data: string | ArrayBuffer | Uint8Array, arrival: number): void {
        this.#pulse.heard();
        if (typeof data === "string") this.#receiveText(data);
        else this.#receiveValues(data instanceof Uint8Array ? data : new Uint8Array(data), arrival);
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
        this.#pulse.start();
        this.#enter("connected", `connected to ${this.#name}`);
        if (this.#state === "connected") this.#restoreSchema();
    }

    /**
     * A daemon that was restarted has no schema. One that was only out of reach still has this client's, whose values
     * come, or another's, which has been sent later.
     */
    #restoreSchema(): void {
        const { owner, wasSent } = this.#ownership;
        if (owner && (!wasSent || this.#readings.areInDoubt)) {
            this.#sendSchema();
            this.#emit("schema", "sent", "with the connection");
            return;
        }
        this.#ownership.resume();
        if (!owner) return;
        this.#listening = setTimeout(() => {
            if (!this.#ownership.owner) return;
            if (this.#ownership.isHeard) {
                this.#emit("schema", "kept", "its values come");
            } else {
                this.#sendSchema();
                this.#emit("schema", "resent", "as a restarted daemon has none");
            }
        }, LISTENING);
    }

    #receiveValues(bytes: Uint8Array, arrival: number): void {
        let values: Value;
        try {
            values = decodeValues(bytes);
        } catch (error) {
            this.#reportUndecodable(bytes, error as Error);
            return;
        }
        this.#ownership.heard(values);
        this.#readings.heard(values);
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
        this.#socket!.send(JSON.stringify(this.schema));
        this.#beginSchema();
        this.#beginReadings();
    }

    /** The schema goes out: what comes may still be of the one before. */
    #beginSchema(): void {
        clearTimeout(this.#listening);
        this.#ownership.begin();
        this.#readings.end();
    }

    /** Readings count when those of the schema before have all come. */
    #beginReadings(): void {
        const readings = this.#readings;
        if (readings.areNeeded)
            this.#handled().then(
                () => readings.begin(),
                () => {}, // with the connection: it is sent again on the next one
            );
    }

    /**
     * Resolves when the daemon has handled what was sent before. Where it cannot be asked by a ping, one more client
     * comes: the daemon greets everybody then, after what it sent before.
     */
    async #handled(): Promise<void> {
        if (canPing(this.#socket!)) return this.confirmed();
        const visit = this.#newVisit();
        try {
            await Promise.all([this.#greeted(), visit.greeted(this.#deliveryLimit)]);
        } finally {
            this.#end(visit);
        }
    }

    /** Resolves with the next hello on the connection that is kept, rejects when that is lost before. */
    #greeted(): Promise<void> {
        return new Promise((resolve, reject) => {
            const settle = (finish: () => void) => {
                off.forEach((each) => each());
                finish();
            };
            const off = [
                this.on("hello", () => settle(resolve)),
                this.on("state", (_, reason) => settle(() => reject(new NotConnectedError(reason)))),
            ];
        });
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

function assertSendable(schema: Schema, { check = true, clear = false }: SetOptions): void {
    if (check) assertSchema(schema, { clear });
    assertSize(new TextEncoder().encode(JSON.stringify(schema)), "The schema");
}

function assertSize(message: Uint8Array, name: string): void {
    if (message.length <= MESSAGE_LIMIT) return;
    throw new RangeError(
        `${name} has ${message.length} bytes, more than the 4 MiB that the daemon takes: nothing was sent`,
    );
}

type Pinging = WebSocketLike & Required<Pick<WebSocketLike, "ping" | "on" | "off">>;

function canPing(socket: WebSocketLike): socket is Pinging {
    return typeof socket.ping === "function" && typeof socket.on === "function";
}
