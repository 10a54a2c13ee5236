import type { Memory } from "./session";
import { Source } from "./source";

/**
 * A list, newest first, that stays from one visit to the next as far as the browser lets it; otherwise it lasts as long
 * as the page. Several pages may add to the same one.
 */
export class Kept<T extends { id: string }> extends Source {
    #entries: readonly T[] = [];
    #isStored = true;

    constructor(
        readonly memory: Memory,
        readonly name: string,
        /** How many are kept. */
        readonly limit: number,
        /** What was stored may be of another version of the page, or of somebody's hand. */
        readonly isEntry: (entry: unknown) => entry is T,
    ) {
        super();
        this.#entries = this.#present();
    }

    get entries(): readonly T[] {
        return this.#entries;
    }

    /** Whether the browser has kept the last state: storage may be full, or forbidden. */
    get isStored(): boolean {
        return this.#isStored;
    }

    find(id: string): T | undefined {
        return this.#entries.find((entry) => entry.id === id);
    }

    /** Adds an entry, or replaces the one of the same id. */
    put(entry: T): void {
        const others = this.#present();
        const isNew = others.every(({ id }) => id !== entry.id);
        const all = isNew ? [entry, ...others] : others.map((each) => (each.id === entry.id ? entry : each));
        this.#store(all.slice(0, this.limit));
    }

    /** Replaces every entry by what is made of it. */
    change(change: (entry: T) => T): void {
        this.#store(this.#present().map(change));
    }

    remove(id: string): void {
        this.#store(this.#present().filter((entry) => entry.id !== id));
    }

    clear(): void {
        this.#store([]);
    }

    /** With what other pages have added. */
    #present(): readonly T[] {
        if (!this.#isStored) return this.#entries;
        const text = this.memory.load(this.name);
        return text === undefined ? this.#entries : parsed(text).filter(this.isEntry).slice(0, this.limit);
    }

    #store(entries: readonly T[]): void {
        const text = JSON.stringify(entries);
        this.memory.save(this.name, text);
        this.#isStored = this.memory.load(this.name) === text;
        this.#entries = entries;
        this.changed();
    }
}

function parsed(text: string): unknown[] {
    try {
        const value: unknown = JSON.parse(text);
        return Array.isArray(value) ? value : [];
    } catch {
        return [];
    }
}

/** Whether a stored value is an object with such members. */
export function hasMembers(value: unknown, types: Record<string, "string" | "number" | "object">): boolean {
    if (typeof value !== "object" || value === null) return false;
    return Object.entries(types).every(([name, type]) => typeof (value as Record<string, unknown>)[name] === type);
}
