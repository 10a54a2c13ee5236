import type { ComponentChildren } from "preact";
import { useState } from "preact/hooks";
import type { Session } from "../model/session";
import { shown as shownText } from "../model/text";
import { LONGEST_SPAN, USUAL_SPAN } from "../model/view";
import { useSource } from "./frame";
import { Icon } from "./icons";
import { Readings } from "./legend";
import { NewPlot, PlotBox } from "./plotbox";
import { Pointer } from "./pointer";
import { latest, type Window } from "./window";

const SPANS: [number, string][] = [
    [10, "10 s"],
    [60, "1 min"],
    [300, "5 min"],
    [900, "15 min"],
];
/** Where there is an archive. */
const LONG_SPANS: [number, string][] = [
    [3600, "1 h"],
    [86_400, "1 day"],
    [604_800, "1 week"],
];

/** All chosen values over common time; arrays as waveforms, and what is wished as a spectrum. */
export function PlotPanel({ session, empty }: { session: Session; empty?: ComponentChildren }) {
    useSource(session.view);
    const { span, ownScales } = session.view.settings;
    const { archive } = session;
    useSource(archive ?? session.view);
    const longest = archive ? LONGEST_SPAN : 3600;
    const spans = archive ? [...SPANS, ...LONG_SPANS] : SPANS;
    const setSpan = (span: number) => session.view.set({ span });
    const [frozen, setFrozen] = useState<Window>();
    const [pointer] = useState(() => new Pointer());
    const [dragging, drag] = useState(false);
    const [measuring, setMeasuring] = useState(false);
    const shown = (): Window => frozen ?? latest(session, span);
    const zoom = (factor: number) => {
        if (!frozen) return setSpan(Math.min(longest, Math.max(1, span * factor)));
        const [middle, half] = [(frozen.from + frozen.to) / 2, ((frozen.to - frozen.from) / 2) * factor];
        zoomTo({ from: middle - half, to: middle + half });
    };
    const zoomTo = (window: Window | undefined) => setFrozen(window && bounded(window, session.archive ? MONTH : DAY));
    const shift = (share: number) => {
        const { from, to } = shown();
        setFrozen({ from: from + share * (to - from), to: to + share * (to - from) });
    };
    const pause = () => setFrozen(frozen ? undefined : shown());
    const measure = (on: boolean) => {
        setMeasuring(on);
        if (!on) pointer.clear();
    };
    const markAt = (which: 0 | 1) => {
        const { from, to } = shown();
        setMeasuring(true);
        pointer.moveMark(which, pointer.time ?? from + ((to - from) * (which + 1)) / 3);
    };
    const press = (event: KeyboardEvent) => {
        const actions: Record<string, () => void> = {
            " ": pause,
            "+": () => zoom(0.5),
            "-": () => zoom(2),
            ArrowLeft: () => shift(-0.25),
            ArrowRight: () => shift(0.25),
            a: () => markAt(0),
            b: () => markAt(1),
            Escape: () => measure(false),
        };
        if (event.ctrlKey || event.metaKey || event.altKey || !actions[event.key]) return;
        actions[event.key]!();
        event.preventDefault();
    };

    const common = { session, span, frozen, zoomTo, ownScales, pointer, measuring, press, drag };
    return (
        <section class="panel plots" aria-labelledby="plots-title">
            <div class="title">
                <h2 id="plots-title">Plots</h2>
                {session.plots.nodes.length > 0 && (
                    <div class="tools" role="group" aria-label="Time shown">
                        <select
                            aria-label="Time span"
                            value={String(span)}
                            onChange={(event) => {
                                setSpan(Number(event.currentTarget.value));
                                setFrozen(undefined);
                            }}
                        >
                            {spans.every(([seconds]) => seconds !== span) && (
                                <option value={String(span)}>{spanText(span)}</option>
                            )}
                            {spans.map(([seconds, text]) => (
                                <option key={text} value={String(seconds)}>
                                    {text}
                                </option>
                            ))}
                        </select>
                        <button class="square" onClick={() => zoom(0.5)} aria-label="Zoom in" title="Zoom in (+)">
                            <Icon name="closer" />
                        </button>
                        <button class="square" onClick={() => zoom(2)} aria-label="Zoom out" title="Zoom out (−)">
                            <Icon name="wider" />
                        </button>
                        <button
                            class={measuring ? "primary" : ""}
                            onClick={() => measure(!measuring)}
                            aria-pressed={measuring}
                        >
                            Measure
                        </button>
                        <button class={frozen ? "primary" : ""} onClick={pause} aria-pressed={frozen !== undefined}>
                            <Icon name={frozen ? "play" : "pause"} /> {frozen ? "Go on" : "Pause"}
                        </button>
                    </div>
                )}
            </div>
            {archive?.problem && session.plots.nodes.length > 0 && (frozen || span > USUAL_SPAN) && (
                <p class="quiet" role="status">
                    Only what has come since the page was opened is drawn: {shownText(archive.problem)}.
                </p>
            )}
            {session.plots.nodes.length === 0 && (
                <p class="empty">
                    {empty ?? (
                        <>
                            Choose values with <Icon name="plot" /> in the table: they are drawn here together.
                        </>
                    )}
                </p>
            )}
            {session.plots.all.map((plot) => (
                <PlotBox key={plot.id} plot={plot} common={common} />
            ))}
            {dragging && <NewPlot session={session} />}
            {session.plots.nodes.length > 0 && (
                <Readings session={session} pointer={pointer} shown={shown} measuring={measuring} />
            )}
            {session.plots.all.some(({ nodes }) => nodes.length > 1) && (
                <label class="quiet check">
                    <input
                        type="checkbox"
                        checked={ownScales}
                        onChange={(event) => session.view.set({ ownScales: event.currentTarget.checked })}
                    />
                    Every curve on its own scale
                </label>
            )}
        </section>
    );
}

const DAY = 86_400_000;
const MONTH = 31 * DAY;

/** A window not shorter than times can tell apart, and not longer than `most` milliseconds. */
function bounded({ from, to }: Window, most: number): Window {
    const [middle, length] = [(from + to) / 2, Math.min(most, Math.max(1, to - from))];
    return { from: middle - length / 2, to: middle + length / 2 };
}

function spanText(seconds: number): string {
    if (seconds < 60) return `${Math.round(seconds * 10) / 10} s`;
    if (seconds < 5400) return `${Math.round(seconds / 6) / 10} min`;
    return seconds < 172_800 ? `${Math.round(seconds / 360) / 10} h` : `${Math.round(seconds / 8640) / 10} days`;
}
