import type { NumericArray, Value } from "./codec.js";
import { digitsOf, fieldOf, labelOf, levelOf, valueOf, type Level } from "./meaning.js";
import { dotted, flatten, valueAt } from "./paths.js";
import { quoted } from "./problem.js";
import { leavesOf, type Leaf, type Schema } from "./schema.js";
import { justified } from "./digits.js";

/** A reading and what it means. Without a leaf, nothing is known of it but itself. */
export class Meant {
    constructor(
        /** As the daemon sent it. */
        readonly reading: Value,
        readonly leaf?: Leaf,
    ) {}

    /** Of an array whose elements mean something else than themselves the list of their values. */
    get value(): Value {
        return this.leaf ? valueOf(this.leaf, this.reading) : this.reading;
    }

    get label(): string | undefined {
        return this.leaf && labelOf(this.leaf, this.reading);
    }

    get unit(): string {
        return this.leaf?.meaning.unit ?? "";
    }

    /** Which limits the value is beyond; of an array that of its last element. */
    get level(): Level {
        return this.leaf ? levelOf(this.leaf, valueOf(this.leaf, lastOf(this.reading))) : "";
    }

    /** In one line for people: the label, or the value with its decimals and its unit; of an array the last one's. */
    get shown(): string {
        if (!isArray(this.reading)) return this.label ?? this.#text + (this.unit && ` ${this.unit}`);
        const { length } = this.reading;
        return length === 0 ? "[]" : `${length} × … ${new Meant(lastOf(this.reading), this.leaf).shown}`;
    }

    get #text(): string {
        const { leaf, value } = this;
        if (typeof value !== "number") return quoted(value);
        const { decimals = -1 } = leaf?.meaning ?? {};
        const text =
            decimals < 0 || decimals > 15
                ? String(leaf ? digitsOf(leaf, value) : justified(value))
                : value.toFixed(decimals);
        return text.toLowerCase().replace("infinity", "inf");
    }
}

function isArray(reading: Value): reading is NumericArray {
    return ArrayBuffer.isView(reading);
}

/** The last element of an array, null without one; any other reading is its own. */
export function lastOf(reading: Value): Value {
    return isArray(reading) ? (reading.at(-1) ?? null) : reading;
}

/** What the readings of a schema mean. */
export class Meanings {
    /** By dotted path. */
    readonly leaves: ReadonlyMap<string, Leaf>;

    constructor(schema: Schema = {}) {
        this.leaves = new Map(leavesOf(schema).map((leaf) => [dotted(leaf.path), leaf]));
    }

    of(path: string, reading: Value): Meant {
        return new Meant(reading, this.leaves.get(path));
    }

    /** What the values of a message mean, by dotted path, of those that count in it. */
    flat(values: Value): Map<string, Meant> {
        const meant = new Map<string, Meant>();
        for (const [path, reading] of flatten(values)) {
            const leaf = this.leaves.get(path);
            if (!leaf || this.counts(leaf, values)) meant.set(path, new Meant(reading, leaf));
        }
        return meant;
    }

    /**
     * Whether the value of a leaf counts in a message. What its selector depends on in turn is asked as well; one that
     * is in a circle never counts.
     */
    counts(leaf: Leaf, values: Value): boolean {
        const asked = new Set<Leaf>();
        for (let { when } = leaf.meaning; when; { when } = leaf.meaning) {
            const selector = this.leaves.get(when.path);
            const reading = selector && valueAt(values, selector.path);
            if (reading === undefined || asked.has(selector!) || fieldOf(selector!, reading) !== when.is) return false;
            asked.add(selector!);
            leaf = selector!;
        }
        return true;
    }
}
