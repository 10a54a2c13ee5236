import {
    dotted,
    isMap,
    LastReadings,
    Meanings,
    type Leaf,
    type Path,
    type Readings,
    type Schema,
    type Value,
    type Written,
} from "vorbel";
import { Series } from "./series";
import { shown } from "./text";

const byName = new Intl.Collator("en", { numeric: true }).compare;

let nodes = 0;

/** What became of a write, in words, and when that was told. */
export type Answer = { ok: boolean; text: string; time: number };

/** A name of the schema or of a message, with what is known of it. */
export class TreeNode {
    /** Tells nodes apart in the page, where names may hold whatever identifiers may not. */
    readonly id = `node-${nodes++}`;
    readonly children = new Map<string, TreeNode>();
    readonly depth: number;
    /** The path as people see it. */
    readonly dotted: string;
    series: Series | undefined;
    leaf: Leaf | undefined;
    /** What was last written from here. */
    sent: Value | undefined;
    /** What a gateway has last answered to a write. */
    answer: Answer | undefined;
    collapsed = false;
    /** Stands above all others. */
    pinned = false;

    constructor(
        readonly path: Path,
        readonly parent?: TreeNode,
    ) {
        this.depth = path.length;
        this.dotted = shown(dotted(path));
    }

    /** What is looked for in it: its path, and what people call it. */
    get words(): string {
        return `${this.dotted} ${shown(this.leaf?.meaning.title ?? "")}`.toLowerCase();
    }

    get name(): string {
        return this.path.at(-1) ?? "(the whole message)";
    }

    /** Its readings, once there has been one. */
    get reading(): Series | undefined {
        return this.series?.hasReading ? this.series : undefined;
    }

    /** The name as people see it. */
    get label(): string {
        return shown(this.name);
    }
}

/** What is asked for with every drawing, and is another only when the tree is. */
class Kept<T> {
    #shape = -1;
    #value: T | undefined;

    at(shape: number, make: () => T): T {
        if (this.#shape !== shape) this.#value = make();
        this.#shape = shape;
        return this.#value as T;
    }
}

/** All known values by name. `shape` counts the changes to which names there are and which are folded. */
export class Tree {
    root = new TreeNode([]);
    shape = 0;
    readonly #valued = new Kept<TreeNode[]>();
    readonly #groups = new Kept<TreeNode[]>();
    /** Whether the schema names limits. */
    hasLimits = false;
    /** How many values have come whose names the schema does not have. */
    unexplained = 0;
    /** Hears of a value that comes for the first time. */
    onSeries: ((series: Series) => void) | undefined;
    #meanings = new Meanings();
    #last = new LastReadings();
    readonly #make: () => Series;

    constructor(make = () => new Series()) {
        this.#make = make;
    }

    /** Takes the values of one message, of those that count in it. */
    update(values: Value, time: number): void {
        this.#update(this.root, values, { values, time });
        this.#last.heard(values);
    }

    /** A device takes what was written: until the next reading comes, it would be this. */
    wrote(written: readonly Written[]): void {
        this.#last.wrote(written);
    }

    /** Shows the leaves of a schema, and forgets names that it does not have. */
    useSchema(schema: Schema): void {
        const old = this.root;
        this.forget();
        this.#meanings = new Meanings(schema);
        for (const leaf of this.#meanings.leaves.values()) {
            const node = this.#add(leaf.path);
            node.leaf = leaf;
            copyReadings(find(old, leaf.path), node);
            node.series?.explain(leaf);
        }
        const { leaves } = this.#meanings;
        this.hasLimits = [...leaves.values()].some(
            ({ meaning }) => meaning.warn !== undefined || meaning.alarm !== undefined,
        );
        this.#last = new LastReadings(schema);
        this.#last.begin();
    }

    /** Says what the values of a path are, where no schema does. */
    describe(path: Path, leaf: Leaf): void {
        this.#add(path).leaf = leaf;
    }

    forget(): void {
        this.root = new TreeNode([]);
        this.shape++;
        this.unexplained = 0;
    }

    /** Hides or shows what is below a node. */
    fold(node: TreeNode, collapsed: boolean): void {
        node.collapsed = collapsed;
        this.shape++;
    }

    /** Puts a node above all others, or back to its place. */
    pin(node: TreeNode, pinned: boolean): void {
        node.pinned = pinned;
        this.shape++;
    }

