import { useLayoutEffect, useRef, useState } from "preact/hooks";
import type { Checked } from "../check/checker";
import type { Session } from "../model/session";
import { useCheck } from "./check";
import { download } from "./download";
import { FileButton } from "./filebutton";
import { Icon } from "./icons";
import { ProblemItems } from "./problems";

/** More problems than this are told by their number. */
const SHOWN = 100;

/** Opens, shows, checks, sends and saves the schema. */
export function SchemaDialog({ session, close }: { session: Session; close: () => void }) {
    const dialog = useRef<HTMLDialogElement>(null);
    const [text, setText] = useState(session.schemaText);
    const [refusal, setRefusal] = useState<string>();
    useLayoutEffect(() => dialog.current!.showModal(), []); // before any further key
    const check = useCheck(text);
    const useless =
        text.trim() === "" || !check.isFinished || check.problems.some(({ severity }) => severity === "error");
    const leave = () => dialog.current!.close(); // which gives the focus back to where it was
    const apply = (send: boolean) => {
        try {
            session.setSchema(text, send);
            leave();
        } catch (error) {
            setRefusal((error as Error).message);
        }
    };
    return (
        <dialog ref={dialog} class="schema" onClose={close} aria-labelledby="schema-title">
            <div class="title">
                <h2 id="schema-title">Schema</h2>
                <button class="square" onClick={leave} aria-label="Close">
                    <Icon name="close" />
                </button>
            </div>
            <p class="quiet">
                It says which bytes of which frames are which value. Sent to the daemon, it replaces the one in force,
                for all its clients.
            </p>
            <div class="actions">
                <FileButton
                    label="Open file…"
                    name="Schema file"
                    accept=".json,application/json"
                    take={(file) => void file.text().then(setText)}
                >
                    Open file…
                </FileButton>
                <button onClick={() => save(text)} disabled={text === ""}>
                    Save as file
                </button>
            </div>
            <textarea
                aria-label="Schema as JSON"
                aria-describedby="schema-problems"
                placeholder={
                    'Paste a schema here, or drop a file:\n{"motor": {"speed": {"@mac": 5, "@cmd": 2, "@format": "s"}}}'
                }
                value={text}
                onInput={(event) => setText(event.currentTarget.value)}
                onDrop={(event) => {
                    const file = event.dataTransfer?.files[0];
                    if (!file) return;
                    event.preventDefault();
                    void file.text().then(setText);
                }}
                spellcheck={false}
            />
            <Problems {...check} />
            <div class="actions end">
                <p class="problem" role="alert">
                    {refusal}
                </p>
                {session.locked && <p class="quiet">The page is locked: nothing can be sent.</p>}
                <button onClick={() => apply(false)} disabled={useless}>
                    Use here only
                </button>
                <button class="primary" onClick={() => apply(true)} disabled={useless || session.locked}>
                    Send to the daemon
                </button>
            </div>
        </dialog>
    );
}

function save(text: string): void {
    download(new Blob([text], { type: "application/json" }), "vorbel.schema.json");
}

/** Those of the last check; while the next one goes on, they look like what they are. */
function Problems({ text, problems: found, isFinished }: Checked & { isFinished: boolean }) {
    const problems = text.trim() === "" ? [] : found;
    return (
        <div
            id="schema-problems"
            class="problems"
            role="status"
            aria-busy={!isFinished}
            tabIndex={problems.length > 0 ? 0 : undefined}
        >
            {text.trim() !== "" && problems.length === 0 && <p class="fine">No problems found.</p>}
            {problems.length > 0 && (
                <ul>
                    <ProblemItems problems={problems} most={SHOWN} />
                </ul>
            )}
        </div>
    );
}
