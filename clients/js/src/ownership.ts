import type { Value } from "./codec.js";
import { dotted, isMap, visit, type Path } from "./paths.js";
import { isLeaf, isObject, toLeaf, type Schema } from "./schema.js";

/**
 * What becomes of the schema that this client set:
 * "sent" with the first connection after it was set;
 * "resent" after a reconnection, because nothing came and a restarted daemon has none;
 * "kept", not sent after a reconnection, because its values come;
 * "replaced" by another client, whose values come;
 * "silent": none of its values comes any more, so that another client may have replaced or cleared it;
 * "heard" again after a silence;
 * "released" by this client itself.
 */
export type SchemaEvent = "sent" | "resent" | "kept" | "replaced" | "silent" | "heard" | "released";

/** Values of the schema before this one may still be on their way, in milliseconds. */
const GRACE = 1000;
/** A longer silence is usual where there was one of a third of it before. */
const USUAL = 3;
const TICK = 500;

/**
 * Whether the daemon's schema is this client's. Who sent one last owns it: whoever finds that it was replaced does not
 * send it again by itself, or clients with different schemas would take turns, and whom the values of a message go to
 * would be chance.
 */
export class Ownership {
    schema: Schema | undefined;
    /** Whether it is this client that sends a schema to a daemon without one. */
    owner = false;
    /** Whether it has gone out since it was set. */
    wasSent = false;
    /** Whether any of its values has come since the connection began. */
    isHeard = false;
    #isSilent = false;
    #isNew = false;
    #age = 0;
    #silence = 0;
    #longest = 0;
    /** How many messages came that do not wait for a change: after two of them, the next can be late. */
    #regular = 0;
    #timer: ReturnType<typeof setInterval> | undefined;

    constructor(
        readonly silentAfter: number,
        readonly tell: (event: SchemaEvent, reason: string) => void,
    ) {}

    /** This client sets a schema, which makes it the owner. */
    take(schema: Schema): void {
        this.schema = schema;
        this.owner = true;
        this.wasSent = this.#isSilent = false;
    }

    /** Another client's schema is none of this client's business from now on. */
    release(): void {
        this.#isSilent = false;
        if (!this.owner) return;
        this.owner = false;
        this.tell("released", "it is not sent again by itself");
    }

    /** The schema goes out. */
    begin(): void {
        this.resume();
        this.wasSent = this.#isNew = true;
    }

    /** A connection begins, on which no values of earlier schemas are on their way. */
    resume(): void {
        this.stop();
        this.isHeard = this.#isNew = false;
        this.#age = this.#silence = this.#longest = this.#regular = 0;
        this.#timer = setInterval(() => this.#tick(), TICK);
    }

    stop(): void {
        clearInterval(this.#timer);
    }

    /** Values have come. */
    heard(values: Value): void {
        if (!this.schema || !(this.owner || this.#isSilent)) return;
        const stranger = strangerIn(this.schema, values);
        if (stranger) this.#heardStranger(stranger);
        else this.#heardOwn(values);
    }

    #heardStranger(path: Path): void {
        if (this.#isNew) return;
        this.#disown("replaced", `a value comes that it does not have: ${dotted(path) || "one without a name"}`);
        this.#isSilent = false;
    }

    #heardOwn(values: Value): void {
        this.isHeard = true;
        if (this.#age >= GRACE) this.#isNew = false;
        if (this.#isSilent) {
            this.#isSilent = false;
            this.owner = true;
            this.tell("heard", "its values come again");
        }
        const isKnown = this.#regular > 1 && this.#silence === 0; // in this tick: looking once will do
        if (isKnown || !comesWithEveryFrame(this.schema!, values)) return;
        if (this.#regular++ > 0) this.#longest = Math.max(this.#longest, this.#silence);
        this.#silence = 0;
    }

    /** Silence is counted in ticks, as timers that fire late say nothing about the daemon. */
    #tick(): void {
        this.#age += TICK;
        this.#silence += TICK;
        if (this.#age >= 5 * GRACE) this.#isNew = false;
        if (!this.owner || this.#regular < 2) return;
        if (this.#silence < Math.max(this.silentAfter, USUAL * this.#longest)) return;
        this.#isSilent = true;
        this.#disown("silent", `none of its values has come for ${Math.round(this.#silence / 1000)} s`);
    }

    #disown(event: SchemaEvent, reason: string): void {
        this.owner = false;
        this.tell(event, reason);
    }
}

/** The names that lead to the first value of a message that a schema does not have. */
function strangerIn(node: Schema, value: Value): Path | undefined {
    if (!isMap(value)) return isLeaf(node) ? undefined : [];
    for (const name in value) {
        const member = Object.hasOwn(node, name) ? node[name] : undefined;
        const below = isObject(member) ? strangerIn(member, value[name]!) : [];
        if (below) return [name, ...below];
    }
    return undefined;
}

/** Whether a message has a value that does not wait for a change. */
function comesWithEveryFrame(schema: Schema, values: Value): boolean {
    let found = false;
    visit(values, (path) => {
        const node = path.reduce<any>((at, name) => at?.[name], schema);
        found ||= isObject(node) && isLeaf(node) && !toLeaf(node, path).observe;
    });
    return found;
}
