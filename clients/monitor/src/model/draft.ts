import {
    dotted,
    FORMATS,
    readOnlyReason,
    visit,
    withSelectors,
    WriteError,
    type Leaf,
    type Readings,
    type Value,
} from "vorbel";
import { labelOf, meantBy, unlabelled } from "./meaning";
import { planOf, type Plan, type Read } from "./plan";
import { isField, ownMask } from "./raw";
import { lastOf } from "./series";
import { exactText, shown } from "./text";
import type { TreeNode } from "./tree";
import { byName, parseInput, schemaOf } from "./writing";

/** What was typed, by leaf. */
export type Edits = ReadonlyMap<TreeNode, string>;

/** What goes out for a leaf: what was typed, what others need beside them, or what follows the bus. */
export type Field = { node: TreeNode; text: string; isEdited: boolean; isNeeded: boolean };

/**
 * A message for one frame as it would go out now: what was typed, and for the other values of the frame their present
 * readings, so that setting one of them leaves the others as they are.
 */
export class Draft {
    /** The one that is asked for, then the others of its frame that can be written with it. */
    readonly fields: Field[];
    readonly values = new Map<Leaf, Value>();
    readonly problems = new Map<Leaf, string>();
    readonly plan: Plan | undefined;
    /** What has to be agreed to before this goes out, as one text; empty when nothing has. */
    readonly consequences: string;
    /** Whether somebody has asked for something that can be written. */
    readonly isComplete: boolean;
    readonly #readings: Readings;

    constructor(
        readonly node: TreeNode,
        /** All leaves of its frame, that one among them. */
        together: TreeNode[],
        edits: Edits,
        /** What the bits beside fields are taken from. */
        readings: Readings,
        /** Why the daemon's schema may be another than the one here. */
        readonly foreign: string | undefined,
    ) {
        this.#readings = readings;
        const selection = new Selection(together, edits, node);
        const others = together.filter((each) => each !== node && !readOnlyReason(each.leaf!));
        this.fields = [node, ...others]
            .map((each) => fieldOf(each, edits, selection))
            .filter((field) => field.node === node || field.isEdited || selection.has(field.node));
        const edited = this.fields.filter(({ text, isEdited }) => isEdited && text !== "");
        for (const field of this.fields) {
            const counts = field.isEdited || selection.has(field.node);
            if (counts && !isOverwriting(field, edited)) this.#take(field);
        }
        this.plan = this.#plan(together, selection);
        const zeroed = this.plan?.zeroed.map(({ what }) => what) ?? []; // whatever they are at present
        this.consequences = [...zeroed, ...(foreign === undefined ? [] : ["another schema"])].join("; ");
        this.isComplete = edited.length > 0 && this.problems.size === 0;
    }

    #take({ node, text, isEdited, isNeeded }: Field): void {
        if (text === "") return;
        const leaf = node.leaf!;
        const present = isEdited || isNeeded ? undefined : presentNumber(node);
        const { value, problem } = parseInput(leaf, present === undefined ? text : String(present), this.#readings);
        if (problem === undefined) this.values.set(leaf, value);
        else this.problems.set(leaf, problem);
    }

    /** Undefined where nothing goes out, or not together. */
    #plan(together: TreeNode[], selection: Selection): Plan | undefined {
        if (this.values.size === 0) return undefined;
        try {
            const all = [...together].sort(byTime).map((each) => readOf(each, selection));
            return planOf(this.values, all, this.#readings);
        } catch (error) {
            if (!(error instanceof WriteError)) throw error;
            for (const { path, message } of error.problems) {
                const wrong = together.find((each) => dotted(each.path) === dotted(path)) ?? this.node;
                this.problems.set(wrong.leaf!, message);
            }
            return undefined;
        }
    }
}

