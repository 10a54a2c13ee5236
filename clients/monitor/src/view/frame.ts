import { useEffect, useReducer } from "preact/hooks";
import { lag } from "../model/lag";
import type { Source } from "../model/source";

/** While the page is further behind, in milliseconds, what has arrived comes before pictures of it. */
const TOLERABLE = 250;
/** Even then there is a picture so often: one has to see how far it is behind. */
const LONGEST_PAUSE = 1000;

const pending = new Set<() => void>();
let lastDrawing = -Infinity;

/** Calls `draw` in the next frame of the screen, once, however often it is asked for before. */
export function inNextFrame(draw: () => void): void {
    if (pending.size === 0) requestAnimationFrame(drawPending);
    pending.add(draw);
}

function drawPending(): void {
    const time = performance.now();
    if (lag.behind > TOLERABLE && time - lastDrawing < LONGEST_PAUSE) {
        requestAnimationFrame(drawPending);
        return;
    }
    lastDrawing = time;
    const draws = [...pending];
    pending.clear();
    for (const draw of draws) attempt(draw);
}

/** A drawing that fails does not take the others with it. */
function attempt(draw: () => void): void {
    try {
        draw();
    } catch (error) {
        reportError(error);
    }
}

/** Draws at most every `period` milliseconds, in step with the screen; not at all while the page is hidden. */
export function repeatedly(period: number, draw: () => void): () => void {
    let last = -Infinity;
    let stopped = false;
    const tick = () => {
        if (stopped) return;
        const time = performance.now();
        if (time - last >= period) {
            last = time;
            attempt(draw);
        }
        inNextFrame(tick);
    };
    inNextFrame(tick);
    return () => {
        stopped = true;
        pending.delete(tick);
    };
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
