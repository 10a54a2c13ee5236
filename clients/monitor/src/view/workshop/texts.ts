import type { Leafish } from "../../model/workshop/selection";

/** What is typed of a leaf: its name and what its numbers mean. */
export type FieldName = "name" | "title" | "unit" | "scale" | "offset" | "decimals";
export type Texts = Record<FieldName, string>;

export const NO_TEXTS: Texts = { name: "", title: "", unit: "", scale: "", offset: "", decimals: "" };

const MOST_DECIMALS = 15;

/** What there is to be changed of a leaf that is in the schema. */
export function textsOf(path: string, leaf: Leafish): Texts {
    const text = (member: string) => String(leaf[member] ?? "");
    return {
        name: path,
        title: text("title"),
        unit: text("unit"),
        scale: text("scale"),
        offset: text("offset"),
        decimals: text("decimals"),
    };
}

/** What is wrong with what is typed, as sentences. */
export function problemsOf({ scale, offset, decimals }: Texts): Partial<Record<FieldName, string>> {
    return {
        ...(!isNumber(scale) && { scale: "The scale is a number, such as 0.01." }),
        ...(isNumber(scale) && scale.trim() !== "" && Number(scale) === 0 && { scale: "A scale of 0 leaves nothing." }),
        ...(!isNumber(offset) && { offset: "The offset is a number, such as -40." }),
        ...(!isCount(decimals) && { decimals: `A whole number from 0 to ${MOST_DECIMALS}.` }),
    };
}

export function isWrong(problems: Partial<Record<FieldName, string>>): boolean {
    return Object.keys(problems).length > 0;
}

/** A leaf as it is read, with what was typed; what is empty is not in it. */
export function leafOf(reading: Leafish, { title, unit, scale, offset, decimals }: Texts): Leafish {
    const { title: _, unit: __, scale: ___, offset: ____, decimals: _____, ...bare } = reading;
    const number = (text: string) => (text.trim() === "" || !isNumber(text) ? undefined : Number(text));
    const members = {
        title: title.trim() || undefined,
        unit: unit.trim() || undefined,
        scale: number(scale),
        offset: number(offset),
        decimals: isCount(decimals) ? number(decimals) : undefined,
    };
    return { ...bare, ...Object.fromEntries(Object.entries(members).filter(([, value]) => value !== undefined)) };
}

function isNumber(text: string): boolean {
    return text.trim() === "" || /^[-+]?(\d+\.?\d*|\.\d+)(e[-+]?\d+)?$/i.test(text.trim());
}

function isCount(text: string): boolean {
    return text.trim() === "" || (/^\d+$/.test(text.trim()) && Number(text) <= MOST_DECIMALS);
}
