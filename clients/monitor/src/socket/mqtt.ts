import mqtt, { type ISubscriptionMap, type MqttClient } from "mqtt";
import { now } from "../model/clock";
import type { BrokerMessage, BrokerNews, BrokerOrder, Login } from "./brokermessages";

/**
 * Holds the page's connection with a broker in a thread of its own: the broker hears of it in time while the page draws
 * or is hidden, and what comes while the page is busy does not pile up where a newer message replaces an older one.
 */

/** Milliseconds between two handfuls: as long as a frame of the screen. */
const PAUSE = 16;
/** What one message may hold, in bytes: more than any schema or batch that a gateway publishes. */
const LARGEST = 4 * 1024 * 1024;
/** Bytes that wait for a page that does not follow, before the connection is given up. */
const LIMIT = 32 * 1024 * 1024;
/** What a message costs beside its bytes. */
const OVERHEAD = 200;
/** Seconds after which a broker that says nothing is asked for a sign of life. */
const KEEPALIVE = 15;
/** Milliseconds that the broker may take to greet, and to acknowledge what is published. */
const PATIENCE = { greeting: 10_000, acknowledgement: 5000 };
/** Milliseconds before the second attempt, doubled with each that fails, and the most. */
const DELAY = { first: 500, longest: 5000 };
/** What brokers of both versions answer to those whom they do not let in. */
const REFUSALS = new Set([4, 5, 134, 135]);
/** And to those whose version they do not speak. */
const OTHER_VERSION = new Set([1, 132]);

class Connection {
    #login: Login | undefined;
    #client: MqttClient | undefined;
    /** The newer one first; the broker may not speak it. */
    #version: 5 | 4 = 5;
    #isGreeted = false;
    #attempts = 0;
    #failure = "";
    #timer: ReturnType<typeof setTimeout> | undefined;
    readonly #filters = new Map<string, 0 | 1>();

    /** By their topics where the latest counts, and otherwise by numbers. */
    #waiting = new Map<string | number, BrokerMessage>();
    #size = 0;
    #count = 0;
    #busy = false;
    #delivery: ReturnType<typeof setTimeout> | undefined;

    obey(order: BrokerOrder): void {
        if ("open" in order) this.#open(order.open);
        else if ("subscribe" in order) this.#subscribe(order.subscribe);
        else if ("unsubscribe" in order) this.#unsubscribe(order.unsubscribe);
        else if ("publish" in order) this.#publish(order);
        else if ("close" in order) this.#close();
        else {
            this.#busy = false;
            this.#deliver();
        }
    }

