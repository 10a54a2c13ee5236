import { now } from "./clock";
import { draftOf, type Course, type Order } from "./course";
import type { Draft } from "./draft";
import { newId, type Sender } from "./sent";
import type { Session } from "./session";
import { Source } from "./source";
import { clockText } from "./text";

/** Milliseconds between two orders of a cycle: each has a connection of its own. */
export const PERIOD = { least: 100, most: 3_600_000 };
/** A step of a sequence that comes later than this, in milliseconds, ends it. */
const LATE = 500;
/** A page that has not run for so many milliseconds, with its computer or without, goes on with nothing by itself. */
const ASLEEP = 5000;
/** Milliseconds after which an order that has not gone out does not go out any more. */
const PATIENCE = 1000;

/** Why a course cannot go on, or begin; undefined when it can. */
export function obstacleTo({ kind, steps }: Course, session: Session): string | undefined {
    if (session.locked) return "the page is locked";
    if (session.isLent) return "the workshop is open";
    if (session.state !== "connected") return `there is no connection: ${session.reason}`;
    if (kind !== "preset" && session.foreign)
        return `another client may have replaced the schema: ${session.foreign.reason}`;
    const nodes = steps.flatMap(({ orders }) => orders.map(({ node }) => node));
    if (nodes.some((node) => session.tree.find(node.path) !== node)) return "the schema used here has changed";
    return undefined;
}

/**
 * A course that somebody has confirmed, on its way. Whatever is not as it was then ends it, and nothing resumes it.
 * Never is there more than one order of it on its way.
 */
export class Run extends Source {
    state: "running" | "done" | "stopped" = "running";
    /** What ended it. */
    reason = "";
    ended = 0;
    /** Orders that were handled, and turns of a cycle that were not taken because they would have come late. */
    handled = 0;
    skipped = 0;
    /** The number of the next step. */
    next = 0;
    /** When that is due. */
    due = now();
    readonly #begun = this.due;
    /** The same by the clock that goes on while the computer sleeps. */
    #dueOnWall = Infinity;
    readonly #sender: Sender;
    readonly #giving = new AbortController();
    readonly #unwatch: () => void;
    #timer: ReturnType<typeof setTimeout> | undefined;

    constructor(
        readonly session: Session,
        readonly course: Course,
        /** The consequences that were agreed to. */
        readonly agreed: ReadonlySet<string>,
    ) {
        super();
        const { kind, name } = course;
        this.#sender = {
            source: `${kind} ${name}`,
            signal: this.#giving.signal,
            ...(kind === "cycle" && { cycle: newId() }),
            ...(kind !== "preset" && { patience: PATIENCE }),
        };
        this.#unwatch = session.status.watch(() => this.#check());
        this.due += course.steps[0]?.at ?? 0;
        this.#wait();
    }

    /** Nothing more of it goes out; what is on its way is given up if it can be. */
    stop(reason: string): void {
        if (this.state === "running") this.#end("stopped", reason);
    }

    #end(state: "done" | "stopped", reason: string): void {
        clearTimeout(this.#timer);
        this.#unwatch();
        this.#giving.abort();
        this.state = state;
        this.reason = reason;
        this.ended = now();
        const { log, status } = this.session;
        log.add(state === "done" ? "sent" : "problem", `${titleOf(this.course)}: ${state}`, reason);
        this.changed();
        status.changed();
    }

    #check(): void {
        const obstacle = obstacleTo(this.course, this.session);
        if (obstacle !== undefined) this.stop(obstacle);
    }

    #wait(): void {
        const turn = () => void this.#turn().catch((error: unknown) => this.stop(String(error)));
        const pause = Math.max(0, this.due - now());
        this.#dueOnWall = Date.now() + pause;
        this.#timer = setTimeout(turn, pause);
    }

    async #turn(): Promise<void> {
        const late = now() - this.due;
        const { period, steps } = this.course;
        if (Math.max(late, Date.now() - this.#dueOnWall) > ASLEEP) this.stop("the page was asleep");
        else if (period !== undefined && late > period / 2) this.skipped++;
        else if (period === undefined && late > LATE) this.stop(`the next step would have come ${seconds(late)} late`);
        else await this.#send(steps[this.next]!.orders);
        if (this.state !== "running") return;
        if (period === undefined) this.#toNextStep();
        else this.#toNextTurn(period);
        this.changed();
    }

    #toNextStep(): void {
        const step = this.course.steps[++this.next];
        if (!step) {
            this.#end("done", "");
            return;
        }
        this.due = this.#begun + step.at;
        this.#wait();
    }

    /** Turns that have passed meanwhile are not made up. */
    #toNextTurn(period: number): void {
        const passed = Math.floor((now() - this.due) / period);
        this.skipped += passed;
        this.due += (passed + 1) * period;
        this.#wait();
    }

    async #send(orders: Order[]): Promise<void> {
        for (const order of orders) {
            if (this.state === "running") await this.#write(draftOf(order, this.session));
        }
    }

    async #write(draft: Draft): Promise<void> {
        const refusal = this.#refusalOf(draft);
        if (refusal !== undefined) {
            this.stop(refusal);
            return;
        }
        try {
            await this.session.write(draft.values, this.#sender);
            this.handled++;
            this.changed();
        } catch (error) {
            this.stop((error as Error).message);
        }
    }

    #refusalOf({ isComplete, problems, consequences }: Draft): string | undefined {
        if (!isComplete) return [...problems.values()].join("; ");
        if (consequences === "" || this.agreed.has(consequences)) return undefined;
        return `it would do what nobody has agreed to: ${consequences}`;
    }
}

/** Sends a course from now on. There is one at a time, so that one Stop ends all that goes out by itself. */
export function start(session: Session, course: Course, agreed: ReadonlySet<string>): Run {
    if (session.run?.state === "running") throw new Error("Another one is running: stop it first");
    session.run = new Run(session, course, agreed);
    session.status.changed(); // which ends it at once where something stands against it
    return session.run;
}

/** "cycle Start, every 200 ms" */
export function titleOf({ kind, name, period }: Course): string {
    return `${kind} ${name}${period === undefined ? "" : `, every ${period} ms`}`;
}

/** What became of a run, or becomes of it. */
export function progressOf({ course, state, reason, handled, skipped, next, ended }: Run): string {
    const step =
        course.kind === "sequence" && state === "running" ? `step ${next + 1} of ${course.steps.length}, ` : "";
    const counts = `${step}${handled} handled${skipped > 0 ? `, ${skipped} skipped` : ""}`;
    if (state === "running") return counts;
    return `${state} at ${clockText(ended)}${reason && `: ${reason}`} (${counts})`;
}

function seconds(milliseconds: number): string {
    return `${(milliseconds / 1000).toFixed(1)} s`;
}
