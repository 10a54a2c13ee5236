import { Icon, type IconName } from "./icons";

export interface Tab<Name extends string> {
    name: Name;
    icon: IconName;
    /** What it is called, if not by its name. */
    label?: string;
}

/** The parts of a page that a phone shows one at a time. `drawn` is how much there is in the tab "plots". */
export function Tabs<Name extends string>(props: {
    tabs: readonly Tab<Name>[];
    chosen: Name;
    choose: (name: Name) => void;
    drawn: number;
}) {
    return (
        <nav class="tabs" aria-label="Parts of the page">
            {props.tabs.map(({ name, icon, label }) => (
                <button
                    key={name}
                    aria-current={props.chosen === name ? "page" : undefined}
                    onClick={() => props.choose(name)}
                >
                    <Icon name={icon} />
                    {label ?? name}
                    {name === "plots" && props.drawn > 0 && <b>{props.drawn}</b>}
                </button>
            ))}
        </nav>
    );
}
