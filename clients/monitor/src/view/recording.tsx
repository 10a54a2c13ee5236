import { useEffect, useState } from "preact/hooks";
import { wallClock } from "../model/clock";
import { LIMIT, type Recorder } from "../model/recording/recorder";
import { formats, type Format, type Recordings } from "../model/recording/recordings";
import { ageText, clockText, shown } from "../model/text";
import { download } from "./download";
import { useClock, useSource } from "./frame";
import { Icon } from "./icons";
import { PastHeader } from "./past";
import { Question } from "./question";
import "./recording.css";

export { Recordings } from "../model/recording/recordings";

/** What there is to be said and done about recordings; nothing while there is none. Drawn whenever they change. */
export function panelOf(recordings: Recordings) {
    return function Panel() {
        useEffect(() => askBeforeLeaving(recordings), []);
        const { playback, recorder } = recordings;
        return (
            <>
                {playback && <PastHeader key={playback.id} playback={playback} leave={() => recordings.leave()} />}
                <Progress recordings={recordings} />
                {recorder && !playback && <RecorderBar recordings={recordings} recorder={recorder} />}
                {recordings.asking && <NewQuestion recordings={recordings} />}
            </>
        );
    };
}

/** A recording that is in no file is lost with the page. */
function askBeforeLeaving(recordings: Recordings): () => void {
    const ask = (event: Event) => recordings.isUnsaved && event.preventDefault();
    window.addEventListener("beforeunload", ask);
    return () => window.removeEventListener("beforeunload", ask);
}

function Progress({ recordings: { busy, problem, dismiss } }: { recordings: Recordings }) {
    return (
        <>
            {busy && (
                <p class="recorder" role="status">
                    {busy.what} … {Math.round(100 * busy.share)} %
                </p>
            )}
            {problem && (
                <p class="recorder" role="alert">
                    <Icon name="problem" />
                    <span class="problem">{shown(problem)}</span>
                    <button class="square" aria-label="Close" onClick={dismiss}>
                        <Icon name="close" />
                    </button>
                </p>
            )}
        </>
    );
}

function NewQuestion({ recordings }: { recordings: Recordings }) {
    return (
        <Question
            title="Give up the last recording?"
            yes="Record anew"
            no="Keep it"
            answer={(agreed) => recordings.answer(agreed)}
        >
            <p>It is in no file yet. The page keeps one recording.</p>
        </Question>
    );
}

type BarProps = { recordings: Recordings; recorder: Recorder };

function RecorderBar({ recordings, recorder }: BarProps) {
    useSource(recorder, 250);
    useClock(1000);
    const isOn = recorder.ended === undefined;
    return (
        <section class={`recorder${isOn ? " on" : ""}`} aria-label="Recording">
            <Icon name="record" />
            <span class="told">{isOn ? <Going recorder={recorder} /> : <Done recorder={recorder} />}</span>
            {!isOn && <Actions recordings={recordings} recorder={recorder} />}
        </section>
    );
}

function Going({ recorder }: { recorder: Recorder }) {
    const { capacity } = recorder;
    return (
        <>
            <b>Recording since {clockText(recorder.begun)}</b>: {countText(recorder)}.{" "}
            <span class="quiet">
                {capacity !== undefined && `At this rate it holds ${ageText(capacity)}, then the oldest goes. `}
                It is lost with the page, unless it is saved.
            </span>
        </>
    );
}

function Done({ recorder }: { recorder: Recorder }) {
    return (
        <>
            <b>
                Recorded from {clockText(recorder.from)} to {clockText(recorder.ended!)}
            </b>
            : {countText(recorder)}.{" "}
            <span class="quiet">
                {recorder.saved ? "It was saved." : "It is lost with the page, unless it is saved."}
            </span>
        </>
    );
}

function countText({ messages, dropped, size, from }: Recorder): string {
    const kept = `${(messages - dropped).toLocaleString("en")} messages, ${mebibytes(size)} of ${mebibytes(LIMIT)} MiB`;
    if (dropped === 0) return kept;
    return `${kept}; the oldest ${dropped.toLocaleString("en")}, before ${clockText(from)}, were dropped`;
}

function mebibytes(bytes: number): string {
    const number = bytes / 1024 / 1024;
    return number < 99.95 && bytes < LIMIT ? number.toFixed(1) : number.toFixed(0);
}

function Actions({ recordings, recorder }: BarProps) {
    const [format, setFormat] = useState<Format>("jsonl");
    const isBusy = recordings.busy !== undefined;
    const save = async () => {
        const file = await recordings.export(format);
        if (file) download(file, nameOf(recorder, format));
    };
    return (
        <span class="actions">
            <button disabled={isBusy || recorder.messages === 0} onClick={() => void recordings.view()}>
                <Icon name="play" /> Look at it
            </button>
            <select
                aria-label="Format"
                value={format}
                onChange={(event) => setFormat(event.currentTarget.value as Format)}
            >
                {formats.map((name) => (
                    <option key={name} value={name}>
                        {name.toUpperCase()}
                    </option>
                ))}
            </select>
            <button disabled={isBusy || recorder.messages === 0} onClick={() => void save()}>
                Save
            </button>
            <button disabled={isBusy} onClick={() => recordings.discard()}>
                Discard
            </button>
        </span>
    );
}

/** "vorbel-2026-11-22-110305.jsonl", by the clock on the wall. */
function nameOf(recorder: Recorder, format: Format): string {
    const date = new Date(wallClock.at(recorder.begun)).toLocaleDateString("sv");
    return `vorbel-${date}-${clockText(recorder.begun).replaceAll(":", "")}.${format}`;
}
