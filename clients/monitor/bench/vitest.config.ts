import { defineConfig } from "vitest/config";

// Figures for people; nothing here passes or fails by them.
export default defineConfig({
    test: {
        include: ["bench/*.bench.ts"],
        fileParallelism: false,
        testTimeout: 600_000,
        hookTimeout: 60_000,
        disableConsoleIntercept: true,
        reporters: ["dot"],
    },
});
