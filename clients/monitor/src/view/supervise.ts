import { now } from "../model/clock";
import type { Course } from "../model/course";
import { start, type Run } from "../model/run";
import type { Session } from "../model/session";

/** Two presses of Escape within this, in milliseconds, stop what goes out by itself. */
const TWICE = 1000;
/** How often to look whether Stop can be reached, and by when even a page that lags has drawn it, in milliseconds. */
const LOOK = 100;
const DRAWN = 2000;

/**
 * Starts a course, and stops it when nobody can see or stop it any more. Timers of a hidden page come late, a page that
 * comes back from the browser's cache would resume, and an open dialogue makes the Stop button unreachable.
 */
export function startInSight(session: Session, course: Course, agreed: ReadonlySet<string>): void {
    const run = start(session, course, agreed);
    const look = () => document.hidden && run.stop("the page was hidden");
    const leave = () => run.stop("the page was left");
    const ends = [
        listen(document, "visibilitychange", look),
        listen(document, "freeze", leave),
        listen(window, "pagehide", leave),
        listen(window, "keydown", stopByKey(run)),
        watchReach(run),
    ];
    const finish = () => {
        if (run.state !== "running") for (const end of ends.splice(0)) end();
    };
    run.watch(finish);
    look();
    finish();
}

/** Before any part of the page takes the event for itself. */
function listen(target: EventTarget, name: string, act: (event: Event) => void): () => void {
    target.addEventListener(name, act, true);
    return () => target.removeEventListener(name, act, true);
}

/** A key that is held counts as well: it is a wish for an end. */
function stopByKey(run: Run): (event: Event) => void {
    let last = -Infinity;
    return (event) => {
        if ((event as KeyboardEvent).key !== "Escape") return;
        if (now() - last <= TWICE) run.stop("Escape was pressed twice");
        last = now();
    };
}

/** Looks whether somebody can press Stop: that it is there, and that no open dialogue makes it inert. */
function watchReach(run: Run): () => void {
    const begun = now();
    const timer = setInterval(() => {
        if (document.querySelector("dialog[open]")) run.stop("a dialogue covered the Stop button");
        else if (now() - begun > DRAWN && !document.querySelector("button.stop")) run.stop("there was no Stop button");
    }, LOOK);
    return () => clearInterval(timer);
}
