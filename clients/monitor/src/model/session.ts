import {
    checkText,
    Client,
    UnconfirmedError,
    describeWritten,
    dotted,
    leavesOf,
    parseJson,
    parseSchema,
    readingOf,
    readOnlyReason,
    toUrl,
    withoutPassword,
    type ClientOptions,
    type DeliverOptions,
    type Hello,
    type Leaf,
    type Schema,
    type SchemaEvent,
    type SetOptions,
    type State,
    type Value,
    type ValueMap,
    type WebSocketConstructor,
    type Written,
} from "vorbel";
import type { Assignment } from "./course";
import type { Archive } from "./archive";
import type { Guard } from "./limits";
import { isSameDaemon, keptAddress, type Asked } from "./link";
import { now } from "./clock";
import { silenceIn, type Foreign } from "./doubt";
import { lag } from "./lag";
import { Log } from "./log";
import { COLUMNS, type Column } from "./columns";
import { ExtremesOfAll, type End } from "./extremes";
import { Plots, type Shape } from "./plots";
import type { Entry } from "./recording/entry";
import type { Run } from "./run";
import { withEither } from "./signals";
import { assignmentText, frameText, SentLog, type Sender } from "./sent";
import { Source } from "./source";
import { hexText } from "./text";
import { Tree, type TreeNode } from "./tree";
import { ViewKeeper } from "./view";
import { framesIn } from "./workshop/frames";
import { messageOf } from "./writing";

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
     * What was asked for: "address", "schema" (the name of a file), "view" or "plot" (paths with commas between them),
     * "locked" (whatever its value).
     */
    query: { get(name: string): string | null };
    memory: Memory;
    /** The text of a file by its name. */
    read: (name: string) => Promise<string>;
    /** Takes a view out of what will be asked for after a reload. */
    forgetLink?: () => void;
    /** What to connect with, where it is not the browser's own. */
    WebSocket?: WebSocketConstructor;
};

/** What a session hears values from, and sends schemas and values to: the client of a daemon, or what stands for it. */
export type Connection = {
    readonly url: string;
    readonly schema: Schema | undefined;
    readonly ownsSchema: boolean;
    readonly on: Client["on"];
    connect(): unknown;
    close(): void;
    setSchema(schema: Schema, options?: SetOptions): void;
    releaseSchema(): void;
    deliver(message: ValueMap, options: DeliverOptions): Promise<Written[]>;
};

/** Milliseconds in which frames of a workshop that is over may still come. */
const LATE = 5000;

/** Values that the form gives on: to keep them as a preset, or to send them again and again. */
export type Ordering = { purpose?: "keep" | "repeat"; values: Assignment[] };

/** One page's dealings with one daemon at a time. Its sources say what changed. */
export class Session {
    readonly tree = this.makeTree();
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
    /** What of all that is shown, and how. */
    readonly view: ViewKeeper;
    readonly extremes = new ExtremesOfAll(this.tree);
    writing: TreeNode | undefined;
    /** What the panel of presets and sequences begins with; undefined while it is closed. */
    ordering: Ordering | undefined;
    /** What goes out by itself, or the last that did. */
    run: Run | undefined;
    /** What watches over values with limits; undefined while none has any. */
    guard: Guard | undefined;
    /** What knows readings of before the page was there; undefined where there is none. */
    archive: Archive | undefined;
    /** Whether the list of alarms is open. */
    showsAlarms = false;
    /** Nothing can be sent. */
    locked: boolean;
    /** The schema that a link names. */
    #linked: Asked["schema"];
    /** What a link asks for and nobody has confirmed. */
    asked: Asked = {};
    /** By what the client says, or by values that came. */
    #foreign: Foreign | undefined;
    /** Whether a workshop has the daemon's schema: what comes meanwhile is not of the one here, and nothing is sent. */
    #isLent = false;
    /** Since when it has not any more. */
    #returned = -Infinity;
    /** Hears of all that comes, while somebody records it. */
    tap: ((entry: Entry) => void) | undefined;
    /** What gives up values that have not been sent yet. */
    #sending = new AbortController();
    #client: Connection | undefined;

    /** What went out from here, in all visits. */
    readonly sent: SentLog;

    /** What the page remembers of it. */
    readonly memory: Memory;
    readonly #WebSocket: WebSocketConstructor | undefined;

