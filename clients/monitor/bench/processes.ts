import { readdirSync, readFileSync } from "node:fs";

/** The processor time of processes, as Linux tells it. */

/** Ticks of the clock of /proc in a second. */
const TICKS = 100;

type Stat = { name: string; parent: number; seconds: number };

/** Seconds by what they were spent on: "browser", "renderer: DedicatedWorker" ... */
export type Times = Map<string, number>;

/** What the browser of a process has taken so far, by kind of process and by thread. */
export function browserTimes(root: number): Times {
    const times: Times = new Map();
    for (const pid of below(root)) {
        const kind = kindOf(pid);
        if (kind === undefined) continue;
        for (const thread of list(`/proc/${pid}/task`)) {
            const stat = statOf(`/proc/${pid}/task/${thread}/stat`);
            if (stat) add(times, thread === pid ? `${kind}: main` : `${kind}: ${stat.name}`, stat.seconds);
        }
    }
    return times;
}

/** What was added to `before` meanwhile. */
export function since(before: Times, after: Times): Times {
    return new Map([...after].map(([name, seconds]) => [name, seconds - (before.get(name) ?? 0)]));
}

export function total(times: Times): number {
    return [...times.values()].reduce((sum, seconds) => sum + seconds, 0);
}

function add(times: Times, name: string, seconds: number): void {
    times.set(name, (times.get(name) ?? 0) + seconds);
}

function below(root: number): string[] {
    const stats = list("/proc")
        .filter((name) => /^\d+$/.test(name))
        .map((pid) => [Number(pid), statOf(`/proc/${pid}/stat`)] as const);
    const found = new Set([root]);
    for (let count = 0; count < found.size;) {
        count = found.size;
        for (const [pid, stat] of stats) if (stat && found.has(stat.parent)) found.add(pid);
    }
    return [...found].map(String);
}

/** What a process is for the browser; undefined where it is none of one. */
function kindOf(pid: string): string | undefined {
    const command = read(`/proc/${pid}/cmdline`)?.split(/[\0 ]/) ?? [];
    if (!command[0]?.includes("chrom")) return undefined;
    const sub = command.find((word) => word.startsWith("--utility-sub-type="))?.match(/=(\w+)/)?.[1];
    return sub ?? command.find((word) => word.startsWith("--type="))?.slice("--type=".length) ?? "browser";
}

function statOf(file: string): Stat | undefined {
    const text = read(file);
    if (text === undefined) return undefined;
    const end = text.lastIndexOf(")");
    const fields = text.slice(end + 2).split(" ");
    const seconds = (Number(fields[11]) + Number(fields[12])) / TICKS;
    return { name: text.slice(text.indexOf("(") + 1, end), parent: Number(fields[1]), seconds };
}

function list(folder: string): string[] {
    try {
        return readdirSync(folder);
    } catch {
        return []; // it has ended meanwhile
    }
}

function read(file: string): string | undefined {
    try {
        return readFileSync(file, "utf8");
    } catch {
        return undefined;
    }
}
