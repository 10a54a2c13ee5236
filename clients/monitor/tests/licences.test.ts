import { readdirSync, readFileSync } from "node:fs";
import { join, resolve } from "node:path";
import { fileURLToPath } from "node:url";
import { describe, expect, test } from "vitest";

const clients = resolve(fileURLToPath(import.meta.url), "../../..");
const read = (...path: string[]) => readFileSync(join(clients, ...path), "utf8");
const inOneLine = (text: string) => text.replace(/\s+/g, " ").trim();

const locked: Record<string, { dev?: boolean; link?: boolean }> = JSON.parse(read("package-lock.json")).packages;
/** What the page is built from, beside the clients' own code. */
const contained = Object.keys(locked).filter(
    (path) => path.startsWith("node_modules/") && !locked[path]!.dev && !locked[path]!.link,
);
const shipped = inOneLine(read("../packaging/copyright").replace(/^ \.$/gm, ""));

describe("the copyright file of the Debian package", () => {
    test("knows what the page contains", () => expect(contained).toContain("node_modules/preact"));

    test.each(contained)("names the holder and has the terms of %s", (path) => {
        const name = readdirSync(join(clients, path)).find((name) => name.startsWith("LICENSE"))!;
        const paragraphs = read(path, name)
            .split(/\n\s*\n/)
            .map(inOneLine);
        const holder = paragraphs.findIndex((paragraph) => paragraph.startsWith("Copyright"));
        expect(shipped).toContain(paragraphs[holder]!.replace(/^Copyright (\(c\) )?|\.$/g, ""));
        const terms = paragraphs.slice(holder + 1);
        expect(terms.length).toBeGreaterThan(0);
        for (const paragraph of terms) expect(shipped).toContain(paragraph);
    });
});
