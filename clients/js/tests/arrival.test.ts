import { expect, test } from "vitest";
import { Client, encodeValues, type WebSocketConstructor, type WebSocketLike } from "../src/index.js";

/** What a client hears over a socket that tells of each message what `tell` says. */
function arrivals(tell: object): number[] {
    const sockets: WebSocketLike[] = [];
    class Socket {
        readyState = 1;
        onmessage: WebSocketLike["onmessage"] = null;
        constructor() {
            sockets.push(this as unknown as WebSocketLike);
        }
        close() {}
    }
    const client = new Client("machine", { WebSocket: Socket as unknown as WebSocketConstructor }).connect();
    const heard: number[] = [];
    client.on("values", (_, arrival) => heard.push(arrival));
    sockets[0]!.onmessage!({ data: '{"hello": {"type": ""}}', ...tell });
    sockets[0]!.onmessage!({ data: encodeValues({ a: 1 }).slice().buffer, ...tell });
    client.close();
    return heard;
}

test("values come with the time at which they were handed over", () => {
    const before = performance.timeOrigin + performance.now();
    const [arrival] = arrivals({});
    expect(arrival).toBeGreaterThanOrEqual(before);
    expect(arrival).toBeLessThanOrEqual(performance.timeOrigin + performance.now());
});

test("or with the time of arrival that the socket tells", () => {
    expect(arrivals({ arrival: 5 })).toEqual([5]);
});
