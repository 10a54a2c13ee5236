import type { WebSocketLike } from "vorbel";
import { now } from "../model/clock";
import { lag } from "../model/lag";
import { unpack } from "./batch";
import type { End, News, Opening, Order } from "./messages";
import Receiver from "./receiver?worker";

// One for good: the page's server may be away when the next connection is made.
const receiver = new Receiver();

/** A WebSocket whose messages tell when they arrived, also to a page that is late. */
export class ArrivalSocket implements WebSocketLike {
    /** The only one. */
    binaryType = "arraybuffer";
    readyState: number = WebSocket.CONNECTING;
    onmessage: WebSocketLike["onmessage"] = null;
    onclose: WebSocketLike["onclose"] = null;
    onerror: WebSocketLike["onerror"] = null;
    readonly #port: MessagePort;

    constructor(url: string) {
        const { port1, port2 } = new MessageChannel();
        this.#port = port1;
        port1.onmessage = ({ data }: MessageEvent<News>) => this.#hear(data);
        receiver.postMessage({ url, port: port2 } satisfies Opening, [port2]);
    }

    send(data: string | Uint8Array): void {
        this.#order({ send: data as string | Uint8Array<ArrayBuffer> });
    }

    close(): void {
        this.readyState = WebSocket.CLOSING;
        this.#order({ close: true });
    }

    #order(order: Order): void {
        this.#port.postMessage(order);
    }

    #hear(news: News): void {
        if ("up" in news) this.#up();
        else if ("down" in news) this.readyState = WebSocket.CLOSED;
        else if ("end" in news) this.#end(news.end);
        else this.#take(news);
    }

    #up(): void {
        if (this.readyState === WebSocket.CONNECTING) this.readyState = WebSocket.OPEN;
    }

    #take({ batch, waiting }: Extract<News, { batch: unknown }>): void {
        unpack(batch, (message) => this.#handOver(message));
        lag.set(waiting > 0 ? now() - batch.times.at(-1)! : 0);
        this.#order({ handled: true });
    }

    /** One message that cannot be handled does not take the next ones with it. */
    #handOver(message: { data: string | Uint8Array; arrival: number }): void {
        try {
            this.onmessage?.(message);
        } catch (error) {
            reportError(error);
        }
    }

    #end(end: End): void {
        this.#port.close();
        lag.set(0);
        this.onclose?.(end);
    }
}
