import { spawnSync } from "node:child_process";
import { mkdtempSync, readFileSync, rmSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join, resolve } from "node:path";
import { fileURLToPath } from "node:url";
import { McapIndexedReader, McapStreamReader } from "@mcap/core";
import { dotted, flatten, justified, leavesOf, type Value } from "vorbel";
import { afterEach, describe, expect, onTestFinished, test, vi } from "vitest";
import { now, wallClock } from "../src/model/clock";
import { rowsOf } from "../src/model/recording/csv";
import { lineOf, type Entry } from "../src/model/recording/entry";
import { entryOf } from "../src/model/recording/jsonlines";
import type { Playback } from "../src/model/recording/playback";
import { Recorder, type Recorded } from "../src/model/recording/recorder";
import { formats, Recordings, type Format } from "../src/model/recording/recordings";
import { Session } from "../src/model/session";

const python = resolve(fileURLToPath(import.meta.url), "../../../python");
const TIME = 1700000000250; // milliseconds since 1970
const SCHEMA = { motor: { speed: { "@mac": 5, "@cmd": 2, "@format": "s" } } };
const SOURCE: Recorded = { address: "ws://bridge:10443", hello: { type: "demo", id: "A7" }, schema: SCHEMA };

afterEach(() => void vi.useRealTimers());

/** Values of all kinds that a daemon can send, and names of all kinds. */
const kinds: Record<string, Value> = {
    "whole numbers": { a: 0, b: -7, c: 4294967295 },
    fractions: { a: 0.5, b: Math.fround(3.93), c: -1.25e-3 },
    "numbers that are not finite": { a: NaN, b: Infinity, c: -Infinity },
    "64 bits": { most: 18446744073709551615n, least: -9223372036854775808n },
    flags: { on: true, off: false },
    "nil and texts": { nothing: null, text: 'a "b", c\nd', empty: "", digits: "1234567890123456789" },
    arrays: { bytes: Uint8Array.of(1, 255), singles: Float32Array.of(0.1, -2.5, NaN), none: new Int16Array() },
    "maps in maps": { motor: { speed: 1, "a.b": { 'x "y", z': 2, "back\\slash": 3 } } },
    "strange names": Object.fromEntries([
        ["__proto__", 1],
        ["constructor", 2],
        ["größe 漢字 \u202e", 3],
        ["", 4],
        ["a\nb", 5],
    ]),
    "no name at all": 42,
};

/** What the tool writes for all of them, by suffix: they go to it as JSON of a kind that keeps them apart. */
function toolsTexts(suffix: string): Record<string, string> {
    const program = `
import array, json, sys
from vorbel.client import Values
from vorbel.recording import FORMATS
def back(value):
    if isinstance(value, dict) and value["kind"] == "map":
        return {name: back(member) for name, member in value["members"]}
    if isinstance(value, dict):
        number = float if value["kind"] in ("f", "number") else int
        items = [number(item) for item in value["items"]]
        return items[0] if value["kind"] in ("number", "bigint") else array.array(value["kind"], items)
    return value
text_of = FORMATS[${JSON.stringify(suffix)}][0]
texts = {kind: text_of(Values(back(values), ${TIME / 1000})) for kind, values in json.load(sys.stdin).items()}
sys.stdout.buffer.write(json.dumps(texts).encode())`;
    const { stdout, stderr } = spawnSync("/usr/bin/python3", ["-c", program], {
        cwd: python,
        input: JSON.stringify(Object.fromEntries(Object.entries(kinds).map(([kind, each]) => [kind, forTool(each)]))),
        encoding: "utf8",
    });
    expect(stderr).toBe("");
    return JSON.parse(stdout);
}

function forTool(value: Value): unknown {
    if (typeof value === "bigint") return { kind: "bigint", items: [String(value)] };
    if (typeof value === "number" && !Number.isInteger(value)) return { kind: "number", items: [String(value)] };
    if (ArrayBuffer.isView(value)) {
        const kind = value instanceof Float32Array ? "f" : value instanceof Uint8Array ? "B" : "h";
        return { kind, items: Array.from(value, String) };
    }
    if (typeof value !== "object" || value === null || Array.isArray(value)) return value;
    return { kind: "map", members: Object.entries(value).map(([name, member]) => [name, forTool(member)]) };
}

