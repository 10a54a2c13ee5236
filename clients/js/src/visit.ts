import { abandon, leave, parseHello, type WebSocketLike } from "./socket.js";

type Step = (socket: WebSocketLike, done: () => void, fail: (reason: string) => void) => void;

const go: Step = (socket, done, fail) => {
    socket.onmessage = null;
    socket.onclose = ({ wasClean }) => (wasClean ? done() : fail("the connection broke off"));
    socket.close();
};

/**
 * A short connection of its own. Browsers cannot ping, but the daemon greets all its clients whenever one comes, and
 * has its part in closing a connection only after it has handled what came before: coming and going are questions
 * that it answers to everybody.
 */
export class Visit {
    #socket: WebSocketLike | undefined;
    #timer: ReturnType<typeof setTimeout> | undefined;
    #fail: ((reason: string) => void) | undefined;

    constructor(readonly open: () => WebSocketLike) {}

    /** Comes, and resolves when greeted; rejects otherwise, `patience` milliseconds later at the latest. */
    greeted(patience: number): Promise<void> {
        return this.#await(patience, (socket, done, fail) => {
            socket.onmessage = ({ data }) => {
                if (typeof data === "string" && parseHello(data)) done();
            };
            socket.onclose = () => fail("no connection");
        });
    }

    /** Sends a message and goes; resolves when the daemon has handled it. */
    deliver(message: string | Uint8Array, patience: number): Promise<void> {
        return this.#await(patience, (socket, done, fail) => {
            socket.send(message);
            go(socket, done, fail);
        });
    }

    /** Goes; resolves when the daemon has handled all that was sent. */
    leave(patience: number): Promise<void> {
        return this.#await(patience, go);
    }

    /** Goes, wherever it stands. */
    end(): void {
        clearTimeout(this.#timer);
        if (this.#socket) leave(this.#socket);
        this.#socket = undefined;
        this.#fail?.("given up");
    }

    #await(patience: number, begin: Step): Promise<void> {
        return new Promise((resolve, reject) => {
            const fail = (reason: string) => {
                this.#fail = undefined;
                clearTimeout(this.#timer);
                if (this.#socket) abandon(this.#socket);
                this.#socket = undefined;
                reject(new Error(reason));
            };
            const done = () => {
                this.#fail = undefined;
                clearTimeout(this.#timer);
                resolve();
            };
            this.#fail = fail;
            this.#timer = setTimeout(() => fail("no answer in time"), patience);
            try {
                this.#socket ??= this.open();
                this.#socket.onerror = () => {}; // the end follows
                begin(this.#socket, done, fail);
            } catch (error) {
                fail(String(error));
            }
        });
    }
}
