import { useRef, useState } from "preact/hooks";
import type { Column } from "../model/columns";
import type { Session } from "../model/session";
import { Icon } from "./icons";
import { later } from "./later";

/** The place of the columns that somebody can choose to see; what is in them is loaded when there are some. */

const load = () => import("./columncells");
const ColumnChoices = later(async () => (await load()).ColumnChoices, { small: true });
export const ColumnHeads = later(async () => (await load()).ColumnHeads, { small: true });
export const ColumnCells = later(async () => (await load()).ColumnCells, { small: true });

export function ColumnMenu({ session }: { session: Session }) {
    const menu = useRef<HTMLDetailsElement>(null);
    const [isOpen, setOpen] = useState(false);
    const close = () => (menu.current!.open = false);
    return (
        <details
            ref={menu}
            class="menu"
            onToggle={(event) => setOpen(event.currentTarget.open)}
            onKeyDown={(event) => {
                if (event.key !== "Escape") return;
                close();
                menu.current!.querySelector("summary")!.focus();
            }}
            onFocusOut={(event) => {
                if (event.relatedTarget && !menu.current!.contains(event.relatedTarget as Node)) close();
            }}
        >
            <summary title="Columns">
                <Icon name="columns" /> <span class="hidden">Columns</span>
            </summary>
            {isOpen && <ColumnChoices session={session} />}
        </details>
    );
}

/** Columns that do not fit are reached by keys, too. */
export function scrollSideways(event: KeyboardEvent, grid: HTMLElement): boolean {
    const step = { ArrowLeft: -80, ArrowRight: 80 }[event.key];
    if (!event.shiftKey || step === undefined) return false;
    grid.scrollLeft += step;
    return true;
}

/** What the style sheet is told: how many columns there are. */
export function columnStyle(columns: Column[]): Record<string, string> {
    return { "--more": String(columns.length) };
}

/** Where rows have several lines, in pixels. */
const LINE = 20;

/** What these columns add to the height of rows that have them below. */
export function heightBelow(columns: Column[]): number {
    return LINE * Math.ceil(columns.length / 2);
}
