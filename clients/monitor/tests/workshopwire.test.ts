import { encodeValues } from "vorbel";
import { afterEach, beforeEach, expect, test, vi } from "vitest";
import { obstacleTo } from "../src/model/run";
import { Session } from "../src/model/session";
import { interrupted } from "../src/model/workshop/interrupted";
import { Workshop } from "../src/model/workshop/workshop";
import { memoryOf, Socket } from "./wire";

/** What a workshop does when it cannot be opened, by the clock of the test and with a daemon that does as it is told. */

const mine = { mine: { "@mac": 5, "@cmd": 2, "@format": "s" } };

/** Greets all when one comes, as the daemon does, and answers the end of a connection unless it hangs. */
class Daemon {
    readonly heard: string[] = [];
    refuses = false;
    hangs = false;
    readonly sockets = new Set<Socket>();
    readonly leaving: Socket[] = [];

    greetAll(): void {
        for (const socket of this.sockets) socket.greet();
    }

    /** All connections break off. */
    cut(): void {
        for (const socket of [...this.sockets, ...this.leaving.splice(0)]) socket.end(1006);
    }

    answer(): void {
        for (const socket of this.leaving.splice(0)) socket.end(1000);
    }
}

let daemon: Daemon;

class Connection extends Socket {
    constructor() {
        super();
        setTimeout(() => (daemon.refuses ? this.end(1006) : this.#come()), 1);
    }
    #come() {
        daemon.sockets.add(this);
        daemon.greetAll();
    }
    override send(data: string | Uint8Array) {
        const schema = JSON.parse(data as string) as object;
        daemon.heard.push(Object.keys(schema).length === 2048 ? "all frames" : JSON.stringify(schema));
    }
    override close() {
        daemon.sockets.delete(this);
        if (daemon.hangs) daemon.leaving.push(this);
        else setTimeout(() => this.end(1000), 1);
    }
    override end(code: number) {
        daemon.sockets.delete(this);
        super.end(code);
    }
}

beforeEach(() => {
    vi.useFakeTimers({ toFake: ["setTimeout", "clearTimeout", "setInterval", "clearInterval", "Date"] });
    daemon = new Daemon();
});
afterEach(() => {
    vi.clearAllTimers();
    vi.useRealTimers();
});

const pass = (milliseconds: number) => vi.advanceTimersByTimeAsync(milliseconds);

/** A page with a schema that was sent before, and its workshop. */
async function newWorkshop() {
    const memory = memoryOf();
    const session = new Session({
        home: "plant",
        query: { get: () => null },
        memory,
        read: () => Promise.reject(new Error("none")),
        WebSocket: Connection,
    });
    await pass(10);
    session.setSchema(JSON.stringify(mine), true);
    daemon.heard.length = 0;
    return { session, memory, workshop: new Workshop(session, memory) };
}

/** What becomes of a promise. */
function fateOf(promise: Promise<void>) {
    const fate = { is: "open" };
    promise.then(
        () => (fate.is = "done"),
        (error: Error) => (fate.is = error.message),
    );
    return fate;
}

test("a workshop is open when the daemon has confirmed both schemas, and not before", async () => {
    const { workshop } = await newWorkshop();
    daemon.hangs = true;
    const fate = fateOf(workshop.begin());
    await pass(100);
    expect([daemon.heard, workshop.state]).toEqual([["{}"], "starting"]);
    daemon.answer();
    await pass(100);
    expect([daemon.heard, workshop.state]).toEqual([["{}", "all frames"], "starting"]);
    daemon.answer();
    await pass(100);
    expect([fate.is, workshop.state]).toEqual(["done", "open"]);
});

test.each([
    ["before the schema for all frames goes out", 0, ["{}"]],
    ["while that is on its way", 1, ["{}", "all frames"]],
])("a workshop that is left %s puts the former one back behind it", async (_, answers, sent) => {
    const { workshop, session } = await newWorkshop();
    daemon.hangs = true;
    const fate = fateOf(workshop.begin());
    await pass(100);
    for (let answer = 0; answer < answers; answer++) {
        daemon.answer();
        await pass(100);
    }
    expect(workshop.state).toBe("starting");
    session.lock();
    await pass(100);
    expect([daemon.heard, workshop.state]).toEqual([sent, "leaving"]);
    daemon.answer();
    await pass(100);
    expect(daemon.heard).toEqual([...sent, JSON.stringify(mine)]);
    daemon.answer();
    await pass(100);
    expect([fate.is, workshop.state]).toEqual(["done", "left"]);
});

test("a workshop is left when the daemon has confirmed the former schema, and not before", async () => {
    const { workshop, session } = await newWorkshop();
    void workshop.begin();
    await pass(100);
    expect(workshop.state).toBe("open");
    daemon.hangs = true;
    const fates = [fateOf(workshop.leave("former")), fateOf(workshop.leave("former"))];
    await pass(100);
    expect([workshop.state, session.isLent, daemon.heard.slice(2)]).toEqual(["leaving", true, [JSON.stringify(mine)]]);
    daemon.answer();
    await pass(100);
    expect([fates.map(({ is }) => is), workshop.state, session.isLent]).toEqual([["done", "done"], "left", false]);
});

test("frames that come when the workshop is over are no values of the page", async () => {
    const { workshop, session } = await newWorkshop();
    void workshop.begin();
    await pass(100);
    void workshop.leave("former");
    await pass(100);
    expect(workshop.state).toBe("left");
    for (const socket of daemon.sockets) {
        socket.onmessage?.({ data: encodeValues({ "085": { "0": 1 } }) });
        socket.onmessage?.({ data: encodeValues({ mine: 5 }) });
    }
    expect(session.tree.valued.map(({ dotted, reading }) => [dotted, reading?.value])).toEqual([["mine", 5]]);
    expect(session.foreign).toBeUndefined();
});

test("a daemon that cannot be reached once more keeps its schema, and the workshop can be tried again", async () => {
    const { workshop, session, memory } = await newWorkshop();
    daemon.refuses = true;
    const fate = fateOf(workshop.begin());
    await pass(9000);
    expect([workshop.state, fate.is]).toEqual(["starting", "open"]);
    await pass(2000);
    expect(fate.is).toBe("No connection to ws://plant:10443: nothing answers at ws://plant:10443; nothing was sent");
    expect([daemon.heard, workshop.state, session.isLent]).toEqual([[], "asking", false]);
    expect(memory.saved.get("workshop")).toBeUndefined();
    daemon.refuses = false;
    await pass(10_000);
    void workshop.begin();
    await pass(100);
    expect(workshop.state).toBe("open");
});

test("a connection that is lost while the schema is replaced lets the former one come back", async () => {
    const { workshop, session, memory } = await newWorkshop();
    daemon.hangs = true;
    const fate = fateOf(workshop.begin());
    await pass(100);
    daemon.refuses = true;
    daemon.cut();
    await pass(100);
    expect(fate.is).toMatch(/^Sent, but nothing says whether ws:\/\/plant:10443 has handled it/);
    expect([workshop.state, session.isLent, daemon.heard]).toEqual(["left", false, ["{}"]]);
    expect(interrupted(memory)).toEqual({ address: "plant", schema: mine });
    daemon.refuses = daemon.hangs = false;
    await pass(10_000);
    expect(daemon.heard).toEqual(["{}", JSON.stringify(mine)]);
});

test("a page that is locked, or not connected, opens no workshop", async () => {
    const { workshop, session } = await newWorkshop();
    session.lock();
    await expect(workshop.begin()).rejects.toThrow("The page is locked: nothing was sent");
    session.unlock();
    session.disconnect();
    await expect(workshop.begin()).rejects.toThrow("Not connected (closed here): nothing was sent");
    await workshop.leave("former");
    expect([workshop.state, workshop.reason, daemon.heard]).toEqual(["left", "nothing was sent", []]);
});

test("a schema that could not be put back is not replaced", async () => {
    const { session, memory } = await newWorkshop();
    session.setSchema(JSON.stringify({ mine: { "@mac": 70, "@cmd": 2, "@format": "s" } }), false);
    await expect(new Workshop(session, memory).begin()).rejects.toThrow(/mine: "@mac" is 70/);
    expect(daemon.heard).toEqual([]);
});

test("nothing goes out by itself while a workshop is open", async () => {
    const { workshop, session } = await newWorkshop();
    const course = { kind: "cycle" as const, id: "", name: "", steps: [], view: [] };
    expect(obstacleTo(course as never, session)).toBeUndefined();
    void workshop.begin();
    await pass(100);
    expect(obstacleTo(course as never, session)).toBe("the workshop is open");
});

test("the page of an open workshop says that it is there", async () => {
    const { workshop, memory } = await newWorkshop();
    void workshop.begin();
    await pass(100);
    await pass(200_000);
    expect(workshop.state).toBe("open");
    expect(Date.now() - Number(memory.saved.get("workshop.alive"))).toBeLessThan(5001);
    void workshop.leave("former");
    await pass(100);
    const last = memory.saved.get("workshop.alive");
    await pass(20_000);
    expect(memory.saved.get("workshop.alive")).toBe(last);
});
