import { defineConfig } from "vite";
import { offline } from "./offline";

export default defineConfig({
    base: "./", // works under any path of any server
    // Older phones in plants; nothing is inlined, so that the page's security policy can forbid inline code.
    build: {
        target: "es2022",
        assetsInlineLimit: 0,
        modulePreload: { polyfill: false },
        rollupOptions: {
            input: { index: "index.html", sw: "src/offline/worker.ts" },
            // Browsers look for a newer service worker under the same name.
            output: { entryFileNames: ({ name }) => (name === "sw" ? "sw.js" : "assets/[name]-[hash].js") },
        },
    },
    plugins: [offline("sw.js")],
});