describe("what is recorded", () => {
    const lines = toolsTexts(".jsonl");
    const rows = toolsTexts(".csv");
    test.each(Object.keys(kinds))("is, with %s, what the tool writes", (kind) => {
        const entry = { time: TIME, values: kinds[kind]! };
        expect([lineOf(entry), rowsOf(entry)]).toEqual([lines[kind], rows[kind]]);
    });
    test("tells of what was no message, and of a lost connection", () => {
        const undecodable: Entry = { time: TIME, undecodable: Uint8Array.of(0x81, 0x0a), reason: "it is cut" };
        expect(lineOf(undecodable)).toBe('{"time":1700000000.25,"undecodable":"810a","reason":"it is cut"}\n');
        expect(lineOf({ time: TIME, disconnected: 'by "them"' })).toBe(
            '{"time":1700000000.25,"disconnected":"by \\"them\\""}\n',
        );
        expect([rowsOf(undecodable), rowsOf({ time: TIME, disconnected: "x" })]).toEqual(["", ""]);
    });
});

describe("the recorder", () => {
    const take = (recorder: Recorder, time: number, values: Value, source = SOURCE) =>
        recorder.take({ time, values }, source);
    const linesOf = async (recorder: Recorder) =>
        (await recorder.file().text())
            .trimEnd()
            .split("\n")
            .map((line) => JSON.parse(line));

    test("keeps what came, and where from", async () => {
        const recorder = new Recorder();
        const begin = now();
        take(recorder, begin + 1000, { motor: { speed: 5 } });
        const [head, line] = await linesOf(recorder);
        expect(head.recording).toEqual({
            address: "ws://bridge:10443",
            hello: { type: "demo", id: "A7" },
            schema: SCHEMA,
        });
        expect(head.time).toBeCloseTo(begin / 1000, 1);
        expect(line).toEqual({ time: Math.round((begin + 1000) * 1000) / 1e6, values: { motor: { speed: 5 } } });
        expect([recorder.messages, recorder.dropped]).toEqual([1, 0]);
    });

    test("tells the time of the clock on the wall, which was set before", async () => {
        vi.spyOn(wallClock, "at").mockImplementation((time) => time + 3_600_000);
        const recorder = new Recorder();
        vi.restoreAllMocks();
        take(recorder, TIME, 1);
        expect((await linesOf(recorder))[1].time).toBe((TIME + 3_600_000) / 1000);
    });

    test("tells when the values come from elsewhere, or have another schema", async () => {
        const recorder = new Recorder();
        const other = { ...SOURCE, schema: { x: SCHEMA.motor.speed } as never };
        take(recorder, TIME, 1);
        take(recorder, TIME, 2, other);
        take(recorder, TIME, 3, other);
        take(recorder, TIME, 4, { ...other, hello: { type: "another" } });
        const kinds = (await linesOf(recorder)).map((line) => line.recording?.schema ?? line.values);
        expect(kinds).toEqual([SCHEMA, 1, other.schema, 2, 3, other.schema, 4]);
    });

    test("gives up the oldest when there is no room, never takes more, and says how much and when", async () => {
        const limit = 128 * 100; // pieces of 100 bytes, with two lines each
        const recorder = new Recorder(limit);
        for (let at = 0; at < 1000; at++) {
            take(recorder, TIME + at * 1000, 1000 + at);
            expect(recorder.size).toBeLessThanOrEqual(limit);
        }
        const [head, first, ...rest] = await linesOf(recorder);
        expect(rest.at(-1).values).toBe(1999);
        expect(recorder.messages).toBe(1000);
        expect(recorder.dropped).toBe(1000 - rest.length - 1);
        expect(rest.length).toBeGreaterThan(limit / 60);
        expect(first.values).toBe(1000 + recorder.dropped);
        expect(recorder.from).toBe(TIME + recorder.dropped * 1000);
        expect(head.time * 1000).toBeCloseTo(recorder.from, 0);
        expect(head.recording).toMatchObject({ schema: SCHEMA, dropped: recorder.dropped });
    });

    test("keeps the schema that the oldest messages had, when those before are given up", async () => {
        const recorder = new Recorder(128 * 100);
        take(recorder, TIME, 1);
        const other = { ...SOURCE, address: "ws://elsewhere" };
        for (let at = 0; at < 1000; at++) take(recorder, TIME + at, 1000 + at, other);
        expect((await linesOf(recorder))[0].recording.address).toBe("ws://elsewhere");
    });

    test("passes over a message that is larger than all of it, and counts it", async () => {
        const recorder = new Recorder(1000);
        take(recorder, TIME, 1);
        take(recorder, TIME, "x".repeat(2000));
        take(recorder, TIME, 2);
        expect(recorder.dropped).toBeGreaterThanOrEqual(1);
        expect((await linesOf(recorder)).at(-1).values).toBe(2);
        expect(recorder.size).toBeLessThanOrEqual(1000);
    });

    test("says how long it can go on at the present rate", () => {
        vi.useFakeTimers();
        const line = lineOf({ time: TIME, values: 1000 }).length;
        const recorder = new Recorder(1000 * line);
        expect(recorder.capacity).toBeUndefined();
        for (let at = 0; at < 60; at++) {
            // One a second, and ten a second at last.
            for (let more = at < 30 ? 1 : 10; more > 0; more--) take(recorder, TIME, 1000);
            vi.advanceTimersByTime(1000);
        }
        expect(recorder.capacity).toBeGreaterThan(90_000);
        expect(recorder.capacity).toBeLessThan(120_000);
    });

    test("takes nothing more once it is stopped", async () => {
        const recorder = new Recorder();
        take(recorder, TIME, 1);
        recorder.stop();
        take(recorder, TIME, 2);
        expect((await linesOf(recorder)).length).toBe(2);
    });
});

