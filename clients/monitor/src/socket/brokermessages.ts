/** How one gets in at a broker; without a user, as anybody. */
export type Login = { url: string; user: string; password: string };

/** What the page wants of the thread that holds its connection with a broker. "handled" asks for what has come since. */
export type BrokerOrder =
    | { open: Login }
    | { subscribe: [filter: string, qos: 0 | 1][] }
    | { unsubscribe: string[] }
    | { publish: { topic: string; payload: string }; id: number }
    | { handled: true }
    | { close: true };

/** What came on a topic; without a text where it is too large to be looked at. */
export type BrokerMessage = { topic: string; text: string | undefined; retain: boolean; arrival: number };

/** "waiting" is between two attempts; with "refused" there is no other one without another login. */
export type BrokerState = "connecting" | "connected" | "waiting" | "refused" | "closed";

/**
 * What became of a message: "taken" by the broker, "refused" by it, never sent, or nobody knows. A broker of MQTT 3.1.1
 * takes also what it does not hand on.
 */
export type Published = "taken" | "refused" | "unsent" | "unknown";

export type BrokerNews =
    | { state: BrokerState; reason: string }
    | { messages: BrokerMessage[] }
    /** Filters that the broker does not let this user subscribe to. */
    | { unheard: string[] }
    | { id: number; outcome: Published; reason?: string };
