import type { Entry, Log } from "../model/log";
import { clockText } from "../model/text";
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

function Line({ entry: { kind, time, text, detail, times } }: { entry: Entry }) {
    return (
        <li class={kind}>
            <time>{clockText(time)}</time>
            <Icon name={kind} />
            <span>
                <span class="hidden">{words[kind]}: </span>
                {text}
                {times > 1 && <b class="times">{times} times</b>}
                {detail && <code>{detail}</code>}
            </span>
        </li>
    );
}
