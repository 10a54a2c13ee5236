import { useState } from "preact/hooks";
import { leavesOf } from "vorbel";
import type { Session } from "../../model/session";
import { shown } from "../../model/text";
import { forget, interrupted, putBack } from "../../model/workshop/interrupted";
import { memory } from "../../page";
import { useClock } from "../frame";
import { Icon } from "../icons";

/** What a workshop has left that was not left: the daemon may still have its schema. */
export function InterruptedNotice({ session }: { session: Session }) {
    useClock(1000); // another page may have put it right, or gone
    const [problem, setProblem] = useState<string>();
    const [isBusy, setBusy] = useState(false);
    const left = interrupted(memory);
    if (!left) return null;
    const restore = async () => {
        setBusy(true);
        setProblem(undefined);
        await putBack(session, memory).catch((error: Error) => setProblem(error.message));
        setBusy(false);
    };
    const count = left.schema ? leavesOf(left.schema).length : 0;
    return (
        <section class="notice" aria-label="Interrupted workshop">
            <Icon name="problem" />
            <span role="status">
                <b>The last workshop was not left: the daemon may still have its schema.</b>{" "}
                {left.schema
                    ? `The former one, of ${count} leaves, can be put back for all clients of ${shown(left.address)}.`
                    : `${shown(left.address)} had none before, and can be cleared for all its clients.`}{" "}
                {problem !== undefined && <span class="problem">{shown(problem)}</span>}
            </span>
            <button disabled={isBusy || session.locked} onClick={() => void restore()}>
                Put the former schema back
            </button>
            <button
                disabled={isBusy}
                onClick={() => {
                    forget(memory);
                    session.status.changed();
                }}
            >
                Forget it
            </button>
        </section>
    );
}
