import { maskOf } from "./meaning.js";
import { memberProblems, selectorProblems } from "./membercheck.js";
import { dotted, type Path } from "./paths.js";
import { listed, problem, quoted, SchemaError, type Found, type Problem } from "./problem.js";
import {
    FORMATS,
    isArranged,
    isLeaf,
    isObject,
    isScaled,
    NESTING_LIMIT,
    nodeBelow,
    readJson,
    toLeaf,
    walk,
    type Leaf,
    type Schema,
} from "./schema.js";
import { readOnlyReason } from "./writing.js";

const FRAME_BYTES = 8;
/** A frame of CAN FD, which the daemon reads but does not write. */
const LONG_FRAME_BYTES = 64;

export type CheckOptions = {
    /** A schema without leaves is wanted: it clears the one in force. */
    clear?: boolean;
};

/** Everything that is wrong or doubtful in a schema; empty when it is fine. */
export function checkSchema(schema: unknown, { clear = false }: CheckOptions = {}): Problem[] {
    if (!isObject(schema)) {
        return [problem([], "not-an-object", `must be an object, not ${quoted(schema)}: all leaves would be lost`)];
    }
    const problems: Problem[] = [];
    const placed: Leaf[] = [];
    const known: Leaf[] = [];
    let isTooDeep = false;
    walk(schema, (node, path) => {
        if (path.length > NESTING_LIMIT) {
            isTooDeep = true;
            return;
        }
        const { leaf, isPlaced } = usableLeaf(node, path);
        for (const [code, message] of nodeProblems(node, leaf)) problems.push(problem(path, code, message));
        if (isLeaf(node)) known.push(leaf);
        if (isLeaf(node) && isPlaced) placed.push(leaf);
    });
    if (isTooDeep) problems.push(problem([], "too-deep", `is nested more than ${NESTING_LIMIT} deep`));
    if (known.length === 0 && !clear) {
        problems.push(problem([], "no-leaf", `has no leaf, that is, no object with "@mac": all values would be lost`));
    }
    return [...problems, ...selectorProblems(known), ...sharedFrameProblems(placed)];
}

/** The same of a schema as JSON text, of which more can be said. */
export function checkText(text: string, options: CheckOptions = {}): Problem[] {
    const { document, problems } = readJson(text);
    return document === undefined ? problems : [...problems, ...checkSchema(document, options)];
}

/** Throws a SchemaError when the schema has errors; warnings pass. */
export function assertSchema(schema: unknown, options: CheckOptions = {}): asserts schema is Schema {
    throwErrors(checkSchema(schema, options));
}

/** Parses a schema's JSON text and checks it. Throws SchemaError on errors, malformed JSON among them. */
export function parseSchema(text: string, options: CheckOptions = {}): Schema {
    throwErrors(checkText(text, options));
    return JSON.parse(text);
}

function throwErrors(problems: Problem[]): void {
    const errors = problems.filter(({ severity }) => severity === "error");
    if (errors.length > 0) throw new SchemaError(errors);
}

// Options by themselves

type OptionCheck = (value: unknown) => Found | undefined;

function wholeNumber(least: number, most: number, consequence: string): OptionCheck {
    return (value) => {
        if (typeof value !== "number" || !Number.isInteger(value))
            return ["option-type", `must be a whole number, not ${quoted(value)}`];
        if (value < least || value > most) {
            return ["option-range", `is ${value}, outside ${least} to ${most}: ${consequence}`];
        }
        return undefined;
    };
}

const trueOrFalse: OptionCheck = (value) =>
    typeof value === "boolean" ? undefined : ["option-type", `must be true or false, not ${quoted(value)}`];

const text: OptionCheck = (value) =>
    typeof value === "string" ? undefined : ["option-type", `must be a text, not ${quoted(value)}`];

function divisor(value: unknown): Found | undefined {
    if (typeof value !== "number" || !Number.isFinite(value)) {
        return ["option-type", `must be a number, not ${quoted(value)}`];
    }
    const single = Math.fround(value);
    if (single !== 0 && Number.isFinite(single) && Number.isFinite(Math.fround(1 / single))) return undefined;
    return ["option-range", `is ${value}: readings are divided by it in single precision`];
}

const INT_MIN = -(2 ** 31);
const INT_MAX = 2 ** 31 - 1;

const optionChecks: ReadonlyMap<string, OptionCheck> = new Map([
    ["@mac", wholeNumber(0, 63, "no frame carries such an address")],
    ["@cmd", wholeNumber(0, 31, "no frame carries such a command")],
    ["@format", text],
    ["@skip", wholeNumber(0, 65535, "a frame has no such byte")],
    ["@factor", divisor],
    ["@mask", wholeNumber(INT_MIN, 2 ** 32 - 1, "it must fit 32 bits")],
    ["@asBool", trueOrFalse],
    ["@flushSize", wholeNumber(0, INT_MAX, "such a leaf never has a value")],
    ["@observe", trueOrFalse],
    ["@fragmentation", trueOrFalse],
]);

