import type { ComponentChildren } from "preact";
import { useEffect, useLayoutEffect, useState } from "preact/hooks";
import type { Session } from "../model/session";
import { shown } from "../model/text";
import { memory } from "../page";
import { Behind } from "./behind";
import { Icon } from "./icons";
import { later } from "./later";
import { LinkButton } from "./link";
import { LockButton } from "./lock";

export const AlarmsButton = later(() => import("./limits").then((part) => part.AlarmsButton));

export const stateWords = {
    connected: "Connected",
    connecting: "Connecting",
    waiting: "Not connected",
    closed: "Disconnected",
};

export type HeaderProps = {
    session: Session;
    openSchema: () => void;
    openWorkshop: () => void;
    children: ComponentChildren;
};

/** The connection; its children are further tools. */
export function Header({ session, openSchema, openWorkshop, children }: HeaderProps) {
    const { state, hello, reason, undecodable } = session;
    return (
        <header>
            <h1>
                <img src="./icon.svg" alt="" width="28" height="28" />
                Vorbel
            </h1>
            <Address session={session} />
            <p class={`state ${state}`} title={reason}>
                <span class="dot" />
                <span role="status">
                    <strong>{stateWords[state]}</strong>
                    {state === "connected" && hello && <Device type={hello.type} id={hello.id} />}
                </span>
                {state === "waiting" && <span class="quiet reason">{shown(reason)}</span>}
            </p>
            {undecodable > 0 && (
                <p class="undecodable" title="Messages that could not be decoded; the log shows their bytes">
                    <Icon name="problem" /> {undecodable} undecodable
                </p>
            )}
            <Behind />
            <div class="tools">
                {session.guard && <AlarmsButton session={session} guard={session.guard} />}
                {children}
                <LockButton session={session} />
                <button onClick={openSchema}>
                    <Icon name="schema" /> Schema
                </button>
                <button
                    id="workshop-button"
                    aria-disabled={session.locked}
                    title={
                        session.locked
                            ? "The page is locked: the workshop needs to send a schema"
                            : "Find and name values of an unknown bus"
                    }
                    onClick={openWorkshop}
                >
                    <Icon name="workshop" /> Workshop
                </button>
                <LinkButton session={session} />
                <a class="button square" href="./?fleet" aria-label="Fleet" title="All boards of a broker">
                    <Icon name="fleet" />
                </a>
                <button
                    class="square"
                    aria-label="Presets and sequences"
                    title="Presets and sequences"
                    aria-expanded={session.ordering !== undefined}
                    onClick={() => session.startOrdering(session.ordering ? undefined : { values: [] })}
                >
                    <Icon name="orders" />
                </button>
                <ThemeButton />
            </div>
        </header>
    );
}

export function Device({ type, id }: { type: string; id?: string | undefined }) {
    return (
        <span class="device">
            <span class="quiet">to</span> {shown(type) || "a device without a type"}
            {id && <code>{shown(id)}</code>}
        </span>
    );
}

function Address({ session }: { session: Session }) {
    const [text, setText] = useState(session.address);
    const [problem, setProblem] = useState<string>();
    useEffect(() => setText(session.address), [session.address]);
    const connected = session.state === "connected" || session.state === "connecting";
    const connect = (event: Event) => {
        event.preventDefault();
        setProblem(session.connect(text));
    };
    return (
        <form class="address" onSubmit={connect}>
            <label>
                <span class="hidden">Address of the daemon</span>
                <input
                    value={text}
                    onInput={(event) => {
                        setText(event.currentTarget.value);
                        setProblem(undefined);
                    }}
                    placeholder="host or host:port"
                    autocomplete="off"
                    autocapitalize="off"
                    spellcheck={false}
                    enterkeyhint="go"
                    aria-invalid={problem !== undefined}
                    aria-describedby="address-problem"
                />
            </label>
            {!connected || text !== session.address ? (
                <button type="submit">
                    {session.state === "waiting" && text === session.address ? "Try now" : "Connect"}
                </button>
            ) : (
                <button type="button" onClick={() => session.disconnect()}>
                    Disconnect
                </button>
            )}
            <span id="address-problem" class="problem" role="alert">
                {problem}
            </span>
        </form>
    );
}

const themes = ["auto", "light", "dark"] as const;

/** The theme in force is an attribute of the document; who draws by hand hears of it as "themechange". */
function useTheme(theme: string): void {
    useLayoutEffect(() => {
        const system = window.matchMedia("(prefers-color-scheme: dark)");
        const apply = () => {
            document.documentElement.dataset["theme"] = theme !== "auto" ? theme : system.matches ? "dark" : "light";
            window.dispatchEvent(new Event("themechange"));
        };
        apply();
        system.addEventListener("change", apply);
        return () => system.removeEventListener("change", apply);
    }, [theme]);
}

export function ThemeButton() {
    const [theme, setTheme] = useState(() => memory.load("theme") ?? "auto");
    useTheme(theme);
    useLayoutEffect(() => memory.save("theme", theme), [theme]);
    const next = themes[(themes.indexOf(theme as "auto") + 1) % themes.length]!;
    return (
        <button
            class="square"
            onClick={() => setTheme(next)}
            aria-label={`Theme: ${theme}. Change to ${next}`}
            title={`Theme: ${theme}`}
        >
            <Icon name="theme" />
        </button>
    );
}
