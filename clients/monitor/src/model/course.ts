import { dotted, namesOf, readOnlyReason, type Leaf } from "vorbel";
import { Draft, type Edits } from "./draft";
import { hasMembers, Kept } from "./kept";
import { unlabelled } from "./meaning";
import type { Memory, Session } from "./session";
import { shown } from "./text";
import type { Tree, TreeNode } from "./tree";
import { parseInput } from "./writing";

/** A value as it was typed, for a path. */
export type Assignment = { path: string; text: string };

/** Their ids are their names. */
export type Preset = { id: string; values: Assignment[] };
/** A step in each line: "2.5 motor.setpoint = 1200". */
export type Sequence = { id: string; text: string };

/** Values for one frame. */
export type Order = { node: TreeNode; together: TreeNode[]; edits: Edits };
/** What goes out so many milliseconds after the start, one frame after the other. */
export type Step = { at: number; orders: Order[] };

/** What is to go out, and when. With a period, its only step again and again. */
export type Course = { kind: "preset" | "sequence" | "cycle"; name: string; steps: Step[]; period?: number };

/** What stands against a course by the schema used here; empty when nothing does. */
export type Planned = { steps: Step[]; problems: string[] };

/** The longest sequence, in seconds. */
const LONGEST = 86_400;
/** How many presets, and how many sequences, are kept. */
const KEPT = 100;

export function keptPresets(memory: Memory): Kept<Preset> {
    return new Kept(memory, "presets", KEPT, isPreset);
}

export function keptSequences(memory: Memory): Kept<Sequence> {
    return new Kept(memory, "sequences", KEPT, isSequence);
}

/** Keeps one more, or one instead of that of its name. The oldest does not vanish for it. */
export function keep<T extends { id: string }>(kept: Kept<T>, entry: T): void {
    if (entry.id === "") throw new Error("It needs a name");
    if (!kept.find(entry.id) && kept.entries.length >= kept.limit) throw new Error(`${kept.limit} are kept, not more`);
    kept.put(entry);
}

/** A preset's values with more of them, which replace those of the same path. */
export function withValues(preset: Preset | undefined, id: string, values: Assignment[]): Preset {
    const others = preset?.values.filter(({ path }) => values.every((each) => each.path !== path)) ?? [];
    return { id, values: [...others, ...values] };
}

/** One step with all values. */
export function planOfValues(tree: Tree, values: readonly Assignment[]): Planned {
    const edits = new Map<TreeNode, string>();
    const problems: string[] = [];
    for (const { path, text } of values) {
        const node = tree.find(namesOf(path));
        const problem = problemOf(node, text);
        if (problem === undefined) edits.set(node!, text);
        else problems.push(`${shown(path)}: ${problem}`);
    }
    return { steps: stepsOf(tree, new Map([[0, edits]])), problems };
}