    /** The same everywhere. */
    foldAll(collapsed: boolean): void {
        for (const node of this.#all(this.root)) node.collapsed = collapsed;
        this.shape++;
    }

    /** Values may have been missed from a time on. */
    interrupt(time: number): void {
        for (const { series } of this.#all(this.root)) series?.interrupt(time);
        this.doubt();
    }

    /** Another schema may be in force: until the next ones, readings do not tell what is on the bus. */
    doubt(): void {
        this.#last.forget();
    }

    /** What the bits beside a field are taken from. */
    readonly readings: Readings = (path) => this.#last.of(path);

    find(path: Path): TreeNode | undefined {
        return find(this.root, path);
    }

    /** All that have had a value. */
    get valued(): readonly TreeNode[] {
        return this.#valued.at(this.shape, () => this.#all(this.root).filter(({ series }) => series));
    }

    get pinned(): TreeNode[] {
        return this.#all(this.root).filter(({ pinned }) => pinned);
    }

    /** All that have others below them. */
    get groups(): readonly TreeNode[] {
        const isGroup = (node: TreeNode) => node !== this.root && node.children.size > 0;
        return this.#groups.at(this.shape, () => this.#all(this.root).filter(isGroup));
    }

    /** The leaves whose values go out in the same frames as those of a leaf, that one among them. */
    sameFrame(leaf: Leaf): TreeNode[] {
        return this.#all(this.root).filter((node) => node.leaf?.mac === leaf.mac && node.leaf.cmd === leaf.cmd);
    }

    /**
     * The rows of the table, from top to bottom: what is pinned, then the others. `search` words must all occur in a
     * row's path or title; with `since`, its value must have changed after that time.
     */
    rows(search = "", since?: number): TreeNode[] {
        const words = search.toLowerCase().split(/\s+/).filter(Boolean);
        const fits = (node: TreeNode) =>
            words.every((word) => node.words.includes(word)) &&
            (since === undefined || (node.series?.changed ?? -Infinity) > since);
        const isSearch = words.length > 0 || since !== undefined;
        const rows = isSearch ? this.#matching(this.root, fits) : this.#open(this.root);
        const all = this.root.series ? [this.root, ...rows] : rows;
        const pinned = this.pinned;
        return pinned.length > 0 ? [...pinned, ...all.filter((node) => !node.pinned)] : all;
    }

    #update(node: TreeNode, value: Value, message: { values: Value; time: number }): void {
        if (!isMap(value)) {
            if (node.leaf && !this.#meanings.counts(node.leaf, message.values)) return;
            (node.series ??= this.#newSeries(node)).update(value, message.time);
            return;
        }
        for (const name in value) this.#update(this.#child(node, name), value[name]!, message);
    }

    #newSeries(node: TreeNode): Series {
        this.shape++; // a row that was a mere name, or the root, becomes a value
        if (!node.leaf) this.unexplained++;
        const series = this.#make();
        series.explain(node.leaf);
        this.onSeries?.(series);
        return series;
    }

    #add(path: Path): TreeNode {
        return path.reduce((node, name) => this.#child(node, name), this.root);
    }

    #child(node: TreeNode, name: string): TreeNode {
        let child = node.children.get(name);
        if (!child) {
            child = new TreeNode([...node.path, name], node);
            node.children.set(name, child);
            this.shape++;
        }
        return child;
    }

    #sorted(node: TreeNode): TreeNode[] {
        return [...node.children.values()].sort((a, b) => byName(a.name, b.name));
    }

    #open(node: TreeNode): TreeNode[] {
        return this.#sorted(node).flatMap((child) => (child.collapsed ? [child] : [child, ...this.#open(child)]));
    }

    #matching(node: TreeNode, fits: (node: TreeNode) => boolean): TreeNode[] {
        return this.#sorted(node).flatMap((child) => {
            const below = this.#matching(child, fits);
            const matches = child.children.size === 0 && fits(child);
            return matches || below.length > 0 ? [child, ...below] : [];
        });
    }

    #all(node: TreeNode): TreeNode[] {
        return [node, ...this.#sorted(node).flatMap((child) => this.#all(child))];
    }
}

function find(from: TreeNode, path: Path): TreeNode | undefined {
    return path.reduce<TreeNode | undefined>((node, name) => node?.children.get(name), from);
}

function copyReadings(from: TreeNode | undefined, to: TreeNode): void {
    to.series = from?.series;
    to.sent = from?.sent;
    to.answer = from?.answer;
    to.pinned = from?.pinned ?? false;
    for (const child of from?.children.values() ?? []) {
        if (child.leaf) continue;
        const copy = new TreeNode(child.path, to);
        to.children.set(child.name, copy);
        copyReadings(child, copy);
    }
}
