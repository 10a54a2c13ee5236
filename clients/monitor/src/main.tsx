import { render } from "preact";
import "uplot/dist/uPlot.min.css";
import { dotted } from "vorbel";
import { wallClock } from "./model/clock";
import { Session } from "./model/session";
import type { TreeNode } from "./model/tree";
import { askHistory, keepOffline, memory, pageUrl, surroundings } from "./page";
import "./style.css";
import "./safety.css";
import "./columns.css";
import { App } from "./view/app";
import { Boundary } from "./view/boundary";
import { later } from "./view/later";

const FleetPage = later(() => import("./view/fleet/fleet").then((part) => part.FleetPage));

setInterval(() => wallClock.check(), 1000);
keepOffline();
const query = new URLSearchParams(window.location.search);
render(query.has("fleet") ? <Fleet /> : <App session={startSession()} />, document.getElementById("app")!);

function Fleet() {
    return (
        <Boundary part="The fleet">
            <FleetPage query={query} />
        </Boundary>
    );
}

function startSession(): Session {
    const session = new Session(surroundings());
    const unwatch = session.status.watch(watchLimits);
    watchLimits();
    if (query.has("history")) void useHistory(session);
    return session;

    /** Loads what watches over limits as soon as there are some. */
    function watchLimits(): void {
        if (memory.load("limits") === undefined && !session.tree.hasLimits) return;
        unwatch();
        void import("./view/limits").then(
            ({ guardOf }) => guardOf(session),
            (error: Error) => session.log.add("problem", "Limits cannot be watched", error.message),
        );
    }
}

/** The past of what is drawn, where the page's address says that there is one: of the board that the daemon is. */
async function useHistory(session: Session): Promise<void> {
    const { Archive, historyUrl } = await import("./model/archive");
    const labelsOf = ({ path }: TreeNode) => {
        const board = session.hello?.id;
        return board ? { board, path: dotted(path) } : undefined;
    };
    session.archive = new Archive(historyUrl(query.get("history"), pageUrl()), labelsOf, askHistory);
    session.view.changed();
}
