import { execFileSync, spawn, type ChildProcess } from "node:child_process";
import { mkdtempSync, readFileSync, rmSync, writeFileSync } from "node:fs";
import { connect } from "node:net";
import { tmpdir } from "node:os";
import { join, resolve } from "node:path";
import type { Readable } from "node:stream";
import { setTimeout as sleep } from "node:timers/promises";
import { fileURLToPath } from "node:url";
import type { Schema } from "../src/index.js";

export const project = resolve(fileURLToPath(import.meta.url), "../../../..");
export const build = process.env["VORBEL_BUILD_DIR"] ?? join(project, "build/release");
const python = "/usr/bin/python3"; // Debian's, whatever else is in the path

export const ADDRESS = "ws://127.0.0.1:10443";
export const machineSchema: Schema = JSON.parse(readFileSync(join(project, "examples/machine.schema.json"), "utf8"));

/** Polls until `condition` is true; rejects after `seconds`. */
export async function until(condition: () => boolean, what: string, seconds = 10): Promise<void> {
    const deadline = Date.now() + seconds * 1000;
    while (!condition()) {
        if (Date.now() > deadline) throw new Error(`waited ${seconds} s for ${what}`);
        await sleep(10);
    }
}

/** As VORBEL_SOURCE names them. */
export type Link = "serialport" | "socketcan";

/** The daemon of this build on a virtual adapter or CAN bus, and what plays there. */
export class Machine {
    readonly #folder = mkdtempSync(join(tmpdir(), "vorbel-"));
    readonly #running = new Set<ChildProcess>();
    #daemon: ChildProcess | undefined;
    /** What the daemon put on the bus: "mac 5 cmd 3: b0 04". */
    readonly heard: string[] = [];
    /** The beginnings of the lines in which the daemon says which schemas it has received. */
    readonly schemas: string[] = [];

    constructor(readonly link: Link = "serialport") {}

    /** Starts the simulated machine: motor, battery and door. */
    play(): void {
        this.#startBus("--seed", "1", "--noise", "0");
    }

    /** Sends the frames of the lines of a `candump -l` log, at its pace, `seconds` after the link came up. */
    replay(lines: string[], seconds: number): void {
        const log = join(this.#folder, "frames.log");
        writeFileSync(log, lines.map((line) => `${line}\n`).join(""));
        this.#startBus("--replay", log, "--wait", String(seconds));
    }

    async startDaemon(environment: Record<string, string> = {}): Promise<void> {
        this.#daemon = this.#spawn(join(build, "vorbel"), [], {
            ...this.#linkEnvironment(),
            VORBEL_DEVICE_TYPE: "demo machine",
            VORBEL_DEVICE_ID: "A7",
            ...environment,
        });
        eachLine(this.#daemon.stderr!, (line) => {
            if (line.includes("Received schema:")) this.schemas.push(line.slice(0, 300));
        });
        await listening();
    }

    async stopDaemon(): Promise<void> {
        await end(this.#daemon);
        this.#daemon = undefined;
    }

    async stop(): Promise<void> {
        await Promise.all([...this.#running].map(end));
        rmSync(this.#folder, { recursive: true, force: true });
    }

    #bus(...options: string[]): string[] {
        const link = { serialport: "--adapter", socketcan: "--virtual-can" }[this.link];
        return [join(project, "sim/simulated_bus.py"), link, this.#folder, ...options];
    }

    /** The bus tells, as shell assignments, how a program finds it. */
    #linkEnvironment(): Record<string, string> {
        const script = `unset $(env | sed -n 's/^\\(VORBEL_[A-Z_]*\\)=.*/\\1/p'); eval "$0"; exec env -0`;
        const assignments = execFileSync(python, this.#bus("--env"), { encoding: "utf8", env: this.#environment });
        const variables = execFileSync("sh", ["-c", script, assignments], { encoding: "utf8" });
        return Object.fromEntries(
            variables
                .split("\0")
                .filter(Boolean)
                .map((line) => line.split(/=(.*)/s).slice(0, 2)),
        );
    }

    get #environment() {
        return { ...process.env, VORBEL_BUILD_DIR: build };
    }

    #startBus(...options: string[]): void {
        const bus = this.#spawn(python, this.#bus(...options), this.#environment);
        eachLine(bus.stdout!, (line) => {
            if (line.startsWith("bus heard ")) this.heard.push(line.slice("bus heard ".length));
        });
    }

    #spawn(program: string, parameters: string[], env: NodeJS.ProcessEnv): ChildProcess {
        const child = spawn(program, parameters, { env, stdio: ["ignore", "pipe", "pipe"] });
        // Read, or a full pipe would stop it; shown only when it fails.
        let said = "";
        child.stderr.setEncoding("utf8").on("data", (piece: string) => (said = (said + piece).slice(-4000)));
        child.stdout.resume();
        child.on("error", (error) => console.error(`${program}: ${error.message}`));
        child.on("exit", (code) => code && console.error(`${program} ended with status ${code}:\n${said}`));
        this.#running.add(child);
        child.on("exit", () => this.#running.delete(child));
        return child;
    }
}

function eachLine(stream: Readable, take: (line: string) => void): void {
    let text = "";
    stream.setEncoding("utf8").on("data", (piece: string) => {
        const lines = (text + piece).split("\n");
        text = lines.pop()!;
        lines.forEach(take);
    });
}

async function end(child: ChildProcess | undefined): Promise<void> {
    if (!child || child.exitCode !== null || child.signalCode !== null) return;
    const ended = new Promise((resolve) => child.once("exit", resolve));
    child.kill("SIGTERM");
    await ended;
}

async function listening(): Promise<void> {
    for (let attempt = 0; attempt < 500; attempt++) {
        const { promise, answers } = probe();
        if (await promise) return;
        answers.destroy();
        await sleep(20);
    }
    throw new Error("the daemon does not listen");
}

function probe() {
    const answers = connect(10443, "127.0.0.1");
    const promise = new Promise<boolean>((resolve) => {
        answers.once("connect", () => resolve(true)).once("error", () => resolve(false));
    });
    void promise.then(() => answers.destroy());
    return { promise, answers };
}
