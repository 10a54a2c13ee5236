import { useEffect, useReducer } from "preact/hooks";
import type { Source } from "../model/source";

const pending = new Set<() => void>();

/** Calls `draw` in the next frame of the screen, once, however often it is asked for before. */
export function inNextFrame(draw: () => void): void {
    if (pending.size === 0) requestAnimationFrame(drawPending);
    pending.add(draw);
}

function drawPending(): void {
    const draws = [...pending];
    pending.clear();
    for (const draw of draws) draw();
}

/** Calls `draw` at most once a frame when a source changed, and no more often than every `pause` milliseconds. */
export function follow(source: Source, draw: () => void, pause = 0): () => void {
    let last = -Infinity;
    let timer: number | undefined;
    const drawNow = () => {
        timer = undefined;
        last = performance.now();
        draw();
    };
    const unwatch = source.watch(() => {
        if (timer !== undefined) return;
        const wait = last + pause - performance.now();
        if (wait <= 0) inNextFrame(drawNow);
        else timer = window.setTimeout(() => inNextFrame(drawNow), wait);
    });
    return () => {
        clearTimeout(timer);
        pending.delete(drawNow);
        unwatch();
    };
}

/** Draws the component again when a source changes, as follow() does. */
export function useSource(source: Source, pause = 0): void {
    const [, redraw] = useReducer<number, void>((count) => count + 1, 0);
    useEffect(() => follow(source, () => redraw(), pause), [source, pause]);
}

/** Draws the component again every `period` milliseconds. */
export function useClock(period: number): void {
    const [, redraw] = useReducer<number, void>((count) => count + 1, 0);
    useEffect(() => {
        const timer = setInterval(() => inNextFrame(redraw as () => void), period);
        return () => clearInterval(timer);
    }, [period]);
}
