import { useLayoutEffect, useRef, useState } from "preact/hooks";
import { dotted, FORMATS, readOnlyReason, writableRange, type Leaf, type Value } from "vorbel";
import type { Session } from "../model/session";
import { clockText, hexText, numberText, shown } from "../model/text";
import type { TreeNode } from "../model/tree";
import { parseInput, payloadOf, rangeText } from "../model/writing";
import { Icon } from "./icons";

/** Sets one value, and with it the others of its frame. */
export function WritePanel({ session, node }: { session: Session; node: TreeNode }) {
    const close = () => {
        session.startWriting(undefined);
        document.getElementById("values-grid")?.focus();
    };
    const reason = node.leaf ? readOnlyReason(node.leaf) : "the schema used here does not have it";
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
            {reason ? <Refusal name={node.dotted} reason={reason} /> : <WriteForm session={session} node={node} />}
        </section>
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

function WriteForm({ session, node }: { session: Session; node: TreeNode }) {
    const [nodes] = useState(() => writableTogether(session, node));
    const [texts, setTexts] = useState(() => new Map(nodes.map((each) => [each, presentText(each)])));
    const [outcome, setOutcome] = useState<{ sent: boolean; text: string }>();
    const { values, problems } = parseAll(texts);
    const ready = problems.size === 0 && values.has(node.leaf!);
    const send = (event: Event) => {
        event.preventDefault();
        if (!ready) return;
        try {
            session.write(values);
            setOutcome({ sent: true, text: `Sent at ${clockText(Date.now())}` });
        } catch (error) {
            setOutcome({ sent: false, text: (error as Error).message });
        }
    };
    return (
        <form onSubmit={send}>
            {nodes.map((each) => (
                <LeafInput
                    key={each.id}
                    id={`set-${each.id}`}
                    leaf={each.leaf!}
                    main={each === node}
                    text={texts.get(each)!}
                    problem={problems.get(each.leaf!)}
                    change={(text) => {
                        setTexts(new Map(texts).set(each, text));
                        setOutcome(undefined);
                    }}
                />
            ))}
            {nodes.length > 1 && (
                <p class="quiet">
                    These share one frame. What is left empty goes out as zero bytes, or not at all at its end.
                </p>
            )}
            <div class="actions">
                <button type="submit" class="primary" disabled={!ready}>
                    Send
                </button>
                <FramePreview leaf={node.leaf!} values={values} />
            </div>
            <p class={outcome?.sent === false ? "problem" : "quiet"} role="status">
                {outcome?.text}
            </p>
        </form>
    );
}

type LeafInputProps = {
    id: string;
    leaf: Leaf;
    /** Whether it is the one that was asked for. */
    main: boolean;
    text: string;
    problem: string | undefined;
    change: (text: string) => void;
};

function LeafInput({ id, leaf, main, text, problem, change }: LeafInputProps) {
    const input = useRef<any>(null);
    useLayoutEffect(() => {
        if (!main) return;
        input.current.focus();
        input.current.select();
    }, []);
    const shared = {
        id,
        ref: input,
        value: text,
        onInput: (event: { currentTarget: { value: string } }) => change(event.currentTarget.value),
        "aria-invalid": problem !== undefined,
        "aria-describedby": `${id}-help`,
    };
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
                    inputMode={keypad(leaf)}
                    autocomplete="off"
                    autocapitalize="off"
                    spellcheck={false}
                />
            )}
            <small id={`${id}-help`} class={problem ? "problem" : "quiet"}>
                {problem ?? rangeText(leaf)}
            </small>
        </div>
    );
}

function FramePreview({ leaf, values }: { leaf: Leaf; values: Map<Leaf, Value> }) {
    const payload = values.size > 0 ? payloadOf(values) : undefined;
    return (
        <span class="preview">
            mac {leaf.mac} cmd {leaf.cmd}
            {payload && <code>{hexText(payload)}</code>}
        </span>
    );
}

/** The leaf and the others of its frame, as far as they can be written. */
function writableTogether({ tree }: Session, node: TreeNode): TreeNode[] {
    return [node, ...tree.sameFrame(node.leaf!).filter((each) => each !== node && !readOnlyReason(each.leaf!))];
}

/** The on-screen keyboard that a leaf needs: some phones' keypads of digits have no minus sign. */
function keypad(leaf: Leaf): "text" | "numeric" | "decimal" {
    if (FORMATS[leaf.format]!.signed || leaf.factor < 0) return "text";
    return writableRange(leaf)!.step === 1 ? "numeric" : "decimal";
}

/** What a leaf's bytes hold at present, as far as it is known. */
function presentText({ series, sent, leaf }: TreeNode): string {
    const present = series?.number ?? sent;
    return typeof present === "number" ? numberText(present, leaf) : "";
}

/** What was typed, leaf by leaf; nothing for those left empty. */
function parseAll(texts: Map<TreeNode, string>) {
    const values = new Map<Leaf, Value>();
    const problems = new Map<Leaf, string>();
    for (const [{ leaf }, text] of texts) {
        if (text === "") continue;
        const { value, problem } = parseInput(leaf!, text);
        if (problem === undefined) values.set(leaf!, value);
        else problems.set(leaf!, problem);
    }
    return { values, problems };
}
