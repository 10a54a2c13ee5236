import { assertSchema, describeProblem, type Client, type Schema, type SchemaEvent, type State } from "vorbel";
import type { Foreign } from "../doubt";
import { isSameDaemon } from "../link";
import type { Memory, Session } from "../session";
import { Source } from "../source";
import { Draft } from "./draft";
import { covering } from "./frames";
import { endLife, forget, PATIENCE, remember, showLife } from "./interrupted";
import { Traffic } from "./traffic";

/**
 * "asking": nothing was sent yet; "starting": the daemon's schema is being replaced; "open": frames come as bytes;
 * "lost": there is no connection, or nothing says yet which schema the daemon has; "replaced": another client has sent
 * one, which stays; "leaving": the schema is being put back; "left".
 */
export type WorkshopState = "asking" | "starting" | "open" | "lost" | "replaced" | "leaving" | "left";

/** Milliseconds after which the page of a workshop says that it is still there. */
const SIGN_OF_LIFE = 5000;

/**
 * A look at all frames of a bus, for which the daemon has another schema for a while. A connection of its own owns that
 * schema; the page's own takes no values and sends nothing meanwhile. Whatever ends it brings the former schema back:
 * leaving, locking the page, connecting it elsewhere, and closing it as far as browsers allow. It writes no values.
 */
export class Workshop {
    /** The state and its reason. */
    readonly status = new Source();
    /** The traffic. */
    readonly values = new Source();
    readonly traffic = new Traffic();
    /** Begins with the schema of the page. */
    readonly draft: Draft;
    /** What comes back on leaving; undefined: the daemon has no schema then. */
    readonly former: Schema | undefined;
    #state: WorkshopState = "asking";
    #reason = "";
    /** Whether the page's own connection owned the former schema. */
    #wasOwned = false;
    readonly #address: string;
    #client: Client | undefined;
    /** That another client has sent a schema. */
    #replaced: Foreign | undefined;
    /** The schema for all frames on its way, which has to arrive before another one can follow. */
    #delivery: Promise<void> | undefined;
    #leaving: Promise<void> | undefined;
    #unwatch = () => {};

    constructor(
        readonly session: Session,
        readonly memory: Memory,
    ) {
        this.former = session.schema;
        this.#address = session.address;
        this.draft = new Draft(session.schema);
    }

    get state(): WorkshopState {
        return this.#state;
    }

    /** For people: what led to the state. */
    get reason(): string {
        return this.#reason;
    }

    /**
     * Replaces the daemon's schema, after somebody has agreed. Rejects with a sentence when that is not possible, and
     * puts the former one back where the daemon may have lost it.
     */
    async begin(): Promise<void> {
        this.#assertPossible();
        this.#enter("starting", "the daemon is asked for all frames");
        const client = this.session.newConnection({ silentAfter: Infinity });
        try {
            await client.ready(PATIENCE);
        } catch (error) {
            client.close();
            this.#enter("asking", (error as Error).message);
            throw new Error(`${(error as Error).message}; nothing was sent`);
        }
        this.#client = client;
        await this.#replaceSchema(client);
    }

