import { readFileSync } from "node:fs";
import { resolve } from "node:path";
import { fileURLToPath } from "node:url";
import { checkSchema, leavesOf, Meant, type Schema } from "vorbel";
import { describe, expect, onTestFinished, test, vi } from "vitest";
import {
    exportDbc,
    importDbc,
    NothingImported,
    type ExportOutcome,
    type Imported,
    type Outcome,
} from "../src/model/workshop/dbc";
import { Decimal } from "../src/model/workshop/dbc/decimal";
import { toSchema } from "../src/model/workshop/dbc/importing";
import { readDbc } from "../src/model/workshop/dbc/reader";

const clients = resolve(fileURLToPath(import.meta.url), "../../..");

type Case = {
    name: string;
    file: string[];
    latin1?: boolean;
    schema: Schema;
    outcomes: [path: string, verdict: string, why?: string][];
    lines?: number[];
};
type ExportCase = {
    name: string;
    schema: Schema;
    file: string[];
    latin1?: boolean;
    outcomes: [path: string, verdict: string, why?: string][];
};
const { cases, exports } = JSON.parse(readFileSync(`${clients}/conformance/buses.json`, "utf8")) as {
    cases: Case[];
    exports: ExportCase[];
};

function textOf({ file }: Case | ExportCase): string {
    return file.map((line) => `${line}\n`).join("");
}

/** What comes of a file; a schema without leaves if nothing does. */
function imported(content: Uint8Array): Imported {
    try {
        return importDbc(content);
    } catch (error) {
        if (!(error instanceof NothingImported)) throw error;
        expect(error.message).toBe("no signal of it can be imported");
        return { schema: {}, outcomes: [...error.outcomes], notes: [...error.notes] };
    }
}

function ofText(...lines: string[]): Imported {
    return imported(Buffer.from(lines.join("\n")));
}

function briefly({ path, verdict, why }: Outcome | ExportOutcome): string[] {
    return why ? [path, verdict, why] : [path, verdict];
}

function linesIn(notes: string[]): number[] {
    return notes.flatMap((note) => /^line (\d+) is not understood: /.exec(note)?.slice(1).map(Number) ?? []);
}

describe("as the terminal tool imports it:", () => {
    test.each(cases)("$name", (each) => {
        const { schema, outcomes, notes } = imported(Buffer.from(textOf(each), each.latin1 ? "latin1" : "utf8"));
        expect(JSON.stringify(schema, null, 1)).toBe(JSON.stringify(each.schema, null, 1)); // in this order
        expect(outcomes.map(briefly)).toEqual(each.outcomes);
        if (each.lines) expect(linesIn(notes)).toEqual(each.lines);
        expect(checkSchema(schema, { clear: true }).filter(({ severity }) => severity === "error")).toEqual([]);
    });
});

describe("as the terminal tool exports it:", () => {
    test.each(exports)("$name", (each) => {
        const { content, messages, outcomes } = exportDbc(each.schema);
        const encoding = each.latin1 ? "latin1" : "utf8";
        expect(Buffer.from(content ?? []).toString(encoding)).toBe(textOf(each));
        expect(outcomes.map(briefly)).toEqual(each.outcomes);
        expect(messages).toBe(each.file.filter((line) => line.startsWith("BO_ ")).length);
    });
});

test("frames mean what the file says", () => {
    const { schema } = ofText(
        "BO_ 133 DRIVE: 8 ECU",
        ' SG_ Speed : 7|16@0- (0.25,10) [0|0] "rpm" ECU',
        ' SG_ Gear : 21|3@1+ (1,0) [0|0] "" ECU',
        'VAL_ 133 Gear 5 "reverse";',
    );
    const leaves = Object.fromEntries(leavesOf(schema).map((leaf) => [leaf.path.join("."), leaf]));
    expect(Object.keys(leaves)).toEqual(["DRIVE.Gear", "DRIVE.Speed", "DRIVE.last byte"]);
    // The daemon reads ff f0 as 0xf0ff, and the third byte b4 as it is.
    expect(new Meant(0xf0ff, leaves["DRIVE.Speed"])).toMatchObject({ value: 6, unit: "rpm" });
    expect(new Meant(0xb4, leaves["DRIVE.Gear"])).toMatchObject({ value: 5, label: "reverse" });
});

test.each([
    ["0", "0"],
    ["-0e5", "0"],
    ["0.00", "0"],
    ["-12.50", "-12.5"],
    ["100", "100"],
    ["1e3", "1000"],
    ["12340", "1.234E+4"],
    ["1e-7", "1E-7"],
])("a number has the digits that it needs, here 4 at most without an exponent: %s", (text, short) => {
    expect(Decimal.parse(text)!.toShortText(4)).toBe(short);
});

