import { afterEach, beforeEach, describe, expect, test, vi } from "vitest";
import { planOfText, planOfValues, type Course } from "../src/model/course";
import { progressOf, start, type Run } from "../src/model/run";
import { sentLine } from "../src/model/sent";
import type { Session } from "../src/model/session";
import { withEither } from "../src/model/signals";
import { Daemon, memoryOf, sessionOn } from "./wire";

/** What goes out by itself: when, how late at the most, and what ends it. */

const schema = {
    a: { "@mac": 5, "@cmd": 3, "@format": "S" },
    b: { "@mac": 5, "@cmd": 3, "@format": "S", "@skip": 2 },
    c: { "@mac": 5, "@cmd": 4, "@format": "S" },
    flag: { "@mac": 6, "@format": "C", "@asBool": true },
    "x=y": { "@mac": 7, "@format": "C" },
    any: { "@mac": 8, "@format": "p" },
    group: { d: { "@mac": 9, "@format": "C" } },
};

let daemon: Daemon;
let session: Session;
/** Time that has passed without any timer: the page was busy, or asleep. */
let asleep: number;

beforeEach(async () => {
    vi.useFakeTimers();
    asleep = 0;
    const measured = performance.now.bind(performance);
    vi.spyOn(performance, "now").mockImplementation(() => measured() + asleep);
    daemon = new Daemon();
    session = sessionOn(daemon, schema);
    await vi.advanceTimersByTimeAsync(10);
    expect(session.state).toBe("connected");
});
afterEach(() => {
    session.run?.stop("the test is over");
    session.disconnect();
    vi.useRealTimers();
    vi.restoreAllMocks();
});

const pass = (milliseconds: number) => vi.advanceTimersByTimeAsync(milliseconds);
const heard = () => daemon.heard.map(({ values }) => values);

function cycleOf(values: Record<string, string>, period: number): Course {
    const { steps, problems } = planOfValues(session.tree, assignments(values));
    expect(problems).toEqual([]);
    return { kind: "cycle", name: "test", steps, period };
}

function assignments(values: Record<string, string>) {
    return Object.entries(values).map(([path, text]) => ({ path, text }));
}

function sequenceOf(...lines: string[]): Course {
    const { steps, problems } = planOfText(session.tree, lines.join("\n"));
    expect(problems).toEqual([]);
    return { kind: "sequence", name: "test", steps };
}

function run(course: Course, ...agreed: string[]): Run {
    return start(session, course, new Set(agreed));
}

describe("a preset", () => {
    const planned = (values: Record<string, string>) => planOfValues(session.tree, assignments(values));

    test("goes out frame by frame, with what shares a frame together", async () => {
        const { steps } = planned({ a: "1", c: "3", b: "2" });
        const sent = run({ kind: "preset", name: "test", steps });
        await pass(100);
        expect(heard()).toEqual([{ a: 1, b: 2 }, { c: 3 }]);
        expect([sent.state, sent.handled]).toEqual(["done", 2]);
    });

    test.each<[string, Record<string, string>, RegExp]>([
        [
            "has paths that the schema lacks",
            { a: "1", "b.old": "2" },
            /^b\.old: the schema used here does not have it$/,
        ],
        ["has paths of groups", { group: "1" }, /^group: the schema used here does not have it$/],
        ["has paths that are read-only now", { flag: "1" }, /^flag: cannot be set: it is read-only/],
        ["has values that do not fit any more", { a: "70000" }, /^a: must lie between/],
    ])("is refused when it %s", (_, values, reason) => {
        expect(planned(values).problems).toEqual([expect.stringMatching(reason)]);
    });

    test("has as much time to go out as a value from the form", async () => {
        daemon.latency = 1100;
        const { steps } = planned({ a: "1", b: "2", c: "3" });
        const sent = run({ kind: "preset", name: "test", steps });
        await pass(7000);
        expect(sent.state).toBe("done");
        expect(heard()).toHaveLength(2);
    });
});

