/** Messages and signals, as descriptions of CAN buses know them. */

import { Decimal } from "./decimal";

export type Range = readonly [low: number, high: number];

const LARGEST_SINGLE = Decimal.parse("3.4028234663852886E+38")!;
const SMALLEST_SINGLE = Decimal.parse("-3.4028234663852886E+38")!;

/**
 * Frames have a signal only where the signal named `selector` holds a raw number within one of the ranges, ends
 * included. The name is empty where the description does not say which signal that is.
 */
export type Choice = { readonly selector: string; readonly ranges: readonly Range[] };

/** The one raw number, if there are no others. */
export function onlyOf({ ranges }: Choice): number | undefined {
    const [low, high] = ranges[0]!;
    return ranges.length === 1 && low === high ? low : undefined;
}

/**
 * Bits of a message. `start` counts from the first byte: of a little-endian signal it is its lowest bit, each byte's
 * lowest being 0; of a big-endian one its highest bit, each byte's highest being 0.
 */
export type Signal = {
    readonly name: string;
    readonly start: number;
    readonly size: number;
    readonly isLittleEndian: boolean;
    readonly isSigned: boolean;
    readonly isFloat: boolean;
    readonly scale: Decimal;
    readonly offset: Decimal;
    readonly least: Decimal | undefined;
    readonly largest: Decimal | undefined;
    readonly unit: string;
    readonly comment: string;
    readonly labels: ReadonlyMap<bigint, string>;
    readonly choice: Choice | undefined;
    /** Of its leaf, where this is not under the names of the message and its own. */
    readonly path: string;
};

/** The frames of one identifier. A `refusal` says why they cannot be carried. */
export type Message = {
    readonly name: string;
    readonly identifier: number;
    /** Bytes. */
    readonly size: number;
    readonly signals: readonly Signal[];
    readonly comment: string;
    readonly refusal: string;
};

export function firstByte({ start }: Signal): number {
    return Math.floor(start / 8);
}

export function lastByte({ start, size }: Signal): number {
    return Math.floor((start + size - 1) / 8);
}

/** The values that its bits can stand for. */
export function valueRange(signal: Signal): readonly [low: Decimal, high: Decimal] {
    const [one, other] = rawRange(signal).map((raw) => raw.times(signal.scale).plus(signal.offset));
    return one!.compare(other!) <= 0 ? [one!, other!] : [other!, one!];
}

function rawRange({ size, isSigned, isFloat }: Signal): Decimal[] {
    if (isFloat) return [SMALLEST_SINGLE, LARGEST_SINGLE];
    return wholeRange(size, isSigned);
}

/** The numbers of so many bits. */
export function wholeRange(size: number, isSigned: boolean): Decimal[] {
    const all = 1n << BigInt(size);
    return (isSigned ? [-all / 2n, all / 2n - 1n] : [0n, all - 1n]).map((raw) => Decimal.of(raw));
}

/** Names that are taken, whichever they are. */
export type Taken = Record<string, true>;

export function nothingTaken(): Taken {
    return Object.create(null) as Taken;
}

/** The name, or one like it that neither object has, and that no option of a leaf can have. */
export function freeName(name: string, taken: object, alsoTaken?: object): string {
    const plain = name.startsWith("@") || !name ? `_${name}` : name;
    const isTaken = (each: string) => Object.hasOwn(taken, each) || (alsoTaken && Object.hasOwn(alsoTaken, each));
    if (!isTaken(plain)) return plain;
    const numbers = tried.get(taken) ?? new Map<string, number>();
    let number = numbers.get(plain) ?? 2;
    while (isTaken(`${plain}_${number}`)) number++;
    if (!alsoTaken) tried.set(taken, numbers.set(plain, number));
    return `${plain}_${number}`;
}

/** Names are only ever added: the numbers that were taken once are not tried again, however many names are alike. */
const tried = new WeakMap<object, Map<string, number>>();
