/** Numbers of single precision, which is what the daemon scales with; Math.fround() makes them. */
export const LARGEST_SINGLE = 3.4028234663852886e38;

const float = new Float32Array(1);
const bits = new Int32Array(float.buffer);

/** Of a number of single precision other than 0, the next one further from 0 and the next one nearer to it. */
export function nextTo(number: number): [further: number, nearer: number] {
    float[0] = number;
    const at = bits[0]!;
    bits[0] = at + 1;
    const further = float[0];
    bits[0] = at - 1;
    return [further, float[0]];
}

/**
 * Of all numbers that are the same in single precision, the one with the fewest digits: 3.93 for
 * 3.930000066757202. A number that needs more than single precision is its own.
 */
export function shortest(number: number): number {
    if (Math.fround(number) !== number) return number; // not-a-number, too
    for (let digits = 6; digits < 9; digits++) {
        const candidate = Number(number.toPrecision(digits));
        if (Math.fround(candidate) === number) return candidate;
    }
    return Number(number.toPrecision(9)); // nine always do
}
