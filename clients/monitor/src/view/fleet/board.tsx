import { useEffect, useRef, useState } from "preact/hooks";
import type { BoardSession } from "../../model/fleet/board";
import type { Board } from "../../model/fleet/fleet";
import { shown } from "../../model/text";
import type { TreeNode } from "../../model/tree";
import { parseInput } from "../../model/writing";
import type { Parts } from "../app";
import { useSource } from "../frame";
import { AlarmsButton, Device, stateWords, ThemeButton, type HeaderProps } from "../header";
import { Icon } from "../icons";
import { LockButton } from "../lock";
import { LeafInput, LeafPanel, type WriteProps } from "../write";

/** What differs between the view of a board and that of a daemon. */
export function partsFor(board: Board, close: () => void): Parts {
    return {
        Header: (props) => <BoardHeader {...props} board={board} close={close} />,
        WritePanel: SetPanel,
    };
}

/** Watches over limits as soon as there are some. */
export function useGuard(session: BoardSession): void {
    useEffect(() => {
        const watch = () => {
            if (session.guard || (!session.tree.hasLimits && session.memory.load("limits") === undefined)) return;
            void import("../limits").then(
                ({ guardOf }) => guardOf(session),
                (error: Error) => session.log.add("problem", "Limits cannot be watched", error.message),
            );
        };
        watch();
        return session.status.watch(watch);
    }, [session]);
}

function BoardHeader({ session, children, board, close }: HeaderProps & { board: Board; close: () => void }) {
    const { state, hello, reason } = session;
    const { missed } = session as BoardSession;
    const back = useRef<HTMLButtonElement>(null);
    useEffect(() => back.current!.focus(), []);
    return (
        <header>
            <button ref={back} onClick={close}>
                <Icon name="back" /> All boards
            </button>
            <h1>{board.label}</h1>
            <p class={`state ${state}`} title={reason}>
                <span class="dot" />
                <span role="status">
                    <strong>{stateWords[state]}</strong>
                    {hello && <Device type={hello.type} id={hello.id} />}
                </span>
                {state !== "connected" && <span class="quiet reason">{shown(reason)}</span>}
            </p>
            {missed > 0 && (
                <p class="undecodable" title="Batches of values that the broker did not hand on">
                    <Icon name="problem" /> {missed} lost
                </p>
            )}
            <div class="tools">
                {session.guard && <AlarmsButton session={session} guard={session.guard} />}
                {children}
                <LockButton session={session} />
                <ThemeButton />
            </div>
        </header>
    );
}

/** Asks the board's gateway to set one value. */
function SetPanel({ session, node }: WriteProps) {
    useSource(session.status);
    return (
        <LeafPanel session={session} node={node}>
            <SetForm session={session} node={node} />
        </LeafPanel>
    );
}

type Told = { ok: boolean; text: string };

function SetForm({ session, node }: WriteProps) {
    const leaf = node.leaf!;
    const [text, setText] = useState("");
    const [told, tell] = useState<Told>();
    const [isSending, setSending] = useState(false);
    const { value, problem } = parseInput(leaf, text, () => 0); // the gateway knows the bits beside a field
    const send = async (event: Event) => {
        event.preventDefault();
        if (problem !== undefined || isSending) return;
        setSending(true);
        tell({ ok: true, text: "Waiting for the answer of the board…" });
        try {
            await session.write(new Map([[leaf, value]]));
            tell({ ok: true, text: `Done: ${answerOf(node)}` });
            setText("");
        } catch (error) {
            tell({ ok: false, text: (error as Error).message });
        }
        setSending(false);
    };
    return (
        <form onSubmit={(event) => void send(event)}>
            <LeafInput
                id={`set-${node.id}`}
                leaf={leaf}
                main
                text={text}
                isEdited
                problem={text === "" ? undefined : problem}
                change={setText}
            />
            <div class="actions">
                <button type="submit" class="primary" disabled={problem !== undefined || isSending}>
                    Send
                </button>
            </div>
            <p class={told?.ok === false ? "problem" : "quiet"} role="status">
                {told?.text}
            </p>
        </form>
    );
}

function answerOf({ answer }: TreeNode): string {
    return answer?.text ?? "";
}
