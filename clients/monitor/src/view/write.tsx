import type { ComponentChildren } from "preact";
import { useLayoutEffect, useRef, useState } from "preact/hooks";
import { dotted, FORMATS, writableRange, type Leaf } from "vorbel";
import { now } from "../model/clock";
import { Draft, type Edits } from "../model/draft";
import type { Session } from "../model/session";
import { clockText, shown } from "../model/text";
import type { TreeNode } from "../model/tree";
import { rangeText } from "../model/writing";
import { useSource } from "./frame";
import { Icon } from "./icons";
import { later } from "./later";
import { Consequences, FramePreview } from "./preview";

const LimitsEditor = later(() => import("./limits").then((part) => part.LimitsEditor));

/** Readings that change more often cannot be read. */
const PAUSE = 100;

export type WriteProps = { session: Session; node: TreeNode };

/** Sets one value, and with it the others of its frame. */
export function WritePanel({ session, node }: WriteProps) {
    return (
        <LeafPanel session={session} node={node}>
            <WriteForm session={session} node={node} />
        </LeafPanel>
    );
}

/** What there is to know of a value and to do with it: its children set it, unless something is in the way. */
export function LeafPanel({ session, node, children }: WriteProps & { children: ComponentChildren }) {
    const close = () => {
        session.startWriting(undefined);
        document.getElementById("values-grid")?.focus();
    };
    const reason = session.locked ? "the page is locked" : session.refusalOf(node);
    return (
        <section
            class="panel write"
            aria-labelledby="write-title"
            onKeyDown={(event) => event.key === "Escape" && close()}
        >
            <div class="title">
                <h2 id="write-title">
                    Set <code>{node.dotted}</code>
                </h2>
                <button class="square" onClick={close} aria-label="Close">
                    <Icon name="close" />
                </button>
            </div>
            <Words leaf={node.leaf} />
            {reason ? <Refusal name={node.dotted} reason={reason} /> : children}
            <LimitsPart session={session} node={node} />
        </section>
    );
}

/** What the schema tells of a leaf. */
function Words({ leaf }: { leaf: Leaf | undefined }) {
    const { title = "", description = "" } = leaf?.meaning ?? {};
    const words = [title, description].filter(Boolean).join(": ");
    return words ? <p class="quiet words">{shown(words)}</p> : null;
}

/** Limits are fetched when somebody looks for them. */
function LimitsPart({ session, node }: { session: Session; node: TreeNode }) {
    const [isOpen, open] = useState(() => session.guard !== undefined && session.guard.hasLimits(node.path));
    return (
        <details class="limits" open={isOpen} onToggle={(event) => open(event.currentTarget.open)}>
            <summary>Limits</summary>
            {isOpen && <LimitsEditor session={session} node={node} />}
        </details>
    );
}

function Refusal({ name, reason }: { name: string; reason: string }) {
    const text = useRef<HTMLParagraphElement>(null);
    useLayoutEffect(() => text.current?.focus(), []);
    return (
        <p class="refusal" role="alert" tabIndex={-1} ref={text}>
            <Icon name="lock" />
            <span>
                <b>{name}</b> cannot be set: {reason}.
            </span>
        </p>
    );
}

type Outcome = { state: "sending" | "handled" | "failed"; text: string };