/** A session that connects to nothing. */
function newSession(): Session {
    const session = new Session({
        home: "",
        query: { get: () => null },
        memory: { load: () => undefined, save: () => undefined },
        read: () => Promise.reject(new Error("none")),
    });
    return session;
}

async function opened(parts: (string | Blob)[], name = "x.jsonl"): Promise<Recordings> {
    const recordings = new Recordings(newSession());
    await recordings.open(new Blob(parts), name);
    return recordings;
}

const linesAt = (...entries: Entry[]) => entries.map((entry) => lineOf(entry)).join("");
const values = (time: number, values: Value): Entry => ({ time, values });

/** What is shown, by dotted path. */
function shownIn({ tree }: Playback): Map<string, Value> {
    return new Map(tree.valued.flatMap((node) => (node.reading ? [[dotted(node.path), node.reading.value]] : [])));
}

function shownAt(playback: Playback, time: number): Record<string, Value> {
    playback.seek(time);
    return Object.fromEntries(shownIn(playback));
}

/** A value as a recording tells it: with the digits that it justifies, and arrays of all kinds as the same. */
function asTold(value: Value): Value {
    if (typeof value === "number") return justified(value);
    if (!ArrayBuffer.isView(value)) return value;
    return Float64Array.from(value as ArrayLike<number>, (each) => justified(each)) as unknown as Value;
}

const told = (values: Value) => new Map([...flatten(values)].map(([path, value]) => [path, asTold(value)]));

async function reopened(format: Format, ...entries: Entry[]): Promise<Playback> {
    const recordings = new Recordings(newSession());
    recordings.record();
    for (const entry of entries) recordings.recorder!.take(entry, SOURCE);
    recordings.stop();
    const file = await recordings.export(format);
    expect(recordings.problem).toBe("");
    await recordings.open(file!, `x.${format}`);
    expect(recordings.problem).toBe("");
    return recordings.playback!;
}