/** The leaf that the faultless options of a node make, and whether that is certainly its place in the payload. */
function usableLeaf(node: Schema, path: Path): { leaf: Leaf; isPlaced: boolean } {
    const members = Object.entries(node);
    const faultless = members.filter(([name, value]) => !optionChecks.get(name)?.(value));
    const leaf = toLeaf(Object.fromEntries(faultless), path);
    return { leaf, isPlaced: faultless.length === members.length && leaf.format in FORMATS };
}

// One node

function* nodeProblems(node: Schema, leaf: Leaf): Generator<Found> {
    yield* unknownOptions(node);
    if (!isLeaf(node)) {
        yield* branchProblems(node);
        return;
    }
    yield* optionProblems(node);
    yield* formatProblems(node, leaf);
    yield* placeProblems(leaf);
    yield* effectProblems(leaf);
    yield* memberProblems(node, leaf);
    if (Object.keys(node).some((name) => !optionChecks.has(name) && nodeBelow(node, name))) {
        yield ["leaf-in-leaf", "holds objects inside of a leaf: their values and its own replace one another"];
    }
}

function* unknownOptions(node: Schema): Generator<Found> {
    for (const [name, value] of Object.entries(node)) {
        if (name.startsWith("@") && !optionChecks.has(name) && !isObject(value)) {
            yield ["unknown-option", `"${name}" is no option${suggestion(name)}`];
        }
    }
}

function* branchProblems(node: Schema): Generator<Found> {
    const plain = Object.keys(node).filter((name) => !isObject(node[name]));
    const options = plain.filter((name) => optionChecks.has(name));
    if (options.length > 0) {
        yield ["options-without-mac", `has ${listed(options)} but no "@mac": it is no leaf without one`];
    }
    const unsigned = plain.filter((name) => ["mac", "cmd", "format"].includes(name.toLowerCase()));
    if (unsigned.length > 0) {
        yield ["leaf-without-signs", `has ${listed(unsigned)} but no "@mac": the names of options begin with "@"`];
    }
}

function* optionProblems(node: Schema): Generator<Found> {
    for (const [name, value] of Object.entries(node)) {
        const meant = optionInOtherLetters(`@${name}`);
        const found = optionChecks.get(name)?.(value);
        if (found) yield [found[0], `"${name}" ${found[1]}`];
        else if (meant && !isObject(value))
            yield ["option-without-sign", `"${name}" is ignored; did you mean "${meant}"?`];
    }
    if (!Object.hasOwn(node, "@cmd")) yield ["no-cmd", `has no "@cmd", which counts as 0`];
}

function* formatProblems(node: Schema, { format }: Leaf): Generator<Found> {
    const text = node["@format"];
    if (!Object.hasOwn(node, "@format")) {
        yield ["no-format", `has no "@format", so it never has a value`];
    } else if (typeof text === "string" && !FORMATS[format]) {
        const known = Object.keys(FORMATS).join(", ");
        yield [
            "unknown-format",
            `"@format" ${quoted(text)} is unknown, so the leaf never has a value; known are ${known}`,
        ];
    } else if (typeof text === "string" && text.length > 1) {
        yield ["long-format", `only the first character of "@format" counts: "${format}"`];
    }
}

function* placeProblems({ skip, format, fragmentation }: Leaf): Generator<Found> {
    const width = FORMATS[format]?.width ?? 0;
    const end = skip + width;
    if (width === 0 || end <= FRAME_BYTES || fragmentation) return;
    if (end > LONG_FRAME_BYTES) {
        yield ["beyond-any-frame", `ends at byte ${end - 1}: no frame is that long`];
    } else {
        const message = `ends at byte ${end - 1}: it is read from CAN FD frames only, and not written without "@fragmentation"`;
        yield ["beyond-frame", message];
    }
}

function* effectProblems(leaf: Leaf): Generator<Found> {
    const { format, flushSize, mask } = leaf;
    if (format === "c" && flushSize > 0 && !isScaled(leaf)) {
        const message = `arrays of format "c" make every message undecodable, for all clients; "C" reads the same bytes`;
        yield ["unreadable-array", message];
    }
    if (format === "p") yield* packedProblems(leaf);
    else if (leaf.observe && flushSize > 0) yield ["no-effect", `"@observe" is ignored, because "@flushSize" is set`];
    if (mask !== -1 && FORMATS[format]?.masked === false) {
        yield ["no-effect", `"@mask" has no effect on format "${format}" but makes the leaf read-only`];
    }
}

