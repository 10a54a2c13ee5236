import type { Leafish } from "../../model/workshop/selection";

/** What is typed of a leaf: its name and what its numbers mean. */
export type FieldName = "name" | "title" | "unit" | "scale" | "offset" | "decimals";
export type Texts = Record<FieldName, string>;

export const NO_TEXTS: Texts = { name: "", title: "", unit: "", scale: "", offset: "", decimals: "" };

const MOST_DECIMALS = 15;

/** The members that are typed. */
const TYPED: ReadonlySet<string> = new Set(["title", "unit", "scale", "offset", "decimals"]);

/** A member as it can be typed; empty where there is none, or one of another type. */
export function memberText(leaf: Leafish, member: string): string {
    const value = leaf[member];
    return typeof value === "string" || typeof value === "number" ? String(value) : "";
}

/** What there is to be changed of a leaf that is in the schema. */
export function textsOf(path: string, leaf: Leafish): Texts {
    const text = (member: string) => memberText(leaf, member);
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

/** A leaf as it is read, with what was typed; what is empty or wrong is not in it. */
export function leafOf(reading: Leafish, texts: Texts): Leafish {
    const problems = problemsOf(texts);
    const number = (name: "scale" | "offset" | "decimals") =>
        problems[name] === undefined && texts[name].trim() !== "" ? Number(texts[name]) : undefined;
    const members = {
        title: texts.title.trim() || undefined,
        unit: texts.unit.trim() || undefined,
        scale: number("scale"),
        offset: number("offset"),
        decimals: number("decimals"),
    };
    const bare = Object.entries(reading).filter(([name]) => !TYPED.has(name));
    const typed = Object.entries(members).filter(([, value]) => value !== undefined);
    return Object.fromEntries([...bare, ...typed]);
}

function isNumber(text: string): boolean {
    const isWritten = /^[-+]?(\d+\.?\d*|\.\d+)(e[-+]?\d+)?$/i.test(text.trim());
    return text.trim() === "" || (isWritten && Number.isFinite(Number(text)));
}

function isCount(text: string): boolean {
    return text.trim() === "" || (/^\d+$/.test(text.trim()) && Number(text) <= MOST_DECIMALS);
}
