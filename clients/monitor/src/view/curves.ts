import { later } from "./later";

/** Plots, whose program is a third of the page: who only looks at values does not wait for it. */

const load = () => import("./uplot");
const box = "uplot-box";

export const TimePlot = later(async () => (await load()).TimePlot, { box });
export const WavePlot = later(async () => (await load()).WavePlot, { box });
export const SpectrumPlot = later(async () => (await import("./spectrum")).SpectrumPlot, { box });
