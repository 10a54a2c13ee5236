import type { Session } from "../model/session";

/** What plots show; times in milliseconds since 1970. */
export type Window = { from: number; to: number };

/** The last so many seconds; of a recording, those around what is shown. */
export function latest(session: Session, span: number): Window {
    const to = session.time + (session.isPast ? 500 * span : 0);
    return { from: to - span * 1000, to };
}
