/** A canvas's context, its backing store fitted to its size on the screen; drawing is in CSS pixels. */
export function contextOf(canvas: HTMLCanvasElement): {
    context: CanvasRenderingContext2D;
    width: number;
    height: number;
} {
    const { clientWidth: width, clientHeight: height } = canvas;
    const scale = window.devicePixelRatio;
    if (canvas.width !== Math.round(width * scale) || canvas.height !== Math.round(height * scale)) {
        canvas.width = Math.round(width * scale);
        canvas.height = Math.round(height * scale);
    }
    const context = canvas.getContext("2d")!;
    context.setTransform(scale, 0, 0, scale, 0, 0);
    context.clearRect(0, 0, width, height);
    return { context, width, height };
}

/** A colour of the style sheet: color("--accent"). */
export function color(name: string): string {
    return getComputedStyle(document.documentElement).getPropertyValue(name).trim();
}

/** A colour as a style has it, for a canvas, which knows no variables. */
export function resolved(style: string): string {
    return style.replace(/var\((--[\w-]+)\)/g, (_, name: string) => color(name));
}
