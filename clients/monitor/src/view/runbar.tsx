import { useLayoutEffect, useRef } from "preact/hooks";
import { progressOf, titleOf, type Run } from "../model/run";
import type { Session } from "../model/session";
import { shown } from "../model/text";
import { useSource } from "./frame";
import { Icon } from "./icons";
import "./orders.css";

/** What goes out by itself, with its Stop; and what ended it, until somebody has seen it. */
export function RunBar({ session, run }: { session: Session; run: Run }) {
    useSource(run);
    const isRunning = run.state === "running";
    const close = () => {
        session.run = undefined;
        session.status.changed();
    };
    return (
        <section class={`run ${run.state}`} aria-label="What goes out by itself">
            <Icon name={run.state === "stopped" ? "problem" : isRunning ? "play" : "sent"} />
            <span>
                <b>{shown(titleOf(run.course))}</b> {isRunning && progressOf(run)}
                <span role="status">{!isRunning && shown(progressOf(run))}</span>
            </span>
            {isRunning && run.course.kind === "sequence" && (
                <progress aria-label="Steps" value={run.next} max={run.course.steps.length} />
            )}
            {isRunning ? (
                <StopButton run={run} />
            ) : (
                <button class="square" aria-label="Close" onClick={close}>
                    <Icon name="close" />
                </button>
            )}
        </section>
    );
}

/** In focus from the beginning, so that the next key stops. */
function StopButton({ run }: { run: Run }) {
    const button = useRef<HTMLButtonElement>(null);
    useLayoutEffect(() => button.current!.focus(), [run]);
    return (
        <button class="stop" ref={button} title="Or press Escape twice" onClick={() => run.stop("stopped here")}>
            Stop
        </button>
    );
}
