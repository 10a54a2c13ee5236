import { useEffect, useState } from "preact/hooks";
import type { Session } from "../model/session";
import { useSource } from "./frame";
import { Boundary } from "./boundary";
import { Header } from "./header";
import { Icon } from "./icons";
import { LogPanel } from "./log";
import { LinkQuestion, SchemaNotice } from "./notices";
import { PlotPanel } from "./plots";
import { SchemaDialog } from "./schema";
import { ValueTable } from "./table";
import { WritePanel } from "./write";

const tabs = ["values", "plots", "log"] as const;
type Tab = (typeof tabs)[number];

export function App({ session }: { session: Session }) {
    useSource(session.status);
    const [tab, setTab] = useState<Tab>("values");
    const [schemaOpen, openSchema] = useState(false);
    useEffect(ignoreRepeatedEnter, []);
    const writing = session.writing;
    return (
        <>
            <div class="top">
                <Boundary part="The header">
                    <Header session={session} openSchema={() => openSchema(true)} />
                    <SchemaNotice session={session} />
                </Boundary>
            </div>
            <main data-tab={tab}>
                <Boundary part="The table of values">
                    <ValueTable session={session} openSchema={() => openSchema(true)} />
                </Boundary>
                <div class="side">
                    {writing && (
                        <Boundary key={writing.id} part="The form">
                            <WritePanel session={session} node={writing} />
                        </Boundary>
                    )}
                    <Boundary part="The plots">
                        <PlotPanel session={session} />
                    </Boundary>
                    <Boundary part="The log">
                        <LogPanel log={session.log} />
                    </Boundary>
                </div>
            </main>
            <nav class="tabs" aria-label="Parts of the page">
                {tabs.map((name) => (
                    <button key={name} aria-current={tab === name ? "page" : undefined} onClick={() => setTab(name)}>
                        <Icon name={({ values: "search", plots: "plot", log: "sent" } as const)[name]} />
                        {name}
                        {name === "plots" && session.plots.nodes.length > 0 && <b>{session.plots.nodes.length}</b>}
                    </button>
                ))}
            </nav>
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
