import { useEffect, useMemo, useState } from "preact/hooks";
import { dotted } from "vorbel";
import { Archive, historyUrl } from "../../model/archive";
import type { BoardSession } from "../../model/fleet/board";
import { Broker } from "../../model/fleet/broker";
import { Fleet, MOST_BOARDS, type Board } from "../../model/fleet/fleet";
import { brokerUrl, rememberedLogin, rememberLogin, type Entry } from "../../model/fleet/login";
import { FleetPlots } from "../../model/fleet/plots";
import { shown } from "../../model/text";
import type { TreeNode } from "../../model/tree";
import { askHistory, memory, pageUrl } from "../../page";
import { App } from "../app";
import { Boundary } from "../boundary";
import { useSource } from "../frame";
import { ThemeButton } from "../header";
import { Icon } from "../icons";
import { PlotPanel } from "../plots";
import { Tabs } from "../tabs";
import { partsFor, useGuard } from "./board";
import { newPort } from "./connect";
import "./fleet.css";
import { BoardGrid } from "./grid";
import { LoginForm } from "./login";

type Query = { get(name: string): string | null };

/** The boards of a broker: the way in, then all of them, or one. */
export function FleetPage({ query }: { query: Query }) {
    const [broker] = useState(() => new Broker(newPort()));
    const [first, setFirst] = useState(() => firstEntry(query));
    const [fleet, setFleet] = useState<Fleet>();
    useSource(broker);
    const enter = (entry: Entry, remember: boolean) => {
        rememberLogin(memory, remember ? entry : undefined);
        setFirst({ ...entry, password: "" });
        start(entry);
    };
    const start = ({ prefix, ...login }: Entry) => {
        fleet?.end();
        broker.open(login);
        setFleet(new Fleet(broker, prefix, memory, query.get("locked") !== null));
    };
    const leave = () => {
        rememberLogin(memory, undefined);
        fleet?.end();
        broker.close();
        setFleet(undefined);
    };
    useEffect(() => {
        const known = rememberedLogin(memory, first.url, first.prefix);
        if (known) start(known);
    }, []);
    if (fleet && broker.state !== "refused") {
        return (
            <Boards
                key={fleet.prefix}
                fleet={fleet}
                history={historyUrl(query.get("history"), pageUrl())}
                leave={leave}
            />
        );
    }
    return (
        <>
            <div class="top">
                <header>
                    <Title />
                    <div class="tools">
                        <DaemonLink />
                        <ThemeButton />
                    </div>
                </header>
            </div>
            <main class="entry">
                <LoginForm first={first} problem={fleet ? broker.reason : ""} enter={enter} />
            </main>
        </>
    );
}

/** What the page's address asks for; nobody is let in by it alone. */
function firstEntry(query: Query): Entry {
    const prefix = query.get("prefix") || "vorbel";
    const asked = query.get("fleet") ?? "";
    try {
        return { url: brokerUrl(asked, pageUrl()), prefix, user: "", password: "" };
    } catch {
        return { url: asked, prefix, user: "", password: "" };
    }
}

function Title() {
    return (
        <h1>
            <img src="./icon.svg" alt="" width="28" height="28" />
            Vorbel fleet
        </h1>
    );
}

function DaemonLink() {
    return (
        <a class="button" href="./">
            One daemon
        </a>
    );
}

const brokerWords = {
    connected: "Connected",
    connecting: "Connecting",
    waiting: "Not connected",
    refused: "Refused",
    closed: "Disconnected",
};

type BoardsProps = { fleet: Fleet; history: string; leave: () => void };

const tabs = [
    { name: "values", icon: "fleet", label: "boards" },
    { name: "plots", icon: "plot" },
] as const;