describe("what is noted:", () => {
    const message = ["BO_ 133 M: 1 ECU", ' SG_ A : 0|8@1+ (1,0) [0|0] "" ECU'];

    test("lines that are not understood, cut where they are long", () => {
        const { notes } = ofText(...message, "BO_ wrong", "", `SG_ ${"x".repeat(200)}`);
        expect(notes).toEqual([
            "line 3 is not understood: BO_ wrong",
            `line 5 is not understood: SG_ ${"x".repeat(116)}`,
        ]);
    });

    test("the right lines also behind labels", () => {
        const { notes } = ofText(...message, 'VAL_ 133 A 0 "a" 1 "b";', 'VAL_ 133 A x "c";', "VAL_ 133 A");
        expect(linesIn(notes)).toEqual([4, 5]);
    });

    test("a comment that does not end", () => {
        const { notes } = ofText(...message, 'CM_ SG_ 133 A "begins', "goes on");
        expect(notes).toEqual(["the comment that begins in line 3 does not end"]);
    });

    test("messages without signals", () => {
        expect(ofText(...message, "BO_ 1 E: 1 X").notes).toEqual(["1 message without signals left out"]);
        expect(ofText(...message, "BO_ 1 E: 1 X", "BO_ 2 F: 1 X").notes).toEqual([
            "2 messages without signals left out",
        ]);
    });

    test("nothing where all is understood", () => {
        const lines = ['VERSION ""', "NS_ :", "BS_:", "BU_: ECU", ...message, 'VAL_TABLE_ T 0 "a" ;', 'BA_ "B" "C";'];
        expect(ofText(...lines).notes).toEqual([]);
    });
});

describe("files that nobody wants:", () => {
    const signal = (name: string, factor = "1", bits = "0|8") => ` SG_ ${name} : ${bits}@1+ (${factor},0) [0|1] "" E`;

    test("nothing of it can be imported", () => {
        const content = Buffer.from('BO_ 1 EMPTY: 8 E\nBO_ x\nBO_ 2 M: 8 E\n SG_ A : 0|64@1+ (1,0) [0|0] "" E');
        expect(() => importDbc(content)).toThrow(
            expect.objectContaining({
                message: "no signal of it can be imported",
                outcomes: [{ path: "M.A", verdict: "not possible", why: "it has 64 bits, a value has at most 32" }],
                notes: ["line 2 is not understood: BO_ x", "1 message without signals left out"],
            }),
        );
    });

    test("more signals in a message than can be held against each other", () => {
        const names = Array.from({ length: 2049 }, (_, at) => `S${at}`);
        const content = (count: number) => ["BO_ 1 M: 1 E", ...names.slice(0, count).map((name) => signal(name))];
        expect(ofText(...content(2048)).outcomes.at(-1)).toEqual({ path: "M.S2047", verdict: "exact", why: "" });
        expect(ofText(...content(2049)).outcomes.at(-1)).toEqual({
            path: "M.S2048",
            verdict: "not possible",
            why: "its message has 2049 signals, and at most 2048 are read",
        });
    });

    test("numbers of any size", () => {
        const factors = ["1e999999999999999", "1e-999999999999999", "1e1000000", "9".repeat(1000)];
        const wrong = ["9".repeat(1001), "1e9999999999999999", "e", ".", "+-1", "1.2.3"];
        const signals = [...factors, ...wrong].map((factor, at) => signal(`S${at}`, factor));
        const { outcomes, notes } = ofText("BO_ 1 M: 1 E", ...signals, signal("Far", "1", `${"9".repeat(20)}|8`));
        expect(outcomes.map(({ why }) => why)).toEqual([
            "its values are beyond all numbers",
            "its factor is 0",
            "its values are beyond all numbers",
            "its values are beyond all numbers",
        ]);
        expect(linesIn(notes)).toEqual([6, 7, 8, 9, 10, 11, 12]);
    });

    test("a path that is deeper than schemas are read", () => {
        const deep = (levels: number) => [
            ...["BO_ 1 M: 1 E", signal("A"), 'BA_DEF_ SG_ "VorbelPath" STRING ;'],
            `BA_ "VorbelPath" SG_ 1 A "${Array(levels).fill("a").join(".")}";`,
        ];
        expect(ofText(...deep(500)).outcomes[0]!.path).toBe(Array(500).fill("a").join("."));
        expect(ofText(...deep(501)).outcomes[0]!.path).toBe("M.A");
    });
});

// Chance

