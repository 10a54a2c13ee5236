import { dotted, namesOf, type Leaf, type Path, type Value } from "vorbel";
import { now, wallClock } from "./clock";
import { hasMembers, Kept } from "./kept";
import { lag } from "./lag";
import type { Memory, Session } from "./session";
import type { Series } from "./series";
import { Source } from "./source";

/** What a value should not leave; either may be missing. */
export type Limits = { low?: number | undefined; high?: number | undefined };
export type Side = "low" | "high";
/** The schema may name two of limits; what was set here is an alarm. */
export type Level = "warn" | "alarm";
/** What a value is beyond. */
export type Mark = { level: Level; side: Side };

export type Alarm = {
    id: string;
    path: string;
    /** Missing in what former versions have kept, which are alarms. */
    level?: Level;
    side: Side;
    limit: number;
    /** By the clock on the wall, in milliseconds since 1970. */
    begin: number;
    /** When the value came back to stay; 0 until then, and where the page has not seen it. */
    end: number;
    /** The reading that was furthest beyond. */
    extreme: number;
    acknowledged: boolean;
};

/** How many alarms are kept. */
const KEPT = 500;
/**
 * Milliseconds that a value has to stay within its limits to end an alarm: one that comes and goes in between is in
 * alarm all the time, and tells of it once.
 */
export const HOLD = 10_000;

/** An alarm that has begun and not ended. Times are those of arrival. */
type Active = { alarm: Alarm; series: Series; within: number | undefined; isSaved: boolean };

/** Watches over the readings of values that have limits. */
export class Guard extends Source {
    readonly alarms: Kept<Alarm>;
    readonly #limits: Map<string, Limits>;
    readonly #active = new Map<string, Active>();

    constructor(
        readonly session: Session,
        readonly memory: Memory,
        /** Hears of every beginning. */
        readonly tell: (alarm: Alarm) => void,
    ) {
        super();
        this.alarms = new Kept(memory, "alarms", KEPT, isAlarm);
        this.#limits = parsedLimits(memory.load("limits"));
        session.status.watch(() => this.#attach());
        this.#attach();
    }

    limitsOf(path: Path): Limits {
        return this.#limits.get(dotted(path)) ?? {};
    }

    hasLimits(path: Path): boolean {
        return this.#limits.has(dotted(path));
    }

    /** The side on which a value is beyond limits. */
    sideOf(path: Path): Side | undefined {
        return this.#activeAt(path)?.alarm.side;
    }

    /** Whether a value is beyond limits that are only warned of. */
    isWarned(path: Path): boolean {
        const active = this.#activeAt(path);
        return active !== undefined && levelOf(active.alarm) === "warn";
    }

    #activeAt(path: Path): Active | undefined {
        return this.#active.size === 0 ? undefined : this.#active.get(dotted(path));
    }

    isActive({ path, id }: Alarm): boolean {
        return this.#active.get(path)?.alarm.id === id;
    }

    /** How many values are in alarm. */
    get count(): number {
        return this.#active.size - this.warnings;
    }

