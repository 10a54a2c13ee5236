/** The lines of plots: every one has a colour of its own. */

/** As many as the style sheet names. */
const NAMED = 8;
/** Degrees: however many hues there are, the next one lies in the widest gap between two. */
const GOLDEN_ANGLE = 137.508;

/** A line's colour, for a style. */
export function lineColor(line: number): string {
    if (line < NAMED) return `var(--line-${line})`;
    return `hsl(${((line * GOLDEN_ANGLE) % 360).toFixed(1)} var(--line-more))`;
}

/** Beyond the named colours, lines are also dashed, for eyes that do not tell hues apart so well. */
export function lineDash(line: number): number[] | undefined {
    const round = Math.floor(line / NAMED);
    return round === 0 ? undefined : [4 + 4 * (round % 3), 3];
}