describe.each(formats)("a recording that is saved as .%s and opened again", (format) => {
    test.each(Object.keys(kinds))("has %s as they were", async (kind) => {
        const playback = await reopened(format, values(TIME, kinds[kind]!));
        const expected = told(kinds[kind]!);
        if (format === "csv" && kind === "nil and texts") {
            expected.set("empty", null).set("digits", 1234567890123456789n); // which are alike there
        }
        if (format === "csv") expected.delete("none"); // an array without elements has no rows
        expect(shownIn(playback)).toEqual(expected);
    });

    test("has its times, to the microsecond", async () => {
        const times = [TIME, TIME + 0.001, TIME + 0.25, TIME + 1e7];
        const playback = await reopened(format, ...times.map((time, at) => values(time, { at })));
        for (const [at, time] of times.entries()) expect(shownAt(playback, time)).toEqual({ at });
        expect(playback.begin).toBeCloseTo(TIME, 3);
        expect(playback.end).toBeCloseTo(TIME + 1e7, 3);
    });
});

describe.each(["jsonl", "mcap"] as const)("a recording that is saved as .%s", (format) => {
    test("knows its schema, its source and where the connection was lost", async () => {
        const playback = await reopened(
            format,
            values(TIME, { motor: { speed: 5 } }),
            { time: TIME + 1000, disconnected: "gone" },
            { time: TIME + 1500, undecodable: Uint8Array.of(1), reason: "odd" },
            values(TIME + 2000, { motor: { speed: 6 } }),
        );
        expect(playback.origin).toMatchObject({ address: "ws://bridge:10443", hello: { type: "demo", id: "A7" } });
        expect(playback.schema).toEqual(SCHEMA);
        expect(playback.undecodable).toBe(1);
        const { series, leaf } = playback.tree.find(["motor", "speed"])!;
        expect(leaf).toMatchObject({ mac: 5, cmd: 2 });
        const isLost = [500, 1000, 1999, 2000].map((after) => {
            playback.seek(TIME + after);
            return [series!.value, series!.isOverdue(TIME + after, leaf)];
        });
        expect(isLost).toEqual([
            [5, false],
            [5, true],
            [5, true],
            [6, false],
        ]);
    });
});

describe.each(["jsonl", "csv"] as const)("a recording that is saved as .%s", (format) => {
    test("is drawn by the tool", { timeout: 60_000 }, async () => {
        const recordings = new Recordings(newSession());
        recordings.record();
        for (let at = 0; at < 10; at++) {
            const wave = Float32Array.of(at, 0.5);
            recordings.recorder!.take(values(TIME + at, { motor: { speed: at + 0.5 }, flag: at > 5, wave }), SOURCE);
        }
        const folder = mkdtempSync(join(tmpdir(), "vorbel-recording-"));
        onTestFinished(() => rmSync(folder, { recursive: true }));
        writeFileSync(join(folder, `x.${format}`), await (await recordings.export(format))!.text());
        const { stdout, stderr, status } = spawnSync(
            "/usr/bin/python3",
            [
                join(python, "vorbel-cli"),
                ...["plot", "motor.speed", "flag", "wave", "-o", join(folder, "x.svg")],
                ...["--from", join(folder, `x.${format}`)],
            ],
            { encoding: "utf8" },
        );
        expect({ stderr, status }).toEqual({ stderr: "", status: 0 });
        expect(stdout).toContain("39 points"); // of the first array only the last element has a time
    });
});

test("a recording of the tool knows its schema and its source", async () => {
    const folder = mkdtempSync(join(tmpdir(), "vorbel-recording-"));
    onTestFinished(() => rmSync(folder, { recursive: true }));
    const program = `
import json, sys
from vorbel import Hello, Values
from vorbel.recording import Origin, Recorder
recorder = Recorder(sys.argv[1])
recorder.origin = Origin("ws://board:10443", Hello("demo", "A7"), json.load(sys.stdin))
recorder.record(Values({"motor": {"speed": 5}}, ${TIME / 1000}))
recorder.close()`;
    const file = join(folder, "x.jsonl");
    const { stderr } = spawnSync("/usr/bin/python3", ["-c", program, file], {
        cwd: python,
        input: JSON.stringify(SCHEMA),
        encoding: "utf8",
    });
    expect(stderr).toBe("");
    const { playback } = await opened([readFileSync(file, "utf8")]);
    expect(playback!.origin).toMatchObject({ address: "ws://board:10443", hello: { type: "demo", id: "A7" } });
    expect(playback!.schema).toEqual(SCHEMA);
    expect(shownAt(playback!, TIME)).toEqual({ "motor.speed": 5 });
});