    /** How many values are beyond limits that are only warned of. */
    get warnings(): number {
        return [...this.#active.values()].filter(({ alarm }) => levelOf(alarm) === "warn").length;
    }

    /** An alarm by the limits before is over. */
    setLimits(path: Path, limits: Limits): void {
        const name = dotted(path);
        this.#limits.delete(name);
        if (limits.low !== undefined || limits.high !== undefined) this.#limits.set(name, limits);
        this.memory.save("limits", JSON.stringify(Object.fromEntries(this.#limits)));
        const active = this.#active.get(name);
        if (active) this.#end(active, now());
        this.#attach(name);
        this.changed();
    }

    acknowledge(): void {
        for (const active of this.#active.values()) active.alarm.acknowledged = true;
        this.alarms.change((alarm) => ({ ...alarm, acknowledged: true }));
        this.changed();
    }

    /** What goes on stays. */
    clear(): void {
        this.alarms.clear();
        for (const active of this.#active.values()) this.#save(active);
        this.changed();
    }

    /** To be called about once a second: a value that comes only when it changes stays within without a word. */
    look(): void {
        const time = now() - lag.behind;
        for (const active of [...this.#active.values()]) {
            const node = this.session.tree.find(namesOf(active.alarm.path));
            const isKnown = node?.series && !node.series.isOverdue(time, node.leaf);
            if (isKnown) this.#settle(active, time);
            if (!active.isSaved) this.#save(active);
        }
    }

    /** Those that were set here, or else the schema's, the more severe first. */
    #bandsOf(path: string): Band[] {
        const limits = this.#limits.get(path);
        if (limits) return [{ level: "alarm", ...limits }];
        const { leaf } = this.session.tree.find(namesOf(path)) ?? {};
        return leaf ? bandsOf(leaf) : [];
    }

    /** Sees to it that every reading of a value with limits is heard of; that of `changed` is looked at again. */
    #attach(changed?: string): void {
        this.#leave();
        for (const path of new Set([...this.#limits.keys(), ...this.#namedBySchema()])) {
            const series = this.session.tree.find(namesOf(path))?.series;
            if (!series || (series.guard && path !== changed)) continue;
            series.guard = (value, time) => this.#read(path, series, value, time);
            series.guard(series.value, series.time);
        }
    }

    #namedBySchema(): string[] {
        const { valued } = this.session.tree;
        return valued.filter(({ leaf }) => leaf && bandsOf(leaf).length > 0).map(({ path }) => dotted(path));
    }

    /** Of a value that the schema or the daemon has no more, or has without these limits, the end is not seen. */
    #leave(): void {
        for (const [path, { series, alarm }] of [...this.#active]) {
            const isLimit = (band: Band) => band.level === levelOf(alarm) && band[alarm.side] === alarm.limit;
            const isThere = this.session.tree.find(namesOf(path))?.series === series;
            if (isThere && this.#bandsOf(path).some(isLimit)) continue;
            this.#active.delete(path);
            this.changed();
        }
    }

    #read(path: string, series: Series, value: Value, time: number): void {
        const bands = this.#bandsOf(path);
        const extent = bands.length > 0 ? extentOf(value) : undefined;
        if (!extent) return;
        const beyond = beyondOf(bands, extent);
        const active = this.#active.get(path);
        if (beyond && !(active && isMilder(beyond, active.alarm))) this.#beyond(path, series, beyond, time);
        else if (active) this.#within(active, time);
    }

    #beyond(path: string, series: Series, beyond: Beyond, time: number): void {
        const active = this.#active.get(path);
        if (active?.alarm.side === beyond.side && levelOf(active.alarm) === beyond.level) {
            active.within = undefined;
            this.#extend(active, beyond);
            return;
        }
        if (active) this.#end(active, time);
        this.#begin(path, series, beyond, time);
    }

    #begin(path: string, series: Series, beyond: Beyond, time: number): void {
        const begin = wallClock.at(time);
        // Another page that watches over the same value has the same one.
        const name = beyond.level === "alarm" ? beyond.side : `${beyond.level} ${beyond.side}`;
        const id = `${path} ${name} ${Math.round(begin / 1000)}`;
        const active = {
            alarm: { id, path, ...beyond, begin, end: 0, acknowledged: false },
            series,
            within: undefined,
            isSaved: false,
        };
        this.#active.set(path, active);
        this.#save(active);
        this.tell(active.alarm);
        this.changed();
    }

    #extend(active: Active, { side, extreme }: Beyond): void {
        const { alarm } = active;
        if (side === "high" ? extreme <= alarm.extreme : extreme >= alarm.extreme) return;
        alarm.extreme = extreme;
        active.isSaved = false;
    }

    #within(active: Active, time: number): void {
        active.within ??= time;
        this.#settle(active, time);
    }

    /** Back from an alarm, a value may still be what the schema warns of. */
    #settle(active: Active, time: number): void {
        const { within, series, alarm } = active;
        if (within === undefined || time - within < HOLD) return;
        this.#end(active, within);
        this.#read(alarm.path, series, series.value, time);
    }

    #end(active: Active, time: number): void {
        active.alarm.end = wallClock.at(time);
        this.#active.delete(active.alarm.path);
        this.#save(active);
        this.changed();
    }

