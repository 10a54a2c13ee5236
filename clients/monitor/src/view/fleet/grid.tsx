import { useLayoutEffect, useRef, useState } from "preact/hooks";
import { now, wallClock } from "../../model/clock";
import { MOST_COLUMNS, type Board, type Fleet, type SortKey } from "../../model/fleet/fleet";
import type { FleetPlots } from "../../model/fleet/plots";
import type { Mark } from "../../model/limits";
import { ageText, shown, stampText } from "../../model/text";
import { scrollSideways } from "../columns";
import { useClock, useSource } from "../frame";
import { Icon } from "../icons";
import { lineColor } from "../lines";

/** Text that changes more often than this cannot be read. */
const PAUSE = 100;
const SPARE_ROWS = 4;
/** The height of rows in pixels; the style sheet hears of it as --row-height. */
const ROW = 38;
/** What each chosen value takes of a row's width. */
const TRACK = "minmax(7.75rem, 1fr) ";
/** Paths that are offered to choose from. */
const MOST_OFFERED = 2000;

type GridProps = { fleet: Fleet; plots: FleetPlots; open: (board: Board) => void };

/** All boards, one a row; only the rows in sight exist. */
export function BoardGrid({ fleet, plots, open }: GridProps) {
    useSource(fleet, PAUSE);
    useClock(1000);
    const [search, setSearch] = useState("");
    const rows = fleet.rows(search);
    return (
        <section class="panel values" aria-labelledby="boards-title">
            <div class="title">
                <h2 id="boards-title">Boards</h2>
                <span class="quiet">{rows.length}</span>
                <AddColumn fleet={fleet} />
                <label class="search">
                    <Icon name="search" />
                    <span class="hidden">Search boards</span>
                    <input
                        type="search"
                        placeholder="Search"
                        value={search}
                        onInput={(event) => setSearch(event.currentTarget.value)}
                    />
                </label>
            </div>
            {rows.length > 0 ? (
                <Grid fleet={fleet} plots={plots} open={open} rows={rows} />
            ) : (
                <p class="empty">
                    {search
                        ? "No board has all of these words."
                        : `Boards appear here as soon as their gateways publish below ${shown(fleet.prefix)}.`}
                </p>
            )}
        </section>
    );
}

/** Chooses one more value to see of each board. */
function AddColumn({ fleet }: { fleet: Fleet }) {
    const [text, setText] = useState("");
    const [problem, setProblem] = useState<string>();
    const offered = useOffered(fleet);
    const add = (event: Event) => {
        event.preventDefault();
        const problem = fleet.addColumn(text);
        setProblem(problem);
        if (problem === undefined) setText("");
    };
    return (
        <form class="add-column" onSubmit={add}>
            <label>
                <span class="hidden">Value to show of each board</span>
                <input
                    value={text}
                    list="paths"
                    placeholder="Show a value: motor.speed"
                    onInput={(event) => {
                        setText(event.currentTarget.value);
                        setProblem(undefined);
                    }}
                    autocomplete="off"
                    autocapitalize="off"
                    spellcheck={false}
                    aria-invalid={problem !== undefined}
                    aria-describedby="column-problem"
                />
            </label>
            <datalist id="paths">
                {offered.map((path) => (
                    <option key={path} value={path} />
                ))}
            </datalist>
            <button type="submit" disabled={fleet.columns.length >= MOST_COLUMNS}>
                Show
            </button>
            <span id="column-problem" class="problem" role="alert">
                {problem}
            </span>
        </form>
    );
}

/** The paths of all schemas, sorted anew only when there are others. */
function useOffered({ shelf }: Fleet): string[] {
    const kept = useRef<{ shape: number; paths: string[] }>({ shape: -1, paths: [] });
    if (kept.current.shape !== shelf.shape) kept.current = { shape: shelf.shape, paths: shelf.paths(MOST_OFFERED) };
    return kept.current.paths;
}

function Grid({ fleet, plots, open, rows }: GridProps & { rows: Board[] }) {
    const grid = useRef<HTMLDivElement>(null);
    const [view, setView] = useState({ top: 0, height: 600 });
    const [active, setActive] = useState<Board>();
    const activeIndex = active ? rows.indexOf(active) : -1;
    useLayoutEffect(() => {
        const measure = () => setView({ top: grid.current!.scrollTop, height: grid.current!.clientHeight });
        const observer = new ResizeObserver(measure);
        observer.observe(grid.current!);
        return () => observer.disconnect();
    }, []);
    const goTo = (index: number) => {
        const target = Math.max(0, Math.min(rows.length - 1, index));
        setActive(rows[target]);
        const { scrollTop, clientHeight, firstElementChild } = grid.current!;
        const heads = (firstElementChild as HTMLElement).offsetHeight;
        const [top, bottom] = [target * ROW, heads + (target + 1) * ROW - clientHeight];
        grid.current!.scrollTop = Math.min(top, Math.max(scrollTop, bottom));
    };
    const press = (event: KeyboardEvent) => {
        if (scrollSideways(event, grid.current!)) return event.preventDefault();
        if (event.ctrlKey || event.metaKey || event.altKey || event.target !== grid.current) return;
        const page = Math.floor(view.height / ROW);
        const moves: Record<string, number> = {
            ArrowDown: activeIndex + 1,
            ArrowUp: activeIndex - 1,
            PageDown: activeIndex + page,
            PageUp: activeIndex - page,
            Home: 0,
            End: rows.length - 1,
        };
        if (event.key in moves) goTo(moves[event.key]!);
        else if (event.key === "Enter" && activeIndex >= 0) open(active!);
        else return;
        event.preventDefault();
    };
    const count = fleet.columns.length;
    const first = Math.max(0, Math.floor(view.top / ROW) - SPARE_ROWS);
    const last = Math.min(rows.length, Math.ceil((view.top + view.height) / ROW) + SPARE_ROWS);
    return (
        <div
            id="boards-grid"
            class="grid boards"
            ref={grid}
            role="grid"
            aria-label="Boards. Arrow keys move, Enter opens."
            aria-rowcount={rows.length + 1}
            aria-activedescendant={activeIndex >= first && activeIndex < last ? idOf(active!) : undefined}
            tabIndex={0}
            style={{ "--row-height": `${ROW}px`, "--more": String(count), "--tracks": TRACK.repeat(count) }}
            onKeyDown={press}
            onScroll={(event) => setView({ ...view, top: event.currentTarget.scrollTop })}
        >
            <Heads fleet={fleet} />
            <div class="all" role="rowgroup" style={{ height: `${rows.length * ROW}px` }}>
                {rows.slice(first, last).map((board, at) => (
                    <Row
                        key={board.number}
                        fleet={fleet}
                        plots={plots}
                        board={board}
                        index={first + at}
                        isActive={board === active}
                        activate={() => setActive(board)}
                        open={open}
                    />
                ))}
            </div>
        </div>
    );
}

