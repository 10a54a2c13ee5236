import {
    dotted,
    namesOf,
    parseSchema,
    UnconfirmedError,
    type Client,
    type Hello,
    type Leaf,
    type State,
    type Value,
    type Written,
} from "vorbel";
import type { BrokerMessage } from "../../socket/brokermessages";
import { now, wallClock } from "../clock";
import { Session, type Connection, type Memory } from "../session";
import { assignmentText } from "../sent";
import { shown } from "../text";
import { Series } from "../series";
import { Tree, type TreeNode } from "../tree";
import { Batches, readingsOf } from "./batches";
import { PublishError, type Broker } from "./broker";
import { parseDone, type Done } from "./done";
import { parseStatus } from "./status";
import { setOf } from "./topics";

/** Names of values of one board at most, whatever it publishes. */
const MOST_NAMES = 50_000;
/** Milliseconds after which a write that nobody has answered is told as such. */
const PATIENCE = 5000;
/** Writes of one value on their way at most. */
const MOST_WAITING = 8;

/** Where a board is: its topics begin with "PREFIX/LEVEL/". */
export type Place = { broker: Broker; base: string; name: string };

/** A write on its way: takes the answer to it. */
type Waiting = (done: Done) => void;

type Listeners = {
    state: (state: State, reason: string) => void;
    hello: (hello: Hello) => void;
    values: (values: Value, arrival: number) => void;
};

/** What a board publishes, as if its daemon were connected here. */
class BoardConnection implements Connection {
    readonly schema = undefined;
    readonly ownsSchema = false;
    readonly #listeners: { [E in keyof Listeners]?: Listeners[E] } = {};
    #leave: (() => void)[] = [];
    #unwatch = () => {};
    #batches = new Batches();
    #state: State = "closed";
    #reason = "";
    /** What its gateway has said last. */
    #isOnline: boolean | undefined;
    #last = -Infinity;

    constructor(
        readonly place: Place,
        readonly tree: Tree,
        /** Hears of all that has no counterpart at a daemon. */
        readonly tell: {
            schema(text: string): void;
            done(done: Done): void;
            missed(batches: number): void;
            problem(what: string, why: string): void;
        },
    ) {}

    get url(): string {
        return this.place.base;
    }

    readonly on = ((event: keyof Listeners, listener: never) => {
        this.#listeners[event] = listener;
        return () => delete this.#listeners[event];
    }) as Client["on"];

    connect(): void {
        if (this.#leave.length > 0) return;
        const { broker, base } = this.place;
        this.#batches = new Batches();
        this.#isOnline = undefined;
        this.#unwatch = broker.watch(() => this.#settle());
        const topics = ["status", "schema", "done", "values"];
        this.#leave = topics.map((topic) => broker.subscribe(`${base}${topic}`, 1));
        this.#settle();
    }

    close(): void {
        this.#unwatch();
        for (const leave of this.#leave) leave();
        this.#leave = [];
        this.#enter("closed", "closed here");
    }

    hear(topic: string, { text, arrival }: BrokerMessage): void {
        if (this.#leave.length === 0) return;
        if (text === undefined) this.tell.problem(`${topic}: skipped a message`, "it has more than 4 MiB");
        else if (topic === "status") this.#hearStatus(text);
        else if (topic === "schema") this.tell.schema(text);
        else if (topic === "values") this.#hearBatch(text, arrival);
        else if (topic === "done") {
            const done = parseDone(text);
            if (done) this.tell.done(done);
            else this.tell.problem("done: skipped a message", "it cannot be read");
        }
    }

    setSchema(): void {
        throw new Error("A board's schema is sent by its gateway");
    }

    releaseSchema(): void {
        // It has none from here.
    }

    deliver(): Promise<Written[]> {
        return Promise.reject(new Error("A board is written by its topics"));
    }

    #hearStatus(text: string): void {
        const status = parseStatus(text);
        if (!status) {
            this.tell.problem("status: skipped a message", "it cannot be read");
            return;
        }
        this.#isOnline = status.online;
        if (status.online) this.#listeners.hello?.({ type: status.type, ...(status.id && { id: status.id }) });
        this.#settle();
    }

    /** Times are those of the gateway, which may have kept the batch; none lies in the future, or before the former. */
    #hearBatch(text: string, arrival: number): void {
        try {
            const batch = this.#batches.take(text);
            if (!batch) return;
            if (batch.missed > 0) this.tell.missed(batch.missed);
            for (const { time, values } of batch.messages) {
                const at = Math.max(this.#last, Math.min(arrival, wallClock.when(time)));
                this.#last = at;
                this.#listeners.values?.(readingsOf(values, this.tree.root), at);
            }
        } catch (error) {
            this.tell.problem("values: skipped a batch", (error as Error).message);
        }
    }

    #settle(): void {
        const { broker, base } = this.place;
        const unheard = ["status", "values"].filter((topic) => broker.unheard.has(base + topic));
        if (broker.state !== "connected") {
            this.#batches = new Batches(); // what came meanwhile was not for this connection
            this.#enter("waiting", broker.reason || "there is no connection with the broker");
        } else if (unheard.length > 0) {
            this.#enter("waiting", `the broker does not let this user read ${unheard.join(" and ")}`);
        } else if (this.#isOnline === undefined) {
            this.#enter("connecting", "waiting for its status");
        } else if (!this.#isOnline) {
            this.#enter("waiting", "the board is offline: its gateway has no daemon, or the broker has no gateway");
        } else {
            this.#enter("connected", "the board is online");
        }
    }

    #enter(state: State, reason: string): void {
        if (state === this.#state && reason === this.#reason) return;
        this.#state = state;
        this.#reason = reason;
        this.#listeners.state?.(state, reason);
    }
}

/** What a board of a fleet shows, as a session with its daemon would; it writes by its gateway. */
export class BoardSession extends Session {
    /** Batches that did not come. */
    missed = 0;
    readonly #connection: BoardConnection;
    readonly #waiting = new Map<string, Waiting[]>();
    /** Why the broker does not take values for a path from this user. */
    readonly #refused = new Map<string, string>();
    #names = 0;

