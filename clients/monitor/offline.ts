import { createHash } from "node:crypto";
import { readdirSync, readFileSync, writeFileSync } from "node:fs";
import { join, relative } from "node:path";
import type { Plugin } from "vite";

const hash = (content: string | Uint8Array) => createHash("sha256").update(content).digest("base64");

/** Tells a service worker, by the name of its file, which files the page consists of, once they are written. */
export function offline(worker: string): Plugin {
    return {
        name: "offline",
        apply: "build",
        writeBundle({ dir }) {
            const path = join(dir!, worker);
            const files = filesIn(dir!).filter((file) => file !== worker);
            const sums = files.sort().map((file) => [file, `sha256-${hash(readFileSync(join(dir!, file)))}`]);
            const list = JSON.stringify(Object.fromEntries(sums));
            const code = readFileSync(path, "utf8");
            const version = hash(list + code)
                .replace(/\W/g, "")
                .slice(0, 12);
            writeFileSync(path, `const FILES=${list},VERSION="${version}";${code}`);
        },
    };
}

function filesIn(folder: string): string[] {
    return readdirSync(folder, { recursive: true, withFileTypes: true })
        .filter((entry) => entry.isFile())
        .map((entry) => relative(folder, join(entry.parentPath, entry.name)));
}
