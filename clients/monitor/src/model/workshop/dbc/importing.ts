/**
 * From descriptions of CAN buses to schemas, as the terminal tool makes them, to the same members and the same words.
 *
 * Each message becomes a group and each of its signals a leaf, under the names that they have. What became of each
 * signal is told: nothing is left out, or comes out otherwise, without a word.
 */

import { dotted, namesOf, type Path, type Schema } from "vorbel";
import { Decimal } from "./decimal";
import { firstByte, freeName, lastByte, onlyOf, valueRange, type Choice, type Message, type Signal } from "./frames";

export type Verdict = "exact" | "read-only" | "not possible";
/** What became of the signal that is, or would be, the leaf at a path; `why` is empty where that needs no words. */
export type Outcome = { path: string; verdict: Verdict; why: string };

const LAST_BYTE = "last byte";
export const LAST_BYTE_TEXT =
    "No signal is in it. Written as 0 along with the others, it gives the message its full length.";
/** Bits of a reading. */
const LARGEST = 32;
/** That a reading can have, by the bytes that its signal touches. */
const WIDTHS: Readonly<Record<number, number>> = { 1: 1, 2: 2, 3: 4, 4: 4 };
const UNSIGNED: Readonly<Record<number, string>> = { 1: "C", 2: "S", 4: "I" };
/** The daemon takes "c" for unsigned as well. */
const SIGNED: Readonly<Record<number, string>> = { 2: "s", 4: "i" };
/** Names that lead to a leaf; clients do not read deeper schemas. */
const DEEPEST = 500;

export function toSchema(messages: readonly Message[]): { schema: Schema; outcomes: Outcome[] } {
    const schema: Schema = {};
    const outcomes: Outcome[] = [];
    for (const message of messages) {
        const group = new Group(message, schema);
        group.putInto(schema);
        for (const outcome of group.outcomes()) outcomes.push(outcome);
    }
    return { schema, outcomes };
}

/** The bytes that a leaf reads. */
type Window = { readonly skip: number; readonly width: number };

/** A message on its way to a group: the leaves by the index of the signals that they are for. */
class Group {
    readonly #message: Message;
    readonly #byName: ReadonlyMap<string, number>;
    #name: string;
    readonly #places: Path[];
    readonly #refusals: ReadonlyMap<number, string>;
    readonly #windows = new Map<number, Window>();
    /** Those that are whole readings. */
    readonly #whole: Owners;
    readonly #locked = new Map<number, string>();
    readonly #leaves: ReadonlyMap<number, Schema>;
    /** The ends of frames, by what selects them. */
    readonly #known = new Map<string, number>();

