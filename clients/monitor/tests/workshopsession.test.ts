import { setTimeout as sleep } from "node:timers/promises";
import { Client, isMap, type Schema, type WebSocketConstructor } from "vorbel";
import { afterEach, beforeEach, describe, expect, onTestFinished, test, vi } from "vitest";
import { WebSocket } from "ws";
import { ADDRESS, Machine, machineSchema, until } from "../../js/tests/machine.js";
import { Network } from "../../js/tests/link.js";
import { Session } from "../src/model/session";
import { interrupted, putBack } from "../src/model/workshop/interrupted";
import { Workshop } from "../src/model/workshop/workshop";
import { memoryOf } from "./wire";

/** The daemon's schema is another while a workshop is open, and the former one comes back however that ends. */

const SPEED = { "@mac": 5, "@cmd": 2, "@format": "s" };
const mine = { mine: SPEED };
const theirs = { theirs: SPEED };
/** The name of the frames that SPEED is in. */
const FRAMES = "085";

let machine: Machine;
beforeEach(async () => {
    machine = new Machine();
    machine.play();
    await machine.startDaemon();
});
afterEach(() => machine.stop());

/** What schema went out, and by which connection: the page's is 1. */
type Sent = [connection: number, schema: string];

type Kind = "pinging" | "browser";

/** Sockets as Node has them, or as browsers do, which cannot ping; and the schemas that they send. */
function sockets(kind: Kind) {
    const sent: Sent[] = [];
    let count = 0;
    class Counting extends WebSocket {
        readonly number = ++count;
        constructor(url: string) {
            super(url);
            if (kind === "browser") Object.defineProperty(this, "ping", { value: undefined });
        }
        override send(data: any) {
            if (typeof data === "string") sent.push([this.number, nameOf(JSON.parse(data))]);
            super.send(data);
        }
    }
    return { WebSocket: Counting as unknown as WebSocketConstructor, sent };
}

function nameOf(schema: object): string {
    const names = Object.keys(schema);
    return names.length === 2048 ? "all frames" : names.join(" ") || "none";
}

type Options = { kind?: Kind; address?: string; memory?: ReturnType<typeof memoryOf> };

/** A page, connected. */
async function newPage({ kind = "browser", address = ADDRESS, memory = memoryOf() }: Options = {}) {
    const { WebSocket, sent } = sockets(kind);
    const session = new Session({
        home: address,
        query: { get: () => null },
        memory,
        read: () => Promise.reject(new Error("none")),
        WebSocket,
    });
    onTestFinished(() => session.disconnect());
    await connected(session);
    return { session, memory, sent };
}

const connected = (session: Session) => until(() => session.state === "connected", "the page's connection", 20);

/** A workshop of a page, and the states that it was in. */
function workshopOf(page: { session: Session; memory: ReturnType<typeof memoryOf> }) {
    const workshop = new Workshop(page.session, page.memory);
    const states: string[] = [];
    workshop.status.watch(() => states.at(-1) !== workshop.state && states.push(workshop.state));
    return { workshop, states };
}

/** The page of the test's schema, sent to the daemon by it, and its workshop. */
async function newWorkshop(options: Options = {}) {
    const page = await newPage(options);
    page.session.setSchema(JSON.stringify(mine), true);
    await until(() => page.session.tree.find(["mine"])?.series !== undefined, "a value");
    return { ...page, ...workshopOf(page) };
}

/** Somebody else who sees what comes. */
async function newClient(): Promise<Client> {
    const client = new Client(ADDRESS, { WebSocket: WebSocket as unknown as WebSocketConstructor, firstDelay: 50 });
    onTestFinished(() => client.close());
    await client.ready();
    return client;
}

/** The names of the messages that come within a while, which begins with the first. */
async function comes(during = 300): Promise<string[]> {
    const client = await newClient();
    const names = new Set<string>();
    client.on("values", (values) => isMap(values) && Object.keys(values).forEach((name) => names.add(name)));
    await until(() => names.size > 0, "values");
    await sleep(during);
    client.close();
    return [...names].sort();
}

