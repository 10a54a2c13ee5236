import { useState } from "preact/hooks";
import { draftOf, type Course, type Planned } from "../model/course";
import type { Draft } from "../model/draft";
import { obstacleTo, PERIOD } from "../model/run";
import { assignmentText } from "../model/sent";
import type { Session } from "../model/session";
import { shown } from "../model/text";
import { useSource } from "./frame";
import { Consequences, FramePreview } from "./preview";
import { Question } from "./question";
import { startInSight } from "./supervise";

/** Readings that change more often cannot be read. */
const PAUSE = 100;

/** What somebody wants to start. */
export type Wish = { kind: Course["kind"]; name: string; planned: Planned };

const titles = { preset: "Send", sequence: "Start", cycle: "Repeat" };

/** Shows all that a course puts on the bus, as things are now; it starts only when that is agreed to. */
export function StartQuestion({ session, wish, close }: { session: Session; wish: Wish; close: () => void }) {
    useSource(session.values, PAUSE);
    const [agreed, setAgreed] = useState("");
    const [typed, setTyped] = useState("1000");
    const { kind, name, planned } = wish;
    const period = kind === "cycle" ? Number(typed) : undefined;
    const course: Course = { kind, name, steps: planned.steps, ...(period !== undefined && { period }) };
    const drafts = course.steps.map(({ orders }) => orders.map((order) => draftOf(order, session)));
    const consequences = new Set(drafts.flat().map((draft) => draft.consequences));
    consequences.delete("");
    const asked = [...consequences].join("\n");
    const refusal = refusalOf(session, course, drafts.flat());
    const isReady = refusal === undefined && agreed === asked && isPeriod(period);
    return (
        <Question
            title={`${titles[kind]} ${shown(name)}?`}
            yes={titles[kind]}
            no="Cancel"
            ready={isReady}
            answer={(agrees) => {
                close();
                if (agrees) startInSight(session, course, consequences);
            }}
        >
            {period !== undefined && <PeriodInput text={typed} isRight={isPeriod(period)} change={setTyped} />}
            <ol class="steps" tabIndex={0} aria-label="What goes out">
                {drafts.map((frames, at) => (
                    <li key={at}>
                        {kind === "sequence" && <b>{course.steps[at]!.at / 1000} s</b>}
                        {frames.map((draft) => (
                            <DraftView key={draft.node.id} draft={draft} />
                        ))}
                    </li>
                ))}
            </ol>
            {asked !== "" && (
                <label class="check">
                    <input
                        type="checkbox"
                        checked={agreed === asked}
                        onChange={(event) => setAgreed(event.currentTarget.checked ? asked : "")}
                    />
                    Send it nevertheless
                </label>
            )}
            {refusal !== undefined && (
                <p class="problem" role="alert">
                    Nothing can be sent: {shown(refusal)}.
                </p>
            )}
        </Question>
    );
}

function refusalOf(session: Session, course: Course, drafts: Draft[]): string | undefined {
    if (session.run?.state === "running") return "something else goes out by itself; stop it first";
    const problems = drafts.flatMap((draft) => [...draft.problems.values()]);
    return obstacleTo(course, session) ?? (problems.length > 0 ? problems.join("; ") : undefined);
}

function isPeriod(period: number | undefined): boolean {
    return period === undefined || (Number.isInteger(period) && period >= PERIOD.least && period <= PERIOD.most);
}

type PeriodProps = { text: string; isRight: boolean; change: (text: string) => void };

function PeriodInput({ text, isRight, change }: PeriodProps) {
    return (
        <div class="field">
            <label for="period">Milliseconds from one to the next</label>
            <input
                id="period"
                inputMode="numeric"
                autocomplete="off"
                value={text}
                onInput={(event) => change(event.currentTarget.value)}
                aria-invalid={!isRight}
                aria-describedby="period-help"
            />
            <small id="period-help" class={isRight ? "quiet" : "problem"}>
                a whole number, {PERIOD.least} to {PERIOD.most}
            </small>
        </div>
    );
}

function DraftView({ draft }: { draft: Draft }) {
    const texts = draft.fields.map(({ node, text, isEdited, isNeeded }) => {
        const value = draft.values.get(node.leaf!);
        const told = value === undefined ? `${node.dotted} = ${text}` : assignmentText(node.leaf!, value);
        return text === "" ? undefined : `${told}${isEdited || isNeeded ? "" : " (follows the bus)"}`;
    });
    return (
        <div>
            <p>{shown(texts.filter(Boolean).join(", "))}</p>
            <FramePreview leaf={draft.node.leaf!} draft={draft} />
            <Consequences draft={draft} />
        </div>
    );
}
