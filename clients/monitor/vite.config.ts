import { defineConfig } from "vite";

export default defineConfig({
    base: "./", // works under any path of any server
    // Older phones in plants; nothing is inlined, so that the page's security policy can forbid inline code.
    build: { target: "es2022", assetsInlineLimit: 0, modulePreload: { polyfill: false } },
});