describe("a sequence", () => {
    test.each<[string, string, string[]]>([
        ["steps, comments and empty lines", "# slowly\n\n0 a = 1\n  2.5 a=2\n2.5 c = 0x10", []],
        ["nothing", "\n# nothing", ["There is no step in it"]],
        ["no time", "a = 1", [expect.stringMatching(/^Line 1: is no step/)]],
        ["no value", "0 a", [expect.stringMatching(/^Line 1: is no step/)]],
        ["a time before", "1 a = 1\n0.5 a = 2", ["Line 2: comes before the one above it"]],
        ["a time too far", "86401 a = 1", ["Line 1: comes later than 86400 s after the start"]],
        [
            "an unknown path",
            "0 d = 1\n1 e = 2",
            ["Line 1: d: the schema used here does not have it", "Line 2: e: the schema used here does not have it"],
        ],
        ["no number", "0 a = one", ["Line 1: a: must be a number"]],
        ["one value twice at a time", "0 a = 1\n0 a = 2", ["Line 2: a is set twice at the same time"]],
        ["equals signs in names and values", '0 x=y = 1\n0 any = {"a=b": 1}', []],
    ])("with %s", (_, text, problems) => {
        expect(planOfText(session.tree, text).problems).toEqual(problems);
    });

    test("goes out at its times", async () => {
        const sequence = run(sequenceOf("0.1 a = 1", "0.1 b = 0", "0.5 c = 2", "2 c = 3"));
        await pass(50);
        expect(progressOf(sequence)).toBe("step 1 of 3, 0 handled");
        await pass(3000);
        expect(heard()).toEqual([{ a: 1, b: 0 }, { c: 2 }, { c: 3 }]);
        const [first, second, third] = daemon.heard.map(({ at }) => at);
        expect([second! - first!, third! - first!]).toEqual([400, 1900]);
        expect(progressOf(sequence)).toMatch(/^done at .* \(3 handled\)$/);
        await pass(10_000);
        expect(heard()).toHaveLength(3);
    });

    test("sends what it has set with later values of the same frame, though no reading has followed", async () => {
        session.tree.update({ a: 7, b: 8 }, performance.now());
        run(sequenceOf("0 a = 1", "1 b = 2"));
        await pass(2000);
        expect(heard()).toEqual([
            { a: 1, b: 8 },
            { a: 1, b: 2 },
        ]);
    });

    test("whose next step would come late ends before it", async () => {
        const sequence = run(sequenceOf("0 c = 1", "1 c = 2", "2 c = 3"));
        await pass(500);
        asleep = 1200;
        await pass(10_000);
        expect(heard()).toEqual([{ c: 1 }]);
        expect([sequence.state, sequence.reason]).toEqual(["stopped", "the next step would have come 1.2 s late"]);
    });

    test("takes a step that is a little late", async () => {
        run(sequenceOf("0 c = 1", "1 c = 2"));
        await pass(500);
        asleep = 400;
        await pass(1000);
        expect(heard()).toEqual([{ c: 1 }, { c: 2 }]);
    });
});

