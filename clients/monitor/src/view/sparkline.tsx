import { useLayoutEffect, useRef } from "preact/hooks";
import type { Series } from "../model/series";
import { color, contextOf } from "./canvas";

const SHOWN = 80;

/** The last readings of a value, or its waveform, small; drawn with every drawing of its row. */
export function Sparkline({ series, holds }: { series: Series; holds: boolean }) {
    const canvas = useRef<HTMLCanvasElement>(null);
    useLayoutEffect(() => draw(canvas.current!, series, holds));
    return <canvas ref={canvas} class="sparkline" aria-hidden="true" />;
}

function draw(canvas: HTMLCanvasElement, series: Series, holds: boolean): void {
    const style = { holds, isFlag: series.isFlag, stroke: color(series.waveform ? "--wave" : "--accent") };
    drawPoints(canvas, pointsOf(series).filter(Number.isFinite), style);
}

type Style = { holds?: boolean; isFlag?: boolean; stroke?: string };

/** Draws finite numbers as a curve over the width of a canvas. */
export function drawPoints(canvas: HTMLCanvasElement, points: number[], style: Style = {}): void {
    const { holds = false, isFlag = false, stroke = color("--accent") } = style;
    const { context, width, height } = contextOf(canvas);
    if (points.length < 2) return;
    const [least, most] = rangeOf(points, isFlag);
    const x = (at: number) => 1 + (at * (width - 2)) / (points.length - 1);
    const y = (value: number) => height - 3 - ((value - least) / (most - least)) * (height - 6);
    context.beginPath();
    for (const [at, value] of points.entries()) {
        if (holds && at > 0) context.lineTo(x(at), y(points[at - 1]!));
        context.lineTo(x(at), y(value));
    }
    context.strokeStyle = stroke;
    context.lineWidth = 1.4;
    context.lineJoin = "round";
    context.stroke();
}

/** What is drawn between bottom and top: a flag's two states always; what does not change lies in the middle. */
function rangeOf(points: number[], isFlag: boolean): [number, number] {
    if (isFlag) return [0, 1];
    const [least, most] = [Math.min(...points), Math.max(...points)];
    return most > least ? [least, most] : [least - 1, most + 1];
}

function pointsOf({ waveform, history, end }: Series): number[] {
    if (waveform) return Array.from(thinned(waveform));
    const shown = Math.min(SHOWN, end);
    return Array.from({ length: shown }, (_, at) => history.valueAt(end - shown + at));
}

/** At most so many elements as there are pixels to tell them apart. */
function* thinned(waveform: ArrayLike<number>): Generator<number> {
    const step = Math.max(1, Math.floor(waveform.length / (2 * SHOWN)));
    for (let at = 0; at < waveform.length; at += step) yield waveform[at]!;
}
