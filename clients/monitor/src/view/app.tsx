import type { ComponentType } from "preact";
import { useEffect, useRef, useState } from "preact/hooks";
import type { Session } from "../model/session";
import { memory } from "../page";
import { useSource } from "./frame";
import { Boundary } from "./boundary";
import { Header, type HeaderProps } from "./header";
import { later } from "./later";
import { ViewNotice } from "./link";
import { LogPanel } from "./log";
import { LinkQuestion, SchemaNotice } from "./notices";
import { PlotPanel } from "./plots";
import { RecordingTools, useDesk } from "./recordings";
import { SchemaDialog } from "./schema";
import { ValueTable } from "./table";
import { Tabs } from "./tabs";
import { WritePanel, type WriteProps } from "./write";

const OrdersPanel = later(() => import("./orders").then((part) => part.OrdersPanel));
const RunBar = later(() => import("./orders").then((part) => part.RunBar));
const AlarmsPanel = later(() => import("./limits").then((part) => part.AlarmsPanel));
const WorkshopPage = later(() => import("./workshop/workshop").then((part) => part.WorkshopPage));
const InterruptedNotice = later(() => import("./workshop/notice").then((part) => part.InterruptedNotice));

const tabs = [
    { name: "values", icon: "search" },
    { name: "plots", icon: "plot" },
    { name: "log", icon: "sent" },
] as const;
type Tab = (typeof tabs)[number]["name"];

/** What differs with where the values come from. */
export type Parts = { Header: ComponentType<HeaderProps>; WritePanel: ComponentType<WriteProps> };

/** The parts for a daemon. */
const usual: Parts = { Header, WritePanel };

export function App({ session, parts = usual }: { session: Session; parts?: Parts }) {
    const desk = useDesk(session);
    const playback = desk.recordings?.playback;
    const shown = playback ?? session;
    useSource(session.status);
    useSource(shown.status);
    const [tab, setTab] = useState<Tab>("values");
    const [schemaOpen, openSchema] = useState(false);
    const [workshop, setWorkshop] = useState<"asking" | "open">();
    useEffect(ignoreRepeatedEnter, []);
    useFocusAfter(workshop === "open");
    const writing = shown.writing;
    const workshopPage = workshop && (
        <Boundary key="workshop" part="The workshop">
            <WorkshopPage
                session={session}
                enter={(isOpen) => setWorkshop(isOpen ? "open" : "asking")}
                close={() => setWorkshop(undefined)}
            />
        </Boundary>
    );
    if (workshop === "open") return <>{workshopPage}</>;
    return (
        <>
            {workshopPage}
            <div class="top">
                {session.run && (
                    <Boundary part="What goes out by itself">
                        <RunBar session={session} run={session.run} />
                    </Boundary>
                )}
                {!playback && (
                    <Boundary part="The header">
                        <parts.Header
                            session={session}
                            openSchema={() => openSchema(true)}
                            openWorkshop={() => setWorkshop("asking")}
                        >
                            <RecordingTools desk={desk} />
                        </parts.Header>
                        <SchemaNotice session={session} openSchema={() => openSchema(true)} />
                        <ViewNotice session={session} />
                        {session.takesSchemas && memory.load("workshop") && <InterruptedNotice session={session} />}
                    </Boundary>
                )}
                <Boundary part="The recording">
                    <desk.Panel />
                </Boundary>
            </div>
            <main data-tab={tab} key={playback?.id}>
                <Boundary part="The table of values">
                    <ValueTable session={shown} openSchema={() => openSchema(true)} />
                </Boundary>
                <div class="side">
                    {writing && (
                        <Boundary key={writing.id} part="The form">
                            <parts.WritePanel session={shown} node={writing} />
                        </Boundary>
                    )}
                    {!playback && session.showsAlarms && (
                        <Boundary part="The alarms">
                            <AlarmsPanel session={session} />
                        </Boundary>
                    )}
                    {!playback && session.ordering && (
                        <Boundary part="Presets and sequences">
                            <OrdersPanel session={session} ordering={session.ordering} />
                        </Boundary>
                    )}
                    <Boundary part="The plots">
                        <PlotPanel session={shown} />
                    </Boundary>
                    <Boundary part="The log">
                        <LogPanel log={shown.log} />
                    </Boundary>
                </div>
            </main>
            <Tabs tabs={tabs} chosen={tab} choose={setTab} drawn={shown.plots.nodes.length} />
            <Boundary part="The question about the link">
                <LinkQuestion session={session} />
            </Boundary>
            {schemaOpen && (
                <Boundary part="The schema's dialogue">
                    <SchemaDialog session={session} close={() => openSchema(false)} />
                </Boundary>
            )}
        </>
    );
}

/** When the workshop is left, the focus goes back to where it came from. */
function useFocusAfter(isOpen: boolean): void {
    const wasOpen = useRef(false);
    useEffect(() => {
        if (wasOpen.current && !isOpen) document.getElementById("workshop-button")?.focus();
        wasOpen.current = isOpen;
    }, [isOpen]);
}

/** A key that is held is not a wish for more of the same: it would open a form and confirm it. */
function ignoreRepeatedEnter(): () => void {
    const ignore = (event: KeyboardEvent) => {
        const writesText = event.target instanceof HTMLTextAreaElement;
        if (event.key !== "Enter" || !event.repeat || writesText) return;
        event.preventDefault();
        event.stopPropagation();
    };
    window.addEventListener("keydown", ignore, true);
    return () => window.removeEventListener("keydown", ignore, true);
}
