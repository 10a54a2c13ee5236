import type { Curve } from "./decimate";
import type { TreeNode } from "./tree";

/** Values that are drawn together. */
export type Plot = { readonly id: number; nodes: TreeNode[] };

/** What is drawn of a value that is no array. */
export function curveOf({ series, leaf }: TreeNode): Curve {
    return { history: series!.history, holds: series!.holds(leaf) };
}

/** Which values are drawn, where, and as which line: the number of a colour, which a value keeps while it is drawn. */
export class Plots {
    /** From top to bottom; none is empty. */
    all: Plot[] = [];
    #lines = new Map<TreeNode, number>();
    #next = 0;

    get nodes(): TreeNode[] {
        return this.all.flatMap(({ nodes }) => nodes);
    }

    /** The number of a value's line; undefined while it is not drawn. */
    lineOf(node: TreeNode): number | undefined {
        return this.#lines.get(node);
    }

    /** Adds values to the last plot, or to a new one when there is none. */
    add(nodes: TreeNode[]): void {
        const added = nodes.filter((node) => !this.#lines.has(node));
        if (added.length === 0) return;
        for (const node of added) this.#lines.set(node, this.#freeLine());
        const last = this.all.at(-1);
        if (last) this.all = [...this.all.slice(0, -1), { ...last, nodes: [...last.nodes, ...added] }];
        else this.all = [{ id: this.#next++, nodes: added }];
    }

    /** Draws a value elsewhere: in the plot of that number, or in a new one below all others. */
    move(node: TreeNode, to: number | undefined): void {
        if (!this.#lines.has(node)) return;
        const line = this.#lines.get(node)!;
        this.remove(node);
        this.#lines.set(node, line);
        const isThere = this.all.some(({ id }) => id === to);
        if (!isThere) this.all = [...this.all, { id: this.#next++, nodes: [node] }];
        else this.all = this.all.map((plot) => (plot.id === to ? { ...plot, nodes: [...plot.nodes, node] } : plot));
    }

    /** The number of the plot below the one that draws a value; undefined where that would be a new one. */
    below(node: TreeNode): number | undefined {
        const at = this.all.findIndex(({ nodes }) => nodes.includes(node));
        return this.all[at + 1]?.id ?? (this.all[at]?.nodes.length === 1 ? this.all[0]!.id : undefined);
    }

    remove(node: TreeNode): void {
        this.#lines.delete(node);
        this.#change((nodes) => nodes.filter((each) => each !== node));
    }

    /** Puts those in the place of others that `successor` names; others without one are drawn no longer. */
    replace(successor: (node: TreeNode) => TreeNode | undefined): void {
        const lines = [...this.#lines].flatMap(([node, line]) => {
            const next = successor(node);
            return next ? [[next, line] as const] : [];
        });
        this.#lines = new Map(lines);
        this.#change((nodes) => nodes.flatMap((node) => successor(node) ?? []));
    }

    clear(): void {
        this.replace(() => undefined);
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
