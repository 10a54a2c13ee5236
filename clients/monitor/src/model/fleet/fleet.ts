import { dotted, namesOf, type Leaf, type Value } from "vorbel";
import type { BrokerMessage } from "../../socket/brokermessages";
import { now } from "../clock";
import { markOf, type Mark } from "../limits";
import type { Memory } from "../session";
import { Source } from "../source";
import { shown, valueText } from "../text";
import { readingsOf } from "./batches";
import { BoardSession } from "./board";
import type { Broker } from "./broker";
import { Shelf } from "./shelf";
import { parseStatus } from "./status";
import { nameOf, nowOf, partsOf } from "./topics";

/** Boards that are listed at most, whatever is published below the prefix. */
export const MOST_BOARDS = 10_000;
/** Values of each board that are shown beside it at most. */
export const MOST_COLUMNS = 20;
/** Characters of a board's level, of a type, and of one value that are looked at. */
const LONGEST = { level: 400, value: 100_000 };
/** Milliseconds between two sortings by what changes all the time. */
const PAUSE = 1000;

/** A value of a board that somebody has chosen to see. */
export type Cell = { value: Value; leaf: Leaf | undefined; mark: Mark | undefined; text: string };

/** One board as a row. */
export class Board {
    readonly id: string;
    /** As people see it. */
    readonly label: string;
    /** What is looked for in it. */
    words = "";
    /** Undefined until its status has come. */
    online: boolean | undefined;
    type = "";
    deviceId: string | undefined;
    since: number | undefined;
    lost: number | undefined;
    /** By the dotted paths of columns. */
    readonly cells = new Map<string, Cell>();

    constructor(
        /** As it stands in topics. */
        readonly level: string,
        /** Where it stands among all that have come. */
        readonly number: number,
    ) {
        this.id = nameOf(level);
        this.label = shown(this.id);
    }

    /** The worst of what its chosen values are beyond. */
    get mark(): Mark | undefined {
        let worst: Mark | undefined;
        for (const { mark } of this.cells.values()) {
            if (mark && (!worst || mark.level === "alarm")) worst = mark;
        }
        return worst;
    }
}

/** What rows are sorted by: something that every board has, or a column by its path. */
export type SortKey = "name" | "type" | "online" | "since" | "lost" | "mark" | { path: string };
export type Sorting = { key: SortKey; descending: boolean };

type Choice = { columns: string[]; sorting: Sorting };

/** All boards below a prefix of a broker's topics. It changes with them. */
export class Fleet extends Source {
    readonly boards = new Map<string, Board>();
    /** Whether there are more boards than are listed. */
    isFull = false;
    /** Messages that could not be read. */
    unreadable = 0;
    readonly shelf = new Shelf();
    columns: string[] = [];
    sorting: Sorting = { key: "name", descending: false };
    readonly #memory: Memory;
    readonly #sessions = new Map<string, BoardSession>();
    readonly #leave: (() => void)[] = [];
    /** By what stands behind the board in the topic. */
    readonly #byTopic = new Map<string, { path: string; leave: () => void }>();
    #numbers = 0;
    /** Counts what boards there are. */
    #shape = 0;
    #rows: { key: string; rows: Board[] } = { key: "", rows: [] };

    constructor(
        readonly broker: Broker,
        readonly prefix: string,
        memory: Memory,
        /** Nothing is written until somebody unlocks it. */
        readonly isLocked = false,
    ) {
        super();
        this.#memory = memory;
        broker.onMessage = (message) => this.#hear(message);
        this.#leave.push(broker.subscribe(`${prefix}/+/status`, 1), broker.subscribe(`${prefix}/+/schema`, 1));
        const { columns, sorting } = this.#remembered();
        this.sorting = sorting;
        for (const path of columns) this.#addColumn(path);
    }