describe("looking at a recording", () => {
    const three = linesAt(
        values(TIME, { a: 1, flag: true }),
        values(TIME + 1000, { b: "text" }),
        values(TIME + 3000, { a: 3, flag: false }),
    );

    test("shows at each time what was the present then", async () => {
        const { playback } = await opened([three]);
        expect(playback!.time).toBe(TIME);
        expect(shownAt(playback!, TIME)).toEqual({ a: 1, flag: true });
        expect(shownAt(playback!, TIME + 999.999)).toEqual({ a: 1, flag: true });
        expect(shownAt(playback!, TIME + 1000)).toEqual({ a: 1, flag: true, b: "text" });
        expect(shownAt(playback!, TIME + 3000)).toEqual({ a: 3, flag: false, b: "text" });
        expect(shownAt(playback!, TIME)).toEqual({ a: 1, flag: true });
        expect(playback!.tree.find(["a"])!.series!.time).toBe(TIME);
    });

    test("goes no further than it does", async () => {
        const { playback } = await opened([three]);
        playback!.seek(TIME + 1e9);
        expect([playback!.time, playback!.known]).toEqual([TIME + 3000, TIME + 3000]);
        playback!.seek(0);
        expect(playback!.time).toBe(TIME);
    });

    test("steps from message to message, over those of the same time at once", async () => {
        const same = linesAt(
            values(TIME, 1),
            values(TIME + 5, 2),
            values(TIME + 5, 3),
            values(TIME + 5, 4),
            values(TIME + 9, 5),
        );
        const { playback } = await opened([same]);
        const step = (by: 1 | -1) => {
            playback!.step(by);
            return [playback!.time - TIME, playback!.tree.root.series!.value];
        };
        expect([step(1), step(1), step(1)]).toEqual([
            [5, 4],
            [9, 5],
            [9, 5],
        ]);
        expect([step(-1), step(-1), step(-1)]).toEqual([
            [5, 4],
            [0, 1],
            [0, 1],
        ]);
    });

    test("plays at its speed, stops at the end, and begins anew from there", async () => {
        vi.useFakeTimers({ toFake: ["performance"] });
        const { playback } = await opened([three]);
        const tickAfter = (time: number) => {
            vi.advanceTimersByTime(time);
            playback!.tick();
            return playback!.time - TIME;
        };
        expect(tickAfter(500)).toBe(0);
        playback!.play();
        expect(tickAfter(500)).toBeCloseTo(500);
        playback!.setSpeed(2);
        expect(tickAfter(500)).toBeCloseTo(1500);
        playback!.pause();
        expect(tickAfter(500)).toBeCloseTo(1500);
        playback!.play();
        expect(tickAfter(5000)).toBe(3000);
        expect(playback!.playing).toBe(false);
        playback!.play();
        expect(tickAfter(100)).toBeCloseTo(200);
    });

    test("tells the rate, and what changed since, as at that time", async () => {
        const entries = Array.from({ length: 200 }, (_, at) =>
            values(TIME + 100 * at + (at < 100 ? 0 : 900 * (at - 100)), { fast: at, same: 7 }),
        );
        const { playback } = await opened([linesAt(...entries)]);
        const { series } = playback!.tree.find(["fast"])!;
        playback!.seek(TIME + 9000);
        expect(series!.rate.at(playback!.time)).toBeCloseTo(10, 5);
        playback!.seek(playback!.end);
        expect(series!.rate.at(playback!.time)).toBeCloseTo(1, 5);
        const changed = () => playback!.tree.rows("", TIME + 500).map((node) => node.dotted);
        expect(changed()).toEqual(["fast"]);
        playback!.seek(TIME + 450);
        expect(changed()).toEqual([]);
        expect(series!.end).toBe(5);
        expect(series!.history.length).toBe(200); // plots show what came next, too
    });

    test("has no schema but that from before the first values, so that no name is lost", async () => {
        const other = { recording: { address: "x", schema: { other: SCHEMA.motor.speed } as never } };
        const { playback } = await opened([
            linesAt(values(TIME, { mine: 1 }), { time: TIME, ...other }, values(TIME + 1, { other: 2 })),
        ]);
        expect(shownAt(playback!, TIME + 1)).toEqual({ mine: 1, other: 2 });
        expect(playback!.schema).toBeUndefined();
        const { playback: late } = await opened([linesAt({ time: TIME, ...other }, values(TIME, { other: 2 }))]);
        expect(late!.schema).toEqual({ other: SCHEMA.motor.speed });
    });

    test("sends nothing, cannot be unlocked, and keeps nothing of itself", async () => {
        const { playback } = await opened([three]);
        const [leaf] = leavesOf(SCHEMA);
        await expect((playback as Session).write(new Map([[leaf!, 5]]))).rejects.toThrow("nothing was written");
        playback!.unlock();
        expect(playback!.locked).toBe(true);
        expect(() => playback!.setSchema(JSON.stringify(SCHEMA), true)).toThrow("nothing was sent");
        playback!.startWriting();
        expect(playback!.writing).toBeUndefined();
        expect(playback!.connect()).toContain("recording");
        expect(playback!.state).toBe("closed");
    });

    test("draws what was drawn of the present, and comes back to it", async () => {
        const session = newSession();
        session.tree.update({ a: 1, gone: 2 }, now());
        for (const name of ["gone", "a"]) session.togglePlot(session.tree.find([name])!);
        const recordings = new Recordings(session);
        recordings.record();
        session.startWriting(session.tree.find(["a"]));
        await recordings.open(new Blob([three]), "x.jsonl");
        expect(session.writing).toBeUndefined();
        expect(recordings.playback!.plots.nodes.map((node) => node.dotted)).toEqual(["a"]);
        expect(recordings.recorder!.ended).toBeDefined(); // nothing comes meanwhile
        recordings.leave();
        expect(recordings.playback).toBeUndefined();
        expect(session.plots.nodes.length).toBe(2);
    });

    test("names its times as the clock on the wall did, which was set since", async () => {
        vi.spyOn(wallClock, "when").mockImplementation((shown) => shown - 3_600_000);
        const { playback } = await opened([three]);
        vi.restoreAllMocks();
        expect([playback!.begin, playback!.end]).toEqual([TIME - 3_600_000, TIME - 3_597_000]);
    });
});

