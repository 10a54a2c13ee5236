import { useEffect, useMemo, useRef, useState } from "preact/hooks";
import { dotted, type Leaf } from "vorbel";
import { shown } from "../../model/text";
import { identifierText } from "../../model/workshop/frames";
import { textIn } from "../../model/workshop/selection";
import type { Workshop } from "../../model/workshop/workshop";
import { repeatedly, useSource } from "../frame";
import { Icon } from "../icons";
import { paintText } from "./paint";
import { identifierOf } from "./places";

/** More are found by their names. */
const SHOWN = 100;

type LeavesProps = {
    workshop: Workshop;
    editing: string | undefined;
    /** The one that was added or changed last, which stays in sight. */
    latest: string | undefined;
    plotted: readonly string[];
    edit: (leaf: Leaf) => void;
    remove: (path: string) => void;
    togglePlot: (path: string) => void;
};

/** The leaves of the schema that is being made. */
export function Leaves({ workshop, editing, latest, plotted, edit, remove, togglePlot }: LeavesProps) {
    const { draft } = workshop;
    useSource(draft.source);
    const [search, setSearch] = useState("");
    const list = useRef<HTMLUListElement>(null);
    const all = useMemo(() => draft.leaves, [draft.schema]);
    const found = all.filter(({ path }) => dotted(path).toLowerCase().includes(search.trim().toLowerCase()));
    const leaves = found.slice(0, SHOWN);
    usePainting(list, workshop, leaves);
    useEffect(() => list.current!.querySelector(".latest")?.scrollIntoView({ block: "nearest" }), [latest]);
    return (
        <>
            {all.length > 8 && (
                <input
                    class="search-leaves"
                    type="search"
                    aria-label="Search the schema"
                    placeholder="Search the schema"
                    value={search}
                    onInput={(event) => setSearch(event.currentTarget.value)}
                />
            )}
            {all.length === 0 && <p class="empty">Nothing has a name yet.</p>}
            <ul ref={list} class="leaves" aria-labelledby="leaves-title">
                {leaves.map((leaf) => {
                    const path = dotted(leaf.path);
                    const isPlotted = plotted.includes(path);
                    const marks = [path === editing && "chosen", path === latest && "latest"].filter(Boolean);
                    return (
                        <li key={path} class={marks.join(" ")}>
                            <button class="name" title={`Change ${shown(path)}`} onClick={() => edit(leaf)}>
                                <span class="hidden">Change </span>
                                {shown(path)}
                            </button>
                            <code class="quiet">{identifierText(identifierOf(leaf))}</code>
                            <span class="number" />
                            <button
                                class="square"
                                aria-label={`Plot ${shown(path)}`}
                                title="Plot"
                                aria-pressed={isPlotted}
                                onClick={() => togglePlot(path)}
                            >
                                <Icon name="plot" />
                            </button>
                            <button
                                class="square"
                                aria-label={`Remove ${shown(path)}`}
                                title="Remove"
                                onClick={() => remove(path)}
                            >
                                <Icon name="close" />
                            </button>
                        </li>
                    );
                })}
            </ul>
            {found.length > leaves.length && (
                <p class="quiet more">… and {found.length - leaves.length} more: search for them.</p>
            )}
        </>
    );
}

/** Paints what the leaves are at present. */
function usePainting(list: { current: HTMLUListElement | null }, workshop: Workshop, leaves: Leaf[]): void {
    const present = useRef(leaves);
    present.current = leaves;
    useEffect(
        () =>
            repeatedly(250, () => {
                const places = list.current?.querySelectorAll(".number") ?? [];
                for (const [at, leaf] of present.current.entries()) {
                    const place = places[at];
                    const endpoint = workshop.traffic.endpoints.get(identifierOf(leaf));
                    const leafish = workshop.draft.leafAt(dotted(leaf.path));
                    if (place && leafish) paintText(place, endpoint ? textIn(leafish, endpoint.payload) : "–");
                }
            }),
        [workshop],
    );
}
