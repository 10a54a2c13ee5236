import { useEffect, useMemo, useRef, useState } from "preact/hooks";
import { dotted, type Leaf } from "vorbel";
import { now } from "../../model/clock";
import { rateText, shown } from "../../model/text";
import type { Draft } from "../../model/workshop/draft";
import { BYTES, identifierText } from "../../model/workshop/frames";
import { payloadBits, type Leafish, type Selection } from "../../model/workshop/selection";
import type { Endpoint } from "../../model/workshop/traffic";
import type { Workshop } from "../../model/workshop/workshop";
import { repeatedly, useSource } from "../frame";
import { between, bitsOf, COLUMNS, isIn, moved, wordsOf, type Cell } from "./cells";
import { byteText, paintByte, paintText } from "./paint";

type GridProps = {
    workshop: Workshop;
    endpoint: Endpoint;
    selection: Selection | undefined;
    /** How the selection is read, which may be other bits: with the high byte first, and of three bytes. */
    reading: Leafish | undefined;
    select: (selection: Selection) => void;
};

/** The bytes of one endpoint and their bits, from which a value is selected. */
export function ByteGrid({ workshop, endpoint, selection, reading, select }: GridProps) {
    const { identifier, node, command } = endpoint;
    useSource(workshop.values, 250);
    const rows = Math.min(BYTES, Math.max(1, ...endpoint.lengths));
    const grid = useRef<HTMLDivElement>(null);
    const handling = useSelecting(grid, identifier, rows, select);
    usePainting(grid, endpoint, rows);
    const { draft } = workshop;
    const named = useMemo(() => namesByBit(draft, identifier), [draft.schema, identifier]);
    const read = new Set(reading ? payloadBits(reading) : []);
    return (
        <section class="panel bytes-panel" aria-labelledby="grid-title">
            <div class="title">
                <h2 id="grid-title">
                    {identifierText(identifier)}: node {node}, command {command}
                </h2>
                <span class="quiet">
                    {rateText(endpoint.rate(now()))} a second, {[...endpoint.lengths].sort().join(" or ")} bytes
                </span>
                <p class="quiet help" id="grid-help">
                    Press or drag over bytes or bits. Keys: arrows, space, Shift and arrows.
                </p>
            </div>
            <div
                ref={grid}
                class="byte-grid"
                role="grid"
                aria-labelledby="grid-title"
                aria-describedby="grid-help"
                aria-multiselectable="true"
                {...handling.events}
            >
                <div role="row" class="head">
                    <span role="columnheader">byte</span>
                    {[7, 6, 5, 4, 3, 2, 1, 0].map((bit) => (
                        <span key={bit} role="columnheader">
                            <span class="hidden">bit </span>
                            {bit}
                        </span>
                    ))}
                    <span role="columnheader">range</span>
                    <span role="columnheader">name</span>
                </div>
                {Array.from({ length: rows }, (_, byte) => (
                    <div role="row" key={byte}>
                        {Array.from({ length: COLUMNS }, (_, column) => (
                            <GridCell
                                key={column}
                                cell={{ byte, column }}
                                endpoint={endpoint}
                                isSelected={isIn(selection, { byte, column })}
                                isCurrent={handling.cursor.byte === byte && handling.cursor.column === column}
                                isRead={column > 0 && read.has(bitsOf({ byte, column })[0])}
                                isNamed={column > 0 && named.has(bitsOf({ byte, column })[0])}
                            />
                        ))}
                        <span role="gridcell" class="range">
                            {rangeText(endpoint, byte)}
                        </span>
                        <span role="gridcell" class="names">
                            {shown(namesOfByte(named, byte).join(", "))}
                        </span>
                    </div>
                ))}
            </div>
            <p class="selected" role="status">
                {selection ? `Selected: ${wordsOf(selection)}` : "Nothing is selected yet."}
            </p>
        </section>
    );
}

type CellProps = {
    cell: Cell;
    endpoint: Endpoint;
    isSelected: boolean;
    isCurrent: boolean;
    isRead: boolean;
    isNamed: boolean;
};

/** A byte or a bit; what it is at present is painted by usePainting(). */
function GridCell({ cell, endpoint, isSelected, isCurrent, isRead, isNamed }: CellProps) {
    const { byte, column } = cell;
    const bit = 8 - column;
    const hasChanged = column > 0 && ((endpoint.changedBits[byte]! >> bit) & 1) === 1;
    const marks = [isSelected && "selected", isRead && "read", hasChanged && "changed", isNamed && "named"].filter(
        Boolean,
    );
    return (
        <span
            role="gridcell"
            class={`${column === 0 ? "whole" : "bit"} ${marks.join(" ")}`}
            aria-selected={isSelected}
            tabIndex={isCurrent ? 0 : -1}
            data-cell={`${byte} ${column}`}
        >
            {column === 0 ? (
                <>
                    <span class="place">
                        <span class="hidden">byte </span>
                        {byte}{" "}
                    </span>
                    <span class="byte" data-byte={byte} />
                </>
            ) : (
                <>
                    <span class="hidden">bit {bit}: </span>
                    <span data-bit={`${byte} ${bit}`} />
                    {hasChanged && <span class="hidden">, has changed</span>}
                    {isNamed && <span class="hidden">, has a name</span>}
                </>
            )}
        </span>
    );
}