    /** Nothing of it is heard of any more. */
    end(): void {
        for (const session of this.#sessions.values()) session.disconnect();
        for (const leave of this.#leave) leave();
        for (const { leave } of this.#byTopic.values()) leave();
    }

    /** What a board shows, as a session of its own; it is the same each time. */
    sessionOf(level: string): BoardSession {
        let session = this.#sessions.get(level);
        if (!session) {
            const place = { broker: this.broker, base: `${this.prefix}/${level}/`, name: nameOf(level) };
            session = new BoardSession(place, this.#memory, this.isLocked);
            this.#sessions.set(level, session);
        }
        return session;
    }

    /** Shows one more value of each board; returns what is wrong with the path. */
    addColumn(path: string): string | undefined {
        const name = dotted(namesOf(path.trim()));
        if (name === "") return "A path is missing";
        if (this.columns.includes(name)) return "It is shown already";
        if (this.columns.length >= MOST_COLUMNS) return `${MOST_COLUMNS} values are shown, not more`;
        this.#addColumn(name);
        this.#keep();
        return undefined;
    }

    removeColumn(path: string): void {
        this.columns = this.columns.filter((each) => each !== path);
        const topic = nowOf(namesOf(path));
        this.#byTopic.get(topic)?.leave();
        this.#byTopic.delete(topic);
        for (const { cells } of this.boards.values()) cells.delete(path);
        const { key } = this.sorting;
        if (typeof key === "object" && key.path === path) this.sorting = { key: "name", descending: false };
        this.#keep();
    }

    /** Sorts by something; by the same once more, the other way round. */
    sortBy(key: SortKey): void {
        const isSame = JSON.stringify(key) === JSON.stringify(this.sorting.key);
        this.sorting = { key, descending: isSame ? !this.sorting.descending : key === "mark" };
        this.#keep();
    }

    /** The boards that have all of the words, sorted; the order of what changes all the time is a second old. */
    rows(search: string): Board[] {
        const { key, descending } = this.sorting;
        const isSteady = key === "name" || key === "type" || key === "since";
        const moment = isSteady ? 0 : Math.floor(now() / PAUSE);
        const state = JSON.stringify([this.#shape, key, descending, search, moment]);
        if (this.#rows.key !== state) this.#rows = { key: state, rows: this.#sorted(search) };
        return this.#rows.rows;
    }

    /** How many boards are listed, how many of them are online, and how many are beyond limits. */
    get counts(): { all: number; online: number; warned: number; alarmed: number } {
        const counts = { all: 0, online: 0, warned: 0, alarmed: 0 };
        for (const board of this.boards.values()) {
            if (board.online === undefined) continue;
            counts.all++;
            if (board.online) counts.online++;
            const { level } = board.mark ?? {};
            if (level === "warn") counts.warned++;
            if (level === "alarm") counts.alarmed++;
        }
        return counts;
    }

    #sorted(search: string): Board[] {
        const words = search.toLowerCase().split(/\s+/).filter(Boolean);
        const fits = ({ online, words: own }: Board) =>
            online !== undefined && words.every((word) => own.includes(word));
        const { key, descending } = this.sorting;
        const boards = [...this.boards.values()].filter(fits);
        const keyed = boards.map((board) => ({ board, key: sortValue(board, key) }));
        const direction = descending ? -1 : 1;
        const byId = key === "name" ? direction : 1;
        keyed.sort(
            (one, other) => compared(one.key, other.key, direction) || byId * byName(one.board.id, other.board.id),
        );
        return keyed.map(({ board }) => board);
    }

    #hear(message: BrokerMessage): void {
        const parts = partsOf(this.prefix, message.topic);
        if (!parts) return;
        const { level, rest } = parts;
        const column = this.#byTopic.get(rest);
        if (column) this.#hearValue(level, column.path, message.text);
        else if (rest === "status") this.#hearStatus(level, message.text);
        else if (rest === "schema") this.#hearSchema(level, message.text);
        this.#sessions.get(level)?.hear(rest, message);
    }

    #hearStatus(level: string, text: string | undefined): void {
        if (text === "") return this.#forget(level);
        const status = text === undefined ? undefined : parseStatus(text);
        const board = status && this.#boardAt(level);
        if (!status) this.unreadable++;
        if (!board) return this.changed();
        if (board.online !== status.online) this.#shape++;
        board.online = status.online;
        if (status.online) {
            const { type, id, since, lost } = status;
            Object.assign(board, { type: shown(type), deviceId: id, since, lost });
        } else {
            board.since = undefined;
        }
        board.words =
            `${board.label} ${board.type} ${board.deviceId ?? ""} ${board.online ? "online" : "offline"}`.toLowerCase();
        this.#shape++;
        this.changed();
    }

    #hearSchema(level: string, text: string | undefined): void {
        const board = this.#boardAt(level);
        if (!board || !text || text === "null") {
            this.shelf.remove(level);
        } else {
            this.shelf.put(level, text);
            for (const [path, { value }] of board.cells) this.#show(board, path, value);
        }
        this.changed();
    }

    #hearValue(level: string, path: string, text: string | undefined): void {
        const board = this.#boardAt(level);
        if (!board) return;
        const value = text === undefined || text.length > LONGEST.value ? undefined : parsed(text);
        if (text === "") board.cells.delete(path);
        else if (value === undefined) this.unreadable++;
        else this.#show(board, path, value);
        this.changed();
    }

    #show(board: Board, path: string, value: Value): void {
        const leaf = this.shelf.leavesOf(board.level)?.get(path);
        const mark = leaf && markOf(leaf, value);
        board.cells.set(path, { value, leaf, mark, text: valueText(value, leaf).slice(0, 200) });
    }

    #forget(level: string): void {
        if (!this.boards.delete(level)) return;
        this.shelf.remove(level);
        this.#shape++;
        this.changed();
    }