/** Whether nothing comes from a link that is known to be up. */
async function isSilent(): Promise<boolean> {
    const client = await newClient();
    let isHeard = false;
    client.on("values", () => (isHeard = true));
    await sleep(500);
    client.close();
    return !isHeard;
}

async function restartDaemon(...ends: { state: string }[]): Promise<void> {
    await machine.stopDaemon();
    for (const end of ends) await until(() => end.state !== "connected" && end.state !== "open", "the loss");
    await machine.startDaemon();
}

describe.each<Kind>(["browser", "pinging"])("a workshop over %s sockets", (kind) => {
    test("sends nothing before somebody has agreed, and then the schema for all frames behind an empty one", async () => {
        const { workshop, states, sent } = await newWorkshop({ kind });
        await sleep(300);
        expect([workshop.state, sent, workshop.former]).toEqual(["asking", [[1, "mine"]], mine]);
        await workshop.begin();
        expect(sent.slice(1).map(([, schema]) => schema)).toEqual(["none", "all frames"]);
        expect(sent.slice(1).every(([connection]) => connection > 1)).toBe(true);
        expect([states, workshop.reason]).toEqual([["starting", "open"], "the daemon sends the bytes of all frames"]);
        await until(() => (workshop.traffic.endpoints.get(0x085)?.count ?? 0) > 5, "frames");
        expect(workshop.traffic.endpoints.get(0x085)!.payload.length).toBe(5);
        await workshop.leave("former");
    });

    test("puts the former schema back on leaving, which its page owns as before", async () => {
        const { session, workshop, states, memory } = await newWorkshop({ kind });
        await workshop.begin();
        expect(await comes()).toContain(FRAMES);
        await workshop.leave("former");
        expect(await comes()).toEqual(["mine"]);
        expect(states).toEqual(["starting", "open", "leaving", "left"]);
        expect([session.ownsSchema, session.isLent, session.foreign]).toEqual([true, false, undefined]);
        expect(interrupted(memory)).toBeUndefined();
        await restartDaemon(session);
        await connected(session);
        expect(await comes()).toEqual(["mine"]);
    });

    test("goes on with a daemon that was restarted, with which its page does not interfere", async () => {
        const { session, workshop, states, sent } = await newWorkshop({ kind });
        await workshop.begin();
        const before = sent.length;
        await restartDaemon(session, workshop);
        await until(() => workshop.state === "open", "the workshop", 15);
        const { frames } = workshop.traffic;
        await until(() => workshop.traffic.frames > frames + 5, "frames");
        expect(states).toEqual(["starting", "open", "lost", "open"]);
        expect(workshop.reason).toBe("the daemon had lost the schema, and has it again");
        expect(new Set(sent.slice(before).map(([, schema]) => schema))).toEqual(new Set(["all frames"]));
        await workshop.leave("former");
        expect(await comes()).toEqual(["mine"]);
    });
});

