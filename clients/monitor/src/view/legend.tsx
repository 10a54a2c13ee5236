import { readingAt, statistics } from "../model/measure";
import { curveOf, shapesOf, type Plot, type Shape } from "../model/plots";
import type { Session } from "../model/session";
import { clockText, numberText, unitText, valueText } from "../model/text";
import type { TreeNode } from "../model/tree";
import { useClock, useSource } from "./frame";
import { Icon } from "./icons";
import { lineColor } from "./lines";
import { DRAGGED } from "./dragging";
import type { Pointer } from "./pointer";
import type { Window } from "./window";

type LegendProps = {
    session: Session;
    plot: Plot;
    pointer: Pointer;
    /** Tells when a value is dragged, and when no longer. */
    drag: (on: boolean) => void;
};

/** The values of a plot: as they are, or as they were where the pointer is. They can be dragged to other plots. */
export function Legend({ session, plot, pointer, drag }: LegendProps) {
    useSource(session.values, 200);
    useSource(pointer.moves);
    useClock(1000);
    const isAlone = session.plots.nodes.length === 1;
    return (
        <ul class="legend" aria-label="On the plot">
            {plot.nodes.map((node) => (
                <li
                    key={node.id}
                    style={{ "--line": lineColor(session.plots.lineOf(node)!) }}
                    draggable={!isAlone}
                    onDragStart={(event) => {
                        event.dataTransfer!.setData(DRAGGED, node.id);
                        drag(true);
                    }}
                    onDragEnd={() => drag(false)}
                >
                    <span class="swatch" />
                    <PathText node={node} />
                    <span class="number">{textAt(session, node, pointer.time)}</span>
                    <ShapeChoice session={session} node={node} />
                    {!isAlone && <MoveButton session={session} node={node} />}
                    <RemoveButton session={session} node={node} />
                </li>
            ))}
        </ul>
    );
}

/** Where the pointer is, and what can be measured of all plots together. */
export function Readings({ session, pointer, shown, measuring }: ReadingsProps) {
    useSource(session.values, 200);
    useSource(pointer.moves);
    useSource(pointer.marking);
    const { from, to } = pointer.span ?? shown();
    return (
        <>
            {pointer.time !== undefined && <p class="pointed quiet">at {clockText(pointer.time, 3)}</p>}
            {measuring && (
                <Measurements session={session} pointer={pointer} from={from} to={Math.min(to, session.known)} />
            )}
        </>
    );
}

type ReadingsProps = {
    session: Session;
    pointer: Pointer;
    /** What is in sight. */
    shown: () => Window;
    measuring: boolean;
};

function textAt({ plots }: Session, node: TreeNode, time: number | undefined): string {
    if (!node.reading || !node.series) return "–";
    if (time === undefined || plots.shapeOf(node) !== "time") return valueText(node.series.value, node.leaf);
    return readingText(node, readingAt(curveOf(node), time));
}

function readingText({ series, leaf }: TreeNode, value: number | undefined): string {
    if (value === undefined) return "–";
    return valueText(series!.isFlag ? value !== 0 : value, leaf);
}

type MeasurementsProps = { session: Session; pointer: Pointer; from: number; to: number };

/** Of each curve the least, the greatest and the mean between the marks, or in sight; and what it is at the marks. */
function Measurements({ session, pointer: { marks }, from, to }: MeasurementsProps) {
    const nodes = session.plots.nodes.filter((node) => node.series && session.plots.shapeOf(node) === "time");
    const both = marks.length === 2;
    return (
        <div class="measurements" tabIndex={0} role="region" aria-label="Measurements">
            <table>
                <thead>
                    <tr>
                        <th scope="col">{both ? `${secondsText(to - from)} between the marks` : "in sight"}</th>
                        {marks.map((_, at) => (
                            <th key={at} scope="col">
                                {"AB"[at]}
                            </th>
                        ))}
                        {both && <th scope="col">B − A</th>}
                        <th scope="col">least</th>
                        <th scope="col">most</th>
                        <th scope="col">mean</th>
                    </tr>
                </thead>
                <tbody>
                    {nodes.map((node) => (
                        <MeasuredRow key={node.id} node={node} marks={marks} from={from} to={to} />
                    ))}
                </tbody>
            </table>
            <p class="quiet">
                {both
                    ? "Click for new marks."
                    : "Click into a plot to set the marks A and B, or press A and B where the pointer is."}
            </p>
        </div>
    );
}

type MeasuredRowProps = { node: TreeNode; marks: readonly number[]; from: number; to: number };

function MeasuredRow({ node, marks, from, to }: MeasuredRowProps) {
    const values = marks.map((mark) => readingAt(curveOf(node), mark));
    const [a, b] = values;
    const found = statistics(curveOf(node), from, to);
    const number = (value: number | undefined) => (value === undefined ? "–" : numberText(value) + unitText(node.leaf));
    return (
        <tr>
            <th scope="row">{node.dotted}</th>
            {values.map((value, at) => (
                <td key={at}>{readingText(node, value)}</td>
            ))}
            {marks.length === 2 && <td>{number(a === undefined || b === undefined ? undefined : b - a)}</td>}
            <td>{number(found?.least)}</td>
            <td>{number(found?.most)}</td>
            <td>{number(found?.mean)}</td>
        </tr>
    );
}

function secondsText(milliseconds: number): string {
    return `${numberText(Number((milliseconds / 1000).toPrecision(4)))} s`;
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

const shapeWords: Record<Shape, string> = { wave: "waveform", time: "over time", spectrum: "spectrum" };

function ShapeChoice({ session, node }: { session: Session; node: TreeNode }) {
    const shapes = shapesOf(node);
    if (shapes.length < 2) return null;
    return (
        <select
            aria-label={`Draw ${node.dotted} as`}
            value={session.plots.shapeOf(node)}
            onChange={(event) => session.drawAs(node, event.currentTarget.value as Shape)}
        >
            {shapes.map((shape) => (
                <option key={shape} value={shape}>
                    {shapeWords[shape]}
                </option>
            ))}
        </select>
    );
}

/** The same as dragging, for fingers and keys. */
function MoveButton({ session, node }: { session: Session; node: TreeNode }) {
    return (
        <button
            class="square"
            onClick={() => session.movePlotted(node.id, session.plots.below(node))}
            aria-label={`Move ${node.dotted} to the plot below`}
            title="To the plot below, or a new one"
        >
            <Icon name="down" />
        </button>
    );
}

function RemoveButton({ session, node }: { session: Session; node: TreeNode }) {
    return (
        <button class="square" onClick={() => session.togglePlot(node)} aria-label={`Take ${node.dotted} off the plot`}>
            <Icon name="close" />
        </button>
    );
}
