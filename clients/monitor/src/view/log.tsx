import type { Entry, Log } from "../model/log";
import { clockText, shown } from "../model/text";
import { useSource } from "./frame";
import { Icon } from "./icons";

const words = { sent: "Handled", schema: "Schema", connection: "Connection", problem: "Problem" };

export function LogPanel({ log }: { log: Log }) {
    useSource(log, 100);
    return (
        <section class="panel log" aria-labelledby="log-title">
            <div class="title">
                <h2 id="log-title">Log</h2>
                {log.entries.length > 0 && <button onClick={() => log.clear()}>Clear</button>}
            </div>
            {log.entries.length === 0 && (
                <p class="empty">Values that you set, schemas and connections are listed here.</p>
            )}
            <div role="log" aria-labelledby="log-title" tabIndex={0}>
                <ol>
                    {log.entries.map((entry) => (
                        <Line key={entry.id} entry={entry} />
                    ))}
                </ol>
            </div>
        </section>
    );
}

/** A text in which names from elsewhere may stand. */
function lines(text: string): string {
    return text.split("\n").map(shown).join("\n");
}

function Line({ entry: { kind, time, text, detail, times } }: { entry: Entry }) {
    return (
        <li class={kind}>
            <time>{clockText(time)}</time>
            <Icon name={kind} />
            <span>
                <span class="hidden">{words[kind]}: </span>
                {lines(text)}
                {times > 1 && <b class="times">{times} times</b>}
                {detail && <code>{lines(detail)}</code>}
            </span>
        </li>
    );
}
