import { useState } from "preact/hooks";
import type { Session } from "../model/session";
import { Icon } from "./icons";
import { Question } from "./question";

/** Locking takes a press, unlocking a decision. */
export function LockButton({ session }: { session: Session }) {
    const [isAsking, setAsking] = useState(false);
    const { locked } = session;
    return (
        <>
            <button
                class={locked ? "locked" : ""}
                aria-pressed={locked}
                title={locked ? "Nothing can be sent from here. Press to unlock" : "Values and schemas can be sent"}
                onClick={() => (locked ? setAsking(true) : session.lock())}
            >
                <Icon name={locked ? "lock" : "unlocked"} /> {locked ? "Locked" : "Lock"}
            </button>
            {isAsking && (
                <Question
                    title="Unlock?"
                    yes="Unlock"
                    no="Stay locked"
                    answer={(agreed) => {
                        setAsking(false);
                        if (agreed) session.unlock();
                    }}
                >
                    <p>From then on, this page can send values, which may move the machine, and schemas.</p>
                </Question>
            )}
        </>
    );
}
