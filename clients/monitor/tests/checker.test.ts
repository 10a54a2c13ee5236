import { beforeEach, describe, expect, test, vi } from "vitest";
import { Checker } from "../src/check/checker";

/** Which text a check belongs to, while others come. */

/** A thread that answers when a test says so. */
const FakeThread = vi.hoisted(
    () =>
        class FakeThread {
            static last: any;
            readonly given: string[] = [];
            ended = false;
            onmessage!: (event: { data: object[] }) => void;
            onerror!: () => void;
            constructor() {
                FakeThread.last = this;
            }
            postMessage(text: string): void {
                this.given.push(text);
            }
            terminate(): void {
                this.ended = true;
            }
            answer(...codes: string[]): void {
                this.onmessage({ data: codes.map((code) => ({ code })) });
            }
        },
);
vi.mock("../src/check/thread?worker", () => ({ default: FakeThread }));

const MISTAKEN = '{"a": {"@mac": 99, "@cmd": 1, "@format": "C"}}';

describe("a checker", () => {
    let told: [text: string, ...codes: string[]][];
    let checker: Checker;
    beforeEach(() => {
        told = [];
        checker = new Checker(({ text, problems }) => told.push([text, ...problems.map(({ code }) => code)]));
    });

    test("tells what was found in which text", () => {
        checker.check("first");
        FakeThread.last.answer("no-leaf");
        checker.check("second");
        FakeThread.last.answer();
        expect(told).toEqual([["first", "no-leaf"], ["second"]]);
    });

    test("gives the thread one text at a time, and of those that came meanwhile the last", () => {
        for (const text of ["a", "ab", "abc", "abcd"]) checker.check(text);
        expect(FakeThread.last.given).toEqual(["a"]);
        FakeThread.last.answer("no-leaf");
        expect(FakeThread.last.given).toEqual(["a", "abcd"]);
        FakeThread.last.answer();
        expect(told).toEqual([["a", "no-leaf"], ["abcd"]]);
        checker.check("abcde");
        expect(FakeThread.last.given).toEqual(["a", "abcd", "abcde"]);
    });

    test("checks in the page where there is no thread, also what the thread has not answered", () => {
        checker.check(MISTAKEN);
        FakeThread.last.onerror();
        expect(told).toEqual([[MISTAKEN, "option-range"]]);
        checker.check("{}");
        expect(told[1]).toEqual(["{}", "no-leaf"]);
        expect(FakeThread.last.ended).toBe(true);
    });

    test("checks what came last where the thread fails meanwhile", () => {
        checker.check("{}");
        checker.check(MISTAKEN);
        FakeThread.last.onerror();
        expect(told).toEqual([[MISTAKEN, "option-range"]]);
    });

    test("ends its thread", () => {
        checker.end();
        expect(FakeThread.last.ended).toBe(true);
    });
});
