import { isMap, justified, type Leaf, type Value, type ValueMap } from "vorbel";
import { wallClock } from "./clock";

/** Characters that are not seen, or that turn others around: controls, formats, separators, halves of pairs. */
const UNSEEN = /[\p{Cc}\p{Cf}\p{Zl}\p{Zp}\p{Cs}]/gu;

/** A text from elsewhere as it can be looked at: what would not be seen stands as "\u{202e}". */
export function shown(text: string): string {
    return text.replace(UNSEEN, (character) => `\\u{${character.codePointAt(0)!.toString(16)}}`);
}

/** A number as people read it: a reading with the digits that its leaf justifies, others with seven. */
export function numberText(value: number, leaf?: Leaf): string {
    if (Number.isInteger(value) && Math.abs(value) < 1e12) return String(value);
    return String(leaf ? justified(value, leaf) : Number(value.toPrecision(7)));
}

export function valueText(value: Value, leaf?: Leaf): string {
    if (value === null) return "nil";
    if (typeof value === "number") return numberText(value, leaf);
    if (typeof value === "string") return shown(JSON.stringify(value));
    if (ArrayBuffer.isView(value)) return arrayText(value, leaf);
    if (Array.isArray(value)) return `[${value.map((item) => valueText(item)).join(", ")}]`;
    if (isMap(value)) return shown(mapText(value));
    return String(value);
}

/** A value with all that it has, to be taken elsewhere: every element of an array, and texts without quotes. */
export function wholeText(value: Value, leaf?: Leaf): string {
    if (typeof value === "string") return value;
    if (!ArrayBuffer.isView(value)) return valueText(value, leaf);
    return Array.from(value as ArrayLike<number>, (element) => numberText(element, leaf)).join(", ");
}

function mapText(value: ValueMap): string {
    return JSON.stringify(value, (_, item) => (typeof item === "bigint" ? String(item) : item));
}

/** Length and first elements: "5 × [3.93, 3.94, …]". */
function arrayText(array: ArrayLike<number> & ArrayBufferView, leaf?: Leaf): string {
    const shown = Array.from({ length: Math.min(2, array.length) }, (_, at) => numberText(array[at]!, leaf));
    return `${array.length} × [${shown.join(", ")}${array.length > shown.length ? ", …" : ""}]`;
}

/** The time since something, in the largest unit that fits: "0.3 s", "12 s", "4 min", "2 h". */
export function ageText(milliseconds: number): string {
    const seconds = Math.max(0, milliseconds) / 1000;
    if (seconds < 9.95) return `${seconds.toFixed(1)} s`;
    if (seconds < 99.5) return `${Math.round(seconds)} s`;
    if (seconds < 5970) return `${Math.round(seconds / 60)} min`;
    return `${Math.round(seconds / 3600)} h`;
}

export function rateText(rate: number | undefined): string {
    if (rate === undefined) return "–";
    return rate < 9.95 ? rate.toFixed(1) : String(Math.round(rate));
}

/** The time of day, in seconds and so many decimals. */
export function clockText(time: number, decimals = 0): string {
    const unit = 1000 / 10 ** decimals;
    // Cut off as clocks do, but for what the time itself cannot tell.
    const units = Math.floor((wallClock.at(time) + 0.001) / unit);
    const seconds = Math.floor(units / 10 ** decimals);
    const text = new Date(seconds * 1000).toLocaleTimeString("en-GB");
    return decimals > 0 ? `${text}.${String(units % 10 ** decimals).padStart(decimals, "0")}` : text;
}

export function hexText(bytes: ArrayLike<number>): string {
    return Array.from(bytes, (byte) => byte.toString(16).padStart(2, "0")).join(" ");
}