/** Numbers of 32 bits that are the same at each run. */
function chanceOf(seed: number): (below: number) => number {
    let state = seed;
    return (below) => {
        state = (Math.imul(state, 1664525) + 1013904223) >>> 0;
        return Math.floor((state / 2 ** 32) * below);
    };
}

const PIECES = [
    '"',
    ";",
    ":",
    "|",
    " ",
    "\n",
    "@",
    "\\",
    "-",
    ".",
    "M",
    "m1",
    "9",
    "é",
    "BO_ ",
    " SG_ ",
    "\0",
    "\u2028",
];

/** The text with something else in some places, or with lines that are elsewhere, twice or not there. */
function mutated(text: string, chance: (below: number) => number): string {
    for (let left = 1 + chance(8); left > 0; left--) {
        const lines = text.split("\n");
        const [at, from, to] = [chance(text.length), chance(lines.length), chance(lines.length)];
        const kind = chance(5);
        if (kind === 0) text = text.slice(0, at) + PIECES[chance(PIECES.length)] + text.slice(at);
        if (kind === 1) text = text.slice(0, at) + PIECES[chance(PIECES.length)] + text.slice(at + 1);
        if (kind === 2) text = text.slice(0, at) + text.slice(at + chance(20));
        if (kind === 3) text = lines.toSpliced(from, 0, lines[to]!).join("\n");
        if (kind === 4) text = lines.toSpliced(from, 1).toSpliced(to, 0, lines[from]!).join("\n");
    }
    return text;
}

test("whatever stands in a file, a schema without errors comes of it, or the one error", () => {
    const chance = chanceOf(20261123);
    const texts = [...cases.map(textOf), cases.map(textOf).join("")];
    let schemas = 0;
    for (let round = 0; round < 3000; round++) {
        const text = mutated(texts[chance(texts.length)]!, chance);
        const content = Buffer.from(text, chance(4) === 0 ? "latin1" : "utf8");
        const { schema, outcomes } = imported(content);
        expect(
            checkSchema(schema, { clear: true }).filter(({ severity }) => severity === "error"),
            text,
        ).toEqual([]);
        expect(leavesOf(schema).length, text).toBeGreaterThanOrEqual(
            outcomes.filter(({ verdict }) => verdict !== "not possible").length,
        );
        if (leavesOf(schema).length > 0) schemas++;
    }
    expect(schemas).toBeGreaterThan(1500);
});

// Work

/**
 * How often the members of a message's signals are asked for on the way to a schema, and how often it is asked which
 * signals are left.
 */
function askedFor(lines: string[]): number {
    const { messages } = readDbc(Buffer.from(["BO_ 1 M: 8 E", ...lines].join("\n")));
    let asked = 0;
    const counting = <T extends object>(object: T) =>
        new Proxy(object, { get: (target, name) => (asked++, Reflect.get(target, name) as unknown) });
    const [message] = messages;
    const has = vi.spyOn(Set.prototype, "has");
    onTestFinished(() => has.mockRestore());
    const { outcomes } = toSchema([{ ...message!, signals: message!.signals.map(counting) }]);
    asked += has.mock.calls.length;
    has.mockRestore();
    expect(outcomes.filter(({ verdict }) => verdict === "not possible")).toEqual([]);
    return asked;
}

const bits = (name: string, place: string) => ` SG_ ${name} : ${place}@1+ (1,0) [0|0] "" E`;
const CROWDED: [name: string, signal: (at: number) => string[]][] = [
    ["bytes in one place", (at) => [bits(`S${at}`, "0|8")]],
    ["three bytes beside whole ones", (at) => [bits(`S${at}`, at % 2 ? "8|24" : "0|8")]],
    ["three bytes beside pairs", (at) => [bits(`S${at}`, at % 2 ? "16|24" : "0|16")]],
    ["one selector", (at) => [bits(at ? `S${at} m${at}` : "S0 M", at ? (at % 2 ? "8|24" : "0|8") : "56|8")]],
    [
        "whole ones that are read with three bytes",
        (at) => {
            if (at < 2) return [bits(at ? "S1" : "S0 M", at ? "32|8" : "56|8")];
            return [bits(`S${at} m${at >> 1}`, at % 2 ? "8|24" : "0|8")];
        },
    ],
    [
        "many selectors",
        (at) => {
            if (at === 0) return [bits("S0 M", "56|8")];
            if (at % 2) return [bits(`S${at} m2`, "8|24"), `SG_MUL_VAL_ 1 S${at} S${at - 1} 2-2;`];
            return [bits(`S${at} m1M`, "0|8"), `SG_MUL_VAL_ 1 S${at} S${at - 2} 1-1;`];
        },
    ],
];

