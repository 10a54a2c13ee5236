import { heat, type Endpoint } from "../../model/workshop/traffic";

/** What changes with every frame is painted into elements that are there: drawing components anew would take too long. */

/** So many steps of heat are told apart: by colour, and by the thickness of the line below the byte. */
const LEVELS = 4;

export function byteText(byte: number): string {
    return byte.toString(16).toUpperCase().padStart(2, "0");
}

/** A byte of the last frame, as hex, with how lately it has changed. */
export function paintByte(element: HTMLElement, endpoint: Endpoint, byte: number, time: number): void {
    const { payload } = endpoint;
    paintText(element, byte < payload.length ? byteText(payload[byte]!) : "");
    const level = byte < payload.length ? String(Math.ceil(LEVELS * heat(endpoint, byte, time))) : "0";
    if (element.dataset["heat"] !== level) element.dataset["heat"] = level;
}

/** Only what is another text touches the document. */
export function paintText(element: Element, text: string): void {
    const { firstChild } = element;
    if (firstChild === null) element.append(text);
    else if ((firstChild as Text).data !== text) (firstChild as Text).data = text;
}
