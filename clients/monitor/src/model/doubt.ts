import { isObserved } from "./series";
import type { Tree } from "./tree";

/** What speaks for another schema in the daemon than the one that is used here. */
export type Doubt =
    /** Values come that the schema here does not have. */
    | { kind: "strangers"; path: string }
    /** None of its values comes any more: the last one came then. */
    | { kind: "silence"; since: number };

/** Milliseconds that a new connection has for its first values. */
const PATIENCE = 5000;

/** Undefined while nothing speaks for it. `connected` is since when. */
export function doubtOf(tree: Tree, connected: number | undefined, time: number): Doubt | undefined {
    if (connected === undefined) return undefined;
    const stranger = tree.valued.find(({ leaf, series }) => !leaf && !series!.isOverdue(time, leaf));
    if (stranger) return { kind: "strangers", path: stranger.dotted };
    if (time - connected < PATIENCE) return undefined;
    const expected = tree.valued.filter(({ leaf }) => leaf && !isObserved(leaf));
    const isSilent = expected.length > 0 && expected.every(({ leaf, series }) => series!.isOverdue(time, leaf));
    return isSilent ? { kind: "silence", since: Math.max(...expected.map(({ series }) => series!.time)) } : undefined;
}