    constructor(
        readonly place: Place,
        memory: Memory,
        isLocked = false,
    ) {
        super({
            home: "",
            query: { get: (name) => (name === "locked" && isLocked ? "" : null) },
            memory: memoryOf(place, memory),
            read: () => Promise.reject(new Error("nothing is read")),
        });
        this.reason = "";
        this.#connection = new BoardConnection(place, this.tree, {
            schema: (text) => this.#explain(text),
            done: (done) => this.#answered(done),
            missed: (batches) => this.#missed(batches),
            problem: (what, why) => this.log.add("problem", what, why),
        });
        this.listenTo(this.#connection);
    }

    protected override makeTree(): Tree {
        return new Tree(() => {
            if (++this.#names > MOST_NAMES) throw new Error(`the board has more than ${MOST_NAMES} names`);
            return new Series();
        });
    }

    /** It has one place. What was locked elsewhere on the page is locked here. */
    override connect(): undefined {
        if (this.memory.load("locked") === "yes") this.locked = true;
        if (#connection in this) this.#connection.connect(); // and not while it is made
        return undefined;
    }

    /** Whether what its gateway publishes comes here. */
    get isOpen(): boolean {
        return this.state !== "closed";
    }

    override get foreign(): undefined {
        return undefined; // its gateway looks after the schema
    }

    override get takesSchemas(): boolean {
        return false;
    }

    /** Takes a message on one of its topics. */
    hear(topic: string, message: BrokerMessage): void {
        this.#connection.hear(topic, message);
    }

    override refusalOf(node: TreeNode): string | undefined {
        return super.refusalOf(node) ?? this.#refused.get(dotted(node.path));
    }

    /** One value after the other: the gateway completes the frame of each. */
    override async write(values: ReadonlyMap<Leaf, Value>): Promise<void> {
        for (const [leaf, value] of values) await this.#writeOne(leaf, value);
    }

    async #writeOne(leaf: Leaf, value: Value): Promise<void> {
        const told = assignmentText(leaf, value);
        const order = this.sent.begin(
            { source: `board ${this.place.name}` },
            new Map([[leaf, value]]),
            this.place.name,
        );
        try {
            const done = await this.#ask(leaf, value);
            const raw = done.raw === undefined ? "" : `: raw ${done.raw}`;
            order.handled(`${told}${raw}`);
            this.log.add("sent", `${told}${raw}`, this.place.name);
        } catch (error) {
            const { message } = error as Error;
            const isUnknown = error instanceof UnconfirmedError;
            order.failed(isUnknown ? "unconfirmed" : "refused", message);
            this.log.add("problem", `${isUnknown ? "Perhaps handled" : "Not done"}: ${told}`, message);
            throw error;
        } finally {
            this.values.changed();
        }
    }

    /** What the gateway answers. Rejects when it refuses, and with UnconfirmedError when nobody knows. */
    async #ask({ path }: Leaf, value: Value): Promise<Done> {
        const name = dotted(path);
        const { broker, base } = this.place;
        if (this.locked) throw new Error("The page is locked: nothing was written");
        if (this.state !== "connected") throw new Error(`Nothing was written: ${this.reason}`);
        if ((this.#waiting.get(name)?.length ?? 0) >= MOST_WAITING)
            throw new Error("Too many writes wait for an answer");
        const answer = this.#answerTo(name);
        try {
            const payload = JSON.stringify({ value, time: Date.now() });
            await broker.publish(base + setOf(broker.login?.user ?? "", path), payload);
        } catch (error) {
            answer.giveUp();
            throw this.#failureOf(name, error as PublishError);
        }
        const done = await answer.done;
        if (!done.ok) throw new Error(shown(done.error) || "the gateway has refused it");
        return done;
    }

    #failureOf(name: string, { outcome, message }: PublishError): Error {
        if (outcome === "unknown") return new UnconfirmedError(`Nothing says whether it was done: ${message}`);
        if (outcome === "refused") {
            this.#refused.set(name, `the broker does not let this user write it (${message})`);
            this.status.changed();
        }
        return new Error(
            outcome === "refused" ? `The broker refuses it: ${message}` : `Nothing was written: ${message}`,
        );
    }

    #answerTo(name: string): { done: Promise<Done>; giveUp: () => void } {
        let take: Waiting = () => {};
        const waiting = this.#waiting.get(name) ?? [];
        const giveUp = () => {
            const left = (this.#waiting.get(name) ?? []).filter((each) => each !== take);
            if (left.length > 0) this.#waiting.set(name, left);
            else this.#waiting.delete(name);
        };
        const done = new Promise<Done>((resolve, reject) => {
            const timer = setTimeout(() => {
                giveUp();
                reject(new UnconfirmedError(SILENCE));
            }, PATIENCE);
            take = (done) => {
                clearTimeout(timer);
                giveUp();
                resolve(done);
            };
        });
        done.catch(() => {}); // where the message was not even published
        this.#waiting.set(name, [...waiting, take]);
        return { done, giveUp };
    }

    /** Answers come in the order of the writes. Those to others are told beside the value, too. */
    #answered(done: Done): void {
        const { user, path, ok, error, raw } = done;
        if (path === undefined) {
            this.log.add(ok ? "schema" : "problem", ok ? "The gateway has loaded a schema" : "Refused", shown(error));
            return;
        }
        const isOurs = user === (this.place.broker.login?.user ?? "");
        const node = this.tree.find(namesOf(path));
        if (node) {
            const who = isOurs || user === undefined ? "" : `${shown(user)}: `;
            const what = ok ? `${textOf(done.value)}${raw === undefined ? "" : ` (raw ${raw})`}` : shown(error);
            node.answer = { ok, text: `${who}${what}`, time: now() };
        }
        if (isOurs) this.#waiting.get(path)?.[0]?.(done);
        this.values.changed();
    }