function idOf({ number }: Board): string {
    return `board-${number}`;
}

/** What all boards have. */
const HEADS: [SortKey & string, string][] = [
    ["mark", "State"],
    ["name", "Board"],
    ["type", "Type"],
    ["since", "Online since"],
    ["lost", "Lost"],
];

function Heads({ fleet }: { fleet: Fleet }) {
    return (
        <div class="heads" role="rowgroup">
            <div role="row" aria-rowindex={1}>
                {HEADS.map(([key, text]) => (
                    <Head key={key} fleet={fleet} sortKey={key} text={text} />
                ))}
                {fleet.columns.map((path) => (
                    <Head key={path} fleet={fleet} sortKey={{ path }} text={shown(path)}>
                        <button
                            class="fold"
                            aria-label={`Show ${shown(path)} no longer`}
                            title="Show it no longer"
                            onClick={() => fleet.removeColumn(path)}
                        >
                            <Icon name="close" />
                        </button>
                    </Head>
                ))}
            </div>
        </div>
    );
}

type HeadProps = { fleet: Fleet; sortKey: SortKey; text: string; children?: preact.ComponentChildren };

function Head({ fleet, sortKey, text, children }: HeadProps) {
    const { key, descending } = fleet.sorting;
    const isSorted = JSON.stringify(key) === JSON.stringify(sortKey);
    return (
        <span role="columnheader" aria-sort={isSorted ? (descending ? "descending" : "ascending") : "none"}>
            <button class="sort" title={`Sort by ${text}`} onClick={() => fleet.sortBy(sortKey)}>
                <span>{text}</span>
                {isSorted && <span aria-hidden="true">{descending ? "▼" : "▲"}</span>}
            </button>
            {children}
        </span>
    );
}

type RowProps = {
    fleet: Fleet;
    plots: FleetPlots;
    board: Board;
    index: number;
    isActive: boolean;
    activate: () => void;
    open: (board: Board) => void;
};

function Row({ fleet, plots, board, index, isActive, activate, open }: RowProps) {
    const { label, type, online, since, lost, mark } = board;
    return (
        <div
            id={idOf(board)}
            class={`row${isActive ? " active" : ""}${online ? "" : " offline"}`}
            role="row"
            aria-rowindex={index + 2}
            aria-selected={isActive}
            style={{ transform: `translateY(${index * ROW}px)` }}
            onClick={activate}
        >
            <div role="gridcell" class={`board-state${classOf(mark)}`}>
                <span class={`dot${online ? " on" : ""}`} />
                {mark ? `${mark.level === "warn" ? "warning" : "alarm"}` : online ? "online" : "offline"}
            </div>
            <div role="gridcell" class="name" data-board={label}>
                <button class="open" tabIndex={isActive ? 0 : -1} title={`Open ${label}`} onClick={() => open(board)}>
                    {label}
                </button>
            </div>
            <div role="gridcell" class="text" title={type}>
                {type || "–"}
            </div>
            <div role="gridcell" class="number" title={since === undefined ? undefined : stampText(since)}>
                {since === undefined ? "–" : ageText(wallClock.at(now()) - since)}
            </div>
            <div role="gridcell" class="number">
                {lost ?? "–"}
            </div>
            {fleet.columns.map((path) => (
                <ValueCell key={path} plots={plots} board={board} path={path} isActive={isActive} />
            ))}
        </div>
    );
}

function classOf(mark: Mark | undefined): string {
    if (!mark) return "";
    return mark.level === "warn" ? " warned" : " beyond";
}

type CellProps = { plots: FleetPlots; board: Board; path: string; isActive: boolean };

/** A value, which is drawn when it is pressed. */
function ValueCell({ plots, board, path, isActive }: CellProps) {
    const cell = board.cells.get(path);
    if (!cell)
        return (
            <div role="gridcell" class="value number quiet">
                –
            </div>
        );
    const { mark, text } = cell;
    const line = plots.lineAt(board, path);
    return (
        <div role="gridcell" class={`value number${classOf(mark)}`} data-path={path}>
            <button
                class="plot"
                style={line === undefined ? undefined : { "--line": lineColor(line) }}
                tabIndex={isActive ? 0 : -1}
                aria-pressed={line !== undefined}
                aria-label={`${text}: plot ${shown(path)} of ${board.label}`}
                title={line === undefined ? "Plot" : "Take off the plot"}
                onClick={() => plots.toggle(board, path)}
            >
                {mark && (mark.side === "high" ? "▲ " : "▼ ")}
                {text}
            </button>
        </div>
    );
}
