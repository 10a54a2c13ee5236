/** Values of one message that share bytes: fields of some bits, and what else is written into these. */

import { bitsOfSingle, maskOf } from "./meaning.js";
import { dotted } from "./paths.js";
import { problem, type Problem } from "./problem.js";
import { isPart, widthOf, type Leaf } from "./schema.js";
import type { Written } from "./writing.js";

/** What is set in the bytes of a leaf: which bits, and to what. */
type Bits = { mask: number; bits: number };
type Part = { leaf: Leaf } & Bits;

/** The fields of some bits that a message writes. */
export class Fields {
    readonly conflicts: Problem[] = [];
    readonly #byFrame = new Map<number, Part[]>();

    /** `readings` hold the fields, and zeros beside them. */
    constructor(readings: { leaf: Leaf; reading: number }[]) {
        for (const { leaf, reading } of readings.sort(byName)) {
            const mask = maskOf(leaf);
            const before = this.#within(leaf);
            if ((before.bits ^ reading) & before.mask & mask) this.conflicts.push(shared(leaf));
            together(this.#byFrame, leaf).push({ leaf, mask, bits: reading });
        }
    }

    /** The reading with all fields in it; undefined if there are other bits and they are not known. */
    reading(leaf: Leaf, former: number | undefined): number | undefined {
        const { mask, bits } = this.#within(leaf);
        if (former === undefined && (mask ^ windowOf(leaf)) !== 0) return undefined;
        return (((former! & ~mask) | bits) & windowOf(leaf)) >>> 0;
    }

    #within(leaf: Leaf): Bits {
        const all = { mask: 0, bits: 0 };
        for (const part of together(this.#byFrame, leaf)) {
            all.mask |= moved(part.mask, part.leaf, leaf);
            all.bits |= moved(part.bits, part.leaf, leaf);
        }
        return all;
    }
}

/** Values that would put something else into bytes of a field than the field does: the daemon takes the later one. */
export function contradictions(written: readonly Written[]): Problem[] {
    const parts = new Map<number, Written[]>();
    const wholes = new Map<number, Written[]>();
    if (!written.some(({ leaf }) => isPart(leaf))) return [];
    return [...written].sort(byName).flatMap((each) => {
        const { leaf } = each;
        const [own, others] = isPart(leaf) ? [parts, wholes] : [wholes, parts];
        together(own, leaf).push(each);
        return together(others, leaf).some((other) => differ(each, other)) ? shared(leaf) : [];
    });
}

function differ(one: Written, other: Written): boolean {
    const common = moved(windowOf(one.leaf), one.leaf, other.leaf);
    return ((moved(bitsIn(one), one.leaf, other.leaf) ^ bitsIn(other)) & common) !== 0;
}

/**
 * What a leaf reads once a device has taken what was written: the bytes of the payload in place of the reading's. Those
 * before the last one that no value covers are 0. Undefined if bytes beside these are not known.
 */
export function overwritten(leaf: Leaf, reading: number | undefined, written: readonly Written[]): number | undefined {
    const frame = written.filter(({ leaf: { cmd, mac } }) => cmd === leaf.cmd && mac === leaf.mac).sort(byName);
    const length = Math.max(0, ...frame.map((each) => each.leaf.skip + widthOf(each.leaf)));
    const covered = lowBytes(Math.min(Math.max(length - leaf.skip, 0), widthOf(leaf)));
    if (reading === undefined && covered !== windowOf(leaf)) return undefined;
    const payload = frame.reduce((bits, each) => {
        return (bits & ~moved(windowOf(each.leaf), each.leaf, leaf)) | moved(bitsIn(each), each.leaf, leaf);
    }, 0);
    return (((reading! & ~covered) | payload) & windowOf(leaf)) >>> 0;
}

/** The bits of the payload that a value becomes. */
function bitsIn({ leaf, raw }: Written): number {
    return (leaf.format === "f" ? bitsOfSingle(raw) : raw) & windowOf(leaf);
}

/** All bits of a leaf's bytes. */
function windowOf(leaf: Leaf): number {
    return lowBytes(widthOf(leaf));
}

function lowBytes(count: number): number {
    return count === 0 ? 0 : -1 >>> (32 - 8 * count);
}

/** Bits of one leaf's bytes as they stand in those of another of the same frame. */
function moved(bits: number, from: Leaf, to: Leaf): number {
    const by = 8 * (from.skip - to.skip);
    if (Math.abs(by) > 24) return 0;
    return (by < 0 ? bits >>> -by : bits << by) & windowOf(to);
}

/** Those of the same frame. */
function together<T>(byFrame: Map<number, T[]>, { cmd, mac }: Leaf): T[] {
    const frame = cmd * 64 + mac;
    const found = byFrame.get(frame) ?? [];
    byFrame.set(frame, found);
    return found;
}

/** The daemon goes by names. */
function byName(one: { leaf: Leaf }, other: { leaf: Leaf }): number {
    const [first, second] = [one, other].map(({ leaf }) => leaf.path.join("\0"));
    return first! < second! ? -1 : 1;
}

function shared(leaf: Leaf): Problem {
    return problem(leaf.path, "shared-bits", "has bits that another value of this message sets otherwise");
}

/** Values of which the selector is not written with them. */
export function unselected(written: readonly Written[], fieldOf: (each: Written) => unknown): Problem[] {
    const fields = new Map(written.map((each) => [dotted(each.leaf.path), fieldOf(each)]));
    return written.flatMap(({ leaf: { path, meaning } }) => {
        const { when } = meaning;
        if (!when || fields.get(when.path) === when.is) return [];
        return problem(path, "not-selected", `counts only where ${when.path} is ${when.is}: write that with it`);
    });
}