describe("a cycle", () => {
    test("goes out at its period until it is stopped, and then never again", async () => {
        const cycle = run(cycleOf({ c: "1" }, 200));
        await pass(1050);
        expect(daemon.heard.map(({ at }) => at - daemon.heard[0]!.at)).toEqual([0, 200, 400, 600, 800, 1000]);
        expect(progressOf(cycle)).toBe("6 handled");
        cycle.stop("stopped here");
        await pass(5000);
        expect(heard()).toHaveLength(6);
        expect(progressOf(cycle)).toMatch(/^stopped at .*: stopped here \(6 handled\)$/);
    });

    test("that has ended leaves nothing behind", () => {
        const timers = vi.getTimerCount();
        const unwatch = vi.fn();
        vi.spyOn(session.status, "watch").mockReturnValue(unwatch);
        const cycle = run(cycleOf({ c: "1" }, 200));
        expect(vi.getTimerCount()).toBe(timers + 1);
        cycle.stop("stopped here");
        expect([vi.getTimerCount(), unwatch.mock.calls.length]).toEqual([timers, 1]);
    });

    test("that is stopped takes back the order that waits for the daemon", async () => {
        daemon.latency = 300;
        const cycle = run(cycleOf({ c: "1" }, 1000));
        await pass(200);
        cycle.stop("stopped here");
        await pass(5000);
        expect(heard()).toEqual([]);
        expect(session.sent.kept.entries[0]!.outcome).toBe("refused");
    });

    test("skips turns while an order is on its way: there is never more than one", async () => {
        daemon.latency = 120; // there and back in 240
        const cycle = run(cycleOf({ c: "1" }, 100));
        await pass(1000);
        expect(daemon.heard.map(({ at }) => at - daemon.heard[0]!.at)).toEqual([0, 300, 600]);
        expect(cycle.skipped).toBe(6);
    });

    test("skips a turn that comes late, and does not make it up", async () => {
        const cycle = run(cycleOf({ c: "1" }, 1000));
        await pass(500);
        asleep = 3200; // it wakes after 3.7 s, or 4.2 s as it sees it
        await pass(500);
        expect([heard().length, cycle.skipped]).toEqual([1, 4]);
        await pass(820);
        expect([heard().length, cycle.skipped]).toEqual([2, 4]);
    });

    test.each<[string, () => void]>([
        ["page did not run", () => (asleep = 6000)],
        ["computer was asleep", () => void vi.setSystemTime(Date.now() + 3_600_000)],
    ])("is stopped where the %s for long", async (_, sleep) => {
        const cycle = run(cycleOf({ c: "1" }, 1000));
        await pass(500);
        sleep();
        await pass(5000);
        expect([heard().length, cycle.reason]).toEqual([1, "the page was asleep"]);
    });

    test("takes a turn that is less than half a period late", async () => {
        const cycle = run(cycleOf({ c: "1" }, 1000));
        await pass(500);
        asleep = 400;
        await pass(1000);
        expect([heard().length, cycle.skipped]).toEqual([2, 0]);
    });

    test("is stopped by an order that cannot go out soon, which never goes out", async () => {
        const cycle = run(cycleOf({ c: "1" }, 200));
        await pass(100);
        daemon.isStalled = true;
        await pass(1300);
        expect(cycle.state).toBe("stopped");
        expect(cycle.reason).toMatch(/no answer in time.*: nothing was written$/);
        daemon.resume();
        await pass(5000);
        expect(heard()).toHaveLength(1);
    });

    test("is stopped by an order of which nothing says whether it was handled", async () => {
        daemon.breaksOff = true;
        const cycle = run(cycleOf({ c: "1" }, 200));
        await pass(1000);
        expect(heard()).toHaveLength(1);
        expect(cycle.reason).toMatch(/^Sent, but nothing says whether/);
    });

    test.each<[string, () => void, RegExp]>([
        ["the lock", () => session.lock(), /^the page is locked$/],
        ["a lost connection", () => daemon.cut(), /^there is no connection/],
        ["a disconnection", () => session.disconnect(), /^there is no connection/],
        ["another daemon", () => session.connect("elsewhere"), /^there is no connection/],
        [
            "another schema here",
            () => session.setSchema(JSON.stringify(schema), false),
            /^the schema used here has changed$/,
        ],
    ])("is stopped by %s, and does not resume", async (_, disturb, reason) => {
        const cycle = run(cycleOf({ c: "1" }, 200));
        await pass(100);
        disturb();
        expect([cycle.state, cycle.reason]).toEqual(["stopped", expect.stringMatching(reason)]);
        if (session.locked) session.unlock();
        session.connect("plant");
        await pass(10_000);
        expect([session.state, heard().length]).toEqual(["connected", 1]);
    });

    test("is stopped by the schema of another client", async () => {
        const cycle = run(cycleOf({ c: "1" }, 200));
        await pass(100);
        const foreign = { certain: true, reason: "a value comes that it does not have" };
        vi.spyOn(session, "foreign", "get").mockReturnValue(foreign);
        session.status.changed();
        expect(cycle.reason).toBe("another client may have replaced the schema: a value comes that it does not have");
        await pass(1000);
        expect(heard()).toHaveLength(1);
    });

    test("is stopped by a consequence that nobody has agreed to", async () => {
        session.tree.update({ b: 8 }, performance.now());
        const cycle = run(cycleOf({ b: "1" }, 200), "a (bytes 0–1)");
        await pass(300);
        expect(heard()).toEqual([{ b: 1 }, { b: 1 }]);
        session.tree.update({ a: 7 }, performance.now()); // from now on it follows the bus
        await pass(200);
        expect(heard().at(-1)).toEqual({ a: 7, b: 1 });
        session.tree.find(["a"])!.series = undefined;
        session.tree.find(["a"])!.sent = undefined;
        cycle.stop("");
        const other = run(cycleOf({ b: "1" }, 200));
        const before = heard().length;
        await pass(1000);
        expect(heard()).toHaveLength(before);
        expect(other.reason).toBe("it would do what nobody has agreed to: a (bytes 0–1)");
    });

    test("does not begin in a page that is locked, nor beside another one", async () => {
        const cycle = run(cycleOf({ c: "1" }, 200));
        expect(() => run(cycleOf({ a: "1", b: "1" }, 200))).toThrow("Another one is running");
        cycle.stop("");
        session.lock();
        expect(run(cycleOf({ c: "1" }, 200)).reason).toBe("the page is locked");
        await pass(1000);
        expect(heard()).toEqual([]);
    });
});

