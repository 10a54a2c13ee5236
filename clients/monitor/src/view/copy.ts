/** Puts a text into the clipboard, also where the page did not come over TLS; says whether it did. */
export async function copyText(text: string): Promise<boolean> {
    if (!navigator.clipboard) return copyOverSelection(text);
    try {
        await navigator.clipboard.writeText(text);
        return true;
    } catch {
        return copyOverSelection(text); // where the person or the browser forbids the former
    }
}

function copyOverSelection(text: string): boolean {
    const focused = document.activeElement as HTMLElement | null;
    const area = document.createElement("textarea");
    area.value = text;
    area.className = "hidden";
    document.body.append(area);
    area.select();
    const done = document.execCommand("copy");
    area.remove();
    focused?.focus();
    return done;
}
