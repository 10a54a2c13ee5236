import { isObject } from "./kinds.js";
import { isMember, membersOf, type Members } from "./members.js";
import type { Path } from "./paths.js";
import { problem, SchemaError, type Problem } from "./problem.js";

export { isObject };

/** A parsed schema document: nested objects, of which those with "@mac" are leaves. */
export type Schema = { [name: string]: unknown };

/** What the options of a leaf can be. */
export type LeafOptions = {
    "@mac": number;
    "@cmd": number;
    "@format": string;
    "@skip": number;
    "@factor": number;
    "@mask": number;
    "@asBool": boolean;
    "@flushSize": number;
    "@observe": boolean;
    "@fragmentation": boolean;
};

/**
 * What a schema written as S has to be: the options and, in leaves, the members for people have their types; no other
 * names begin with "@", and none that are not nodes stand in leaves. A mistake is an error at the name that holds it.
 */
export type SchemaOf<S> = {
    [Name in keyof S]: Name extends keyof LeafOptions
        ? LeafOptions[Name]
        : Name extends `@${string}`
          ? never
          : S extends { "@mac": unknown }
            ? InLeaf<Name, S[Name]>
            : InGroup<S[Name]>;
};

type InLeaf<Name, Value> = Name extends keyof Members
    ? NonNullable<Members[Name]>
    : Value extends { [name: string]: unknown }
      ? SchemaOf<Value>
      : never;

type InGroup<Value> = Value extends { [name: string]: unknown } ? SchemaOf<Value> : Value;

/** A schema that is checked while it is written: defineSchema({ speed: { "@mac": 5, "@factr": 2 } }) is an error. */
export function defineSchema<const S extends Schema>(schema: S & SchemaOf<S>): S {
    return schema;
}

/** One leaf with the daemon's defaults for the options that are absent or of another type. */
export type Leaf = {
    path: Path;
    mac: number;
    cmd: number;
    /** The first character of "@format", or "". */
    format: string;
    skip: number;
    flushSize: number;
    factor: number;
    mask: number;
    asBool: boolean;
    observe: boolean;
    fragmentation: boolean;
    /** What its readings mean to people; members of another type are left out. */
    meaning: Members;
};

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

/** The daemon reads 1024, but not every client decodes values that are nested deeper than this. */
export const NESTING_LIMIT = 500;

export function isLeaf(node: Schema): boolean {
    return Object.hasOwn(node, "@mac");
}

/** Whether the daemon scales; it compares in single precision. */
export function isScaled({ factor }: Leaf): boolean {
    return Math.fround(factor) !== 1;
}

/** The width of a leaf in bytes; 0 if it has no known format. */
export function widthOf({ format }: Leaf): number {
    return FORMATS[format]?.width ?? 0;
}

/** Whether readings are whole numbers, as they are on the bus. */
export function isWhole(leaf: Leaf): boolean {
    return widthOf(leaf) > 0 && leaf.format !== "f" && !isScaled(leaf) && !leaf.asBool;
}

/** Whether the field has to be taken out of the reading. Members that do not apply here are without effect. */
export function isArranged(leaf: Leaf): boolean {
    const { bits, swapped, signed, float } = leaf.meaning;
    return Boolean(bits || swapped || signed || float) && isWhole(leaf);
}

/** Whether the field is a number of single precision. */
export function isSingle(leaf: Leaf): boolean {
    if (leaf.format === "f") return !isScaled(leaf);
    return Boolean(leaf.meaning.float) && isWhole(leaf) && widthOf(leaf) === 4;
}

/** The lowest bit of the field and how many it has, within the reading in the order of its bytes. */
export function bitsOf(leaf: Leaf): readonly [lowest: number, count: number] {
    const most = 8 * widthOf(leaf);
    const [lowest, count] = leaf.meaning.bits ?? [0, 0];
    return lowest >= 0 && count > 0 && lowest + count <= most ? [lowest, count] : [0, most];
}

/** Whether the reading has bits beside the field. */
export function isPart(leaf: Leaf): boolean {
    return isArranged(leaf) && bitsOf(leaf)[1] < 8 * widthOf(leaf);
}

/** The node of that name, which all objects are but what a leaf has for people. */
export function nodeBelow(node: Schema, name: string): Schema | undefined {
    const member = node[name];
    if (!isObject(member) || !Object.hasOwn(node, name)) return undefined;
    return isLeaf(node) && isMember(name, member) ? undefined : member;
}

/** The leaves in the order in which the daemon meets them: by name, a leaf before those inside it. */
export function leavesOf(schema: Schema): Leaf[] {
    const leaves: Leaf[] = [];
    walk(schema, (node, path) => {
        if (isLeaf(node)) leaves.push(toLeaf(node, path));
    });
    return leaves;
}

/** Calls `each` for all objects, by name; those inside one that is nested too deep are left out. */
export function walk(node: Schema, each: (node: Schema, path: Path) => void, path: Path = []): void {
    each(node, path);
    if (path.length > NESTING_LIMIT) return;
    for (const name of Object.keys(node).sort()) {
        const member = nodeBelow(node, name);
        if (member) walk(member, each, [...path, name]);
    }
}

export function toLeaf(node: Schema, path: Path): Leaf {
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
        meaning: membersOf(node),
    };
}

/** Parses JSON text. Malformed JSON, and a name that occurs twice in one object, is reported as a SchemaError. */
export function parseJson(text: string): unknown {
    const { document, problems } = readJson(text);
    if (problems.length > 0) throw new SchemaError(problems);
    return document;
}

/** The document of a JSON text, and what is wrong with the text; undefined if it cannot be read at all. */
export function readJson(text: string): { document?: unknown; problems: Problem[] } {
    try {
        return { document: JSON.parse(text), problems: repeatedNames(text) };
    } catch (error) {
        return { problems: [problem([], "not-json", `is no JSON: ${(error as Error).message}`)] };
    }
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
                problems.push(problem([...path], "repeated-name", "is there twice; only the last one would count"));
            }
            names.add(path.at(-1)!);
        }
    }
    return problems;
}
