import { defineConfig } from "vitest/config";

// One file after the other: there is one port, and one daemon at a time.
export default defineConfig({
    test: {
        fileParallelism: false,
        testTimeout: 90_000,
        hookTimeout: 60_000,
        expect: { poll: { timeout: 15_000, interval: 50 } },
    },
});
