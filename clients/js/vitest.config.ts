import { defineConfig } from "vitest/config";

// One file after the other: there is one port, and one daemon at a time.
export default defineConfig({ test: { fileParallelism: false, testTimeout: 30_000, hookTimeout: 30_000 } });
