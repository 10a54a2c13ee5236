/** The text of a file, and words and numbers in it, to the rules of the terminal tool's reader. */

/** UTF-8 where it is that, or else Latin-1, in which each byte is a character. */
export function decoded(content: Uint8Array): string {
    try {
        return new TextDecoder("utf-8", { fatal: true, ignoreBOM: true }).decode(content);
    } catch {
        return latin1(content);
    }
}

/** By hand: under that name browsers have another table. */
function latin1(content: Uint8Array): string {
    let text = "";
    for (let at = 0; at < content.length; at += 4096) {
        text += String.fromCharCode(...content.subarray(at, at + 4096));
    }
    return text;
}

const BLANKS = new Set(
    "\t\n\v\f\r\x1c\x1d\x1e\x1f \x85\xa0\u1680\u2000\u2001\u2002\u2003\u2004\u2005\u2006\u2007\u2008\u2009\u200a\u2028\u2029\u202f\u205f\u3000",
);

export function stripped(text: string): string {
    let [begin, end] = [0, text.length];
    while (begin < end && BLANKS.has(text[begin]!)) begin++;
    while (end > begin && BLANKS.has(text[end - 1]!)) end--;
    return text.slice(begin, end);
}

/** Digits of a whole number: nobody writes more, and reading many takes long. */
const MOST_DIGITS = 4300;

/** A whole number of base ten; undefined for what is none. */
export function wholeOf(text: string): bigint | undefined {
    const digits = stripped(text);
    if (digits.length > MOST_DIGITS || !/^[+-]?\d+(_\d+)*$/.test(digits)) return undefined;
    return signedOf(digits);
}

/** The same of the base that its beginning tells, 0x, 0o or 0b. */
export function prefixedOf(text: string): bigint | undefined {
    const digits = stripped(text);
    const form = /^[+-]?(0x(_?[\da-f])+|0o(_?[0-7])+|0b(_?[01])+|0(_?0)*|[1-9](_?\d)*)$/i;
    return digits.length <= MOST_DIGITS && form.test(digits) ? signedOf(digits) : undefined;
}

function signedOf(digits: string): bigint {
    const number = BigInt(digits.replace(/[+_-]/g, ""));
    return digits.startsWith("-") ? -number : number;
}

/** The place of the last quote that only blanks and a semicolon follow; -1 if there is none from `begin` on. */
export function lastClosingQuote(text: string, begin: number): number {
    let isSemicolonNext = false;
    for (let at = text.length - 1; at >= begin; at--) {
        if (text[at] === '"' && isSemicolonNext) return at;
        isSemicolonNext = text[at] === ";" || (isSemicolonNext && text[at] === " ");
    }
    return -1;
}

/** The parts between the quotes; one behind a backslash is none. */
export function betweenQuotes(text: string): string[] {
    const parts: string[] = [];
    let begin = 0;
    for (let at = 0; at < text.length; at++) {
        if (text[at] === "\\" && at + 1 === text.length) return [...parts, text.slice(begin, at)];
        if (text[at] === "\\") at++;
        else if (text[at] === '"') {
            parts.push(text.slice(begin, at));
            begin = at + 1;
        }
    }
    return [...parts, text.slice(begin)];
}

/** The parts between commas that are not within quotes, without the quotes around one. */
export function betweenCommas(text: string): string[] {
    const parts: string[] = [];
    let [begin, isQuoted] = [0, false];
    for (let at = 0; at <= text.length; at++) {
        if (text[at] === '"') isQuoted = !isQuoted;
        if (at < text.length && (isQuoted || text[at] !== ",")) continue;
        if (at < text.length || at > begin) parts.push(unquoted(stripped(text.slice(begin, at))));
        begin = at + 1;
    }
    return parts;
}

function unquoted(text: string): string {
    return text.length > 1 && text.startsWith('"') && text.endsWith('"') ? text.slice(1, -1) : text;
}

/** What makes a line no statement. */
export class Malformed extends Error {}

/** Takes a statement apart from left to right. What does not follow is Malformed. */
export class Scanner {
    #at = 0;

    constructor(readonly text: string) {}

    get at(): number {
        return this.#at;
    }

    get rest(): string {
        return this.text.slice(this.#at);
    }

    /** What a sticky pattern finds here. Patterns are such that no time is lost with going back in them. */
    tryTake(pattern: RegExp): RegExpExecArray | undefined {
        pattern.lastIndex = this.#at;
        const found = pattern.exec(this.text);
        if (!found) return undefined;
        this.#at = pattern.lastIndex;
        return found;
    }

    take(pattern: RegExp): RegExpExecArray {
        const found = this.tryTake(pattern);
        if (!found) throw new Malformed();
        return found;
    }

    /** The text up to a place, or from here to the end of it. */
    upTo(end: number): string {
        if (end < this.#at) throw new Malformed();
        const text = this.text.slice(this.#at, end);
        this.#at = end;
        return text;
    }

    /** The text up to the last semicolon. */
    body(): string {
        return this.upTo(this.text.lastIndexOf(";"));
    }

    /** The name and the blanks of it: a text in quotes, the second of which blanks follow. */
    quoted(): string {
        this.take(/"/y);
        const name = this.upTo(this.text.indexOf('" ', this.#at + 1));
        this.take(/" +/y);
        return name;
    }
}

/** A name or a number. */
export const WORD = /[\p{L}\p{N}_]+/uy;
export const DIGITS = /\d+/y;
export const BLANK = / +/y;
