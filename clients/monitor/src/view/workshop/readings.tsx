import { useEffect, useRef } from "preact/hooks";
import { shown } from "../../model/text";
import { textIn, type Candidate } from "../../model/workshop/selection";
import type { Endpoint } from "../../model/workshop/traffic";
import { repeatedly } from "../frame";
import { drawPoints } from "../sparkline";
import { courseOf } from "./course";
import { paintText } from "./paint";

/** Texts and small curves that change more often cannot be read. */
const READABLE = 100;
const LOOKED_AT = 250;
/** Frames in a small curve. */
const SHOWN = 80;

type ReadingsProps = {
    endpoint: Endpoint | undefined;
    candidates: Candidate[];
    chosen: Candidate | undefined;
    choose: (key: string) => void;
};

/** The selected bits, read as each format, to choose the one that makes sense. */
export function Readings({ endpoint, candidates, chosen, choose }: ReadingsProps) {
    const list = useRef<HTMLDivElement>(null);
    usePainting(list, endpoint, candidates);
    return (
        <section class="panel readings" aria-labelledby="readings-title">
            <div class="title">
                <h2 id="readings-title">Read as</h2>
            </div>
            {candidates.length === 0 && (
                <p class="empty">No format has all of these bits: at most four bytes make a value. Select fewer.</p>
            )}
            <div ref={list} role="radiogroup" aria-labelledby="readings-title">
                {candidates.map(({ key, name }) => (
                    <label key={key} class={`reading${key === chosen?.key ? " chosen" : ""}`}>
                        <input
                            type="radio"
                            name="reading"
                            value={key}
                            checked={key === chosen?.key}
                            onChange={() => choose(key)}
                        />
                        <span class="name">{shown(name)}</span>
                        <span class="number" data-key={key} aria-hidden="true" />
                        <canvas class="sparkline" aria-hidden="true" />
                    </label>
                ))}
            </div>
        </section>
    );
}

function usePainting(
    list: { current: HTMLDivElement | null },
    endpoint: Endpoint | undefined,
    candidates: Candidate[],
): void {
    useEffect(() => {
        if (!endpoint) return undefined;
        const texts = [...list.current!.querySelectorAll(".number")];
        const canvases = [...list.current!.querySelectorAll("canvas")];
        const stops = [
            repeatedly(READABLE, () => {
                for (const [at, { leaf }] of candidates.entries()) {
                    paintText(texts[at]!, textIn(leaf, endpoint.payload));
                }
            }),
            repeatedly(LOOKED_AT, () => {
                for (const [at, { leaf }] of candidates.entries()) {
                    drawPoints(canvases[at]!, courseOf(endpoint, leaf, SHOWN).values);
                }
            }),
        ];
        return () => stops.forEach((stop) => stop());
    }, [endpoint, candidates]);
}
