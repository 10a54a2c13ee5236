import { page } from "./fixture.js";

/** What can be seen of a plot. */

/** A curve's height above the bottom of its canvas, pixel column by pixel column; undefined where it is not drawn. */
export function curve(color: string, at = 0): Promise<(number | undefined)[]> {
    return page
        .locator(".plots canvas")
        .nth(at)
        .evaluate((element, color) => {
            const { width, height } = element as HTMLCanvasElement;
            const { data } = (element as HTMLCanvasElement).getContext("2d")!.getImageData(0, 0, width, height);
            const [red, green, blue] = [1, 3, 5].map((place) => parseInt(color.slice(place, place + 2), 16));
            const differs = (byte: number, value: number) => Math.abs(data[byte]! - value) > 40;
            return Array.from({ length: width }, (_, x) => {
                let [sum, count] = [0, 0];
                for (let y = 0; y < height; y++) {
                    const byte = 4 * (y * width + x);
                    const isOther = differs(byte, red!) || differs(byte + 1, green!) || differs(byte + 2, blue!);
                    if (data[byte + 3]! < 128 || isOther) continue;
                    sum += height - y;
                    count++;
                }
                return count > 0 ? sum / count : undefined;
            });
        }, color);
}

/** The colours of the first lines in the light theme. */
export const FIRST = "#0a6c74";
export const SECOND = "#c2410c";

export type Label = { text: string; color: string };

/** The texts of the only plot. */
export function labels(): Promise<Label[]> {
    return page.evaluate(async () => {
        const drawn = new Map<string, { text: string; color: string }>();
        const { prototype } = CanvasRenderingContext2D;
        const former = Object.getOwnPropertyDescriptors(prototype);
        prototype.clearRect = function (...area) {
            if (this.canvas.closest(".plots")) drawn.clear();
            former.clearRect.value!.apply(this, area);
        };
        prototype.fillText = function (text, x, y) {
            drawn.set(`${x} ${y}`, { text, color: this.fillStyle as string });
            former.fillText.value!.call(this, text, x, y);
        };
        window.dispatchEvent(new Event("themechange")); // all plots are drawn anew
        await new Promise((later) => setTimeout(later, 300));
        Object.defineProperties(prototype, { fillText: former.fillText, clearRect: former.clearRect });
        return [...drawn.values()];
    });
}
