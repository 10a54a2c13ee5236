import { checkText } from "vorbel";

/** Checks schemas in a thread of its own: a large one takes longer than a key may. */
addEventListener("message", ({ data }: MessageEvent<string>) => postMessage(checkText(data)));
