import { dotted, namesOf } from "vorbel";
import { COLUMNS, type Column } from "./columns";
import { SHAPES, type Plots, type Shape } from "./plots";
import type { Memory } from "./session";
import { Source } from "./source";
import type { Tree, TreeNode } from "./tree";

/** What somebody has chosen to see, apart from what stands for single values. */
export type Settings = {
    columns: Column[];
    /** Words that the paths in the table have. */
    search: string;
    /** Only what changes. */
    changing: boolean;
    /** Seconds that plots show. */
    span: number;
    /** Every curve of a plot has its own scale. */
    ownScales: boolean;
};

/** A plotted value by its path, and as what it is drawn where that is not as usual. */
type Drawn = { path: string; shape?: Shape };

/** The same with what stands for values, which are named by their paths. */
export type View = Settings & { folds: string[]; pins: string[]; plots: Drawn[][] };

/** Seconds that plots show before anybody zooms. */
export const USUAL_SPAN = 60;
const USUAL: Settings = { columns: [], search: "", changing: false, span: USUAL_SPAN, ownScales: true };
const EMPTY: View = { ...USUAL, folds: [], pins: [], plots: [] };

const VERSION = 1;
/** What plots show at most, in seconds: a month, where there is an archive. */
export const LONGEST_SPAN = 31 * 86_400;
/** Of a view in a link, in characters: servers and mail cut off what is much longer. */
export const LONGEST_LINK = 6000;

/** The text that a view is kept and passed on as. */
export function viewText(view: View): string {
    const usual = Object.entries(EMPTY).map(([name, value]) => [name, JSON.stringify(value)]);
    const isUsual = new Map(usual as [string, string][]);
    const told = Object.entries(view).filter(([name, value]) => JSON.stringify(value) !== isUsual.get(name));
    return JSON.stringify({ version: VERSION, ...Object.fromEntries(told) });
}

/** The same for a link, into which not everything may fit; plots and filters do first. */
export function linkText(view: View): { text: string; isWhole: boolean } {
    const whole = viewText(view);
    const lighter = [{ folds: [] }, { folds: [], pins: [] }, { folds: [], pins: [], plots: [], search: "" }];
    const texts = [whole, ...lighter.map((without) => viewText({ ...view, ...without }))];
    return { text: texts.find((text) => text.length <= LONGEST_LINK)!, isWhole: whole.length <= LONGEST_LINK };
}

/** Reads such a text, which may come from anybody. Throws what is wrong with it. */
export function parseView(text: string): View {
    const found: unknown = JSON.parse(text);
    if (typeof found !== "object" || found === null) throw new Error("it is no view");
    const members = found as Record<string, unknown>;
    if (members["version"] !== VERSION) throw new Error("it is of another version of this page");
    const view = { ...EMPTY };
    for (const [name, check] of Object.entries(CHECKS)) {
        if (!Object.hasOwn(members, name)) continue;
        if (!check(members[name])) throw new Error(`its ${name} cannot be read`);
        Object.assign(view, { [name]: members[name] });
    }
    return view;
}

const isBoolean = (value: unknown) => typeof value === "boolean";
const isText = (value: unknown) => typeof value === "string";
const isListOf = (check: (item: unknown) => boolean) => (value: unknown) =>
    Array.isArray(value) && value.every((item) => check(item));
const isOneOf = (all: readonly unknown[]) => (value: unknown) => all.includes(value);

function isDrawn(value: unknown): boolean {
    if (typeof value !== "object" || value === null) return false;
    const { path, shape } = value as Record<string, unknown>;
    return isText(path) && (shape === undefined || isOneOf(SHAPES)(shape));
}

const CHECKS: Record<keyof View, (value: unknown) => boolean> = {
    columns: isListOf(isOneOf(COLUMNS)),
    search: isText,
    changing: isBoolean,
    span: (value) => typeof value === "number" && value >= 1 && value <= LONGEST_SPAN,
    ownScales: isBoolean,
    folds: isListOf(isText),
    pins: isListOf(isText),
    plots: isListOf(isListOf(isDrawn)),
};

/** What a link brings: a view, or only paths to plot, with commas between them. */
type Link = { get(name: string): string | null };

/**
 * The view that is shown. It is remembered as soon as somebody changes anything of it; what a link brings is only
 * shown before.
 */
export class ViewKeeper extends Source {
    settings: Settings;
    /** Whether it comes from a link, and nobody has changed or kept it. */
    isLinked = false;
    /** Why a link's view is not shown. */
    problem: string | undefined;
    readonly #memory: Memory;
    /** What is to be done to values that have not come yet. */
    #wanted: { folds: Set<string>; pins: Set<string>; plots: Map<number, Drawn[]> };

