import { createHash } from "node:crypto";
import { createServer, type Server } from "node:http";
import type { AddressInfo } from "node:net";
import type { Duplex } from "node:stream";
import { encode } from "@msgpack/msgpack";

/** What stands in for a daemon on a busy line: `frames` endpoints in turn, each with the values of its leaves. */
export type Line = { frames: number; leavesOfFrame: number; perSecond: number };

/** Of each message so many, with other values, are made beforehand: making them is no part of what is measured. */
const VARIANTS = 32;
const HELLO = '{"hello":{"type":"line"}}';

export function schemaOf({ frames, leavesOfFrame }: Line): object {
    const names = Array.from({ length: frames }, (_, frame) => frame);
    return Object.fromEntries(names.map((frame) => [nameOf(frame), groupOf(frame, leavesOfFrame)]));
}

/** As many leaves as asked for, each a byte of the frame. */
function groupOf(frame: number, leaves: number): object {
    const leaf = (at: number) => ({ "@mac": frame % 64, "@cmd": frame >> 6, "@format": "C", "@skip": at });
    return Object.fromEntries(Array.from({ length: leaves }, (_, at) => [`value${at}`, leaf(at)]));
}

function nameOf(frame: number): string {
    return `group${frame}`;
}

/** Paths of leaves that come with different frames. */
export function pathsOf({ frames }: Line, count: number): string[] {
    return Array.from({ length: count }, (_, at) => `${nameOf(Math.floor((at * frames) / count))}.value0`);
}

export type Sender = { address: string; begin: () => void; sent: () => number; stop: () => void };

/**
 * Greets whoever connects and sends each message once; from begin() on all in turn at the line's pace, what is due in
 * a millisecond at once.
 */
export async function startSender(line: Line): Promise<Sender> {
    const messages = messagesOf(line);
    const clients = new Set<Duplex>();
    const greeting = Buffer.concat([framed(1, Buffer.from(HELLO)), ...messages.slice(0, line.frames)]);
    const server = listenForClients(clients, greeting);
    await new Promise<void>((listening) => server.listen(0, "127.0.0.1", listening));
    let sent = 0;
    let timer: NodeJS.Timeout | undefined;
    const begin = () => {
        const start = performance.now();
        timer = setInterval(() => {
            const due = Math.floor(((performance.now() - start) * line.perSecond) / 1000);
            const turn = Array.from({ length: due - sent }, (_, at) => messages[(sent + at) % messages.length]!);
            sent = due;
            for (const client of clients) client.write(Buffer.concat(turn));
        }, 1);
    };
    const stop = () => {
        clearInterval(timer);
        for (const client of clients) client.destroy();
        server.close();
    };
    return { address: `127.0.0.1:${(server.address() as AddressInfo).port}`, begin, sent: () => sent, stop };
}

function messagesOf({ frames, leavesOfFrame }: Line): Buffer[] {
    return Array.from({ length: frames * VARIANTS }, (_, at) => {
        const [frame, variant] = [at % frames, Math.floor(at / frames)];
        const value = (leaf: number) =>
            Math.round(128 + 100 * Math.sin((2 * Math.PI * variant) / VARIANTS + frame + leaf));
        const values = Array.from({ length: leavesOfFrame }, (_, leaf) => [`value${leaf}`, value(leaf)]);
        return framed(2, encode({ [nameOf(frame)]: Object.fromEntries(values) }));
    });
}

/** A WebSocket server that only listens as far as it has to. */
function listenForClients(clients: Set<Duplex>, greeting: Buffer): Server {
    const server = createServer();
    server.on("upgrade", (request, socket: Duplex) => {
        const accept = createHash("sha1")
            .update(request.headers["sec-websocket-key"] + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11")
            .digest("base64");
        socket.write(
            `HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\nSec-WebSocket-Accept: ${accept}\r\n\r\n`,
        );
        socket.write(greeting);
        socket.on("error", () => {}).on("close", () => clients.delete(socket));
        socket.resume();
        clients.add(socket);
    });
    return server;
}

function framed(opcode: number, content: Uint8Array): Buffer {
    const length = content.length < 126 ? [content.length] : [126, content.length >> 8, content.length & 255];
    return Buffer.concat([Buffer.from([0x80 | opcode, ...length]), content]);
}
