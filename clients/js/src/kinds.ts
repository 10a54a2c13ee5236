/** What a member of a schema can hold: words for it, a predicate, and the least and the largest number of it. */
export type Kind = { words: string; fits: (value: unknown) => boolean; least?: number; most?: number };

export function isObject(value: unknown): value is { [name: string]: unknown } {
    return typeof value === "object" && value !== null && !Array.isArray(value);
}

export const isNumber: (value: unknown) => boolean = Number.isFinite;
export const isWhole: (value: unknown) => boolean = Number.isInteger;

export const NUMBER: Kind = { words: "a number", fits: isNumber };
export const TEXT: Kind = { words: "a text", fits: (value) => typeof value === "string" };
export const TRUTH: Kind = { words: "true or false", fits: (value) => typeof value === "boolean" };