function WriteForm({ session, node }: { session: Session; node: TreeNode }) {
    useSource(session.values, PAUSE);
    const [together] = useState(() => session.tree.sameFrame(node.leaf!));
    const [edits, setEdits] = useState<Edits>(new Map());
    const [agreed, setAgreed] = useState("");
    const [outcome, setOutcome] = useState<Outcome>();
    const isSending = useRef(false);
    const draft = new Draft(node, together, edits, session.tree.readings, session.foreign?.reason);
    const isAgreed = agreed === draft.consequences;
    const ready = draft.isComplete && isAgreed && !isSending.current;
    const send = async (event: Event) => {
        event.preventDefault();
        if (!ready || isSending.current) return;
        isSending.current = true;
        setOutcome({ state: "sending", text: "Sending…" });
        try {
            await session.write(draft.values);
            setEdits((later) => new Map([...later].filter(([each, text]) => text !== edits.get(each))));
            setOutcome({ state: "handled", text: `Handled at ${clockText(now())}` });
        } catch (error) {
            setOutcome({ state: "failed", text: (error as Error).message });
        }
        isSending.current = false;
        setAgreed("");
    };
    return (
        <form onSubmit={(event) => void send(event)}>
            {draft.fields.map(({ node: each, text, isEdited }) => (
                <LeafInput
                    key={each.id}
                    id={`set-${each.id}`}
                    leaf={each.leaf!}
                    main={each === node}
                    text={text}
                    isEdited={isEdited}
                    problem={draft.problems.get(each.leaf!)}
                    change={(text) => {
                        setEdits(new Map(edits).set(each, text));
                        if (!isSending.current) setOutcome(undefined);
                    }}
                />
            ))}
            {draft.fields.length > 1 && (
                <p class="quiet">
                    These share one frame. Those that you do not change follow the bus
                    {draft.fields.some(({ isNeeded }) => isNeeded) && ", or are what the others count with"}.
                </p>
            )}
            {edits.size > 0 && (
                <Consequences
                    draft={draft}
                    agreed={isAgreed}
                    agree={(yes) => setAgreed(yes ? draft.consequences : "")}
                />
            )}
            <div class="actions">
                <button type="submit" class="primary" disabled={!ready}>
                    Send
                </button>
                <GiveOn session={session} draft={draft} />
                <FramePreview leaf={node.leaf!} draft={draft} />
            </div>
            <p class={outcome?.state === "failed" ? "problem" : "quiet"} role="status">
                {outcome?.text}
            </p>
        </form>
    );
}

/** What was typed can be kept as a preset, or sent again and again. */
function GiveOn({ session, draft: { fields, isComplete } }: { session: Session; draft: Draft }) {
    const edited = fields.filter(({ text, isEdited }) => isEdited && text !== "");
    const values = edited.map(({ node, text }) => ({ path: dotted(node.path), text }));
    return (
        <>
            <button
                type="button"
                disabled={!isComplete}
                onClick={() => session.startOrdering({ purpose: "keep", values })}
            >
                Keep…
            </button>
            <button
                type="button"
                disabled={!isComplete}
                onClick={() => session.startOrdering({ purpose: "repeat", values })}
            >
                Repeat…
            </button>
        </>
    );
}

type LeafInputProps = {
    id: string;
    leaf: Leaf;
    /** Whether it is the one that was asked for. */
    main: boolean;
    text: string;
    /** Otherwise it follows the bus. */
    isEdited: boolean;
    problem: string | undefined;
    change: (text: string) => void;
};

export function LeafInput({ id, leaf, main, text, isEdited, problem, change }: LeafInputProps) {
    const input = useRef<any>(null);
    useLayoutEffect(() => {
        if (!main) return;
        input.current.focus();
        input.current.select();
    }, []);
    // What follows the bus under a cursor would be mixed with what is typed: it stays selected as a whole. At once, as
    // a key that is pressed before would be replaced by the next one.
    useLayoutEffect(() => {
        if (!isEdited && document.activeElement === input.current) input.current.select();
    }, [text, isEdited]);
    const shared = {
        id,
        ref: input,
        value: text,
        onInput: (event: { currentTarget: { value: string } }) => change(event.currentTarget.value),
        "aria-invalid": problem !== undefined,
        "aria-describedby": `${id}-help`,
    };
    const labels = Object.values(leaf.meaning.labels ?? {});
    return (
        <div class="field">
            <label for={id} class={main ? "" : "quiet"}>
                {shown(dotted(leaf.path))}
            </label>
            {leaf.format === "p" ? (
                <textarea {...shared} rows={4} spellcheck={false} />
            ) : (
                <input
                    {...shared}
                    inputMode={labels.length > 0 ? "text" : keypad(leaf)}
                    list={labels.length > 0 ? `${id}-labels` : undefined}
                    autocomplete="off"
                    autocapitalize="off"
                    spellcheck={false}
                />
            )}
            {labels.length > 0 && (
                <datalist id={`${id}-labels`}>
                    {labels.map((label) => (
                        <option key={label} value={label} />
                    ))}
                </datalist>
            )}
            <small id={`${id}-help`} class={problem ? "problem" : "quiet"}>
                {problem ?? rangeText(leaf)}
            </small>
        </div>
    );
}

/** The on-screen keyboard that a leaf needs: some phones' keypads of digits have no minus sign. */
function keypad(leaf: Leaf): "text" | "numeric" | "decimal" {
    const { signed, float, scale, offset } = leaf.meaning;
    const mayBeNegative = FORMATS[leaf.format]!.signed || leaf.factor < 0 || signed || float || scale || offset;
    if (mayBeNegative) return "text";
    return writableRange(leaf)!.step === 1 ? "numeric" : "decimal";
}
