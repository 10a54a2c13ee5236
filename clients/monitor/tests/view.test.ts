import { describe, expect, test, vi } from "vitest";
import { Plots } from "../src/model/plots";
import { Tree } from "../src/model/tree";
import { linkText, LONGEST_LINK, parseView, ViewKeeper, viewText, type View } from "../src/model/view";

/** The view that is kept, and passed on by links. */

const USUAL: View = {
    columns: [],
    search: "",
    changing: false,
    span: 60,
    ownScales: true,
    folds: [],
    pins: [],
    plots: [],
};
const OTHER: View = {
    columns: ["min", "hex"],
    search: "motor",
    changing: true,
    span: 300,
    ownScales: false,
    folds: ["battery.cells"],
    pins: ["a\\.b"],
    plots: [[{ path: "motor.speed" }, { path: "cells", shape: "spectrum" }], [{ path: "door" }]],
};

describe("a view's text", () => {
    test("holds all of it, and only what is not as usual", () => {
        expect(parseView(viewText(OTHER))).toEqual(OTHER);
        expect(viewText(USUAL)).toBe('{"version":1}');
        expect(parseView(viewText(USUAL))).toEqual(USUAL);
    });
    test.each([
        ["nothing", ""],
        ["no JSON", "{"],
        ["no object", "[]"],
        ["null", "null"],
        ["no version", "{}"],
        ["a later version", '{"version":2}'],
        ["an unknown column", '{"version":1,"columns":["max","evil"]}'],
        ["a list that is none", '{"version":1,"columns":{"length":1}}'],
        ["a search that is no text", '{"version":1,"search":{}}'],
        ["a flag that is none", '{"version":1,"changing":1}'],
        ["a scale that is none", '{"version":1,"ownScales":null}'],
        ["no time", '{"version":1,"span":0}'],
        ["too much time", '{"version":1,"span":1e9}'],
        ["a time that is none", '{"version":1,"span":"60"}'],
        ["paths that are none", '{"version":1,"folds":[1]}'],
        ["pins that are none", '{"version":1,"pins":"a"}'],
        ["a plot that is none", '{"version":1,"plots":["a"]}'],
        ["a curve that is none", '{"version":1,"plots":[[null]]}'],
        ["a path that is none", '{"version":1,"plots":[[{"path":5}]]}'],
        ["an unknown shape", '{"version":1,"plots":[[{"path":"a","shape":"circle"}]]}'],
        ["depth", "[".repeat(100_000)],
    ])("is refused with %s", (_, text) => expect(() => parseView(text)).toThrow());
    test("may have members that mean nothing here, which are not taken", () => {
        const found = parseView('{"version":1,"address":"stranger","__proto__":{"span":5},"span":30}');
        expect(found).toEqual({ ...USUAL, span: 30 });
        expect(Object.keys(found)).not.toContain("address");
    });
    test("for a link leaves out what is too much, folds first", () => {
        expect(linkText(OTHER)).toEqual({ text: viewText(OTHER), isWhole: true });
        const many = Array.from({ length: 1000 }, (_, at) => `group${at}`);
        const withoutFolds = linkText({ ...OTHER, folds: many });
        expect([parseView(withoutFolds.text), withoutFolds.isWhole]).toEqual([{ ...OTHER, folds: [] }, false]);
        expect(parseView(linkText({ ...OTHER, pins: many }).text)).toEqual({ ...OTHER, folds: [], pins: [] });
        const plots = [many.map((path) => ({ path }))];
        expect(linkText({ ...OTHER, plots }).text.length).toBeLessThan(LONGEST_LINK);
        expect(linkText({ ...OTHER, search: "x".repeat(7000) }).text.length).toBeLessThan(LONGEST_LINK);
    });
});

