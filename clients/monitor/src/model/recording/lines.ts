import { BrokenRecording } from "./reading";

/** Bytes that are read at a time. */
const PIECE = 1024 * 1024;
/** Characters of a line at most: an array of a million readings has room. */
export const LONGEST = 16 * 1024 * 1024;

/** A line, its number from 1 on, and whether it was finished: only the last one may not be. */
export type Line = { text: string; number: number; finished: boolean };

/** The lines of a file, of which it holds no more than a piece and the longest line. Throws when one is too long. */
export async function* linesOf(file: Blob, progress: (read: number) => void): AsyncGenerator<Line> {
    const decoder = new TextDecoder();
    let rest = "";
    let number = 1;
    for (let at = 0; at < file.size; at += PIECE) {
        progress(at);
        const bytes = await file.slice(at, at + PIECE).arrayBuffer();
        const parts = decoder.decode(bytes, { stream: true }).split("\n");
        parts[0] = rest + parts[0]!;
        rest = parts.pop()!;
        for (const text of parts) yield { text, number: number++, finished: true };
        if (rest.length > LONGEST) throw new BrokenRecording(`line ${number} is longer than 16 MiB`);
    }
    rest += decoder.decode();
    if (rest !== "") yield { text: rest, number, finished: false };
}
