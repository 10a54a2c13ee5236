import type {
    BrokerMessage,
    BrokerNews,
    BrokerOrder,
    BrokerState,
    Login,
    Published,
} from "../../socket/brokermessages";
import { Source } from "../source";

/** What holds the connection: a thread, or what stands for it. */
export type BrokerPort = { post(order: BrokerOrder): void; hear(listener: (news: BrokerNews) => void): void };

/** Thrown when a message was not published: "outcome" says how sure that is. */
export class PublishError extends Error {
    override name = "PublishError";
    constructor(
        readonly outcome: Exclude<Published, "taken">,
        reason: string,
    ) {
        super(reason);
    }
}

/** The page's connection with a broker. It changes with its state. */
export class Broker extends Source {
    state: BrokerState = "closed";
    reason = "";
    login: Login | undefined;
    /** Filters that this user may not subscribe to. */
    readonly unheard = new Set<string>();
    /** Hears of every message. */
    onMessage: (message: BrokerMessage) => void = () => {};

    readonly #port: BrokerPort;
    /** How many want what a filter matches. */
    readonly #wanted = new Map<string, number>();
    readonly #published = new Map<number, (outcome: Published, reason: string) => void>();
    #ids = 0;

    constructor(port: BrokerPort) {
        super();
        this.#port = port;
        port.hear((news) => this.#hear(news));
    }

    open(login: Login): void {
        this.login = login;
        this.unheard.clear();
        this.#port.post({ open: login });
    }

    /** Forgets the login, too. */
    close(): void {
        this.login = undefined;
        this.#wanted.clear();
        this.#port.post({ close: true });
    }

    /** Asks for what a filter matches; returns what ends that. What the broker has kept comes again with each asking. */
    subscribe(filter: string, qos: 0 | 1): () => void {
        this.#wanted.set(filter, (this.#wanted.get(filter) ?? 0) + 1);
        this.#port.post({ subscribe: [[filter, qos]] });
        let isOver = false;
        return () => {
            if (isOver) return;
            isOver = true;
            const left = (this.#wanted.get(filter) ?? 1) - 1;
            if (left > 0) {
                this.#wanted.set(filter, left);
            } else if (this.#wanted.delete(filter)) {
                this.#port.post({ unsubscribe: [filter] });
            }
        };
    }

    /** Resolves when the broker has the message; rejects with a PublishError otherwise. Nothing goes out later. */
    publish(topic: string, payload: string): Promise<void> {
        const id = this.#ids++;
        return new Promise((resolve, reject) => {
            this.#published.set(id, (outcome, reason) => {
                if (outcome === "taken") resolve();
                else reject(new PublishError(outcome, reason));
            });
            this.#port.post({ publish: { topic, payload }, id });
        });
    }

    #hear(news: BrokerNews): void {
        if ("messages" in news) this.#take(news.messages);
        else if ("unheard" in news) this.#refused(news.unheard);
        else if ("state" in news) this.#enter(news.state, news.reason);
        else {
            this.#published.get(news.id)?.(news.outcome, news.reason ?? "");
            this.#published.delete(news.id);
        }
    }

    /** One message that cannot be handled does not take the next ones with it. */
    #take(messages: BrokerMessage[]): void {
        for (const message of messages) {
            try {
                this.onMessage(message);
            } catch (error) {
                reportError(error);
            }
        }
        this.#port.post({ handled: true });
    }

    #refused(filters: string[]): void {
        for (const filter of filters) this.unheard.add(filter);
        this.changed();
    }

    /** What is on its way when the connection ends may have come through or not. */
    #enter(state: BrokerState, reason: string): void {
        const wasConnected = this.state === "connected";
        this.state = state;
        this.reason = reason;
        if (wasConnected && state !== "connected") {
            for (const settle of this.#published.values()) settle("unknown", "the connection was lost");
            this.#published.clear();
        }
        this.changed();
    }
}
