import { useEffect, useMemo, useState } from "preact/hooks";
import { shown } from "../../model/text";
import type { Exported } from "../../model/workshop/dbc";
import type { Draft } from "../../model/workshop/draft";
import { download } from "../download";
import { FileButton } from "../filebutton";
import { useSource } from "../frame";
import { Icon } from "../icons";
import { ProblemItems } from "../problems";
import { FileReport, type Report } from "./report";

/** Files that are taken into the draft or made of it, and what became of the last one. */
export type Files = {
    open: (file: File) => void;
    importDbc: (file: File) => void;
    exportDbc: () => void;
    /** What the name says that it is. */
    take: (file: File) => void;
    problem: string | undefined;
    report: Report | undefined;
    closeReport: () => void;
};

export function useFiles(draft: Draft, tell: (what: string) => void): Files {
    const [problem, setProblem] = useState<string>();
    const [report, setReport] = useState<Report>();
    const attempt = (act: (file: File) => Promise<void>) => (file: File) => {
        setProblem(undefined);
        act(file).catch((error: Error) => setProblem(`${file.name}: ${error.message}`));
    };
    const open = attempt(async (file) => {
        draft.load(await file.text());
        tell(`${file.name} is open.`);
    });
    const importDbc = attempt(async (file) => {
        const content = new Uint8Array(await file.arrayBuffer());
        const dbc = await import("../../model/workshop/dbc");
        try {
            const imported = dbc.importDbc(content);
            setReport({ kind: "import", name: file.name, ...imported, ...draft.merge(imported.schema) });
            tell(`${file.name} is imported.`);
        } catch (error) {
            if (!(error instanceof dbc.NothingImported)) throw error;
            const { outcomes, notes } = error;
            setReport({ kind: "import", name: file.name, outcomes, notes, added: 0, renamed: [] });
        }
    });
    const exportDbc = () => {
        setProblem(undefined);
        exported(draft).then(
            (made) => {
                setReport({ kind: "export", name: DBC_NAME, ...made });
                if (made.content) tell(`${DBC_NAME} is exported.`);
            },
            (error: Error) => setProblem(`Nothing was exported. ${error.message}.`),
        );
    };
    const take = (file: File) => (/\.dbc$/i.test(file.name) ? importDbc : open)(file);
    return { open, importDbc, exportDbc, take, problem, report, closeReport: () => setReport(undefined) };
}

const DBC_NAME = "vorbel.dbc";

/** Lets the browser save a DBC file, if there is one. Throws an error that says why there cannot be one. */
async function exported(draft: Draft): Promise<Exported> {
    const obstacle = obstacleTo(draft);
    if (obstacle !== undefined) throw new Error(obstacle);
    const dbc = await import("../../model/workshop/dbc");
    const made = dbc.exportDbc(draft.schema);
    if (made.content) download(new Blob([made.content]), DBC_NAME);
    return made;
}

/** Why a schema cannot be that of the daemon, or of a file. */
export function obstacleTo(draft: Draft): string | undefined {
    if (draft.leaves.length === 0) return "Nothing has a name yet";
    const isWrong = draft.problems().some(({ severity }) => severity === "error");
    return isWrong ? "The schema has problems, which are listed above its values" : undefined;
}

type ToolsProps = { draft: Draft; files: Files; tell: (what: string) => void };

/** Steps back and forth, files, and what is wrong with the schema. */
export function SchemaTools({ draft, files, tell }: ToolsProps) {
    useSource(draft.source);
    const { problem, report } = files;
    return (
        <>
            <div class="actions schema-tools">
                <button
                    disabled={draft.canUndo === undefined}
                    title={titleOf("Undo", draft.canUndo, "Ctrl+Z")}
                    onClick={() => undo(draft, tell)}
                >
                    <Icon name="undo" /> Undo
                </button>
                <button
                    disabled={draft.canRedo === undefined}
                    title={titleOf("Redo", draft.canRedo, "Ctrl+Shift+Z")}
                    onClick={() => redo(draft, tell)}
                >
                    <Icon name="redo" /> Redo
                </button>
                <FileButton
                    label="Open schema file…"
                    name="Schema file"
                    accept=".json,application/json"
                    take={files.open}
                >
                    Open…
                </FileButton>
                <button title="Save as file" onClick={() => save(draft)}>
                    Save as file
                </button>
                <button title="Save as a DBC file" onClick={files.exportDbc}>
                    Export DBC
                </button>
                <FileButton label="Import DBC…" name="DBC file" accept=".dbc" take={files.importDbc}>
                    Import DBC…
                </FileButton>
            </div>
            {problem !== undefined && (
                <p class="problem told" role="alert">
                    {shown(problem)}
                </p>
            )}
            <Problems draft={draft} />
            {report && <FileReport report={report} draft={draft} close={files.closeReport} />}
        </>
    );
}

function titleOf(what: string, step: string | undefined, keys: string): string {
    return step === undefined ? `Nothing to ${what.toLowerCase()}` : `${what}: ${shown(step)} (${keys})`;
}

function undo(draft: Draft, tell: (what: string) => void): void {
    const step = draft.canUndo;
    if (step === undefined) return;
    draft.undo();
    tell(`Undone: ${step}`);
}

function redo(draft: Draft, tell: (what: string) => void): void {
    const step = draft.canRedo;
    if (step === undefined) return;
    draft.redo();
    tell(`Done again: ${step}`);
}

function save(draft: Draft): void {
    download(new Blob([`${draft.text}\n`], { type: "application/json" }), "vorbel.schema.json");
}

/** Ctrl+Z and Ctrl+Shift+Z, save where they are for a text that is being typed. */
export function useUndoKeys(draft: Draft, tell: (what: string) => void): void {
    useEffect(() => {
        const take = (event: KeyboardEvent) => {
            const { target, ctrlKey, metaKey, shiftKey } = event;
            const isTyping = target instanceof HTMLInputElement && target.type !== "radio" && target.value !== "";
            if (event.key.toLowerCase() !== "z" || !(ctrlKey || metaKey) || isTyping || event.altKey) return;
            event.preventDefault();
            (shiftKey ? redo : undo)(draft, tell);
        };
        window.addEventListener("keydown", take);
        return () => window.removeEventListener("keydown", take);
    }, [draft]);
}

/** More are told by their number. */
const SHOWN = 20;

/** What is wrong or doubtful in the schema. */
function Problems({ draft }: { draft: Draft }) {
    const problems = useMemo(() => draft.problems(), [draft.schema]);
    if (problems.length === 0) return null;
    return (
        <ul class="problems" aria-label="Problems of the schema" tabIndex={0}>
            <ProblemItems problems={problems} most={SHOWN} />
        </ul>
    );
}
