import { execFileSync, spawn, type ChildProcess } from "node:child_process";
import { once } from "node:events";
import { mkdtempSync, rmSync } from "node:fs";
import { tmpdir } from "node:os";
import { join, resolve } from "node:path";
import { fileURLToPath } from "node:url";
import type { BrowserContext } from "playwright-core";
import { afterAll, beforeAll, expect, test } from "vitest";
import { Machine } from "../../js/tests/machine.js";
import { dist, startWith } from "./page.js";
import { Database, Gateway, Mosquitto, passwordOf } from "./plant.js";

const script = resolve(fileURLToPath(import.meta.url), "../../../../packaging/tests/proxy.py");

const machine = new Machine();
const broker = new Mosquitto();
const database = new Database();
const gateway = new Gateway("press7", broker);
let proxy: ChildProcess;
let browser: BrowserContext;
const profile = mkdtempSync(join(tmpdir(), "vorbel-chromium-"));

beforeAll(async () => {
    machine.play();
    await machine.startDaemon();
    [broker.webPort, database.port] = [9001, 8428]; // where the documented proxy looks for them
    await Promise.all([broker.begin(), database.begin()]);
    gateway.begin();
    proxy = spawn("/usr/bin/python3", [script, dist, "fleet"], { stdio: ["pipe", "pipe", "inherit"] });
    const [path] = await once(proxy.stdout!.setEncoding("utf8"), "data");
    const trusting = [
        "--host-resolver-rules=MAP board.example.com 127.0.0.1",
        `--ignore-certificate-errors-spki-list=${keyHash(path.trim())}`,
    ];
    browser = await startWith(profile, trusting, { username: "alice", password: "secret" });
});
afterAll(async () => {
    await browser.close();
    rmSync(profile, { recursive: true, force: true });
    proxy.stdin!.end();
    await once(proxy, "exit");
    await gateway.stop();
    await Promise.all([broker.stop(), database.stop(), machine.stop()]);
});

/** How Chromium names the key of a certificate that it shall trust. */
function keyHash(certificate: string): string {
    const steps = `openssl x509 -in "$0" -noout -pubkey | openssl pkey -pubin -outform der |
                   openssl dgst -sha256 -binary | openssl base64`;
    return execFileSync("sh", ["-c", steps, certificate], { encoding: "utf8" }).trim();
}

test("behind the documented proxy the fleet's page finds the broker and the history by itself", async () => {
    await database.take([`vorbel,board=press7,path=motor.speed value=5555 ${Date.now() - 1_800_000}`]);
    const page = await browser.newPage();
    page.setDefaultTimeout(20_000);
    const complaints: string[] = [];
    page.on("console", (message) => message.type() === "error" && complaints.push(message.text()));
    page.on("pageerror", (error) => complaints.push(String(error)));
    await page.goto("https://board.example.com/");
    await page.getByRole("link", { name: "Fleet" }).click();
    expect(await page.getByLabel("Address of the broker").inputValue()).toBe("wss://board.example.com/mqtt");
    await page.getByLabel("User", { exact: true }).fill("operator");
    await page.getByLabel("Password", { exact: true }).fill(passwordOf("operator"));
    await page.getByRole("button", { name: "Connect" }).click();
    await page.getByLabel("Value to show of each board").fill("motor.speed");
    await page.keyboard.press("Enter");
    await page.getByRole("button", { name: "plot motor.speed of press7" }).click();
    await page.getByLabel("Time span").selectOption("1 h");
    await page.getByRole("button", { name: "Measure" }).click();
    await page.getByRole("row", { name: "press7.motor.speed" }).getByText("5555 rpm").waitFor();
    await page.getByRole("button", { name: "press7", exact: true }).click();
    await page.getByRole("button", { name: "Set motor.setpoint" }).click();
    await page.getByLabel("motor.setpoint", { exact: true }).fill("1200");
    await page.keyboard.press("Enter");
    await page.getByText("Done: 1200 (raw 1200)").waitFor();
    expect(machine.heard).toEqual(["mac 5 cmd 3: b0 04"]);
    expect(complaints).toEqual([]);
});
