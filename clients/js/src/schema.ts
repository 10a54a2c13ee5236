import { dotted, type Path } from "./paths.js";

/** A parsed schema document: nested objects, of which those with "@mac" are leaves. */
export type Schema = { [name: string]: unknown };

/** One leaf with the daemon's defaults for the options that are absent. */
export type Leaf = {
    path: Path;
    mac: number;
    cmd: number;
    /** One of the characters of FORMATS, or "" (such a leaf carries no value). */
    format: string;
    skip: number;
    flushSize: number;
    factor: number;
    mask: number;
    asBool: boolean;
    observe: boolean;
    fragmentation: boolean;
};

/** An error makes a leaf useless or harmful; a warning is defined behaviour that is seldom what was meant. */
export type Problem = { severity: "error" | "warning"; path: Path; message: string };

/** Thrown instead of sending a schema with errors. */
export class SchemaError extends Error {
    override name = "SchemaError";
    constructor(readonly problems: Problem[]) {
        super(`The schema was not sent:\n${problems.map(describeProblem).join("\n")}`);
    }
}

/** A problem on one line, beginning with its path. */
export function describeProblem({ path, message }: Problem): string {
    return `${dotted(path) || "the document"}: ${message}`;
}

/** Width in bytes, signedness when read, and whether "@mask" has an effect, by format character. */
export const FORMATS: Readonly<Record<string, { width: number; signed: boolean; masked: boolean }>> = {
    C: { width: 1, signed: false, masked: true },
    c: { width: 1, signed: false, masked: true },
    S: { width: 2, signed: false, masked: true },
    s: { width: 2, signed: true, masked: true },
    Q: { width: 2, signed: false, masked: false },
    q: { width: 2, signed: true, masked: false },
    I: { width: 4, signed: false, masked: true },
    i: { width: 4, signed: true, masked: true },
    f: { width: 4, signed: true, masked: false },
    p: { width: 0, signed: false, masked: false },
};

const FRAME_BYTES = 8;
/** A frame of CAN FD, which the daemon reads but does not write. */
const LONG_FRAME_BYTES = 64;

type OptionCheck = (value: unknown) => string | undefined;

function isObject(value: unknown): value is Schema {
    return typeof value === "object" && value !== null && !Array.isArray(value);
}

function show(value: unknown): string {
    const text = JSON.stringify(value) ?? String(value);
    return text.length > 40 ? `${text.slice(0, 37)}...` : text;
}

function wholeNumber(least: number, most: number, consequence: string): OptionCheck {
    return (value) => {
        if (!Number.isInteger(value)) return `must be a whole number, not ${show(value)}`;
        if ((value as number) < least || (value as number) > most) {
            return `is ${value}, outside ${least} to ${most}: ${consequence}`;
        }
        return undefined;
    };
}

const trueOrFalse: OptionCheck = (value) =>
    typeof value === "boolean" ? undefined : `must be true or false, not ${show(value)}`;

function formatCheck(value: unknown): string | undefined {
    if (typeof value !== "string") return `must be a text, not ${show(value)}`;
    if (!FORMATS[value.charAt(0)]) {
        return `${show(value)} is unknown, so the leaf never has a value; known are ${Object.keys(FORMATS).join(", ")}`;
    }
    return undefined;
}

function factorCheck(value: unknown): string | undefined {
    if (typeof value !== "number") return `must be a number, not ${show(value)}`;
    return value === 0 ? "is 0: readings are divided by it, so each would be infinite" : undefined;
}

const INT_MIN = -(2 ** 31);
const INT_MAX = 2 ** 31 - 1;

const optionChecks: Readonly<Record<string, OptionCheck>> = {
    "@mac": wholeNumber(0, 63, "no frame carries such an address"),
    "@cmd": wholeNumber(0, 31, "no frame carries such a command"),
    "@format": formatCheck,
    "@skip": wholeNumber(0, 65535, "a frame has no such byte"),
    "@flushSize": wholeNumber(0, INT_MAX, "such a leaf never has a value"),
    "@factor": factorCheck,
    "@mask": wholeNumber(INT_MIN, 2 ** 32 - 1, "it must fit 32 bits"),
    "@asBool": trueOrFalse,
    "@observe": trueOrFalse,
    "@fragmentation": trueOrFalse,
};

