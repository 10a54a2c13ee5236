import { readFileSync } from "node:fs";
import { loadavg } from "node:os";
import { join } from "node:path";
import { setTimeout as sleep } from "node:timers/promises";
import mqtt, { type MqttClient } from "mqtt";
import type { Page } from "playwright-core";
import { afterAll, beforeAll, test } from "vitest";
import { project } from "../../js/tests/machine.js";
import { serve } from "../tests/page.js";
import { Mosquitto } from "../tests/plant.js";
import { Browser } from "./browser.js";
import { browserTimes, since, total } from "./processes.js";

/** How often the page of a fleet can draw, with all its boards' values changing once a second. */

const SECONDS = Number(process.env["SECONDS"] ?? 10);
const BOARDS = Number(process.env["BOARDS"] ?? 2000);
const COLUMNS = ["motor.speed", "motor.current", "battery.charge"];
/** Milliseconds between two handfuls of values. */
const TICK = 10;

const broker = new Mosquitto("open");
let publisher: MqttClient;
let url: string;
let close: () => void;
let published = 0;

beforeAll(async () => {
    await broker.begin();
    const served = await serve();
    url = served.url;
    close = () => served.server.close();
    publisher = await mqtt.connectAsync(`mqtt://127.0.0.1:${broker.port}`);
    const schema = readFileSync(join(project, "examples/machine.schema.json"), "utf8");
    for (let at = 0; at < BOARDS; at++) {
        const status = { online: true, type: "press", id: String(at), since: Date.now(), boot: 1, lost: 0 };
        publisher.publish(`vorbel/press${at}/schema`, schema, { retain: true });
        await publisher.publishAsync(`vorbel/press${at}/status`, JSON.stringify(status), { retain: true, qos: 1 });
    }
});
afterAll(async () => {
    close();
    publisher.end(true);
    await broker.stop();
});

/** Every value of every board once a second, one after the other. */
function play(): () => void {
    const begun = performance.now();
    const perSecond = BOARDS * COLUMNS.length;
    let sent = 0;
    const timer = setInterval(() => {
        const due = Math.floor(((performance.now() - begun) * perSecond) / 1000);
        for (; sent < due; sent++) {
            const path = COLUMNS[sent % COLUMNS.length]!.replace(".", "/");
            const board = Math.floor(sent / COLUMNS.length) % BOARDS;
            publisher.publish(`vorbel/press${board}/now/${path}`, (20 * Math.random()).toFixed(2), { retain: true });
            published++;
        }
    }, TICK);
    return () => clearInterval(timer);
}

async function openFleet(page: Page): Promise<void> {
    await page.goto(`${url}?fleet=${broker.url}`);
    await page.getByRole("button", { name: "Connect" }).click();
    for (const path of COLUMNS) {
        await page.getByLabel("Value to show of each board").fill(path);
        await page.keyboard.press("Enter");
    }
    await page.getByText(`${BOARDS} boards, ${BOARDS} online`).waitFor();
    await page.evaluate(COUNT);
}

/** Notes when the frames of the screen come, and scrolls in each of them when asked to. */
const COUNT = `
    window.times = [];
    window.step = 0;
    const tick = (time) => {
        times.push(time);
        const grid = document.getElementById("boards-grid");
        if (step && grid.scrollTop + grid.clientHeight >= grid.scrollHeight) step = -Math.abs(step);
        if (step && grid.scrollTop === 0) step = Math.abs(step);
        grid.scrollTop += step;
        requestAnimationFrame(tick);
    };
    requestAnimationFrame(tick);`;

async function measure(browser: Browser, begin: string): Promise<string> {
    await browser.ask(`(() => { ${begin}; times.length = 0; })()`);
    const [before, sent] = [browserTimes(browser.pid), published];
    await sleep(1000 * SECONDS);
    const times = await browser.ask<number[]>("times");
    const spent = since(before, browserTimes(browser.pid));
    const gaps = times.slice(1).map((time, at) => time - times[at]!);
    const perSecond = (1000 * gaps.length) / (times.at(-1)! - times[0]!);
    const cores = (seconds: number) => (seconds / SECONDS).toFixed(2);
    return (
        `${perSecond.toFixed(1)} frames/s, the longest after ${Math.max(...gaps).toFixed(0)} ms, ` +
        `${((published - sent) / SECONDS).toFixed(0)} values/s, ${cores(total(spent))} cores for the browser, ` +
        `${cores(spent.get("renderer: main") ?? 0)} of them the page's own thread, load ${loadavg()[0]!.toFixed(1)}`
    );
}

test(`${BOARDS} boards`, async () => {
    const browser = new Browser();
    const stop = play();
    try {
        await browser.drive((page) => openFleet(page));
        await sleep(3000);
        const click = `document.querySelector('[title="Sort by motor.speed"]').click()`;
        console.log(`${BOARDS} boards, at rest: ${await measure(browser, "step = 0")}`);
        console.log(`${BOARDS} boards, scrolling: ${await measure(browser, "step = 57")}`);
        console.log(`${BOARDS} boards, sorted by a value, scrolling: ${await measure(browser, click)}`);
    } finally {
        stop();
        await browser.end();
    }
});
