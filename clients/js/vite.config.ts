import { readFileSync } from "node:fs";
import { defineConfig } from "vite";

const licence = readFileSync(new URL("../node_modules/@msgpack/msgpack/LICENSE", import.meta.url), "utf8");

// The one file for pages that have no bundler; what tsc built stays beside it.
export default defineConfig({
    build: {
        target: "es2022",
        emptyOutDir: false,
        lib: { entry: "src/index.ts", formats: ["es"], fileName: () => "vorbel.bundle.js" },
        rollupOptions: { output: { banner: `/*! Contains @msgpack/msgpack:\n${licence.trim()}\n*/` } },
    },
});
