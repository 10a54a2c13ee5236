import { useEffect, useRef } from "preact/hooks";
import uPlot from "uplot";
import { now } from "../../model/clock";
import { shown } from "../../model/text";
import { identifierText } from "../../model/workshop/frames";
import { textIn, type Leafish } from "../../model/workshop/selection";
import { RECENT } from "../../model/workshop/traffic";
import type { Workshop } from "../../model/workshop/workshop";
import { numberScale, timeAxis, valueAxes, type ValueScale } from "../axes";
import { resolved } from "../canvas";
import { repeatedly } from "../frame";
import { lineColor } from "../lines";
import { useUPlot } from "../uplot";
import { courseOf } from "./course";
import { paintText } from "./paint";
import { memberText } from "./texts";

/** Seconds in sight. */
const SPAN = 10;

/** Something that is plotted: what is read at present, or a value that has a name. */
export type Curve = { name: string; identifier: number; leaf: Leafish };

/** The last seconds of some values, each by a scale of its own. */
export function LivePlot({ workshop, curves }: { workshop: Workshop; curves: Curve[] }) {
    return (
        <section class="panel live" aria-labelledby="live-title">
            <div class="title">
                <h2 id="live-title">The last {SPAN} seconds</h2>
            </div>
            <Canvas workshop={workshop} curves={curves} />
            <Legend workshop={workshop} curves={curves} />
        </section>
    );
}

function Canvas({ workshop, curves }: { workshop: Workshop; curves: Curve[] }) {
    const present = useRef(curves);
    present.current = curves;
    const refresh = (plot: uPlot) => {
        if (plot.series.length !== present.current.length + 1) return; // it is about to be made anew, for other curves
        const to = now();
        const from = to - 1000 * SPAN;
        plot.setData(dataOf(workshop, present.current, from), false);
        plot.setScale("x", { min: from / 1000, max: to / 1000 });
    };
    const key = curves.map(({ name, identifier, leaf }) => `${name} ${identifier} ${unitOf(leaf)}`).join("|");
    const { box, plot } = useUPlot(() => optionsOf(present.current), refresh, [key]);
    useEffect(() => repeatedly(40, () => plot.current && refresh(plot.current)), [key]);
    return <div ref={box} class="uplot-box" aria-hidden="true" />;
}

/** Their values at all times at which one of them has one. */
function dataOf({ traffic }: Workshop, curves: Curve[], since: number): uPlot.AlignedData {
    const tables = curves.map(({ identifier, leaf }): uPlot.AlignedData => {
        const endpoint = traffic.endpoints.get(identifier);
        if (!endpoint) return [[], []];
        const { times, values } = courseOf(endpoint, leaf, RECENT, since);
        return [times.map((time) => time / 1000), values];
    });
    return tables.length > 0 ? uPlot.join(tables) : [[], []];
}

function optionsOf(curves: Curve[]): uPlot.Options {
    const scales = curves.map(({ leaf }, at): ValueScale => {
        return { name: `values ${at}`, stroke: resolved(lineColor(at)), units: unitOf(leaf) };
    });
    return {
        width: 0,
        height: 0,
        legend: { show: false },
        cursor: { show: false },
        scales: {
            x: { time: false, auto: false },
            ...Object.fromEntries(scales.map(({ name }) => [name, numberScale(name, () => new Map())])),
        },
        axes: [timeAxis(), ...valueAxes(scales)],
        series: [
            {},
            ...scales.map(({ name, stroke }): uPlot.Series => {
                return { scale: name, stroke, width: 1.6, spanGaps: true, points: { show: false } };
            }),
        ],
    };
}

function unitOf(leaf: Leafish): string {
    return shown(memberText(leaf, "unit"));
}

/** Which curve is what, and what it is at present. */
function Legend({ workshop, curves }: { workshop: Workshop; curves: Curve[] }) {
    const list = useRef<HTMLUListElement>(null);
    const present = useRef(curves);
    present.current = curves;
    useEffect(
        () =>
            repeatedly(100, () => {
                const places = list.current?.querySelectorAll(".number") ?? [];
                for (const [at, { identifier, leaf }] of present.current.entries()) {
                    const endpoint = workshop.traffic.endpoints.get(identifier);
                    if (places[at]) paintText(places[at], endpoint ? textIn(leaf, endpoint.payload) : "–");
                }
            }),
        [workshop],
    );
    return (
        <ul ref={list} class="legend" aria-labelledby="live-title">
            {curves.map(({ name, identifier }, at) => (
                <li key={`${at} ${name}`}>
                    <span class="swatch" style={{ "--line": lineColor(at) }} />
                    <span class="name">
                        <span>{shown(name)}</span>
                    </span>
                    <code class="quiet">{identifierText(identifier)}</code>
                    <span class="number" />
                </li>
            ))}
        </ul>
    );
}
