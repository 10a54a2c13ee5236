import type { ComponentChildren } from "preact";
import { useLayoutEffect, useRef } from "preact/hooks";
import { shown } from "../../model/text";
import type { Exported, ExportOutcome, ExportVerdict, Outcome, Verdict } from "../../model/workshop/dbc";
import type { Draft } from "../../model/workshop/draft";

/** What became of an imported file, or of the values in an exported one. */
export type Report = ImportReport | ExportReport;

type ImportReport = {
    kind: "import";
    name: string;
    outcomes: readonly Outcome[];
    notes: readonly string[];
    added: number;
    renamed: string[];
};

type ExportReport = { kind: "export"; name: string } & Exported;

type ReportProps<R> = { report: R; draft: Draft; close: () => void };

export function FileReport({ report, draft, close }: ReportProps<Report>) {
    if (report.kind === "export") return <OfExport report={report} close={close} />;
    return <OfImport report={report} draft={draft} close={close} />;
}

const IMPORTED: readonly Verdict[] = ["exact", "read-only", "not possible"];
const EXPORTED: readonly ExportVerdict[] = ["exact", "incomplete", "not possible"];

/** Tells what has come out of a file, and why the rest has not; it can be taken back at once. */
function OfImport({ report, draft, close }: ReportProps<ImportReport>) {
    const { name, outcomes, notes, added, renamed } = report;
    const undo = (leave: () => void) => {
        draft.undo();
        leave();
    };
    return (
        <ReportDialog
            title={`${added > 0 ? "Imported" : "Nothing was imported from"} ${shown(name)}`}
            sum={`${sumText(outcomes, "signal", IMPORTED)} ${added} added to the schema.`}
            reasons={[
                ...reasonsOf(outcomes),
                ...renamed.map((path) => (
                    <li key={path}>
                        <b>{shown(path)}</b> has a number, since its name is taken.
                    </li>
                )),
                ...notes.map((note) => (
                    <li key={note} class="quiet">
                        {shown(note)}
                    </li>
                )),
            ]}
            close={close}
            action={(leave) => (
                <button onClick={() => undo(leave)} disabled={added === 0}>
                    Undo the import
                </button>
            )}
        />
    );
}

/** Tells what a file says of the values, and what it has no words for. */
function OfExport({ report, close }: Omit<ReportProps<ExportReport>, "draft">) {
    const { name, outcomes, messages } = report;
    return (
        <ReportDialog
            title={messages > 0 ? `Exported ${name}` : "Nothing was exported"}
            sum={`${sumText(outcomes, "value", EXPORTED)} ${counted(messages, "message")} in the file.`}
            reasons={reasonsOf(outcomes)}
            close={close}
        />
    );
}

type DialogProps = {
    title: string;
    sum: string;
    reasons: ComponentChildren[];
    close: () => void;
    /** Stands before the button that closes. */
    action?: (leave: () => void) => ComponentChildren;
};

function ReportDialog({ title, sum, reasons, close, action }: DialogProps) {
    const dialog = useRef<HTMLDialogElement>(null);
    useLayoutEffect(() => dialog.current!.showModal(), []); // before any further key
    const leave = () => dialog.current!.close();
    return (
        <dialog
            ref={dialog}
            class="report"
            onClose={close}
            aria-labelledby="report-title"
            aria-describedby="report-sum"
        >
            <h2 id="report-title">{title}</h2>
            <p id="report-sum" role="status">
                {sum}
            </p>
            {reasons.length > 0 && (
                <div class="reasons" tabIndex={0} role="region" aria-label="Reasons">
                    <ul>{reasons}</ul>
                </div>
            )}
            <div class="actions end">
                {action?.(leave)}
                <button class="primary" onClick={leave}>
                    Close
                </button>
            </div>
        </dialog>
    );
}

/** Of what has some. */
function reasonsOf(outcomes: readonly (Outcome | ExportOutcome)[]): ComponentChildren[] {
    const told = outcomes.filter(({ why }) => why !== "");
    return told.map(({ path, verdict, why }) => (
        <li key={path}>
            <b>{shown(path)}</b> {verdict}: {shown(why)}
        </li>
    ));
}

/** "12 signals: 10 exact, 1 read-only, 1 not possible." */
function sumText<V extends string>(outcomes: readonly { verdict: V }[], noun: string, verdicts: readonly V[]): string {
    const counts = verdicts.map(
        (verdict) => `${outcomes.filter((each) => each.verdict === verdict).length} ${verdict}`,
    );
    return `${counted(outcomes.length, noun)}: ${counts.join(", ")}.`;
}

function counted(count: number, noun: string): string {
    return `${count} ${noun}${count === 1 ? "" : "s"}`;
}
