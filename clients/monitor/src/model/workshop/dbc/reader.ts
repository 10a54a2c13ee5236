/**
 * Reads DBC files, statement by statement and with the results of the terminal tool, whose reader goes by lines: a
 * statement has one line, but for comments. What cannot be read is noted, and the rest read all the same, in a time
 * that grows with the file's size and not faster.
 */

import { finished, MessageDraft, type Definition, type Draft, type Identifier } from "./bus";
import { Decimal } from "./decimal";
import type { Message } from "./frames";
import {
    betweenCommas,
    betweenQuotes,
    BLANK,
    decoded,
    DIGITS,
    lastClosingQuote,
    Malformed,
    prefixedOf,
    Scanner,
    stripped,
    wholeOf,
    WORD,
} from "./text";

export type Read = { messages: Message[]; notes: string[] };

export function readDbc(content: Uint8Array): Read {
    const reader = new Reader();
    for (const line of decoded(content).split("\n")) reader.read(stripped(line));
    reader.end();
    return { messages: reader.messages(), notes: reader.notes };
}

/** Characters of a line that are shown in a note. */
const SHOWN = 120;
/** Of an identifier: the bits of its number, and the one that tells those of 29 bits. */
const NUMBER_BITS = 29;
const EXTENDED = 1n << 31n;
const LARGEST_STANDARD = 0x7ff;

/** A comment of several lines, the number of the first, and where it goes. */
type Comment = { readonly number: number; readonly lines: string[]; readonly take: (text: string) => void };

class Reader {
    readonly notes: string[] = [];
    readonly #messages: MessageDraft[] = [];
    readonly #byIdentifier = new Map<string, MessageDraft>();
    readonly #ofMessages = new Map<string, Definition>();
    readonly #ofSignals = new Map<string, Definition>();
    readonly #nodes = new Set<string>();
    /** The one that was last spoken of, in which signals are. */
    #message: MessageDraft | undefined;
    #comment: Comment | undefined;
    /** Of the line. */
    #number = 0;