function* packedProblems(leaf: Leaf): Generator<Found> {
    yield ["write-only", `format "p" is only for writing: the leaf never has a value`];
    if (!leaf.fragmentation) yield ["packed-cut", `more than 8 packed bytes are cut off without "@fragmentation"`];
    if (leaf.asBool) yield ["no-effect", `"@asBool" has no effect on format "p" but makes the leaf read-only`];
    const isSet = {
        "@skip": leaf.skip !== 0,
        "@factor": isScaled(leaf),
        "@flushSize": leaf.flushSize !== 0,
        "@observe": leaf.observe,
    };
    for (const [name, set] of Object.entries(isSet)) if (set) yield ["no-effect", `"${name}" is ignored by format "p"`];
}

function optionInOtherLetters(name: string): string | undefined {
    return [...optionChecks.keys()].find((option) => option.toLowerCase() === name.toLowerCase());
}

function suggestion(name: string): string {
    const bare = (text: string) => text.toLowerCase().replace(/[^a-z]/g, "");
    const close = [...optionChecks.keys()].find((known) => distance(bare(known), bare(name)) <= 2);
    return close ? `; did you mean "${close}"?` : `; known are ${[...optionChecks.keys()].join(", ")}`;
}

/** How many letters must be put in, left out or exchanged to turn one word into the other. */
function distance(a: string, b: string): number {
    let row = Array.from({ length: b.length + 1 }, (_, at) => at);
    for (let i = 1; i <= a.length; i++) {
        const next = [i];
        for (let j = 1; j <= b.length; j++) {
            next.push(Math.min(row[j]! + 1, next[j - 1]! + 1, row[j - 1]! + Number(a[i - 1] !== b[j - 1])));
        }
        row = next;
    }
    return row[b.length]!;
}

// The leaves of one node and command

/** What leaves of the same frames do to each other; they come by name. */
function* sharedFrameProblems(leaves: Leaf[]): Generator<Problem> {
    const byFrame = new Map<number, Leaf[]>();
    for (const leaf of leaves) {
        const key = leaf.cmd * 64 + leaf.mac;
        const together = byFrame.get(key);
        if (together) together.push(leaf);
        else byFrame.set(key, [leaf]);
    }
    for (const together of byFrame.values()) {
        yield* overlaps(together);
        yield* mixedFragmentation(together);
    }
}

/** Each leaf that uses bits of one before it is told once. */
function* overlaps(leaves: Leaf[]): Generator<Problem> {
    const users = new Map<number, Users>();
    for (const leaf of leaves) {
        const bits = payloadBits(leaf);
        let other: Leaf | undefined;
        for (const bit of bits) other ??= userBeside(leaf, users.get(bit));
        if (other) yield overlap(leaf, other, bits);
        for (const bit of bits) {
            if (!users.has(bit)) users.set(bit, new Map([[leaf.meaning.when?.is, leaf]]));
            else if (!other) users.get(bit)!.set(leaf.meaning.when?.is, leaf);
        }
    }
}

/** The leaves that use a bit, all apart: if there are several, the same leaf selects them, by these fields. */
type Users = Map<number | undefined, Leaf>;

/** The one that may be in a frame with a leaf. */
function userBeside(leaf: Leaf, users: Users | undefined): Leaf | undefined {
    const [first] = users?.values() ?? [];
    return first && areApart(first, leaf) ? users!.get(leaf.meaning.when!.is) : first;
}

/** Whether no frame has a value of both. */
function areApart({ meaning: { when: one } }: Leaf, { meaning: { when: other } }: Leaf): boolean {
    return one !== undefined && one.path === other?.path && one.is !== other.is;
}

/** The bits of the payload that a leaf reads. */
function payloadBits(leaf: Leaf): number[] {
    const { width, masked } = FORMATS[leaf.format]!;
    const read = (masked ? leaf.mask : -1) & (isArranged(leaf) ? maskOf(leaf) : -1);
    const bits = Array.from({ length: 8 * width }, (_, bit) => bit);
    return bits.filter((bit) => (read >> bit) & 1).map((bit) => 8 * leaf.skip + bit);
}

function overlap(leaf: Leaf, other: Leaf, bits: number[]): Problem {
    const others = new Set(payloadBits(other).map((bit) => bit >> 3));
    const shared = [...new Set(bits.map((bit) => bit >> 3))].filter((byte) => others.has(byte));
    const where = shared.length === 1 ? `byte ${shared[0]}` : `bytes ${shared[0]} to ${shared.at(-1)}`;
    const bothWritable = !readOnlyReason(leaf) && !readOnlyReason(other);
    const message =
        `overlaps ${dotted(other.path)} at ${where} of mac ${leaf.mac}, cmd ${leaf.cmd}` +
        (bothWritable ? ": written together, one destroys the other" : "");
    return problem(leaf.path, "overlap", message);
}

function* mixedFragmentation(leaves: Leaf[]): Generator<Problem> {
    const other = leaves.find(({ fragmentation }) => fragmentation !== leaves[0]!.fragmentation);
    if (!other) return;
    const message = `"@fragmentation" differs from ${dotted(leaves[0]!.path)}'s of the same frames: the first one written decides`;
    yield problem(other.path, "mixed-fragmentation", message);
}
