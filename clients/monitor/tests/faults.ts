import { readFileSync } from "node:fs";
import { createRequire } from "node:module";
import { page } from "./fixture.js";

const axe = readFileSync(createRequire(import.meta.url).resolve("axe-core/axe.min.js"), "utf8");
const RULES = ["wcag2a", "wcag2aa", "wcag21a", "wcag21aa", "wcag22aa", "best-practice"];

/** What a program can find of faults in the page as it is: contrast, names, roles, sizes. */
export async function faults(): Promise<string[]> {
    await page.evaluate(`${axe}; 0`);
    return page.evaluate(async (rules) => {
        const { violations } = await (window as any).axe.run(document, { runOnly: rules });
        return violations.flatMap((each: any) =>
            each.nodes.map((node: any) => `${each.id}: ${node.target} ${node.failureSummary}`),
        );
    }, RULES);
}
