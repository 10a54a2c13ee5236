import {
    checkText,
    Client,
    UnconfirmedError,
    describeWritten,
    dotted,
    leavesOf,
    nest,
    parseJson,
    parseSchema,
    readingOf,
    toUrl,
    withoutPassword,
    type Hello,
    type Leaf,
    type Schema,
    type SchemaEvent,
    type State,
    type Value,
    type ValueMap,
    type WebSocketConstructor,
    type Written,
} from "vorbel";
import { isSameDaemon, keptAddress, type Asked } from "./link";
import { now } from "./clock";
import { Log } from "./log";
import { Plots } from "./plots";
import { Source } from "./source";
import { hexText, valueText } from "./text";
import { Tree, type TreeNode } from "./tree";
import { payloadOf } from "./writing";

/** Texts by name that stay from one visit to the next, as far as they can. */
export type Memory = {
    load(name: string): string | undefined;
    save(name: string, text: string): void;
};

/** What a session is given of where it runs. */
export type Surroundings = {
    /** The address to begin with when none was asked for or is remembered. */
    home: string;
    /**
     * What was asked for: "address", "schema" (the name of a file), "plot" (paths with commas between them), "locked"
     * (whatever its value).
     */
    query: { get(name: string): string | null };
    memory: Memory;
    /** The text of a file by its name. */
    read: (name: string) => Promise<string>;
    /** What to connect with, where it is not the browser's own. */
    WebSocket?: WebSocketConstructor;
};

/** One page's dealings with one daemon at a time. Its sources say what changed. */
export class Session {
    readonly tree = new Tree();
    readonly log = new Log();
    /** Values and their times. */
    readonly values = new Source();
    /** State, hello, schema, the plot's choice. */
    readonly status = new Source();

    address: string;
    state: State = "closed";
    reason = "not connected";
    hello: Hello | undefined;
    /** Since when it is connected; undefined while it is not. */
    connectedSince: number | undefined;
    undecodable = 0;
    /** The schema that explains the values here, whether it was sent to the daemon or not. */
    schema: Schema | undefined;
    /** The same as people wrote it. */
    schemaText = "";
    readonly plots = new Plots();
    /** Paths to plot as soon as they are known. */
    #wanted: string[];
    writing: TreeNode | undefined;
    /** Nothing can be sent. */
    locked: boolean;
    /** What a link asks for and nobody has confirmed. */
    asked: Asked = {};
    /** What is to be known before values are written: another client's schema may be in force. */
    foreign: { certain: boolean; reason: string } | undefined;
    /** What gives up values that have not been sent yet. */
    #sending = new AbortController();
    #client: Client | undefined;

    readonly #memory: Memory;
    readonly #WebSocket: WebSocketConstructor | undefined;

    constructor({ home, query, memory, read, WebSocket }: Surroundings) {
        this.#memory = memory;
        this.#WebSocket = WebSocket;
        this.address = keptAddress(memory.load("address")) ?? home;
        this.locked = query.get("locked") !== null || memory.load("locked") === "yes";
        this.#wanted = query.get("plot")?.split(",") ?? [];
        this.schemaText = memory.load("schema") ?? "";
        if (this.schemaText && isUsable(this.schemaText)) this.#use(JSON.parse(this.schemaText));
        const schema = query.get("schema");
        if (schema) void this.#readSchema(schema, read);
        this.#begin(query.get("address"));
    }

