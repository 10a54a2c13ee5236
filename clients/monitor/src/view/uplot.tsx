import { useEffect, useRef } from "preact/hooks";
import uPlot from "uplot";
import { now } from "../model/clock";
import { decimate } from "../model/decimate";
import type { Session } from "../model/session";
import { clockText, numberText } from "../model/text";
import type { TreeNode } from "../model/tree";
import { color } from "./canvas";
import { follow, repeatedly } from "./frame";

/** Times in milliseconds since 1970. */
export type Window = { from: number; to: number };

/** The last so many seconds. */
export function latest(span: number): Window {
    const to = now();
    return { from: to - span * 1000, to };
}

/** The colour of a plotted value, by its place among all that are plotted. */
function lineColor(session: Session, node: TreeNode): string {
    return color(`--line-${session.plotted.indexOf(node) % 8}`);
}

/** A plot as wide as its parent, made anew when `make` gives other options, and destroyed at the end. */
function useUPlot(make: () => uPlot.Options, refresh: (plot: uPlot) => void, height: number, sources: unknown[]) {
    const box = useRef<HTMLDivElement>(null);
    const plot = useRef<uPlot | null>(null);
    useEffect(() => {
        const build = () => {
            plot.current?.destroy();
            const width = Math.max(100, box.current!.clientWidth);
            plot.current = new uPlot(
                { ...make(), width, height },
                [[], []] as unknown as uPlot.AlignedData,
                box.current!,
            );
            refresh(plot.current);
        };
        build();
        const observer = new ResizeObserver(() => {
            const width = Math.max(100, box.current!.clientWidth);
            if (plot.current && plot.current.width !== width) plot.current.setSize({ width, height });
        });
        observer.observe(box.current!);
        window.addEventListener("themechange", build);
        return () => {
            observer.disconnect();
            window.removeEventListener("themechange", build);
            plot.current?.destroy();
            plot.current = null;
        };
    }, [height, ...sources]);
    return { box, plot };
}

function axis(options: uPlot.Axis): uPlot.Axis {
    return {
        stroke: color("--quiet"),
        font: "12px system-ui, sans-serif",
        grid: { stroke: color("--grid"), width: 1 },
        ticks: { show: false },
        ...options,
    };
}

/** Axes for the first two scales: one at each side. More would leave no room for the curves. */
function valueAxes(scales: { name: string; stroke: string }[]): uPlot.Axis[] {
    return scales.slice(0, 2).map(({ name, stroke }, at) =>
        axis({
            scale: name,
            side: at === 0 ? 3 : 1,
            size: 56,
            values: (_, splits) => splits.map((split) => numberText(split)),
            ...(scales.length > 1 ? { stroke } : {}),
            ...(at > 0 ? { grid: { show: false } } : {}),
        }),
    );
}

/** A little air above and below; a constant value lies in the middle. */
function paddedRange(_: uPlot, least: number | null, most: number | null): [number, number] {
    if (least == null || most == null) return [0, 1];
    const padding = 0.08 * (most - least) || Math.abs(most) * 0.1 || 1;
    return [least - padding, most + padding];
}

type TimePlotProps = {
    session: Session;
    nodes: TreeNode[];
    span: number;
    frozen: Window | undefined;
    ownScales: boolean;
    height: number;
    /** Shows a time for good; undefined goes on with the present. */
    zoomTo: (window: Window | undefined) => void;
};

export function TimePlot({ session, nodes, span, frozen, ownScales, height, zoomTo }: TimePlotProps) {
    const props = useRef({ span, frozen });
    props.current = { span, frozen };

    const refresh = (plot: uPlot) => {
        const { span, frozen } = props.current;
        const { from, to } = frozen ?? latest(span);
        const columns = Math.max(50, Math.round(plot.bbox.width / devicePixelRatio) || plot.width);
        const curves = nodes.map(({ series }) => ({ history: series!.history, holds: series!.isFlag }));
        const { times, lines } = decimate(curves, from, to, columns);
        plot.setData([times.map((time) => time / 1000), ...lines] as uPlot.AlignedData, false);
        plot.setScale("x", { min: from / 1000, max: to / 1000 });
    };
    const curve = (node: TreeNode) => `${session.plotted.indexOf(node)} ${node.id} ${node.series!.isFlag}`;
    const key = `${nodes.map(curve).join()}|${ownScales}`;
    const { box, plot } = useUPlot(() => timeOptions(session, nodes, ownScales, zoomTo), refresh, height, [key]);

    useEffect(() => {
        if (plot.current) refresh(plot.current);
        if (frozen) return undefined;
        // The picture only changes when time has moved on by a pixel.
        const pixel = (span * 1000) / Math.max(300, box.current!.clientWidth);
        return repeatedly(Math.max(16, pixel), () => plot.current && refresh(plot.current));
    }, [key, span, frozen]);
    return <div ref={box} class="uplot-box" onDblClick={() => zoomTo(undefined)} />;
}

