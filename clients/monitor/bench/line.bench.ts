import { loadavg } from "node:os";
import { setTimeout as sleep } from "node:timers/promises";
import type { Page } from "playwright-core";
import { test } from "vitest";
import { serve } from "../tests/page.js";
import { Browser } from "./browser.js";
import { browserTimes, since, total } from "./processes.js";
import { pathsOf, schemaOf, startSender, type Line } from "./sender.js";

/** What a page costs, and how often it can draw, while the line is as busy as it can be. */

const SECONDS = Number(process.env["SECONDS"] ?? 10);
const RUNS = Number(process.env["RUNS"] ?? 3);
const LINES: Record<string, Line> = {
    "125 frames of 8 leaves": { frames: 125, leavesOfFrame: 8, perSecond: 9000 },
    "1000 frames of 1 leaf": { frames: 1000, leavesOfFrame: 1, perSecond: 9000 },
    "375 frames of 8 leaves": { frames: 375, leavesOfFrame: 8, perSecond: 5600 },
};
const PLOTTED = 4;

type Counted = { frames: number; pictures: number; time: number };
type Figures = {
    cores: number;
    frames: number;
    pictures: number;
    messages: number;
    sender: number;
    behind: string;
    parts: string;
};

/** Counts the frames of the screen and the pictures of the plot; without the page's help. */
const COUNT = `
    window.counted = { frames: 0, pictures: 0 };
    const count = () => { counted.frames++; requestAnimationFrame(count); };
    requestAnimationFrame(count);
    const { clearRect } = CanvasRenderingContext2D.prototype;
    CanvasRenderingContext2D.prototype.clearRect = function (...box) {
        if (this.canvas.closest(".uplot")) counted.pictures++;
        return clearRect.apply(this, box);
    };`;

const FLOOR = `
    let count = 0;
    onmessage = ({ data }) => {
        const socket = new WebSocket(data);
        socket.binaryType = "arraybuffer";
        socket.onmessage = () => count++;
        setInterval(() => postMessage(count), 1000);
    };`;

async function openFloor(page: Page, url: string, address: string): Promise<void> {
    await page.goto(url + "machine.schema.json"); // a page without a program of its own
    await page.evaluate(COUNT);
    await page.evaluate(
        ([code, address]) => {
            const worker = new Worker(URL.createObjectURL(new Blob([code!])));
            worker.postMessage(`ws://${address}`);
            worker.onmessage = ({ data }) => ((window as any).counted.messages = data);
        },
        [FLOOR, address],
    );
}

async function openMonitor(page: Page, url: string, address: string, line: Line): Promise<void> {
    await page.goto(url + "machine.schema.json");
    await page.evaluate(
        ([address, schema]) => {
            localStorage.setItem("vorbel.address", address!);
            localStorage.setItem("vorbel.schema", schema!);
        },
        [address, JSON.stringify(schemaOf(line))],
    );
    await page.goto(`${url}?plot=${pathsOf(line, PLOTTED).join()}`);
    await page.evaluate(COUNT);
    await page.getByLabel("Time span").selectOption("10 s");
}

async function measure(browser: Browser, messages: () => number): Promise<Figures> {
    const counted = () => browser.ask<Counted>("({ ...counted, time: performance.now() })");
    await sleep(4000);
    const before = await counted();
    await sleep(2000);
    const [begin, times, own, sent] = [performance.now(), browserTimes(browser.pid), process.cpuUsage(), messages()];
    await sleep(1000 * SECONDS);
    const seconds = (performance.now() - begin) / 1000;
    const [spent, ownSpent] = [since(times, browserTimes(browser.pid)), process.cpuUsage(own)];
    const perSecond = (messages() - sent) / seconds;
    const after = await counted();
    const rate = (name: "frames" | "pictures") => (1000 * (after[name] - before[name])) / (after.time - before.time);
    const parts = [...spent].filter(([, time]) => time / seconds >= 0.01).sort(([, one], [, other]) => other - one);
    return {
        cores: total(spent) / seconds,
        frames: rate("frames"),
        pictures: rate("pictures"),
        messages: perSecond,
        sender: (ownSpent.user + ownSpent.system) / 1e6 / seconds,
        behind: await browser.ask("document.querySelector('.behind')?.textContent ?? ''"),
        parts: parts.map(([name, time]) => `${name} ${(time / seconds).toFixed(2)}`).join(", "),
    };
}

type Open = (page: Page, url: string, address: string, line: Line) => Promise<void>;

async function runOnce(line: Line, open: Open): Promise<Figures> {
    const { server, url } = await serve();
    const browser = new Browser();
    const sender = await startSender(line);
    try {
        await browser.drive((page) => open(page, url, sender.address, line));
        sender.begin();
        return await measure(browser, sender.sent);
    } finally {
        await browser.end();
        sender.stop();
        server.close();
    }
}

/** The run that cost least: what others do on the machine only adds to it. */
async function best(line: Line, open: Open): Promise<Figures> {
    const all: Figures[] = [];
    for (let run = 0; run < RUNS; run++) all.push(await runOnce(line, open));
    return all.sort((one, other) => one.cores - other.cores)[0]!;
}

function report(name: string, { cores, frames, pictures, messages, sender, behind, parts }: Figures): void {
    const figures = [
        `${cores.toFixed(2)} cores`,
        `${frames.toFixed(0)} frames/s`,
        `${pictures.toFixed(0)} pictures/s`,
        `${messages.toFixed(0)} messages/s`,
        `sender ${sender.toFixed(2)}`,
        `load ${loadavg()[0]!.toFixed(1)}`,
    ];
    console.log(`${name}: ${figures.join(", ")}${behind && `, ${behind}`}\n    ${parts}`);
}

const chosen = process.env["ONLY"] ?? "";
for (const [name, line] of Object.entries(LINES)) {
    const silent = { ...line, perSecond: 1 };
    const cases: [string, Line, Open][] = [
        [`${name}, ${line.perSecond} a second: a page that only counts`, line, openFloor],
        [`${name}, one a second: the monitor`, silent, openMonitor],
        [`${name}, ${line.perSecond} a second: the monitor`, line, openMonitor],
    ];
    for (const [title, sent, open] of cases) {
        test.runIf(title.includes(chosen))(title, async () => report(title, await best(sent, open)));
    }
}
