import type { Value, ValueMap } from "./codec.js";

/** The names from the schema's root to a leaf. */
export type Path = readonly string[];

export function isMap(value: unknown): value is ValueMap {
    return typeof value === "object" && value !== null && Object.getPrototypeOf(value) === Object.prototype;
}

/** A path as people write it: names joined by dots; a dot or a backslash within a name behind a backslash. */
export function dotted(path: Path): string {
    return path.map((name) => name.replace(/[.\\]/g, "\\$&")).join(".");
}

/** The names of a dotted path. A backslash before anything but a dot or a backslash stands for itself. */
export function namesOf(path: string): Path {
    if (path === "") return [];
    const names = `.${path}`.matchAll(/\.((?:\\[.\\]|[^.])*)/g);
    return Array.from(names, ([, name]) => name!.replace(/\\([.\\])/g, "$1"));
}

/** The values of a message by dotted path. A message that is no map has its value under "". */
export function flatten(values: Value): Map<string, Value> {
    const flat = new Map<string, Value>();
    visit(values, (path, value) => flat.set(dotted(path), value));
    return flat;
}

/** Calls `each` for every value that is not a map with the names that lead to it. */
export function visit(values: Value, each: (path: Path, value: Value) => void, path: Path = []): void {
    if (!isMap(values)) {
        each(path, values);
        return;
    }
    for (const name of Object.keys(values)) visit(values[name]!, each, [...path, name]);
}

/** The value of a message at a path; undefined if it has none, or a map. */
export function valueAt(values: Value, path: Path): Value | undefined {
    let at: Value | undefined = values;
    for (const name of path) at = isMap(at) && Object.hasOwn(at, name) ? at[name] : undefined;
    return isMap(at) ? undefined : at;
}

/** The map that holds one value at a path: nest(["motor", "setpoint"], 5) is {motor: {setpoint: 5}}. */
export function nest(path: Path, value: Value): ValueMap {
    if (path.length === 0) throw new RangeError("A value at the schema's root has no name to be written by");
    return path.reduceRight<Value>((inner, name) => ({ [name]: inner }), value) as ValueMap;
}
