import { now } from "../model/clock";
import type { Arrival, End, News, Opening, Order } from "./messages";

/**
 * Holds the page's connections in a thread of its own, where nothing else happens: a browser tells when a message was
 * handed over, not when it came, and a page that draws or checks takes it late.
 */

/** Messages at a time: between two handfuls the page can draw. */
const HANDFUL = 100;
/** Bytes that wait for a page that does not follow, before the connection is given up. */
const LIMIT = 32 * 1024 * 1024;
/** What a message costs beside its bytes. */
const OVERHEAD = 100;

class Connection {
    #socket: WebSocket | undefined;
    #waiting: Arrival[] = [];
    #size = 0;
    /** Whether the page has a handful that it has not handled yet. */
    #busy = false;
    #end: End | undefined;

    constructor(
        url: string,
        readonly port: MessagePort,
    ) {
        port.onmessage = ({ data }: MessageEvent<Order>) => this.#obey(data);
        try {
            this.#open(url);
        } catch (error) {
            this.#finish({ code: 1006, reason: String(error), wasClean: false });
        }
    }

    #open(url: string): void {
        const socket = (this.#socket = new WebSocket(url));
        socket.binaryType = "arraybuffer";
        socket.onopen = () => this.#tell({ up: true });
        socket.onmessage = ({ data }: MessageEvent<string | ArrayBuffer>) => this.#arrived({ data, arrival: now() });
        // The end follows, but not where the page's policy forbids the connection.
        socket.onerror = () => this.#finish({ code: 1006, reason: "", wasClean: false });
        socket.onclose = ({ code, reason, wasClean }) => this.#finish({ code, reason, wasClean });
    }

    #obey(order: Order): void {
        if ("send" in order) this.#socket?.send(order.send);
        else if ("close" in order) this.#socket?.close();
        else {
            this.#busy = false;
            this.#deliver();
        }
    }

    #arrived(arrival: Arrival): void {
        if (this.#end) return;
        this.#waiting.push(arrival);
        this.#size += sizeOf(arrival);
        if (this.#size > LIMIT) {
            this.#socket!.close();
            this.#finish({
                code: 1008,
                reason: "the page could not follow: more than 32 MiB waited for it",
                wasClean: false,
            });
        }
        this.#deliver();
    }

    #finish(end: End): void {
        if (this.#end) return;
        this.#end = end;
        this.#tell({ down: true });
        this.#deliver();
    }

    #deliver(): void {
        if (this.#busy) return;
        if (this.#waiting.length > 0) {
            const arrivals = this.#waiting.splice(0, HANDFUL);
            for (const arrival of arrivals) this.#size -= sizeOf(arrival);
            this.#busy = true;
            const buffers = arrivals.map(({ data }) => data).filter((data) => typeof data !== "string");
            this.#tell({ arrivals, waiting: this.#waiting.length }, buffers);
        } else if (this.#end) {
            this.#tell({ end: this.#end });
            this.port.close();
        }
    }

    #tell(news: News, transfer: Transferable[] = []): void {
        this.port.postMessage(news, transfer);
    }
}

function sizeOf({ data }: Arrival): number {
    return OVERHEAD + (typeof data === "string" ? data.length : data.byteLength);
}

addEventListener("message", ({ data: { url, port } }: MessageEvent<Opening>) => new Connection(url, port));
