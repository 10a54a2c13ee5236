import { afterEach, beforeEach, describe, expect, test, vi } from "vitest";
import { now } from "../src/model/clock";
import { Guard, HOLD, parseLimits, type Alarm, type Limits } from "../src/model/limits";
import type { Memory, Session } from "../src/model/session";
import { Daemon, forbidden, memoryOf, sessionOn } from "./wire";

/** When a value is in alarm, how often that is told, and what stays of it. */

const schema = {
    level: { "@mac": 5, "@format": "s" },
    door: { "@mac": 6, "@format": "C", "@observe": true },
    "a.b": { c: { "@mac": 7, "@format": "s" } },
};

let session: Session;
let told: string[];

beforeEach(() => {
    vi.useFakeTimers();
    session = sessionOn(new Daemon(), schema);
    session.disconnect();
    told = [];
});
afterEach(() => void vi.useRealTimers());

function guardWith(limits: Limits, memory: Memory = memoryOf(), path = ["level"]): Guard {
    const guard = new Guard(session, memory, ({ path, side }) => told.push(`${path} ${side}`));
    guard.setLimits(path, limits);
    return guard;
}

/** A reading comes; new names are told as the session tells them. */
function read(value: unknown, seconds = 0): void {
    vi.advanceTimersByTime(1000 * seconds);
    const { shape } = session.tree;
    session.tree.update({ level: value as number }, now());
    if (session.tree.shape !== shape) session.status.changed();
}

const sides = (guard: Guard) => guard.alarms.entries.map(({ side, extreme }) => `${side} ${extreme}`);

describe("a value with limits", () => {
    test.each<[string, Limits, unknown, string | undefined]>([
        ["above the high one", { high: 50 }, 50.5, "high"],
        ["on the high one", { high: 50 }, 50, undefined],
        ["below the low one", { low: -5 }, -6, "low"],
        ["on the low one", { low: -5 }, -5, undefined],
        ["between both", { low: 0, high: 10 }, 5, undefined],
        ["below, with only a high one", { high: 10 }, -1e9, undefined],
        ["above zero as a high one", { high: 0 }, 1, "high"],
        ["infinite", { high: 10 }, Infinity, "high"],
        ["not a number", { low: 0, high: 10 }, NaN, undefined],
        ["a flag", { high: 0 }, true, "high"],
        ["a large integer", { high: 10 }, 11n, "high"],
        ["a text", { low: 0, high: 10 }, "99", undefined],
        ["nothing", { low: 1 }, null, undefined],
        ["an array with one beyond", { high: 10 }, Float32Array.of(1, 11, 2), "high"],
        ["an array with one below", { low: 0 }, Int16Array.of(1, -1, 2), "low"],
        ["an array with one beyond and one that is no number", { high: 10 }, Float32Array.of(NaN, 11), "high"],
        ["an array without", { low: 0, high: 10 }, Float32Array.of(0, NaN, 10), undefined],
        ["an empty array", { low: 0, high: 10 }, new Float32Array(), undefined],
    ])("%s", (_, limits, value, side) => {
        const guard = guardWith(limits);
        read(value);
        expect(guard.sideOf(["level"])).toBe(side);
        expect([guard.count, told.length]).toEqual(side ? [1, 1] : [0, 0]);
    });

    test("is looked at as it is when its limits are set", () => {
        read(60);
        const guard = guardWith({ high: 50 });
        expect(told).toEqual(["level high"]);
        guard.setLimits(["level"], { high: 70 });
        expect([guard.count, guard.alarms.entries[0]!.end > 0]).toEqual([0, true]);
        guard.setLimits(["level"], { high: 10 });
        guard.setLimits(["level"], {});
        expect([guard.count, told.length]).toEqual([0, 2]);
        read(1000);
        expect(guard.count).toBe(0);
    });

    test("is watched under whatever name, and again with another schema", () => {
        const guard = guardWith({ high: 1 }, memoryOf(), ["a.b", "c"]);
        session.tree.update({ "a.b": { c: 5 } }, now());
        session.status.changed();
        expect([guard.sideOf(["a.b", "c"]), guard.sideOf(["a", "b", "c"])]).toEqual(["high", undefined]);
        session.setSchema('{"other": {"@mac": 1, "@format": "s"}}', false);
        session.setSchema(JSON.stringify(schema), false);
        guard.setLimits(["a.b", "c"], { high: 2 });
        session.tree.update({ "a.b": { c: 1 } }, now());
        session.status.changed();
        expect(guard.count).toBe(0);
        session.tree.update({ "a.b": { c: 6 } }, now());
        expect(guard.count).toBe(1);
    });

    test("has one alarm for one stay beyond, with its beginning, end and extreme", () => {
        const guard = guardWith({ high: 50 });
        const begin = now();
        read(51);
        read(70, 1);
        read(60, 1);
        read(49, 1);
        read(10, 9.5);
        expect(guard.count).toBe(1);
        read(10, 0.5);
        expect(guard.count).toBe(0);
        expect(sides(guard)).toEqual(["high 70"]);
        const [alarm] = guard.alarms.entries;
        expect([alarm!.limit, alarm!.end - alarm!.begin]).toEqual([50, 3000]);
        expect(Math.abs(alarm!.begin - begin)).toBeLessThan(10_000); // by another clock
    });

    test("that chatters is told of once", () => {
        const guard = guardWith({ low: 10 });
        for (let turn = 0; turn < 100; turn++) {
            read(9);
            read(11, HOLD / 1000 - 1);
        }
        expect([told, sides(guard), guard.count]).toEqual([["level low"], ["low 9"], 1]);
        read(11, HOLD / 1000);
        expect(guard.count).toBe(0);
        read(8, 60);
        expect(told).toHaveLength(2);
    });

    test("that goes from one side to the other has two alarms", () => {
        const guard = guardWith({ low: 0, high: 10 });
        read(11);
        read(-1, 1);
        expect([sides(guard), guard.sideOf(["level"])]).toEqual([["low -1", "high 11"], "low"]);
        expect(guard.alarms.entries.map(({ end }) => end > 0)).toEqual([false, true]);
    });

    test("that comes only when it changes ends its alarm without another reading", () => {
        const guard = guardWith({ high: 0 }, memoryOf(), ["door"]);
        session.tree.update({ door: 1 }, now());
        session.status.changed();
        vi.advanceTimersByTime(60_000);
        guard.look();
        expect(guard.count).toBe(1);
        session.tree.update({ door: 0 }, now());
        vi.advanceTimersByTime(HOLD - 1);
        guard.look();
        expect(guard.count).toBe(1);
        vi.advanceTimersByTime(1);
        guard.look();
        expect(guard.count).toBe(0);
    });

    test("that another schema or daemon does not have is in alarm no more, and its end is not seen", () => {
        const guard = guardWith({ high: 0 });
        read(1);
        session.setSchema('{"other": {"@mac": 1, "@format": "s"}}', false);
        expect([guard.count, guard.alarms.entries[0]!.end]).toEqual([0, 0]);
        session.setSchema(JSON.stringify(schema), false);
        read(1, 2);
        expect([guard.count, sides(guard).length]).toEqual([1, 2]);
        session.connect("elsewhere");
        expect(guard.count).toBe(0);
        session.disconnect();
    });

    test("whose readings stop does not end its alarm, within or not", () => {
        const guard = guardWith({ high: 0 });
        read(1);
        read(0, 1);
        session.tree.interrupt(now());
        vi.advanceTimersByTime(60_000);
        guard.look();
        expect(guard.count).toBe(1);
        read(0, 1);
        expect(guard.count).toBe(0);
    });
});