    constructor({ home, query, memory, read, forgetLink = () => {}, WebSocket }: Surroundings) {
        this.memory = memory;
        this.sent = new SentLog(memory);
        this.#WebSocket = WebSocket;
        this.address = keptAddress(memory.load("address")) ?? home;
        this.locked = query.get("locked") !== null || memory.load("locked") === "yes";
        this.view = new ViewKeeper(this.tree, this.plots, query, memory, forgetLink);
        if (this.view.problem) this.log.add("problem", "The link's view cannot be shown", this.view.problem);
        this.#showColumns(this.view.settings.columns);
        this.schemaText = memory.load("schema") ?? "";
        if (this.schemaText && isUsable(this.schemaText)) this.#use(JSON.parse(this.schemaText));
        const schema = query.get("schema");
        if (schema) void this.#readSchema(schema, read);
        this.#begin(query.get("address"));
    }

    protected makeTree(): Tree {
        return new Tree();
    }

    /** The columns that the table can have. */
    get columns(): readonly Column[] {
        return COLUMNS;
    }

    /** Whether what is shown is a recording. */
    get isPast(): boolean {
        return false;
    }

    /** Whether schemas can be sent from here, or used only here. */
    get takesSchemas(): boolean {
        return true;
    }

    /** Why a value cannot be written; undefined when it can. */
    refusalOf({ leaf }: TreeNode): string | undefined {
        return leaf ? readOnlyReason(leaf) : "the schema used here does not have it";
    }

    /** The time of what is shown: the present, but for recordings. */
    get time(): number {
        return now();
    }

