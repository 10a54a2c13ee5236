/** The port of a daemon that sits behind no proxy. */
export const DEFAULT_PORT = 10443;

/**
 * The WebSocket URL of an address as people type it: a host, host:port or a whole ws:// or wss:// URL. Without
 * a scheme it is ws://, and without a scheme and a port the daemon's own port. Throws on anything else.
 */
export function toUrl(address: string): string {
    const text = address.trim();
    const hasScheme = /^[a-z][a-z0-9+.-]*:\/\//i.test(text);
    let url: URL;
    try {
        url = new URL(hasScheme ? text : `ws://${text}`);
    } catch {
        throw new SyntaxError(`"${address}" is no address: expected a host, host:port or a ws:// URL`);
    }
    if (url.protocol !== "ws:" && url.protocol !== "wss:") {
        throw new SyntaxError(`"${address}" is no WebSocket address: it begins with ${url.protocol}//`);
    }
    const namesPort = /:\d+(?:$|[/?#])/.test(text.replace(/^[^[]*\]/, ""));
    if (!hasScheme && !namesPort) url.port = String(DEFAULT_PORT);
    url.hash = ""; // a WebSocket URL may not have one
    return url.href.replace(/\/$/, "");
}

/** An address without the name and the password that it may hold: what can be shown and kept. */
export function withoutPassword(address: string): string {
    const url = new URL(toUrl(address));
    if (!url.username && !url.password) return address;
    url.username = url.password = "";
    return toUrl(url.href);
}