    /** Undefined where there are too many, or where it cannot be one. */
    #boardAt(level: string): Board | undefined {
        const board = this.boards.get(level);
        if (board) return board;
        if (level.length > LONGEST.level) return undefined;
        if (this.boards.size >= MOST_BOARDS) {
            this.isFull = true;
            return undefined;
        }
        const added = new Board(level, this.#numbers++);
        this.boards.set(level, added);
        return added;
    }

    #addColumn(path: string): void {
        const topic = nowOf(namesOf(path));
        this.columns = [...this.columns, path];
        this.#byTopic.set(topic, { path, leave: this.broker.subscribe(`${this.prefix}/+/${topic}`, 0) });
    }

    #keep(): void {
        this.#memory.save(`fleet ${this.prefix}`, JSON.stringify({ columns: this.columns, sorting: this.sorting }));
        this.#shape++;
        this.changed();
    }

    #remembered(): Choice {
        const usual: Choice = { columns: [], sorting: this.sorting };
        try {
            const { columns, sorting } = JSON.parse(this.#memory.load(`fleet ${this.prefix}`) ?? "") as Choice;
            const isList = Array.isArray(columns) && columns.every((path) => typeof path === "string" && path !== "");
            return isList && isSorting(sorting) ? { columns: columns.slice(0, MOST_COLUMNS), sorting } : usual;
        } catch {
            return usual;
        }
    }
}

const byName = new Intl.Collator("en", { numeric: true }).compare;
const KEYS: readonly unknown[] = ["name", "type", "online", "since", "lost", "mark"];

function isSorting(found: unknown): found is Sorting {
    const { key, descending } = (found ?? {}) as Partial<Sorting>;
    const isKey = KEYS.includes(key) || typeof (key as { path?: unknown })?.path === "string";
    return isKey && typeof descending === "boolean";
}

function sortValue(board: Board, key: SortKey): number | string | undefined {
    if (typeof key === "object") return sortable(board.cells.get(key.path)?.value);
    if (key === "name") return undefined; // by which equal ones are sorted
    if (key === "type") return board.type;
    if (key === "online") return Number(board.online);
    if (key === "mark") return { alarm: 2, warn: 1, none: 0 }[board.mark?.level ?? "none"];
    return board[key];
}

function sortable(value: Value | undefined): number | string | undefined {
    if (typeof value === "number") return Number.isNaN(value) ? undefined : value;
    if (typeof value === "boolean") return Number(value);
    return typeof value === "string" ? value : undefined;
}

/** Those without a value are the last, whichever way round. */
function compared(one: number | string | undefined, other: number | string | undefined, direction: number): number {
    if (one === undefined || other === undefined) return Number(one === undefined) - Number(other === undefined);
    if (typeof one === "number" && typeof other === "number") return direction * (one - other);
    return direction * byName(String(one), String(other));
}

function parsed(text: string): Value | undefined {
    try {
        return readingsOf(JSON.parse(text), undefined);
    } catch {
        return undefined;
    }
}
