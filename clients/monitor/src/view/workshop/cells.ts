import { BYTES } from "../../model/workshop/frames";
import type { Selection } from "../../model/workshop/selection";

/** A place in the grid of an endpoint: column 0 is the whole byte, 1 to 8 are its bits, the highest first. */
export type Cell = { byte: number; column: number };

export const COLUMNS = 9;

/** The bits that a cell has, ends included. */
export function bitsOf({ byte, column }: Cell): [first: number, last: number] {
    if (column === 0) return [8 * byte, 8 * byte + 7];
    const bit = 8 * byte + 8 - column;
    return [bit, bit];
}

/** All from one cell to another, whichever comes first. */
export function between(identifier: number, one: Cell, other: Cell): Selection {
    const ends = [...bitsOf(one), ...bitsOf(other)];
    return { identifier, first: Math.min(...ends), last: Math.max(...ends) };
}

/** Whether all bits of a cell are selected. */
export function isIn(selection: Selection | undefined, cell: Cell): boolean {
    const [first, last] = bitsOf(cell);
    return selection !== undefined && selection.first <= first && last <= selection.last;
}

/** A selection as people say it: "byte 2 to 3, 16 bits", "byte 0 bit 4, 1 bit", "byte 0 bit 4 to byte 1 bit 1, 6 bits". */
export function wordsOf({ first, last }: Selection): string {
    const count = last - first + 1;
    const amount = count === 1 ? "1 bit" : `${count} bits`;
    const [from, to] = [Math.floor(first / 8), Math.floor(last / 8)];
    if (first % 8 === 0 && last % 8 === 7) return `byte ${from}${to > from ? ` to ${to}` : ""}, ${amount}`;
    if (count === 1) return `byte ${from} bit ${first % 8}, ${amount}`;
    if (from === to) return `byte ${from} bit ${first % 8} to ${last % 8}, ${amount}`;
    return `byte ${from} bit ${first % 8} to byte ${to} bit ${last % 8}, ${amount}`;
}

/** Where a key leads from a cell of a grid with so many rows; undefined for keys that lead nowhere. */
export function moved({ byte, column }: Cell, key: string, rows: number): Cell | undefined {
    const within = (number: number, most: number) => Math.max(0, Math.min(number, most));
    const last = Math.min(rows, BYTES) - 1;
    switch (key) {
        case "ArrowUp":
            return { byte: within(byte - 1, last), column };
        case "ArrowDown":
            return { byte: within(byte + 1, last), column };
        case "ArrowLeft":
            return { byte, column: within(column - 1, COLUMNS - 1) };
        case "ArrowRight":
            return { byte, column: within(column + 1, COLUMNS - 1) };
        case "Home":
            return { byte, column: 0 };
        case "End":
            return { byte, column: COLUMNS - 1 };
        case "PageUp":
            return { byte: 0, column };
        case "PageDown":
            return { byte: last, column };
        default:
            return undefined;
    }
}
