/** Lets the browser save a file. */
export function download(file: Blob, name: string): void {
    const link = document.createElement("a");
    link.href = URL.createObjectURL(file);
    link.download = name;
    link.click();
    URL.revokeObjectURL(link.href);
}
