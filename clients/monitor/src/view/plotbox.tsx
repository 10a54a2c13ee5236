import { useState } from "preact/hooks";
import type { Plot, Shape } from "../model/plots";
import type { Session } from "../model/session";
import { shown } from "../model/text";
import type { TreeNode } from "../model/tree";
import type { Zooms } from "./axes";
import { SpectrumPlot, TimePlot, WavePlot } from "./curves";
import { dropTarget } from "./dragging";
import { Legend } from "./legend";
import type { Pointer } from "./pointer";
import type { Window } from "./window";

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
    const drawnAs = (shape: Shape) => plot.nodes.filter((node) => node.series && session.plots.shapeOf(node) === shape);
    const [arrays, curves, spectra] = [drawnAs("wave"), drawnAs("time"), drawnAs("spectrum")];
    return (
        <div
            class={`plot-box${target ? " target" : ""}`}
            {...dropTarget(setTarget, (id) => session.movePlotted(id, plot.id))}
        >
            {curves.length > 0 && (
                <figure
                    tabIndex={0}
                    onKeyDown={press}
                    aria-label={`Plot of ${curves.map(nameOf).join(", ")} over time. Space pauses, plus and minus zoom, arrows move, A and B set marks.`}
                >
                    <TimePlot session={session} nodes={curves} zooms={zooms} zoomValues={setZooms} {...rest} />
                </figure>
            )}
            {arrays.length > 0 && (
                <figure aria-label={`Waveforms of ${arrays.map(nameOf).join(", ")}`}>
                    <WavePlot session={session} nodes={arrays} paused={common.frozen !== undefined} />
                </figure>
            )}
            {spectra.map((node) => (
                <figure key={node.id} aria-label={`Spectrum of ${nameOf(node)}`}>
                    <SpectrumPlot session={session} node={node} span={common.span} frozen={common.frozen} />
                </figure>
            ))}
            <Legend session={session} plot={plot} pointer={common.pointer} drag={drag} />
        </div>
    );
}

/** "motor.speed in rpm" */
function nameOf({ dotted, leaf }: TreeNode): string {
    const unit = leaf?.meaning.unit;
    return unit ? `${dotted} in ${shown(unit)}` : dotted;
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