/** Everything that is wrong or doubtful in a schema, in the order of the document; empty when it is fine. */
export function checkSchema(schema: unknown): Problem[] {
    if (!isObject(schema)) {
        return [{ severity: "error", path: [], message: `must be an object, not ${show(schema)}: all leaves would be lost` }];
    }
    const problems: Problem[] = [];
    walk(schema, [], (node, path) => {
        if ("@mac" in node) problems.push(...leafProblems(node, path));
        else problems.push(...branchProblems(node, path));
    });
    if (!problems.some(({ severity }) => severity === "error")) problems.push(...sharedFrameProblems(schema));
    return problems;
}

/** Throws a SchemaError when the schema has errors; warnings pass. */
export function assertSchema(schema: unknown): asserts schema is Schema {
    const errors = checkSchema(schema).filter(({ severity }) => severity === "error");
    if (errors.length > 0) throw new SchemaError(errors);
}

/** Parses a schema's JSON text and checks it. Throws SchemaError on errors, malformed JSON among them. */
export function parseSchema(text: string): Schema {
    const schema = parseJson(text);
    assertSchema(schema);
    return schema;
}

/** Parses JSON text. Malformed JSON, and a name that occurs twice in one object, is reported as a SchemaError. */
export function parseJson(text: string): unknown {
    let document: unknown;
    try {
        document = JSON.parse(text);
    } catch (error) {
        throw new SchemaError([{ severity: "error", path: [], message: `is no JSON: ${(error as Error).message}` }]);
    }
    const repeated = repeatedNames(text);
    if (repeated.length > 0) throw new SchemaError(repeated);
    return document;
}