/** The steps of a sequence; of a line that has none, what is wrong with it. */
export function planOfText(tree: Tree, text: string): Planned {
    const moments = new Map<number, Map<TreeNode, string>>();
    const problems: string[] = [];
    let last = 0;
    for (const [at, line] of text.split("\n").entries()) {
        if (/^\s*(#|$)/.test(line)) continue;
        const step = stepOf(tree, line, last);
        if (typeof step === "string") {
            problems.push(`Line ${at + 1}: ${step}`);
            continue;
        }
        last = step.at;
        const edits = moments.get(last) ?? new Map<TreeNode, string>();
        if (edits.has(step.node)) problems.push(`Line ${at + 1}: ${step.node.dotted} is set twice at the same time`);
        moments.set(last, edits.set(step.node, step.text));
    }
    if (moments.size === 0 && problems.length === 0) problems.push("There is no step in it");
    return { steps: stepsOf(tree, moments), problems };
}

type Line = { at: number; node: TreeNode; text: string };

/** What a line says, or what is wrong with it. */
function stepOf(tree: Tree, line: string, last: number): Line | string {
    const match = /^\s*(\d+(?:\.\d+)?)\s+([^=]*=.*)$/.exec(line);
    if (!match) return 'is no step, such as "2.5 motor.setpoint = 1200" for 2.5 s after the start';
    const seconds = Number(match[1]);
    if (seconds > LONGEST) return `comes later than ${LONGEST} s after the start`;
    const at = Math.round(1000 * seconds);
    if (at < last) return "comes before the one above it";
    const assignment = assignmentOf(tree, match[2]!);
    const problem = problemOf(assignment.node, assignment.text);
    if (problem !== undefined) return `${shown(assignment.path)}: ${problem}`;
    return { at, node: assignment.node!, text: assignment.text };
}

/** There may be equals signs in names and in values: the path is what the schema has. */
function assignmentOf(tree: Tree, text: string): Assignment & { node: TreeNode | undefined } {
    const ends = [...text.matchAll(/=/g)].map(({ index }) => index);
    const splits = ends.map((end) => ({ path: text.slice(0, end).trim(), text: text.slice(end + 1).trim() }));
    const found = splits.find(({ path }) => tree.find(namesOf(path))?.leaf) ?? splits[0]!;
    return { ...found, node: tree.find(namesOf(found.path)) };
}

/** Why a value cannot be written; undefined when it can. */
function problemOf(node: TreeNode | undefined, text: string): string | undefined {
    if (!node?.leaf) return "the schema used here does not have it";
    const reason = readOnlyReason(node.leaf);
    if (reason !== undefined) return `cannot be set: ${reason}`;
    return parseInput(node.leaf, text, () => 0).problem; // what is not read yet may be when it goes out
}

/**
 * What was set by a step goes out again with later ones for the same frame: its readings may not have followed yet, and
 * would undo it.
 */
function stepsOf(tree: Tree, moments: ReadonlyMap<number, Edits>): Step[] {
    const held = new Map<string, Map<TreeNode, string>>();
    return [...moments].map(([at, edits]) => {
        const touched = new Set<string>();
        for (const [node, text] of edits) {
            const frame = `${node.leaf!.mac} ${node.leaf!.cmd}`;
            held.set(frame, new Map(beside(held.get(frame), edits)).set(node, text));
            touched.add(frame);
        }
        return { at, orders: [...touched].map((frame) => orderOf(tree, held.get(frame)!)) };
    });
}

/** What was set before and can go out together with more: frames of another kind have none of it. */
function beside(before: Edits = new Map(), edits: Edits): Edits {
    const fields = new Map([...edits.keys()].flatMap(({ leaf }) => selectionOf(leaf!)));
    for (const [{ path, leaf }, text] of edits) fields.set(dotted(path), fieldIn(leaf!, text));
    const fits = ({ path, leaf }: TreeNode) =>
        !fields.has(dotted(path)) && selectionOf(leaf!).every(([path, is]) => (fields.get(path) ?? is) === is);
    return new Map([...before].filter(([node]) => edits.has(node) || fits(node)));
}

/** What the leaf that selects a leaf has to be. */
function selectionOf({ meaning: { when } }: Leaf): [path: string, field: number][] {
    return when ? [[when.path, when.is]] : [];
}

function fieldIn(leaf: Leaf, text: string): number {
    const { scale = 1, offset = 0 } = leaf.meaning;
    return (Number(unlabelled(parseInput(leaf, text, () => 0).value ?? NaN, leaf)) - offset) / scale;
}

function orderOf(tree: Tree, edits: Edits): Order {
    const [node] = edits.keys();
    return { node: node!, together: tree.sameFrame(node!.leaf!), edits };
}

/** What an order would put on the bus now. */
export function draftOf({ node, together, edits }: Order, { tree, foreign }: Session): Draft {
    return new Draft(node, together, edits, tree.readings, foreign?.reason);
}

function isPreset(entry: unknown): entry is Preset {
    if (!hasMembers(entry, { id: "string", values: "object" })) return false;
    const { values } = entry as Preset;
    return Array.isArray(values) && values.every((each) => hasMembers(each, { path: "string", text: "string" }));
}

function isSequence(entry: unknown): entry is Sequence {
    return hasMembers(entry, { id: "string", text: "string" });
}