describe("while a workshop is open", () => {
    test("its page takes no values, sends nothing, and says why", async () => {
        const { session, workshop } = await newWorkshop();
        const entries: object[] = [];
        session.tap = (entry) => entries.push(entry);
        await workshop.begin();
        await sleep(100);
        entries.length = 0;
        const node = session.tree.find(["mine"])!;
        const { reading } = node.series!;
        await sleep(500);
        expect(session.tree.valued.map(({ dotted }) => dotted)).toEqual(["mine"]);
        expect(node.series!.reading).toBe(reading);
        expect(entries).toEqual([]);
        expect(session.foreign).toBeUndefined();
        expect(session.isLent).toBe(true);
        await expect(session.write(new Map([[node.leaf!, 5]]))).rejects.toThrow(
            "The workshop is open: nothing was written",
        );
        expect(() => session.setSchema(JSON.stringify(theirs), false)).toThrow("The workshop is open: leave it first");
        expect(session.schema).toEqual(mine);
        await workshop.leave("former");
        await until(() => node.series!.reading !== reading, "values of the page");
        await sleep(500);
        expect(session.tree.valued.map(({ dotted }) => dotted)).toEqual(["mine"]);
        expect(machine.heard).toEqual([]);
    });

    test("a recording knows of the gap", async () => {
        const { session, workshop } = await newWorkshop();
        const entries: object[] = [];
        session.tap = (entry) => entries.push(entry);
        await workshop.begin();
        expect(entries).toContainEqual(
            expect.objectContaining({ disconnected: "the workshop has the daemon's schema" }),
        );
        await workshop.leave("former");
    });

    test("another one cannot be opened, and it is opened once", async () => {
        const page = await newWorkshop();
        await page.workshop.begin();
        await expect(workshopOf(page).workshop.begin()).rejects.toThrow("A workshop is open already");
        await expect(page.workshop.begin()).rejects.toThrow("The workshop was opened before");
        await page.workshop.leave("former");
        await expect(page.workshop.begin()).rejects.toThrow("The workshop was opened before");
    });

    test("locking the page leaves it, and the page sends nothing", async () => {
        const { session, workshop, sent } = await newWorkshop();
        await workshop.begin();
        session.lock();
        await expect(workshop.leave("draft")).rejects.toThrow("The page is locked: nothing was sent");
        await until(() => workshop.state === "left", "the end");
        expect(await comes()).toEqual(["mine"]);
        expect(sent.filter(([connection]) => connection === 1)).toEqual([[1, "mine"]]);
        expect(session.ownsSchema).toBe(false);
    });

    test("disconnecting the page leaves it", async () => {
        const { session, workshop } = await newWorkshop();
        await workshop.begin();
        session.disconnect();
        await until(() => workshop.state === "left", "the end");
        expect(await comes()).toEqual(["mine"]);
    });

    test("going to another daemon leaves it, and that one gets no schema", async () => {
        const { session, workshop, sent } = await newWorkshop();
        await workshop.begin();
        const network = await Network.open();
        onTestFinished(() => network.close());
        session.connect(network.address);
        await until(() => workshop.state === "left", "the end");
        await connected(session);
        expect(await comes()).toEqual(["mine"]);
        expect(session.ownsSchema).toBe(false);
        expect(sent.at(-1)![1]).toBe("mine");
        expect(sent.filter(([, schema]) => schema === "mine").length).toBe(2);
    });

    test("a connection that was only lost finds all as it was", async () => {
        const network = await Network.open();
        onTestFinished(() => network.close());
        const { workshop, states, sent } = await newWorkshop({ address: network.address });
        await workshop.begin();
        await until(() => workshop.traffic.frames > 5, "frames");
        const before = sent.length;
        network.cut();
        await until(() => workshop.state === "lost", "the loss");
        await until(() => workshop.state === "open", "the connection");
        expect(states).toEqual(["starting", "open", "lost", "open"]);
        expect(workshop.reason).toBe("the daemon still sends the bytes of all frames");
        expect(sent.length).toBe(before);
        await workshop.leave("former");
        expect(await comes()).toEqual(["mine"]);
    });

    test("another client's schema ends it, and stays on leaving", async () => {
        const { session, workshop, memory, sent } = await newWorkshop();
        await workshop.begin();
        await until(() => workshop.traffic.frames > 5, "frames");
        await sleep(1500); // values of a schema before it may have been on their way until then
        const other = await newClient();
        other.setSchema(theirs);
        await until(() => workshop.state === "replaced", "the replacement");
        expect(workshop.reason).toBe("a value comes that it does not have: theirs");
        expect(interrupted(memory)).toBeUndefined();
        const before = sent.length;
        await workshop.leave("former");
        expect([workshop.state, sent.length]).toEqual(["left", before]);
        expect(await comes()).toEqual(["theirs"]);
        expect(session.foreign).toEqual({ certain: true, reason: "a value comes that it does not have: theirs" });
        expect(session.ownsSchema).toBe(false);
    });

    test("what was made is used here only where another client has sent a schema", async () => {
        const { session, workshop } = await newWorkshop();
        await workshop.begin();
        await sleep(1500);
        (await newClient()).setSchema(theirs);
        await until(() => workshop.state === "replaced", "the replacement");
        workshop.draft.set("made", SPEED);
        await workshop.leave("draft");
        expect(await comes()).toEqual(["theirs"]);
        expect([session.schema, session.ownsSchema]).toEqual([{ mine: SPEED, made: SPEED }, false]);
        expect(session.foreign?.certain).toBe(true);
    });
});

