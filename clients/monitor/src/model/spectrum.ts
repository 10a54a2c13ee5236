import magnitudes from "fourier-transform";

/** Amplitudes of frequencies, from 0 to half the rate of the samples. */
export type Spectrum = { frequencies: Float64Array; amplitudes: Float64Array };

/** Fewer samples have no spectrum to speak of. */
export const FEWEST = 8;
/** Zeros behind the samples, up to a power of two: so close together, no frequency lies far beside those of a bin. */
const PADDING = 4;

/**
 * The spectrum of samples in a Hann window: a sine of amplitude A has A at its frequency, within 1 % wherever that
 * lies, unless it is nearer than two bins of the unpadded samples to either end. What is constant stands at frequency 0
 * alone, and what alternates from sample to sample at half the rate alone, both with their full amplitude. Undefined
 * for fewer than FEWEST samples.
 */
export function spectrumOf(samples: Float64Array, rate: number): Spectrum | undefined {
    const { length } = samples;
    if (length < FEWEST) return undefined;
    const window = Float64Array.from(samples, (_, at) => 0.5 - 0.5 * Math.cos((2 * Math.PI * at) / length));
    const weight = sum(window);
    const sign = (at: number) => (at % 2 === 0 ? 1 : -1);
    const constant = sum(window.map((share, at) => share * samples[at]!)) / weight;
    const alternating = sum(window.map((share, at) => share * samples[at]! * sign(at))) / weight;
    const padded = new Float64Array(2 ** Math.ceil(Math.log2(PADDING * length)));
    // Both ends without their mirror images, which would reach into the bins beside them.
    for (const [at, share] of window.entries()) {
        padded[at] = share * (samples[at]! - constant - alternating * sign(at));
    }
    const amplitudes = new Float64Array(padded.length / 2 + 1);
    amplitudes.set(magnitudes(padded).map((magnitude) => (magnitude * padded.length) / weight));
    amplitudes[0] = Math.abs(constant);
    amplitudes[amplitudes.length - 1] = Math.abs(alternating);
    return { frequencies: amplitudes.map((_, at) => (at * rate) / padded.length), amplitudes };
}

function sum(values: Float64Array): number {
    return values.reduce((total, value) => total + value, 0);
}
