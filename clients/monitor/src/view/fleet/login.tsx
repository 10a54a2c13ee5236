import { useEffect, useRef, useState } from "preact/hooks";
import { brokerUrl, type Entry } from "../../model/fleet/login";
import { problemOfPrefix } from "../../model/fleet/topics";
import { shown } from "../../model/text";
import { pageUrl } from "../../page";

type LoginProps = {
    first: Entry;
    /** Why one is not in. */
    problem: string;
    enter: (entry: Entry, remember: boolean) => void;
};

/** Asks how to get in at the broker. Nothing is connected to before somebody agrees. */
export function LoginForm({ first, problem, enter }: LoginProps) {
    const [entry, setEntry] = useState(first);
    const [remember, setRemember] = useState(false);
    const [wrong, setWrong] = useState("");
    const user = useRef<HTMLInputElement>(null);
    useEffect(() => user.current!.focus(), []);
    const change = (part: Partial<Entry>) => {
        setEntry({ ...entry, ...part });
        setWrong("");
    };
    const submit = (event: Event) => {
        event.preventDefault();
        try {
            const url = brokerUrl(entry.url, pageUrl());
            const prefixProblem = problemOfPrefix(entry.prefix);
            if (prefixProblem) throw new Error(prefixProblem);
            enter({ ...entry, url }, remember);
        } catch (error) {
            setWrong((error as Error).message);
        }
    };
    const field = (name: keyof Entry, label: string, more: object = {}) => (
        <label class="field">
            {label}
            <input
                value={entry[name]}
                onInput={(event) => change({ [name]: event.currentTarget.value })}
                autocapitalize="off"
                spellcheck={false}
                {...more}
            />
        </label>
    );
    return (
        <form class="panel login" onSubmit={submit} aria-labelledby="login-title">
            <h2 id="login-title">Boards of a broker</h2>
            {field("url", "Address of the broker", { autocomplete: "off", inputMode: "url" })}
            {field("prefix", "Topics begin with", { autocomplete: "off" })}
            {field("user", "User", { autocomplete: "username", ref: user })}
            {field("password", "Password", { type: "password", autocomplete: "current-password" })}
            <label class="check">
                <input
                    type="checkbox"
                    checked={remember}
                    onChange={(event) => setRemember(event.currentTarget.checked)}
                />
                Remember user and password on this device, where everybody who uses this browser can read them
            </label>
            <div class="actions">
                <button type="submit" class="primary">
                    Connect
                </button>
            </div>
            <p class="problem" role="alert">
                {wrong || shown(problem)}
            </p>
        </form>
    );
}
