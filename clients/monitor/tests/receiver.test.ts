import { afterEach, beforeEach, describe, expect, test, vi } from "vitest";
import { pack, unpack, type Arrival } from "../src/socket/batch";
import type { News } from "../src/socket/messages";

/** How messages go from the thread that receives them to the page. */

const bytesOf = (...bytes: number[]) => Uint8Array.from(bytes).buffer;

/** What arrives in the page. */
function unpacked(batch: Parameters<typeof unpack>[0]): unknown[] {
    const messages: unknown[] = [];
    unpack(batch, ({ data, arrival }) => messages.push([typeof data === "string" ? data : [...data], arrival]));
    return messages;
}

describe("a batch", () => {
    test("has every message, in order, with the time of its arrival", () => {
        const arrivals: Arrival[] = Array.from({ length: 9000 }, (_, at) => ({
            data: bytesOf(at & 255, at >> 8),
            arrival: 1e12 + at / 9,
        }));
        const expected = arrivals.map((_, at) => [[at & 255, at >> 8], 1e12 + at / 9]);
        expect(unpacked(pack(arrivals))).toEqual(expected);
    });

    test.each<[string, Arrival["data"][]]>([
        ["none", []],
        ["an empty one", [new ArrayBuffer(0)]],
        ["empty ones between others", [bytesOf(1), new ArrayBuffer(0), "", bytesOf(2, 3), ""]],
        ["a text between others", [bytesOf(1), '{"hello": {"type": "größe 漢字 🙂"}}', bytesOf(2)]],
        ["texts that begin and end with marks and blanks", ["\ufeffa\ufeff", " \n", "\0"]],
        ["bytes that are a text as well", [bytesOf(0x61), "a", bytesOf(0x61)]],
    ])("keeps what is hard to tell apart: %s", (_, contents) => {
        const arrivals = contents.map((data, arrival) => ({ data, arrival }));
        const expected = contents.map((data, arrival) => [
            typeof data === "string" ? data : [...new Uint8Array(data)],
            arrival,
        ]);
        expect(unpacked(pack(arrivals))).toEqual(expected);
    });
});

/** A socket whose messages come when a test says so. */
class FakeSocket {
    static last: FakeSocket;
    onmessage!: (event: { data: string | ArrayBuffer }) => void;
    onclose!: (end: { code: number; reason: string; wasClean: boolean }) => void;
    onopen!: () => void;
    readonly send = vi.fn();
    readonly close = vi.fn();
    constructor() {
        FakeSocket.last = this;
    }
}

describe("the receiving thread", () => {
    /** What it told, the batches as numbers of their messages. */
    let told: (number[] | string)[];
    let port: { onmessage: (event: { data: object }) => void; postMessage: (news: News) => void; close: () => void };
    let sent = 0;
    const arrive = (count: number) => {
        for (let each = 0; each < count; each++) FakeSocket.last.onmessage({ data: bytesOf(sent & 255, sent++ >> 8) });
    };
    const handled = () => port.onmessage({ data: { handled: true } });
    const summary = (news: News) => {
        if (!("batch" in news)) return Object.keys(news)[0]!;
        const numbers: number[] = [];
        unpack(news.batch, ({ data }) => numbers.push((data[0] as number) + 256 * (data[1] as number)));
        return numbers;
    };

    beforeEach(async () => {
        vi.useFakeTimers({ now: 1e6 });
        let open!: (event: { data: object }) => void;
        vi.stubGlobal("addEventListener", (_: string, listener: typeof open) => (open = listener));
        vi.stubGlobal("WebSocket", FakeSocket);
        vi.resetModules();
        await import("../src/socket/receiver");
        told = [];
        sent = 0;
        port = { onmessage: () => {}, postMessage: (news) => told.push(summary(news)), close: () => {} };
        open({ data: { url: "ws://machine", port } });
    });
    afterEach(() => {
        vi.useRealTimers();
        vi.unstubAllGlobals();
    });

    test("hands a single message over at once", () => {
        arrive(1);
        expect(told).toEqual([[0]]);
    });

    test("gathers what comes within a frame of the screen", () => {
        arrive(1);
        handled();
        arrive(2);
        vi.advanceTimersByTime(10);
        arrive(1);
        expect(told).toEqual([[0]]);
        vi.advanceTimersByTime(6);
        expect(told).toEqual([[0], [1, 2, 3]]);
    });

    test("waits for a page that has not handled the last handful", () => {
        arrive(1);
        arrive(5);
        vi.advanceTimersByTime(1000);
        expect(told).toEqual([[0]]);
        handled();
        expect(told).toEqual([[0], [1, 2, 3, 4, 5]]);
    });

    test("loses nothing of a burst, and hands it over in pieces between which the page can draw, without a pause", () => {
        arrive(9000);
        for (let turn = 0; turn < 100; turn++) handled();
        expect(told.flat().length).toBeGreaterThan(8000);
        vi.advanceTimersByTime(16);
        const pieces = told as number[][];
        expect(pieces.flat()).toEqual(Array.from({ length: 9000 }, (_, at) => at));
        expect(Math.max(...pieces.map(({ length }) => length))).toBeLessThan(1000);
    });

    test("tells at once that the connection is down, and its end after all that came before", () => {
        arrive(1);
        handled();
        arrive(3);
        FakeSocket.last.onclose({ code: 1006, reason: "", wasClean: false });
        expect(told).toEqual([[0], "down"]);
        vi.advanceTimersByTime(16);
        expect(told).toEqual([[0], "down", [1, 2, 3]]);
        handled();
        expect(told).toEqual([[0], "down", [1, 2, 3], "end"]);
    });

    test("gives up a connection of which more than 32 MiB wait, and none of which more have passed", () => {
        const arrive = () => FakeSocket.last.onmessage({ data: new ArrayBuffer(1 << 20) });
        for (let count = 0; count < 40; count++) {
            arrive();
            vi.advanceTimersByTime(16);
            handled();
        }
        expect(FakeSocket.last.close).not.toHaveBeenCalled();
        for (let count = 0; count < 40; count++) arrive();
        expect(FakeSocket.last.close).toHaveBeenCalledOnce();
        expect(told.at(-1)).toBe("down");
    });

    test("passes on at once what the page sends", () => {
        arrive(3);
        port.onmessage({ data: { send: "text" } });
        expect(FakeSocket.last.send).toHaveBeenCalledWith("text");
    });
});
