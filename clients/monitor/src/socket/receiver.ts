import { now } from "../model/clock";
import { pack, type Arrival } from "./batch";
import type { End, News, Opening, Order } from "./messages";

/**
 * Holds the page's connections in a thread of its own, where nothing else happens: a browser tells when a message was
 * handed over, not when it came, and a page that draws or checks takes it late.
 */

/** Milliseconds between two handfuls: as long as a frame of the screen, or they would cost more than they bring. */
const PAUSE = 16;
/** Messages at a time: between two handfuls the page can draw. */
const HANDFUL = 300;
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
    #delivered = -Infinity;
    #timer: ReturnType<typeof setTimeout> | undefined;
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

    /** Hands over what waits, as soon as it is time and the page is ready for it. */
    #deliver(): void {
        if (this.#busy || this.#timer !== undefined) return;
        if (this.#waiting.length > 0) this.#handOverInTime();
        else if (this.#end) {
            this.#tell({ end: this.#end });
            this.port.close();
        }
    }

    #handOverInTime(): void {
        const wait = this.#waiting.length < HANDFUL ? this.#delivered + PAUSE - performance.now() : 0;
        if (wait <= 0) this.#handOver();
        else this.#timer = setTimeout(() => this.#handOver(), wait);
    }

    #handOver(): void {
        this.#timer = undefined;
        this.#busy = true;
        this.#delivered = performance.now();
        const arrivals = this.#waiting.splice(0, HANDFUL);
        for (const arrival of arrivals) this.#size -= sizeOf(arrival);
        const batch = pack(arrivals);
        const { bytes, ends, times } = batch;
        this.#tell({ batch, waiting: this.#waiting.length }, [bytes.buffer, ends.buffer, times.buffer]);
    }

    #tell(news: News, transfer: Transferable[] = []): void {
        this.port.postMessage(news, transfer);
    }
}

function sizeOf({ data }: Arrival): number {
    return OVERHEAD + (typeof data === "string" ? data.length : data.byteLength);
}

addEventListener("message", ({ data: { url, port } }: MessageEvent<Opening>) => new Connection(url, port));
