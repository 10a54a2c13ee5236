import { useEffect, useLayoutEffect, useRef, useState } from "preact/hooks";
import { now } from "../../model/clock";
import { rateText } from "../../model/text";
import { BYTES, identifierText } from "../../model/workshop/frames";
import type { Endpoint } from "../../model/workshop/traffic";
import type { Workshop } from "../../model/workshop/workshop";
import { follow, repeatedly } from "../frame";
import { paintByte } from "./paint";

/** Rates that change more often cannot be read. */
const READABLE = 500;

type EndpointsProps = { workshop: Workshop; chosen: number | undefined; choose: (identifier: number) => void };

/** Everything that talks: who, how often, and its bytes, each with how lately it has changed. */
export function Endpoints({ workshop, chosen, choose }: EndpointsProps) {
    const endpoints = useEndpoints(workshop);
    const list = useRef<HTMLDivElement>(null);
    const at = endpoints.findIndex(({ identifier }) => identifier === chosen);
    usePainting(list, endpoints);
    const step = (event: KeyboardEvent) => {
        const target = stepped(event.key, at, endpoints.length);
        if (target === undefined) return;
        event.preventDefault();
        choose(endpoints[target]!.identifier);
        (list.current!.children[target] as HTMLElement).focus();
    };
    return (
        <section class="panel endpoints" aria-labelledby="endpoints-title">
            <div class="title">
                <h2 id="endpoints-title">What talks</h2>
                <FrameCount workshop={workshop} />
            </div>
            {endpoints.length === 0 && (
                <p class="empty">No frame has come yet. Does anything talk on the bus, and is the link up?</p>
            )}
            <p class="endpoint heads" aria-hidden="true">
                <span>id</span>
                <span>node</span>
                <span>cmd</span>
                <span class="number">/s</span>
                <span>bytes</span>
            </p>
            <div ref={list} class="list" role="listbox" aria-labelledby="endpoints-title" onKeyDown={step}>
                {endpoints.map((endpoint, place) => (
                    <EndpointRow
                        key={endpoint.identifier}
                        endpoint={endpoint}
                        isChosen={place === at}
                        canBeReached={place === Math.max(0, at)}
                        choose={choose}
                    />
                ))}
            </div>
        </section>
    );
}

/** Those that have been heard of, drawn anew only when there are more. */
function useEndpoints({ traffic, values }: Workshop): Endpoint[] {
    const [endpoints, setEndpoints] = useState<Endpoint[]>(() => traffic.sorted);
    useEffect(() => {
        let count = -1;
        const look = () => {
            if (traffic.endpoints.size === count) return;
            count = traffic.endpoints.size;
            setEndpoints(traffic.sorted);
        };
        look();
        return follow(values, look, 100);
    }, [traffic]);
    return endpoints;
}

function FrameCount({ workshop: { traffic, values } }: { workshop: Workshop }) {
    const place = useRef<HTMLSpanElement>(null);
    useEffect(() => {
        const draw = () => {
            if (place.current) place.current.textContent = `${traffic.frames.toLocaleString("en")} frames`;
        };
        draw();
        return follow(values, draw, READABLE);
    }, [traffic]);
    return <span ref={place} class="quiet" />;
}

/** Where a key leads from a place of a list; undefined for keys that lead nowhere. */
function stepped(key: string, at: number, count: number): number | undefined {
    const targets: Record<string, number> = {
        ArrowUp: at - 1,
        ArrowDown: at + 1,
        PageUp: at - 10,
        PageDown: at + 10,
        Home: 0,
        End: count - 1,
        Enter: at,
        " ": at,
    };
    const target = Object.hasOwn(targets, key) ? targets[key]! : undefined;
    return target === undefined || count === 0 ? undefined : Math.max(0, Math.min(target, count - 1));
}

type RowProps = {
    endpoint: Endpoint;
    isChosen: boolean;
    canBeReached: boolean;
    choose: (identifier: number) => void;
};

/**
 * What changes in it is painted by usePainting(): there can be many rows, and a frame every millisecond. To a screen
 * reader its name stays the same: what it is at present, the grid of the chosen one tells.
 */
function EndpointRow({ endpoint, isChosen, canBeReached, choose }: RowProps) {
    const { identifier, node, command } = endpoint;
    const element = useRef<HTMLDivElement>(null);
    useLayoutEffect(() => {
        paintRow(element.current!, endpoint, now());
        paintRate(element.current!, endpoint, now());
    }, [endpoint]);
    return (
        <div
            ref={element}
            class="endpoint"
            role="option"
            aria-selected={isChosen}
            data-identifier={identifier}
            tabIndex={canBeReached ? 0 : -1}
            onClick={() => choose(identifier)}
        >
            <code>{identifierText(identifier)}</code>
            <span>
                <span class="hidden">node </span>
                {node}
            </span>
            <span>
                <span class="hidden">command </span>
                {command}
            </span>
            <span class="number rate" aria-hidden="true" />
            <span class="bytes" aria-hidden="true">
                {Array.from({ length: BYTES }, (_, byte) => (
                    <span key={byte} class="byte" />
                ))}
            </span>
        </div>
    );
}

/** Paints the rows that are in sight, with every picture of the screen. */
function usePainting(list: { current: HTMLDivElement | null }, endpoints: Endpoint[]): void {
    useEffect(() => {
        const rows = [...list.current!.children] as HTMLElement[];
        const byRow = new Map(rows.map((row, at) => [row as Element, endpoints[at]!]));
        const inSight = new Set<Element>();
        const observer = new IntersectionObserver(
            (changes) => {
                for (const { target, isIntersecting } of changes) {
                    if (isIntersecting) inSight.add(target);
                    else inSight.delete(target);
                }
            },
            { root: list.current, rootMargin: "100px" },
        );
        for (const row of rows) observer.observe(row);
        const paintAll = (paint: typeof paintRow) => {
            const time = now();
            for (const row of inSight) paint(row as HTMLElement, byRow.get(row)!, time);
        };
        const stops = [
            repeatedly(0, () => paintAll(paintRow)),
            repeatedly(READABLE, () => paintAll(paintRate)),
            () => observer.disconnect(),
        ];
        return () => stops.forEach((stop) => stop());
    }, [endpoints]);
}

function paintRow(row: HTMLElement, endpoint: Endpoint, time: number): void {
    const cells = row.lastElementChild!.children;
    for (let byte = 0; byte < BYTES; byte++) paintByte(cells[byte] as HTMLElement, endpoint, byte, time);
}

function paintRate(row: HTMLElement, endpoint: Endpoint, time: number): void {
    row.querySelector(".rate")!.textContent = rateText(endpoint.rate(time));
}
