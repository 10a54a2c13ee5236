/** Acts with a signal that is given up as soon as one of several is. Not all browsers have AbortSignal.any(). */
export async function withEither<T>(
    signals: readonly AbortSignal[],
    act: (either: AbortSignal) => Promise<T>,
): Promise<T> {
    const either = new AbortController();
    const giveUp = () => either.abort();
    for (const signal of signals) {
        if (signal.aborted) giveUp();
        signal.addEventListener("abort", giveUp);
    }
    try {
        return await act(either.signal);
    } finally {
        for (const signal of signals) signal.removeEventListener("abort", giveUp);
    }
}
