import { useEffect, useMemo, useState } from "preact/hooks";
import type { Session } from "../../model/session";
import { shown } from "../../model/text";
import { Workshop } from "../../model/workshop/workshop";
import { memory } from "../../page";
import { Boundary } from "../boundary";
import { useSource } from "../frame";
import { Icon } from "../icons";
import { Question } from "../question";
import { Bench } from "./bench";
import { obstacleTo } from "./tools";
import "./workshop.css";

type PageProps = {
    session: Session;
    /** Hears whether the workshop takes the place of the values. */
    enter: (isOpen: boolean) => void;
    close: () => void;
};

/** From an unknown bus to named values. It asks before it does anything, and says what it does as long as it does it. */
export function WorkshopPage({ session, enter, close }: PageProps) {
    const [workshop] = useState(() => new Workshop(session, memory));
    const [problem, setProblem] = useState<string>();
    useSource(workshop.status);
    const { state } = workshop;
    useEffect(() => {
        if (state === "left") close();
        else enter(state !== "asking");
    }, [state]);
    const attempt = (step: Promise<void>) => {
        setProblem(undefined);
        step.catch((error: Error) => {
            session.log.add("problem", "The workshop", error.message);
            setProblem(error.message);
        });
    };
    if (state === "asking") {
        const answer = (agreed: boolean) => (agreed ? attempt(workshop.begin()) : close());
        return (
            <OpeningQuestion key={problem} session={session} workshop={workshop} problem={problem} answer={answer} />
        );
    }
    return (
        <>
            <div class="top">
                <Bar workshop={workshop} problem={problem} leave={(into) => attempt(workshop.leave(into))} />
            </div>
            <Boundary part="The workshop">
                <Bench workshop={workshop} />
            </Boundary>
        </>
    );
}

type QuestionProps = {
    session: Session;
    workshop: Workshop;
    /** Why it could not be opened before. */
    problem: string | undefined;
    answer: (agreed: boolean) => void;
};

function OpeningQuestion({ session, workshop, problem, answer }: QuestionProps) {
    useSource(session.status);
    const refusal = refusalOf(session);
    return (
        <Question
            title="Open the workshop?"
            yes="Open the workshop"
            no="Cancel"
            ready={refusal === undefined}
            answer={answer}
        >
            <p>
                The daemon has one schema for all its clients. As long as the workshop is open, it is replaced by one
                that shows every frame as bytes: the other clients get none of their values meanwhile, and cannot write
                any.
            </p>
            <p>
                {workshop.former
                    ? "On leaving, the former schema comes back: the one that this page has."
                    : "This page has no schema: on leaving, the daemon will have none, unless you leave with a new one."}
            </p>
            {session.foreign && (
                <p class="problem">
                    Another client may have replaced the schema of this page. What it sent does not come back.
                </p>
            )}
            {(refusal ?? problem) !== undefined && (
                <p class="problem" role="alert">
                    {refusal ?? shown(problem!)}
                </p>
            )}
        </Question>
    );
}

/** Why the workshop cannot be opened at present, as a sentence. */
export function refusalOf({ locked, state, run }: Session): string | undefined {
    if (locked) return "The page is locked, so that no schema can be sent: unlock it first.";
    if (state !== "connected") return "There is no connection to a daemon: connect first.";
    if (run?.state === "running") return "Something goes out by itself: stop it first.";
    return undefined;
}

type BarProps = { workshop: Workshop; problem: string | undefined; leave: (into: "former" | "draft") => void };

/** Says as long as it lasts that the schema of all clients is another, and ends it. */
function Bar({ workshop, problem, leave }: BarProps) {
    useSource(workshop.draft.source);
    const { state, draft, former } = workshop;
    const [isAsking, setAsking] = useState(false);
    const cannotLeave = state === "leaving" || state === "starting";
    const isReplaced = state === "replaced";
    const back = former ? "Leave: former schema back" : "Leave: no schema, as before";
    const obstacle = useMemo(() => obstacleTo(draft), [draft.schema]);
    return (
        <header class="workshop-bar" aria-label="Workshop">
            <div class="told" role="status">
                <h1>
                    <Icon name="workshop" />{" "}
                    {isReplaced
                        ? "Workshop: it gets no frames any more."
                        : "Workshop: the daemon's schema is replaced for all clients."}
                </h1>
                <p class={state === "open" ? "usual" : "unusual"}>{toldOf(workshop)}</p>
            </div>
            <div class="actions">
                <button
                    disabled={cannotLeave}
                    onClick={() => (draft.canUndo === undefined ? leave("former") : setAsking(true))}
                >
                    {isReplaced ? "Leave: the other client's stays" : back}
                </button>
                <button
                    class="primary"
                    disabled={cannotLeave || obstacle !== undefined}
                    title={obstacle ?? (isReplaced ? "It is not sent" : "For this page, and for all clients")}
                    onClick={() => leave("draft")}
                >
                    {isReplaced ? "Leave, and use the new schema here" : "Leave with the new schema"}
                </button>
            </div>
            {problem !== undefined && (
                <p class="problem" role="alert">
                    {shown(problem)}
                </p>
            )}
            {isAsking && (
                <Question
                    title="Leave without what was made?"
                    yes="Leave without it"
                    no="Stay"
                    answer={(agreed) => {
                        setAsking(false);
                        if (agreed) leave("former");
                    }}
                >
                    <p>What was changed in the schema here is lost with the workshop, unless it is saved as a file.</p>
                </Question>
            )}
        </header>
    );
}

/** What is so at present, and what follows. */
function toldOf({ state, reason, former }: Workshop): string {
    const why = shown(reason);
    switch (state) {
        case "starting":
            return "The schema that shows every frame is on its way.";
        case "open":
            return `The other clients get none of their values and cannot write any. ${
                former ? "The former schema comes back on leaving." : "There was none before."
            }`;
        case "lost":
            return `The connection is lost: ${why}. It is tried again; what has been named is kept.`;
        case "replaced":
            return `Another client has sent a schema, which stays: ${why}.`;
        default:
            return "The schema is on its way.";
    }
}
