import { useEffect } from "preact/hooks";
import { wallClock } from "../model/clock";
import { SPEEDS, type Playback } from "../model/recording/playback";
import { ageText, clockText, shown } from "../model/text";
import { repeatedly, useSource } from "./frame";
import { Icon } from "./icons";

/** Stands in the place of the connection while a recording is looked at: what is seen is not the present. */
export function PastHeader({ playback, leave }: { playback: Playback; leave: () => void }) {
    const { begin, end, note, messages } = playback;
    return (
        <header class="past" aria-label="Recording">
            <div class="told" role="status">
                <h1>
                    <Icon name="record" /> Recording: this is the past.
                </h1>
                <p>
                    {dateText(begin)}, {clockText(begin)} to {clockText(end)} ({ageText(end - begin)},{" "}
                    {messages.toLocaleString("en")} messages). <Source playback={playback} />
                    {note && <b class="problem">Only this much could be read: {shown(note)}.</b>}
                </p>
            </div>
            <button class="primary" onClick={leave}>
                Back to the present
            </button>
            <Transport playback={playback} />
        </header>
    );
}

function Source({ playback: { name, origin, schema, undecodable } }: { playback: Playback }) {
    return (
        <span class="quiet">
            {shown(name)}
            {origin?.hello && ` of ${shown(origin.hello.type)} ${shown(origin.hello.id ?? "")}`}
            {origin?.address && ` at ${shown(origin.address)}`}
            {!schema && ", without a schema"}
            {undecodable > 0 && `, ${undecodable} undecodable`}
            {origin?.dropped !== undefined && `, without the oldest ${origin.dropped.toLocaleString("en")} messages`}
            {". "}
        </span>
    );
}

function dateText(time: number): string {
    return new Date(wallClock.at(time)).toLocaleDateString("sv"); // 2026-11-22
}

/** Plays, steps and scrolls. */
function Transport({ playback }: { playback: Playback }) {
    useSource(playback.values);
    useSource(playback.status);
    const { begin, end, time, playing, speed } = playback;
    useEffect(() => (playing ? repeatedly(30, () => playback.tick()) : undefined), [playing]);
    return (
        <div class="transport" role="group" aria-label="Place in the recording">
            <button class="square" aria-label="Message before" onClick={() => playback.step(-1)}>
                <Icon name="back" />
            </button>
            <button
                class="square primary"
                aria-label={playing ? "Pause the recording" : "Play the recording"}
                onClick={() => (playing ? playback.pause() : playback.play())}
            >
                <Icon name={playing ? "pause" : "play"} />
            </button>
            <button class="square" aria-label="Next message" onClick={() => playback.step(1)}>
                <Icon name="on" />
            </button>
            <input
                type="range"
                aria-label="Time in the recording"
                aria-valuetext={clockText(time, 3)}
                min={0}
                max={end - begin}
                step="any"
                value={time - begin}
                onInput={(event) => playback.seek(begin + Number(event.currentTarget.value))}
            />
            <output>{clockText(time, 3)}</output>
            <select
                aria-label="Speed"
                value={String(speed)}
                onChange={(event) => playback.setSpeed(Number(event.currentTarget.value))}
            >
                {SPEEDS.map((factor) => (
                    <option key={factor} value={String(factor)}>
                        {factor}×
                    </option>
                ))}
            </select>
        </div>
    );
}
