import { useEffect, useMemo, useRef, useState } from "preact/hooks";
import { dotted, leavesOf, type Leaf } from "vorbel";
import type { Draft } from "../../model/workshop/draft";
import { candidatesOf, type Candidate, type Leafish, type Selection } from "../../model/workshop/selection";
import type { Workshop } from "../../model/workshop/workshop";
import { Boundary } from "../boundary";
import { useSource } from "../frame";
import { Endpoints } from "./endpoints";
import { LeafForm } from "./form";
import { ByteGrid } from "./grid";
import { Leaves } from "./leaves";
import { identifierOf, selectionOf } from "./places";
import { LivePlot, type Curve } from "./plot";
import { Readings } from "./readings";
import { leafOf, NO_TEXTS } from "./texts";
import { SchemaTools, useFiles, useUndoKeys } from "./tools";

/** The way to read a leaf that is in the schema as it is there. */
const PRESENT = "present";

/** A leaf of the draft that is changed: where it is, and what it is. */
type Editing = { path: string; leaf: Leafish };

/** What is looked at, and how. */
type Work = {
    identifier: number | undefined;
    selection: Selection | undefined;
    key: string | undefined;
    editing: Editing | undefined;
};

const NO_WORK: Work = { identifier: undefined, selection: undefined, key: undefined, editing: undefined };

/** From frames to values with names: what talks, its bytes, how they can be read, and what is made of them. */
export function Bench({ workshop }: { workshop: Workshop }) {
    const { draft, traffic } = workshop;
    useSource(draft.source);
    const main = useRef<HTMLElement>(null);
    useEffect(() => main.current!.focus(), []); // what had it is gone
    const [work, setWork] = useState(NO_WORK);
    const [texts, setTexts] = useState(NO_TEXTS);
    const [plotted, setPlotted] = useState<string[]>([]);
    const [latest, setLatest] = useState<string>();
    const [told, tell] = useState("");
    useUndoKeys(draft, tell);
    useEffect(() => askBeforeLeaving(draft), [draft]);
    const files = useFiles(draft, tell);
    const editing = stillThere(draft, work.editing);
    const endpoint = work.identifier === undefined ? undefined : traffic.endpoints.get(work.identifier);
    const length = Math.max(0, ...(endpoint?.lengths ?? []));
    const candidates = useMemo(
        () => [...presentOf(editing), ...(work.selection ? candidatesOf(work.selection, length || undefined) : [])],
        [work.selection, editing, length],
    );
    const chosen = candidates.find(({ key }) => key === work.key) ?? candidates[0];
    const reading = chosen && withMembersOf(editing, chosen.leaf);

    const choose = (identifier: number) => setWork({ ...NO_WORK, identifier });
    const select = (selection: Selection) =>
        setWork({ ...work, editing, selection, key: work.key === PRESENT ? firstOf(selection, length) : work.key });
    const edit = (leaf: Leaf) => {
        const path = dotted(leaf.path);
        const identifier = identifierOf(leaf);
        const leafish = draft.leafAt(path)!;
        setWork({
            identifier,
            selection: selectionOf(leafish, identifier),
            key: PRESENT,
            editing: { path, leaf: leafish },
        });
    };
    const togglePlot = (path: string) =>
        setPlotted(plotted.includes(path) ? plotted.filter((each) => each !== path) : [...plotted, path]);
    const done = (path: string) => {
        setLatest(path);
        tell(editing ? `${path} is changed.` : `${path} is in the schema.`);
        if (editing) setPlotted(plotted.map((each) => (each === editing.path ? path : each)));
        setWork({ ...work, editing: undefined, key: work.key === PRESENT ? undefined : work.key });
    };
    const isReading = work.selection !== undefined || editing !== undefined;
    const present: Curve[] =
        endpoint && reading
            ? [{ name: chosen.name, identifier: endpoint.identifier, leaf: leafOf(reading, texts) }]
            : [];
    const curves = [...present, ...namedCurves(draft, plotted)];
    return (
        <main
            class="workshop"
            ref={main}
            tabIndex={-1}
            aria-label="Workshop"
            onDragOver={(event) => event.preventDefault()}
            onDrop={(event) => {
                event.preventDefault();
                const file = event.dataTransfer?.files[0];
                if (file) files.take(file);
            }}
        >
            <Boundary part="What talks">
                <Endpoints workshop={workshop} chosen={work.identifier} choose={choose} />
            </Boundary>
            <div class="work">
                {!endpoint && !editing && (
                    <p class="panel empty">
                        Choose something that talks. Then select the bytes that change when the machine does something.
                    </p>
                )}
                {endpoint && (
                    <Boundary part="The bytes">
                        <ByteGrid
                            key={endpoint.identifier}
                            workshop={workshop}
                            endpoint={endpoint}
                            selection={work.selection}
                            reading={chosen?.leaf}
                            select={select}
                        />
                    </Boundary>
                )}
                <div class="pair">
                    <div class="readings-column">
                        {isReading && (
                            <Readings
                                endpoint={endpoint}
                                candidates={candidates}
                                chosen={chosen}
                                choose={(key) => setWork({ ...work, key })}
                            />
                        )}
                        {curves.length > 0 && (
                            <Boundary part="The plot">
                                <LivePlot workshop={workshop} curves={curves} />
                            </Boundary>
                        )}
                    </div>
                    {isReading && reading && (
                        <LeafForm
                            draft={draft}
                            endpoint={endpoint}
                            reading={reading}
                            former={editing?.path}
                            texts={texts}
                            setTexts={setTexts}
                            done={done}
                            cancel={() => setWork({ ...work, editing: undefined, key: undefined })}
                        />
                    )}
                </div>
            </div>
            <section class="panel schema-panel" aria-labelledby="leaves-title">
                <div class="title">
                    <h2 id="leaves-title">Schema</h2>
                </div>
                <SchemaTools draft={draft} files={files} tell={tell} />
                <p class="told" role="status">
                    {told}
                </p>
                <Leaves
                    workshop={workshop}
                    editing={editing?.path}
                    latest={latest}
                    plotted={plotted}
                    edit={edit}
                    remove={(path) => {
                        draft.remove(path);
                        tell(`${path} is removed.`);
                    }}
                    togglePlot={togglePlot}
                />
            </section>
        </main>
    );
}

