import type { Value } from "./codec.js";
import { overwritten } from "./fields.js";
import { fieldOf } from "./meaning.js";
import { lastOf, Meanings } from "./meant.js";
import { dotted, valueAt } from "./paths.js";
import { isPart, type Leaf, type Schema } from "./schema.js";
import { readingOf, readOnlyReason, type Written } from "./writing.js";

/**
 * The last readings that counted of those fields that are written into them: what came while the schema was in force,
 * or what was written since.
 */
export class LastReadings {
    readonly #meanings: Meanings;
    readonly #parts: [path: string, leaf: Leaf][];
    readonly #last = new Map<string, number>();
    #isInForce = false;

    constructor(schema: Schema = {}) {
        this.#meanings = new Meanings(schema);
        this.#parts = [...this.#meanings.leaves].filter(([, leaf]) => isPart(leaf) && !readOnlyReason(leaf));
    }

    /** Whether any reading is of interest. */
    get areNeeded(): boolean {
        return this.#parts.length > 0;
    }

    /** Whether they are, but what comes may be of another schema. */
    get areInDoubt(): boolean {
        return this.areNeeded && !this.#isInForce;
    }

    /** From now on what comes is of this schema. */
    begin(): void {
        this.#isInForce = true;
    }

    /** What comes is of another schema, or may be. */
    end(): void {
        this.#isInForce = false;
        this.forget();
    }

    /** A message has come. */
    heard(values: Value): void {
        if (!this.#isInForce) return;
        for (const [path, leaf] of this.#parts) {
            const reading = lastOf(valueAt(values, leaf.path) ?? null);
            if (typeof reading === "number" && this.#meanings.counts(leaf, values)) this.#last.set(path, reading);
        }
    }

    /** A device takes what was written, so that its next reading would be this. */
    wrote(written: readonly Written[]): void {
        const fields = new Map(written.map((each) => [dotted(each.leaf.path), fieldOf(each.leaf, readingOf(each))]));
        for (const [path, leaf] of this.#parts) {
            const { when, initial } = leaf.meaning;
            if (when && fields.get(when.path) !== when.is) continue; // the message says nothing of it
            const after = overwritten(leaf, this.#last.get(path) ?? initial, written);
            if (after !== undefined) this.#last.set(path, after);
        }
    }

    of(path: string): number | undefined {
        return this.#last.get(path);
    }

    /** Nobody knows any more what they are. */
    forget(): void {
        this.#last.clear();
    }
}
