import { dotted, leavesOf, parseSchema, type Leaf } from "vorbel";

/** Characters of schemas that are looked at, all boards together; equal ones count once. */
const MOST = 32 * 1024 * 1024;

/** The leaves of a schema by their dotted paths. */
export type Leaves = ReadonlyMap<string, Leaf>;

type Entry = { text: string; leaves: Leaves; users: Set<string> };

/** The schemas of many boards, of which most are equal. */
export class Shelf {
    /** Boards whose schema there is no room for. */
    readonly without = new Set<string>();
    readonly #entries = new Map<string, Entry>();
    readonly #byBoard = new Map<string, Entry>();
    #size = 0;

    /** Counts the changes to what paths there are. */
    shape = 0;

    leavesOf(board: string): Leaves | undefined {
        return this.#byBoard.get(board)?.leaves;
    }

    /** A board has this schema from now on; what cannot be read is none. */
    put(board: string, text: string): void {
        this.remove(board);
        const entry = this.#entries.get(text) ?? this.#newEntry(board, text);
        if (!entry) return;
        entry.users.add(board);
        this.#byBoard.set(board, entry);
    }

    remove(board: string): void {
        this.without.delete(board);
        const entry = this.#byBoard.get(board);
        this.#byBoard.delete(board);
        if (!entry?.users.delete(board) || entry.users.size > 0) return;
        this.#entries.delete(entry.text);
        this.#size -= entry.text.length;
        this.shape++;
    }

    /** All paths, each once, at most so many. */
    paths(most: number): string[] {
        const paths = new Set<string>();
        for (const { leaves } of this.#entries.values()) {
            for (const path of leaves.keys()) if (paths.size < most) paths.add(path);
        }
        return [...paths].sort();
    }

    #newEntry(board: string, text: string): Entry | undefined {
        if (this.#size + text.length > MOST) {
            this.without.add(board);
            return undefined;
        }
        const leaves = leavesIn(text);
        if (!leaves) return undefined;
        const entry = { text, leaves, users: new Set<string>() };
        this.#entries.set(text, entry);
        this.#size += text.length;
        this.shape++;
        return entry;
    }
}

function leavesIn(text: string): Leaves | undefined {
    try {
        return new Map(leavesOf(parseSchema(text, { clear: true })).map((leaf) => [dotted(leaf.path), leaf]));
    } catch {
        return undefined;
    }
}
