import { describe, expect, test, vi } from "vitest";
import { keep, keptPresets, keptSequences, withValues } from "../src/model/course";
import { hasMembers, Kept } from "../src/model/kept";
import { SentLog } from "../src/model/sent";
import { forbidden, memoryOf } from "./wire";

type Entry = { id: string; n: number };
const isEntry = (entry: unknown): entry is Entry => hasMembers(entry, { id: "string", n: "number" });
const keptIn = (memory: ReturnType<typeof memoryOf>, limit = 3) => new Kept(memory, "list", limit, isEntry);
const numbers = (kept: Kept<Entry>) => kept.entries.map(({ n }) => n);

describe("a kept list", () => {
    test("is there in the next visit, newest first, and bounded", () => {
        const memory = memoryOf();
        const kept = keptIn(memory);
        for (const n of [1, 2, 3, 4]) kept.put({ id: String(n), n });
        kept.put({ id: "3", n: 33 });
        expect(numbers(kept)).toEqual([4, 33, 2]);
        expect(numbers(keptIn(memory))).toEqual([4, 33, 2]);
        kept.remove("33");
        kept.remove("4");
        expect(numbers(keptIn(memory))).toEqual([33, 2]);
        kept.clear();
        expect(numbers(keptIn(memory))).toEqual([]);
    });

    test("has what several pages have added", () => {
        const memory = memoryOf();
        const [one, other] = [keptIn(memory), keptIn(memory)];
        one.put({ id: "a", n: 1 });
        other.put({ id: "b", n: 2 });
        one.put({ id: "a", n: 3 });
        expect(numbers(one)).toEqual([2, 3]);
    });

    test.each([["nothing"], ["{"], ["{}"], ["null"], ['[1, null, {"id": 1, "n": 1}, {"id": "a"}]']])(
        "is empty where storage has %s",
        (text) => expect(numbers(keptIn(memoryOf({ list: text })))).toEqual([]),
    );

    test("lasts as long as the page where the browser keeps nothing", () => {
        const kept = keptIn(forbidden as ReturnType<typeof memoryOf>);
        kept.put({ id: "a", n: 1 });
        kept.put({ id: "b", n: 2 });
        expect([numbers(kept), kept.isStored]).toEqual([[2, 1], false]);
    });

    test("goes on where the storage is full, and is stored again when there is room", () => {
        const memory = memoryOf();
        const kept = keptIn(memory);
        kept.put({ id: "a", n: 1 });
        const isFull = vi.spyOn(memory, "save").mockImplementation(() => {});
        kept.put({ id: "b", n: 2 });
        kept.put({ id: "c", n: 3 });
        expect([numbers(kept), kept.isStored]).toEqual([[3, 2, 1], false]);
        isFull.mockRestore();
        kept.put({ id: "d", n: 4 });
        expect([numbers(keptIn(memory)), kept.isStored]).toEqual([[4, 3, 2], true]);
    });

    test("tells who looks at it", () => {
        const kept = keptIn(memoryOf());
        let told = 0;
        kept.watch(() => told++);
        kept.put({ id: "a", n: 1 });
        kept.clear();
        expect(told).toBe(2);
    });
});

describe("presets and sequences", () => {
    test("survive a reload", () => {
        const memory = memoryOf();
        keep(keptPresets(memory), { id: "Start", values: [{ path: "a", text: "1" }] });
        keep(keptSequences(memory), { id: "Ramp", text: "0 a = 1" });
        expect(keptPresets(memory).entries).toEqual([{ id: "Start", values: [{ path: "a", text: "1" }] }]);
        expect(keptSequences(memory).entries).toEqual([{ id: "Ramp", text: "0 a = 1" }]);
    });

    test("need a name, and do not push out the oldest", () => {
        const kept = keptSequences(memoryOf());
        expect(() => keep(kept, { id: "", text: "" })).toThrow("It needs a name");
        for (let at = 0; at < 100; at++) keep(kept, { id: String(at), text: "" });
        expect(() => keep(kept, { id: "one more", text: "" })).toThrow("100 are kept, not more");
        keep(kept, { id: "7", text: "0 a = 1" });
        expect(kept.find("7")).toEqual({ id: "7", text: "0 a = 1" });
    });

    test("take more values, instead of those of the same path", () => {
        const before = {
            id: "Start",
            values: [
                { path: "a", text: "1" },
                { path: "b", text: "2" },
            ],
        };
        const values = [
            { path: "a", text: "3" },
            { path: "c", text: "4" },
        ];
        expect(withValues(before, "Start", values).values).toEqual([{ path: "b", text: "2" }, ...values]);
        expect(withValues(undefined, "Start", values)).toEqual({ id: "Start", values });
    });

    test.each(['[{"id": "a", "values": {}}]', '[{"id": "a", "values": [{"path": 1, "text": ""}]}]', '[{"id": "a"}]'])(
        "are not made of %s",
        (text) => {
            const memory = memoryOf({ presets: text, sequences: text });
            expect([keptPresets(memory).entries, keptSequences(memory).entries]).toEqual([[], []]);
        },
    );
});

test("the list of what went out has 300 entries at the most, and none that cannot be shown", () => {
    const entry = {
        time: 1,
        until: 1,
        source: "form",
        text: "a = 1",
        frame: "",
        outcome: "handled",
        note: "",
        times: 1,
    };
    const stored = Array.from({ length: 400 }, (_, at) => ({ ...entry, id: String(at) }));
    const wrong = [
        { ...entry, id: "x", outcome: "lost" },
        { ...entry, id: "x", time: "now" },
        { ...entry, id: "x", note: null },
    ];
    const log = new SentLog(memoryOf({ sent: JSON.stringify([...wrong, ...stored]) }));
    expect(log.kept.entries).toHaveLength(300);
    expect(log.kept.entries[0]!.id).toBe("0");
});
