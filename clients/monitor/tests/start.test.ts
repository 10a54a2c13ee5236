import { readFileSync } from "node:fs";
import { join } from "node:path";
import { gzipSync } from "node:zlib";
import { expect, test } from "vitest";
import { browser, keepNothing, newPage, openSchema, page, row, sendSchema, url, value } from "./fixture.js";
import { dist } from "./page.js";

/** What the page loads, and when. */

/** What the page may load before anything is done with it, compressed. */
const LIMIT = 80_000;

/** The page's files that are asked for from now on. */
function asked(): Set<string> {
    const files = new Set<string>();
    page.context().on("request", (request) => {
        const { protocol, pathname } = new URL(request.url());
        if (protocol.startsWith("http")) files.add(pathname === "/" ? "index.html" : pathname.slice(1));
    });
    return files;
}

test("what it needs to show values is small; what plots and checks need comes when they are wanted", async () => {
    await sendSchema({ motor: { speed: { "@mac": 5, "@cmd": 2, "@format": "s" } } });
    await value("motor.speed").getByText(/\d/).waitFor();
    const files = asked();
    await page.reload();
    await value("motor.speed").getByText(/\d/).waitFor();
    const names = () => [...files].map((file) => file.replace(/-[\w-]{8}\./, "."));
    expect(names()).toEqual(expect.arrayContaining(["index.html", "assets/index.js", "assets/receiver.js"]));
    expect(
        names().filter((name) =>
            /uplot|thread|spectrum|columncells|linkdialog|limits|orders|recording|mcap|workshop|interrupted|notice|dbc|fleet|mqtt|archive/.test(
                name,
            ),
        ),
    ).toEqual([]);
    const size = [...files].reduce((sum, file) => sum + gzipSync(readFileSync(join(dist, file))).length, 0);
    expect(size).toBeLessThan(LIMIT);

    await row("motor.speed").getByRole("button", { name: "Plot" }).click();
    await page.locator(".plots canvas").waitFor();
    expect(names()).toContain("assets/uplot.js");
    await sendSchema(); // which names limits
    await expect.poll(names).toContain("assets/limits.js");
    await openSchema();
    await page.getByText("No problems found.").waitFor();
    expect(names()).toContain("assets/thread.js");
});

test("says so when the plots cannot be had, as from a server that is away, and has them when it is back", async () => {
    await sendSchema();
    await value("motor.speed").getByText(/\d/).waitFor();
    const tab = await browser.newPage(); // whose complaint about the missing file is expected
    await keepNothing(tab);
    await tab.route("**/uplot-*.js", (route) => route.abort());
    await tab.goto(url);
    await tab.getByRole("button", { name: "Plot motor.speed" }).click();
    await tab.getByRole("alert").getByText("The plots cannot be shown").waitFor();
    await tab.locator(".row .value").getByText(/\d/).first().waitFor();
    await tab.unroute("**/uplot-*.js");
    await tab.getByRole("button", { name: "Try again" }).click();
    await tab.locator(".plots canvas").waitFor();
    await tab.close();
});

test("a link that names values to plot gets the plots", async () => {
    await sendSchema();
    await value("motor.speed").getByText(/\d/).waitFor();
    const tab = await newPage("?plot=motor.speed");
    await tab.locator(".plots canvas").waitFor();
    await tab.close();
});
