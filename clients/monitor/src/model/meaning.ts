import { leavesOf, Meant, type Leaf, type Path, type Value } from "vorbel";

/** What readings mean: the numbers that the page keeps, draws and compares, and their names. */

/** Whether values are other numbers than the readings. */
export function isConverted({ meaning }: Leaf): boolean {
    const { bits, swapped, signed, float, scale = 1, offset = 0 } = meaning;
    return Boolean(bits || swapped || signed || float) || scale !== 1 || offset !== 0;
}

/** Whether some of its values have names. */
export function hasLabels({ meaning: { labels = {} } }: Leaf): boolean {
    return Object.keys(labels).length > 0;
}

/** Whether what is shown may be something else than the reading, beside a unit. */
export function isMeant(leaf: Leaf): boolean {
    return isConverted(leaf) || hasLabels(leaf);
}

/** What a reading means: a number for a number, and an array for an array. */
export function meantBy(leaf: Leaf, reading: Value): Value {
    const { value } = new Meant(reading, leaf);
    return Array.isArray(value) && ArrayBuffer.isView(reading)
        ? (Float64Array.from(value as number[]) as unknown as Value)
        : value;
}

/** Two leaves of the same text make the same numbers of the same readings. */
export function conversionOf(leaf: Leaf | undefined): string {
    if (!leaf || !isConverted(leaf)) return "";
    const { format, factor, meaning } = leaf;
    const { bits, swapped, signed, float, scale, offset } = meaning;
    return JSON.stringify([format, factor, bits, swapped, signed, float, scale, offset]);
}

/** The name of a value; undefined where it has none. */
export function labelOf(value: Value, leaf: Leaf | undefined): string | undefined {
    const { labels, scale = 1, offset = 0 } = leaf?.meaning ?? {};
    if (!labels || (typeof value !== "number" && typeof value !== "boolean")) return undefined;
    const number = Number(value);
    const field = Object.keys(labels).find((field) => Number(field) * scale + offset === number);
    return field === undefined ? undefined : labels[field];
}

/** The number that a label stands for; any other value is its own. */
export function unlabelled(value: Value, leaf: Leaf): Value {
    const { labels = {}, scale = 1, offset = 0 } = leaf.meaning;
    const field = Object.keys(labels).find((field) => labels[field] === value);
    return field === undefined ? value : Number(field) * scale + offset;
}

/** A leaf of which nothing is known but what its values are called and measured in. */
export function leafOfUnit(path: Path, unit: string, labels: Record<string, string>): Leaf {
    const [leaf] = leavesOf({ "@mac": 0 });
    return { ...leaf!, path, meaning: { unit, labels } };
}
