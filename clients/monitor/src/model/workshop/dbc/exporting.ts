/**
 * From schemas to descriptions of CAN buses, as far as these have words for what a schema says: with the results of the
 * terminal tool, in the same words.
 *
 * The leaves of a node's command become the signals of a message. What becomes of each leaf is told.
 */

import { bitsOf, dotted, FORMATS, isArranged, isScaled, leavesOf, type Leaf, type Path, type Schema } from "vorbel";
import { BYTES, identifierText, NODES } from "../frames";
import { Decimal } from "./decimal";
import { freeName, nothingTaken, type Choice, type Message, type Signal, type Taken } from "./frames";
import { commonGroup, LAST_BYTE_TEXT } from "./importing";

export type ExportVerdict = "exact" | "incomplete" | "not possible";
/** What became of the leaf at a path; `why` is empty where that needs no words. */
export type ExportOutcome = { path: string; verdict: ExportVerdict; why: string };

/** The messages for a schema in which nothing is wrong. */
export function toMessages(schema: Schema): { messages: Message[]; outcomes: ExportOutcome[] } {
    const byIdentifier = grouped(inOrder(schema), ({ mac, cmd }) => cmd * NODES + mac);
    const names = messageNames(byIdentifier);
    const tops = new Map<string | undefined, Set<number>>();
    for (const [identifier, together] of byIdentifier) {
        for (const [top] of together.map(({ path }) => path))
            tops.set(top, (tops.get(top) ?? new Set()).add(identifier));
    }
    const frames = Array.from(byIdentifier, ([identifier, together]) => {
        const isBesideOthers = together.some(({ path: [top] }) => tops.get(top)!.size > 1);
        return new Frame(identifier, names.get(identifier)!, together, schema, isBesideOthers);
    });
    return {
        messages: frames.map(({ message }) => message).filter(({ signals }) => signals.length > 0),
        outcomes: frames.flatMap((frame) => [...frame.outcomes()]),
    };
}

/** The leaves as they follow one another in the document. */
function inOrder(schema: Schema): Leaf[] {
    const byNames = new Map(leavesOf(schema).map((leaf) => [keyOf(leaf.path), leaf]));
    return Array.from(pathsIn(schema), (path) => byNames.get(keyOf(path))).filter((leaf) => leaf !== undefined);
}

function* pathsIn(node: object, path: Path = []): Generator<Path> {
    yield path;
    for (const [name, member] of Object.entries(node)) {
        if (typeof member === "object" && member !== null) yield* pathsIn(member as object, [...path, name]);
    }
}

/** Tells names from one another, an empty one from none as well. */
function keyOf(names: Path): string {
    return JSON.stringify(names);
}

/** The objects of each key. */
function grouped<T, Key>(objects: readonly T[], keyFor: (object: T) => Key): Map<Key, T[]> {
    const groups = new Map<Key, T[]>();
    for (const each of objects) {
        const group = groups.get(keyFor(each));
        if (group) group.push(each);
        else groups.set(keyFor(each), [each]);
    }
    return groups;
}

/** A node's command on its way to a message. */
class Frame {
    readonly message: Message;
    readonly #leaves: readonly Leaf[];
    /** Those that become signals, unless it is not possible, by path. */
    readonly #known: ReadonlyMap<string, Leaf>;
    readonly #names: ReadonlyMap<string, string>;
    readonly #refusals: ReadonlyMap<string, string>;
    readonly #needsPaths: boolean;

    constructor(identifier: number, name: string, together: readonly Leaf[], schema: Schema, isBesideOthers: boolean) {
        this.#needsPaths = isBesideOthers;
        this.#leaves = together;
        const known = together.filter((leaf) => !isFiller(leaf));
        this.#known = new Map(known.map((leaf) => [dotted(leaf.path), leaf]));
        this.#names = signalNames(known);
        this.#refusals = this.#findRefusals();
        const possible = Array.from(this.#known).filter(([path]) => !this.#refusals.has(path));
        this.message = {
            name,
            identifier,
            size: this.#size(),
            signals: possible.map(([path, leaf]) => this.#signal(leaf, path, name)),
            comment: printable(descriptionOf(schema, commonOf(together))),
            refusal: "",
        };
    }

    *outcomes(): Generator<ExportOutcome> {
        for (const leaf of this.#leaves) {
            const path = dotted(leaf.path);
            const refusal = this.#refusals.get(path);
            if (isFiller(leaf)) yield this.#fillerOutcome(path);
            else if (refusal !== undefined) yield { path, verdict: "not possible", why: refusal };
            else yield outcomeOf(leaf, path);
        }
    }

    #fillerOutcome(path: string): ExportOutcome {
        const isThere = this.message.signals.length > 0;
        if (!isThere) return { path, verdict: "not possible", why: "no signal is beside it" };
        return { path, verdict: "exact", why: "the length of the message" };
    }

    #size(): number {
        const carried = this.#leaves.filter((leaf) => !this.#refusals.has(dotted(leaf.path)));
        return Math.max(0, ...carried.map((leaf) => leaf.skip + widthOf(leaf)));
    }

