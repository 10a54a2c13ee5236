import { useLayoutEffect, useMemo, useRef, useState } from "preact/hooks";
import type { Leaf, Value } from "vorbel";
import { meantBy } from "../model/meaning";
import type { Session } from "../model/session";
import { ageText, clockText, rateText, shown, valueText, wholeText } from "../model/text";
import type { Answer, TreeNode } from "../model/tree";
import { ColumnCells, ColumnHeads, ColumnMenu, columnStyle, heightBelow, scrollSideways } from "./columns";
import { copyText } from "./copy";
import { useClock, useSource } from "./frame";
import { Icon } from "./icons";
import { lineColor } from "./lines";
import { Sparkline } from "./sparkline";

/** Text that changes more often than this cannot be read. */
const PAUSE = 100;
const SPARE_ROWS = 4;
const NARROW = 560;
/** The heights of rows in pixels; the style sheet hears of them as --row-height. */
const ROW = { wide: 38, narrow: 56 };

/** All values as a tree of their names; only the rows in sight exist. */
export function ValueTable({ session, openSchema }: { session: Session; openSchema: () => void }) {
    useSource(session.values, PAUSE);
    useClock(500);
    const { search, changing } = session.view.settings;
    const [since, setSince] = useState(changing ? session.time : undefined);
    const onlyChanging = (changing: boolean) => {
        setSince(changing ? session.time : undefined);
        session.view.set({ changing });
    };
    useSource(session.view);
    const rows = useRows(session, search, since);
    const count = rows.filter((row) => row.series || row.leaf).length;
    return (
        <section class="panel values" aria-labelledby="values-title">
            <div class="title">
                <h2 id="values-title">Values</h2>
                <span class="quiet">{count}</span>
                <FoldAll session={session} />
                <ColumnMenu session={session} />
                <button
                    aria-pressed={since !== undefined}
                    class={`square${since === undefined ? "" : " primary"}`}
                    aria-label="Only what changes from now on"
                    title="Only what changes from now on"
                    onClick={() => onlyChanging(since === undefined)}
                >
                    <Icon name="changed" />
                </button>
                <label class="search">
                    <Icon name="search" />
                    <span class="hidden">Search values</span>
                    <input
                        type="search"
                        placeholder="Search"
                        value={search}
                        onInput={(event) => session.view.set({ search: event.currentTarget.value })}
                    />
                </label>
            </div>
            {rows.length > 0 ? (
                <Grid session={session} rows={rows} searching={search !== "" || since !== undefined} />
            ) : (
                <Empty session={session} search={search} since={since} openSchema={openSchema} />
            )}
        </section>
    );
}

/** The rows, made anew only when names come or go, or are folded. */
function useRows({ tree, time }: Session, search: string, since: number | undefined): TreeNode[] {
    const second = since === undefined ? 0 : Math.floor(time / 1000); // for all that has changed meanwhile
    return useMemo(() => tree.rows(search, since), [tree.shape, search, since, second]);
}

/** Hides all groups but the outermost ones, or shows them all. */
function FoldAll({ session }: { session: Session }) {
    const { tree } = session;
    const groups = tree.groups;
    if (groups.length === 0) return null;
    const isOpen = groups.some(({ collapsed }) => !collapsed);
    const fold = () => {
        tree.foldAll(isOpen);
        session.viewChanged();
    };
    const label = isOpen ? "Fold all" : "Unfold all";
    return (
        <button class="square" onClick={fold} aria-label={label} title={label}>
            <Icon name={isOpen ? "foldAll" : "unfoldAll"} />
        </button>
    );
}

type EmptyProps = { session: Session; search: string; since: number | undefined; openSchema: () => void };

function Empty({ session, search, since, openSchema }: EmptyProps) {
    if (since !== undefined) return <p class="empty">Nothing has changed since {clockText(since)}.</p>;
    if (search) return <p class="empty">No path has all of these words.</p>;
    return (
        <div class="empty">
            <p>
                {!session.takesSchemas
                    ? "Values appear here when the board publishes them."
                    : session.state === "connected"
                      ? "No values yet. The daemon sends some as soon as a client has given it a schema."
                      : "Values appear here when a daemon is connected and has a schema."}
            </p>
            {session.takesSchemas && (
                <button class="primary" onClick={openSchema}>
                    Open a schema
                </button>
            )}
        </div>
    );
}

