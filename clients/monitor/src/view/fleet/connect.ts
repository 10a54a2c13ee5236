import type { BrokerPort } from "../../model/fleet/broker";
import type { BrokerNews } from "../../socket/brokermessages";
import Mqtt from "../../socket/mqtt?worker";

/** A thread of its own for a connection with a broker. */
export function newPort(): BrokerPort {
    const thread = new Mqtt();
    return {
        post: (order) => thread.postMessage(order),
        hear: (listener) => {
            thread.onmessage = ({ data }: MessageEvent<BrokerNews>) => listener(data);
            thread.onerror = ({ message }) =>
                listener({ state: "waiting", reason: message || "the page's server does not give what connects" });
        },
    };
}
