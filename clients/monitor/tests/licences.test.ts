import { readdirSync, readFileSync } from "node:fs";
import { join, resolve } from "node:path";
import { fileURLToPath } from "node:url";
import { describe, expect, test } from "vitest";

const clients = resolve(fileURLToPath(import.meta.url), "../../..");
const read = (...path: string[]) => readFileSync(join(clients, ...path), "utf8");
const inOneLine = (text: string) => text.replace(/\s+/g, " ").trim();

type Locked = { dev?: boolean; link?: boolean; dependencies?: Record<string, string> };
const locked: Record<string, Locked> = JSON.parse(read("package-lock.json")).packages;

/** What packages need, and what that needs. */
function neededBy(names: string[], found = new Set<string>()): Set<string> {
    for (const name of names.filter((name) => !found.has(name))) {
        found.add(name);
        neededBy(Object.keys(locked[`node_modules/${name}`]?.dependencies ?? {}), found);
    }
    return found;
}

const { dependencies } = JSON.parse(read("monitor/package.json"));
const forOthers = neededBy([...Object.keys(dependencies), "@msgpack/msgpack"].filter((name) => name !== "mqtt"));
/** That of mqtt for browsers has inside what it needs of others there, and says of which. */
const build = read("node_modules/mqtt/dist/mqtt.js");
const isInBuild = (name: string) => name === "mqtt" || build.includes(`// node_modules/${name}/`);

/** What the page is built from, beside the clients' own code. */
const contained = Object.keys(locked)
    .filter((path) => path.startsWith("node_modules/") && !locked[path]!.dev && !locked[path]!.link)
    .filter((path) => !path.includes("/node_modules/"))
    .filter((path) => forOthers.has(nameOf(path)) || isInBuild(nameOf(path)));

function nameOf(path: string): string {
    return path.slice("node_modules/".length);
}
const shipped = inOneLine(read("../packaging/copyright").replace(/^ \.$/gm, ""));

describe("the copyright file of the Debian package", () => {
    test("knows what the page contains", () => {
        expect(contained).toEqual(expect.arrayContaining(["node_modules/preact", "node_modules/mqtt-packet"]));
    });

    test.each(contained)("names the holder and has the terms of %s", (path) => {
        const name = readdirSync(join(clients, path)).find((name) => /^licen[cs]e/i.test(name))!;
        const paragraphs = read(path, name)
            .split(/\n\s*\n/)
            .map((paragraph) => inOneLine(paragraph.replace(/^["#*\s]+|[-"*\s]+$/g, "")))
            .filter(Boolean);
        const holder = paragraphs.findIndex((paragraph) => paragraph.startsWith("Copyright"));
        for (const name of paragraphs[holder]!.split(/Copyright (?:\(c\) )?/).filter(Boolean)) {
            expect(shipped).toContain(name.trim().replace(/\.$/, ""));
        }
        const terms = paragraphs.slice(holder + 1);
        expect(terms.length).toBeGreaterThan(0);
        for (const paragraph of terms) expect(shipped).toContain(paragraph);
    });
});
