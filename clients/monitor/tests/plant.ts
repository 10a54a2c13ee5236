import { execFileSync, spawn, type ChildProcess } from "node:child_process";
import { mkdirSync, mkdtempSync, rmSync, writeFileSync } from "node:fs";
import { createServer, connect as connectTo, type AddressInfo } from "node:net";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { setTimeout as sleep } from "node:timers/promises";
import mqtt, { type MqttClient } from "mqtt";
import { build, project } from "../../js/tests/machine.js";

/** What stands between a daemon and the page of a fleet: real brokers, real gateways, a real database. */

/** Those who may log in, by the names of their roles; each has the password "NAME-secret". */
export const passwordOf = (user: string) => `${user}-secret`;

async function freePort(): Promise<number> {
    const server = createServer();
    await new Promise<void>((listening) => server.listen(0, "127.0.0.1", listening));
    const { port } = server.address() as AddressInfo;
    await new Promise((closed) => server.close(closed));
    return port;
}

function answers(port: number): Promise<boolean> {
    return new Promise((resolve) => {
        const socket = connectTo(port, "127.0.0.1");
        socket.on("connect", () => resolve(true)).on("error", () => resolve(false));
        socket.on("connect", () => socket.destroy());
    });
}

/** A program with a folder of its own, which is removed when it has ended. */
class Program {
    readonly folder = mkdtempSync(join(tmpdir(), "vorbel-plant-"));
    log = "";
    #child: ChildProcess | undefined;

    protected start(program: string, parameters: string[], env: NodeJS.ProcessEnv = process.env): void {
        const child = spawn(program, parameters, { env, stdio: ["ignore", "pipe", "pipe"] });
        for (const stream of [child.stdout, child.stderr]) {
            stream.setEncoding("utf8").on("data", (piece: string) => (this.log = (this.log + piece).slice(-100_000)));
        }
        this.#child = child;
    }

    protected async listening(...ports: number[]): Promise<void> {
        for (let attempt = 0; attempt < 600; attempt++) {
            if ((await Promise.all(ports.map(answers))).every(Boolean)) return;
            await sleep(50);
        }
        throw new Error(`nothing listens on ${ports.join()}:\n${this.log}`);
    }

    /** Ends it without another word, as a power loss does. */
    async kill(): Promise<void> {
        await this.#end("SIGKILL");
    }

    async stop(): Promise<void> {
        await this.#end("SIGTERM");
        rmSync(this.folder, { recursive: true, force: true });
    }

    async #end(signal: NodeJS.Signals): Promise<void> {
        const child = this.#child;
        this.#child = undefined;
        if (!child || child.exitCode !== null || child.signalCode !== null) return;
        const ended = new Promise((resolve) => child.once("exit", resolve));
        child.kill(signal);
        await ended;
    }
}

/** A broker with a listener for gateways and one for browsers. */
export abstract class BrokerProgram extends Program {
    port = 0;
    webPort = 0;
    /** What the page is given. */
    abstract readonly url: string;

    abstract begin(): Promise<void>;

    /** A client that is no gateway, and may say for a board what it likes. */
    publisher(): Promise<MqttClient> {
        const login = { username: "press8", password: passwordOf("press8") };
        return mqtt.connectAsync(`mqtt://127.0.0.1:${this.port}`, { ...login, protocolVersion: 4 });
    }

    protected async choosePorts(): Promise<void> {
        this.port ||= await freePort();
        this.webPort ||= await freePort();
    }
}

const BOARDS = ["press7", "press8"];

export class Mosquitto extends BrokerProgram {
    /** To one that is open, everybody may do everything. */
    constructor(readonly rights: "roles" | "open" = "roles") {
        super();
    }

    get url(): string {
        return `ws://127.0.0.1:${this.webPort}/mqtt`;
    }

    async begin(): Promise<void> {
        await this.choosePorts();
        const passwords = join(this.folder, "passwords");
        const users = [...BOARDS, "observer", "operator"];
        writeFileSync(passwords, users.map((user) => `${user}:${passwordOf(user)}\n`).join(""), { mode: 0o600 });
        execFileSync("mosquitto_passwd", ["-U", passwords]);
        const rules = [
            "pattern write vorbel/+/set/%u/#",
            ...BOARDS.flatMap((board) => [`user ${board}`, `topic readwrite vorbel/${board}/#`]),
            "user observer",
            "topic read vorbel/#",
            "topic deny vorbel/+/set/#",
            "user operator",
            "topic read vorbel/#",
        ];
        writeFileSync(join(this.folder, "acl"), rules.map((line) => `${line}\n`).join(""), { mode: 0o600 });
        const lines = [
            `user ${process.env["USER"] ?? "root"}`,
            ...(this.rights === "open"
                ? ["allow_anonymous true"]
                : ["allow_anonymous false", `acl_file ${join(this.folder, "acl")}`, `password_file ${passwords}`]),
            `listener ${this.port} 127.0.0.1`,
            `listener ${this.webPort} 127.0.0.1`,
            "protocol websockets",
            "max_queued_messages 100000",
            "log_dest stderr",
        ];
        const file = join(this.folder, "mosquitto.conf");
        writeFileSync(file, lines.map((line) => `${line}\n`).join(""));
        this.start("/usr/sbin/mosquitto", ["-c", file]);
        await this.listening(this.port, this.webPort);
    }
}

