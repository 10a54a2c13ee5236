import { Client, Meanings, type Schema, type WebSocketConstructor } from "vorbel";
import { afterEach, beforeEach, expect, onTestFinished, test } from "vitest";
import { WebSocket } from "ws";
import { ADDRESS, Machine, until } from "../../js/tests/machine.js";
import { valueText } from "../src/model/text";
import { covering, framesIn, type Frame } from "../src/model/workshop/frames";
import { candidatesOf, textIn, valueIn, type Leafish } from "../src/model/workshop/selection";

/** What the workshop makes of frames is what the daemon and the library make of them. */

const SECONDS = 3; // until the frames go out: the schema is in force by then
const START = 1_700_000_000;

let machine: Machine;
beforeEach(() => void (machine = new Machine("socketcan")));
afterEach(() => machine.stop());

const hex = (payload: Uint8Array) => Buffer.from(payload).toString("hex").toUpperCase();
const lineOf = ({ identifier, payload }: Frame, at: number) =>
    `(${(START + at / 200).toFixed(6)}) can0 ${identifier.toString(16).toUpperCase().padStart(3, "0")}#${hex(payload)}`;

/** What comes of frames under a schema. */
async function valuesOf(frames: Frame[], schema: Schema): Promise<unknown[]> {
    machine.replay(frames.map(lineOf), SECONDS);
    await machine.startDaemon();
    const client = new Client(ADDRESS, { WebSocket: WebSocket as unknown as WebSocketConstructor });
    onTestFinished(() => client.close());
    await client.ready();
    await client.deliverSchema(schema, { check: false });
    const messages: unknown[] = [];
    client.on("values", (values) => messages.push(values));
    await until(() => messages.length >= frames.length, "the frames", 20);
    return messages;
}

/** Numbers that look random and are the same each time. */
function bytesFrom(seed: number): () => number {
    let state = seed;
    return () => {
        state = (Math.imul(state, 1_664_525) + 1_013_904_223) >>> 0;
        return state >>> 24;
    };
}

test("frames of one to eight bytes, and of all identifiers, come with their bytes", async () => {
    const next = bytesFrom(1);
    const frames = Array.from({ length: 128 }, (_, at) => ({
        identifier: (at * 271) % 2048,
        payload: Uint8Array.from({ length: 1 + (at % 8) }, next),
    }));
    const messages = await valuesOf(frames, covering());
    expect(messages.flatMap((values) => framesIn(values as never))).toEqual(frames);
});

/** Leaves that are no candidates, and may stand in a draft as well. */
const others: Leafish[] = [
    { "@format": "c", "@skip": 3 },
    { "@format": "Q", "@skip": 1 },
    { "@format": "q", "@skip": 1 },
    { "@format": "S", "@skip": 6, "@mask": 0x0ff0 },
    { "@format": "s", "@skip": 6, "@mask": 0xff00 },
    { "@format": "s", "@skip": 6, "@mask": 0x7fff },
    { "@format": "i", "@skip": 4, "@mask": 0x7fffffff },
    { "@format": "I", "@skip": 4, "@mask": 0xf0000000 },
    { "@format": "q", "@skip": 4, "@mask": 1 },
    { "@format": "C", "@skip": 2, "@mask": 4, "@asBool": true },
    { "@format": "f", "@skip": 4, "@factor": 3 },
    { "@format": "C", "@skip": 0, "@factor": 10 },
    { "@format": "i", "@skip": 0, "@factor": 7 },
    { "@format": "I", "@skip": 0, "@factor": 0.3 },
    { "@format": "C", "@skip": 1, "@asBool": true, "@factor": 2 },
    { "@format": "S", "@skip": 2, scale: 0.1, offset: -40 },
    { "@format": "s", "@skip": 2, "@factor": 100, scale: 3 },
];

test("every way to read bits gives the value that the daemon and the library give", async () => {
    const identifier = 0x0a5;
    const place = { "@mac": identifier % 64, "@cmd": identifier >> 6 };
    const bounds = Array.from({ length: 64 }, (_, first) => [
        first,
        first + 1,
        first + 7,
        first + 11,
        first + 23,
        first + 31,
    ]);
    const selections = bounds.flatMap(([first, ...lasts]) =>
        [first!, ...lasts].filter((last) => last < 64).map((last) => ({ identifier, first: first!, last })),
    );
    const candidates = selections.flatMap((selection) => candidatesOf(selection)).map(({ leaf }) => leaf);
    const leaves = [...candidates, ...others.map((leaf) => ({ ...place, ...leaf }))];
    expect(leaves.length).toBeGreaterThan(800);
    const schema = Object.fromEntries(leaves.map((leaf, at) => [`v${at}`, leaf]));
    const next = bytesFrom(2);
    const edges = ["0000000000000000", "FFFFFFFFFFFFFFFF", "8000008080000080", "0100000000803F00", "0000C07F7FC00000"];
    const payloads = [
        ...edges.map((text) => new Uint8Array(Buffer.from(text, "hex"))),
        ...Array.from({ length: 25 }, (_, at) => Uint8Array.from({ length: at % 5 === 0 ? 1 + (at % 8) : 8 }, next)),
    ];
    const messages = await valuesOf(
        payloads.map((payload) => ({ identifier, payload })),
        schema,
    );
    const meanings = new Meanings(schema);
    for (const [at, payload] of payloads.entries()) {
        const meant = meanings.flat(messages[at] as never);
        const theirs = leaves.map((_, at) => meant.get(`v${at}`));
        const ours = leaves.map((leaf) => [valueIn(leaf, payload), textIn(leaf, payload)]);
        expect(ours, hex(payload)).toEqual(
            theirs.map((each) => (each ? [Number(each.value), valueText(each.value, each.leaf)] : [undefined, "–"])),
        );
    }
});