/** What a parser does not tell: members of valid JSON that a later one of the same name replaces. */
function repeatedNames(json: string): Problem[] {
    const problems: Problem[] = [];
    const objects: Set<string>[] = []; // the names so far, from the outermost object to the innermost
    const path: string[] = [];
    for (const [token, name, bracket] of json.matchAll(/("(?:[^"\\]|\\.)*")\s*:|"(?:[^"\\]|\\.)*"|([{}])/g)) {
        if (bracket === "{") {
            objects.push(new Set());
        } else if (token === "}") {
            objects.pop();
            path.length = Math.max(0, objects.length - 1);
        } else if (name) {
            path.splice(objects.length - 1, Infinity, JSON.parse(name));
            const names = objects.at(-1)!;
            if (names.has(path.at(-1)!)) {
                problems.push({ severity: "error", path: [...path], message: "is there twice; only the last one would count" });
            }
            names.add(path.at(-1)!);
        }
    }
    return problems;
}

/** The leaves in the order in which the daemon meets them: by name, a leaf before those inside it. */
export function leavesOf(schema: Schema): Leaf[] {
    const leaves: Leaf[] = [];
    walk(schema, [], (node, path) => {
        if ("@mac" in node) leaves.push(toLeaf(node, path));
    });
    return leaves;
}

function walk(node: Schema, path: Path, each: (node: Schema, path: Path) => void): void {
    each(node, path);
    for (const name of Object.keys(node).sort()) {
        const member = node[name];
        if (isObject(member)) walk(member, [...path, name], each);
    }
}

function toLeaf(node: Schema, path: Path): Leaf {
    const number = (name: string, otherwise: number) => (typeof node[name] === "number" ? node[name] : otherwise);
    const flag = (name: string) => node[name] === true;
    return {
        path,
        mac: number("@mac", 0),
        cmd: number("@cmd", 0),
        format: typeof node["@format"] === "string" ? node["@format"].charAt(0) : "",
        skip: number("@skip", 0),
        flushSize: number("@flushSize", 0),
        factor: number("@factor", 1),
        mask: number("@mask", -1) | 0, // the daemon's is signed
        asBool: flag("@asBool"),
        observe: flag("@observe"),
        fragmentation: flag("@fragmentation"),
    };
}

function leafProblems(node: Schema, path: Path): Problem[] {
    const problems: Problem[] = [];
    const error = (message: string) => problems.push({ severity: "error", path, message });
    const warning = (message: string) => problems.push({ severity: "warning", path, message });

    for (const [name, value] of Object.entries(node)) {
        const check = Object.hasOwn(optionChecks, name) ? optionChecks[name] : undefined;
        const complaint = check?.(value);
        if (complaint) error(`"${name}" ${complaint}`);
        else if (!check && name.startsWith("@")) error(`"${name}" is no option${suggestion(name)}`);
        else if (isObject(value)) warning(`"${name}" lies inside a leaf: one of the two hides the other's value`);
        else if (`@${name}` in optionChecks) warning(`"${name}" is ignored; did you mean "@${name}"?`);
    }
    if (!("@format" in node)) error(`has no "@format", so it never has a value`);
    if (problems.length > 0) return problems;

    const leaf = toLeaf(node, path);
    const end = leaf.skip + FORMATS[leaf.format]!.width;
    if (end > LONG_FRAME_BYTES && !leaf.fragmentation) error(`ends at byte ${end - 1}: no frame is that long`);
    if (leaf.format === "c" && leaf.flushSize > 0 && leaf.factor === 1) {
        error(`arrays of format "c" make every message undecodable, for all clients; "C" reads the same bytes`);
    }
    if (problems.length > 0) return problems;
    for (const message of combinationWarnings(leaf, node)) warning(message);
    return problems;
}

function* combinationWarnings(leaf: Leaf, node: Schema): Generator<string> {
    const { format, flushSize, factor, mask, skip, fragmentation } = leaf;
    const end = skip + FORMATS[format]!.width;
    if (end > FRAME_BYTES && !fragmentation) {
        yield `ends at byte ${end - 1}: it is read from CAN FD frames only, and not written without "@fragmentation"`;
    }
    if (!("@cmd" in node)) yield `has no "@cmd", which counts as 0`;
    if (format === "p") yield `format "p" is only for writing: the leaf never has a value`;
    if (format === "p" && !fragmentation) yield `more than 8 packed bytes are cut off without "@fragmentation"`;
    if (leaf.observe && flushSize > 0) yield `"@observe" is ignored, because "@flushSize" is set`;
    if (mask !== -1 && !FORMATS[format]!.masked) {
        yield `"@mask" has no effect on format "${format}" but makes the leaf read-only`;
    }
    if (format === "p" && factor !== 1) yield `"@factor" is ignored by format "p"`;
    if ((node["@format"] as string).length > 1) yield `only the first character of "@format" counts: "${format}"`;
}

function branchProblems(node: Schema, path: Path): Problem[] {
    const options = Object.keys(node).filter((name) => name.startsWith("@") && !isObject(node[name]));
    if (options.length === 0) return [];
    return [
        {
            severity: "error",
            path,
            message: `has ${options.map((name) => `"${name}"`).join(", ")} but no "@mac": it is no leaf without one`,
        },
    ];
}

function suggestion(name: string): string {
    const bare = (text: string) => text.toLowerCase().replace(/[^a-z]/g, "");
    const close = Object.keys(optionChecks).find((known) => distance(bare(known), bare(name)) <= 2);
    return close ? `; did you mean "${close}"?` : `; known are ${Object.keys(optionChecks).join(", ")}`;
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

/** Thousands of leaves on one byte make millions of pairs; nobody reads on. */
const MOST_SHARING = 1000;

/** What leaves of the same frames do to each other. */
function sharedFrameProblems(schema: Schema): Problem[] {
    const byFrame = new Map<number, Leaf[]>();
    for (const leaf of leavesOf(schema)) {
        const key = leaf.cmd * 64 + leaf.mac;
        const leaves = byFrame.get(key);
        if (leaves) leaves.push(leaf);
        else byFrame.set(key, [leaf]);
    }
    const problems: Problem[] = [];
    for (const leaves of byFrame.values()) {
        for (const problem of sharingProblems(leaves)) {
            if (problems.length === MOST_SHARING) return problems;
            problems.push(problem);
        }
    }
    return problems;
}

function* sharingProblems(leaves: Leaf[]): Generator<Problem> {
    yield* overlaps(leaves);
    yield* mixedFragmentation(leaves);
}

function* overlaps(leaves: Leaf[]): Generator<Problem> {
    const inOrder = [...leaves].sort((a, b) => a.skip - b.skip);
    for (const [at, first] of inOrder.entries()) {
        const end = first.skip + FORMATS[first.format]!.width;
        for (const second of inOrder.slice(at + 1)) {
            if (second.skip >= end) break;
            const shared = sharedBytes(first, second);
            if (!shared) continue;
            const bothWritable = !readOnlyReason(first) && !readOnlyReason(second);
            yield {
                severity: bothWritable ? "error" : "warning",
                path: second.path,
                message: `overlaps ${dotted(first.path)} at ${shared} of mac ${first.mac}, cmd ${first.cmd}` +
                    (bothWritable ? ": writing one destroys the other" : ""),
            };
        }
    }
}

/** The bytes that two leaves of the same frames both use, in words. Different bits of one byte do not meet. */
function sharedBytes(a: Leaf, b: Leaf): string | undefined {
    const bits = bitsOf(b);
    const shared = [...bitsOf(a)].filter(([byte, mask]) => (bits.get(byte) ?? 0) & mask).map(([byte]) => byte);
    if (shared.length === 0) return undefined;
    return shared.length === 1 ? `byte ${shared[0]}` : `bytes ${shared[0]} to ${shared.at(-1)}`;
}

/** By byte of the payload, the bits that a leaf reads. */
function bitsOf(leaf: Leaf): Map<number, number> {
    const { width, masked } = FORMATS[leaf.format]!;
    const bits = new Map<number, number>();
    for (let byte = 0; byte < width; byte++) bits.set(leaf.skip + byte, masked ? (leaf.mask >> (8 * byte)) & 0xff : 0xff);
    return bits;
}

function* mixedFragmentation(leaves: Leaf[]): Generator<Problem> {
    const other = leaves.find(({ fragmentation }) => fragmentation !== leaves[0]!.fragmentation);
    if (other) {
        yield {
            severity: "warning",
            path: other.path,
            message: `"@fragmentation" differs from ${dotted(leaves[0]!.path)}'s of the same frames: the first one written decides`,
        };
    }
}

/** Why a leaf cannot be written, in words; undefined when it can. */
export function readOnlyReason(leaf: Leaf): string | undefined {
    if (leaf.asBool) return `it is read-only, because "@asBool" keeps only whether the reading is zero`;
    if (leaf.mask !== -1) return `it is read-only, because "@mask" keeps only some of the bits`;
    if (!FORMATS[leaf.format]) return `it has no known "@format"`;
    return undefined;
}

/** The values that a leaf can be given. Empty for format "p", which takes any. */
export type Range = {
    least: number;
    most: number;
    /** Distance between two values that reach the bus as different ones; undefined when they are continuous. */
    step?: number;
};

/**
 * What can be written to a leaf without being changed on the way. The daemon clamps scaled values to the signed
 * range of the format, whatever its letter case, and cuts scaled floats to whole numbers.
 */
export function writableRange(leaf: Leaf): Range | undefined {
    const { width, signed } = FORMATS[leaf.format] ?? { width: 0, signed: false };
    if (width === 0) return undefined;
    const scaled = leaf.factor !== 1;
    if (leaf.format === "f" && !scaled) return { least: -3.4028234663852886e38, most: 3.4028234663852886e38 };
    const bits = 8 * width - (signed || scaled ? 1 : 0);
    const ends = [signed ? -(2 ** bits) / leaf.factor : 0, (2 ** bits - 1) / leaf.factor];
    return { least: Math.min(...ends), most: Math.max(...ends), step: Math.abs(1 / leaf.factor) };
}
