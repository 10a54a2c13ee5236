import { useEffect, useRef } from "preact/hooks";
import uPlot from "uplot";
import { decimate } from "../model/decimate";
import { curveOf } from "../model/plots";
import type { Session } from "../model/session";
import type { TreeNode } from "../model/tree";
import {
    axis,
    AXIS_WIDTH,
    boundsOf,
    flagAxis,
    laneScale,
    numberScale,
    paddedRange,
    timeAxis,
    UNIT_WIDTH,
    unitsOf,
    valueAxes,
    zoomed,
    type Zooms,
} from "./axes";
import { color, resolved } from "./canvas";
import { follow, repeatedly } from "./frame";
import { lineColor, lineDash } from "./lines";
import type { Pointer } from "./pointer";
import { latest, type Window } from "./window";

/** The colour of a plotted value. */
function strokeOf(session: Session, node: TreeNode): string {
    return resolved(lineColor(session.plots.lineOf(node) ?? 0));
}

/** What makes one line look unlike another. */
export function lineStyle(session: Session, node: TreeNode): Partial<uPlot.Series> {
    const dash = lineDash(session.plots.lineOf(node) ?? 0);
    return { stroke: strokeOf(session, node), width: 1.6, ...(dash && { dash }) };
}

/** A plot as large as its box, made anew when `make` gives other options, and destroyed at the end. */
export function useUPlot(make: () => uPlot.Options, refresh: (plot: uPlot) => void, sources: unknown[]) {
    const box = useRef<HTMLDivElement>(null);
    const plot = useRef<uPlot | null>(null);
    useEffect(() => {
        const element = box.current!; // it is gone before the effect ends
        let least = 0;
        const fittingSize = () => ({
            width: Math.max(least, element.clientWidth),
            height: element.clientHeight,
        });
        const build = () => {
            plot.current?.destroy();
            const options = make();
            least = leastWidth(options);
            plot.current = new uPlot(
                { ...options, ...fittingSize() },
                [[], []] as unknown as uPlot.AlignedData,
                element,
            );
            refresh(plot.current);
        };
        build();
        const observer = new ResizeObserver(() => {
            const size = fittingSize();
            const { width, height } = plot.current ?? size;
            if (width !== size.width || height !== size.height) plot.current!.setSize(size);
        });
        observer.observe(element);
        window.addEventListener("themechange", build);
        return () => {
            observer.disconnect();
            window.removeEventListener("themechange", build);
            plot.current?.destroy();
            plot.current = null;
        };
    }, sources);
    return { box, plot };
}

/** Room for the axes and some for the curves; where there is less, the plot scrolls. */
function leastWidth({ axes }: uPlot.Options): number {
    const units = axes!.filter(({ label }) => label).length;
    return 160 + AXIS_WIDTH * (axes!.length - 1) + UNIT_WIDTH * units;
}

type TimePlotProps = {
    session: Session;
    nodes: TreeNode[];
    span: number;
    frozen: Window | undefined;
    ownScales: boolean;
    /** Shows a time for good; undefined goes on with the present. */
    zoomTo: (window: Window | undefined) => void;
    pointer: Pointer;
    /** Whether a click sets a mark. */
    measuring: boolean;
    /** What the scales of values are zoomed to. */
    zooms: Zooms;
    zoomValues: (zooms: Zooms) => void;
};

