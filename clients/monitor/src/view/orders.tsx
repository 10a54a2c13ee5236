import { useEffect, useLayoutEffect, useRef, useState } from "preact/hooks";
import {
    keep,
    keptPresets,
    keptSequences,
    planOfText,
    planOfValues,
    withValues,
    type Assignment,
    type Planned,
    type Preset,
    type Sequence,
} from "../model/course";
import type { Ordering, Session } from "../model/session";
import { shown } from "../model/text";
import { memory } from "../page";
import { StartQuestion, type Wish } from "./confirm";
import { useSource } from "./frame";
import { Icon } from "./icons";
import "./orders.css";
import { Question } from "./question";
import { SentList } from "./sent";

export { RunBar } from "./runbar";

const presets = keptPresets(memory);
const sequences = keptSequences(memory);

type Start = (wish: Wish) => void;

/** Values that are sent together, at times, or again and again; and what went out. */
export function OrdersPanel({ session, ordering }: { session: Session; ordering: Ordering }) {
    useSource(presets);
    useSource(sequences);
    const [wish, start] = useState<Wish>();
    const { purpose, values } = ordering;
    const close = () => session.startOrdering(undefined);
    const rest = () => session.startOrdering({ values: [] });
    useEffect(() => {
        if (purpose === "repeat") start(wishOf(session, "cycle", textOf(values), values));
    }, [ordering]);
    return (
        <section
            class="panel write orders"
            aria-labelledby="orders-title"
            onKeyDown={(event) => event.key === "Escape" && !wish && close()}
        >
            <div class="title">
                <h2 id="orders-title">Presets and sequences</h2>
                <button class="square" onClick={close} aria-label="Close">
                    <Icon name="close" />
                </button>
            </div>
            {purpose === "keep" && <KeepForm values={values} done={rest} />}
            <Presets session={session} start={start} />
            <Sequences session={session} start={start} />
            {!(presets.isStored && sequences.isStored) && (
                <p class="problem">The browser keeps none of this over a reload: its storage is full or forbidden.</p>
            )}
            <SentList kept={session.sent.kept} />
            {wish && (
                <StartQuestion
                    session={session}
                    wish={wish}
                    close={() => {
                        start(undefined);
                        if (purpose) rest();
                    }}
                />
            )}
        </section>
    );
}

function wishOf(session: Session, kind: Wish["kind"], name: string, values: readonly Assignment[]): Wish {
    return { kind, name, planned: planOfValues(session.tree, values) };
}

function textOf(values: readonly Assignment[]): string {
    return values.map(({ path, text }) => `${path} = ${text}`).join(", ");
}

/** Asks for the name of a new preset; that of another one adds to it. */
function KeepForm({ values, done }: { values: Assignment[]; done: () => void }) {
    const [name, setName] = useState("");
    const [problem, setProblem] = useState<string>();
    const input = useRef<HTMLInputElement>(null);
    useLayoutEffect(() => input.current!.focus(), []);
    const before = presets.find(name.trim());
    const submit = (event: Event) => {
        event.preventDefault();
        try {
            keep(presets, withValues(before, name.trim(), values));
            done();
        } catch (error) {
            setProblem((error as Error).message);
        }
    };
    return (
        <form onSubmit={submit}>
            <p>
                Keep <code>{shown(textOf(values))}</code> as a preset:
            </p>
            <div class="actions">
                <input
                    aria-label="Name of the preset"
                    value={name}
                    autocomplete="off"
                    ref={input}
                    onInput={(event) => setName(event.currentTarget.value)}
                />
                <button type="submit" class="primary">
                    {before ? "Add to it" : "Keep"}
                </button>
                <button type="button" onClick={done}>
                    Cancel
                </button>
            </div>
            <p class="problem" role="alert">
                {problem}
            </p>
        </form>
    );
}

function Presets({ session, start }: { session: Session; start: Start }) {
    return (
        <div class="part">
            <h3>Presets</h3>
            {presets.entries.length === 0 && (
                <p class="quiet">Type values into a form and press “Keep…”: they are listed here.</p>
            )}
            <ul>
                {presets.entries.map((preset) => (
                    <PresetItem key={preset.id} session={session} preset={preset} start={start} />
                ))}
            </ul>
        </div>
    );
}

