import { useState } from "preact/hooks";
import type { Session } from "../model/session";
import { shown } from "../model/text";
import { useSource } from "./frame";
import { Icon } from "./icons";
import { later } from "./later";

const LinkDialog = later(async () => (await import("./linkdialog")).LinkDialog, { small: true });

/** Copies a link that shows what is shown here. */
export function LinkButton({ session }: { session: Session }) {
    const [isAsking, setAsking] = useState(false);
    const [told, setTold] = useState("");
    return (
        <>
            <button
                class="square"
                onClick={() => setAsking(true)}
                aria-label="Copy a link to this view"
                title="Copy a link to this view"
            >
                <Icon name="link" />
            </button>
            <span class="hidden" role="status">
                {told}
            </span>
            {isAsking && <LinkDialog session={session} tell={setTold} close={() => setAsking(false)} />}
        </>
    );
}

/** Whether what is seen is somebody else's view. */
export function ViewNotice({ session: { view } }: { session: Session }) {
    useSource(view);
    if (view.problem === undefined && !view.isLinked) return null;
    return (
        <p class="notice" role="status">
            <Icon name="link" />
            {view.isLinked ? (
                <span>
                    <b>This view comes from a link.</b> It is not remembered until you change something of it.
                </span>
            ) : (
                <span>
                    <b>The link's view is not shown:</b> {shown(view.problem!)}.
                </span>
            )}
            {view.isLinked ? (
                <button onClick={() => view.keep()}>Keep it</button>
            ) : (
                <button onClick={() => view.dismiss()}>Close</button>
            )}
        </p>
    );
}