    #missed(batches: number): void {
        this.missed += batches;
        this.log.add("problem", `${batches} ${batches === 1 ? "batch" : "batches"} of values did not come`);
        this.tree.interrupt(now());
        this.status.changed();
    }

    /** "null" is the schema of another client than the gateway. */
    #explain(text: string): void {
        if (text === this.schemaText || text === "") return;
        if (text === "null") {
            this.log.add("schema", "The daemon has another client's schema", "what its values mean is not known here");
            return;
        }
        try {
            parseSchema(text, { clear: true });
            this.setSchema(text, false);
        } catch (error) {
            this.log.add("problem", "The board's schema cannot be used", (error as Error).message);
        }
    }
}

const SILENCE =
    "No answer from the board: nothing says whether it was done. A broker of MQTT 3.1.1 does not say what it refuses, " +
    "and the answer may be kept from this user";

function textOf(value: unknown): string {
    return shown(JSON.stringify(value) ?? "").slice(0, 200);
}

/** What is kept of a board is not of another one; what went out from here, and whether that is locked, is the page's. */
function memoryOf({ base }: Place, memory: Memory): Memory {
    const common = new Set(["locked", "sent"]);
    const kept = new Set(["view", "limits", "alarms"]);
    const nameOf = (name: string) => (common.has(name) ? name : kept.has(name) ? `${name} ${base}` : undefined);
    return {
        load(name) {
            const own = nameOf(name);
            return own === undefined ? undefined : memory.load(own);
        },
        save(name, text) {
            const own = nameOf(name);
            if (own !== undefined) memory.save(own, text);
        },
    };
}
