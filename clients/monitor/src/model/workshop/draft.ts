import {
    checkSchema,
    describeProblem,
    dotted,
    leavesOf,
    namesOf,
    parseJson,
    SchemaError,
    type Leaf,
    type Path,
    type Problem,
    type Schema,
} from "vorbel";
import { Source } from "../source";
import { NODES } from "./frames";
import type { Leafish } from "./selection";

/** How many changes can be undone. */
const MOST_STEPS = 100;

/** What was there before a change, and what the change is called: "Add motor.speed". */
type Step = { what: string; schema: Schema };

/** What became of an import: how many leaves came in, and the paths of those that are called otherwise there. */
export type Merged = { added: number; renamed: string[] };

/** The schema that is being made. Each state of it is one object, of which nothing changes. */
export class Draft {
    /** Tells of each change. */
    readonly source = new Source();
    #schema: Schema;
    #done: Step[] = [];
    #undone: Step[] = [];
    /** What was found, and in which schema. */
    #checked: { schema: Schema; problems: Problem[] } | undefined;

    constructor(schema: Schema = {}) {
        this.#schema = schema;
    }

    get schema(): Schema {
        return this.#schema;
    }

    /** As people write it, with a line for each leaf. */
    get text(): string {
        return schemaText(this.#schema);
    }

    get leaves(): Leaf[] {
        return leavesOf(this.#schema);
    }

    leavesAt(identifier: number): Leaf[] {
        return this.leaves.filter(({ mac, cmd }) => cmd * NODES + mac === identifier);
    }

    /** The options and members of the leaf at a path, as the schema has them. */
    leafAt(path: string): Leafish | undefined {
        const node = nodeAt(this.#schema, namesOf(path));
        return isObject(node) && isLeaf(node) ? node : undefined;
    }

    /** What is wrong or doubtful. That there is nothing yet is neither. */
    problems(): Problem[] {
        if (this.#checked?.schema !== this.#schema) {
            this.#checked = { schema: this.#schema, problems: checkSchema(this.#schema, { clear: true }) };
        }
        return this.#checked.problems;
    }

    /** What would be undone, and what done again, for people; undefined where there is nothing. */
    get canUndo(): string | undefined {
        return this.#done.at(-1)?.what;
    }

    get canRedo(): string | undefined {
        return this.#undone.at(-1)?.what;
    }

    /**
     * Adds a leaf under a dotted path, or puts it in the place of the one at the path `former`, whose name it may change.
     * Returns what is wrong, as a sentence; nothing has changed then.
     */
    set(path: string, leaf: Leafish, former?: string): string | undefined {
        const names = namesOf(path);
        const before = former === undefined ? undefined : namesOf(former);
        const complaint = this.#complaintAbout(names, before);
        if (complaint) return complaint;
        const schema = this.#with(names, leaf, before);
        const problem = firstError(schema, this.#schema);
        if (problem) return `${describeProblem(problem)}.`;
        const what =
            former === undefined ? `Add ${path}` : former === path ? `Change ${path}` : `Rename ${former} to ${path}`;
        this.#become(schema, what);
        return undefined;
    }

    remove(path: string): void {
        this.#become(without(this.#schema, namesOf(path)), `Remove ${path}`);
    }

    /** Takes the schema of a text in place of this one. Throws an error that says what is wrong with it. */
    load(text: string): void {
        this.#become(usable(text), "Load a schema");
    }

    /** Adds the leaves of another schema. Nothing that is there is overwritten: what has its name gets another. */
    merge(schema: Schema): Merged {
        if (isLeaf(this.#schema))
            throw new Error("The schema is a single value without a name: nothing can stand beside it");
        const merging = new Merging(isLeaf(schema) ? { value: schema } : schema);
        const merged = merging.into(this.#schema);
        const { added, renamed } = merging;
        this.#become(merged, `Import ${added} ${added === 1 ? "value" : "values"}`);
        return { added, renamed };
    }

    undo(): void {
        this.#move(this.#done, this.#undone);
    }

    redo(): void {
        this.#move(this.#undone, this.#done);
    }

    #move(from: Step[], to: Step[]): void {
        const step = from.pop();
        if (!step) return;
        to.push({ what: step.what, schema: this.#schema });
        this.#schema = step.schema;
        this.source.changed();
    }

    #become(schema: Schema, what: string): void {
        if (isSame(schema, this.#schema)) return;
        this.#done.push({ what, schema: this.#schema });
        this.#done.splice(0, this.#done.length - MOST_STEPS);
        this.#undone = [];
        this.#schema = schema;
        this.source.changed();
    }

    #with(names: Path, leaf: Leafish, before: Path | undefined): Schema {
        if (!before) return withNode(this.#schema, names, leaf);
        const isBeside = dotted(before.slice(0, -1)) === dotted(names.slice(0, -1));
        if (isBeside) return withNode(this.#schema, names, leaf, before.at(-1));
        return withNode(without(this.#schema, before), names, leaf);
    }

    /** What keeps a leaf from standing at a path, as a sentence. */
    #complaintAbout(names: Path, before: Path | undefined): string | undefined {
        return wrongName(names) ?? this.#missing(before) ?? this.#collision(names, before);
    }

    #missing(before: Path | undefined): string | undefined {
        if (!before || this.leafAt(dotted(before))) return undefined;
        return `There is no value ${dotted(before)} any more.`;
    }

    #collision(names: Path, before: Path | undefined): string | undefined {
        const path = dotted(names);
        const rest = before ? without(this.#schema, before) : this.#schema;
        for (let length = 0; length < names.length; length++) {
            const group = nodeAt(rest, names.slice(0, length));
            if (group === undefined) return undefined;
            const name = dotted(names.slice(0, length));
            if (!isObject(group)) return `${name} is a text of its group: choose another name.`;
            if (isLeaf(group)) return `${name || "The whole schema"} is a value: no other can stand in it.`;
        }
        const present = nodeAt(rest, names);
        if (present === undefined) return undefined;
        if (!isObject(present)) return `${path} is a text of its group: choose another name.`;
        if (isLeaf(present)) return `There is a value ${path} already: choose another name.`;
        return `${path} is a group of values: choose another name, or one within it.`;
    }
}

function wrongName(names: Path): string | undefined {
    if (names.length === 0 || names.every((name) => name.trim() === "")) return "A value needs a name.";
    if (names.some((name) => name.trim() === "")) return "A name between two dots, or before or behind one, is empty.";
    const option = names.find((name) => name.startsWith("@"));
    return option && `The name ${option} begins with "@", as only options do.`;
}

/** An error that a schema has and the one before it had not. */
function firstError(schema: Schema, before: Schema): Problem | undefined {
    const errorsOf = (each: Schema) =>
        checkSchema(each, { clear: true }).filter(({ severity }) => severity === "error");
    const known = new Set(errorsOf(before).map(describeProblem));
    return errorsOf(schema).find((each) => !known.has(describeProblem(each)));
}

/** The schema of a text. Throws an error that says in a sentence what is wrong with it. */
function usable(text: string): Schema {
    try {
        const schema = parseJson(text);
        const errors = checkSchema(schema).filter(({ severity }) => severity === "error");
        if (errors.length > 0) throw new SchemaError(errors);
        return schema as Schema;
    } catch (error) {
        if (!(error instanceof SchemaError)) throw error;
        const [first, ...others] = error.problems;
        const more = others.length > 0 ? `, and ${others.length} more` : "";
        throw new Error(`Nothing was loaded: ${describeProblem(first!)}${more}`);
    }
}

// Nodes of schemas, which are not changed but made anew

function isObject(node: unknown): node is Schema {
    return typeof node === "object" && node !== null && !Array.isArray(node);
}

function isLeaf(node: Schema): boolean {
    return Object.hasOwn(node, "@mac");
}

function isSame(one: unknown, other: unknown): boolean {
    return JSON.stringify(one) === JSON.stringify(other);
}

function nodeAt(schema: unknown, names: Path): unknown {
    let node = schema;
    for (const name of names) node = isObject(node) && Object.hasOwn(node, name) ? node[name] : undefined;
    return node;
}

/** A schema with a node at a path; in the place of a member of the same group, where one is named. */
function withNode(schema: Schema, [name, ...below]: Path, node: Schema, inPlaceOf?: string): Schema {
    if (below.length > 0) {
        const group = Object.hasOwn(schema, name!) ? (schema[name!] as Schema) : {};
        return { ...schema, [name!]: withNode(group, below, node, inPlaceOf) };
    }
    if (inPlaceOf === undefined) return { ...schema, [name!]: node };
    const members = Object.entries(schema);
    return Object.fromEntries(members.map((member) => (member[0] === inPlaceOf ? [name, node] : member)));
}

/** A schema without what is at a path, and without the groups that are empty then. */
function without(schema: Schema, [name, ...below]: Path): Schema {
    if (name === undefined) return {};
    if (!Object.hasOwn(schema, name)) return schema;
    const node = schema[name];
    const left = below.length > 0 && isObject(node) ? without(node, below) : {};
    if (Object.keys(left).length > 0) return { ...schema, [name]: left };
    return Object.fromEntries(Object.entries(schema).filter(([each]) => each !== name));
}

/** A schema on its way into another one. */
class Merging {
    added = 0;
    readonly renamed: string[] = [];
    /** The names that groups and leaves have got, by their own. */
    readonly #moved: { from: Path; to: Path }[] = [];

    constructor(readonly schema: Schema) {}

    into(target: Schema): Schema {
        return this.#relinked(this.#merged(target, this.schema, []), target);
    }

    #merged(target: Schema, source: Schema, path: Path): Schema {
        const merged = { ...target };
        for (const [name, member] of Object.entries(source)) {
            const present = Object.hasOwn(merged, name) ? merged[name] : undefined;
            const isGroup = (node: unknown) => isObject(node) && !isLeaf(node);
            if (present === undefined) this.#add(merged, [...path, name], member);
            else if (isGroup(present) && isGroup(member)) {
                merged[name] = this.#merged(present as Schema, member as Schema, [...path, name]);
            } else if (isObject(member) && !isSame(present, member)) {
                this.#rename([...path, name], freeName(name, { ...merged, ...source }), merged, member);
            }
        }
        return merged;
    }

    #add(group: Schema, path: Path, member: unknown): void {
        Object.defineProperty(group, path.at(-1)!, {
            value: member,
            enumerable: true,
            writable: true,
            configurable: true,
        });
        if (isObject(member)) this.added += leavesOf(member).length;
    }

    #rename(path: Path, name: string, group: Schema, member: Schema): void {
        const to = [...path.slice(0, -1), name];
        this.#moved.push({ from: path, to });
        this.renamed.push(...leavesOf(member).map((leaf) => dotted([...to, ...leaf.path])));
        this.#add(group, to, member);
    }

    /** Leaves of the merged schema name those that select them by the paths that these have now. */
    #relinked(node: Schema, present: unknown): Schema {
        if (this.#moved.length === 0 || node === present) return node;
        const members = Object.entries(node).map(([name, member]) => {
            const before = isObject(present) && Object.hasOwn(present, name) ? present[name] : undefined;
            return [name, isObject(member) ? this.#relinkedMember(name, member, before) : member];
        });
        return Object.fromEntries(members);
    }

    #relinkedMember(name: string, member: Schema, before: unknown): Schema {
        if (name === "when" && typeof member["path"] === "string")
            return { ...member, path: this.#now(member["path"]) };
        return this.#relinked(member, before);
    }

    #now(path: string): string {
        const names = namesOf(path);
        const move = this.#moved.find(({ from }) => from.every((name, at) => name === names[at]));
        return move ? dotted([...move.to, ...names.slice(move.from.length)]) : path;
    }
}

/** The name with a number that nothing has yet. */
function freeName(name: string, taken: Schema): string {
    for (let number = 2; ; number++) {
        const free = `${name}_${number}`;
        if (!Object.hasOwn(taken, free)) return free;
    }
}

/** JSON with a line for each leaf. */
function schemaText(node: Schema, indent = ""): string {
    if (isLeaf(node)) return inLine(node);
    const inner = `${indent}    `;
    const members = Object.entries(node).map(([name, member]) => {
        const text = isObject(member) ? schemaText(member, inner) : inLine(member);
        return `${inner}${JSON.stringify(name)}: ${text}`;
    });
    return members.length > 0 ? `{\n${members.join(",\n")}\n${indent}}` : "{}";
}

function inLine(value: unknown): string {
    if (Array.isArray(value)) return `[${value.map(inLine).join(", ")}]`;
    if (!isObject(value)) return JSON.stringify(value);
    return `{${Object.entries(value)
        .map(([name, each]) => `${JSON.stringify(name)}: ${inLine(each)}`)
        .join(", ")}}`;
}