/** Which values count in a message, by what is written to the leaves that select them. */
class Selection {
    /** What leaves have to be for those that were typed, and for the one that is asked for. */
    readonly needed: Map<string, Value>;
    readonly #byPath: Map<string, TreeNode>;
    readonly #edits: Edits;
    readonly #schema;

    constructor(together: TreeNode[], edits: Edits, node: TreeNode) {
        this.#byPath = new Map(together.map((each) => [dotted(each.path), each]));
        this.#edits = edits;
        this.#schema = schemaOf(together.map((each) => each.leaf!));
        const wanted = [...edits].filter(([, text]) => text !== "").map(([each]) => each);
        this.needed = new Map([node, ...wanted].flatMap((each) => [...this.#neededBy(each)]));
    }

    has(node: TreeNode): boolean {
        return [...this.#neededBy(node)].every(([path, value]) => this.#valueAt(path) === value);
    }

    #neededBy({ path, leaf }: TreeNode): Map<string, Value> {
        const needed = new Map<string, Value>();
        if (!leaf!.meaning.when) return needed;
        visit(withSelectors(this.#schema, path, null), (path, value) => needed.set(dotted(path), value));
        needed.delete(dotted(path));
        return needed;
    }

    /** What a leaf will be. */
    #valueAt(path: string): Value | undefined {
        const node = this.#byPath.get(path);
        if (!node) return undefined;
        const typed = this.#edits.get(node);
        if (typed === undefined) return this.needed.get(path) ?? presentNumber(node);
        const { value } = parseInput(node.leaf!, typed, () => 0);
        return value === undefined ? undefined : unlabelled(value, node.leaf!);
    }
}

/** Whether a present reading would undo what was typed for some of the same bits, or contradict it. */
function isOverwriting({ node, isEdited }: Field, edited: Field[]): boolean {
    const leaf = node.leaf!;
    const isLost = (typed: Leaf) => byName(typed, leaf) < 0 || isField(typed) || isField(leaf);
    return !isEdited && edited.some(({ node }) => (bitsOf(node.leaf!) & bitsOf(leaf)) !== 0n && isLost(node.leaf!));
}

/** The bits of the payload that a leaf has. */
function bitsOf(leaf: Leaf): bigint {
    return leaf.format === "p" ? 0n : BigInt.asUintN(widthOf(leaf), BigInt(ownMask(leaf))) << BigInt(8 * leaf.skip);
}

function widthOf({ format }: Leaf): number {
    return 8 * FORMATS[format]!.width;
}

function fieldOf(node: TreeNode, edits: Edits, { needed }: Selection): Field {
    const edited = edits.get(node);
    if (edited !== undefined) return { node, text: edited, isEdited: true, isNeeded: false };
    const need = needed.get(dotted(node.path));
    const present = need ?? presentNumber(node);
    const text = typeof present === "number" ? textOf(present, node.leaf!) : "";
    return { node, text, isEdited: false, isNeeded: need !== undefined };
}

/** As it can be typed. */
function textOf(value: number, leaf: Leaf): string {
    const label = labelOf(value, leaf);
    return label === undefined ? exactText(value, leaf) : shown(label);
}

/** What a leaf's bytes hold at present, as far as it is known: its last reading, or what was last sent. */
function presentNumber({ series, sent, leaf }: TreeNode): number | undefined {
    if (leaf!.format === "p") return undefined;
    const present = series?.number ?? (sent === undefined ? undefined : meantBy(leaf!, sent));
    return typeof present === "number" ? present : undefined;
}

/** What was read last is what is on the bus. */
function byTime(one: TreeNode, other: TreeNode): number {
    return (one.series?.time ?? 0) - (other.series?.time ?? 0);
}

function readOf(node: TreeNode, selection: Selection): Read {
    const { leaf, series } = node;
    const reading = series && lastOf(series.reading);
    const isPlain = typeof reading === "number" || typeof reading === "boolean";
    return { leaf: leaf!, reading: isPlain ? reading : undefined, isElsewhere: !selection.has(node) };
}
