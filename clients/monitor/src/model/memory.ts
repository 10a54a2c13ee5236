/** What the page remembers from one visit to the next; nothing where the browser does not let it. */
export function load(name: string): string | undefined {
    try {
        return localStorage.getItem(`vorbel.${name}`) ?? undefined;
    } catch {
        return undefined;
    }
}

export function save(name: string, text: string): void {
    try {
        localStorage.setItem(`vorbel.${name}`, text);
    } catch {
        // It is only a convenience.
    }
}
