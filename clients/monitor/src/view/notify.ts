import type { Alarm } from "../model/limits";
import type { Session } from "../model/session";
import { stampText } from "../model/text";
import { memory } from "../page";

/** Whether the browser lets pages like this one notify: only those over HTTPS, or of this machine. */
export function canNotify(): boolean {
    return "Notification" in window;
}

export function isNotifying(): boolean {
    return canNotify() && Notification.permission === "granted" && memory.load("notify") === "yes";
}

/** Asks the person, through the browser; returns whether there will be notifications. */
export async function setNotifying(wanted: boolean): Promise<boolean> {
    memory.save("notify", wanted ? "yes" : "");
    if (wanted && Notification.permission !== "granted") await Notification.requestPermission();
    return isNotifying();
}

type Texts = { what: string; extreme: string; limit: string };

/** One for the beginning of an alarm; the next of the same value replaces it. */
export async function notify(session: Session, { path, side, begin }: Alarm, texts: Texts): Promise<void> {
    if (!isNotifying()) return;
    const title = texts.what;
    const options = {
        body: `${texts.extreme}, limit ${texts.limit}, ${stampText(begin)}`,
        tag: `${path} ${side}`,
        icon: "./icon.svg",
    };
    try {
        const worker = await navigator.serviceWorker?.getRegistration();
        if (worker?.active)
            await worker.showNotification(title, options); // phones let only these through
        else new Notification(title, options).onclick = () => window.focus();
    } catch (error) {
        session.log.add("problem", "The browser did not notify", String(error));
    }
}