function PresetItem({ session, preset, start }: { session: Session; preset: Preset; start: Start }) {
    const { id, values } = preset;
    const { planned } = wishOf(session, "preset", id, values);
    const isRefused = planned.problems.length > 0;
    const begin = (kind: "preset" | "cycle") => start({ kind, name: id, planned });
    return (
        <li>
            <b>{shown(id)}</b>
            <code>{shown(textOf(values))}</code>
            <Refusals planned={planned} />
            <div class="actions">
                <button disabled={isRefused} aria-label={`Send… ${shown(id)}`} onClick={() => begin("preset")}>
                    Send…
                </button>
                <button disabled={isRefused} aria-label={`Repeat… ${shown(id)}`} onClick={() => begin("cycle")}>
                    Repeat…
                </button>
                <DeleteButton name={id} remove={() => presets.remove(id)} />
            </div>
        </li>
    );
}

/** Why something cannot be sent with the schema used here. */
function Refusals({ planned }: { planned: Planned }) {
    return planned.problems.map((problem) => (
        <p key={problem} class="problem">
            {problem}
        </p>
    ));
}

function DeleteButton({ name, remove }: { name: string; remove: () => void }) {
    const [isAsking, setAsking] = useState(false);
    return (
        <>
            <button aria-label={`Delete ${shown(name)}`} onClick={() => setAsking(true)}>
                Delete
            </button>
            {isAsking && (
                <Question
                    title={`Delete ${shown(name)}?`}
                    yes="Delete"
                    no="Keep it"
                    answer={(agreed) => {
                        setAsking(false);
                        if (agreed) remove();
                    }}
                >
                    <p>It cannot be brought back.</p>
                </Question>
            )}
        </>
    );
}

function Sequences({ session, start }: { session: Session; start: Start }) {
    const [edited, edit] = useState<Sequence>();
    return (
        <div class="part">
            <h3>Sequences</h3>
            <ul>
                {sequences.entries.map((sequence) => (
                    <SequenceItem key={sequence.id} session={session} sequence={sequence} start={start} edit={edit} />
                ))}
            </ul>
            {edited ? (
                <SequenceForm key={edited.id} session={session} sequence={edited} done={() => edit(undefined)} />
            ) : (
                <button onClick={() => edit({ id: "", text: "" })}>New sequence</button>
            )}
        </div>
    );
}

type SequenceProps = { session: Session; sequence: Sequence; start: Start; edit: (sequence: Sequence) => void };

function SequenceItem({ session, sequence, start, edit }: SequenceProps) {
    const { id, text } = sequence;
    const planned = planOfText(session.tree, text);
    const last = planned.steps.at(-1);
    return (
        <li>
            <b>{shown(id)}</b>
            {last && (
                <span class="quiet">
                    {planned.steps.length} steps, {last.at / 1000} s
                </span>
            )}
            <Refusals planned={planned} />
            <div class="actions">
                <button
                    disabled={planned.problems.length > 0}
                    aria-label={`Start… ${shown(id)}`}
                    onClick={() => start({ kind: "sequence", name: id, planned })}
                >
                    Start…
                </button>
                <button aria-label={`Edit ${shown(id)}`} onClick={() => edit(sequence)}>
                    Edit
                </button>
                <DeleteButton name={id} remove={() => sequences.remove(id)} />
            </div>
        </li>
    );
}

type SequenceFormProps = { session: Session; sequence: Sequence; done: () => void };

function SequenceForm({ session, sequence, done }: SequenceFormProps) {
    const [name, setName] = useState(sequence.id);
    const [text, setText] = useState(sequence.text);
    const [problem, setProblem] = useState<string>();
    const submit = (event: Event) => {
        event.preventDefault();
        try {
            keep(sequences, { id: name.trim(), text });
            done();
        } catch (error) {
            setProblem((error as Error).message);
        }
    };
    return (
        <form onSubmit={submit}>
            <input
                aria-label="Name of the sequence"
                placeholder="Name"
                value={name}
                autocomplete="off"
                onInput={(event) => setName(event.currentTarget.value)}
            />
            <textarea
                aria-label="Steps"
                aria-describedby="steps-help"
                placeholder={"0 motor.setpoint = 1200\n2.5 motor.setpoint = 0"}
                rows={6}
                spellcheck={false}
                value={text}
                onInput={(event) => setText(event.currentTarget.value)}
            />
            <small id="steps-help" class="quiet">
                A step in each line: seconds from the start, path = value.
            </small>
            {text !== "" && <Refusals planned={planOfText(session.tree, text)} />}
            <p class="problem" role="alert">
                {problem}
            </p>
            <div class="actions">
                <button type="submit" class="primary">
                    Save
                </button>
                <button type="button" onClick={done}>
                    Cancel
                </button>
            </div>
        </form>
    );
}
