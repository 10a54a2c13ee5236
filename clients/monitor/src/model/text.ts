import { isMap, justified, type Leaf, type Value, type ValueMap } from "vorbel";
import { wallClock } from "./clock";
import { labelOf } from "./meaning";

/** Characters that are not seen, or that turn others around: controls, formats, separators, halves of pairs. */
const UNSEEN = /[\p{Cc}\p{Cf}\p{Zl}\p{Zp}\p{Cs}]/gu;

/** A text from elsewhere as it can be looked at: what would not be seen stands as "\u{202e}". */
export function shown(text: string): string {
    return text.replace(UNSEEN, (character) => `\\u{${character.codePointAt(0)!.toString(16)}}`);
}

/**
 * A number as people read it: a value with the decimals that its leaf names, or else with the digits that it justifies;
 * others with seven.
 */
export function numberText(value: number, leaf?: Leaf): string {
    const { decimals = -1 } = leaf?.meaning ?? {};
    return decimals >= 0 && decimals <= 15 ? value.toFixed(decimals) : exactText(value, leaf);
}

/** The same with all digits that it justifies, to be typed. */
export function exactText(value: number, leaf?: Leaf): string {
    if (Number.isInteger(value) && Math.abs(value) < 1e12) return String(value);
    if (!leaf) return String(Number(value.toPrecision(7)));
    const { scale = 1, offset = 0 } = leaf.meaning;
    const isOurs = scale !== 1 || offset !== 0; // and not the daemon's, in single precision
    return String(Number((isOurs ? value : justified(value, leaf)).toPrecision(10)));
}

/** What a value is measured in, behind it. */
export function unitText(leaf: Leaf | undefined): string {
    const { unit = "" } = leaf?.meaning ?? {};
    return unit && ` ${shown(unit)}`;
}

/** A number with its unit. */
export function amountText(value: number, leaf: Leaf | undefined): string {
    return numberText(value, leaf) + unitText(leaf);
}

/** A value in one line: its label, or itself with its unit. */
export function valueText(value: Value, leaf?: Leaf): string {
    const label = labelOf(value, leaf);
    if (label !== undefined) return shown(label);
    if (value === null) return "nil";
    if (typeof value === "number") return amountText(value, leaf);
    if (typeof value === "string") return shown(JSON.stringify(value));
    if (ArrayBuffer.isView(value)) return arrayText(value, leaf) + unitText(leaf);
    if (Array.isArray(value)) return `[${value.map((item) => valueText(item)).join(", ")}]`;
    if (isMap(value)) return shown(mapText(value));
    return String(value);
}

/** A value with all that it has, to be taken elsewhere: every element of an array, texts without quotes, no units. */
export function wholeText(value: Value, leaf?: Leaf): string {
    if (typeof value === "string") return value;
    if (typeof value === "number") return elementText(value, leaf);
    if (!ArrayBuffer.isView(value)) return valueText(value, leaf);
    return Array.from(value as ArrayLike<number>, (element) => elementText(element, leaf)).join(", ");
}

function elementText(value: number, leaf?: Leaf): string {
    const label = labelOf(value, leaf);
    return label === undefined ? numberText(value, leaf) : shown(label);
}

function mapText(value: ValueMap): string {
    return JSON.stringify(value, (_, item) => (typeof item === "bigint" ? String(item) : item));
}

/** Length and first elements: "5 × [3.93, 3.94, …]". */
function arrayText(array: ArrayLike<number> & ArrayBufferView, leaf?: Leaf): string {
    return listText(array.length, (at) => elementText(array[at]!, leaf));
}

/** How many there are, and the first of them. */
export function listText(length: number, textAt: (at: number) => string, most = 2): string {
    const shown = Array.from({ length: Math.min(most, length) }, (_, at) => textAt(at));
    return `${length} × [${shown.join(", ")}${length > shown.length ? ", …" : ""}]`;
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

/** The day and time of something that may be from another visit, by the clock on the wall. */
export function stampText(milliseconds: number): string {
    return new Date(milliseconds).toLocaleString("sv-SE"); // 2026-11-22 13:04:05
}