    constructor(message: Message, schema: Schema) {
        this.#message = message;
        this.#byName = indexes(message.signals);
        this.#name = message.name && freeName(message.name, schema);
        this.#places = this.#findPlaces(schema);
        this.#refusals = refusalsOf(message, this.#byName);
        const owners = new Owners(message.signals, (signal) => isWhole(signal));
        message.signals.forEach((signal, at) => {
            if (!this.#refusals.has(at)) this.#windows.set(at, windowOf(signal, message.size, owners));
        });
        this.#whole = new Owners(message.signals, ({ size }, at) => 8 * (this.#windows.get(at)?.width ?? NaN) === size);
        this.#findLocked();
        this.#leaves = new Map(Array.from(this.#windows.keys(), (at) => [at, this.#leaf(at)]));
    }

    putInto(schema: Schema): void {
        const group = commonGroup(Array.from(this.#leaves.keys(), (at) => this.#places[at]!));
        const description = [...group, "description"];
        if (group.length > 0 && this.#message.comment && this.#isDescribable(description, schema)) {
            put(schema, description, this.#message.comment);
        }
        for (const [at, leaf] of this.#leaves) put(schema, this.#places[at]!, leaf);
        for (const when of this.#short()) {
            const skip = this.#message.size - 1;
            const leaf: Schema = { ...this.#place(), "@format": "C", "@skip": skip, description: LAST_BYTE_TEXT };
            if (when) leaf["when"] = when;
            put(schema, [...group, freeName(LAST_BYTE, nodeAt(schema, group))], leaf);
        }
    }

    *outcomes(): Generator<Outcome> {
        for (const [at, signal] of this.#message.signals.entries()) {
            const path = dotted(this.#places[at]!);
            const refusal = this.#refusals.get(at);
            if (refusal !== undefined) {
                yield { path, verdict: "not possible", why: refusal };
                continue;
            }
            const lock = this.#locked.get(at);
            const said = [...(lock === undefined ? [] : [lock]), ...remarks(signal, path)];
            yield { path, verdict: lock === undefined ? "exact" : "read-only", why: said.join("; ") };
        }
    }

    #isDescribable(description: Path, schema: Schema): boolean {
        const path = dotted(description);
        return !this.#places.some((place) => dotted(place) === path) && isFree(schema, description);
    }

    /** The names that lead to each signal's leaf. */
    #findPlaces(schema: Schema): Path[] {
        const taken: Schema = {};
        return this.#message.signals.map((signal) => {
            let place = namesOf(signal.path);
            if (!isUsable(place) || !isFree(schema, place) || !isFree(taken, place)) {
                if (memberOf(taken, this.#name) === TAKEN) this.#name = freeName(this.#name, schema, taken);
                const group = this.#name ? [this.#name] : [];
                place = [...group, freeName(signal.name, nodeAt(taken, group))];
            }
            put(taken, place, TAKEN);
            return place;
        });
    }

    #place(): Schema {
        return { "@mac": this.#message.identifier & 63, "@cmd": this.#message.identifier >> 6 };
    }

    #leaf(at: number): Schema {
        const signal = this.#message.signals[at]!;
        const leaf = { ...this.#place(), ...arrangement(signal, this.#windows.get(at)!), ...meaningOf(signal) };
        if (this.#locked.has(at)) leaf["readonly"] = true;
        const when = this.#when(signal);
        if (when) leaf["when"] = when;
        return leaf;
    }

    #when({ choice }: Signal): Schema | undefined {
        if (!choice) return undefined;
        return { path: dotted(this.#places[this.#indexOf(choice)]!), is: onlyOf(choice) };
    }

    /** That of the signal that selects. */
    #indexOf({ selector }: Choice): number {
        return this.#byName.get(selector)!;
    }

    // What can be written

    /** Those that cannot be written, and why; and with a selector those that it selects. */
    #findLocked(): void {
        for (const at of this.#windows.keys()) {
            const reason = this.#lock(at);
            if (reason) this.#locked.set(at, reason);
        }
        const selected = selectedBy(this.#message.signals, this.#byName);
        for (const locked of this.#locked.keys()) {
            for (const at of selected.get(locked) ?? []) {
                if (!this.#windows.has(at) || this.#locked.has(at)) continue;
                const { selector } = this.#message.signals[at]!.choice!;
                this.#locked.set(at, `${selector}, which selects it, is`);
            }
        }
    }

    /**
     * Why a signal cannot be written, if so: of three bytes, it is read with a fourth. Where that is another's whole
     * reading, clients would not write the two in one message, unless that one is read as a field as well.
     */
    #lock(at: number): string {
        const [signal, window] = [this.#message.signals[at]!, this.#windows.get(at)!];
        const extra = window.width === 4 ? bytesOf(window).filter((byte) => !touches(signal, byte)) : [];
        for (;;) {
            const other = this.#whole.firstOf(extra, signal);
            if (other === undefined) return "";
            if (!this.#widen(other, signal)) {
                return `it is read together with a byte of ${this.#message.signals[other]!.name}`;
            }
        }
    }

    /**
     * Makes a whole reading a field of a longer one, which reaches into the three bytes beside it, and may reach into
     * no other whole one.
     */
    #widen(at: number, towards: Signal): boolean {
        const signal = this.#message.signals[at]!;
        const width = 2 * this.#windows.get(at)!.width;
        const skip = towards.start > signal.start ? firstByte(signal) : lastByte(signal) + 1 - width;
        const wide = { skip, width };
        if (width > 4 || this.#whole.firstOf(bytesOf(wide), signal, at) !== undefined) return false;
        this.#windows.set(at, wide);
        this.#whole.delete(at);
        return true;
    }

    // The length of what is written

    /** For each kind of frame that would end too early when all its leaves are written, what selects that kind. */
    *#short(): Generator<Schema | undefined> {
        const ends = this.#ends();
        for (const kind of this.#kinds()) {
            const end = this.#endWith(kind?.choice, ends);
            if (end > 0 && end < this.#message.size) yield kind && this.#when(kind);
        }
    }

    /** The end of what can be written in all frames, under "", and of what each choice adds to them. */
    #ends(): Map<string, number> {
        const ends = new Map<string, number>();
        for (const at of this.#leaves.keys()) {
            if (this.#locked.has(at)) continue;
            const key = keyOf(this.#message.signals[at]!.choice);
            ends.set(key, Math.max(ends.get(key) ?? 0, endOf(this.#windows.get(at)!)));
        }
        return ends;
    }

    /** That of frames with a choice: these have what selects its selector as well, and so on to nothing. */
    #endWith(choice: Choice | undefined, ends: ReadonlyMap<string, number>): number {
        const keys: string[] = [];
        let at = choice;
        for (; at && !this.#known.has(keyOf(at)); at = this.#message.signals[this.#indexOf(at)]!.choice) {
            keys.push(keyOf(at));
        }
        let end = at ? this.#known.get(keyOf(at))! : (ends.get("") ?? 0);
        for (const key of keys.reverse()) {
            end = Math.max(end, ends.get(key) ?? 0);
            this.#known.set(key, end);
        }
        return end;
    }

    /** A signal of each kind of frame; no signal stands for the only kind. */
    #kinds(): (Signal | undefined)[] {
        const chosen = new Map<string, Signal>();
        for (const at of this.#leaves.keys()) {
            const signal = this.#message.signals[at]!;
            const key = keyOf(signal.choice);
            if (signal.choice && !this.#locked.has(at) && !chosen.has(key)) chosen.set(key, signal);
        }
        const asked = new Set(Array.from(chosen.values(), ({ choice }) => choice!.selector));
        const outer = new Set(
            this.#message.signals.filter(({ name }) => asked.has(name)).map(({ choice }) => keyOf(choice)),
        );
        const inner = Array.from(chosen).filter(([key]) => !outer.has(key));
        return inner.length > 0 ? inner.map(([, signal]) => signal) : [undefined];
    }
}

// Nodes by the names that lead to them

/** Stands where a signal has its place. */
const TAKEN = null;

function memberOf(node: Schema, name: string): unknown {
    return Object.hasOwn(node, name) ? node[name] : undefined;
}

/** Sets a member of any name, as JSON may have it. */
function setMember(node: Schema, name: string, value: unknown): void {
    Object.defineProperty(node, name, { value, writable: true, enumerable: true, configurable: true });
}

function put(schema: Schema, place: Path, member: unknown): void {
    let node = schema;
    for (const each of place.slice(0, -1)) {
        if (!Object.hasOwn(node, each)) setMember(node, each, {});
        node = node[each] as Schema;
    }
    setMember(node, place.at(-1)!, member);
}

function nodeAt(schema: Schema, group: Path): Schema {
    let node = schema;
    for (const each of group) node = (memberOf(node, each) ?? {}) as Schema;
    return node;
}

function isUsable(place: Path): boolean {
    return place.length > 0 && place.length <= DEEPEST;
}

/** Whether nothing is at the place yet, and no leaf on the way to it. */
function isFree(schema: Schema, place: Path): boolean {
    let node = schema;
    for (const each of place.slice(0, -1)) {
        const member = Object.hasOwn(node, each) ? node[each] : {};
        if (!isGroup(member)) return false;
        node = member;
    }
    return !Object.hasOwn(node, place.at(-1)!);
}

function isGroup(member: unknown): member is Schema {
    return typeof member === "object" && member !== null && !Object.hasOwn(member, "@mac");
}

/** The group that all places are in. */
export function commonGroup(places: readonly Path[]): Path {
    if (places.length === 0) return [];
    let common = places[0]!.slice(0, -1);
    for (const place of places) {
        const other = common.findIndex((name, at) => at >= place.length - 1 || place[at] !== name);
        if (other >= 0) common = common.slice(0, other);
    }
    return common;
}

// Signals of a message

/** Of each name the first signal that has it. */
function indexes(signals: readonly Signal[]): Map<string, number> {
    const found = new Map<string, number>();
    signals.forEach(({ name }, at) => {
        if (!found.has(name)) found.set(name, at);
    });
    return found;
}

/** The signals that each one selects. */
function selectedBy(signals: readonly Signal[], byName: ReadonlyMap<string, number>): Map<number, number[]> {
    const found = new Map<number, number[]>();
    signals.forEach(({ choice }, at) => {
        const selector = choice && byName.get(choice.selector);
        if (selector === undefined) return;
        const others = found.get(selector);
        if (others) others.push(at);
        else found.set(selector, [at]);
    });
    return found;
}

/** Tells one selection from another; empty for what is in all frames. */
function keyOf(choice: Choice | undefined): string {
    return choice ? `${onlyOf(choice)} ${choice.selector}` : "";
}

/** Whether it has its bytes for itself. */
function isWhole({ start, size }: Signal): boolean {
    return start % 8 === 0 && (size === 8 || size === 16 || size === 32);
}

function touches(signal: Signal, byte: number): boolean {
    return firstByte(signal) <= byte && byte <= lastByte(signal);
}

/**
 * Signals that have bytes for themselves. Two of them that are selected by the same signal, by different values, are in
 * no frame together.
 */
class Owners {
    readonly #left = new Set<number>();
    /** By byte, and by byte and what selects them. */
    readonly #lanes = new Map<string, Lane>();

    constructor(signals: readonly Signal[], isOwner: (signal: Signal, at: number) => boolean) {
        signals.forEach((signal, at) => {
            if (isOwner(signal, at)) this.#add(signal, at);
        });
        for (const lane of this.#lanes.values()) lane.end();
    }

    delete(at: number): void {
        this.#left.delete(at);
    }

    /** The first one, but for one, that has one of the bytes and may be in frames with the signal. */
    firstOf(bytes: readonly number[], { choice }: Signal, but?: number): number | undefined {
        let first = Infinity;
        for (const byte of bytes) {
            first = Math.min(first, this.#lanes.get(`${byte}`)?.first(but, choice?.selector) ?? Infinity);
            if (choice) first = Math.min(first, this.#lanes.get(`${byte} ${keyOf(choice)}`)?.first(but) ?? Infinity);
        }
        return first === Infinity ? undefined : first;
    }

    #add(signal: Signal, at: number): void {
        this.#left.add(at);
        const { choice } = signal;
        for (let byte = firstByte(signal); byte <= lastByte(signal); byte++) {
            this.#lane(`${byte}`).add(at, choice?.selector);
            if (choice) this.#lane(`${byte} ${keyOf(choice)}`).add(at, choice.selector);
        }
    }

    #lane(key: string): Lane {
        let lane = this.#lanes.get(key);
        if (!lane) this.#lanes.set(key, (lane = new Lane(this.#left)));
        return lane;
    }
}

/** Signals in their order, each with what selects it, of which some are left: finding the first does not ask all. */
class Lane {
    readonly #signals: number[] = [];
    readonly #selectors: (string | undefined)[] = [];
    /** Of each place the next one whose signal is selected by another. */
    readonly #nextOther: number[] = [];
    /** Of each place whose signal is not left a later one, before which none is. */
    readonly #next = new Map<number, number>();

    constructor(readonly left: ReadonlySet<number>) {}

    add(signal: number, selector: string | undefined): void {
        this.#signals.push(signal);
        this.#selectors.push(selector);
    }

    /** All are there. */
    end(): void {
        for (let place = this.#signals.length - 1; place >= 0; place--) {
            const isSame = this.#selectors[place] === this.#selectors[place + 1];
            this.#nextOther[place] = isSame ? (this.#nextOther[place + 1] ?? place + 1) : place + 1;
        }
    }

    /** But for one, and for those that a signal selects. */
    first(but: number | undefined, selector?: string): number | undefined {
        let place = this.#leftFrom(0);
        while (place < this.#signals.length) {
            const isSelected = selector !== undefined && this.#selectors[place] === selector;
            if (!isSelected && this.#signals[place] !== but) break;
            place = this.#leftFrom(isSelected ? this.#nextOther[place]! : place + 1);
        }
        return this.#signals[place];
    }

    #leftFrom(begin: number): number {
        let place = begin;
        while (place < this.#signals.length && !this.left.has(this.#signals[place]!)) {
            place = this.#next.get(place) ?? place + 1;
        }
        if (place > begin) this.#next.set(begin, place);
        return place;
    }
}

// What is not possible

/** Why signals cannot be imported, by their index. */
function refusalsOf(message: Message, byName: ReadonlyMap<string, number>): Map<number, string> {
    const { signals } = message;
    const refusals = new Map<number, string>();
    const refuse = (reasonOf: (signal: Signal, refused: ReadonlyMap<number, string>) => string) => {
        const before = new Map(refusals);
        signals.forEach((signal, at) => {
            const reason = before.has(at) ? "" : reasonOf(signal, before);
            if (reason) refusals.set(at, reason);
        });
    };
    refuse((signal) => message.refusal || kindRefusal(signal) || placeRefusal(signal, message));
    const circles = new Circles(signals, byName);
    refuse((signal, refused) => choiceRefusal(signal, byName, refused, circles));
    const selected = selectedBy(signals, byName);
    for (const refused of refusals.keys()) {
        for (const at of selected.get(refused) ?? []) {
            if (!refusals.has(at)) refusals.set(at, selectorRefusal(signals[at]!.choice!));
        }
    }
    return refusals;
}

function kindRefusal(signal: Signal): string {
    if (signal.size < 1) return "it has no bits";
    if (signal.size > LARGEST) return `it has ${signal.size} bits, a value has at most ${LARGEST}`;
    if (signal.isFloat && (signal.size !== LARGEST || signal.start % 8 > 0)) {
        return "it is a floating-point number, which needs four whole bytes";
    }
    if (signal.scale.toNumber() === 0) return "its factor is 0";
    if (valueRange(signal).some((end) => !Number.isFinite(end.toNumber()))) return "its values are beyond all numbers";
    return "";
}

function placeRefusal(signal: Signal, { size }: Message): string {
    const last = lastByte(signal);
    const touched = last - firstByte(signal) + 1;
    if (last >= size) return `it reaches into byte ${last}, the message has ${size}`;
    const width = WIDTHS[touched];
    if (width === undefined) return `its bits are spread over ${touched} bytes, a reading has at most 4`;
    if (width > size) return `it has ${touched} bytes, and the message no fourth: a reading has 1, 2 or 4`;
    return "";
}

function choiceRefusal(
    signal: Signal,
    byName: ReadonlyMap<string, number>,
    refused: ReadonlyMap<number, string>,
    circles: Circles,
): string {
    const { choice } = signal;
    if (!choice) return "";
    const selector = choice.selector ? byName.get(choice.selector) : undefined;
    if (selector === undefined) return "it is in some frames only, and in which is not said";
    if (refused.has(selector)) return selectorRefusal(choice);
    if (onlyOf(choice) === undefined) {
        return `it is in frames with several values of ${choice.selector}, a leaf in those with one`;
    }
    if (circles.has(signal)) return "whether it is in a frame depends on itself";
    return "";
}

function selectorRefusal({ selector }: Choice): string {
    return `it is in some frames only, which ${selector} tells, and that is not possible`;
}

/** Where the selectors of selectors lead back to where one has been. */
class Circles {
    /** Of those that other signals can be selected by, which are the first of their names: what is known of them. */
    readonly #known = new Map<Signal, boolean>();

    constructor(
        readonly signals: readonly Signal[],
        readonly byName: ReadonlyMap<string, number>,
    ) {}

    has(signal: Signal): boolean {
        const known = this.signals[this.byName.get(signal.name)!] === signal ? this.#known : new Map<Signal, boolean>();
        const asked = new Set<string>();
        const way: Signal[] = [];
        let at: Signal | undefined = signal;
        while (at?.choice && !asked.has(at.name) && !known.has(at)) {
            asked.add(at.name);
            way.push(at);
            at = this.signals.at(this.byName.get(at.choice.selector) ?? -1);
        }
        const found = (at && known.get(at)) ?? at?.choice !== undefined;
        for (const each of way) known.set(each, found);
        return found;
    }
}

// The bytes and bits

function endOf({ skip, width }: Window): number {
    return skip + width;
}

function bytesOf({ skip, width }: Window): number[] {
    return Array.from({ length: width }, (_, at) => skip + at);
}

/**
 * The bytes to read: those that the signal touches. With three, there is a fourth: the one before, with which the frame
 * need not be longer, unless another signal has that for itself and not the one behind.
 */
function windowOf(signal: Signal, size: number, owners: Owners): Window {
    const first = firstByte(signal);
    const touched = lastByte(signal) - first + 1;
    const width = WIDTHS[touched]!;
    if (touched === width) return { skip: first, width };
    const isOthers = (begin: number) => owners.firstOf([begin < first ? begin : begin + 3], signal) !== undefined;
    const begins = [first - 1, first].filter((begin) => begin >= 0 && begin <= size - width);
    return { skip: begins.find((begin) => !isOthers(begin)) ?? begins[0]!, width };
}

/** The options and members that take the signal's bits out of the payload. */
function arrangement(signal: Signal, window: Window): Schema {
    const { skip, width } = window;
    const isSwapped = !signal.isLittleEndian && width > 1;
    if (signal.isFloat) {
        return isSwapped
            ? { "@format": "I", "@skip": skip, float: true, swapped: true }
            : { "@format": "f", "@skip": skip };
    }
    const isField = signal.size < 8 * width;
    const isPlainSigned = signal.isSigned && !isField && !isSwapped && SIGNED[width] !== undefined;
    const found: Schema = { "@format": isPlainSigned ? SIGNED[width] : UNSIGNED[width], "@skip": skip };
    if (isField) {
        found["bits"] = [lowestOf(signal, window), signal.size];
        found["initial"] = 0;
    }
    if (isSwapped) found["swapped"] = true;
    if (signal.isSigned && !isPlainSigned) found["signed"] = true;
    return found;
}

/** The place of the signal's lowest bit within the window's bytes in the signal's order. */
function lowestOf(signal: Signal, { skip, width }: Window): number {
    const before = signal.start - 8 * skip;
    return signal.isLittleEndian ? before : 8 * width - before - signal.size;
}

// What it means

const ONE = Decimal.of(1n);

function meaningOf(signal: Signal): Schema {
    const { least, largest } = boundsOf(signal);
    const labels = Array.from(labelsOf(signal.labels), ([raw, text]) => [String(raw), text]);
    return {
        ...(signal.comment && { description: signal.comment }),
        ...(signal.unit && { unit: signal.unit }),
        ...(isScaled(signal) && { scale: signal.scale.toNumber() }),
        ...(!signal.offset.isZero && { offset: signal.offset.toNumber() }),
        ...(labels.length > 0 && { labels: Object.fromEntries(labels) }),
        ...(least && { min: least.toNumber() }),
        ...(largest && { max: largest.toNumber() }),
    };
}

function isScaled({ scale }: Signal): boolean {
    return scale.compare(ONE) !== 0;
}

/** A text that stands for several raw numbers is told apart by these, as a label has to be for writing. */
function labelsOf(labels: ReadonlyMap<bigint, string>): Map<bigint, string> {
    const found = new Map<bigint, string>();
    const texts = new Set<string>();
    for (const [raw, text] of Array.from(labels).sort(([one], [other]) => (one < other ? -1 : 1))) {
        let label = text;
        while (texts.has(label)) label += ` (${raw})`;
        found.set(raw, label);
        texts.add(label);
    }
    return found;
}

type Bounds = { least?: Decimal | undefined; largest?: Decimal | undefined };

/** Those that leave out something that the bits could be, and leave something. */
function boundsOf(signal: Signal): Bounds {
    if (!areSensible(signal)) return {};
    const { least, largest } = signal;
    const [low, high] = valueRange(signal);
    return {
        least: least && least.compare(low) > 0 ? least : undefined,
        largest: largest && largest.compare(high) < 0 ? largest : undefined,
    };
}

function areInOrder(least: Decimal | undefined, largest: Decimal | undefined): boolean {
    return !least || !largest || least.compare(largest) <= 0;
}

function areSensible(signal: Signal): boolean {
    const { least, largest } = signal;
    const [low, high] = valueRange(signal);
    return areInOrder(least, largest) && areInOrder(least, high) && areInOrder(low, largest);
}

/** What is another than in the description, though the signal is read and written as it says. */
function* remarks(signal: Signal, path: string): Generator<string> {
    const name = namesOf(path).at(-1)!;
    if (name !== signal.name && path !== signal.path) yield `named ${name}`;
    if (!areSensible(signal)) {
        const bounds = [signal.least, signal.largest].map((bound) => bound?.toString() ?? "any");
        yield `without its bounds, ${bounds.join(" to ")}, within which it never is`;
    }
    const renamed = Array.from(labelsOf(signal.labels)).filter(([raw, text]) => text !== signal.labels.get(raw));
    if (renamed.length > 0) yield `labels told apart: ${renamed.map(([, text]) => text).join(", ")}`;
    if (signal.isFloat && (isScaled(signal) || !signal.offset.isZero)) {
        yield "its value has the digits of single precision";
    }
}
