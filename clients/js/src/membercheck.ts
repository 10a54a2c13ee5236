/** Checking the members for people that leaves have. */

import { MAPS, MEMBERS, type Limits, type Members } from "./members.js";
import { dotted } from "./paths.js";
import { listed, problem, quoted, type Found, type Problem } from "./problem.js";
import { FORMATS, isObject, isPart, isWhole, widthOf, type Leaf, type Schema } from "./schema.js";

/** What is wrong with the members of one leaf. */
export function* memberProblems(node: Schema, leaf: Leaf): Generator<Found> {
    const names = Object.keys(node).filter((name) => MEMBERS.has(name));
    if (names.length === 0) return;
    yield* names.flatMap((name) => misfits(name, node[name]));
    yield* rangeProblems(leaf.meaning, 8 * widthOf(leaf));
    yield* arrangementProblems(leaf);
    yield* combinationProblems(leaf);
}

function misfits(name: string, value: unknown): Found[] {
    const { words, fits, least = -Infinity, most = Infinity } = MEMBERS.get(name)!;
    if (!fits(value)) {
        if (isObject(value) && !MAPS.has(name)) return []; // a node of that name
        return [["member-type", `"${name}" is ${quoted(value)}: it must be ${words}`]];
    }
    if (typeof value !== "number" || (value >= least && value <= most)) return [];
    return [["member-range", `"${name}" is ${value}: it must be from ${least} to ${most}`]];
}

function* rangeProblems({ bits, scale, min, max, warn, alarm }: Members, width: number): Generator<Found> {
    if (bits && width > 0 && !(bits[0] >= 0 && bits[1] > 0 && bits[0] + bits[1] <= width)) {
        yield ["member-range", `"bits" is ${quoted(bits)}: the reading has the bits 0 to ${width - 1}`];
    }
    if (scale === 0) yield ["member-range", `"scale" is 0: all fields would mean the same`];
    const pairs: [string, Limits | undefined][] = [
        ['"min" is above "max"', [min ?? null, max ?? null]],
        ['the low end of "warn" is above the high one', warn],
        ['the low end of "alarm" is above the high one', alarm],
    ];
    for (const [words, [low, high] = [null, null]] of pairs) {
        if (low !== null && high !== null && low > high) yield ["member-range", `${words}: ${low} and ${high}`];
    }
}

/** What puts the bits of a reading in order needs to know them. */
function* arrangementProblems(leaf: Leaf): Generator<Found> {
    const { bits, swapped, signed, float, initial } = leaf.meaning;
    const width = widthOf(leaf);
    const used = Object.entries({ bits, swapped, signed, float }).flatMap(([name, isSet]) => (isSet ? name : []));
    if (used.length > 0 && FORMATS[leaf.format] && !isWhole(leaf)) {
        const message = `${listed(used)} needs whole numbers for readings, without a factor and "@asBool"`;
        yield ["member-conflict", message];
    } else if (float && (width === 1 || width === 2)) {
        yield ["member-conflict", `"float" needs 4 bytes, the format "${leaf.format}" has ${width}`];
    }
    if (float && (bits || signed)) {
        yield ["member-conflict", `"float" takes all bits as they are: "bits" and "signed" do not go with it`];
    }
    if (swapped && width === 1) yield ["no-effect", `"swapped" has no effect on a single byte`];
    if (initial !== undefined && !isPart(leaf) && FORMATS[leaf.format]) {
        yield ["no-effect", `"initial" has no effect without "bits" that leave others over`];
    }
}

function* combinationProblems({ meaning, observe, flushSize }: Leaf): Generator<Found> {
    const labels = Object.values(meaning.labels ?? {}).sort();
    const repeated = new Set(labels.filter((label, at) => label === labels[at + 1]));
    if (repeated.size > 0) yield ["member-conflict", `${listed([...repeated])} in "labels" stands for several fields`];
    if (meaning.when && (observe || flushSize)) {
        const why = "these would take readings that do not count with those that do";
        yield ["member-conflict", `"when" does not go with "@observe" or "@flushSize": ${why}`];
    }
}

/** What is wrong with the paths that leaves' "when" names. */
export function* selectorProblems(leaves: readonly Leaf[]): Generator<Problem> {
    const byPath = new Map(leaves.map((leaf) => [dotted(leaf.path), leaf]));
    for (const [path, leaf] of byPath) {
        const found = selectorProblem(path, leaf, byPath);
        if (found) yield problem(leaf.path, ...found);
    }
}

function selectorProblem(own: string, leaf: Leaf, byPath: ReadonlyMap<string, Leaf>): Found | undefined {
    const { when } = leaf.meaning;
    if (!when) return undefined;
    const asked = new Set([own]);
    for (let next: string | undefined = when.path; next !== undefined;) {
        if (asked.has(next)) return ["unknown-when", `"when" leads back to ${next}`];
        asked.add(next);
        next = byPath.get(next)?.meaning.when?.path;
    }
    const selector = byPath.get(when.path);
    if (!selector) return ["unknown-when", `"when" names ${quoted(when.path)}, which is no leaf`];
    if (selector.cmd !== leaf.cmd || selector.mac !== leaf.mac) {
        return ["when-elsewhere", `"when" names ${when.path}, which is read from other frames`];
    }
    if (selector.observe || selector.flushSize || widthOf(selector) === 0) {
        return ["when-elsewhere", `"when" names ${when.path}, which is not in every message`];
    }
    return undefined;
}
