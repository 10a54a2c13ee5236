import type { ComponentType } from "preact";
import { useEffect, useReducer, useRef } from "preact/hooks";
import type { Recordings } from "../model/recording/recordings";
import type { Session } from "../model/session";
import { FileButton } from "./filebutton";
import { inNextFrame } from "./frame";
import { Icon } from "./icons";

/** Recording, and looking at recordings. What that takes is loaded when it is first wanted. */
export type Desk = {
    /** Undefined until then. */
    recordings: Recordings | undefined;
    /** What there is to be said and done. */
    Panel: ComponentType;
    act: (what: (recordings: Recordings) => void) => void;
};

const Nothing = () => null;

export function useDesk(session: Session): Desk {
    const [, redraw] = useReducer<number, void>((count) => count + 1, 0);
    const { current: desk } = useRef<Desk>({
        recordings: undefined,
        Panel: Nothing,
        act: (what) => {
            load(session).then(what, (error: Error) => session.log.add("problem", "Not loaded", error.message));
        },
    });
    const load = async (session: Session) => {
        if (desk.recordings) return desk.recordings;
        const { panelOf, Recordings } = await import("./recording");
        if (!desk.recordings) {
            desk.recordings = new Recordings(session);
            desk.Panel = panelOf(desk.recordings);
            desk.recordings.watch(() => inNextFrame(redraw));
        }
        return desk.recordings;
    };
    useEffect(() => takeDroppedFiles((file) => desk.act((recordings) => void recordings.open(file, file.name))), []);
    return desk;
}

/** A file that is dropped where nobody else takes it. */
function takeDroppedFiles(take: (file: File) => void): () => void {
    const over = (event: DragEvent) => event.dataTransfer?.types.includes("Files") && event.preventDefault();
    const drop = (event: DragEvent) => {
        const file = event.dataTransfer?.files[0];
        if (!file || event.defaultPrevented) return;
        event.preventDefault();
        take(file);
    };
    window.addEventListener("dragover", over);
    window.addEventListener("drop", drop);
    return () => {
        window.removeEventListener("dragover", over);
        window.removeEventListener("drop", drop);
    };
}

/** Begins and ends a recording, and opens one. */
export function RecordingTools({ desk: { recordings, act } }: { desk: Desk }) {
    const isOn = recordings?.recorder !== undefined && recordings.recorder.ended === undefined;
    return (
        <>
            <button
                class={`record${isOn ? " on" : ""}`}
                onClick={() => act((recordings) => (isOn ? recordings.stop() : recordings.ask()))}
            >
                <Icon name={isOn ? "stop" : "record"} /> {isOn ? "Stop" : "Record"}
            </button>
            <FileButton
                label="Open a recording"
                name="File of a recording"
                accept=".jsonl,.ndjson,.csv,.mcap"
                take={(file) => act((recordings) => void recordings.open(file, file.name))}
                square
            >
                <Icon name="folder" />
            </FileButton>
        </>
    );
}
