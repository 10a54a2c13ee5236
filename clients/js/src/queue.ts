/** What is pushed on one side is awaited on the other; beyond `limit` waiting items the oldest are dropped. */
export class Queue<T> implements AsyncIterableIterator<T> {
    #items: T[] = [];
    #waiting: ((result: IteratorResult<T>) => void)[] = [];
    #ended = false;
    #lost = 0;

    constructor(
        readonly limit: number,
        readonly onEnd: () => void,
        readonly onLost: () => void,
    ) {}

    /** How many items were dropped because nobody took them in time. */
    get lost(): number {
        return this.#lost;
    }

    push(item: T): void {
        const taker = this.#waiting.shift();
        if (taker) {
            taker({ done: false, value: item });
            return;
        }
        this.#items.push(item);
        if (this.#items.length > this.limit) {
            this.#items.shift();
            this.#lost++;
            this.onLost();
        }
    }

    /** What is queued can still be taken. */
    end(): void {
        if (this.#ended) return;
        this.#ended = true;
        this.onEnd();
        for (const taker of this.#waiting.splice(0)) taker({ done: true, value: undefined });
    }

    next(): Promise<IteratorResult<T>> {
        if (this.#items.length > 0) return Promise.resolve({ done: false, value: this.#items.shift()! });
        if (this.#ended) return Promise.resolve({ done: true, value: undefined });
        return new Promise((resolve) => this.#waiting.push(resolve));
    }

    return(): Promise<IteratorResult<T>> {
        this.#items = [];
        this.end();
        return Promise.resolve({ done: true, value: undefined });
    }

    [Symbol.asyncIterator](): this {
        return this;
    }
}
