import { FORMATS, readOnlyReason, type Leaf, type Value } from "vorbel";
import { planOf, type Plan } from "./plan";
import { numberText } from "./text";
import type { TreeNode } from "./tree";
import { byName, parseInput } from "./writing";

/** What was typed, by leaf. */
export type Edits = ReadonlyMap<TreeNode, string>;

export type Field = { node: TreeNode; text: string; isEdited: boolean };

/**
 * A message for one frame as it would go out now: what was typed, and for the other values of the frame their present
 * readings, so that setting one of them leaves the others as they are.
 */
export class Draft {
    /** The one that is asked for, then the others of its frame that can be written. */
    readonly fields: Field[];
    readonly values = new Map<Leaf, Value>();
    readonly problems = new Map<Leaf, string>();
    readonly plan: Plan | undefined;
    /** What has to be agreed to before this goes out, as one text; empty when nothing has. */
    readonly consequences: string;

    constructor(
        readonly node: TreeNode,
        /** All leaves of its frame, that one among them. */
        together: TreeNode[],
        edits: Edits,
        /** Why the daemon's schema may be another than the one here. */
        readonly foreign: string | undefined,
    ) {
        const others = together.filter((each) => each !== node && !readOnlyReason(each.leaf!));
        this.fields = [node, ...others].map((each) => fieldOf(each, edits));
        const edited = this.fields.filter(({ text, isEdited }) => isEdited && text !== "");
        for (const field of this.fields) {
            if (!isOverwriting(field, edited)) this.#take(field);
        }
        this.plan = this.values.size > 0 ? planOf(this.values, together.map(readOf)) : undefined;
        const zeroed = this.plan?.zeroed.map((each) => each.replace(/, now .*$/, "")) ?? [];
        this.consequences = [...zeroed, ...(foreign === undefined ? [] : ["another schema"])].join("; ");
        this.isComplete = edited.length > 0 && this.problems.size === 0;
    }

    /** Whether somebody has asked for something that can be written. */
    readonly isComplete: boolean;

    #take({ node, text, isEdited }: Field): void {
        if (text === "") return;
        const leaf = node.leaf!;
        const present = isEdited ? undefined : presentNumber(node);
        const { value, problem } = parseInput(leaf, present === undefined ? text : String(present));
        if (problem === undefined) this.values.set(leaf, value);
        else this.problems.set(leaf, problem);
    }
}

/** Whether a present reading would undo what was typed for some of the same bytes. */
function isOverwriting({ node, isEdited }: Field, edited: Field[]): boolean {
    const leaf = node.leaf!;
    return !isEdited && edited.some((each) => overlap(each.node.leaf!, leaf) && byName(each.node.leaf!, leaf) < 0);
}

function overlap(one: Leaf, other: Leaf): boolean {
    const end = ({ skip, format }: Leaf) => skip + FORMATS[format]!.width;
    return one.skip < end(other) && other.skip < end(one);
}

function fieldOf(node: TreeNode, edits: Edits): Field {
    const edited = edits.get(node);
    if (edited !== undefined) return { node, text: edited, isEdited: true };
    const present = presentNumber(node);
    return { node, text: present === undefined ? "" : numberText(present, node.leaf), isEdited: false };
}

/** What a leaf's bytes hold at present, as far as it is known: its last reading, or what was last sent. */
function presentNumber({ series, sent, leaf }: TreeNode): number | undefined {
    const present = leaf!.format === "p" ? undefined : (series?.number ?? sent);
    return typeof present === "number" ? present : undefined;
}

function readOf({ leaf, series }: TreeNode) {
    return { leaf: leaf!, reading: series?.isFlag ? Boolean(series.value) : series?.number };
}
