import { isObserved } from "./series";
import { clockText } from "./text";
import type { Tree } from "./tree";

/** Another schema than the one here is in force in the daemon, or may be. */
export type Foreign = { certain: boolean; reason: string };

/** Milliseconds that a new connection has for its first values. */
const PATIENCE = 5000;

/** What the values of a tree say: none of them comes any more. `connected` is since when; undefined while it is not. */
export function silenceIn(tree: Tree, connected: number | undefined, time: number): Foreign | undefined {
    if (connected === undefined || time - connected < PATIENCE) return undefined;
    const expected = tree.valued.filter(({ leaf }) => leaf && !isObserved(leaf));
    const isSilent = expected.length > 0 && expected.every(({ leaf, series }) => series!.isOverdue(time, leaf));
    if (!isSilent) return undefined;
    const last = Math.max(...expected.map(({ series }) => series!.time));
    return { certain: false, reason: `none of its values has come since ${clockText(last)}` };
}
