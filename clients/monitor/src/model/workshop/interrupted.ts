import { withoutPassword, type Schema } from "vorbel";
import { isSameDaemon } from "../link";
import type { Memory, Session } from "../session";

/**
 * Workshops that ended without leaving: the page was closed, or its browser has failed. The daemon may still have the
 * workshop's schema then, which is remembered until the former one is in force again.
 */

/** Where the workshop was, and the schema that would have come back; without one the daemon had none. */
export type Interrupted = { address: string; schema?: Schema | undefined };

const RECORD = "workshop";
const SIGN = "workshop.alive";
/** Milliseconds after which a page that has not said that it is there has gone: hidden ones do so once a minute. */
const GONE = 90_000;

/** A workshop begins. */
export function remember(memory: Memory, { address, schema }: Interrupted): void {
    memory.save(RECORD, JSON.stringify({ address: withoutPassword(address), schema }));
    showLife(memory);
}

/** The page of a workshop is still there. */
export function showLife(memory: Memory): void {
    memory.save(SIGN, String(Date.now()));
}

/** The page of a workshop goes. */
export function endLife(memory: Memory): void {
    memory.save(SIGN, "");
}

/** The daemon has its former schema, or another's, or nobody wants it back. */
export function forget(memory: Memory): void {
    memory.save(RECORD, "");
}

/**
 * What a workshop that ended without leaving has left; undefined where none did, or where it goes on in another page.
 * Once a session has values of the former schema, that is in force again, and nothing is left.
 */
export function interrupted(memory: Memory, session?: Session): Interrupted | undefined {
    const isThere = Date.now() - Number(memory.load(SIGN) || -Infinity) < GONE;
    const left = isThere ? undefined : recordIn(memory.load(RECORD) ?? "");
    if (!left || !session || !isBack(left, session)) return left;
    forget(memory);
    return undefined;
}

function isBack({ address, schema }: Interrupted, session: Session): boolean {
    if (!isAt(address, session) || !session.schema || session.foreign) return false;
    return isSame(session.schema, schema) && session.tree.valued.some(({ leaf }) => leaf);
}

/** Whether a session is connected to the daemon of an address without a password. */
function isAt(address: string, session: Session): boolean {
    return session.state === "connected" && isSameDaemon(address, withoutPassword(session.address));
}

function isSame(one: Schema, other: Schema | undefined): boolean {
    return JSON.stringify(one) === JSON.stringify(other);
}

function recordIn(text: string): Interrupted | undefined {
    try {
        const record: unknown = JSON.parse(text);
        return isRecord(record) ? record : undefined;
    } catch {
        return undefined;
    }
}

function isRecord(record: unknown): record is Interrupted {
    if (typeof record !== "object" || record === null) return false;
    const { address, schema = {} } = record as Partial<Interrupted>;
    return typeof address === "string" && typeof schema === "object" && schema !== null && !Array.isArray(schema);
}

/** Gives the daemon the schema that a workshop has not put back, after somebody has agreed. Rejects with a sentence. */
export async function putBack(session: Session, memory: Memory): Promise<void> {
    const left = interrupted(memory);
    if (!left) return;
    if (session.locked) throw new Error("The page is locked: nothing was sent");
    if (!isAt(left.address, session)) {
        throw new Error(`Not connected to ${left.address}, where the workshop was: nothing was sent`);
    }
    await giveTo(session, left.schema ?? {});
    forget(memory);
}

/** The schema of the page becomes its own; any other one comes from somebody who goes again. */
async function giveTo(session: Session, schema: Schema): Promise<void> {
    const client = session.newConnection();
    try {
        await client.ready(PATIENCE);
        client.setSchema(schema, { check: false, clear: true });
        await client.finish(PATIENCE);
    } finally {
        client.close();
    }
    session.takeSchemaBack(false);
    if (session.schema && isSame(session.schema, schema)) session.setSchema(session.schemaText, true);
}

/** Milliseconds until the daemon has to be found, and to confirm a schema. */
export const PATIENCE = 10_000;
