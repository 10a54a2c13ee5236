import { Continued } from "./continued";
import type { Curve } from "./decimate";
import type { TreeNode } from "./tree";

/** Values that are drawn together. */
export type Plot = { readonly id: number; nodes: TreeNode[] };

/** As what a value is drawn: an array over its indices, readings over time, amplitudes over frequency. */
export const SHAPES = ["wave", "time", "spectrum"] as const;
export type Shape = (typeof SHAPES)[number];

/** What is drawn of a value that is no array. */
export function curveOf({ series, leaf }: TreeNode): Curve {
    const { before, history } = series!;
    return { history: before ? new Continued(before, history) : history, holds: series!.holds(leaf) };
}

/** As what a value can be drawn, the usual first. What holds until it changes has no frequencies. */
export function shapesOf({ series, leaf }: TreeNode): readonly Shape[] {
    if (series?.waveform) return series.keepsElements ? SHAPES : ["wave", "spectrum"];
    return series?.holds(leaf) ? ["time"] : ["time", "spectrum"];
}

/** Which values are drawn, where, and as which line: the number of a colour, which a value keeps while it is drawn. */
export class Plots {
    /** From top to bottom, by their numbers; none is empty. */
    all: Plot[] = [];
    #lines = new Map<TreeNode, number>();
    /** Of values that are not drawn as usual. */
    #shapes = new Map<TreeNode, Shape>();
    #next = 0;

    get nodes(): TreeNode[] {
        return this.all.flatMap(({ nodes }) => nodes);
    }

    /** The number of a value's line; undefined while it is not drawn. */
    lineOf(node: TreeNode): number | undefined {
        return this.#lines.get(node);
    }

    /** As what a value is drawn: as somebody has chosen, if it can be. */
    shapeOf(node: TreeNode): Shape {
        const shapes = shapesOf(node);
        const chosen = this.#shapes.get(node);
        return chosen && shapes.includes(chosen) ? chosen : shapes[0]!;
    }

    /** What somebody has chosen. */
    chosenShapeOf(node: TreeNode): Shape | undefined {
        return this.#shapes.get(node);
    }

    drawAs(node: TreeNode, shape: Shape): void {
        this.#shapes.set(node, shape);
        this.all = [...this.all];
    }

    /** A number for a plot that something will be drawn in later; it will be below those with smaller numbers. */
    reserve(): number {
        return this.#next++;
    }

    /** Draws a value that is not drawn yet in the plot of that number. */
    place(node: TreeNode, to: number): void {
        if (this.#lines.has(node)) return;
        this.#lines.set(node, this.#freeLine());
        this.#append(node, to);
    }

    /** Adds values to the last plot, or to a new one when there is none. */
    add(nodes: TreeNode[]): void {
        const added = nodes.filter((node) => !this.#lines.has(node));
        if (added.length === 0) return;
        for (const node of added) this.#lines.set(node, this.#freeLine());
        const last = this.all.at(-1);
        if (last) this.all = [...this.all.slice(0, -1), { ...last, nodes: [...last.nodes, ...added] }];
        else this.all = [{ id: this.reserve(), nodes: added }];
    }

    /** Draws a value elsewhere: in the plot of that number, or in a new one below all others. */
    move(node: TreeNode, to: number | undefined): void {
        if (!this.#lines.has(node)) return;
        const line = this.#lines.get(node)!;
        const shape = this.#shapes.get(node);
        this.remove(node);
        this.#lines.set(node, line);
        if (shape) this.#shapes.set(node, shape);
        const isThere = this.all.some(({ id }) => id === to);
        this.#append(node, isThere ? to! : this.reserve());
    }

    /** The number of the plot below the one that draws a value; undefined where that would be a new one. */
    below(node: TreeNode): number | undefined {
        const at = this.all.findIndex(({ nodes }) => nodes.includes(node));
        return this.all[at + 1]?.id ?? (this.all[at]?.nodes.length === 1 ? this.all[0]!.id : undefined);
    }

    remove(node: TreeNode): void {
        this.#lines.delete(node);
        this.#shapes.delete(node);
        this.#change((nodes) => nodes.filter((each) => each !== node));
    }

    /** Puts those in the place of others that `successor` names; others without one are drawn no longer. */
    replace(successor: (node: TreeNode) => TreeNode | undefined): void {
        const moved = <T>(all: Map<TreeNode, T>) =>
            new Map(
                [...all].flatMap(([node, each]): [TreeNode, T][] => {
                    const next = successor(node);
                    return next ? [[next, each]] : [];
                }),
            );
        this.#lines = moved(this.#lines);
        this.#shapes = moved(this.#shapes);
        this.#change((nodes) => nodes.flatMap((node) => successor(node) ?? []));
    }

    clear(): void {
        this.replace(() => undefined);
    }

    #append(node: TreeNode, to: number): void {
        if (this.all.some(({ id }) => id === to)) {
            this.all = this.all.map((plot) => (plot.id === to ? { ...plot, nodes: [...plot.nodes, node] } : plot));
        } else {
            this.all = [...this.all, { id: to, nodes: [node] }].sort((one, other) => one.id - other.id);
        }
    }

    #change(change: (nodes: TreeNode[]) => TreeNode[]): void {
        this.all = this.all
            .map((plot) => ({ ...plot, nodes: change(plot.nodes) }))
            .filter(({ nodes }) => nodes.length > 0);
    }

    #freeLine(): number {
        const used = new Set(this.#lines.values());
        let line = 0;
        while (used.has(line)) line++;
        return line;
    }
}
