import { flatten, isMap, namesOf, type Path, type Value } from "vorbel";
import { now, wallClock } from "../clock";
import type { Column } from "../columns";
import { History } from "../history";
import { leafOfUnit } from "../meaning";
import { isUsable, Session } from "../session";
import { Tree } from "../tree";
import type { Entry, Origin, Told } from "./entry";
import { lastAt, RecordedSeries } from "./past";

/** Paths, and readings, of a recording at most: they can take more than the file. */
const MOST = { paths: 50_000, readings: 32_000_000 };

/** How many times as fast as it was. */
export const SPEEDS = [0.1, 0.5, 1, 2, 5, 10, 60];

let recordings = 0;

/** A recording that is looked at as if it were the present of a session. From here nothing can be sent anywhere. */
export class Playback extends Session {
    /** Tells recordings apart that are looked at one after the other. */
    readonly id = `recording-${recordings++}`;
    /** The first one says where the recording comes from. */
    origin: Origin | undefined;
    /** What has to be known about it: what is missing. */
    note = "";
    speed = 1;
    playing = false;
    #cursor = 0;
    #ticked = 0;
    /** When something came. */
    readonly #moments = new History(Infinity);
    /** Paths of which the recording itself says what their values mean. */
    readonly #told = new Set<string>();
    #paths = 0;
    #readings = 0;
    /** What recorded times are ahead of those here that have the same names. */
    #shift: number | undefined;

    constructor(readonly name: string) {
        super({
            home: "",
            query: { get: (name) => (name === "locked" ? "" : null) },
            memory: { load: () => undefined, save: () => undefined },
            read: () => Promise.reject(new Error("nothing is read")),
        });
        this.reason = "a recording is shown";
    }

    /** Adds what came next. Throws when that is too much, or came before the former. */
    take(entry: Entry): void {
        this.#shift ??= entry.time - wallClock.when(entry.time);
        const time = entry.time - this.#shift;
        if ("recording" in entry) this.#begin(entry.recording);
        else if (time < this.end) throw new Error("it has an earlier time than the line before");
        if ("values" in entry) this.#add(this.schema ? entry.values : this.#asTold(entry), time);
        else if ("disconnected" in entry) this.tree.interrupt(time);
        else if ("undecodable" in entry) this.undecodable++;
    }

    /** Nothing more comes: shows the beginning. */
    finish(): void {
        if (this.messages === 0) throw new Error("it holds no values");
        this.seek(this.begin);
    }

    get messages(): number {
        return this.#moments.length;
    }

    get begin(): number {
        return this.#moments.length > 0 ? this.#moments.timeAt(0) : 0;
    }

    get end(): number {
        const { length } = this.#moments;
        return length > 0 ? this.#moments.timeAt(length - 1) : -Infinity;
    }

    protected override makeTree(): Tree {
        return new Tree(() => this.#newSeries());
    }

    /** Nobody counts the extremes of what is over. */
    override get columns(): readonly Column[] {
        return ["raw", "hex"];
    }

    override get time(): number {
        return this.#cursor;
    }

    override get known(): number {
        return this.end;
    }

    override get isPast(): boolean {
        return true;
    }

    /** What was the present at a time. */
    seek(time: number): void {
        this.#cursor = Math.min(this.end, Math.max(this.begin, time));
        for (const { series } of this.tree.valued) (series as RecordedSeries).seek(this.#cursor);
        this.values.changed();
    }

    /** To the message before or after. */
    step(by: 1 | -1): void {
        this.pause();
        const at = lastAt(this.#moments, this.#cursor);
        const current = this.#moments.timeAt(at);
        let next = at + by;
        while (by < 0 && next > 0 && this.#moments.timeAt(next) === current) next--;
        this.seek(this.#moments.timeAt(Math.min(this.#moments.length - 1, Math.max(0, next))));
    }

    /** From the end, it begins anew. */
    play(): void {
        if (this.#cursor >= this.end) this.seek(this.begin);
        this.playing = true;
        this.#ticked = now();
        this.status.changed();
    }

    pause(): void {
        this.playing = false;
        this.status.changed();
    }

    setSpeed(speed: number): void {
        this.speed = speed;
        this.status.changed();
    }

    /** Goes on to what time it is by now, while it plays. */
    tick(): void {
        const time = now();
        if (this.playing) this.seek(this.#cursor + (time - this.#ticked) * this.speed);
        this.#ticked = time;
        if (this.playing && this.#cursor >= this.end) this.pause();
    }

    override connect(): string {
        return "a recording is shown";
    }

    override unlock(): void {
        // The past cannot be written.
    }

    override startWriting(): void {
        // The same.
    }

    override write(): Promise<void> {
        return Promise.reject(new Error("This is a recording: nothing was written"));
    }

    /** The schema is the one from before the first values: with another one, their names could be lost. */
    #begin(origin: Origin): void {
        this.origin ??= origin;
        if (!origin.schema || this.messages > 0) return;
        const text = JSON.stringify(origin.schema);
        if (isUsable(text)) this.setSchema(text, false);
        else this.log.add("problem", "The schema of the recording cannot be used");
    }

    #newSeries(): RecordedSeries {
        if (++this.#paths > MOST.paths) throw new Error(`it has more than ${MOST.paths} names`);
        return new RecordedSeries(() => {
            if (++this.#readings > MOST.readings) throw new Error(`it has more than ${MOST.readings} readings`);
        });
    }

    /** Without a schema, what the recording says of its values has to do; of which it says nothing now, do not count. */
    #asTold({ values, told }: { values: Value; told?: Told }): Value {
        for (const [path, { value, unit, label }] of told ?? []) {
            const names = namesOf(path);
            this.#describe(names, unit, label && { [Number(value)]: label });
            values = withValue(values, names, value);
            this.#told.add(path);
        }
        const others = told
            ? [...flatten(values).keys()].filter((path) => this.#told.has(path) && !told.has(path))
            : [];
        return others.reduce((left, path) => withValue(left, namesOf(path), undefined), values);
    }

    #describe(path: Path, unit: string, named: Record<string, string> | ""): void {
        const before = this.tree.find(path)?.leaf?.meaning ?? {};
        const labels = { ...before.labels, ...(named || {}) };
        const isKnown =
            unit === (before.unit ?? "") && Object.keys(labels).every((name) => before.labels?.[name] === labels[name]);
        if (!isKnown) this.tree.describe(path, leafOfUnit(path, unit, labels));
    }

    #add(values: Value, time: number): void {
        this.tree.update(values, time);
        this.#moments.push(time, 0);
    }
}

/** Values with another one, or none, at a path, if they have one there. */
function withValue(values: Value, [name, ...below]: Path, value: Value | undefined): Value {
    if (name === undefined) return value ?? {};
    if (!isMap(values) || !Object.hasOwn(values, name)) return values;
    return { ...values, [name]: withValue(values[name]!, below, value) };
}