export class Nats extends BrokerProgram {
    #clientPort = 0;

    get url(): string {
        return `ws://127.0.0.1:${this.webPort}/mqtt`;
    }

    async begin(): Promise<void> {
        await this.choosePorts();
        this.#clientPort ||= await freePort();
        const board = (name: string) =>
            `{user: ${name}, password: "${passwordOf(name)}", permissions: {publish: ["vorbel.${name}.>"], ` +
            `subscribe: ["vorbel.${name}.>", "$MQTT.sub.>"]}}`;
        const person = (name: string, publish: string) =>
            `{user: ${name}, password: "${passwordOf(name)}", permissions: {publish: ${publish}, ` +
            `subscribe: ["vorbel", "vorbel.>", "$MQTT.sub.>"]}}`;
        const users = [
            ...BOARDS.map(board),
            person("observer", '{deny: ">"}'),
            person("operator", '["vorbel.*.set.operator.>"]'),
            `{user: stranger, password: "${passwordOf("stranger")}", permissions: {publish: {deny: ">"}, ` +
                'subscribe: ["vorbel.*.status", "$MQTT.sub.>"]}}',
        ];
        const text = `
            server_name: plant-1
            listen: 127.0.0.1:${this.#clientPort}
            jetstream { store_dir: "${join(this.folder, "store")}" }
            mqtt { host: 127.0.0.1, port: ${this.port} }
            websocket { host: 127.0.0.1, port: ${this.webPort}, no_tls: true }
            accounts { PLANT { jetstream: enabled, users: [${users.join("\n")}] } }
        `;
        const file = join(this.folder, "nats.conf");
        writeFileSync(file, text);
        this.start("/usr/sbin/nats-server", ["-c", file]);
        await this.listening(this.port, this.webPort);
    }
}

/** The gateway of a board, whose daemon is the one of this machine. */
export class Gateway extends Program {
    constructor(
        readonly id: string,
        readonly broker: BrokerProgram,
        /** What the user "operator" may write. */
        readonly writable = "motor.setpoint",
    ) {
        super();
    }

    begin(): void {
        const folders = Object.fromEntries(
            ["STATE_DIRECTORY", "RUNTIME_DIRECTORY", "CREDENTIALS_DIRECTORY"].map((name) => {
                const path = join(this.folder, name);
                mkdirSync(path, { recursive: true });
                return [name, path];
            }),
        );
        const password = join(this.folder, "password");
        writeFileSync(password, passwordOf(this.id));
        const file = join(this.folder, "gateway.ini");
        const lines = [
            "[broker]",
            `url = mqtt://127.0.0.1:${this.broker.port}`,
            `user = ${this.id}`,
            `password_file = ${password}`,
            ...(this.broker instanceof Nats ? ["version = 3.1.1"] : []),
            "[topics]",
            `id = ${this.id}`,
            "[schema]",
            `file = ${join(project, "examples/machine.schema.json")}`,
            "[values]",
            "interval_ms = 200",
            "[write]",
            `users = operator: ${this.writable}`,
        ];
        writeFileSync(file, lines.map((line) => `${line}\n`).join(""));
        const env = { ...process.env, ...folders, LC_ALL: "C.UTF-8" };
        this.start(join(build, "gateway/vorbel-gateway"), [file], env);
    }
}

/** A database for the history, in which nothing stands yet. */
export class Database extends Program {
    port = 0;

    get url(): string {
        return `http://127.0.0.1:${this.port}`;
    }

    async begin(): Promise<void> {
        this.port ||= await freePort();
        this.start("/usr/bin/victoria-metrics", [
            `-storageDataPath=${join(this.folder, "data")}`,
            `-httpListenAddr=127.0.0.1:${this.port}`,
            "-retentionPeriod=1y",
            "-memory.allowedBytes=64MB",
        ]);
        await this.listening(this.port);
    }

    /** Takes lines of Influx's protocol, with times in milliseconds. */
    async take(lines: string[]): Promise<void> {
        const response = await fetch(`${this.url}/write?precision=ms`, { method: "POST", body: lines.join("\n") });
        if (!response.ok) throw new Error(`the database answers ${response.status}`);
        await fetch(`${this.url}/internal/force_flush`);
    }
}