function Boards({ fleet, history, leave }: BoardsProps) {
    const [plots] = useState(() => new FleetPlots(fleet));
    const [archive] = useState(() => newArchive(plots, history));
    const [open, setOpen] = useState<Board>();
    const [tab, setTab] = useState<(typeof tabs)[number]["name"]>("values");
    useSource(plots.status);
    plots.archive = archive;
    if (open) {
        const close = () => {
            plots.release(fleet.sessionOf(open.level));
            setOpen(undefined);
            setTimeout(() => document.getElementById("boards-grid")?.focus());
        };
        return <BoardPage key={open.level} board={open} fleet={fleet} archive={archive} close={close} />;
    }
    return (
        <>
            <div class="top">
                <Boundary part="The header">
                    <FleetHeader fleet={fleet} leave={leave} />
                </Boundary>
            </div>
            <main class={`fleet${plots.plots.nodes.length > 0 ? "" : " alone"}`} data-tab={tab}>
                <Boundary part="The table of boards">
                    <BoardGrid fleet={fleet} plots={plots} open={setOpen} />
                </Boundary>
                <div class="side">
                    <Boundary part="The plots">
                        <PlotPanel session={plots} empty="Press values of boards: they are drawn here together." />
                    </Boundary>
                </div>
            </main>
            <Tabs tabs={tabs} chosen={tab} choose={setTab} drawn={plots.plots.nodes.length} />
        </>
    );
}

/** The past of what is drawn, of whichever board. */
function newArchive(plots: FleetPlots, url: string): Archive {
    return new Archive(url, (node) => plots.sourceOf(node), askHistory);
}

function FleetHeader({ fleet, leave }: { fleet: Fleet; leave: () => void }) {
    const { broker } = fleet;
    useSource(broker);
    useSource(fleet, 250);
    const { all, online, warned, alarmed } = fleet.counts;
    const unheard = [...broker.unheard];
    return (
        <header>
            <Title />
            <p class={`state ${broker.state}`}>
                <span class="dot" />
                <span role="status">
                    <strong>{brokerWords[broker.state]}</strong>
                    <span class="device">
                        <span class="quiet">to</span> {shown(broker.login?.url ?? "")}
                        {broker.login?.user && <code>{shown(broker.login.user)}</code>}
                    </span>
                </span>
                {broker.state !== "connected" && <span class="quiet reason">{shown(broker.reason)}</span>}
            </p>
            <p class="counts">
                <b>{all}</b> boards, <b>{online}</b> online
                {alarmed > 0 && <span class="beyond"> ▲ {alarmed} in alarm</span>}
                {warned > 0 && <span class="warned"> ▲ {warned} with a warning</span>}
            </p>
            {fleet.unreadable > 0 && (
                <p class="undecodable" title="Messages of boards that cannot be read">
                    <Icon name="problem" /> {fleet.unreadable} unreadable
                </p>
            )}
            {fleet.isFull && (
                <p class="problem" role="status">
                    There are more than {MOST_BOARDS} boards: the others are not listed.
                </p>
            )}
            {fleet.shelf.without.size > 0 && (
                <p class="problem" role="status">
                    The schemas take more than 32 MiB: {fleet.shelf.without.size} boards are shown without units and
                    limits.
                </p>
            )}
            {unheard.length > 0 && (
                <p class="problem" role="status">
                    The broker does not let this user read {shown(unheard.slice(0, 3).join(", "))}
                    {unheard.length > 3 && ` and ${unheard.length - 3} more`}.
                </p>
            )}
            <div class="tools">
                <DaemonLink />
                <button onClick={leave}>Log out</button>
                <ThemeButton />
            </div>
        </header>
    );
}

type BoardPageProps = { board: Board; fleet: Fleet; archive: Archive; close: () => void };

/** One board, as a daemon would be shown. */
function BoardPage({ board, fleet, archive, close }: BoardPageProps) {
    const session: BoardSession = useMemo(() => fleet.sessionOf(board.level), []);
    const parts = useMemo(() => partsFor(board, close), []);
    useMemo(() => {
        const labelsOf = ({ path }: TreeNode) => ({ board: board.id, path: dotted(path) });
        session.archive = new Archive(archive.url, labelsOf, askHistory);
        session.connect();
    }, []);
    useGuard(session);
    return <App session={session} parts={parts} />;
}