export function TimePlot(props: TimePlotProps) {
    const { session, nodes, span, frozen, ownScales, zoomTo, pointer, zooms, zoomValues } = props;
    const present = useRef(props);
    present.current = props;

    const refresh = (plot: uPlot) => {
        const { span, frozen } = present.current;
        const { from, to } = frozen ?? latest(session, span);
        const columns = Math.max(50, Math.round(plot.bbox.width / devicePixelRatio) || plot.width);
        session.archive?.want(nodes, from, to, columns);
        const { times, lines } = decimate(nodes.map(curveOf), from, to, columns, session.known);
        plot.setData([times.map((time) => time / 1000), ...lines] as uPlot.AlignedData, false);
        plot.setScale("x", { min: from / 1000, max: to / 1000 });
    };
    const curve = (node: TreeNode) =>
        `${session.plots.lineOf(node)} ${node.id} ${node.series!.isFlag} ${node.series!.holds(node.leaf)}`;
    const key = `${nodes.map(curve).join()}|${ownScales}`;
    const { box, plot } = useUPlot(
        () =>
            timeOptions(session, nodes, ownScales, {
                zoomTo,
                pointer,
                click: (time) => present.current.measuring && pointer.mark(time),
                zooms: () => present.current.zooms,
                zoomValues,
            }),
        refresh,
        [key],
    );
    useEffect(() => follow(pointer.marking, () => plot.current?.redraw(false)), [pointer]);

    useEffect(() => {
        const again = () => plot.current && refresh(plot.current);
        again();
        if (session.isPast) return follow(session.values, again);
        const ends = session.archive ? [follow(session.archive, again)] : [];
        if (!frozen) {
            // The picture only changes when time has moved on by a pixel.
            const pixel = (span * 1000) / Math.max(300, box.current!.clientWidth);
            ends.push(repeatedly(Math.max(16, pixel), again));
        }
        return () => ends.forEach((end) => end());
    }, [key, span, frozen, zooms]);
    const zoomOut = () => {
        zoomTo(undefined);
        zoomValues(new Map());
    };
    return <div ref={box} class="uplot-box" onDblClick={zoomOut} />;
}

/** What a plot over time asks and tells while it is handled. */
type Handling = {
    zoomTo: (window: Window) => void;
    pointer: Pointer;
    click: (time: number) => void;
    zooms: () => Zooms;
    zoomValues: (zooms: Zooms) => void;
};

/** All plots over time show where somebody points at one of them. */
const SYNC: uPlot.Cursor.Sync = {
    key: "time",
    scales: ["x", null],
    setSeries: false,
    filters: { pub: (type) => type === "mousemove" || type === "mouseleave" },
};

function timeOptions(
    session: Session,
    nodes: TreeNode[],
    ownScales: boolean,
    { zoomTo, pointer, click, zooms, zoomValues }: Handling,
): uPlot.Options {
    let pointedAt = -10; // where uPlot has it while nobody points
    const timeAt = (plot: uPlot, position: number) => plot.posToVal(position, "x") * 1000;
    const flags = nodes.filter((node) => node.series!.isFlag);
    const numbers = nodes.filter((node) => !node.series!.isFlag);
    const scaleOf = (node: TreeNode) => (ownScales || node.series!.isFlag ? node.id : "values");
    const drawnBy = (name: string) => numbers.filter((node) => scaleOf(node) === name);
    const named = new Map(
        numbers.map((node) => {
            const name = scaleOf(node);
            return [name, { name, stroke: strokeOf(session, node), units: unitsOf(drawnBy(name)) }];
        }),
    );
    const scales: uPlot.Scales = { x: { time: false, auto: false } };
    for (const name of named.keys()) scales[name] = numberScale(name, zooms, boundsOf(drawnBy(name)));
    for (const [lane, node] of flags.entries()) scales[scaleOf(node)] = laneScale(lane, flags.length);
    const axes = [timeAxis(), ...valueAxes([...named.values()])];
    if (flags.length > 0) axes.push(flagAxis(scaleOf(flags[0]!), flags.length, named.size % 2 === 0 ? 3 : 1));
    return {
        width: 0,
        height: 0,
        legend: { show: false },
        cursor: { drag: { x: true, y: true, uni: 20, setScale: false }, points: { size: 7 }, sync: SYNC },
        scales,
        axes,
        series: [
            {},
            ...nodes.map((node): uPlot.Series => ({
                label: node.dotted,
                scale: scaleOf(node),
                ...lineStyle(session, node),
                points: { show: false },
                ...(node.series!.holds(node.leaf) ? { paths: uPlot.paths.stepped!({ align: 1 }) } : {}),
            })),
        ],
        hooks: {
            ready: [
                (plot) => {
                    const { over } = plot;
                    let pressed = 0;
                    over.addEventListener("mousedown", (event) => (pressed = event.offsetX));
                    over.addEventListener("mouseup", (event) => {
                        const isClick = event.button === 0 && Math.abs(event.offsetX - pressed) < 5;
                        if (isClick) click(timeAt(plot, event.offsetX));
                    });
                },
            ],
            setCursor: [
                (plot) => {
                    const { left = -1 } = plot.cursor;
                    if (left === pointedAt) return; // drawn anew
                    pointedAt = left;
                    pointer.follow(left < 0 ? undefined : () => timeAt(plot, left));
                },
            ],
            draw: [
                (plot) => {
                    drawMarks(plot, pointer.marks, "AB");
                    if (session.isPast) drawMarks(plot, [session.time], "▾");
                },
            ],
            setSelect: [
                (plot) => {
                    const { left, top, width, height } = plot.select;
                    const { clientWidth, clientHeight } = plot.over;
                    const isZoom = (size: number, whole: number) => size >= 5 && size < whole;
                    if (isZoom(height, clientHeight))
                        zoomValues(zoomed(plot, top / clientHeight, (top + height) / clientHeight));
                    if (isZoom(width, clientWidth))
                        zoomTo({ from: timeAt(plot, left), to: timeAt(plot, left + width) });
                    plot.setSelect({ left: 0, top: 0, width: 0, height: 0 }, false);
                },
            ],
        },
    };
}

