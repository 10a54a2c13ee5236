import { expect, test } from "vitest";
import { toUrl } from "../src/index.js";

test.each([
    ["a host", "machine", "ws://machine:10443"],
    ["a host and port", "machine:8080", "ws://machine:8080"],
    ["the port that a ws URL may leave out", "machine:80", "ws://machine"],
    ["an IPv4 address with blanks around", " 192.168.1.20 ", "ws://192.168.1.20:10443"],
    ["an IPv6 address", "[fe80::1]", "ws://[fe80::1]:10443"],
    ["an IPv6 address and port", "[fe80::1]:9000", "ws://[fe80::1]:9000"],
    ["a host and path", "machine/bus", "ws://machine:10443/bus"],
    ["a whole URL, taken as it is", "wss://plant.example/vorbel", "wss://plant.example/vorbel"],
    ["a URL without a port, for a proxy", "ws://machine", "ws://machine"],
    ["a fragment, which no WebSocket URL has", "machine#top", "ws://machine:10443"],
])("%s", (_, typed, url) => expect(toUrl(typed)).toBe(url));

test.each([
    ["nothing", ""],
    ["blanks", "  "],
    ["a port that is none", "machine:99999"],
    ["two words", "my machine"],
    ["another protocol", "http://machine"],
])("refuses %s", (_, typed) => expect(() => toUrl(typed)).toThrow(SyntaxError));