/** What was made is lost with the page. */
function askBeforeLeaving(draft: Draft): () => void {
    const ask = (event: Event) => draft.canUndo !== undefined && event.preventDefault();
    window.addEventListener("beforeunload", ask);
    return () => window.removeEventListener("beforeunload", ask);
}

/** Undone, or opened anew, it is another one. */
function stillThere(draft: Draft, editing: Editing | undefined): Editing | undefined {
    return editing && draft.leafAt(editing.path) === editing.leaf ? editing : undefined;
}

function presentOf(editing: Editing | undefined): Candidate[] {
    return editing ? [{ key: PRESENT, name: "as it is in the schema", leaf: editing.leaf }] : [];
}

function firstOf(selection: Selection, length: number): string | undefined {
    return candidatesOf(selection, length || undefined)[0]?.key;
}

/** How the bits are read belongs to a reading; what else a leaf that is changed has stays with it. */
const ARRANGEMENT = ["@mac", "@cmd", "@format", "@skip", "@mask", "@asBool", "bits", "swapped", "signed", "float"];

function withMembersOf(editing: Editing | undefined, reading: Leafish): Leafish {
    if (!editing || reading === editing.leaf) return reading;
    const kept = Object.entries(editing.leaf).filter(([name]) => !ARRANGEMENT.includes(name));
    return { ...Object.fromEntries(kept), ...reading };
}

function namedCurves(draft: Draft, plotted: readonly string[]): Curve[] {
    return plotted.flatMap((path): Curve[] => {
        const leaf = draft.leafAt(path);
        return leaf ? [{ name: path, identifier: identifierOf(leavesOf(leaf)[0]!), leaf }] : [];
    });
}