type GridProps = { session: Session; rows: TreeNode[]; searching: boolean };

function Grid({ session, rows, searching }: GridProps) {
    const grid = useRef<HTMLDivElement>(null);
    const [view, setView] = useState({ top: 0, height: 600, narrow: false });
    const [active, setActive] = useState<TreeNode>();
    const [copied, setCopied] = useState<TreeNode>();
    const { columns } = session.view.settings;
    const rowHeight = view.narrow ? ROW.narrow + heightBelow(columns) : ROW.wide;
    const activeIndex = active ? rows.indexOf(active) : -1;
    useView(grid, setView);

    const reveal = (index: number) => {
        const { scrollTop, clientHeight, firstElementChild } = grid.current!;
        const heads = (firstElementChild as HTMLElement).offsetHeight;
        const [top, bottom] = [index * rowHeight, heads + (index + 1) * rowHeight - clientHeight];
        grid.current!.scrollTop = Math.min(top, Math.max(scrollTop, bottom));
    };
    const goTo = (index: number) => {
        const target = Math.max(0, Math.min(rows.length - 1, index));
        setActive(rows[target]);
        reveal(target);
    };
    const pin = (node: TreeNode) => {
        session.tree.pin(node, !node.pinned);
        session.viewChanged();
    };
    const fold = (node: TreeNode, collapsed: boolean) => {
        session.tree.fold(node, collapsed);
        session.viewChanged();
    };
    const copy = (node: TreeNode) => {
        if (!node.series) return;
        void copyText(wholeText(node.series.value, node.leaf)).then((done) => setCopied(done ? node : undefined));
    };
    const press = (event: KeyboardEvent) => {
        if (scrollSideways(event, grid.current!)) return event.preventDefault();
        const isCopy = event.key.toLowerCase() === "c" && !event.altKey && !event.shiftKey;
        if (isCopy && active && document.getSelection()!.isCollapsed) {
            copy(active);
            event.preventDefault();
            return;
        }
        if (event.ctrlKey || event.metaKey || event.altKey) return; // the browser's own: printing, going back
        if (event.key === "Enter" && event.target !== grid.current) return; // a button in the row takes it
        const handled = pressed(event.key, {
            session,
            rows,
            index: activeIndex,
            page: Math.floor(view.height / rowHeight),
            goTo,
            fold,
        });
        if (handled) event.preventDefault();
    };

    const first = Math.max(0, Math.floor(view.top / rowHeight) - SPARE_ROWS);
    const last = Math.min(rows.length, Math.ceil((view.top + view.height) / rowHeight) + SPARE_ROWS);
    return (
        <>
            <div
                id="values-grid"
                class={`grid${view.narrow ? " narrow" : ""}${columns.length > 0 ? " more-columns" : ""}`}
                ref={grid}
                role="treegrid"
                aria-label="Values. Arrow keys move and fold, P plots, C copies, Enter sets."
                aria-rowcount={rows.length + 1}
                aria-activedescendant={activeIndex >= first && activeIndex < last ? active!.id : undefined}
                tabIndex={0}
                style={{ "--row-height": `${rowHeight}px`, ...columnStyle(columns) }}
                onKeyDown={press}
                onScroll={(event) => setView({ ...view, top: event.currentTarget.scrollTop })}
            >
                <Heads session={session} />
                <div class="all" role="rowgroup" style={{ height: `${rows.length * rowHeight}px` }}>
                    {rows.slice(first, last).map((node, at) => (
                        <Row
                            key={node.id}
                            session={session}
                            node={node}
                            index={first + at}
                            top={(first + at) * rowHeight}
                            active={node === active}
                            copied={node === copied}
                            copy={copy}
                            pin={pin}
                            open={searching || !node.collapsed}
                            activate={() => setActive(node)}
                            fold={fold}
                        />
                    ))}
                </div>
            </div>
            <span class="hidden" role="status">
                {copied && `Copied ${copied.dotted}`}
            </span>
        </>
    );
}

