import type { TreeNode } from "./tree";

/** Values that are drawn together. */
export type Plot = { readonly id: number; nodes: TreeNode[] };

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