describe("what was made", () => {
    test("becomes the schema of the page and of the daemon", async () => {
        const { session, workshop, memory } = await newWorkshop();
        await workshop.begin();
        expect(workshop.draft.schema).toEqual(mine);
        workshop.draft.set("motor.speed", { ...SPEED, scale: 0.5 }, "mine");
        await workshop.leave("draft");
        expect(session.schema).toEqual({ motor: { speed: { ...SPEED, scale: 0.5 } } });
        expect(memory.saved.get("schema")).toBe(workshop.draft.text);
        expect(session.ownsSchema).toBe(true);
        expect(await comes()).toEqual(["motor"]);
        await until(() => session.tree.find(["motor", "speed"])?.series !== undefined, "its value");
        expect(interrupted(memory)).toBeUndefined();
    });

    test("is not sent with errors or without a value, and the workshop stays open", async () => {
        const { workshop, sent } = await newWorkshop();
        await workshop.begin();
        const before = sent.length;
        workshop.draft.remove("mine");
        await expect(workshop.leave("draft")).rejects.toThrow("There is no value yet: nothing was sent");
        workshop.draft.merge({ x: { ...SPEED, scale: 0 } });
        await expect(workshop.leave("draft")).rejects.toThrow(/^What was made cannot be sent: x: "scale" is 0/);
        expect([workshop.state, sent.length]).toEqual(["open", before]);
        await workshop.leave("former");
        expect(await comes()).toEqual(["mine"]);
    });
});

describe("the former schema", () => {
    test("that the page only used is put back, and stays nobody's there", async () => {
        const other = await newClient();
        other.setSchema(mine);
        const page = await newPage();
        page.session.setSchema(JSON.stringify(mine), false);
        const { workshop } = workshopOf(page);
        await workshop.begin();
        await workshop.leave("former");
        expect(await comes()).toEqual(["mine"]);
        expect(page.session.ownsSchema).toBe(false);
        expect(page.sent.filter(([connection]) => connection === 1)).toEqual([]);
    });

    test("is none where the page has none", async () => {
        const page = await newPage();
        const { workshop } = workshopOf(page);
        expect(workshop.former).toBeUndefined();
        await workshop.begin();
        await until(() => workshop.traffic.frames > 0, "frames");
        await workshop.leave("former");
        expect(page.sent.at(-1)![1]).toBe("none");
        expect(await isSilent()).toBe(true);
    });

    test("comes back with the next connection where there is none on leaving, and it is told", async () => {
        const { session, workshop, memory } = await newWorkshop();
        await workshop.begin();
        await machine.stopDaemon();
        await until(() => workshop.state === "lost", "the loss");
        await workshop.leave("former");
        expect(workshop.state).toBe("left");
        expect(workshop.reason).toMatch(/^Not connected to /);
        expect(session.log.entries.some(({ text }) => text === "Nothing says that the schema was put back")).toBe(true);
        expect(interrupted(memory)).toEqual({ address: ADDRESS, schema: mine });
        await machine.startDaemon();
        await connected(session);
        expect(await comes()).toEqual(["mine"]);
    });

    test("is put back when the page is closed, as far as it goes; otherwise the next visit knows of it", async () => {
        const listeners = new Map<string, () => void>();
        vi.stubGlobal("addEventListener", (event: string, listener: () => void) => listeners.set(event, listener));
        vi.stubGlobal("removeEventListener", (event: string) => listeners.delete(event));
        onTestFinished(() => void vi.unstubAllGlobals());
        const { session, workshop, memory } = await newWorkshop();
        await workshop.begin();
        expect(interrupted(memory)).toBeUndefined(); // it goes on
        listeners.get("pagehide")!();
        expect(workshop.state).toBe("left");
        expect(interrupted(memory)).toEqual({ address: ADDRESS, schema: mine });
        session.disconnect();
        await sleep(300);
        expect(await comes()).toEqual(["mine"]);
    });
});

