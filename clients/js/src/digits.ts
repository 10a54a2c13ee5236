import { isScaled, type Leaf } from "./schema.js";
import { shortest } from "./single.js";

/**
 * A reading with the digits that its leaf's factor justifies: 9 at factor 10 is 0.9, and not the nearest number of
 * single precision, 0.90000004. One of unknown origin has the fewest that are the same in single precision.
 */
export function justified(value: number, leaf?: Leaf): number {
    const fewest = shortest(value);
    const decimals = leaf && Number.isFinite(value) ? decimalsOf(leaf) : undefined;
    if (decimals === undefined) return fewest;
    const rounded = Number(value.toFixed(decimals)) + 0; // no -0
    return String(rounded).length <= String(fewest).length ? rounded : fewest;
}

/**
 * Undefined where the bytes may hold any fraction. Otherwise as many as a step, 1 / factor, has; if these are many or
 * have no end, one more than are needed to tell one step from the next.
 */
function decimalsOf(leaf: Leaf): number | undefined {
    if (!isScaled(leaf) || leaf.format === "f") return undefined;
    const step = Math.abs(1 / leaf.factor);
    const needed = Math.max(0, Math.ceil(-Math.log10(step)));
    for (let decimals = needed; decimals < needed + 3; decimals++) {
        if (isWhole(step * 10 ** decimals)) return Math.min(decimals, MOST_DECIMALS);
    }
    return Math.min(needed + 1, MOST_DECIMALS);
}

/** As many as toFixed() takes. */
const MOST_DECIMALS = 100;

function isWhole(number: number): boolean {
    return Math.round(number) > 0 && Math.abs(number - Math.round(number)) < 1e-9 * number;
}
