import { useEffect, useState } from "preact/hooks";
import type { Session } from "../../model/session";
import { shown } from "../../model/text";
import { Workshop } from "../../model/workshop/workshop";
import { memory } from "../../page";
import { Boundary } from "../boundary";
import { useSource } from "../frame";
import { Icon } from "../icons";
import { Question } from "../question";
import { Bench } from "./bench";
import "./workshop.css";

type PageProps = {
    session: Session;
    /** Somebody has agreed: the workshop takes the place of the values. */
    enter: () => void;
    close: () => void;
};

/** From an unknown bus to named values. It asks before it does anything, and says what it does as long as it does it. */
export function WorkshopPage({ session, enter, close }: PageProps) {
    const [workshop] = useState(() => new Workshop(session, memory));
    useSource(workshop.status);
    const { state } = workshop;
    useEffect(() => {
        if (state === "left") close();
    }, [state]);
    if (state === "asking") {
        const answer = (agreed: boolean) => {
            if (!agreed) return close();
            enter();
            void workshop.begin();
        };
        return <OpeningQuestion session={session} workshop={workshop} answer={answer} />;
    }
    return (
        <>
            <div class="top">
                <Bar workshop={workshop} />
            </div>
            <Boundary part="The workshop">
                <Bench workshop={workshop} />
            </Boundary>
        </>
    );
}

type QuestionProps = { session: Session; workshop: Workshop; answer: (agreed: boolean) => void };

function OpeningQuestion({ session, workshop, answer }: QuestionProps) {
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
            {refusal !== undefined && (
                <p class="problem" role="alert">
                    {refusal}
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

/** Says as long as it lasts that the schema of all clients is another, and ends it. */
function Bar({ workshop }: { workshop: Workshop }) {
    useSource(workshop.draft.source);
    const { state, draft, former } = workshop;
    const isLeaving = state === "leaving";
    const isWrong = draft.problems().some(({ severity }) => severity === "error");
    return (
        <header class="workshop-bar" aria-label="Workshop">
            <div class="told" role="status">
                <h1>
                    <Icon name="workshop" /> Workshop: the daemon's schema is replaced for all clients.
                </h1>
                <p class={state === "open" ? "usual" : "unusual"}>{toldOf(workshop)}</p>
            </div>
            <div class="actions">
                <button disabled={isLeaving} onClick={() => void workshop.leave("former")}>
                    {former ? "Leave: former schema back" : "Leave: without a schema"}
                </button>
                <button
                    class="primary"
                    disabled={isLeaving || isWrong || draft.leaves.length === 0}
                    title={isWrong ? "The schema has problems, which its list names" : "For this page and all clients"}
                    onClick={() => void workshop.leave("draft")}
                >
                    Leave with the new schema
                </button>
            </div>
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
            return `Another client has sent a schema, so that no frames come here any more: ${why}.`;
        default:
            return "The schema is on its way.";
    }
}
