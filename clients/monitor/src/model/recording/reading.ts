import type { Entry } from "./entry";

/** A file that is read, whom its entries go to in their order, and who hears how many bytes have been read. */
export type Reading = { file: Blob; take: (entry: Entry) => void; progress: (read: number) => void };

/** From somewhere on, a file is no recording; what was read before is one. */
export class BrokenRecording extends Error {}