    /** Why leaves are not possible, by path: with one go those that ask for it, and so on. */
    #findRefusals(): Map<string, string> {
        const refusals = new Map<string, string>();
        for (const [path, leaf] of this.#known) {
            const reason = refusalOf(leaf);
            if (reason) refusals.set(path, reason);
        }
        const asking = grouped(Array.from(this.#known), ([, { meaning }]) => meaning.when?.path);
        const absent = Array.from(asking.keys()).filter((path) => path !== undefined && !this.#known.has(path));
        const missing = [...refusals.keys(), ...absent];
        for (const path of missing) {
            for (const [other] of asking.get(path) ?? []) {
                if (refusals.has(other)) continue;
                refusals.set(other, 'what its "when" asks for is not in the message');
                missing.push(other);
            }
        }
        return refusals;
    }

    #signal(leaf: Leaf, path: string, message: string): Signal {
        const { meaning } = leaf;
        const name = this.#names.get(path)!;
        const labels = Object.entries(meaning.labels ?? {}).map(([raw, text]) => [BigInt(raw), inLine(text)] as const);
        const isSaid = leaf.path[0] === message && leaf.path[1] === name;
        return {
            name,
            ...placeOf(leaf),
            isLittleEndian: !isSwapped(leaf),
            isSigned: isSigned(leaf),
            isFloat: isFloat(leaf),
            scale: Decimal.ofNumber(scaleOf(leaf)),
            offset: Decimal.ofNumber(meaning.offset ?? 0),
            least: decimalOf(meaning.min),
            largest: decimalOf(meaning.max),
            unit: inLine(meaning.unit ?? ""),
            comment: printable(meaning.description ?? ""),
            labels: new Map(labels.sort(([one], [other]) => (one < other ? -1 : 1))),
            choice: this.#choice(leaf),
            // Where the names do not say it, or others of the group are in another message.
            path: (isSaid && !this.#needsPaths) || !isSayable(path) ? "" : path,
        };
    }

    #choice({ meaning: { when } }: Leaf): Choice | undefined {
        return when && { selector: this.#names.get(when.path)!, ranges: [[when.is, when.is]] };
    }
}

/** Whether the import made it, to give its message the length. */
function isFiller({ meaning }: Leaf): boolean {
    return meaning.description === LAST_BYTE_TEXT;
}

// Names

/** Those of the groups which all leaves are in, told apart by the identifier where several are in one. */
function messageNames(byIdentifier: ReadonlyMap<number, readonly Leaf[]>): Map<number, string> {
    const groups = Array.from(byIdentifier, ([identifier, together]) => ({ identifier, group: commonOf(together) }));
    const sharing = grouped(groups, ({ group }) => keyOf(group));
    const taken = nothingTaken();
    return new Map(
        groups.map(({ identifier, group }) => {
            const isAlone = group.length > 0 && sharing.get(keyOf(group))!.length === 1;
            const words = group.length > 0 ? group : ["CAN"];
            return [identifier, freeWord(isAlone ? words : [...words, identifierText(identifier)], taken)];
        }),
    );
}

function commonOf(together: readonly Leaf[]): Path {
    return commonGroup(together.map(({ path }) => path));
}

function signalNames(together: readonly Leaf[]): Map<string, string> {
    const depth = commonOf(together).length;
    const taken = nothingTaken();
    return new Map(
        together.map(({ path }) => {
            const names = path.slice(depth);
            return [dotted(path), freeWord(names.length > 0 ? names : ["Value"], taken)];
        }),
    );
}

/** The names as one that DBC takes, and that nothing has yet. */
function freeWord(names: Path, taken: Taken): string {
    const word = names.join("_").replace(/[^A-Za-z0-9_]/gu, "_");
    const free = freeName(/^[A-Za-z_]/.test(word) ? word : `_${word}`, taken);
    taken[free] = true;
    return free;
}

function descriptionOf(schema: Schema, group: Path): string {
    let node = schema;
    for (const name of group) node = node[name] as Schema;
    const { description } = node;
    return typeof description === "string" ? description : "";
}

// Place and numbers

function refusalOf(leaf: Leaf): string {
    const { meaning, format, skip } = leaf;
    const width = widthOf(leaf);
    if (width === 0) return `a signal has no format "${format}"`;
    if (skip + width > BYTES) return `it is beyond ${BYTES} bytes`;
    if (meaning.when && meaning.when.is < 0) return 'its "when" asks for a number below 0';
    if (isMasked(leaf) && isArranged(leaf)) return '"@mask" and fields of bits together';
    if (isMasked(leaf) && !isInOnePiece(ownMask(leaf))) return 'the bits of its "@mask" are not side by side';
    const scale = scaleOf(leaf);
    return scale === 0 || !Number.isFinite(scale) ? "its scale is too large or too small a number" : "";
}

function widthOf({ format }: Leaf): number {
    return FORMATS[format]?.width ?? 0;
}

function isMasked({ mask, format }: Leaf): boolean {
    return mask !== -1 && FORMATS[format]!.masked;
}

/** Of the mask the bits that the format has. */
function ownMask(leaf: Leaf): number {
    return (leaf.mask >>> 0) % 2 ** (8 * widthOf(leaf));
}

function isInOnePiece(mask: number): boolean {
    const lowered = mask >>> lowestOf(mask);
    return mask > 0 && (lowered & (lowered + 1)) === 0;
}

function lowestOf(mask: number): number {
    return 31 - Math.clz32(mask & -mask);
}

/** Where a signal begins, and how many bits it has. */
function placeOf(leaf: Leaf): { start: number; size: number } {
    const [lowest, size] = ownBits(leaf);
    const first = 8 * leaf.skip;
    return { start: isSwapped(leaf) ? first + 8 * widthOf(leaf) - lowest - size : first + lowest, size };
}

function ownBits(leaf: Leaf): readonly [lowest: number, count: number] {
    if (!isMasked(leaf)) return isArranged(leaf) ? bitsOf(leaf) : [0, 8 * widthOf(leaf)];
    const mask = ownMask(leaf);
    const lowest = lowestOf(mask);
    return [lowest, 32 - Math.clz32(mask) - lowest];
}

function isSwapped(leaf: Leaf): boolean {
    return isArranged(leaf) && Boolean(leaf.meaning.swapped) && widthOf(leaf) > 1;
}

function isSigned(leaf: Leaf): boolean {
    if (isArranged(leaf)) return Boolean(leaf.meaning.signed);
    return FORMATS[leaf.format]!.signed && ownBits(leaf)[1] === 8 * widthOf(leaf);
}

function isFloat(leaf: Leaf): boolean {
    return leaf.format === "f" || (isArranged(leaf) && Boolean(leaf.meaning.float) && widthOf(leaf) === 4);
}

/** From the bits to the value: a factor divides them, a mask leaves them where they are. */
function scaleOf(leaf: Leaf): number {
    const scale = leaf.meaning.scale ?? 1;
    if (leaf.asBool) return scale;
    const masked = isMasked(leaf) ? scale * 2 ** lowestOf(ownMask(leaf)) : scale;
    return isScaled(leaf) ? masked / leaf.factor : masked;
}

function decimalOf(number: number | undefined): Decimal | undefined {
    return number === undefined ? undefined : Decimal.ofNumber(number);
}

// What is lost

function outcomeOf(leaf: Leaf, path: string): ExportOutcome {
    const lost = Array.from(lostOf(leaf, path));
    if (lost.length === 0) return { path, verdict: "exact", why: "" };
    return { path, verdict: "incomplete", why: `without ${lost.join(", ")}` };
}

function* lostOf(leaf: Leaf, path: string): Generator<string> {
    const { title, decimals, warn = [], alarm = [], readonly, initial, min, max } = leaf.meaning;
    const { unit = "", description = "", labels = {} } = leaf.meaning;
    const inLines = [unit, ...Object.values(labels)];
    if (title) yield '"title"';
    if (decimals !== undefined) yield '"decimals"';
    if (warn.some((end) => end !== null)) yield '"warn"';
    if (alarm.some((end) => end !== null)) yield '"alarm"';
    if (readonly) yield '"readonly"';
    if (initial) yield '"initial"';
    if (leaf.observe) yield '"@observe"';
    if (leaf.flushSize) yield '"@flushSize"';
    if (leaf.asBool && ownBits(leaf)[1] > 1) yield '"@asBool"';
    if (leaf.fragmentation) yield '"@fragmentation"';
    if (min === 0 && max === 0) yield "bounds";
    if (!isSayable(path)) yield "its path";
    if ([description, ...inLines].some((text) => printable(text) !== text)) yield "quotation marks and backslashes";
    if (inLines.some((text) => text.includes(LINE_BREAK))) yield "line breaks";
}

/** Ends a text in DBC. */
const QUOTE = '"';
const LINE_BREAK = "\n";

function isSayable(path: string): boolean {
    return path !== "" && !path.includes(QUOTE) && !path.includes(LINE_BREAK);
}

/** Without what ends a text. */
function printable(text: string): string {
    return text.replaceAll(QUOTE, "'").replaceAll("\\", "/");
}

/** Without what ends a statement as well: only comments have several lines. */
function inLine(text: string): string {
    return printable(text).replaceAll(LINE_BREAK, " ");
}
