import { useState } from "preact/hooks";
import type { Kept } from "../model/kept";
import { outcomeWords, sentLine, type SentEntry } from "../model/sent";
import { shown, stampText } from "../model/text";
import { copyText } from "./copy";
import { useSource } from "./frame";
import { Icon } from "./icons";
import { Question } from "./question";

/** What went out from here, in all visits. */
export function SentList({ kept }: { kept: Kept<SentEntry> }) {
    useSource(kept, 100);
    const [isAsking, setAsking] = useState(false);
    const [told, tell] = useState("");
    const copy = async () => {
        const done = await copyText(kept.entries.map(sentLine).join("\n"));
        tell(done ? `${kept.entries.length} lines copied` : "The browser does not let it be copied");
    };
    return (
        <div class="part">
            <h3>What went out</h3>
            <div class="actions">
                <button disabled={kept.entries.length === 0} onClick={() => void copy()}>
                    Copy
                </button>
                <button disabled={kept.entries.length === 0} onClick={() => setAsking(true)}>
                    Clear
                </button>
                <span class="quiet" role="status">
                    {told}
                </span>
            </div>
            <ol class="sent">
                {kept.entries.map((entry) => (
                    <SentItem key={entry.id} entry={entry} />
                ))}
            </ol>
            {isAsking && (
                <Question
                    title="Clear the list of what went out?"
                    yes="Clear"
                    no="Keep it"
                    answer={(agreed) => {
                        setAsking(false);
                        if (agreed) kept.clear();
                    }}
                >
                    <p>It is the only record that this browser has of it.</p>
                </Question>
            )}
        </div>
    );
}

function SentItem({ entry }: { entry: SentEntry }) {
    const { time, until, source, text, frame, outcome, note, times } = entry;
    return (
        <li>
            <Icon name={outcome === "handled" ? "sent" : "problem"} />
            <span>
                <time>{stampText(time)}</time> <b>{outcomeWords[outcome]}</b> {shown(text)}
                {times > 1 && ` (${times} times until ${stampText(until)})`}
                <code>{frame}</code>
                <span class="quiet">{shown(source)}</span>
                {note && <span class="problem"> {shown(note)}</span>}
            </span>
        </li>
    );
}
