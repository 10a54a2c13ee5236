declare module "fourier-transform" {
    /** Of as many samples as a power of two: 2 / length times the magnitudes of all bins but the last. Overwritten next time. */
    export default function magnitudes(samples: Float64Array): Float64Array;
}