describe("an order is given up", () => {
    const given = (signals: AbortSignal[]) => withEither(signals, (either) => Promise.resolve(either.aborted));

    test("where it was before it began", async () => {
        expect(await given([new AbortController().signal, AbortSignal.abort()])).toBe(true);
        expect(await given([new AbortController().signal])).toBe(false);
    });

    test("by the page's lock and by its sender alike", async () => {
        const values = new Map([[session.tree.find(["c"])!.leaf!, 1]]);
        const sender = new AbortController();
        const orders = [1, 2].map(() => session.write(values, { source: "test", signal: sender.signal }));
        const refusals = orders.map((order) => expect(order).rejects.toThrow(/given up.*: nothing was written$/));
        session.lock();
        await pass(100);
        session.unlock();
        const another = session.write(values, { source: "test", signal: sender.signal });
        refusals.push(expect(another).rejects.toThrow(/given up/));
        sender.abort();
        await pass(100);
        await Promise.all(refusals);
        expect(heard()).toEqual([]);
    });
});

describe("the list of what went out", () => {
    const entries = () => session.sent.kept.entries;
    const leafOf = (path: string) => session.tree.find([path])!.leaf!;

    test("tells time, source, value, bytes and that it was handled", async () => {
        const written = session.write(new Map([[leafOf("c"), 258]]));
        expect(entries()[0]).toMatchObject({ outcome: "open", source: "form", text: "c = 258", times: 1 });
        await pass(100);
        await written;
        expect(entries()).toMatchObject([
            { outcome: "handled", text: "c = 258: raw 258", frame: "mac 5 cmd 4: 02 01", times: 1 },
        ]);
        expect(Math.abs(entries()[0]!.time - Date.now())).toBeLessThan(1000);
    });

    test("tells what was refused and why, and what may have been handled", async () => {
        session.lock();
        await session.write(new Map([[leafOf("c"), 1]])).catch(() => {});
        session.unlock();
        daemon.breaksOff = true;
        const written = session.write(new Map([[leafOf("c"), 2]])).catch(() => {});
        await pass(100);
        await written;
        expect(entries()).toMatchObject([
            { outcome: "unconfirmed", text: "c = 2", note: expect.stringMatching(/^Sent, but/) },
            { outcome: "refused", text: "c = 1", note: "The page is locked: nothing was written" },
        ]);
    });

    test("counts the orders of a cycle in one entry for each frame", async () => {
        const cycle = run(cycleOf({ a: "1", b: "2", c: "3" }, 200));
        await pass(500);
        daemon.isStalled = true;
        await pass(2000);
        expect(cycle.state).toBe("stopped");
        expect(entries()).toMatchObject([
            { outcome: "refused", times: 1, source: "cycle test" },
            { outcome: "handled", times: 3, frame: "mac 5 cmd 4: 03 00", source: "cycle test" },
            { outcome: "handled", times: 3, frame: "mac 5 cmd 3: 01 00 02 00", source: "cycle test" },
        ]);
        expect(entries()[1]!.until - entries()[1]!.time).toBeGreaterThanOrEqual(400);
        run(cycleOf({ c: "3" }, 200));
        expect(entries()).toHaveLength(3); // another one counts anew
    });

    test("survives a reload, with what the page did not live to see answered", async () => {
        const memory = memoryOf();
        session = sessionOn(daemon, schema, memory);
        await pass(10);
        void session.write(new Map([[leafOf("c"), 1]]));
        const later = sessionOn(daemon, schema, memory);
        expect(later.sent.kept.entries).toMatchObject([{ outcome: "open", text: "c = 1" }]);
        later.disconnect();
        await pass(100);
    });

    test("can be pasted as a line", () => {
        const entry = { id: "1", time: 0, until: 60_000, source: "cycle x", text: "a = 1", frame: "mac 5 cmd 3: 01" };
        const line = sentLine({ ...entry, outcome: "handled", note: "", times: 3 });
        expect(line.split("\t").slice(1)).toEqual([
            "cycle x",
            "handled",
            "a = 1",
            "mac 5 cmd 3: 01",
            expect.stringMatching(/^3 times until 1970-01-01 \d\d:01:00$/),
            "",
        ]);
    });
});