    /**
     * Ends the workshop: the former schema comes back, or what was made becomes the schema of the page and of the daemon.
     * What another client has sent stays. Rejects, and nothing has changed, where what was made cannot be sent.
     */
    async leave(into: "former" | "draft"): Promise<void> {
        if (this.#state === "asking") this.#enter("left", "nothing was sent");
        if (this.#state === "left") return;
        if (into === "draft") this.#assertDraft();
        this.#leaving ??= this.#end(into);
        await this.#leaving;
    }

    #assertPossible(): void {
        const { session } = this;
        if (this.#state !== "asking") throw new Error("The workshop was opened before");
        if (session.isPast) throw new Error("What is shown is a recording, which has no frames");
        if (session.locked) throw new Error("The page is locked: nothing was sent");
        if (session.state !== "connected") throw new Error(`Not connected (${session.reason}): nothing was sent`);
        if (session.isLent) throw new Error("A workshop is open already");
        if (this.former) assertSchema(this.former, { clear: true }); // or it could not be put back
    }

    #assertDraft(): void {
        if (this.session.locked) throw new Error("The page is locked: nothing was sent");
        if (this.draft.leaves.length === 0) throw new Error("There is no value yet: nothing was sent");
        const error = this.draft.problems().find(({ severity }) => severity === "error");
        if (error) throw new Error(`What was made cannot be sent: ${describeProblem(error)}`);
    }

    async #replaceSchema(client: Client): Promise<void> {
        remember(this.memory, { address: this.#address, schema: this.former });
        this.#wasOwned = this.session.ownsSchema;
        this.session.lendSchema();
        this.#watch(client);
        try {
            await (this.#delivery = this.#deliver(client));
        } catch (error) {
            this.#leaving ??= this.#end("former");
            await this.#leaving;
            throw error;
        }
        if (this.#state === "starting") this.#enter("open", "the daemon sends the bytes of all frames");
    }

    async #deliver(client: Client): Promise<void> {
        await client.deliverSchema({}, { clear: true, timeout: PATIENCE }); // none of its values comes behind the next
        if (this.#state === "starting") await this.#deliverCovering(client);
    }

    #deliverCovering(client: Client): Promise<void> {
        return client.deliverSchema(covering(), { check: false, timeout: PATIENCE });
    }

    #watch(client: Client): void {
        const { session, memory } = this;
        const hide = () => this.#abandon();
        globalThis.addEventListener?.("pagehide", hide);
        const alive = setInterval(() => showLife(memory), SIGN_OF_LIFE);
        const ends = [
            client.on("values", (values, arrival) => {
                this.traffic.take(values, arrival);
                this.values.changed();
            }),
            client.on("state", (state, reason) => this.#connectionBecame(state, reason)),
            client.on("schema", (event, reason) => this.#schemaBecame(event, reason)),
            session.status.watch(() => this.#followSession()),
            () => clearInterval(alive),
            () => globalThis.removeEventListener?.("pagehide", hide),
        ];
        this.#unwatch = () => ends.forEach((end) => end());
    }

    #connectionBecame(state: State, reason: string): void {
        if (this.#state !== "open" && this.#state !== "lost") return;
        this.#enter(
            "lost",
            state === "connected" ? "connected again; nothing says yet which schema is in force" : reason,
        );
    }

    /** By the rules of who owns a schema, the connection has sent it again to a daemon without one, or left another's. */
    #schemaBecame(event: SchemaEvent, reason: string): void {
        if (event === "replaced") this.#becameReplaced(reason);
        else if (this.#state !== "lost") return;
        else if (event === "kept") this.#enter("open", "the daemon still sends the bytes of all frames");
        else if (event === "sent" || event === "resent") void this.#confirm();
    }

    #becameReplaced(reason: string): void {
        this.#replaced = { certain: true, reason };
        forget(this.memory);
        this.session.log.add("schema", "Another client has replaced the workshop's schema: its own stays", reason);
        this.#enter("replaced", reason);
    }

    /** Browsers are told that something was handled only by the end of a connection that was made for it. */
    async #confirm(): Promise<void> {
        try {
            await (this.#delivery = this.#deliverCovering(this.#client!));
        } catch {
            return; // the connection tells what follows
        }
        if (this.#state === "lost") this.#enter("open", "the daemon had lost the schema, and has it again");
    }

    /** A page that is locked, or goes elsewhere, leaves no schema of a workshop behind. */
    #followSession(): void {
        const { locked, state, address } = this.session;
        if (locked || state === "closed" || !isSameDaemon(address, this.#address)) void this.leave("former");
    }

    async #end(into: "former" | "draft"): Promise<void> {
        this.#unwatch();
        this.#enter("leaving", "the schema is being put back");
        await this.#delivery?.catch(() => {}); // whoever waits for it hears of that
        const problem = this.#replaced
            ? undefined
            : await this.#give(into === "draft" ? this.draft.schema : this.former);
        this.#client!.close();
        this.#return(into, problem);
        this.#enter("left", this.#replaced?.reason ?? problem ?? "the daemon has the schema of the page");
    }

    /** Gives the daemon a schema, and returns why nothing says that it has it. */
    async #give(schema: Schema = {}): Promise<string | undefined> {
        try {
            this.#client!.setSchema(schema, { check: false, clear: true });
            await this.#client!.finish(PATIENCE);
        } catch (error) {
            endLife(this.memory);
            return (error as Error).message;
        }
        forget(this.memory);
        return undefined;
    }

    /** The page goes on with a schema: as its owner if it was that before, or sends one of its own. */
    #return(into: "former" | "draft", problem: string | undefined): void {
        const { session } = this;
        this.#takeBack();
        if (into === "draft") session.setSchema(this.draft.text, !this.#replaced);
        if (this.#replaced) session.suspect(this.#replaced);
        if (problem === undefined) return;
        session.log.add("problem", "Nothing says that the schema was put back", problem);
        if (!session.ownsSchema) session.suspect({ certain: false, reason: problem });
    }

    #takeBack(): void {
        this.session.takeSchemaBack(this.#wasOwned && !this.#replaced);
    }

    /** The page goes, and nothing can be waited for: the next visit can put the schema back if this does not. */
    #abandon(): void {
        this.#unwatch();
        endLife(this.memory);
        if (!this.#replaced) this.#client!.setSchema(this.former ?? {}, { check: false, clear: true });
        this.#client!.close();
        this.#takeBack();
        this.#enter("left", "the page was closed");
    }

    #enter(state: WorkshopState, reason: string): void {
        this.#state = state;
        this.#reason = reason;
        this.status.changed();
    }
}