describe("the list of alarms", () => {
    test("survives a reload with the limits; what was going on has no end, and begins anew", () => {
        const memory = memoryOf();
        guardWith({ high: 50 }, memory);
        read(60, 1);
        vi.advanceTimersByTime(5000);
        session = sessionOn(new Daemon(), schema);
        const later = new Guard(session, memory, ({ path }) => told.push(path));
        expect(later.limitsOf(["level"])).toEqual({ high: 50 });
        expect(later.count).toBe(0);
        read(61);
        expect(sides(later)).toEqual(["high 61", "high 60"]);
        expect(later.alarms.entries.map((alarm) => [alarm.end, later.isActive(alarm)])).toEqual([
            [0, true],
            [0, false],
        ]);
        session.disconnect();
    });

    test("keeps the extreme within a second", () => {
        const memory = memoryOf();
        const guard = guardWith({ high: 50 }, memory);
        read(60);
        read(70);
        read(65);
        guard.look();
        expect(JSON.parse(memory.load("alarms")!)[0].extreme).toBe(70);
        const isSaved = vi.spyOn(memory, "save");
        guard.look();
        expect(isSaved).not.toHaveBeenCalled();
    });

    test("can be acknowledged, and cleared but for what goes on", () => {
        const guard = guardWith({ low: 0, high: 10 });
        read(11);
        read(-1, 1);
        guard.acknowledge();
        const acknowledged = () => guard.alarms.entries.map((alarm) => alarm.acknowledged);
        expect(acknowledged()).toEqual([true, true]);
        read(-2);
        guard.look();
        expect(acknowledged()).toEqual([true, true]);
        guard.clear();
        expect(sides(guard)).toEqual(["low -2"]);
    });

    test("has 500 alarms at the most, and none that cannot be shown", () => {
        const alarm: Alarm = {
            id: "",
            path: "a",
            side: "low",
            limit: 1,
            begin: 1,
            end: 2,
            extreme: 0,
            acknowledged: true,
        };
        const stored = Array.from({ length: 600 }, (_, at) => ({ ...alarm, id: String(at) }));
        const memory = memoryOf({ alarms: JSON.stringify([{ id: "x" }, ...stored]) });
        const guard = guardWith({ high: 1 }, memory);
        expect(guard.alarms.entries).toHaveLength(500);
        read(2);
        expect(guard.alarms.entries).toHaveLength(500);
        expect(guard.alarms.entries[0]!.path).toBe("level");
    });

    test("lasts as long as the page where the browser keeps nothing", () => {
        const guard = guardWith({ high: 1 }, forbidden);
        read(2);
        expect([sides(guard), guard.count]).toEqual([["high 2"], 1]);
    });
});

test.each([
    ["{", {}],
    ["null", {}],
    ["[1]", {}],
    ['{"level": 5}', {}],
    ['{"level": {"low": "1", "high": 2}}', { high: 2 }],
])("limits stored as %s are taken as far as they are some", (text, limits) => {
    const guard = new Guard(session, memoryOf({ limits: text }), () => {});
    expect(guard.limitsOf(["level"])).toEqual(limits);
});

test.each<[string, string, Limits | string]>([
    ["", " ", {}],
    ["1", "", { low: 1 }],
    ["-1.5", "1e3", { low: -1.5, high: 1000 }],
    ["one", "", "Limits are numbers"],
    ["", "Infinity", "Limits are numbers"],
    ["2", "2", "The low limit must lie below the high one"],
])("limits typed as %j and %j are %j", (low, high, limits) => expect(parseLimits(low, high)).toEqual(limits));
