import { setTimeout as sleep } from "node:timers/promises";
import { expect, test } from "vitest";
import { connected, openSchema, page, row, value } from "./fixture.js";
import { every, puppet } from "./impostor.js";

/** Values have the age and the place in a plot that their arrival gives them, however late the page is. */

/** Keeps the page from doing anything else for so many seconds. */
function block(seconds: number): Promise<void> {
    return page.evaluate((milliseconds) => {
        const end = performance.now() + milliseconds;
        while (performance.now() < end);
    }, 1000 * seconds);
}

const READ = { "@mac": 5, "@cmd": 2, "@format": "s" };

async function useSchema(schema: object): Promise<void> {
    await openSchema();
    await page.getByLabel("Schema as JSON").fill(JSON.stringify(schema));
    await page.getByRole("button", { name: "Use here only" }).click();
}

/** The age in seconds that a row shows. */
async function ageOf(path: string): Promise<number> {
    return parseFloat((await row(path).locator(".age").textContent())!);
}

/** Where a plot's only curve goes up, as shares of the canvas' width. */
function rises(): Promise<number[]> {
    return page.locator(".plots canvas").evaluate((element) => {
        const { width, height } = element as HTMLCanvasElement;
        const { data } = (element as HTMLCanvasElement).getContext("2d")!.getImageData(0, 0, width, height);
        const isCurve = (x: number, y: number) => {
            const at = 4 * (y * width + x);
            const [red, green, blue] = [data[at]!, data[at + 1]!, data[at + 2]!];
            return data[at + 3]! > 128 && Math.max(red, green, blue) - Math.min(red, green, blue) > 60;
        };
        const heights = Array.from({ length: width }, (_, x) => {
            let count = 0;
            for (let y = 0; y < height; y++) if (isCurve(x, y)) count++;
            return count;
        });
        return heights.flatMap((count, x) => (count > height / 3 ? [x / width] : []));
    });
}

test("ages are those of arrival, also of what came while the page could not take it", async () => {
    const { send } = await puppet();
    send({ a: 1 });
    await value("a").getByText("1").waitFor();
    const blocked = block(6);
    await sleep(1000);
    send({ a: 2 });
    await blocked;
    await value("a").getByText("2").waitFor();
    const age = await ageOf("a");
    expect(age).toBeGreaterThan(4);
    expect(age).toBeLessThan(8);
});

test("plots have readings where they came, also those that came while the page could not take them", async () => {
    const { send } = await puppet();
    let level = 0;
    every(50, () => send({ a: level }));
    await row("a").getByRole("button", { name: "Plot" }).click();
    await page.getByLabel("Time span").selectOption("10 s");
    await sleep(1500);
    const blocked = block(5);
    await sleep(1500);
    level = 1; // 3.5 s before the end of the pause
    const changed = performance.now();
    await blocked;
    await value("a").getByText("1").waitFor();
    await page.getByRole("button", { name: "Pause" }).click();
    const age = (performance.now() - changed) / 1000;
    await expect.poll(async () => (await rises()).length).toBeGreaterThan(0);
    // Of 10 s on nine tenths of the width: as far from the right edge as it is old, and not at the end of the block.
    const expected = 0.98 - 0.09 * age;
    for (const place of await rises()) {
        expect(place).toBeGreaterThan(expected - 0.12);
        expect(place).toBeLessThan(expected + 0.12);
    }
});

test("a page that cannot follow says by how much, draws less, and catches up", async () => {
    const { send } = await puppet();
    let count = 0;
    every(10, () => {
        for (let at = 0; at < 20; at++) send({ count: ++count });
    });
    await value("count").getByText(/\d/).waitFor();
    const behind = page.locator(".behind");
    expect(await behind.count()).toBe(0);
    // Whatever message comes, the page needs 4 ms for it: twice or more of what it has.
    await page.evaluate(() => {
        const hog = { on: true, draws: 0 };
        (window as any).hog = hog;
        const data = Object.getOwnPropertyDescriptor(MessageEvent.prototype, "data")!;
        Object.defineProperty(MessageEvent.prototype, "data", {
            get() {
                const content = data.get!.call(this);
                const end = performance.now() + 4 * (content?.batch?.ends.length ?? 0);
                while (hog.on && performance.now() < end);
                return content;
            },
        });
        new MutationObserver(() => hog.draws++).observe(document.querySelector(".all")!, {
            subtree: true,
            characterData: true,
            childList: true,
        });
    });
    await behind.getByText(/^\s*[1-9][.\d]* s behind/).waitFor();
    const draws = () => page.evaluate(() => (window as any).hog.draws as number);
    const before = await draws();
    await sleep(5000);
    expect((await draws()) - before).toBeLessThan(9); // ten a second otherwise
    await page.evaluate(() => void ((window as any).hog.on = false));
    await behind.waitFor({ state: "detached" });
    await expect.poll(() => ageOf("count")).toBeLessThan(0.5);
    await connected();
});

test("what waits for a page that does not follow is bounded: the connection is given up, and said why", async () => {
    const { send } = await puppet();
    send({ a: 1 });
    await value("a").getByText("1").waitFor();
    const blocked = block(12); // 40 MiB take long on a busy machine
    await sleep(500);
    const text = "x".repeat(1 << 20);
    for (let count = 0; count < 40; count++) send({ a: text });
    await blocked;
    await page.getByRole("log").getByText("the page could not follow: more than 32 MiB waited for it").waitFor();
    await connected();
});

test("a burst of 9,000 messages loses none of them, nor a change that lasted for one", async () => {
    const { send } = await puppet();
    await useSchema({ all: READ, held: { ...READ, "@observe": true } });
    send({ all: 0, held: 0 });
    await value("all").getByText("0").waitFor();
    await row("all").getByRole("button", { name: "Plot" }).click();
    await row("held").getByRole("button", { name: "Plot" }).click();
    for (let at = 1; at <= 9000; at++) {
        send(at === 4321 ? { all: at, held: 30_000 } : at === 4322 ? { all: at, held: 1 } : { all: at });
    }
    await value("all").getByText("9000").waitFor();
    await page.getByRole("button", { name: "Measure" }).click();
    const measured = (path: string) => page.locator(`.measurements tr:has(th:text-is("${path}")) td`).allTextContents();
    await expect.poll(() => measured("all")).toEqual(["0", "9000", "4500"]); // the mean of all, if none is missing
    expect((await measured("held")).slice(0, 2)).toEqual(["0", "30000"]);
});

test("ages and plots do not heed the system's clock, which is set now and then", async () => {
    const { send } = await puppet();
    every(50, () => send({ a: Math.sin(performance.now() / 300) }));
    send({ b: 1 });
    await row("a").getByRole("button", { name: "Plot" }).click();
    await sleep(2000);
    await page.evaluate(() => {
        const dateNow = Date.now.bind(Date);
        Date.now = () => dateNow() - 3_600_000;
    });
    await sleep(1500);
    expect(await ageOf("b")).toBeGreaterThan(3);
    expect(await ageOf("a")).toBeLessThan(1);
    send({ b: 2 });
    await expect.poll(() => ageOf("b")).toBeLessThan(1);
});