/** Stays in sight while the rows scroll; not shown where it is narrow. */
function Heads({ session }: { session: Session }) {
    return (
        <div class="heads" role="rowgroup">
            <div role="row" aria-rowindex={1}>
                <span role="columnheader">Path</span>
                <span role="columnheader" class="number">
                    Value
                </span>
                {session.view.settings.columns.length > 0 && <ColumnHeads session={session} />}
                <span role="columnheader" class="number">
                    per s
                </span>
                <span role="columnheader" class="number">
                    Age
                </span>
                <span role="columnheader">Trend</span>
                <span role="columnheader">
                    <span class="hidden">Plot and set</span>
                </span>
            </div>
        </div>
    );
}

type View = { top: number; height: number; narrow: boolean };

/** Keeps the part of the grid in sight known. */
function useView(grid: { current: HTMLDivElement | null }, setView: (change: (view: View) => View) => void): void {
    useLayoutEffect(() => {
        const measure = () => {
            const { scrollTop: top, clientHeight: height, clientWidth: width } = grid.current!;
            setView(() => ({ top, height, narrow: width < NARROW }));
        };
        const observer = new ResizeObserver(measure);
        observer.observe(grid.current!);
        return () => observer.disconnect();
    }, []);
}

type Place = {
    session: Session;
    rows: TreeNode[];
    index: number;
    page: number;
    goTo: (index: number) => void;
    fold: (node: TreeNode, collapsed: boolean) => void;
};

/** What a key does in the grid; false when nothing. */
function pressed(key: string, { session, rows, index, page, goTo, fold }: Place): boolean {
    const moves: Record<string, number> = {
        ArrowDown: index + 1,
        ArrowUp: index - 1,
        PageDown: index + page,
        PageUp: index - page,
        Home: 0,
        End: rows.length - 1,
    };
    const node = rows[index];
    const isBranch = node !== undefined && node.children.size > 0;
    if (key in moves) goTo(moves[key]!);
    else if (!node) return false;
    else if (key === "ArrowRight" && isBranch && node.collapsed) fold(node, false);
    else if (key === "ArrowRight" && isBranch) goTo(index + 1);
    else if (key === "ArrowLeft" && isBranch && !node.collapsed) fold(node, true);
    else if (key === "ArrowLeft") goTo(rows.indexOf(node.parent!));
    else if (key === "Enter" && isValue(node)) session.startWriting(node);
    else if (key.toLowerCase() === "p" && isValue(node)) session.togglePlot(node);
    else return false;
    return true;
}

function isValue(node: TreeNode): boolean {
    return node.series !== undefined || node.leaf !== undefined;
}

type RowProps = {
    session: Session;
    node: TreeNode;
    index: number;
    top: number;
    active: boolean;
    copied: boolean;
    copy: (node: TreeNode) => void;
    pin: (node: TreeNode) => void;
    open: boolean;
    activate: () => void;
    fold: (node: TreeNode, collapsed: boolean) => void;
};

function Row({ session, node, index, top, active, copied, copy, pin, open, activate, fold }: RowProps) {
    const branch = node.children.size > 0;
    return (
        <div
            id={node.id}
            class={`row${active ? " active" : ""}${copied ? " copied" : ""}${isValue(node) ? "" : " branch"}`}
            role="row"
            aria-rowindex={index + 2}
            aria-level={Math.max(1, node.depth)}
            aria-expanded={branch ? open : undefined}
            aria-selected={active}
            style={{ transform: `translateY(${top}px)` }}
            onDblClick={(event) => (event.target as Element).closest(".value") && copy(node)}
            onClick={() => {
                activate();
                if (branch && !isValue(node)) fold(node, !node.collapsed);
            }}
        >
            <div
                role="gridcell"
                class="name"
                style={{ paddingLeft: indentation(node.pinned ? 0 : node.depth - 1) }}
                title={hintOf(node)}
                data-path={node.dotted}
            >
                {branch ? (
                    <button
                        class={`fold${open ? " open" : ""}`}
                        tabIndex={-1}
                        aria-label={open ? "Fold" : "Unfold"}
                        onClick={(event) => {
                            event.stopPropagation(); // the row would fold it back
                            fold(node, !node.collapsed);
                        }}
                    >
                        <Icon name="open" />
                    </button>
                ) : (
                    <button
                        class="fold pin"
                        tabIndex={active ? 0 : -1}
                        aria-pressed={node.pinned}
                        aria-label="Keep at the top"
                        title={node.pinned ? "Back to its place" : "Keep at the top"}
                        onClick={() => pin(node)}
                    >
                        <Icon name="pin" />
                    </button>
                )}
                <span>{node.pinned ? node.dotted : node.label}</span>
            </div>
            {isValue(node) && <Cells session={session} node={node} active={active} />}
        </div>
    );
}

