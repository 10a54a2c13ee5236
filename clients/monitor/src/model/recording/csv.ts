import { Meanings, namesOf, nest, type Meant, type Value } from "vorbel";
import { jsonOf, notFiniteOf, numberText, timeOf, type Entry } from "./entry";
import { linesOf, LONGEST, type Line } from "./lines";
import { BrokenRecording, type Reading } from "./reading";

export const HEADER = "time,path,index,value,unit,label\n";
/** That of those who wrote readings. */
const FORMER_HEADER = "time,path,index,value\n";

/** The rows of an entry, as `vorbel-cli record` writes them into a .csv file: one for each value that counts. */
export function rowsOf(entry: Entry, meanings = new Meanings()): string {
    if (!("values" in entry)) return "";
    const time = (entry.time / 1000).toFixed(6);
    let rows = "";
    for (const [path, meant] of meanings.flat(entry.values)) {
        const begin = `${time},${quoted(path)}`;
        const end = `${quoted(meant.unit)},${quoted(meant.label ?? "")}\n`;
        for (const [at, value] of cellsIn(meant)) rows += `${begin},${at},${quoted(cellOf(value))},${end}`;
    }
    return rows;
}

/** Each with its place in the array, which is empty for a single value. */
function cellsIn({ reading, value }: Meant): Iterable<[at: number | "", value: Value]> {
    return ArrayBuffer.isView(reading) ? (value as Value[]).entries() : [["", value]];
}

function cellOf(value: Value): string {
    if (value === null) return "";
    if (typeof value === "number") return numberText(value);
    return typeof value === "string" ? value : jsonOf(value);
}

function quoted(text: string): string {
    return /[",\n]/.test(text) ? `"${text.replaceAll('"', '""')}"` : text;
}

/** Reads a .csv file, of the page or of `vorbel-cli record`. */
export async function readCsv({ file, take, progress }: Reading): Promise<void> {
    const arrays = new Arrays(take);
    for await (const { text, number, finished } of rowsIn(file, progress)) {
        if (number === 1 && ![HEADER, FORMER_HEADER].includes(`${text}\n`)) {
            throw new BrokenRecording(`its first line is not "${HEADER.trimEnd()}"`);
        } else if (number === 1) {
            arrays.cells = text.split(",").length;
        } else if (number > 1 && !finished) {
            arrays.end();
            throw new BrokenRecording("its last line is cut off");
        } else if (number > 1) {
            takeRow(text, number, arrays);
        }
    }
    arrays.end();
}

/** Rows, of which some have more than one line: a name may hold the end of one. */
async function* rowsIn(file: Blob, progress: (read: number) => void): AsyncGenerator<Line> {
    let row: Line | undefined;
    for await (const line of linesOf(file, progress)) {
        row = row ? { ...row, text: `${row.text}\n${line.text}`, finished: line.finished } : line;
        if (row.text.length > LONGEST) throw new BrokenRecording(`line ${row.number} is longer than 16 MiB`);
        if ((row.text.match(/"/g)?.length ?? 0) % 2 === 1) continue; // within quotes
        yield row;
        row = undefined;
    }
    if (row) yield { ...row, finished: false };
}

/** Gathers the rows of arrays, which follow one another, from the index 0 on, and passes single values on. */
class Arrays {
    #path = "";
    #time = 0;
    #unit = "";
    #elements: number[] = [];
    /** How many a row has. */
    cells = 0;

    constructor(readonly take: (entry: Entry) => void) {}

    single(time: number, path: string, value: Value, unit: string, label: string): void {
        this.end();
        this.take(entryAt(time, path, value, unit, label));
    }

    element(time: number, path: string, index: number, element: number, unit: string): void {
        if (index === 0) this.end();
        if (index !== this.#elements.length) throw new Error("an array begins in the middle");
        [this.#time, this.#path, this.#unit] = [time, path, unit];
        this.#elements.push(element);
    }

    end(): void {
        if (this.#elements.length === 0) return;
        const array = Float64Array.from(this.#elements) as unknown as Value;
        this.#elements = [];
        this.take(entryAt(this.#time, this.#path, array, this.#unit, ""));
    }
}

function entryAt(time: number, path: string, value: Value, unit: string, label: string): Entry {
    const names = namesOf(path);
    const values = names.length > 0 ? nest(names, value) : value;
    return unit || label ? { time, values, told: new Map([[path, { value, unit, label }]]) } : { time, values };
}

function takeRow(row: string, number: number, arrays: Arrays): void {
    try {
        const [time, path, index, cell, unit = "", label = ""] = cellsOf(row, arrays.cells);
        const milliseconds = millisecondsOf(time);
        if (index === "") arrays.single(milliseconds, path, valueOf(cell), unit, label);
        else arrays.element(milliseconds, path, Number(index), elementOf(cell), unit);
    } catch (error) {
        throw new BrokenRecording(`line ${number} is none of a recording: ${(error as Error).message}`);
    }
}

const CELL = /(?:"((?:[^"]|"")*)"|([^",]*))(,|$)/gy;

type Cells = [time: string, path: string, index: string, cell: string, unit?: string, label?: string];

function cellsOf(row: string, count: number): Cells {
    const cells: string[] = [];
    CELL.lastIndex = 0;
    for (let end = ","; end === ",";) {
        const match = CELL.exec(row);
        if (!match) throw new Error("its quotes are wrong");
        cells.push(match[1]?.replaceAll('""', '"') ?? match[2]!);
        end = match[3]!;
    }
    if (cells.length !== count) throw new Error(`it has ${cells.length} cells instead of ${count}`);
    return cells as Cells;
}

const NUMBER = /^-?\d+(?:\.\d+)?(?:e[+-]?\d+)?$/i;

function millisecondsOf(time: string): number {
    if (!NUMBER.test(time)) throw new Error("it has no time");
    return timeOf(Number(time));
}

function elementOf(cell: string): number {
    const element = notFiniteOf(cell) ?? (NUMBER.test(cell) ? Number(cell) : undefined);
    if (element === undefined) throw new Error("it is no element of an array");
    return element;
}

function valueOf(cell: string): Value {
    if (cell === "") return null;
    if (cell === "true" || cell === "false") return cell === "true";
    if (!NUMBER.test(cell)) return notFiniteOf(cell) ?? cell;
    const isLarge = /^-?\d+$/.test(cell) && !Number.isSafeInteger(Number(cell));
    return isLarge ? BigInt(cell) : Number(cell);
}
