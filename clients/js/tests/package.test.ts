import { execFileSync, spawn } from "node:child_process";
import { copyFileSync, mkdirSync, mkdtempSync, readFileSync, rmSync, symlinkSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { afterAll, beforeAll, beforeEach, afterEach, expect, test } from "vitest";
import { Machine, project } from "./machine.js";

/** The package as somebody else installs it, and the examples of its README. */

const workspace = join(project, "clients/js");
const readme = readFileSync(join(workspace, "README.md"), "utf8");
const folder = mkdtempSync(join(tmpdir(), "vorbel-package-"));

/** What `npm install FILE ws` makes, without the network that this takes. */
beforeAll(() => {
    execFileSync("npm", ["run", "--silent", "build"], { cwd: workspace });
    const packed = execFileSync("npm", ["pack", "--silent", "--pack-destination", folder], {
        cwd: workspace,
        encoding: "utf8",
    });
    const modules = join(folder, "node_modules");
    mkdirSync(modules);
    execFileSync("tar", ["-xzf", join(folder, packed.trim()), "-C", modules]);
    execFileSync("mv", [join(modules, "package"), join(modules, "vorbel")]);
    for (const name of ["@msgpack", "ws"])
        symlinkSync(join(project, "clients/node_modules", name), join(modules, name));
}, 60_000);
afterAll(() => rmSync(folder, { recursive: true }));

let machine: Machine;
beforeEach(async () => {
    machine = new Machine();
    machine.play();
    await machine.startDaemon();
});
afterEach(() => machine.stop());

/** Runs a program of the README until it has printed a line that fits, or ended. */
async function run(name: string, line: RegExp): Promise<string> {
    const code = [...readme.matchAll(/```js\n(.*?)```/gs)]
        .map(([, code]) => code!)
        .find((code) => code.includes(`// ${name}:`))!;
    writeFileSync(join(folder, name), code.replaceAll("192.168.1.20", "127.0.0.1"));
    const program = spawn("node", [name], { cwd: folder, stdio: ["ignore", "pipe", "inherit"] });
    let output = "";
    for await (const piece of program.stdout.setEncoding("utf8")) {
        output += piece;
        if (line.test(output)) break;
    }
    program.kill();
    return output;
}

test("gives the first value as its README says", async () => {
    expect(await run("first.mjs", /motor\.speed \d+\n/)).toMatch(
        /^connected to \{ .*type: 'demo machine'.* \}\nmotor\.speed \d+\n/,
    );
});

test("is loaded by CommonJS as its README says", async () => {
    expect(await run("first.cjs", /\n/)).toMatch(/^connected to /);
});

test("has one file that needs nothing else", () => {
    const alone = mkdtempSync(join(tmpdir(), "vorbel-bundle-"));
    copyFileSync(join(folder, "node_modules/vorbel/dist/vorbel.bundle.js"), join(alone, "vorbel.bundle.mjs"));
    const program = `import { encodeValues, toUrl } from "./vorbel.bundle.mjs"; console.log(toUrl("a"), encodeValues({ a: 5 }).join());`;
    const output = execFileSync("node", ["--input-type=module", "-e", program], { cwd: alone, encoding: "utf8" });
    expect(output).toBe("ws://a:10443 129,161,97,5\n");
    expect(readFileSync(join(alone, "vorbel.bundle.mjs"), "utf8")).toMatch(
        /^\/\*! Contains @msgpack\/msgpack:\nCopyright/,
    );
    rmSync(alone, { recursive: true });
});