    readonly #statements: readonly (readonly [beginning: string, read: (scanner: Scanner) => void])[] = [
        ["BO_ ", (scanner) => this.#readMessage(scanner)],
        ["SG_ ", (scanner) => this.#readSignal(scanner)],
        ["CM_ SG_ ", (scanner) => this.#readSignalComment(scanner)],
        ["CM_ BO_ ", (scanner) => this.#readMessageComment(scanner)],
        ["CM_ BU_ ", (scanner) => this.#readNodeComment(scanner)],
        ["BU_:", (scanner) => this.#readNodes(scanner)],
        ["VAL_ ", (scanner) => this.#readLabels(scanner)],
        ["BA_DEF_", (scanner) => this.#readDefinition(scanner)],
        ["BA_ ", (scanner) => this.#readAttribute(scanner)],
        ["SIG_VALTYPE_ ", (scanner) => this.#readType(scanner)],
        ["SG_MUL_VAL_ ", (scanner) => this.#readSelection(scanner)],
    ];

    read(line: string): void {
        this.#number++;
        if (line === "") return;
        if (this.#comment) {
            this.#continueComment(this.#comment, line);
            return;
        }
        const statement = this.#statements.find(([beginning]) => line.startsWith(beginning));
        if (!statement) return;
        const [beginning, read] = statement;
        const scanner = new Scanner(line);
        scanner.upTo(beginning.trimEnd().length);
        try {
            read(scanner);
        } catch (error) {
            if (!(error instanceof Malformed)) throw error;
            this.notes.push(`line ${this.#number} is not understood: ${line.slice(0, SHOWN)}`);
        }
    }

    end(): void {
        if (this.#comment) this.notes.push(`the comment that begins in line ${this.#comment.number} does not end`);
    }

    messages(): Message[] {
        return this.#messages.map((draft) => finished(draft, this.#ofMessages, this.#ofSignals));
    }

    // Messages and signals

    #readMessage(scanner: Scanner): void {
        const [, identifier, word, between, size] = scanner.take(/ ([^ ]+) ([^ ]+)( *:)? ([^ ]+) [^ ]/y);
        if (!between && !(word!.endsWith(":") && word !== ":")) throw new Malformed();
        const message = new MessageDraft(
            between ? word! : word!.slice(0, -1),
            identifierOf(identifier!),
            countOf(size!),
        );
        this.#messages.push(message);
        this.#byIdentifier.set(keyOf(message.identifier), message);
        this.#message = message;
    }

    #readSignal(scanner: Scanner): void {
        scanner.take(BLANK);
        const draft = plainSignal(scanner) ?? markedSignal(scanner);
        if (!this.#message) throw new Malformed();
        this.#message.add(draft);
    }

    #readType(scanner: Scanner): void {
        const [, identifier, name] = scanner.take(/ +([\p{L}\p{N}_]+) +([\p{L}\p{N}_]+)\s*:/uy);
        scanner.body();
        const message = this.#find(identifier!);
        if (message) found(message.signal(name!)).isFloat = true;
    }

    #readSelection(scanner: Scanner): void {
        scanner.take(BLANK);
        const identifier = scanner.take(DIGITS)[0];
        const [, name, selector] = scanner.take(/ +([\p{L}\p{N}_-]+) +([\p{L}\p{N}_-]+) +/uy);
        const ranges = scanner.body().split(",");
        const message = this.#find(identifier);
        if (!message) return;
        const signal = found(message.signal(name!));
        signal.selector = selector!;
        for (const range of ranges) {
            const ends = range.split("-");
            if (ends.length !== 2) throw new Malformed();
            signal.ranges.push([countOf(ends[0]!), countOf(ends[1]!)]);
        }
    }

    #readLabels(scanner: Scanner): void {
        const [, identifier, name] = scanner.take(/ +([\p{L}\p{N}_]+) +([\p{L}\p{N}_]+) +/uy);
        const parts = betweenQuotes(scanner.body());
        if (!/^\p{N}+$/u.test(identifier!)) return; // of a variable that is in no message
        const signal = found(this.#find(identifier!)).signal(name!);
        for (let at = 0; signal && at + 1 < parts.length; at += 2) {
            const raw = prefixedOf(parts[at]!);
            if (raw === undefined) throw new Malformed();
            signal.labels.set(raw, unescaped(parts[at + 1]!));
        }
    }

    // Comments

    #readSignalComment(scanner: Scanner): void {
        const [, identifier, name] = scanner.take(/ +([\p{L}\p{N}_]+) +([\p{L}\p{N}_]+) +"/uy);
        const signal = found(this.#find(identifier!)).signal(name!);
        const isPlain = /^\w+$/.test(name!); // the tool finds no others here
        this.#beginComment(scanner, (text) => {
            if (signal && isPlain) signal.comment = text;
        });
        if (!isPlain) throw new Malformed();
    }

    #readMessageComment(scanner: Scanner): void {
        const [, identifier] = scanner.take(/ +(\w+) +"/y);
        const message = this.#find(identifier!);
        this.#beginComment(scanner, (text) => {
            if (message) message.comment = text;
        });
    }

    /** Nothing is done with it, but its lines are no statements. */
    #readNodeComment(scanner: Scanner): void {
        const [, name] = scanner.take(/ +(\w+) +"/y);
        if (this.#nodes.has(name!)) this.#beginComment(scanner, () => undefined);
    }

    #readNodes(scanner: Scanner): void {
        for (const name of scanner.rest.split(" ")) {
            if (stripped(name).length > 1) this.#nodes.add(name);
        }
    }

    #beginComment(scanner: Scanner, take: (text: string) => void): void {
        const end = lastClosingQuote(scanner.text, scanner.at);
        if (end < 0) this.#comment = { number: this.#number, lines: [unescaped(scanner.rest)], take };
        else take(unescaped(scanner.upTo(end)));
    }

    #continueComment({ lines, take }: Comment, line: string): void {
        lines.push(unescaped(line));
        if (!isEndOfComment(line)) return;
        this.#comment = undefined;
        take(stripped(lines.join("\n").slice(0, -1)).slice(0, -1));
    }

    // Attributes

    #readDefinition(scanner: Scanner): void {
        const [, kind] = scanner.tryTake(/\s*(SG_|BO_)\s*/y) ?? [];
        if (!kind) return;
        const name = scanner.quoted();
        const definitions = kind === "SG_" ? this.#ofSignals : this.#ofMessages;
        if (!definitions.has(name)) definitions.set(name, definitionOf(stripped(scanner.body())));
    }

    #readAttribute(scanner: Scanner): void {
        scanner.take(BLANK);
        const name = scanner.quoted();
        const [, kind] = scanner.tryTake(/(SG_|BO_) +/y) ?? [];
        if (!kind) return;
        const message = this.#look(scanner.take(DIGITS)[0]);
        scanner.take(BLANK);
        if (kind === "BO_") {
            const value = scanner.body();
            found(message).attributes.set(name, stripped(value));
        } else {
            const signal = scanner.take(WORD)[0];
            scanner.take(BLANK);
            const value = scanner.body();
            found(found(message).signal(signal)).attributes.set(name, value);
        }
    }

    // Which message

    /** Those that are spoken of later are in it as well, whatever it is. */
    #find(identifier: string): MessageDraft | undefined {
        this.#message = this.#look(identifier);
        return this.#message;
    }

