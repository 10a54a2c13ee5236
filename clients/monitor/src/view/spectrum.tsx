import { useEffect, useRef, useState } from "preact/hooks";
import type uPlot from "uplot";
import { samplesOf } from "../model/samples";
import { FEWEST, spectrumOf, type Spectrum } from "../model/spectrum";
import type { Session } from "../model/session";
import { numberText, unitText } from "../model/text";
import type { TreeNode } from "../model/tree";
import { axis, paddedRange, unitsOf, valueAxes } from "./axes";
import { repeatedly } from "./frame";
import { lineStyle, useUPlot } from "./uplot";
import { latest, type Window } from "./window";

/** More samples than that are not transformed: the last ones are. */
const MOST = 1 << 15;
/** Milliseconds between two spectra. */
const PERIOD = 500;

type SpectrumProps = { session: Session; node: TreeNode; span: number; frozen: Window | undefined };

/** The spectrum of what a value was in the window of all plots. */
export function SpectrumPlot({ session, node, span, frozen }: SpectrumProps) {
    const [words, setWords] = useState("");
    const present = useRef({ span, frozen });
    present.current = { span, frozen };
    const refresh = (plot: uPlot) => {
        const { span, frozen } = present.current;
        const { from, to } = frozen ?? latest(session, span);
        const { values, rate } = samplesOf(node, from, to, MOST);
        const spectrum = spectrumOf(values, rate ?? 1);
        setWords(
            spectrum
                ? wordsFor(spectrum, values.length, rate, unitText(node.leaf))
                : `${FEWEST} readings are needed, there are ${values.length}`,
        );
        showSpectrum(plot, spectrum ?? { frequencies: new Float64Array(), amplitudes: new Float64Array() }, rate ?? 1);
    };
    const key = `${session.plots.lineOf(node)} ${node.id}`;
    const { box, plot } = useUPlot(() => spectrumOptions(session, node), refresh, [key]);
    useEffect(() => {
        if (plot.current) refresh(plot.current);
        if (frozen) return undefined;
        return repeatedly(PERIOD, () => plot.current && refresh(plot.current));
    }, [key, span, frozen]);
    return (
        <>
            <div ref={box} class="uplot-box" />
            <figcaption class="quiet">{words}</figcaption>
        </>
    );
}

function wordsFor({ amplitudes }: Spectrum, length: number, rate: number | undefined, unit: string): string {
    const short = (number: number) => numberText(Number(number.toPrecision(4)));
    const constant = `constant part ${short(amplitudes[0]!)}${unit}`;
    if (rate === undefined) return `Amplitude over cycles per element, of ${length} elements; ${constant}`;
    return `Amplitude over Hz, of ${length} readings, ${short(rate)} a second; ${constant}`;
}

/** Keeps the stretch that was zoomed into. */
function showSpectrum(plot: uPlot, { frequencies, amplitudes }: Spectrum, rate: number): void {
    const { min, max } = plot.scales["x"]!;
    const isZoomed = min != null && max != null && (min > 0 || max < 0.99 * (plot.data[0].at(-1) ?? 0));
    plot.setData([frequencies, amplitudes] as uPlot.AlignedData, false);
    plot.setScale("x", isZoomed ? { min, max } : { min: 0, max: rate / 2 });
}

/** But for what is constant: beside that, all else could hardly be seen. */
function highest(amplitudes: ArrayLike<number | null | undefined>): number {
    let most = 0;
    for (let at = 1; at < amplitudes.length; at++) most = Math.max(most, amplitudes[at] ?? 0);
    return most;
}

function spectrumOptions(session: Session, node: TreeNode): uPlot.Options {
    return {
        width: 0,
        height: 0,
        legend: { show: false },
        cursor: { drag: { x: true, y: false }, points: { size: 7 } },
        scales: { x: { time: false }, y: { range: (plot) => [0, paddedRange(plot, 0, highest(plot.data[1]!))[1]] } },
        axes: [axis({ space: 60, size: 34 }), ...valueAxes([{ name: "y", stroke: "", units: unitsOf([node]) }])],
        series: [{}, { label: node.dotted, ...lineStyle(session, node), points: { show: false } }],
    };
}
