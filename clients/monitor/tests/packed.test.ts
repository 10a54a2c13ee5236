import { expect, test } from "vitest";
import { machine, page, sendSchema, startSetting, value } from "./fixture.js";

/** What goes out of packed values is shown before. */

const frame = { "@mac": 5, "@cmd": 3, "@fragmentation": true };

test("the bytes that are shown go out", async () => {
    await sendSchema({
        alive: { "@mac": 5, "@cmd": 2, "@format": "s" },
        a: { ...frame, "@format": "S" },
        config: { ...frame, "@format": "p" },
    });
    await value("alive").getByText(/^\d+$/).waitFor();
    await startSetting("config");
    const shown = () => page.locator(".preview code").allTextContents();
    const send = async () => {
        const before = machine.heard.length;
        const expected = (await shown()).map((bytes) => `mac 5 cmd 3: ${bytes}`);
        await page.getByRole("button", { name: "Send", exact: true }).click();
        await page.getByText("Handled at").waitFor();
        await expect.poll(() => machine.heard.slice(before)).toEqual(expected);
    };
    await page.getByLabel("config", { exact: true }).fill("1");
    await expect.poll(shown).toEqual(["81 a6 63 6f 6e 66 69 67", "01"]);
    await send();
    const all = { b: [1, -1, -200, 70000, 0.5, 1e10, true, null], "10": "ä\u20ac", "9": {}, "": "x".repeat(40) };
    await page.getByLabel("config", { exact: true }).fill(JSON.stringify({ ...all, more: new Array(20).fill(300) }));
    await expect.poll(async () => (await shown()).length).toBeGreaterThan(10);
    await send();
    await page.getByLabel("a", { exact: true }).fill("513");
    await page.getByLabel("config", { exact: true }).fill('"z"');
    await expect.poll(shown).toEqual(["01 02 81 a6 63 6f 6e 66", "69 67 a1 7a"]);
    await send();
});

test("what does not stay as it is typed is not guessed, and nothing is nothing", async () => {
    await sendSchema({ config: { ...frame, "@format": "p" } });
    await startSetting("config");
    await page.getByLabel("config", { exact: true }).fill('"\\ud800"');
    await page.locator(".preview").getByText("mac 5 cmd 3", { exact: true }).waitFor();
    await page.getByLabel("config", { exact: true }).fill("null");
    await page.getByText("mac 5 cmd 3: nothing goes out").waitFor();
});
