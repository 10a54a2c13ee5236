import type { Leaf } from "vorbel";
import { NODES } from "../../model/workshop/frames";
import { payloadBits, type Leafish, type Selection } from "../../model/workshop/selection";

/** Whose frames a leaf is in. */
export function identifierOf({ mac, cmd }: Leaf): number {
    return cmd * NODES + mac;
}

/** What is to be selected to see the bits of a leaf; undefined where it has none of its own. */
export function selectionOf(leaf: Leafish, identifier: number): Selection | undefined {
    const bits = payloadBits(leaf);
    return bits.length > 0 ? { identifier, first: bits[0]!, last: bits.at(-1)! } : undefined;
}