    /** Up to when all that came is known. */
    get known(): number {
        return now() - lag.behind;
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

    /**
     * What is to be known before values are written: another client's schema may be in force. The client looks after
     * the schema that it owns; of one that is only used here, the values tell.
     */
    get foreign(): Foreign | undefined {
        if (this.#isLent) return undefined;
        if (!this.schema || this.#foreign || this.#client?.ownsSchema) return this.#foreign;
        const { connectedSince } = this;
        return silenceIn(this.tree, connectedSince && Math.max(connectedSince, this.#returned), now());
    }

    get isLent(): boolean {
        return this.#isLent;
    }

    /** Whether the schema here is the last that was sent to the daemon, as far as can be known. */
    get ownsSchema(): boolean {
        return this.#client?.ownsSchema ?? false;
    }

    /** One more connection to the same daemon, which is somebody else's. */
    newConnection(options: ClientOptions = {}): Client {
        return new Client(this.address, {
            longestDelay: 5000,
            ...(this.#WebSocket && { WebSocket: this.#WebSocket }),
            ...options,
        });
    }

    /** Leaves the daemon's schema to a workshop. Until it is taken back, values stand still, and nothing is sent. */
    lendSchema(): void {
        this.#isLent = true;
        this.#sending.abort();
        this.#client?.releaseSchema();
        this.#interrupt("the workshop has the daemon's schema");
        this.status.changed();
    }

    /** Ends that. `owns`: the schema here is the daemon's again, and is sent again when the daemon loses it. */
    takeSchemaBack(owns: boolean): void {
        this.#isLent = false;
        this.#returned = now();
        if (!this.locked) this.#sending = new AbortController();
        const schema = this.#client?.schema; // none where it was connected elsewhere meanwhile
        if (owns && schema && !this.locked) this.#client!.setSchema(schema, { clear: true });
        this.#foreign = undefined;
        this.status.changed();
    }

    /** Another schema than the one here is in force, or may be. */
    suspect(foreign: Foreign): void {
        this.#foreign = foreign;
        this.status.changed();
    }

    /** From now on nothing can be sent, not even the schema to a restarted daemon. */
    lock(): void {
        this.locked = true;
        this.memory.save("locked", "yes");
        this.#sending.abort();
        this.#client?.releaseSchema();
        this.log.add("connection", "Locked", "nothing can be sent from here");
        this.status.changed();
    }

    unlock(): void {
        this.locked = false;
        this.memory.save("locked", "");
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
        this.memory.save("address", withoutPassword(address));
        if (this.#client?.url !== url) {
            this.disconnect();
            if (this.#client) this.#forgetReadings();
            this.hello = this.#foreign = undefined;
            this.listenTo(this.newConnection());
        }
        this.#client!.connect();
        this.status.changed();
        return undefined;
    }

    disconnect(): void {
        this.#client?.close();
    }

    /** Gives a schema to the daemon, or only uses it here to explain the values that come. */
    setSchema(text: string, send: boolean): void {
        const schema = parseJson(text) as Schema;
        if (this.#isLent) throw new Error("The workshop is open: leave it first");
        if (send && this.locked) throw new Error("The page is locked: nothing was sent");
        if (send) this.#client?.setSchema(schema);
        else this.#client?.releaseSchema();
        this.#foreign = undefined;
        this.schemaText = text;
        this.memory.save("schema", text);
        this.#use(schema);
        const leaves = `${leavesOf(schema).length} leaves`;
        if (!send) this.log.add("schema", `Schema of ${leaves} used here`, "not sent to the daemon");
        else if (this.state === "connected") this.log.add("schema", `Schema of ${leaves} sent`);
        else this.log.add("schema", `Schema of ${leaves} kept`, "goes out with the next connection");
    }

    /** The name of the file beside the page that the schema here comes from, if it does. */
    get schemaFile(): string | undefined {
        return this.#linked?.text === this.schemaText ? this.#linked.name : undefined;
    }

    /** Reads a schema that a link names. */
    async #readSchema(name: string, read: Surroundings["read"]): Promise<void> {
        try {
            const text = await read(name);
            parseSchema(text);
            this.#linked = { name, text };
            if (text !== this.schemaText) this.asked = { ...this.asked, schema: { name, text } };
        } catch (error) {
            this.log.add("problem", `The schema ${name} could not be loaded`, (error as Error).message);
        }
        this.status.changed();
    }

    /** Writes values of leaves of the same frames. Rejects when that is not so, or when nothing says whether it is. */
    async write(values: ReadonlyMap<Leaf, Value>, sender: Sender = { source: "form" }): Promise<void> {
        const frame = frameText(values, this.tree.readings);
        const order = this.sent.begin(sender, values, frame);
        const written = await this.#deliver(values, sender).catch((error: Error) => {
            if (error instanceof UnconfirmedError) this.tree.doubt();
            order.failed(error instanceof UnconfirmedError ? "unconfirmed" : "refused", error.message);
            throw error;
        });
        this.tree.wrote(written);
        const told = [...values].map(([leaf, value]) => {
            const number = written.find((each) => dotted(each.leaf.path) === dotted(leaf.path));
            const node = this.tree.find(leaf.path);
            if (node) node.sent = number ? readingOf(number) : value;
            return assignmentText(leaf, value) + (number ? `: ${describeWritten(number)}` : "");
        });
        order.handled(told.join(", "));
        if (sender.cycle === undefined) this.log.add("sent", told.join(", "), frame);
        this.values.changed();
    }

    async #deliver(values: ReadonlyMap<Leaf, Value>, { signal, patience }: Sender): Promise<Written[]> {
        const signals = signal ? [this.#sending.signal, signal] : [this.#sending.signal];
        try {
            if (this.locked) throw new Error("The page is locked: nothing was written");
            if (this.#isLent) throw new Error("The workshop is open: nothing was written");
            const client = this.#client;
            if (!client) throw new Error("Not connected: nothing was written");
            const message = messageOf(values);
            const options = { schema: this.schema, readings: this.tree.readings, patience };
            return await withEither(signals, (either) => client.deliver(message, { ...options, signal: either }));
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
        } else {
            this.plots.remove(node);
        }
        this.#keepForPlots(node);
        this.viewChanged();
    }

    /** Draws a plotted value in another plot, or in a new one. */
    movePlotted(id: string, to: number | undefined): void {
        const node = this.plots.nodes.find((each) => each.id === id);
        if (node) this.plots.move(node, to);
        this.viewChanged();
    }

    /** Draws a plotted value as something else. */
    drawAs(node: TreeNode, shape: Shape): void {
        this.plots.drawAs(node, shape);
        this.#keepForPlots(node);
        this.viewChanged();
    }

    /** Shows columns in the table, as somebody wishes. */
    chooseColumns(columns: Column[]): void {
        this.#showColumns(columns);
        this.view.set({ columns });
    }

    /** From now on the least or the greatest readings are others. */
    resetExtremes(end: End): void {
        this.extremes.reset(end, now());
        this.values.changed();
    }

    /** Somebody has folded, pinned or plotted something. */
    viewChanged(): void {
        this.view.keep();
        this.status.changed();
    }

    /** Only what is shown is counted. */
    #showColumns(columns: Column[]): void {
        const isWanted = columns.includes("min") || columns.includes("max");
        if (!isWanted) this.extremes.end();
        else this.extremes.begin(this.connectedSince ?? now());
    }

    #applyView(): void {
        this.view.apply();
        for (const node of this.plots.nodes) this.#keepForPlots(node);
    }

    #keepForPlots(node: TreeNode): void {
        const isPlotted = this.plots.lineOf(node) !== undefined;
        node.series?.keepForPlot(isPlotted, this.plots.shapeOf(node));
    }

    startWriting(node: TreeNode | undefined): void {
        if (node) this.#closeAll();
        this.writing = node;
        this.status.changed();
    }

    /** Opens the panel of presets and sequences, or closes it. */
    startOrdering(ordering: Ordering | undefined): void {
        if (ordering) this.#closeAll();
        this.ordering = ordering;
        this.status.changed();
    }

    showAlarms(shows: boolean): void {
        if (shows) this.#closeAll();
        this.showsAlarms = shows;
        this.status.changed();
    }

    /** On phones, one of the panels covers the others. */
    #closeAll(): void {
        this.writing = this.ordering = undefined;
        this.showsAlarms = false;
    }

    /** Another daemon's values are not this one's, though the schema may be. */
    #forgetReadings(): void {
        this.tree.forget();
        for (const end of ["least", "most"] as const) this.extremes.reset(end, now());
        this.plots.clear();
        this.writing = undefined;
        this.undecodable = 0;
        if (this.schema) this.#use(this.schema);
    }

    /** From now on values come from there. */
    protected listenTo(client: Connection): void {
        this.#client = client;
        client.on("state", (state, reason) => this.#entered(state, reason));
        client.on("hello", (hello) => {
            this.hello = hello;
            this.status.changed();
        });
        client.on("values", (values, arrival) => {
            if (this.#isOfWorkshop(values, arrival)) return;
            this.tap?.({ time: arrival, values });
            this.#received(values, arrival);
        });
        client.on("schema", (event, reason) => this.#schemaBecame(event, reason));
        client.on("undecodable", ({ bytes, error }) => {
            this.tap?.({ time: now(), undecodable: bytes, reason: error.message });
            this.undecodable++;
            this.log.add(
                "problem",
                `Skipped a message that cannot be decoded: ${error.message}`,
                `${bytes.length} bytes: ${hexText(bytes.subarray(0, 48))}${bytes.length > 48 ? " …" : ""}`,
            );
            this.status.changed();
        });
    }

    #entered(state: State, reason: string): void {
        const lost = this.state === "connected" && state !== "connected";
        if (lost) {
            this.log.add("connection", state === "closed" ? "Disconnected" : "Connection lost", reason);
            this.#interrupt(reason);
        }
        if (state === "connected") {
            this.log.add("connection", "Connected", keptAddress(this.#client?.url));
        }
        this.connectedSince = state === "connected" ? now() : undefined;
        this.state = state;
        this.reason = reason;
        this.status.changed();
    }

    /** No values come for a while. */
    #interrupt(reason: string): void {
        this.tree.interrupt(now());
        this.tap?.({ time: now(), disconnected: reason });
    }

    /** Whether values are of a workshop's schema and not of the one here. Those of one that is over may come late. */
    #isOfWorkshop(values: Value, arrival: number): boolean {
        return this.#isLent || (arrival < this.#returned + LATE && framesIn(values).length > 0);
    }

    /** Who sent the last schema owns it; the others say so and leave it. */
    #schemaBecame(event: SchemaEvent, reason: string): void {
        if (event === "kept") return;
        const told = schemaTold[event];
        this.log.add("schema", told, reason);
        if (event === "replaced") this.tree.doubt();
        const isForeign = event === "replaced" || event === "silent";
        this.#foreign = isForeign ? { certain: event === "replaced", reason } : undefined;
        this.status.changed();
    }

    #received(values: Value, arrival: number): void {
        const { shape, unexplained } = this.tree;
        this.tree.update(values, arrival);
        this.values.changed();
        if (this.tree.shape === shape) return;
        this.#applyView();
        if (this.schema && unexplained === 0 && this.tree.unexplained > 0) this.#metStranger();
        this.status.changed();
    }

    /** The owner of the daemon's schema is told by the client whether it was replaced. */
    #metStranger(): void {
        if (this.#foreign) return;
        const stranger = this.tree.valued.find(({ leaf }) => !leaf)!;
        const reason = `a value comes that it does not have: ${stranger.dotted || "one without a name"}`;
        this.log.add("schema", "Values come that the schema here does not have", reason);
        if (!this.#client?.ownsSchema) this.#foreign = { certain: false, reason };
    }

    #use(schema: Schema): void {
        this.schema = schema;
        this.view.keepFolds();
        this.tree.useSchema(schema);
        this.plots.replace((node) => this.tree.find(node.path));
        this.#applyView();
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

export function isUsable(text: string): boolean {
    return checkText(text).every(({ severity }) => severity === "warning");
}
