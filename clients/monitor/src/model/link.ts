import { toUrl, withoutPassword } from "vorbel";

/** What a link to the page asks for that somebody has to confirm first. */
export type Asked = {
    /** A daemon other than the one that the page would connect to by itself. */
    address?: string;
    /** A schema other than the remembered one, by the name of its file. */
    schema?: { name: string; text: string };
};

/** A daemon as people are asked about it: its host in the form that the browser looks up, and all but passwords. */
export function namesOfDaemon(address: string): { host: string; url: string } {
    const url = toUrl(withoutPassword(address));
    return { host: new URL(url).host, url };
}

/** Whether two addresses lead to the same daemon with the same rights. */
export function isSameDaemon(one: string, other: string): boolean {
    try {
        return toUrl(one) === toUrl(other);
    } catch {
        return false;
    }
}

/** An address as it may be kept; undefined where it is none. */
export function keptAddress(address: string | undefined): string | undefined {
    try {
        return address && withoutPassword(address);
    } catch {
        return undefined;
    }
}
