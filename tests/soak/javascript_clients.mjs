// Honest clients with the JavaScript library; what they say to the soak is in honest.py.
//     node javascript_clients.mjs URI COUNT
import { createRequire } from "node:module";
import process from "node:process";
import { fileURLToPath, pathToFileURL } from "node:url";

const clients = fileURLToPath(new URL("../../clients/", import.meta.url));
const require = createRequire(`${clients}js/package.json`);
const WebSocket = require("ws");
const { Client } = await import(pathToFileURL(`${clients}js/dist/index.js`));

const TELLING = 250; // milliseconds
const WRITING = 100;
const LIBRARY = "javascript";
const [uri, count] = process.argv.slice(2);

/** Seconds by the clock that all programs here share. */
const clock = () => Number(process.hrtime.bigint()) / 1e9;
const say = (...words) => process.stdout.write(JSON.stringify(words) + "\n");

/** What one client heard since it was told last, as runs of numbers without a gap. */
class Heard {
    #runs = new Map();
    #last = new Map();

    constructor(name) {
        this.name = name;
    }

    take(leaf, numbers) {
        let runs = this.#runs.get(leaf);
        if (!runs) this.#runs.set(leaf, (runs = []));
        for (const number of numbers) {
            const last = runs[runs.length - 1];
            if (last && number === last[1] + 1) last[1] = number;
            else runs.push([number, number]);
        }
        this.#last.set(leaf, [numbers[numbers.length - 1], clock()]);
    }

    /** Says a thing that happened, behind all that was heard before. */
    tell(what, ...words) {
        for (const [leaf, runs] of this.#runs) say("heard", this.name, leaf, runs, ...this.#last.get(leaf));
        this.#runs.clear();
        if (what) say(what, this.name, ...words);
    }
}

function listen(name) {
    const heard = new Heard(name);
    const client = new Client(uri, { WebSocket, firstDelay: 200, longestDelay: 2000 });
    client.on("values", (values) => {
        for (const [leaf, value] of Object.entries(values))
            heard.take(leaf, typeof value === "number" ? [value] : value);
    });
    let there = false;
    client.on("state", (state, reason) => {
        if (state === "connected") heard.tell("there", clock());
        else if (there) heard.tell("away", clock(), reason);
        there = state === "connected";
    });
    client.on("undecodable", ({ bytes }) => heard.tell("undecodable", clock(), Buffer.from(bytes).toString("hex")));
    client.connect();
    return { client, heard };
}

/** One number after the other, each told before it goes and once the daemon has handled it. */
async function write({ client, heard }) {
    for (let number = 1; ; number++) {
        await new Promise((resolve) => setTimeout(resolve, WRITING));
        heard.tell("writes", number, clock());
        try {
            client.write({ [`written_${LIBRARY}`]: number }, { check: false });
            await client.confirmed();
            heard.tell("wrote", number, clock());
        } catch (error) {
            heard.tell("refused", number, clock(), String(error));
        }
    }
}

const everybody = Array.from({ length: Number(count) }, (_, number) => listen(`${LIBRARY} ${number}`));
setInterval(() => everybody.forEach(({ heard }) => heard.tell()), TELLING);
await write(everybody[0]);
