import { bytesText, rawText, UNKNOWN, type Column } from "../model/columns";
import type { End, Extremes } from "../model/extremes";
import type { Session } from "../model/session";
import { clockText, valueText } from "../model/text";
import type { TreeNode } from "../model/tree";
import { Icon } from "./icons";

/** The columns of the table that somebody can choose to see: heads, cells, and the choice. */

const names: Record<Column, { head: string; whole: string }> = {
    min: { head: "Min", whole: "Minimum" },
    max: { head: "Max", whole: "Maximum" },
    raw: { head: "Raw", whole: "Raw number on the bus" },
    hex: { head: "Hex", whole: "Bytes, hexadecimal" },
};
const ends: Partial<Record<Column, End>> = { min: "least", max: "most" };
/** Elements of an array that a tooltip has room for. */
const MANY = 64;

/** Which columns there are; where there are no heads, it has what they have. */
export function ColumnChoices({ session }: { session: Session }) {
    const { columns } = session.view.settings;
    const choose = (column: Column, isShown: boolean) =>
        session.chooseColumns(session.columns.filter((each) => (each === column ? isShown : columns.includes(each))));
    return (
        <div class="choices" role="group" aria-label="Columns">
            {session.columns.map((column) => (
                <label key={column} class="check">
                    <input
                        type="checkbox"
                        checked={columns.includes(column)}
                        onChange={(event) => choose(column, event.currentTarget.checked)}
                    />
                    {names[column].whole}
                </label>
            ))}
            {columns.map((column) => (
                <ResetButton key={column} session={session} column={column} />
            ))}
        </div>
    );
}

function ResetButton({ session, column, small }: { session: Session; column: Column; small?: boolean }) {
    const end = ends[column];
    if (!end) return null;
    const label = `Reset the ${names[column].whole.toLowerCase()}`;
    return (
        <button
            class={small ? "square" : ""}
            aria-label={label}
            title={`${label} of all values`}
            onClick={() => session.resetExtremes(end)}
        >
            {small ? <Icon name="reset" /> : label}
        </button>
    );
}

export function ColumnHeads({ session }: { session: Session }) {
    return (
        <>
            {session.view.settings.columns.map((column) => (
                <span key={column} role="columnheader" class="number" title={names[column].whole}>
                    {names[column].head} <ResetButton session={session} column={column} small />
                </span>
            ))}
        </>
    );
}

/** What a row has in these columns. */
export function ColumnCells({ columns, node }: { columns: Column[]; node: TreeNode }) {
    return (
        <>
            {columns.map((column) => {
                const { text, title } = cellOf(column, node);
                return (
                    <div key={column} role="gridcell" class="more number" title={title}>
                        <small>{names[column].head} </small>
                        <span>{text}</span>
                    </div>
                );
            })}
        </>
    );
}

function cellOf(column: Column, { series, leaf }: TreeNode): { text: string; title: string } {
    if (!series) return { text: "", title: "" };
    const end = ends[column];
    if (end) return extremeOf(series.extremes, end, leaf);
    const textOf = column === "raw" ? rawText : bytesText;
    const text = textOf(series.reading, leaf);
    const title = textOf(series.reading, leaf, MANY);
    return { text, title: text === UNKNOWN ? "The value does not tell it" : title };
}

function extremeOf(extremes: Extremes | undefined, end: End, leaf: TreeNode["leaf"]) {
    const value = extremes?.[end];
    if (value === undefined || Math.abs(value) === Infinity) return { text: "", title: "" };
    return { text: valueText(value, leaf), title: `since ${clockText(extremes!.since[end])}` };
}
