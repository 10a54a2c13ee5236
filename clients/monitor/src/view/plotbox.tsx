import { useState } from "preact/hooks";
import type { Plot } from "../model/plots";
import type { Session } from "../model/session";
import type { Zooms } from "./axes";
import { dropTarget } from "./dragging";
import { Legend } from "./legend";
import type { Pointer } from "./pointer";
import { TimePlot, WavePlot, type Window } from "./uplot";

/** What all plots have in common. */
export type Common = {
    session: Session;
    span: number;
    frozen: Window | undefined;
    zoomTo: (window: Window | undefined) => void;
    ownScales: boolean;
    pointer: Pointer;
    measuring: boolean;
    press: (event: KeyboardEvent) => void;
    /** Tells when a value is dragged, and when no longer. */
    drag: (on: boolean) => void;
};

/** Values that are drawn together, and their legend. Another plot's value that is dropped here is drawn here. */
export function PlotBox({ plot, common }: { plot: Plot; common: Common }) {
    const { session, press, drag, ...rest } = common;
    const [zooms, setZooms] = useState<Zooms>(new Map());
    const [target, setTarget] = useState(false);
    const arrays = plot.nodes.filter((node) => node.series?.waveform);
    const curves = plot.nodes.filter((node) => node.series && !node.series.waveform);
    return (
        <div
            class={`plot-box${target ? " target" : ""}`}
            {...dropTarget(setTarget, (id) => session.movePlotted(id, plot.id))}
        >
            {curves.length > 0 && (
                <figure
                    tabIndex={0}
                    onKeyDown={press}
                    aria-label={`Plot of ${curves.map((node) => node.dotted).join(", ")} over time. Space pauses, plus and minus zoom, arrows move, A and B set marks.`}
                >
                    <TimePlot session={session} nodes={curves} zooms={zooms} zoomValues={setZooms} {...rest} />
                </figure>
            )}
            {arrays.length > 0 && (
                <figure aria-label={`Waveforms of ${arrays.map((node) => node.dotted).join(", ")}`}>
                    <WavePlot session={session} nodes={arrays} paused={common.frozen !== undefined} />
                </figure>
            )}
            <Legend session={session} plot={plot} pointer={common.pointer} drag={drag} />
        </div>
    );
}

/** A place for values that shall have a plot of their own; there while one is dragged. */
export function NewPlot({ session }: { session: Session }) {
    const [target, setTarget] = useState(false);
    return (
        <div
            class={`new-plot${target ? " target" : ""}`}
            {...dropTarget(setTarget, (id) => session.movePlotted(id, undefined))}
        >
            A new plot
        </div>
    );
}
