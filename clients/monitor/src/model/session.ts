import {
    checkSchema,
    Client,
    dotted,
    leavesOf,
    nest,
    parseJson,
    SchemaError,
    toUrl,
    type Hello,
    type Leaf,
    type Problem,
    type Schema,
    type State,
    type Value,
    type ValueMap,
} from "vorbel";
import { Log } from "./log";
import { load, save } from "./memory";
import { Source } from "./source";
import { hexText, valueText } from "./text";
import { Tree, type TreeNode } from "./tree";
import { payloadOf } from "./writing";

/** Where a daemon is to be expected when nobody said: where the page came from. */
function defaultAddress(): string {
    const { protocol, hostname, host } = window.location;
    // A page that came through TLS may not open a plain connection; its server is the one to pass it on.
    if (protocol === "https:") return `wss://${host}/vorbel`;
    return hostname || "127.0.0.1";
}

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
    undecodable = 0;
    /** The schema that explains the values here; `schemaSent` tells whether this page gave it to the daemon. */
    schema: Schema | undefined;
    schemaSent = false;
    /** The same as people wrote it. */
    schemaText = "";
    plotted: TreeNode[] = [];
    writing: TreeNode | undefined;
    #client: Client | undefined;

    constructor() {
        const asked = new URLSearchParams(window.location.search).get("address");
        this.address = asked ?? load("address") ?? defaultAddress();
        this.schemaText = load("schema") ?? "";
        if (this.schemaText && isUsable(this.schemaText)) this.#use(JSON.parse(this.schemaText), false);
        this.connect(this.address);
    }

    /** Leaves the present daemon for that at an address, or tries that one again at once; returns what is wrong with the address. */
    connect(address: string): string | undefined {
        try {
            toUrl(address);
        } catch (error) {
            return (error as Error).message;
        }
        if (this.state === "waiting" && this.#client?.url === toUrl(address)) {
            this.#client.connect();
            return undefined;
        }
        this.disconnect();
        if (this.#client && this.#client.url !== toUrl(address)) this.#forgetReadings();
        this.address = address;
        save("address", address);
        this.hello = undefined;
        this.schemaSent = false;
        this.#client = this.#newClient(address);
        this.#client.connect();
        return undefined;
    }

    disconnect(): void {
        this.#client?.close();
    }

    /** Gives a schema to the daemon, or only uses it here to explain the values that come. */
    setSchema(text: string, send: boolean): void {
        const schema = parseJson(text) as Schema;
        if (send) this.#client?.setSchema(schema);
        this.schemaText = text;
        save("schema", text);
        this.#use(schema, send);
        const leaves = `${leavesOf(schema).length} leaves`;
        if (!send) this.log.add("schema", `Schema of ${leaves} used here`, "not sent to the daemon");
        else if (this.state === "connected") this.log.add("schema", `Schema of ${leaves} sent`);
        else this.log.add("schema", `Schema of ${leaves} kept`, "goes out with the next connection");
    }

    /** Writes values of leaves of the same frames; throws when they cannot be sent now. */
    write(values: ReadonlyMap<Leaf, Value>): void {
        const message: ValueMap = {};
        for (const [leaf, value] of values) merge(message, nest(leaf.path, value));
        const told = [...values].map(([leaf, value]) => `${dotted(leaf.path)} = ${valueText(value)}`).join(", ");
        try {
            this.#client!.write(message);
        } catch (error) {
            this.log.add("problem", `Not sent: ${told}`, (error as Error).message);
            throw error;
        }
        this.log.add("sent", told, frameText(values));
        for (const [leaf, value] of values) this.tree.find(leaf.path)!.sent = value;
        this.values.changed();
    }

    togglePlot(node: TreeNode): void {
        const plotted = this.plotted.includes(node);
        this.plotted = plotted ? this.plotted.filter((each) => each !== node) : [...this.plotted, node];
        if (!plotted) node.series?.keepForPlot();
        this.status.changed();
    }

    startWriting(node: TreeNode | undefined): void {
        this.writing = node;
        this.status.changed();
    }

    /** Another daemon's values are not this one's, though the schema may be. */
    #forgetReadings(): void {
        this.tree.forget();
        this.plotted = [];
        this.undecodable = 0;
        if (this.schema) this.#use(this.schema, false);
    }

    #newClient(address: string): Client {
        const client = new Client(address, { longestDelay: 5000 });
        client.on("state", (state, reason) => this.#entered(state, reason));
        client.on("hello", (hello) => {
            this.hello = hello;
            this.status.changed();
        });
        client.on("values", (values) => this.#received(values));
        client.on("undecodable", ({ bytes, error }) => {
            this.undecodable++;
            this.log.add("problem", `Skipped a message that cannot be decoded: ${error.message}`,
                `${bytes.length} bytes: ${hexText(bytes.subarray(0, 48))}${bytes.length > 48 ? " …" : ""}`);
            this.status.changed();
        });
        return client;
    }

    #entered(state: State, reason: string): void {
        const lost = this.state === "connected" && state !== "connected";
        if (lost) this.log.add("connection", state === "closed" ? "Disconnected" : "Connection lost", reason);
        if (state === "connected") {
            this.log.add("connection", "Connected", this.#client?.url);
            if (this.schemaSent) this.log.add("schema", "Schema sent again", "a restarted daemon has none");
        }
        this.state = state;
        this.reason = reason;
        this.status.changed();
    }

    #received(values: Value): void {
        const { shape } = this.tree;
        this.tree.update(values, Date.now());
        this.values.changed();
        if (this.tree.shape !== shape) this.status.changed();
    }

    #use(schema: Schema, sent: boolean): void {
        this.schema = schema;
        this.schemaSent = sent;
        this.tree.useSchema(schema);
        this.plotted = this.plotted.flatMap((node) => this.tree.find(node.path) ?? []);
        this.writing = undefined;
        this.status.changed();
    }
}

/** What is wrong with a schema's text. */
export function problemsOf(text: string): Problem[] {
    try {
        return checkSchema(parseJson(text));
    } catch (error) {
        if (error instanceof SchemaError) return error.problems;
        throw error;
    }
}

function isUsable(text: string): boolean {
    return problemsOf(text).every(({ severity }) => severity === "warning");
}

function merge(into: ValueMap, from: ValueMap): void {
    for (const [name, value] of Object.entries(from)) {
        if (Object.hasOwn(into, name)) merge(into[name] as ValueMap, value as ValueMap);
        else into[name] = value;
    }
}

function frameText(values: ReadonlyMap<Leaf, Value>): string {
    const [leaf] = values.keys();
    const payload = payloadOf(values);
    return `mac ${leaf!.mac} cmd ${leaf!.cmd}` + (payload ? `: ${hexText(payload)}` : ", packed");
}
