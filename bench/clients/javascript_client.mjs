// A client in JavaScript that takes a number of messages and says what they cost:
//     node javascript_client.mjs vorbel|plain URL COUNT
// "plain" is what ws and @msgpack/msgpack cost by themselves. CLIENTS is the folder of the clients, where the library
// has been built.
import { createRequire } from "node:module";
import process from "node:process";
import { pathToFileURL } from "node:url";

const require = createRequire(`${process.env.CLIENTS}/js/package.json`);
const WebSocket = require("ws");
const { decode } = require("@msgpack/msgpack");
const { Client } = await import(pathToFileURL(`${process.env.CLIENTS}/js/dist/index.js`));

const [kind, url, words] = process.argv.slice(2);
const count = Number(words);
let counted = 0;
let before = 0;

const cpu = () => {
    const { user, system } = process.cpuUsage();
    return (user + system) / 1e6;
};

/** The first tenth of the messages is only for warming up. */
function take() {
    counted++;
    if (counted === Math.floor(count / 10)) before = cpu();
    if (counted !== count) return;
    console.log(JSON.stringify({ cpu: (cpu() - before) / (count - Math.floor(count / 10)) }));
    process.exit();
}

if (kind === "plain") {
    const socket = new WebSocket(url, { perMessageDeflate: false });
    socket.binaryType = "arraybuffer";
    socket.on("message", (data, isBinary) => {
        if (!isBinary) return;
        decode(new Uint8Array(data));
        take();
    });
} else {
    const client = new Client(url, { WebSocket });
    client.setSchema(JSON.parse(process.env.BENCH_SCHEMA));
    client.on("values", take);
    client.connect();
}