function rangeText({ low, high }: Endpoint, byte: number): string {
    const [least, most] = [low[byte]!, high[byte]!];
    return least === most ? byteText(least) : `${byteText(least)}–${byteText(most)}`;
}

/** The leaves of the draft that have a bit of an endpoint's payload, by the bit. */
function namesByBit(draft: Draft, identifier: number): Map<number, Leaf[]> {
    const named = new Map<number, Leaf[]>();
    for (const leaf of draft.leavesAt(identifier)) {
        for (const bit of payloadBits(draft.leafAt(dotted(leaf.path))!))
            named.set(bit, [...(named.get(bit) ?? []), leaf]);
    }
    return named;
}

function namesOfByte(named: Map<number, Leaf[]>, byte: number): string[] {
    const leaves = Array.from({ length: 8 }, (_, bit) => named.get(8 * byte + bit) ?? []).flat();
    return [...new Set(leaves)].map(({ path }) => dotted(path));
}

/** Selecting by pointer and keys. The cursor is the cell that has the focus, or will have it. */
function useSelecting(
    grid: { current: HTMLDivElement | null },
    identifier: number,
    rows: number,
    select: (selection: Selection) => void,
) {
    const [cursor, setCursor] = useState<Cell>({ byte: 0, column: 0 });
    /** Where the selection began; undefined after the cursor was moved alone. */
    const anchor = useRef<Cell | undefined>(undefined);
    const isDragging = useRef(false);
    const extendTo = (cell: Cell) => {
        anchor.current ??= cell;
        select(between(identifier, anchor.current, cell));
        setCursor(cell);
    };
    const beginAt = (cell: Cell) => {
        anchor.current = cell;
        extendTo(cell);
    };
    const goTo = (cell: Cell) => {
        setCursor(cell);
        grid.current!.querySelector<HTMLElement>(`[data-cell="${cell.byte} ${cell.column}"]`)!.focus();
    };
    const present = { byte: Math.min(cursor.byte, rows - 1), column: cursor.column };
    return {
        cursor: present,
        events: {
            onKeyDown: (event: KeyboardEvent) => {
                if (event.ctrlKey || event.altKey || event.metaKey) return;
                if (event.key === " " || event.key === "Enter") {
                    event.preventDefault();
                    beginAt(present);
                    return;
                }
                const target = moved(present, event.key, rows);
                if (!target) return;
                event.preventDefault();
                if (event.shiftKey) {
                    anchor.current ??= present;
                    extendTo(target);
                } else {
                    anchor.current = undefined;
                }
                goTo(target);
            },
            onPointerDown: (event: PointerEvent) => {
                const cell = cellOf(event.target);
                if (!cell || event.button !== 0) return;
                event.preventDefault(); // no selection of text
                grid.current!.setPointerCapture(event.pointerId);
                isDragging.current = true;
                if (event.shiftKey) extendTo(cell);
                else beginAt(cell);
                goTo(cell);
            },
            onPointerMove: (event: PointerEvent) => {
                if (!isDragging.current) return;
                const cell = cellOf(document.elementFromPoint(event.clientX, event.clientY));
                if (cell) extendTo(cell);
            },
            onPointerUp: () => void (isDragging.current = false),
            onPointerCancel: () => void (isDragging.current = false),
        },
    };
}

function cellOf(target: EventTarget | null): Cell | undefined {
    const place = (target as Element | null)?.closest<HTMLElement>("[data-cell]")?.dataset["cell"];
    if (place === undefined) return undefined;
    const [byte, column] = place.split(" ").map(Number);
    return { byte: byte!, column: column! };
}

/** Paints bytes and bits as they are, with every picture of the screen. */
function usePainting(grid: { current: HTMLDivElement | null }, endpoint: Endpoint, rows: number): void {
    useEffect(() => {
        const bytes = [...grid.current!.querySelectorAll<HTMLElement>("[data-byte]")];
        const bits = [...grid.current!.querySelectorAll<HTMLElement>("[data-bit]")];
        return repeatedly(0, () => {
            const time = now();
            const { payload } = endpoint;
            bytes.forEach((element, byte) => paintByte(element, endpoint, byte, time));
            bits.forEach((element, at) => {
                const byte = at >> 3;
                paintText(element, byte < payload.length ? String((payload[byte]! >> (7 - (at & 7))) & 1) : "");
            });
        });
    }, [endpoint, rows]);
}
