/** What a DBC file says, as its statements leave it behind. */

import type { Decimal } from "./decimal";
import { wholeRange, type Choice, type Message, type Range, type Signal } from "./frames";
import { wholeOf } from "./text";

const CLASSIC_BYTES = 8;
/** Where signals are kept that are in no message. */
const NO_MESSAGE = "VECTOR__INDEPENDENT_SIG_MSG";
/** Attributes with the names that are longer than all programs take. */
export const LONG_MESSAGE = "SystemMessageLongSymbol";
export const LONG_SIGNAL = "SystemSignalLongSymbol";
const FRAME_FORMAT = "VFrameFormat";
/** Where a schema had a signal, if elsewhere than under the names of the message and its own. */
export const PATH = "VorbelPath";
/** Signals of a message, each of which is held against all others: eight for each of 256 kinds of frames. */
const MOST_SIGNALS = 2048;

/** An attribute's kind, and the words that its numbers stand for. */
export type Definition = { readonly type: "STRING" | "ENUM" | ""; readonly words: readonly string[] };
export type Definitions = ReadonlyMap<string, Definition>;

/** A signal on its way: names are those of the file, and what stands for them comes later in it. */
export type Draft = {
    readonly name: string;
    readonly start: number;
    readonly size: number;
    readonly isLittleEndian: boolean;
    readonly isSigned: boolean;
    readonly scale: Decimal;
    readonly offset: Decimal;
    readonly least: Decimal;
    readonly largest: Decimal;
    readonly unit: string;
    readonly isMultiplexer: boolean;
    /** Of the multiplexer, by its mark. */
    readonly selected: number | undefined;
    /** The same, and the multiplexer's name, by statements of their own. */
    readonly ranges: Range[];
    selector: string;
    isFloat: boolean;
    comment: string;
    readonly labels: Map<bigint, string>;
    readonly attributes: Map<string, string>;
};

/** An identifier, and whether it is one of 29 bits. */
export type Identifier = { readonly number: number; readonly isExtended: boolean };

export class MessageDraft {
    readonly signals: Draft[] = [];
    readonly attributes = new Map<string, string>();
    comment = "";
    readonly #byName = new Map<string, Draft>();

    constructor(
        readonly name: string,
        readonly identifier: Identifier,
        readonly size: number,
    ) {}

    add(signal: Draft): void {
        this.signals.push(signal);
        if (!this.#byName.has(signal.name)) this.#byName.set(signal.name, signal);
    }

    /** The first one of that name. */
    signal(name: string): Draft | undefined {
        return this.#byName.get(name);
    }
}

/** A message with all that was said about it. */
export function finished(draft: MessageDraft, ofMessages: Definitions, ofSignals: Definitions): Message {
    const name = draft.attributes.get(LONG_MESSAGE)?.slice(1, -1) ?? draft.name;
    const isFd = attributeOf(draft.attributes, FRAME_FORMAT, ofMessages).includes("_FD");
    const refusal = refusalOf(draft, name, isFd);
    const multiplexers = draft.signals.filter((signal) => signal.isMultiplexer && !refusal).map(nameOf);
    const signals = draft.signals.map((signal) => finishedSignal(signal, multiplexers, ofSignals));
    return { name, identifier: draft.identifier.number, size: draft.size, signals, comment: draft.comment, refusal };
}

function refusalOf({ identifier, size, signals }: MessageDraft, name: string, isFd: boolean): string {
    if (name === NO_MESSAGE) return "it is in no message";
    if (identifier.isExtended) return "its identifier has 29 bits, and the daemon knows those of 11";
    if (isFd || size > CLASSIC_BYTES) return "it is in a message of CAN FD";
    const count = signals.length;
    if (count > MOST_SIGNALS) return `its message has ${count} signals, and at most ${MOST_SIGNALS} are read`;
    return "";
}

function finishedSignal(draft: Draft, multiplexers: readonly string[], definitions: Definitions): Signal {
    const { start, size, isLittleEndian, isFloat, scale, offset, unit, comment, labels } = draft;
    return {
        name: nameOf(draft),
        ...{ start, size, isLittleEndian, isFloat, scale, offset, unit, comment, labels },
        isSigned: draft.isSigned && !isFloat,
        ...boundsOf(draft),
        choice: choiceOf(draft, multiplexers),
        path: attributeOf(draft.attributes, PATH, definitions),
    };
}

/** The long one, if it has one. */
function nameOf({ name, attributes }: Draft): string {
    return attributes.get(LONG_SIGNAL)?.slice(1, -1) ?? name;
}

/** Those of none are 0 and 0, or those of the bits. */
function boundsOf({ least, largest, ...draft }: Draft): Pick<Signal, "least" | "largest"> {
    if (least.isZero && largest.isZero) return { least: undefined, largest: undefined };
    const [low, high] = wholeRange(Math.min(draft.size, 128), draft.isSigned).map((raw) =>
        raw.times(draft.scale).plus(draft.offset),
    );
    return {
        least: least.compare(low!) === 0 ? undefined : least,
        largest: largest.compare(high!) === 0 ? undefined : largest,
    };
}

function choiceOf(draft: Draft, multiplexers: readonly string[]): Choice | undefined {
    const { selected } = draft;
    const marked: Range[] = selected === undefined ? [] : [[selected, selected]];
    const ranges = draft.ranges.length > 0 ? draft.ranges : marked;
    if (ranges.length === 0) return undefined;
    if (draft.selector) return { selector: longName(draft.selector, multiplexers), ranges };
    const others = multiplexers.toSpliced(draft.isMultiplexer ? multiplexers.indexOf(nameOf(draft)) : Infinity, 1);
    return { selector: others.length === 1 ? others[0]! : "", ranges };
}

/** That of the multiplexer whose name in the file had to be cut to this one. */
function longName(name: string, multiplexers: readonly string[]): string {
    return multiplexers.includes(name) ? name : (multiplexers.find((long) => long.startsWith(name)) ?? name);
}

/** An attribute's text: of a string what is in the quotes, of a number that stands for a word this word. */
function attributeOf(attributes: ReadonlyMap<string, string>, name: string, definitions: Definitions): string {
    const value = attributes.get(name) ?? "";
    const definition = definitions.get(name);
    if (definition?.type === "STRING") return value.slice(1, -1);
    if (definition?.type === "ENUM") return definition.words.at(Number(wholeOf(value) ?? NaN)) ?? value;
    return value;
}