function timeOptions(
    session: Session,
    nodes: TreeNode[],
    ownScales: boolean,
    zoomTo: (window: Window) => void,
): uPlot.Options {
    const scaleOf = (node: TreeNode) => (node.series!.isFlag ? "flags" : ownScales ? node.id : "values");
    const numbers = nodes.filter((node) => !node.series!.isFlag);
    const named = new Map(
        numbers.map((node) => [scaleOf(node), { name: scaleOf(node), stroke: lineColor(session, node) }]),
    );
    const scales: uPlot.Scales = { x: { time: true, auto: false }, flags: { range: [-0.25, 1.25] } };
    for (const name of named.keys()) scales[name] = { range: paddedRange };
    return {
        width: 0,
        height: 0,
        legend: { show: false },
        cursor: { drag: { x: true, y: false, setScale: false }, points: { size: 7 } },
        scales,
        axes: [
            axis({ space: 70, size: 34, values: (_, seconds) => seconds.map((second) => clockText(second * 1000)) }),
            ...valueAxes([...named.values()]),
        ],
        series: [
            {},
            ...nodes.map((node): uPlot.Series => ({
                label: node.dotted,
                scale: scaleOf(node),
                stroke: lineColor(session, node),
                width: 1.6,
                points: { show: false },
                ...(node.series!.isFlag ? { paths: uPlot.paths.stepped!({ align: 1 }) } : {}),
            })),
        ],
        hooks: {
            setSelect: [
                (plot) => {
                    if (plot.select.width < 5) return;
                    const time = (position: number) => plot.posToVal(position, "x") * 1000;
                    zoomTo({ from: time(plot.select.left), to: time(plot.select.left + plot.select.width) });
                    plot.setSelect({ left: 0, top: 0, width: 0, height: 0 }, false);
                },
            ],
        },
    };
}

type WavePlotProps = { session: Session; nodes: TreeNode[]; paused: boolean; height: number };

export function WavePlot({ session, nodes, paused, height }: WavePlotProps) {
    const drawn = useRef<unknown[]>([]);
    const refresh = (plot: uPlot) => {
        const waves = nodes.map(({ series }) => series?.waveform ?? []);
        const indices = Array.from({ length: Math.max(2, ...waves.map((wave) => wave.length)) }, (_, at) => at);
        const last = indices.length - 1;
        const { min, max } = plot.scales["x"]!;
        const zoomed = min != null && (min !== 0 || max !== plot.data[0].at(-1));
        const lines = waves.map((wave) => Array.from(wave, (value) => (Number.isFinite(value) ? value : null)));
        plot.setData([indices, ...lines], false);
        plot.setScale("x", zoomed ? { min, max: max! } : { min: 0, max: last });
        drawn.current = waves;
    };
    const key = nodes.map((node) => `${session.plotted.indexOf(node)} ${node.id}`).join();
    const { box, plot } = useUPlot(() => waveOptions(session, nodes), refresh, height, [key]);
    useEffect(() => {
        if (paused) return undefined;
        const draw = () => {
            const isNew = nodes.some(({ series }, at) => series?.waveform !== drawn.current[at]);
            if (isNew && plot.current) refresh(plot.current);
        };
        return follow(session.values, draw, 50);
    }, [key, paused]);
    return <div ref={box} class="uplot-box" />;
}

function waveOptions(session: Session, nodes: TreeNode[]): uPlot.Options {
    return {
        width: 0,
        height: 0,
        legend: { show: false },
        cursor: { drag: { x: true, y: false }, points: { size: 7 } },
        scales: { x: { time: false }, y: { range: paddedRange } },
        axes: [
            axis({ space: 50, size: 34, incrs: [1, 2, 5, 10, 20, 50, 100, 200, 500, 1000, 2000, 5000, 10000] }),
            ...valueAxes([{ name: "y", stroke: "" }]),
        ],
        series: [
            {},
            ...nodes.map((node): uPlot.Series => {
                const short = (node.series?.waveform?.length ?? 0) <= 64;
                return {
                    label: node.dotted,
                    stroke: lineColor(session, node),
                    width: 1.6,
                    points: { show: short, size: 5 },
                };
            }),
        ],
    };
}
