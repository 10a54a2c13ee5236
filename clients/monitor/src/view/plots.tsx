import { useState } from "preact/hooks";
import type { Session } from "../model/session";
import { valueText } from "../model/text";
import type { TreeNode } from "../model/tree";
import { useClock, useSource } from "./frame";
import { Icon } from "./icons";
import { lineColor } from "./lines";
import { latest, TimePlot, WavePlot, type Window } from "./uplot";

const SPANS: [number, string][] = [
    [10, "10 s"],
    [60, "1 min"],
    [300, "5 min"],
    [900, "15 min"],
];

/** All chosen values over common time; arrays as waveforms. */
export function PlotPanel({ session }: { session: Session }) {
    const [span, setSpan] = useState(60);
    const [frozen, setFrozen] = useState<Window>();
    const [ownScales, setOwnScales] = useState(true);
    const arrays = session.plots.nodes.filter((node) => node.series?.waveform);
    const curves = session.plots.nodes.filter((node) => node.series && !node.series.waveform);
    const height = curves.length > 0 && arrays.length > 0 ? 180 : 230;

    const shown = (): Window => frozen ?? latest(span);
    const zoom = (factor: number) => {
        if (!frozen) return setSpan(Math.min(3600, Math.max(1, span * factor)));
        const [middle, half] = [(frozen.from + frozen.to) / 2, ((frozen.to - frozen.from) / 2) * factor];
        zoomTo({ from: middle - half, to: middle + half });
    };
    const zoomTo = (window: Window | undefined) => setFrozen(window && bounded(window));
    const shift = (share: number) => {
        const { from, to } = shown();
        setFrozen({ from: from + share * (to - from), to: to + share * (to - from) });
    };
    const pause = () => setFrozen(frozen ? undefined : shown());
    const press = (event: KeyboardEvent) => {
        const actions: Record<string, () => void> = {
            " ": pause,
            "+": () => zoom(0.5),
            "-": () => zoom(2),
            ArrowLeft: () => shift(-0.25),
            ArrowRight: () => shift(0.25),
        };
        if (event.ctrlKey || event.metaKey || event.altKey || !actions[event.key]) return;
        actions[event.key]!();
        event.preventDefault();
    };

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
                            {SPANS.every(([seconds]) => seconds !== span) && (
                                <option value={String(span)}>{spanText(span)}</option>
                            )}
                            {SPANS.map(([seconds, text]) => (
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
                        <button class={frozen ? "primary" : ""} onClick={pause} aria-pressed={frozen !== undefined}>
                            <Icon name={frozen ? "play" : "pause"} /> {frozen ? "Go on" : "Pause"}
                        </button>
                    </div>
                )}
            </div>
            {session.plots.nodes.length === 0 && (
                <p class="empty">
                    Choose values with <Icon name="plot" /> in the table: they are drawn here together.
                </p>
            )}
            {curves.length > 0 && (
                <figure
                    tabIndex={0}
                    onKeyDown={press}
                    aria-label={`Plot of ${curves.map((node) => node.dotted).join(", ")} over time. Space pauses, plus and minus zoom, arrows move.`}
                >
                    <TimePlot
                        session={session}
                        nodes={curves}
                        span={span}
                        frozen={frozen}
                        ownScales={ownScales}
                        height={height}
                        zoomTo={zoomTo}
                    />
                </figure>
            )}
            {arrays.length > 0 && (
                <figure aria-label={`Waveforms of ${arrays.map((node) => node.dotted).join(", ")}`}>
                    <WavePlot session={session} nodes={arrays} paused={frozen !== undefined} height={height} />
                </figure>
            )}
            {session.plots.nodes.length > 0 && <Legend session={session} />}
            {curves.length > 1 && (
                <label class="quiet check">
                    <input
                        type="checkbox"
                        checked={ownScales}
                        onChange={(event) => setOwnScales(event.currentTarget.checked)}
                    />
                    Every curve on its own scale
                </label>
            )}
        </section>
    );
}

/** A window not shorter than times can tell apart, and not longer than a day. */
function bounded({ from, to }: Window): Window {
    const [middle, length] = [(from + to) / 2, Math.min(86_400_000, Math.max(1, to - from))];
    return { from: middle - length / 2, to: middle + length / 2 };
}

function spanText(seconds: number): string {
    return seconds < 60 ? `${Math.round(seconds * 10) / 10} s` : `${Math.round(seconds / 6) / 10} min`;
}

function Legend({ session }: { session: Session }) {
    useSource(session.values, 200);
    useClock(1000);
    return (
        <ul class="legend" aria-label="On the plot">
            {session.plots.nodes.map((node) => (
                <li key={node.id} style={{ "--line": lineColor(session.plots.lineOf(node)!) }}>
                    <span class="swatch" />
                    <PathText node={node} />
                    <span class="number">{node.series ? valueText(node.series.value, node.leaf) : "–"}</span>
                    <RemoveButton session={session} node={node} />
                </li>
            ))}
        </ul>
    );
}

/** A path of which the end stays in sight where there is no room for all of it. */
function PathText({ node }: { node: TreeNode }) {
    const end = node.dotted.length - node.label.length;
    return (
        <span class="name" title={node.dotted}>
            <span>{node.dotted.slice(0, end)}</span>
            <span>{node.dotted.slice(end)}</span>
        </span>
    );
}

function RemoveButton({ session, node }: { session: Session; node: TreeNode }) {
    return (
        <button class="square" onClick={() => session.togglePlot(node)} aria-label={`Take ${node.dotted} off the plot`}>
            <Icon name="close" />
        </button>
    );
}