/** Its path, and what its schema says of it. */
function hintOf({ dotted, leaf }: TreeNode): string {
    const { title = "", description = "" } = leaf?.meaning ?? {};
    return [dotted, shown(title), shown(description)].filter(Boolean).join("\n");
}

/** By level, until too little would be left of the name. */
function indentation(levels: number): string {
    return `min(${16 * levels}px, 20% + ${2 * levels}px)`;
}

function Cells({ session, node, active }: { session: Session; node: TreeNode; active: boolean }) {
    const { reading: series, leaf } = node;
    const { columns } = session.view.settings;
    const { time } = session;
    const rate = series?.rate.at(time);
    const age = series && time - series.time;
    const stale = series?.isOverdue(time, leaf) ?? false;
    const beyond = session.guard?.sideOf(node.path);
    const isWarned = session.guard?.isWarned(node.path) ?? false;
    const mark = beyond ? (isWarned ? " warned" : " beyond") : "";
    const writable = session.refusalOf(node) === undefined;
    const line = session.plots.lineOf(node);
    return (
        <>
            <div role="gridcell" class={`value number${stale ? " stale" : ""}${mark}`}>
                {beyond && (
                    <b title={`${isWarned ? "A warning" : "In alarm"}: too ${beyond}`}>
                        {beyond === "high" ? "▲ high " : "▼ low "}
                    </b>
                )}
                <Shown node={node} />
                {node.answer && <AnswerMark answer={node.answer} />}
            </div>
            {columns.length > 0 && <ColumnCells columns={columns} node={node} />}
            <div role="gridcell" class="rate number">
                {series && rateText(rate)}
            </div>
            <div role="gridcell" class={`age number${stale ? " stale" : ""}`} title={stale ? "Overdue" : undefined}>
                {age === undefined ? "" : ageText(age)}
            </div>
            <div role="gridcell" class="course">
                {series && <Sparkline series={series} holds={series.holds(leaf)} />}
            </div>
            <div role="gridcell" class="buttons">
                {node.series && (
                    <button
                        class="square plot"
                        style={line === undefined ? undefined : { "--line": lineColor(line) }}
                        tabIndex={active ? 0 : -1}
                        aria-pressed={line !== undefined}
                        aria-label={`Plot ${node.dotted}`}
                        title={line !== undefined ? "Take off the plot" : "Plot"}
                        onClick={() => session.togglePlot(node)}
                    >
                        <Icon name="plot" />
                    </button>
                )}
                {leaf && !session.isPast && (
                    <button
                        class="square"
                        tabIndex={active ? 0 : -1}
                        aria-label={writable ? `Set ${node.dotted}` : `Why ${node.dotted} cannot be set`}
                        title={writable ? "Set" : "Read-only"}
                        onClick={() => session.startWriting(node)}
                    >
                        <Icon name={writable ? "set" : "lock"} />
                    </button>
                )}
            </div>
        </>
    );
}

/** What became of the last write. */
function AnswerMark({ answer: { ok, text, time } }: { answer: Answer }) {
    const told = `${ok ? "Done" : "Not done"} at ${clockText(time)}: ${text}`;
    return (
        <small class={`answer ${ok ? "done" : "problem"}`} title={told}>
            <span aria-hidden="true">{ok ? " ✓" : " ✗"}</span>
            <span class="hidden">{told}</span>
        </small>
    );
}

/** The present reading; of what is only written, what was last sent. */
function Shown({ node: { reading: series, sent, leaf } }: { node: TreeNode }) {
    if (!series) return <span class="quiet">{sent === undefined ? "–" : `sent ${sentText(sent, leaf)}`}</span>;
    const text = valueText(series.value, leaf);
    return (
        <span class={series.isFlag ? `flag ${series.value === true}` : ""} title={text}>
            {text}
        </span>
    );
}

function sentText(sent: Value, leaf: Leaf | undefined): string {
    return valueText(leaf ? meantBy(leaf, sent) : sent, leaf);
}
