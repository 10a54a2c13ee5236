import { describe, expect, test } from "vitest";
import { connected, page, row, sendSchema, value } from "./fixture.js";
import { every, puppet } from "./impostor.js";

/** Limits in the page: what is beyond them is seen, counted, listed and told of. */

const button = (name: string | RegExp) => page.getByRole("button", { name });
const leaf = { "@mac": 5, "@cmd": 2, "@format": "s" };
const alarms = () => page.locator(".alarm-list li");

/** A daemon that sends what it is told to, and a value with a limit. */
async function limited(high = "50") {
    const { send } = await puppet();
    await sendSchema({ level: { ...leaf, "@asBool": false }, other: { ...leaf, "@skip": 2 } });
    const greet = every(200, () => send({ level: 1, other: 1 })); // the page may still be with the daemon before
    await value("level").getByText("1", { exact: true }).waitFor();
    greet();
    await button("Set level").click();
    await page.getByText("Limits", { exact: true }).click();
    await page.getByLabel("High").fill(high);
    await button("Set limits").click();
    await page.getByText("Watched from now on").waitFor();
    await page.locator(".write").getByRole("button", { name: "Close" }).click();
    return send;
}

/** What the browser would show: the person is asked, and agrees or not. */
async function recordNotifications(answer: "granted" | "denied", by = "the page"): Promise<void> {
    await page.addInitScript((by) => {
        const taken = (title: string, { body, tag }: NotificationOptions) => {
            (window as any).notified.push([title, body, tag]);
            return Promise.resolve();
        };
        if (by === "the page") Object.defineProperty(navigator, "serviceWorker", { value: undefined });
        else ServiceWorkerRegistration.prototype.showNotification = taken;
    }, by);
    await page.addInitScript((answer) => {
        (window as any).notified = [];
        (window as any).asked = 0;
        (window as any).Notification = class {
            static permission = "default";
            static requestPermission() {
                (window as any).asked++;
                this.permission = answer;
                return Promise.resolve(answer);
            }
            constructor(title: string, { body, tag }: { body: string; tag: string }) {
                (window as any).notified.push([title, body, tag]);
            }
        };
    }, answer);
    await page.reload();
}
const notified = () => page.evaluate(() => (window as any).notified as string[][]);

test("the page begins without what only limits need, and with it where there are some", async () => {
    const asked: string[] = [];
    page.on("request", (request) => asked.push(request.url()));
    const ofLimits = () => asked.filter((each) => each.includes("limits"));
    await page.reload();
    await connected();
    expect(ofLimits()).toEqual([]);
    await page.evaluate(() => localStorage.setItem("vorbel.limits", '{"a": {"high": 1}}'));
    await page.reload();
    await button("No alarms").waitFor();
    expect(ofLimits().length).toBeGreaterThan(0);
});

test("a value beyond its limit is marked, counted and listed, over a reload as well", async () => {
    const send = await limited();
    send({ level: 50 });
    await value("level").getByText("50", { exact: true }).waitFor();
    expect(await page.locator(".row .beyond").count()).toBe(0);
    send({ level: 51 });
    await value("level").getByText("▲ high").waitFor();
    await page.getByRole("log").getByText("level is too high: 51").waitFor();
    send({ level: 77 });
    send({ level: 60 });
    expect(await row("other").getByText("▲").count()).toBe(0);
    await button("1 in alarm").click();
    await expect
        .poll(() => alarms().allTextContents())
        .toEqual([expect.stringMatching(/^level too high: 77, limit 50 new/)]);
    expect(await alarms().textContent()).toMatch(/new\d{4}-\d\d-\d\d \d\d:\d\d:\d\d – now$/);
    await button("Acknowledge").click();
    await expect.poll(() => alarms().textContent()).not.toContain("new");

    await page.reload();
    await button("No alarms").click();
    expect(await alarms().textContent()).toMatch(/not seen$/);
    await connected();
    send({ level: 80 });
    await button("1 in alarm").waitFor();
    expect(await alarms().count()).toBe(2);
    await page.locator(".alarm-list").getByRole("button", { name: "Clear" }).click();
    await page.getByRole("dialog").getByRole("button", { name: "Clear" }).click();
    await expect.poll(() => alarms().allTextContents()).toEqual([expect.stringMatching(/^level too high: 80/)]);
    every(500, () => send({ level: 40 }));
    await button("1 past").waitFor();
    expect(await alarms().textContent()).toMatch(/\d\d:\d\d:\d\d – \d{4}-\d\d-\d\d \d\d:\d\d:\d\d$/);
    expect(await page.locator(".row .beyond").count()).toBe(0);
});

test("limits that are none are told and not taken", async () => {
    await limited();
    await button("Set level").click();
    expect(await page.getByLabel("High").inputValue()).toBe("50");
    await page.getByLabel("Low").fill("50");
    await page.getByText("The low limit must lie below the high one").waitFor();
    expect(await button("Set limits").isDisabled()).toBe(true);
    await page.getByLabel("Low").fill("");
    await page.getByLabel("High").fill("");
    await button("Set limits").click();
    await page.getByText("No limits").waitFor();
});

describe("notifications", () => {
    test.each(["the page", "the worker that keeps its files"])(
        "come by %s, only after somebody allowed them, once for each alarm, and to a hidden page as well",
        async (by) => {
            await recordNotifications("granted", by);
            if (by !== "the page") await page.evaluate(() => navigator.serviceWorker.ready);
            const send = await limited();
            send({ level: 60 });
            await button("1 in alarm").click();
            expect(await notified()).toEqual([]);
            expect(await page.evaluate(() => (window as any).asked)).toBe(0);
            await page.getByLabel(/Notify when an alarm begins/).check();
            const calm = every(500, () => send({ level: 20 }));
            await button("1 past").waitFor();
            calm();
            expect(await notified()).toEqual([]);
            await page.evaluate(() => {
                Object.defineProperty(document, "hidden", { value: true, configurable: true });
                Object.defineProperty(document, "visibilityState", { value: "hidden", configurable: true });
                document.dispatchEvent(new Event("visibilitychange"));
                window.requestAnimationFrame = () => 0; // a hidden page is not drawn
            });
            for (let turn = 0; turn < 10; turn++) {
                send({ level: 61 + turn });
                send({ level: 49 });
            }
            await expect
                .poll(notified)
                .toEqual([["level is too high", expect.stringMatching(/^61, limit 50, \d{4}-/), "level high"]]);
            await page.waitForTimeout(500);
            expect(await notified()).toHaveLength(1);
        },
    );

    test("do not come where they are refused, which is told", async () => {
        await recordNotifications("denied");
        const send = await limited();
        send({ level: 60 });
        await button("1 in alarm").click();
        await page.getByLabel(/Notify when an alarm begins/).click();
        await page.getByText("The browser does not allow notifications from this page.").waitFor();
        expect(await page.getByLabel(/Notify when an alarm begins/).isChecked()).toBe(false);
        expect(await notified()).toEqual([]);
    });
});