test.each(CROWDED)("each signal is asked as much however many its message has: %s", (_, signal) => {
    const [few, many] = [256, 2048].map((count) =>
        askedFor(Array.from({ length: count }, (_, at) => signal(at)).flat()),
    );
    expect(many! / few!).toBeLessThan(8.2);
});

// Time

const HEAD = "BO_ 1 M: 8 E\n";
const plain = (name: string) => ` SG_ ${name} : 0|8@1+ (1,0) [0|0] "" E\n`;
const LONG: [name: string, content: (size: number) => string][] = [
    ["one line of nothing", (size) => "x".repeat(size)],
    ["lines of nothing", (size) => "x\n".repeat(size / 2)],
    ["empty lines", (size) => "\n".repeat(size)],
    ...["BO_ ", "SG_ ", "CM_ SG_ ", "CM_ BO_ ", "VAL_ ", "BA_ ", "BA_DEF_ ", "SIG_VALTYPE_ ", "SG_MUL_VAL_ "].flatMap(
        (word): typeof LONG => [
            [`${word}and blanks`, (size) => `${HEAD}${word}1 A ${" ".repeat(size)}x`],
            [`${word}and letters`, (size) => `${HEAD}${word}${"A".repeat(size)}`],
            [`${word}and quotes`, (size) => `${HEAD}${word}1 A ${'" '.repeat(size / 2)}`],
            [`${word}and colons`, (size) => `${HEAD}${word}1 A ${" :".repeat(size / 2)}`],
            [`${word}and semicolons`, (size) => `${HEAD}${word}1 A "${" ;".repeat(size / 2)}`],
            [`${word}and digits`, (size) => `${HEAD}${word}${"1".repeat(size)}`],
            [`${word}again and again`, (size) => `${HEAD}${`${word}\n`.repeat(size / word.length)}`],
        ],
    ),
    ["a comment", (size) => `${HEAD}${plain("A")}CM_ SG_ 1 A "${" a ;\n".repeat(size / 5)}";`],
    ["comments that begin", (size) => `${HEAD}${'CM_ BO_ 1 "\n'.repeat(size / 12)}`],
    ["messages of one name", (size) => `${HEAD}${plain("A")}`.repeat(size / 50)],
    ["messages of one name that are not possible", (size) => `BO_ 1 M: 0 E\n${plain("A")}`.repeat(size / 50)],
    ["signals of one name", (size) => HEAD + plain("A").repeat(size / 40)],
    ["labels of one text", (size) => `${HEAD}${plain("A")}VAL_ 1 A ${numbered(size / 10, (at) => `${at} "a"`)};`],
    ["multiplexers one below the other", (size) => chain().repeat(size / (1 << 15))],
    ["three bytes beside whole ones", (size) => `${HEAD}${THREE}${plain("A").repeat(400)}`.repeat(size / (1 << 15))],
    ["ranges", (size) => `${HEAD}${plain("A")}SG_MUL_VAL_ 1 A A ${"1-1,".repeat(size / 4)}1-1;`],
    ["a path", (size) => `${HEAD}${plain("A")}BA_ "VorbelPath" SG_ 1 A "${"a.".repeat(size / 2)}";`],
    ["words of an attribute", (size) => `BA_DEF_ BO_ "VFrameFormat" ENUM ${'"a",'.repeat(size / 4)};`],
];

const THREE = ' SG_ B : 8|24@1+ (1,0) [0|0] "" E\n'.repeat(400);

/** Of some 32 kB. */
function chain(): string {
    const names = Array.from({ length: 480 }, (_, at) => `S${at}`);
    const signals = names.map((name) => ` SG_ ${name} m1M : 0|8@1+ (1,0) [0|0] "" E\n`);
    const choices = names.map((name, at) => `SG_MUL_VAL_ 1 ${name} S${at - 1} 1-1;\n`);
    return [HEAD, ...signals, ...choices].join("");
}

function numbered(count: number, text: (at: number) => string): string {
    return Array.from({ length: count }, (_, at) => text(at)).join(" ");
}

/** The least of some times of the processor, which what else goes on does not make shorter. */
function secondsOf(content: Uint8Array): number {
    const times = Array.from({ length: 3 }, () => {
        const begin = process.cpuUsage();
        imported(content);
        return process.cpuUsage(begin).user;
    });
    return Math.min(...times) / 1e6;
}

describe("eight times the size takes not much more than eight times as long:", () => {
    const SIZE = 1 << 15;

    test.each(LONG)("%s", (_, content) => {
        const [short, long] = [SIZE, 8 * SIZE].map((size) => secondsOf(Buffer.from(content(size))));
        // Quadratic would be 64. What is over in no time says nothing.
        expect(long! / Math.max(short!, 0.005)).toBeLessThan(30);
    });
});
