import { useLayoutEffect, useRef } from "preact/hooks";
import { shown } from "../../model/text";
import type { Outcome } from "../../model/workshop/dbc";
import type { Draft } from "../../model/workshop/draft";

/** What became of an imported file. */
export type Report = {
    name: string;
    outcomes: readonly Outcome[];
    notes: readonly string[];
    added: number;
    renamed: string[];
};

const verdicts = ["exact", "read-only", "not possible"] as const;

/** Tells what has come out of a file, and why the rest has not; it can be taken back at once. */
export function ImportReport({ report, draft, close }: { report: Report; draft: Draft; close: () => void }) {
    const dialog = useRef<HTMLDialogElement>(null);
    useLayoutEffect(() => dialog.current!.showModal(), []); // before any further key
    const { name, outcomes, notes, added, renamed } = report;
    const told = outcomes.filter(({ why }) => why !== "");
    return (
        <dialog
            ref={dialog}
            class="report"
            onClose={close}
            aria-labelledby="report-title"
            aria-describedby="report-sum"
        >
            <h2 id="report-title">
                {added > 0 ? "Imported" : "Nothing was imported from"} {shown(name)}
            </h2>
            <p id="report-sum" role="status">
                {sumText(outcomes)} {added} added to the schema.
            </p>
            {told.length + notes.length + renamed.length > 0 && (
                <div class="reasons" tabIndex={0} role="region" aria-label="Reasons">
                    <ul>
                        {told.map(({ path, verdict, why }) => (
                            <li key={path}>
                                <b>{shown(path)}</b> {verdict}: {shown(why)}
                            </li>
                        ))}
                        {renamed.map((path) => (
                            <li key={path}>
                                <b>{shown(path)}</b> has a number, since its name is taken.
                            </li>
                        ))}
                        {notes.map((note) => (
                            <li key={note} class="quiet">
                                {shown(note)}
                            </li>
                        ))}
                    </ul>
                </div>
            )}
            <div class="actions end">
                <button
                    onClick={() => {
                        draft.undo();
                        dialog.current!.close();
                    }}
                    disabled={added === 0}
                >
                    Undo the import
                </button>
                <button class="primary" onClick={() => dialog.current!.close()}>
                    Close
                </button>
            </div>
        </dialog>
    );
}

/** "12 signals: 10 exact, 1 read-only, 1 not possible." */
function sumText(outcomes: readonly Outcome[]): string {
    const counts = verdicts.map(
        (verdict) => `${outcomes.filter((each) => each.verdict === verdict).length} ${verdict}`,
    );
    return `${outcomes.length} ${outcomes.length === 1 ? "signal" : "signals"}: ${counts.join(", ")}.`;
}