/** Lines at times, with their letters. */
function drawMarks(plot: uPlot, marks: readonly number[], letters: string): void {
    const { ctx: context, bbox } = plot;
    context.save();
    context.strokeStyle = context.fillStyle = color("--text");
    context.font = `${12 * devicePixelRatio}px system-ui, sans-serif`;
    context.textAlign = "left";
    for (const [at, mark] of marks.entries()) {
        const x = Math.round(plot.valToPos(mark / 1000, "x", true));
        if (x < bbox.left || x > bbox.left + bbox.width) continue;
        context.fillRect(x, bbox.top, devicePixelRatio, bbox.height);
        context.fillText(letters[at]!, x + 4 * devicePixelRatio, bbox.top + 12 * devicePixelRatio);
    }
    context.restore();
}

type WavePlotProps = { session: Session; nodes: TreeNode[]; paused: boolean };

export function WavePlot({ session, nodes, paused }: WavePlotProps) {
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
    const key = nodes.map((node) => `${session.plots.lineOf(node)} ${node.id}`).join();
    const { box, plot } = useUPlot(() => waveOptions(session, nodes), refresh, [key]);
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

/** Elements between two labels, as many as a message can hold. */
const ELEMENT_STEPS = [0, 1, 2, 3, 4, 5, 6].flatMap((power) => [1, 2, 5].map((digit) => digit * 10 ** power));

function waveOptions(session: Session, nodes: TreeNode[]): uPlot.Options {
    return {
        width: 0,
        height: 0,
        legend: { show: false },
        cursor: { drag: { x: true, y: false }, points: { size: 7 } },
        scales: { x: { time: false }, y: { range: paddedRange } },
        axes: [
            axis({ space: 50, size: 34, incrs: ELEMENT_STEPS }),
            ...valueAxes([{ name: "y", stroke: "", units: unitsOf(nodes) }]),
        ],
        series: [
            {},
            ...nodes.map((node): uPlot.Series => {
                const short = (node.series?.waveform?.length ?? 0) <= 64;
                return {
                    label: node.dotted,
                    ...lineStyle(session, node),
                    points: { show: short, size: 5 },
                };
            }),
        ],
    };
}
