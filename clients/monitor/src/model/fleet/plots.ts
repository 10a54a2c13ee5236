import { namesOf } from "vorbel";
import { Session } from "../session";
import { TreeNode } from "../tree";
import type { BoardSession } from "./board";
import type { Board, Fleet } from "./fleet";

/** Values of several boards that are drawn at most. */
export const MOST_LINES = 40;

type Line = { board: BoardSession; path: string; node: TreeNode; unwatch: () => void };

/** Values of several boards, drawn together: their names begin with that of the board. Nothing is written from here. */
export class FleetPlots extends Session {
    readonly #lines = new Map<string, Line>();

    constructor(readonly fleet: Fleet) {
        super({
            home: "",
            query: { get: (name) => (name === "locked" ? "" : null) },
            memory: { load: () => undefined, save: () => undefined },
            read: () => Promise.reject(new Error("nothing is read")),
        });
    }

    override connect(): undefined {
        return undefined;
    }

    override get takesSchemas(): boolean {
        return false;
    }

    /** The number of a value's line; undefined while it is not drawn. */
    lineAt({ level }: Board, path: string): number | undefined {
        const line = this.#lines.get(keyOf(level, path));
        return line && this.plots.lineOf(line.node);
    }

    /** Which value of which board a node stands for. */
    sourceOf(node: TreeNode): { board: string; path: string } | undefined {
        const line = [...this.#lines.values()].find((each) => each.node === node);
        return line && { board: line.board.place.name, path: line.path };
    }

    /** Draws a value of a board, or draws it no longer. */
    toggle(board: Board, path: string): void {
        const line = this.#lines.get(keyOf(board.level, path));
        if (line) this.togglePlot(line.node);
        else if (this.#lines.size < MOST_LINES) this.#add(board, path);
    }

    override togglePlot(node: TreeNode): void {
        super.togglePlot(node);
        for (const [key, { board, unwatch, ...line }] of this.#lines) {
            if (line.node !== node || this.plots.lineOf(node) !== undefined) continue;
            this.#lines.delete(key);
            unwatch();
            this.release(board);
        }
    }

    /** Hears of a board no longer, unless values of it are drawn. */
    release(board: BoardSession): void {
        if (![...this.#lines.values()].some((line) => line.board === board)) board.disconnect();
    }

    #add({ level, id }: Board, path: string): void {
        const board = this.fleet.sessionOf(level);
        board.connect();
        const node = new TreeNode([id, ...namesOf(path)]);
        const line: Line = { board, path, node, unwatch: () => {} };
        line.unwatch = board.values.watch(() => this.#follow(line));
        this.#lines.set(keyOf(level, path), line);
        this.plots.add([node]);
        this.#follow(line);
        this.viewChanged();
    }

    /** What the board's session knows of the value is what is drawn. */
    #follow({ board, path, node }: Line): void {
        const { series, leaf } = board.tree.find(namesOf(path)) ?? {};
        if (series !== node.series || leaf !== node.leaf) {
            node.series = series;
            node.leaf = leaf;
            series?.keepForPlot(true, this.plots.shapeOf(node));
            this.status.changed();
        }
        this.values.changed();
    }
}

function keyOf(level: string, path: string): string {
    return `${level}/${path}`;
}
