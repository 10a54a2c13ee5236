import { render } from "preact";
import "uplot/dist/uPlot.min.css";
import { wallClock } from "./model/clock";
import { Session } from "./model/session";
import { keepOffline, memory, surroundings } from "./page";
import "./style.css";
import "./safety.css";
import "./columns.css";
import { App } from "./view/app";

setInterval(() => wallClock.check(), 1000);
keepOffline();
const session = new Session(surroundings());
const unwatch = session.status.watch(watchLimits);
watchLimits();
render(<App session={session} />, document.getElementById("app")!);

/** Loads what watches over limits as soon as there are some. */
function watchLimits(): void {
    if (memory.load("limits") === undefined && !session.tree.hasLimits) return;
    unwatch();
    void import("./view/limits").then(
        ({ guardOf }) => guardOf(session),
        (error: Error) => session.log.add("problem", "Limits cannot be watched", error.message),
    );
}
