/** A message as a WebSocket gives it, and when it arrived. */
export type Arrival = { data: string | ArrayBuffer; arrival: number };

/**
 * Messages one after the other, as they go from thread to thread: a few large buffers, which change hands without a
 * copy, cost a tenth of what as many small ones do.
 */
export type Batch = {
    /** What all of them hold, texts as UTF-8. */
    bytes: Uint8Array<ArrayBuffer>;
    /** Where each of them ends. */
    ends: Uint32Array<ArrayBuffer>;
    /** When each of them arrived. */
    times: Float64Array<ArrayBuffer>;
    /** Which of them are texts; in ascending order. */
    texts: number[];
};

export function pack(arrivals: readonly Arrival[]): Batch {
    const contents = arrivals.map(({ data }) =>
        typeof data === "string" ? new TextEncoder().encode(data) : new Uint8Array(data),
    );
    let size = 0;
    const ends = Uint32Array.from(contents, ({ length }) => (size += length));
    const bytes = new Uint8Array(size);
    for (const [at, content] of contents.entries()) bytes.set(content, ends[at]! - content.length);
    const times = Float64Array.from(arrivals, ({ arrival }) => arrival);
    const texts = [...arrivals.keys()].filter((at) => typeof arrivals[at]!.data === "string");
    return { bytes, ends, times, texts };
}

/** Calls `each` for every message, in the order of arrival; binary ones are views of the batch's bytes. */
export function unpack(
    { bytes, ends, times, texts }: Batch,
    each: (message: { data: string | Uint8Array; arrival: number }) => void,
): void {
    const isText = new Set(texts);
    let begin = 0;
    for (let at = 0; at < ends.length; at++) {
        const content = bytes.subarray(begin, ends[at]);
        each({ data: isText.has(at) ? decoder.decode(content) : content, arrival: times[at]! });
        begin = ends[at]!;
    }
}

/** A byte order mark is a part of a text like any other. */
const decoder = new TextDecoder("utf-8", { ignoreBOM: true });