describe("a workshop that was not left", () => {
    const record = (schema?: Schema) => ({ workshop: JSON.stringify({ address: ADDRESS, schema }) });

    test("leaves nothing behind once the former schema was put back, after somebody has agreed", async () => {
        const memory = memoryOf({ ...record(mine), schema: JSON.stringify(mine) });
        const { session, sent } = await newPage({ memory });
        await sleep(300);
        expect([sent, interrupted(memory)]).toEqual([[], { address: ADDRESS, schema: mine }]);
        await putBack(session, memory);
        expect(interrupted(memory)).toBeUndefined();
        expect(await comes()).toEqual(["mine"]);
        expect(session.ownsSchema).toBe(true);
    });

    test("leaves nothing where values of the former schema come", async () => {
        const memory = memoryOf({ ...record(mine), schema: JSON.stringify(mine) });
        const { session } = await newPage({ memory });
        expect(interrupted(memory, session)?.schema).toEqual(mine);
        (await newClient()).setSchema(theirs);
        await until(() => session.tree.find(["theirs"]) !== undefined, "a value");
        expect(interrupted(memory, session)?.schema).toEqual(mine);
        (await newClient()).setSchema(mine);
        await until(() => session.tree.find(["mine"])?.series !== undefined, "a value");
        expect(interrupted(memory, session)?.schema).toEqual(mine); // another one's values came as well
        const visit = await newPage({ memory });
        await until(() => visit.session.tree.find(["mine"])?.series !== undefined, "a value");
        expect(interrupted(memory, visit.session)).toBeUndefined();
        expect(interrupted(memory)).toBeUndefined();
    });

    test("may have had another schema than the page has now, which stays as it is", async () => {
        const memory = memoryOf({ ...record(theirs), schema: JSON.stringify(mine) });
        const { session } = await newPage({ memory });
        await putBack(session, memory);
        expect(await comes()).toEqual(["theirs"]);
        expect([session.schema, session.ownsSchema]).toEqual([mine, false]);
    });

    test("may have had none before it: then the daemon has none", async () => {
        (await newClient()).setSchema(theirs);
        expect(await comes()).toEqual(["theirs"]);
        const { session, memory } = await newPage({ memory: memoryOf(record()) });
        await putBack(session, memory);
        expect(await isSilent()).toBe(true);
    });

    test("is not put back by a page that is locked, or connected elsewhere", async () => {
        const memory = memoryOf({ workshop: JSON.stringify({ address: "ws://plant", schema: mine }) });
        const { session, sent } = await newPage({ memory });
        await expect(putBack(session, memory)).rejects.toThrow(
            "Not connected to ws://plant, where the workshop was: nothing was sent",
        );
        session.lock();
        await expect(putBack(session, memory)).rejects.toThrow("The page is locked: nothing was sent");
        expect([sent, interrupted(memory)?.schema]).toEqual([[], mine]);
    });
});

test("a machine's schema survives a workshop as it was", async () => {
    const page = await newPage();
    page.session.setSchema(JSON.stringify(machineSchema), true);
    const { workshop } = workshopOf(page);
    await workshop.begin();
    await workshop.leave("former");
    expect(await comes(1500)).toEqual(["battery", "door", "motor"]);
});