    #open(login: Login): void {
        this.#leave();
        this.#login = login;
        this.#version = 5;
        this.#attempts = 0;
        this.#attempt();
    }

    #close(): void {
        this.#leave();
        this.#login = undefined;
        this.#filters.clear();
        this.#tell({ state: "closed", reason: "closed here" });
    }

    #leave(): void {
        clearTimeout(this.#timer);
        this.#client?.removeAllListeners();
        this.#client?.on("error", () => {}); // which may still come
        this.#client?.end(true);
        this.#client = undefined;
        this.#isGreeted = false;
        this.#waiting.clear();
        this.#size = 0;
    }

    #attempt(): void {
        const { url, user, password } = this.#login!;
        this.#failure = "nothing answers";
        this.#tell({ state: "connecting", reason: "" });
        try {
            this.#listen(
                mqtt.connect(url, {
                    protocolVersion: this.#version,
                    ...(user && { username: user }),
                    ...(password && { password }),
                    clean: true,
                    keepalive: KEEPALIVE,
                    connectTimeout: PATIENCE.greeting,
                    reconnectPeriod: 0, // it is done here, with the version that the broker speaks
                    resubscribe: false,
                    queueQoSZero: false,
                    timerVariant: "native", // this thread has timers that are not put off
                    ...(this.#version === 5 && { properties: { maximumPacketSize: LARGEST } }),
                }),
            );
        } catch (error) {
            this.#refuse((error as Error).message);
        }
    }

    #listen(client: MqttClient): void {
        this.#client = client;
        client.on("connect", () => this.#greeted());
        client.on("message", (topic, payload, { retain }) => this.#arrived(topic, payload, retain));
        client.on("error", (error) => this.#failed(error));
        client.on("disconnect", ({ reasonCode }) => (this.#failure = `the broker ended it, reason ${reasonCode}`));
        client.on("close", () => this.#lost());
    }

    #greeted(): void {
        this.#isGreeted = true;
        this.#attempts = 0;
        this.#failure = "the connection was lost";
        this.#tell({ state: "connected", reason: this.#version === 5 ? "MQTT 5" : "MQTT 3.1.1" });
        this.#ask(this.#filters);
    }

    #failed(error: Error & { code?: number | string }): void {
        const code = typeof error.code === "number" ? error.code : undefined;
        if (this.#isGreeted || code === undefined || OTHER_VERSION.has(code)) this.#failure = error.message;
        else if (REFUSALS.has(code)) this.#refuse("the broker refuses this user or password");
        else this.#failure = `the broker refuses the connection: ${error.message}`;
    }

    /** Without another login, it would only be refused again. */
    #refuse(reason: string): void {
        this.#leave();
        this.#tell({ state: "refused", reason });
    }

    #lost(): void {
        const wasGreeted = this.#isGreeted;
        this.#leave();
        if (!wasGreeted) this.#version = this.#version === 5 ? 4 : 5;
        // The other version is tried at once.
        const isOtherVersion = !wasGreeted && this.#version === 4;
        const pause = Math.min(DELAY.longest, DELAY.first * 2 ** this.#attempts);
        if (!isOtherVersion) this.#attempts++;
        const delay = isOtherVersion ? 0 : pause * (0.5 + Math.random() / 2);
        if (!isOtherVersion) this.#tell({ state: "waiting", reason: this.#failure });
        this.#timer = setTimeout(() => this.#attempt(), delay);
    }

    #subscribe(filters: [filter: string, qos: 0 | 1][]): void {
        for (const [filter, qos] of filters) this.#filters.set(filter, qos);
        this.#ask(new Map(filters));
    }

    #ask(filters: ReadonlyMap<string, 0 | 1>): void {
        if (!this.#isGreeted || filters.size === 0) return;
        const asked: ISubscriptionMap = Object.fromEntries([...filters].map(([filter, qos]) => [filter, { qos }]));
        this.#client!.subscribe(asked, (_error, _subscriptions, answer) => {
            // In the order of the filters; undefined where the connection was lost before.
            const codes = answer?.granted ?? [];
            const refused = [...filters.keys()].filter((_, at) => Number(codes[at] ?? 0) >= 128);
            if (refused.length > 0) this.#tell({ unheard: refused });
        });
    }

    #unsubscribe(filters: string[]): void {
        for (const filter of filters) this.#filters.delete(filter);
        if (this.#isGreeted) this.#client!.unsubscribe(filters);
    }

    /** What cannot go out at once does not go out at all. */
    #publish({ publish: { topic, payload }, id }: Extract<BrokerOrder, { publish: unknown }>): void {
        if (!this.#isGreeted) {
            this.#tell({ id, outcome: "unsent", reason: "there is no connection with the broker" });
            return;
        }
        const timer = setTimeout(
            () => this.#tell({ id, outcome: "unknown", reason: "the broker has not acknowledged it" }),
            PATIENCE.acknowledgement,
        );
        this.#client!.publish(topic, payload, { qos: 1 }, (error) => {
            clearTimeout(timer);
            const code = (error as { code?: unknown } | undefined)?.code;
            if (!error) this.#tell({ id, outcome: "taken" });
            else if (typeof code === "number") this.#tell({ id, outcome: "refused", reason: error.message });
            else this.#tell({ id, outcome: "unknown", reason: error.message });
        });
    }

    #arrived(topic: string, payload: Uint8Array, retain: boolean): void {
        const isTooLarge = payload.length > LARGEST;
        const text = isTooLarge ? undefined : decoder.decode(payload);
        const key = /\/(values|done)$/.test(topic) ? this.#count++ : topic;
        const before = this.#waiting.get(key);
        if (before) this.#size -= sizeOf(before);
        const message = { topic, text, retain, arrival: now() };
        this.#waiting.set(key, message);
        this.#size += sizeOf(message);
        if (this.#size > LIMIT) {
            this.#failure = "the page could not follow: more than 32 MiB waited for it";
            this.#lost();
            return;
        }
        this.#deliverSoon();
    }

    #deliverSoon(): void {
        this.#delivery ??= setTimeout(() => {
            this.#delivery = undefined;
            this.#deliver();
        }, PAUSE);
    }

    #deliver(): void {
        if (this.#busy || this.#waiting.size === 0 || this.#delivery !== undefined) return;
        this.#busy = true;
        this.#tell({ messages: [...this.#waiting.values()] });
        this.#waiting.clear();
        this.#size = 0;
    }

    #tell(news: BrokerNews): void {
        postMessage(news);
    }
}

function sizeOf({ topic, text = "" }: BrokerMessage): number {
    return OVERHEAD + topic.length + text.length;
}

const decoder = new TextDecoder("utf-8", { ignoreBOM: true });
const connection = new Connection();
addEventListener("message", ({ data }: MessageEvent<BrokerOrder>) => connection.obey(data));
