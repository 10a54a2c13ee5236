import type { AddressInfo } from "node:net";
import { encode } from "@msgpack/msgpack";
import { onTestFinished } from "vitest";
import { WebSocketServer, type WebSocket } from "ws";
import { connected, page } from "./fixture.js";

/** Something at the address that is no daemon: `talk` says what it sends to whoever connects. */
export async function impostor(talk: (socket: WebSocket) => void): Promise<{ address: string; close: () => void }> {
    const server = new WebSocketServer({ port: 0, host: "127.0.0.1" });
    server.on("connection", talk);
    await new Promise((listening) => server.once("listening", listening));
    return { address: `127.0.0.1:${(server.address() as AddressInfo).port}`, close: () => server.close() };
}

export async function connectTo(address: string): Promise<void> {
    await page.getByLabel("Address of the daemon").fill(address);
    await page.getByRole("button", { name: "Connect" }).click();
    await connected();
}

/** The same, connected, and what it sends when it is told to. */
export async function puppet(): Promise<{
    send: (values: unknown) => void;
    sockets: Set<WebSocket>;
    /** The schemas that came. */
    schemas: unknown[];
}> {
    const sockets = new Set<WebSocket>();
    const schemas: unknown[] = [];
    const { address, close } = await impostor((socket) => {
        sockets.add(socket);
        socket.on("close", () => sockets.delete(socket));
        socket.on("message", (data: Buffer, isBinary) => isBinary || schemas.push(JSON.parse(data.toString())));
        socket.send('{"hello": {"type": "puppet"}}');
    });
    onTestFinished(() => {
        for (const socket of sockets) socket.terminate();
        close();
    });
    await connectTo(address);
    const send = (values: unknown) => {
        const message = encode(values);
        for (const socket of sockets) socket.send(message);
    };
    return { send, sockets, schemas };
}

/** Calls every so many milliseconds until the test is over, or until what is returned is called. */
export function every(period: number, act: () => void): () => void {
    const timer = setInterval(act, period);
    const stop = () => clearInterval(timer);
    onTestFinished(stop);
    return stop;
}