    /** A link may lead to a stranger: nobody else's daemon is connected to unasked. */
    #begin(address: string | null): void {
        if (address !== null && keptAddress(address) === undefined) {
            this.log.add("problem", "The link's address is none", address);
        } else if (address !== null && !isSameDaemon(address, this.address)) {
            this.asked = { address };
            return;
        }
        this.connect(this.address);
    }

    /** Does what the link asks for, once somebody has agreed. */
    acceptLink(): void {
        const { address, schema } = this.asked;
        this.asked = {};
        if (address !== undefined) this.connect(address);
        if (schema) this.setSchema(schema.text, false);
        this.status.changed();
    }

    /** Goes on as without the link. */
    declineLink(): void {
        const { address } = this.asked;
        this.asked = {};
        if (address !== undefined) this.connect(this.address);
        this.status.changed();
    }

    /** From now on nothing can be sent, not even the schema to a restarted daemon. */
    lock(): void {
        this.locked = true;
        this.#memory.save("locked", "yes");
        this.#sending.abort();
        this.#client?.releaseSchema();
        this.log.add("connection", "Locked", "nothing can be sent from here");
        this.status.changed();
    }

    unlock(): void {
        this.locked = false;
        this.#memory.save("locked", "");
        this.#sending = new AbortController();
        this.log.add("connection", "Unlocked", "values and schemas can be sent from here");
        this.status.changed();
    }

    /** Leaves the present daemon for that at an address, or tries that one again at once; returns what is wrong with the address. */
    connect(address: string): string | undefined {
        let url: string;
        try {
            url = toUrl(address);
        } catch (error) {
            return (error as Error).message;
        }
        this.address = address;
        this.#memory.save("address", withoutPassword(address));
        if (this.#client?.url !== url) {
            this.disconnect();
            if (this.#client) this.#forgetReadings();
            this.hello = this.foreign = undefined;
            this.#client = this.#newClient(address);
        }
        this.#client.connect();
        this.status.changed();
        return undefined;
    }

    disconnect(): void {
        this.#client?.close();
    }

    /** Gives a schema to the daemon, or only uses it here to explain the values that come. */
    setSchema(text: string, send: boolean): void {
        const schema = parseJson(text) as Schema;
        if (send && this.locked) throw new Error("The page is locked: nothing was sent");
        if (send) this.#client?.setSchema(schema);
        else this.#client?.releaseSchema();
        this.foreign = undefined;
        this.schemaText = text;
        this.#memory.save("schema", text);
        this.#use(schema);
        const leaves = `${leavesOf(schema).length} leaves`;
        if (!send) this.log.add("schema", `Schema of ${leaves} used here`, "not sent to the daemon");
        else if (this.state === "connected") this.log.add("schema", `Schema of ${leaves} sent`);
        else this.log.add("schema", `Schema of ${leaves} kept`, "goes out with the next connection");
    }

    /** Reads a schema that a link names. */
    async #readSchema(name: string, read: Surroundings["read"]): Promise<void> {
        try {
            const text = await read(name);
            parseSchema(text);
            if (text !== this.schemaText) this.asked = { ...this.asked, schema: { name, text } };
        } catch (error) {
            this.log.add("problem", `The schema ${name} could not be loaded`, (error as Error).message);
        }
        this.status.changed();
    }

    /** Writes values of leaves of the same frames. Rejects when that is not so, or when nothing says whether it is. */
    async write(values: ReadonlyMap<Leaf, Value>): Promise<void> {
        const written = await this.#deliver(values);
        const told = [...values].map(([leaf, value]) => {
            const number = written.find((each) => dotted(each.leaf.path) === dotted(leaf.path));
            const node = this.tree.find(leaf.path);
            if (node) node.sent = number ? readingOf(number) : value;
            return assignmentText(leaf, value) + (number ? `: ${describeWritten(number)}` : "");
        });
        this.log.add("sent", told.join(", "), frameText(values));
        this.values.changed();
    }

    async #deliver(values: ReadonlyMap<Leaf, Value>): Promise<Written[]> {
        const message: ValueMap = {};
        for (const [leaf, value] of values) merge(message, nest(leaf.path, value));
        try {
            if (this.locked) throw new Error("The page is locked: nothing was written");
            if (!this.#client) throw new Error("Not connected: nothing was written");
            return await this.#client.deliver(message, { schema: this.schema, signal: this.#sending.signal });
        } catch (error) {
            const told = [...values].map(([leaf, value]) => assignmentText(leaf, value)).join(", ");
            const what = error instanceof UnconfirmedError ? "Perhaps handled" : "Not sent";
            this.log.add("problem", `${what}: ${told}`, (error as Error).message);
            throw error;
        }
    }

    togglePlot(node: TreeNode): void {
        if (this.plots.lineOf(node) === undefined) {
            this.plots.add([node]);
            node.series?.keepForPlot();
        } else {
            this.plots.remove(node);
        }
        this.status.changed();
    }

    /** Draws a plotted value in another plot, or in a new one. */
    movePlotted(id: string, to: number | undefined): void {
        const node = this.plots.nodes.find((each) => each.id === id);
        if (node) this.plots.move(node, to);
        this.status.changed();
    }

    #plotWanted(): void {
        if (this.#wanted.length === 0) return;
        const found = this.tree.rows().filter((node) => node.series && this.#wanted.includes(node.dotted));
        this.#wanted = this.#wanted.filter((path) => !found.some(({ dotted }) => dotted === path));
        this.plots.add(found);
    }

    startWriting(node: TreeNode | undefined): void {
        this.writing = node;
        this.status.changed();
    }

    /** Another daemon's values are not this one's, though the schema may be. */
    #forgetReadings(): void {
        this.tree.forget();
        this.plots.clear();
        this.writing = undefined;
        this.undecodable = 0;
        if (this.schema) this.#use(this.schema);
    }

    #newClient(address: string): Client {
        const client = new Client(address, {
            longestDelay: 5000,
            ...(this.#WebSocket && { WebSocket: this.#WebSocket }),
        });
        client.on("state", (state, reason) => this.#entered(state, reason));
        client.on("hello", (hello) => {
            this.hello = hello;
            this.status.changed();
        });
        client.on("values", (values, arrival) => this.#received(values, arrival));
        client.on("schema", (event, reason) => this.#schemaBecame(event, reason));
        client.on("undecodable", ({ bytes, error }) => {
            this.undecodable++;
            this.log.add(
                "problem",
                `Skipped a message that cannot be decoded: ${error.message}`,
                `${bytes.length} bytes: ${hexText(bytes.subarray(0, 48))}${bytes.length > 48 ? " …" : ""}`,
            );
            this.status.changed();
        });
        return client;
    }

    #entered(state: State, reason: string): void {
        const lost = this.state === "connected" && state !== "connected";
        if (lost) {
            this.log.add("connection", state === "closed" ? "Disconnected" : "Connection lost", reason);
            this.tree.interrupt(now());
        }
        if (state === "connected") {
            this.log.add("connection", "Connected", keptAddress(this.#client?.url));
        }
        this.connectedSince = state === "connected" ? now() : undefined;
        this.state = state;
        this.reason = reason;
        this.status.changed();
    }

    /** Who sent the last schema owns it; the others say so and leave it. */
    #schemaBecame(event: SchemaEvent, reason: string): void {
        if (event === "kept") return;
        const told = schemaTold[event];
        this.log.add("schema", told, reason);
        if (event === "replaced") this.foreign = { certain: true, reason };
        else if (event === "silent") this.foreign = { certain: false, reason };
        else this.foreign = undefined;
        this.status.changed();
    }

    #received(values: Value, arrival: number): void {
        const { shape, unexplained } = this.tree;
        this.tree.update(values, arrival);
        this.values.changed();
        if (this.tree.shape === shape) return;
        this.#plotWanted();
        for (const { series } of this.plots.nodes) series?.keepForPlot();
        if (this.schema && !this.foreign && unexplained === 0 && this.tree.unexplained > 0) {
            this.log.add(
                "schema",
                "Values come that the schema here does not have",
                "another client may have changed the daemon's",
            );
            if (!this.#client?.ownsSchema)
                this.foreign = { certain: false, reason: "values come that it does not have" };
        }
        this.status.changed();
    }

    #use(schema: Schema): void {
        this.schema = schema;
        this.tree.useSchema(schema);
        this.plots.replace((node) => this.tree.find(node.path));
        this.writing = undefined;
        this.status.changed();
    }
}

const schemaTold: Record<SchemaEvent, string> = {
    sent: "Schema sent",
    resent: "Schema sent again",
    kept: "The daemon still has the schema",
    replaced: "Another client has replaced the schema: it is not sent again from here",
    silent: "Another client may have replaced the schema: it is not sent again from here",
    heard: "The daemon still has the schema",
    released: "The schema is not sent again from here",
};

function isUsable(text: string): boolean {
    return checkText(text).every(({ severity }) => severity === "warning");
}

function merge(into: ValueMap, from: ValueMap): void {
    for (const [name, value] of Object.entries(from)) {
        if (Object.hasOwn(into, name)) merge(into[name] as ValueMap, value as ValueMap);
        else Object.defineProperty(into, name, { value, enumerable: true }); // "__proto__" is a name as well
    }
}

function assignmentText(leaf: Leaf, value: Value): string {
    return `${dotted(leaf.path)} = ${valueText(value)}`;
}

function frameText(values: ReadonlyMap<Leaf, Value>): string {
    const [leaf] = values.keys();
    const payload = payloadOf(values);
    return `mac ${leaf!.mac} cmd ${leaf!.cmd}` + (payload ? `: ${hexText(payload)}` : ", packed");
}
