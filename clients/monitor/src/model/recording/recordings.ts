import { Meanings } from "vorbel";
import type { Session } from "../session";
import { Source } from "../source";
import { HEADER, readCsv, rowsOf } from "./csv";
import type { Entry } from "./entry";
import { readJsonLines } from "./jsonlines";
import { Playback } from "./playback";
import { BrokenRecording, type Reading } from "./reading";
import { Recorder } from "./recorder";

/** Bytes of a file at most: what it becomes has to fit into the page. */
const LARGEST = 256 * 1024 * 1024;

export const formats = ["jsonl", "csv", "mcap"] as const;
export type Format = (typeof formats)[number];

/** By suffix. MCAP's is loaded when it is needed. */
const readers: Record<string, (reading: Reading) => Promise<void>> = {
    jsonl: readJsonLines,
    ndjson: readJsonLines,
    csv: readCsv,
    mcap: async (reading) => (await import("./mcap")).readMcap(reading),
};

/** What is recorded of a session, and the recording that is looked at instead of it. */
export class Recordings extends Source {
    /** The last one, whether or not it goes on. */
    recorder: Recorder | undefined;
    playback: Playback | undefined;
    /** What is being done, as far as it is. */
    busy: { what: string; share: number } | undefined;
    problem = "";
    /** Whether to give up a recording that is in no file. */
    asking = false;
    /** Whether the session was to be connected when it was left. */
    #wasOn = false;

    constructor(readonly session: Session) {
        super();
    }

    /** Begins a recording; asks before the last one is given up for it. */
    ask(): void {
        if (!this.isUnsaved) return this.record();
        this.asking = true;
        this.changed();
    }

    answer(agreed: boolean): void {
        this.asking = false;
        if (agreed) this.record();
        this.changed();
    }

    record(): void {
        const { session } = this;
        const recorder = (this.recorder = new Recorder());
        session.tap = (entry) => recorder.take(entry, session);
        this.#tell("");
    }

    stop(): void {
        this.session.tap = undefined;
        this.recorder?.stop();
        this.changed();
    }

    discard(): void {
        this.stop();
        this.recorder = undefined;
        this.changed();
    }

    /** There is something that leaving the page would lose. */
    get isUnsaved(): boolean {
        return this.recorder !== undefined && this.recorder.messages > 0 && !this.recorder.saved;
    }

    /** The last recording as a file; undefined where that failed. */
    async export(format: Format): Promise<Blob | undefined> {
        const { recorder } = this;
        if (!recorder) return undefined;
        try {
            const file = await this.#converted(recorder.file(), format);
            recorder.saved = true;
            this.#tell("");
            return file;
        } catch (error) {
            this.#tell(`The recording could not be saved: ${(error as Error).message}`);
            return undefined;
        }
    }

    async #converted(file: Blob, format: Format): Promise<Blob> {
        if (format === "jsonl") return file;
        const progress = this.#progress("Saving", file.size);
        if (format === "mcap") return (await import("./mcap")).writeMcap(file, progress);
        const rows = [HEADER];
        let meanings = new Meanings();
        const take = (entry: Entry) => {
            if ("recording" in entry) meanings = new Meanings(entry.recording.schema);
            rows.push(rowsOf(entry, meanings));
        };
        await readJsonLines({ file, take, progress });
        return new Blob(rows, { type: "text/csv" });
    }

    /** Shows the last recording. */
    async view(): Promise<void> {
        if (this.recorder) await this.open(this.recorder.file(), "this recording.jsonl");
    }

    /**
     * Shows a recording, as far as it is one. The connection is closed meanwhile, and a recording of it ended: while
     * somebody looks at the past, nothing is sent and nothing is missed unseen.
     */
    async open(file: Blob, name: string): Promise<void> {
        if (this.busy) return;
        const playback = new Playback(name);
        try {
            await this.#read(file, playback);
            playback.finish();
            this.#show(playback);
            this.#tell("");
        } catch (error) {
            this.#tell(`${name} cannot be opened: ${(error as Error).message}`);
        }
    }

    async #read(file: Blob, playback: Playback): Promise<void> {
        const reader = readers[/\.(\w+)$/.exec(playback.name)?.[1]?.toLowerCase() ?? ""];
        if (!reader) throw new Error("recordings end in .jsonl, .csv or .mcap");
        if (file.size > LARGEST) throw new Error("it has more than 256 MiB");
        try {
            const progress = this.#progress("Opening", file.size);
            await reader({ file, take: (entry) => playback.take(entry), progress });
        } catch (error) {
            // What was read before is shown.
            if (!(error instanceof BrokenRecording) || playback.messages === 0) throw error;
            playback.note = error.message;
        }
    }

    /** Goes back to the present. */
    leave(): void {
        this.playback = undefined;
        if (this.#wasOn) this.session.connect(this.session.address);
        this.changed();
    }

    #show(playback: Playback): void {
        if (!this.playback) {
            this.stop();
            this.#wasOn = this.session.state !== "closed";
            this.session.disconnect();
            this.session.startWriting(undefined);
        }
        const wanted = this.session.plots.nodes.map(({ path }) => playback.tree.find(path));
        playback.plots.add(wanted.filter((node) => node?.series !== undefined).map((node) => node!));
        this.playback = playback;
    }

    #progress(what: string, size: number): (read: number) => void {
        return (read) => {
            this.busy = { what, share: read / size };
            this.changed();
        };
    }

    readonly dismiss = () => this.#tell("");

    #tell(problem: string): void {
        this.busy = undefined;
        this.problem = problem;
        this.changed();
    }
}