describe("what is no recording, or not all of it", () => {
    const good = linesAt(values(TIME, { a: 1 }), values(TIME + 1, { a: 2 }));
    const head = "time,path,index,value\n";
    const deep = (depth: number) => `{"time":1,"values":${'{"a":'.repeat(depth)}1${"}".repeat(depth)}}\n`;

    test.each([
        ["a picture", "x.png", ["PNG"], "recordings end in .jsonl, .csv or .mcap"],
        ["a name without suffix", "recording", ["{}"], "recordings end in .jsonl, .csv or .mcap"],
        ["no JSON", "x.jsonl", ["hello\nthere\n"], "line 1 is none of a recording"],
        ["JSON of another kind", "x.jsonl", ["[1]\n"], "it is no JSON object"],
        ["nothing", "x.jsonl", [""], "it holds no values"],
        ["only empty objects", "x.jsonl", ["{}\n"], "it has no time"],
        ["no values", "x.jsonl", ['{"time":1}\n'], "it holds no values"],
        ["a time that no date can have", "x.jsonl", ['{"time":1e300,"values":1}\n'], "it has no time"],
        ["maps 5,000 deep", "x.jsonl", [deep(5000)], "it is nested more than 1025 deep"],
        ["maps 1,000,000 deep", "x.jsonl", [deep(1_000_000)], "line 1 is none of a recording"],
        ["no header", "x.csv", ["1,a,,5\n"], 'its first line is not "time,path,index,value,unit,label"'],
        ["only a header", "x.csv", [head], "it holds no values"],
        ["rows of three", "x.csv", [`${head}1,a,5\n`], "line 2 is none of a recording: it has 3 cells instead of 4"],
        ["wrong quotes", "x.csv", [`${head}1,a"b",,5\n`], "its quotes are wrong"],
        ["half an array", "x.csv", [`${head}1,a,1,5\n`], "an array begins in the middle"],
        ["an array of words", "x.csv", [`${head}1,a,0,five\n`], "it is no element of an array"],
        ["no time", "x.csv", [`${head}now,a,,5\n`], "it has no time"],
        ["another magic", "x.mcap", ["PNG and something more"], "Expected MCAP magic"],
        ["half a magic", "x.mcap", ["\x89MC"], "it is cut off"],
    ])("%s is refused with the reason", async (_, name, parts, reason) => {
        const { playback, problem, busy } = await opened(parts, name);
        expect(playback).toBeUndefined();
        expect(busy).toBeUndefined();
        expect(problem).toContain(`${name} cannot be opened: `);
        expect(problem).toContain(reason);
    });

    test("a file of 1 GiB is refused without being read", async () => {
        let reads = 0;
        const slice = () => {
            reads++;
            return new Blob();
        };
        const recordings = new Recordings(newSession());
        await recordings.open({ size: 2 ** 30, slice } as unknown as Blob, "x.jsonl");
        expect(recordings.problem).toBe("x.jsonl cannot be opened: it has more than 256 MiB");
        expect(reads).toBe(0);
    });

    test("a line without an end is not gathered", async () => {
        const piece = "x".repeat(1024 * 1024);
        const { problem } = await opened(Array.from({ length: 40 }, () => piece));
        expect(problem).toContain("line 1 is longer than 16 MiB");
    });

    test("names without end are not gathered", async () => {
        const names = Array.from({ length: 60_000 }, (_, at) => `"name${at}":1`).join();
        const { playback, problem } = await opened([`${good}{"time":${TIME},"values":{${names}}}\n`]);
        expect(problem).toBe("");
        expect(playback!.note).toContain("it has more than 50000 names");
        expect(playback!.messages).toBe(2);
    });

    test.each([
        ["a line that was cut off", "x.jsonl", good + '{"time":17000000', "its last line is cut off", 2],
        ["a line that is none", "x.jsonl", good + "oh\n" + good, "line 3 is none of a recording", 2],
        ["a time before the last one", "x.jsonl", good + good, "it has an earlier time than the line before", 2],
        ["a row that was cut off", "x.csv", `${head}1,a,,5\n1,a,,5`, "its last line is cut off", 1],
        ["quotes that were cut off", "x.csv", `${head}1,a,,5\n1,"a\n,,5\n`, "its last line is cut off", 1],
        ["an array that was cut off", "x.csv", `${head}1,a,0,5\n1,a,1`, "its last line is cut off", 1],
    ])("%s: what is before it is shown, and that it is not all", async (_, name, text, note, messages) => {
        const { playback, problem } = await opened([text], name);
        expect(problem).toBe("");
        expect(playback!.note).toContain(note);
        expect(playback!.messages).toBe(messages);
    });

    test("a last line that only lacks its end is all of it", async () => {
        const { playback } = await opened([good.trimEnd()]);
        expect([playback!.note, playback!.messages]).toEqual(["", 2]);
    });

    test("a schema that cannot be used is passed over, and that is told", async () => {
        const broken = { recording: { address: "x", schema: { a: { "@mac": "five" } } as never } };
        const { playback } = await opened([linesAt({ time: TIME, ...broken }, values(TIME, { a: 1 }))]);
        expect(shownAt(playback!, TIME)).toEqual({ a: 1 });
        expect(playback!.log.entries.map(({ text }) => text)).toContain("The schema of the recording cannot be used");
    });

    test("after a refusal, the next one is opened", async () => {
        const { session } = await opened(["no"]);
        const recordings = new Recordings(session);
        await recordings.open(new Blob(["no"]), "x.jsonl");
        await recordings.open(new Blob([good]), "x.jsonl");
        expect([recordings.problem, recordings.playback!.messages]).toEqual(["", 2]);
    });
});