    #look(identifier: string): MessageDraft | undefined {
        return this.#byIdentifier.get(keyOf(identifierOf(identifier)));
    }
}

// Signals

const NUMBER = "([0-9.+\\-eE]+)";
const BITS = "(\\d+)\\|(\\d+)@(\\d+)([+|\\-])";
const PLAIN = new RegExp(`(\\w+) *: *${BITS} *\\(${NUMBER}, *${NUMBER}\\) *\\[${NUMBER}\\|${NUMBER}\\] +"`, "y");
const MARKED = new RegExp(`: *${BITS} *\\(${NUMBER},${NUMBER}\\) *\\[${NUMBER}\\|${NUMBER}\\] +"`, "y");

function plainSignal(scanner: Scanner): Draft | undefined {
    const [, name, ...numbers] = scanner.tryTake(PLAIN) ?? [];
    return name === undefined ? undefined : signalOf(name, numbers, unitOf(scanner), {});
}

/** One that is a multiplexer or is selected by one, by a mark behind its name. */
function markedSignal(scanner: Scanner): Draft {
    const [, name] = scanner.take(/([^ ]+) +/y);
    const mark = scanner.upTo(scanner.text.indexOf(":", scanner.at + 1)).trimEnd();
    const [, ...numbers] = scanner.take(MARKED);
    return signalOf(name!, numbers, unitOf(scanner), marksOf(mark));
}

type Marks = { isMultiplexer?: boolean; selected?: number };

/** Of "M", "m0" and "m0M". The character before a number can be any. */
function marksOf(mark: string): Marks {
    if (mark === "M") return { isMultiplexer: true };
    const isMultiplexer = mark.endsWith("M");
    const selected = countOf(mark.slice(1, isMultiplexer ? -1 : undefined));
    return { isMultiplexer, selected };
}

/** Up to the last quote that a blank, or nothing, follows. */
function unitOf(scanner: Scanner): string {
    const { text } = scanner;
    return scanner.upTo(text.endsWith('"') ? text.length - 1 : text.lastIndexOf('" '));
}

function signalOf(name: string, numbers: readonly string[], unit: string, marks: Marks): Draft {
    const [start, size, order] = numbers.slice(0, 3).map(countOf);
    const [scale, offset, least, largest] = numbers.slice(4).map(decimalOf);
    const isLittleEndian = order === 1;
    return {
        name,
        // Bits are counted from each byte's lowest, whatever the order of the bytes.
        start: isLittleEndian ? start! : start! - 2 * (start! % 8) + 7,
        size: size!,
        isLittleEndian,
        isSigned: numbers[3] === "-",
        scale: scale!,
        offset: offset!,
        least: least!,
        largest: largest!,
        unit,
        isMultiplexer: marks.isMultiplexer ?? false,
        selected: marks.selected,
        ranges: [],
        selector: "",
        isFloat: false,
        comment: "",
        labels: new Map(),
        attributes: new Map(),
    };
}

// Words

function found<T>(object: T | undefined): T {
    if (object === undefined) throw new Malformed();
    return object;
}

/** A number that can be counted with. */
function countOf(text: string): number {
    const number = Number(found(wholeOf(text)));
    if (!Number.isSafeInteger(number)) throw new Malformed();
    return number;
}

function decimalOf(text: string): Decimal {
    return found(Decimal.parse(text));
}

function identifierOf(text: string): Identifier {
    const whole = found(wholeOf(text));
    const isExtended = (whole & EXTENDED) !== 0n;
    const number = Number(BigInt.asUintN(NUMBER_BITS, whole));
    if (!isExtended && number > LARGEST_STANDARD) throw new Malformed();
    return { number, isExtended };
}

function keyOf({ number, isExtended }: Identifier): string {
    return `${number} ${isExtended}`;
}

function unescaped(text: string): string {
    return text.replaceAll('\\"', '"');
}

/** Whether a quote, blanks and a semicolon end the line. */
function isEndOfComment(line: string): boolean {
    return line.endsWith(";") && line.slice(0, -1).trimEnd().endsWith('"');
}

function definitionOf(text: string): Definition {
    if (text.startsWith("STRING")) return { type: "STRING", words: [] };
    if (text.startsWith("ENUM")) return { type: "ENUM", words: betweenCommas(text.slice(5)) };
    return { type: "", words: [] };
}
