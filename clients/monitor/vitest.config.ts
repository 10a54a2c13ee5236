import { defineConfig } from "vitest/config";

// One file after the other: there is one port, and one daemon at a time.
export default defineConfig({
    test: {
        fileParallelism: false,
        testTimeout: 120_000,
        hookTimeout: 60_000,
        expect: { poll: { timeout: 30_000, interval: 50 } },
        // On a machine that computes beside, a browser stands still for seconds. Whatever fails is tried once more, and
        // the summary says so.
        retry: 1,
    },
});