    constructor(
        readonly tree: Tree,
        readonly plots: Plots,
        link: Link,
        memory: Memory,
        /** Lets the page's own address no longer bring the view of a link: it is not shown after a reload. */
        readonly forgetLink: () => void,
    ) {
        super();
        this.#memory = memory;
        const { folds, pins, plots: drawn, ...settings } = this.#fromLink(link) ?? this.#remembered();
        this.settings = settings;
        this.#wanted = {
            folds: new Set(folds),
            pins: new Set(pins),
            plots: new Map(drawn.map((each) => [plots.reserve(), each])),
        };
    }

    /** Changes settings, as somebody wishes. */
    set(change: Partial<Settings>): void {
        this.settings = { ...this.settings, ...change };
        this.keep();
    }

    /** Remembers the view as it is, because somebody has changed it or wishes to keep it. */
    keep(): void {
        this.#memory.save("view", viewText(this.present(true)));
        if (this.isLinked) this.forgetLink();
        this.isLinked = false;
        this.problem = undefined;
        this.changed();
    }

    /** The person knows why a link's view is not shown. */
    dismiss(): void {
        this.problem = undefined;
        this.changed();
    }

    /** All of it; what is wanted of values that have not come, too, unless it is not. */
    present(withWanted: boolean): View {
        const none = { folds: [], pins: [], plots: new Map<number, Drawn[]>() };
        const { folds, pins, plots } = withWanted ? this.#wanted : none;
        const drawn = new Map(this.plots.all.map(({ id, nodes }) => [id, nodes.map((node) => this.#drawn(node))]));
        const ids = [...new Set([...drawn.keys(), ...plots.keys()])].sort((one, other) => one - other);
        return {
            ...this.settings,
            folds: [...pathsOf(this.tree.groups.filter(({ collapsed }) => collapsed)), ...folds].sort(),
            pins: [...pathsOf(this.tree.pinned), ...pins].sort(),
            plots: ids.map((id) => [...(drawn.get(id) ?? []), ...(plots.get(id) ?? [])]),
        };
    }

    /** Does what is still to be done to values that are there by now. */
    apply(): void {
        const { folds, pins, plots } = this.#wanted;
        const isGroup = ({ children }: TreeNode) => children.size > 0;
        for (const node of this.#taken(folds, isGroup)) this.tree.fold(node, true);
        for (const node of this.#taken(pins, () => true)) this.tree.pin(node, true);
        for (const [id, drawn] of plots) {
            const missing = drawn.filter((each) => !this.#draw(each, id));
            if (missing.length > 0) plots.set(id, missing);
            else plots.delete(id);
        }
    }

    /** To be called before the tree is made anew: what was folded will be folded. */
    keepFolds(): void {
        for (const { path, collapsed } of this.tree.groups) if (collapsed) this.#wanted.folds.add(dotted(path));
    }

    #draw({ path, shape }: Drawn, id: number): boolean {
        const node = this.#find(path);
        if (!node || !(node.leaf || node.series)) return false;
        this.plots.place(node, id);
        if (shape) this.plots.drawAs(node, shape);
        return true;
    }

    #drawn(node: TreeNode): Drawn {
        const shape = this.plots.chosenShapeOf(node);
        return { path: dotted(node.path), ...(shape && { shape }) };
    }

    /** Takes out of paths those whose nodes are there, and as they have to be. */
    #taken(paths: Set<string>, isReady: (node: TreeNode) => boolean): TreeNode[] {
        return [...paths].flatMap((path) => {
            const node = this.#find(path);
            if (!node || !isReady(node)) return [];
            paths.delete(path);
            return [node];
        });
    }

    #find(path: string): TreeNode | undefined {
        return this.tree.find(namesOf(path));
    }

    #fromLink(link: Link): View | undefined {
        const [text, paths] = [link.get("view"), link.get("plot")];
        if (text === null && paths === null) return undefined;
        try {
            if (text !== null && text.length > LONGEST_LINK) throw new Error("it is too long");
            const view = text === null ? this.#remembered() : parseView(text);
            this.isLinked = true;
            return paths === null ? view : { ...view, plots: [paths.split(",").map((path) => ({ path }))] };
        } catch (error) {
            this.problem = (error as Error).message;
            this.forgetLink();
            return undefined;
        }
    }

    #remembered(): View {
        try {
            return parseView(this.#memory.load("view") ?? "");
        } catch {
            return EMPTY; // none yet, or of another version of the page
        }
    }
}

function pathsOf(nodes: TreeNode[]): string[] {
    return nodes.map(({ path }) => dotted(path));
}
