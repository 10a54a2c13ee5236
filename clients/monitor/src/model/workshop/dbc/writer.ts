/** Messages as a DBC file, byte for byte the one of the terminal tool. */

import { LONG_MESSAGE, LONG_SIGNAL, PATH } from "./bus";
import { Decimal } from "./decimal";
import { freeName, nothingTaken, valueRange, type Message, type Signal } from "./frames";

/** Characters of a name; longer ones stand in an attribute. */
const LONGEST = 32;
/** Digits of a whole number that has no exponent. */
const MOST_DIGITS = 12;
/** Who sends and receives, where that is not said. */
const NOBODY = "Vector__XXX";
const ZERO = Decimal.of(0n);

/** As other programs expect it, in Latin-1; in UTF-8 only if there are other letters. */
export function dbcOf(messages: readonly Message[]): Uint8Array<ArrayBuffer> {
    const text = [...linesOf(messages), ""].join("\n");
    if (/[^\0-\xff]/.test(text)) return new TextEncoder().encode(text);
    return Uint8Array.from(text, (letter) => letter.charCodeAt(0));
}

function* linesOf(messages: readonly Message[]): Generator<string> {
    yield* ['VERSION ""', "", "NS_ :", "", "BS_:", "", "BU_:", ""];
    const short = shortNames(messages.map(({ name }) => name));
    const words = messages.map((message) => new Words(message, short.get(message.name)!));
    for (const each of words) yield* each.definition();
    for (const each of words) yield* each.comments();
    yield `BA_DEF_ BO_ "${LONG_MESSAGE}" STRING ;`;
    for (const name of [LONG_SIGNAL, PATH]) yield `BA_DEF_ SG_ "${name}" STRING ;`;
    for (const name of [LONG_MESSAGE, LONG_SIGNAL, PATH]) yield `BA_DEF_DEF_ "${name}" "";`;
    for (const each of words) yield* each.attributes();
    for (const each of words) yield* each.labels();
    for (const each of words) yield* each.floats();
    for (const each of words) yield* each.selections();
}

/** Names of a length that every program takes, but for those that are to be kept. */
function shortNames(names: readonly string[], kept: ReadonlySet<string> = new Set()): Map<string, string> {
    const isShort = (name: string) => name.length <= LONGEST || kept.has(name);
    const short = new Map(names.filter(isShort).map((name) => [name, name]));
    const taken = nothingTaken();
    for (const name of short.keys()) taken[name] = true;
    for (const name of names) {
        if (short.has(name)) continue;
        const free = freeName(name.slice(0, LONGEST - 3), taken);
        taken[free] = true;
        short.set(name, free);
    }
    return short;
}

/** The parts of a file that are about a message. */
class Words {
    readonly #multiplexers: ReadonlySet<string>;
    readonly #short: ReadonlyMap<string, string>;

    constructor(
        readonly message: Message,
        readonly name: string,
    ) {
        const { signals } = message;
        this.#multiplexers = new Set(signals.flatMap(({ choice }) => (choice ? [choice.selector] : [])));
        // Programs find a multiplexer by its name, and not all of them by that in the attribute.
        this.#short = shortNames(
            signals.map((signal) => signal.name),
            this.#multiplexers,
        );
    }

    *definition(): Generator<string> {
        const { identifier, size, signals } = this.message;
        yield `BO_ ${identifier} ${this.name}: ${size} ${NOBODY}`;
        for (const signal of signals) yield this.#signal(signal);
        yield "";
    }

    *comments(): Generator<string> {
        const { identifier, comment, signals } = this.message;
        if (comment) yield `CM_ BO_ ${identifier} "${comment}";`;
        for (const signal of signals) {
            if (signal.comment) yield `CM_ SG_ ${this.#place(signal)} "${signal.comment}";`;
        }
    }

    *attributes(): Generator<string> {
        const { identifier, name, signals } = this.message;
        if (this.name !== name) yield `BA_ "${LONG_MESSAGE}" BO_ ${identifier} "${name}";`;
        for (const signal of signals) {
            const place = this.#place(signal);
            if (this.#short.get(signal.name) !== signal.name)
                yield `BA_ "${LONG_SIGNAL}" SG_ ${place} "${signal.name}";`;
            if (signal.path) yield `BA_ "${PATH}" SG_ ${place} "${signal.path}";`;
        }
    }

    *labels(): Generator<string> {
        for (const signal of this.message.signals) {
            if (signal.labels.size === 0) continue;
            const texts = Array.from(signal.labels, ([raw, text]) => `${raw} "${text}"`);
            yield `VAL_ ${this.#place(signal)} ${texts.join(" ")} ;`;
        }
    }

    *floats(): Generator<string> {
        for (const signal of this.message.signals) {
            if (signal.isFloat) yield `SIG_VALTYPE_ ${this.#place(signal)} : 1;`;
        }
    }

    /** Needed where there is more than one multiplexer. */
    *selections(): Generator<string> {
        if (this.#multiplexers.size < 2) return;
        for (const signal of this.message.signals) {
            if (!signal.choice) continue;
            const ranges = signal.choice.ranges.map(([low, high]) => `${BigInt(low)}-${BigInt(high)}`);
            const selector = this.#short.get(signal.choice.selector);
            yield `SG_MUL_VAL_ ${this.#place(signal)} ${selector} ${ranges.join(", ")};`;
        }
    }

    #signal(signal: Signal): string {
        const { size, unit } = signal;
        const name = `${this.#short.get(signal.name)}${this.#mark(signal)}`;
        const [order, sign] = [Number(signal.isLittleEndian), signal.isSigned || signal.isFloat ? "-" : "+"];
        const numbers = [signal.scale, signal.offset, ...boundsOf(signal)].map((each) => each.toShortText(MOST_DIGITS));
        const [scale, offset, least, largest] = numbers;
        const bits = `${startOf(signal)}|${size}@${order}${sign}`;
        return ` SG_ ${name} : ${bits} (${scale},${offset}) [${least}|${largest}] "${unit}" ${NOBODY}`;
    }

    #mark({ name, choice }: Signal): string {
        const chosen = choice ? `m${BigInt(choice.ranges[0]![0])}` : "";
        const mark = chosen + (this.#multiplexers.has(name) ? "M" : "");
        return mark && ` ${mark}`;
    }

    #place({ name }: Signal): string {
        return `${this.message.identifier} ${this.#short.get(name)}`;
    }
}

/** DBC counts each byte's bits from the lowest, whatever the order of the bytes. */
function startOf({ start, isLittleEndian }: Signal): number {
    return isLittleEndian ? start : start - 2 * (start % 8) + 7;
}

/** Those of none are 0 and 0. */
function boundsOf(signal: Signal): [least: Decimal, largest: Decimal] {
    const { least, largest } = signal;
    if (!least && !largest) return [ZERO, ZERO];
    const [low, high] = valueRange(signal);
    return [least ?? low, largest ?? high];
}
