/** Something that changes; who looks at it is told, and draws when it suits. */
export class Source {
    #watchers = new Set<() => void>();

    watch(watcher: () => void): () => void {
        this.#watchers.add(watcher);
        return () => void this.#watchers.delete(watcher);
    }

    changed(): void {
        for (const watcher of this.#watchers) watcher();
    }
}
