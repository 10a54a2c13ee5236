import { useEffect, useLayoutEffect, useRef, useState } from "preact/hooks";
import { shown } from "../../model/text";
import type { Draft } from "../../model/workshop/draft";
import { textIn, type Leafish } from "../../model/workshop/selection";
import type { Endpoint } from "../../model/workshop/traffic";
import { repeatedly } from "../frame";
import { paintText } from "./paint";
import { isWrong, leafOf, NO_TEXTS, problemsOf, textsOf, type FieldName, type Texts } from "./texts";

type FormProps = {
    draft: Draft;
    endpoint: Endpoint | undefined;
    /** How the bits are read. */
    reading: Leafish;
    /** The path of the leaf of the draft that is changed; undefined for a new one. */
    former: string | undefined;
    /** What is typed, which others show as well. */
    texts: Texts;
    setTexts: (texts: Texts) => void;
    done: (path: string) => void;
    cancel: () => void;
};

/** Names what is read, and says what its numbers mean. */
export function LeafForm({ draft, endpoint, reading, former, texts, setTexts, done, cancel }: FormProps) {
    const [refusal, setRefusal] = useState<string>();
    const nameInput = useRef<HTMLInputElement>(null);
    const shownFor = useRef<string | undefined>(undefined);
    useLayoutEffect(() => {
        if (shownFor.current === former) return;
        shownFor.current = former;
        setTexts(former === undefined ? NO_TEXTS : textsOf(former, reading));
        setRefusal(undefined);
        const isLost = document.activeElement === document.body; // what had it is gone with the change
        if (former !== undefined || isLost) nameInput.current!.focus();
    }, [former]);
    const problems = problemsOf(texts);
    const leaf = leafOf(reading, texts);
    const change = (name: FieldName, text: string) => {
        setTexts({ ...texts, [name]: text });
        setRefusal(undefined);
    };
    const submit = (event: Event) => {
        event.preventDefault();
        if (isWrong(problems)) return;
        const path = texts.name.trim();
        const wrong = path === "" ? "Give it a name, such as motor.speed." : draft.set(path, leaf, former);
        setRefusal(wrong);
        if (wrong === undefined) {
            setTexts(NO_TEXTS);
            done(path);
        }
        nameInput.current!.focus();
    };
    const field = (name: FieldName, label: string, placeholder: string, problem = problems[name]) => (
        <Field
            name={name}
            label={label}
            placeholder={placeholder}
            text={texts[name]}
            problem={problem}
            change={(text) => change(name, text)}
            {...(name === "name" && { input: nameInput })}
        />
    );
    return (
        <section class="panel naming" aria-labelledby="naming-title">
            <div class="title">
                <h2 id="naming-title">{former === undefined ? "Name it" : `Change ${shown(former)}`}</h2>
            </div>
            <form onSubmit={submit} noValidate>
                {field("name", "Name", "motor.speed", refusal)}
                {field("title", "Title (optional)", "Speed of the motor")}
                {field("unit", "Unit (optional)", "rpm")}
                <div class="numbers">
                    {field("scale", "Scale", "1")}
                    {field("offset", "Offset", "0")}
                    {field("decimals", "Decimals", "all")}
                </div>
                <Preview endpoint={endpoint} leaf={leaf} isWrong={isWrong(problems)} />
                <div class="actions">
                    <button type="submit" class="primary" disabled={isWrong(problems)}>
                        {former === undefined ? "Add to the schema" : "Change it"}
                    </button>
                    {former !== undefined && (
                        <button type="button" onClick={cancel}>
                            Leave it as it is
                        </button>
                    )}
                </div>
            </form>
        </section>
    );
}

type FieldProps = {
    name: FieldName;
    label: string;
    placeholder: string;
    text: string;
    problem: string | undefined;
    change: (text: string) => void;
    input?: { current: HTMLInputElement | null };
};

function Field({ name, label, placeholder, text, problem, change, input }: FieldProps) {
    const id = `leaf-${name}`;
    return (
        <div class="entry">
            <label for={id}>{label}</label>
            <input
                id={id}
                {...(input && { ref: input })}
                value={text}
                placeholder={placeholder}
                autocomplete="off"
                autocapitalize="off"
                spellcheck={false}
                aria-invalid={problem !== undefined}
                aria-describedby={`${id}-problem`}
                onInput={(event) => change(event.currentTarget.value)}
            />
            <span id={`${id}-problem`} class="problem" role="alert">
                {problem}
            </span>
        </div>
    );
}

type PreviewProps = { endpoint: Endpoint | undefined; leaf: Leafish; isWrong: boolean };

/** The value as it will be shown. */
function Preview({ endpoint, leaf, isWrong }: PreviewProps) {
    const place = useRef<HTMLOutputElement>(null);
    const present = useRef(leaf);
    present.current = leaf;
    useEffect(() => {
        if (!endpoint || isWrong) return undefined;
        return repeatedly(100, () => {
            if (place.current) paintText(place.current, textIn(present.current, endpoint.payload));
        });
    }, [endpoint, isWrong]);
    if (isWrong || !endpoint) return null;
    return (
        <p class="meant">
            It is shown as <output ref={place} class="number" aria-live="off" />
        </p>
    );
}