    #save(active: Active): void {
        this.alarms.put({ ...active.alarm });
        active.isSaved = true;
    }
}

type Band = Limits & { level: Level };
type Beyond = Mark & { limit: number; extreme: number };

/** The limits that a leaf has by its schema, the more severe first. */
export function bandsOf({ meaning }: Leaf): Band[] {
    return (["alarm", "warn"] as const).flatMap((level) => {
        const [low, high] = meaning[level] ?? [null, null];
        return low === null && high === null ? [] : [{ level, low: low ?? undefined, high: high ?? undefined }];
    });
}

/** What an alarm is told as. */
export function levelOf({ level = "alarm" }: { level?: Level }): Level {
    return level;
}

/** Whether something is only what one is warned of, on the side of an alarm that has not ended. */
function isMilder(beyond: Beyond, alarm: Alarm): boolean {
    return beyond.level === "warn" && levelOf(alarm) === "alarm" && beyond.side === alarm.side;
}

function beyondOf(bands: Band[], { least, most }: Extent): Beyond | undefined {
    for (const { level, low, high } of bands) {
        if (high !== undefined && most > high) return { level, side: "high", limit: high, extreme: most };
        if (low !== undefined && least < low) return { level, side: "low", limit: low, extreme: least };
    }
    return undefined;
}

type Extent = { least: number; most: number };

/** The least and the greatest number of a reading; undefined where it has none. */
function extentOf(value: Value): Extent | undefined {
    const numbers = ArrayBuffer.isView(value) ? Array.from(value as ArrayLike<number>) : [numberOf(value)];
    const [least, most] = numbers.reduce(
        ([least, most], number) =>
            Number.isNaN(number) ? [least, most] : [Math.min(least, number), Math.max(most, number)],
        [Infinity, -Infinity] as [number, number],
    );
    return least <= most ? { least, most } : undefined;
}

function numberOf(value: Value): number {
    const isNumber = typeof value === "number" || typeof value === "bigint" || typeof value === "boolean";
    return isNumber ? Number(value) : NaN;
}

/** What a value is beyond by its leaf; undefined while it is within all limits. */
export function markOf(leaf: Leaf, value: Value): Mark | undefined {
    const bands = bandsOf(leaf);
    const extent = bands.length > 0 ? extentOf(value) : undefined;
    return extent && beyondOf(bands, extent);
}

/** What was typed as a limit: undefined for none, a text for what is wrong. */
export function parseLimits(low: string, high: string): Limits | string {
    const [least, most] = [low, high].map((text) => (text.trim() === "" ? undefined : Number(text)));
    if ([least, most].some((limit) => limit !== undefined && !Number.isFinite(limit))) return "Limits are numbers";
    if (least !== undefined && most !== undefined && least >= most) return "The low limit must lie below the high one";
    return { low: least, high: most };
}

/** As they were stored, perhaps by another version of the page. */
function parsedLimits(text = "{}"): Map<string, Limits> {
    try {
        const stored: unknown = JSON.parse(text);
        const isEntry = ([, limits]: [string, unknown]) => hasMembers(limits, {});
        return new Map(
            Object.entries(stored as Record<string, unknown>)
                .filter(isEntry)
                .map(([path, limits]) => [path, numbersOf(limits as Limits)]),
        );
    } catch {
        return new Map();
    }
}

function numbersOf({ low, high }: Limits): Limits {
    return { low: Number.isFinite(low) ? low : undefined, high: Number.isFinite(high) ? high : undefined };
}

function isAlarm(entry: unknown): entry is Alarm {
    const types = { id: "string", path: "string", side: "string", limit: "number", begin: "number" } as const;
    return hasMembers(entry, { ...types, end: "number", extreme: "number" });
}