describe("the view", () => {
    function begin(query: Record<string, string> = {}, remembered: Record<string, string> = {}) {
        const saved = new Map(Object.entries(remembered));
        const [tree, plots, forget] = [new Tree(), new Plots(), vi.fn()];
        const memory = {
            load: (name: string) => saved.get(name),
            save: (name: string, text: string) => void saved.set(name, text),
        };
        const view = new ViewKeeper(tree, plots, new URLSearchParams(query), memory, forget);
        const kept = () => (saved.has("view") ? parseView(saved.get("view")!) : undefined);
        const shown = () => plots.all.map(({ nodes }) => nodes.map(({ dotted }) => dotted).join());
        return { view, tree, plots, forget, kept, shown };
    }
    const values = { motor: { speed: 1 }, cells: new Int8Array(2), battery: { cells: { a: 1 } }, "a.b": 1, door: 1 };

    test("is that of the last visit, as soon as its values come", () => {
        const { view, tree, plots, shown, kept } = begin({}, { view: viewText(OTHER) });
        expect(view.present(true)).toEqual(OTHER);
        tree.update({ door: 1 }, 0);
        view.apply();
        expect([shown(), view.present(true)]).toEqual([["door"], OTHER]);
        tree.update(values, 1);
        view.apply();
        expect(view.present(true)).toEqual(OTHER);
        expect(view.present(false)).toEqual(OTHER);
        expect(shown()).toEqual(["motor.speed,cells", "door"]);
        expect(plots.shapeOf(tree.find(["cells"])!)).toBe("spectrum");
        expect(tree.rows().map(({ dotted }) => dotted)).not.toContain("battery.cells.a");
        expect(tree.rows()[0]!.dotted).toBe("a\\.b");
        expect([kept(), view.isLinked]).toEqual([OTHER, false]);
    });
    test("is undone for good once it was done", () => {
        const { view, tree } = begin({}, { view: viewText(OTHER) });
        tree.update(values, 0);
        view.apply();
        tree.fold(tree.find(["battery", "cells"])!, false);
        tree.pin(tree.find(["a.b"])!, false);
        view.apply();
        expect([view.present(true).folds, view.present(true).pins]).toEqual([[], []]);
    });
    test("is kept with each change, what has not come yet included", () => {
        const { view, tree, kept, forget } = begin({}, { view: viewText(OTHER) });
        view.set({ span: 10 });
        expect(forget.mock.calls.length).toBe(0); // there is no link

        expect(kept()).toEqual({ ...OTHER, span: 10 });
        tree.update(values, 0);
        tree.pin(tree.find(["door"])!, true);
        view.apply();
        view.keep();
        expect(kept()).toEqual({ ...OTHER, span: 10, pins: ["a\\.b", "door"] });
    });
    test("folds again what was folded, when the tree is made anew", () => {
        const { view, tree } = begin();
        tree.update(values, 0);
        tree.fold(tree.find(["battery"])!, true);
        view.keepFolds();
        tree.useSchema({ battery: { cells: { "@mac": 1 } } });
        view.apply();
        expect(tree.find(["battery"])!.collapsed).toBe(true);
    });
    test("of a link is shown, and not kept before something of it is changed", () => {
        const mine = viewText({ ...USUAL, span: 900 });
        const { view, tree, kept, forget, shown } = begin({ view: viewText(OTHER) }, { view: mine });
        tree.update(values, 0);
        view.apply();
        expect([view.settings.search, view.settings.span, shown().length, view.isLinked]).toEqual([
            "motor",
            300,
            2,
            true,
        ]);
        expect([kept()!.span, forget.mock.calls.length]).toEqual([900, 0]);
        view.set({ span: 10 });
        expect([kept(), view.isLinked]).toEqual([{ ...OTHER, span: 10 }, false]);
        expect(forget.mock.calls.length).toBe(1);
    });
    test("of a link is kept when somebody says so", () => {
        const { view, kept, forget } = begin({ view: viewText(OTHER) });
        view.keep();
        expect([kept(), view.isLinked, forget.mock.calls.length]).toEqual([OTHER, false, 1]);
    });
    test("of a link may be paths to plot alone, in my own view", () => {
        const { view, tree, kept, shown } = begin({ plot: "door,motor.speed" }, { view: viewText(OTHER) });
        tree.update(values, 0);
        view.apply();
        expect([shown(), view.settings.search, view.isLinked]).toEqual([["door,motor.speed"], "motor", true]);
        expect(kept()).toEqual(OTHER);
    });
    test.each([
        ["is no JSON", "{", /JSON/],
        ["is of the future", '{"version":2}', /another version/],
        ["has what nobody knows", '{"version":1,"columns":["evil"]}', /columns/],
        ["is too long", viewText({ ...USUAL, search: "x".repeat(LONGEST_LINK) }), /too long/],
    ])("of a link that %s is not shown, which is told", (_, text, problem) => {
        const { view, forget } = begin({ view: text, plot: "door" }, { view: viewText(OTHER) });
        expect(view.problem).toMatch(problem);
        expect([view.present(true), view.isLinked, forget.mock.calls.length]).toEqual([OTHER, false, 1]);
        view.dismiss();
        expect(view.problem).toBeUndefined();
    });
    test("that was kept by another version of the page is not shown", () => {
        expect(begin({}, { view: '{"version":2}' }).view.present(true)).toEqual(USUAL);
    });
    test("plots no group, and no value twice", () => {
        const plots = [[{ path: "motor" }, { path: "door" }], [{ path: "door" }]];
        const { view, tree, shown } = begin({}, { view: viewText({ ...USUAL, plots }) });
        tree.update(values, 0);
        view.apply();
        expect(shown()).toEqual(["door"]);
    });
});