describe("the MCAP file", () => {
    async function saved(...entries: Entry[]): Promise<Uint8Array> {
        const recordings = new Recordings(newSession());
        recordings.record();
        for (const entry of entries) recordings.recorder!.take(entry, SOURCE);
        return new Uint8Array(await (await recordings.export("mcap"))!.arrayBuffer());
    }
    const readable = (bytes: Uint8Array) => ({
        size: () => Promise.resolve(BigInt(bytes.length)),
        read: (offset: bigint, size: bigint) =>
            Promise.resolve(bytes.subarray(Number(offset), Number(offset) + Number(size))),
    });
    const some = [
        values(TIME, { motor: { speed: 5 }, flag: true, name: "x", wave: Float32Array.of(1, 2) }),
        values(TIME + 1, 42),
        { time: TIME + 2, disconnected: "gone" },
    ];

    test("is read through its index, from any time on", async () => {
        const reader = await McapIndexedReader.Initialize({ readable: readable(await saved(...some)) });
        const messages = [];
        for await (const message of reader.readMessages({ startTime: BigInt(TIME) * 1_000_000n + 1n })) {
            const { topic } = reader.channelsById.get(message.channelId)!;
            messages.push([topic, message.logTime, JSON.parse(new TextDecoder().decode(message.data))]);
        }
        expect(messages).toEqual([
            ["value", BigInt(TIME + 1) * 1_000_000n, { value: 42 }],
            ["recording", BigInt(TIME + 2) * 1_000_000n, { time: (TIME + 2) / 1000, disconnected: "gone" }],
        ]);
        expect(reader.statistics!.messageCount).toBe(4n);
        const metadata = [];
        for await (const { name, metadata: entries } of reader.readMetadata()) metadata.push([name, entries]);
        const expected = { address: "ws://bridge:10443", type: "demo", id: "A7", schema: JSON.stringify(SCHEMA) };
        expect(metadata).toEqual([["recording", new Map(Object.entries(expected))]]);
    });

    test("describes its messages by a JSON schema", async () => {
        const reader = new McapStreamReader();
        reader.append(await saved(...some));
        const schemas = new Map<string, unknown>();
        for (let record; (record = reader.nextRecord());) {
            if (record.type === "Channel") expect(record.messageEncoding).toBe("json");
            if (record.type !== "Schema") continue;
            expect(record.encoding).toBe("jsonschema");
            schemas.set(record.name, JSON.parse(new TextDecoder().decode(record.data)));
        }
        expect(reader.done()).toBe(true);
        expect(schemas.get("vorbel.values")).toEqual({
            type: "object",
            properties: {
                motor: { type: "object", properties: { speed: { type: "number" } } },
                flag: { type: "boolean" },
                name: { type: "string" },
                wave: { type: "array", items: { type: "number" } },
            },
        });
    });

    test("is shown as far as it goes, when it was cut off", async () => {
        const many = Array.from({ length: 30_000 }, (_, at) => values(TIME + at, { a: at, text: "x".repeat(100) }));
        const bytes = await saved(...many);
        const { playback } = await opened([new Blob([bytes.slice(0, bytes.length / 2)])], "x.mcap");
        expect(playback!.note).toBe("it is cut off");
        expect(playback!.messages).toBeGreaterThan(5000);
        expect(playback!.messages).toBeLessThan(16_000);
    });

    test("of somebody else is refused with the reason", async () => {
        const bytes = await saved(...some);
        const text = Buffer.from(bytes).toString("latin1").replaceAll("values", "Values");
        const { problem } = await opened([new Blob([Buffer.from(text, "latin1")])], "x.mcap");
        expect(problem).toMatch(/cannot be opened: .*(CRC|crc|none of a recording)/);
    });
});

test("a line of a recorder of another kind is passed over", () => {
    expect(entryOf('{"time":1,"hello":{"type":"x"}}')).toBeUndefined();
});
