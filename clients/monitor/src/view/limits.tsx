import { useState } from "preact/hooks";
import { namesOf } from "vorbel";
import { bandsOf, Guard, levelOf, parseLimits, type Alarm, type Limits } from "../model/limits";
import type { Session } from "../model/session";
import { amountText, shown, stampText, unitText, valueText } from "../model/text";
import type { TreeNode } from "../model/tree";
import { useSource } from "./frame";
import { Icon } from "./icons";
import "./limits.css";
import { Question } from "./question";
import { canNotify, isNotifying, notify, setNotifying } from "./notify";

/** What watches over the values of a page; there is one. */
export function guardOf(session: Session): Guard {
    if (session.guard) return session.guard;
    const guard = new Guard(session, session.memory, (alarm) => {
        const { what, extreme, limit } = alarmTexts(session, alarm);
        session.log.add("problem", `${what}: ${extreme}`, `limit ${limit}`);
        void notify(session, alarm, alarmTexts(session, alarm));
    });
    setInterval(() => guard.look(), 1000);
    session.guard = guard;
    session.status.changed();
    return guard;
}

/** What is told of an alarm: "motor.current is too high", "9.2 A", "8 A". */
function alarmTexts({ tree }: Session, alarm: Alarm) {
    const { path, side, extreme, limit } = alarm;
    const { leaf } = tree.find(namesOf(path)) ?? {};
    const kind = levelOf(alarm) === "warn" ? "warning: " : "";
    return {
        what: `${kind}${shown(path)} is too ${side}`,
        extreme: valueText(extreme, leaf),
        limit: amountText(limit, leaf),
    };
}

/** Sets the limits of one value. */
export function LimitsEditor({ session, node }: { session: Session; node: TreeNode }) {
    const [before] = useState(() => session.guard?.limitsOf(node.path) ?? {});
    const [low, setLow] = useState(String(before.low ?? ""));
    const [high, setHigh] = useState(String(before.high ?? ""));
    const [told, tell] = useState("");
    const limits = parseLimits(low, high);
    const isWrong = typeof limits === "string";
    const submit = (event: Event) => {
        event.preventDefault();
        if (isWrong) return;
        guardOf(session).setLimits(node.path, limits);
        const none = node.leaf && bandsOf(node.leaf).length > 0 ? "Those of the schema hold" : "No limits";
        tell(isSet(limits) ? "Watched from now on" : none);
    };
    const change = (set: (text: string) => void) => (text: string) => {
        set(text);
        tell("");
    };
    const hasOwn = before.low !== undefined || before.high !== undefined;
    return (
        <form onSubmit={submit}>
            <SchemasLimits node={node} isOverruled={told === "" ? hasOwn : !isWrong && isSet(limits)} />
            <LimitInput name="Low" text={low} isWrong={isWrong} change={change(setLow)} />
            <LimitInput name="High" text={high} isWrong={isWrong} change={change(setHigh)} />
            <button type="submit" disabled={isWrong}>
                Set limits
            </button>
            <p class={isWrong ? "problem" : "quiet"} role="status">
                {isWrong ? limits : told}
            </p>
        </form>
    );
}

function isSet({ low, high }: Limits): boolean {
    return low !== undefined || high !== undefined;
}

/** What the schema says, which holds as long as nothing is set here. */
function SchemasLimits({ node: { leaf }, isOverruled }: { node: TreeNode; isOverruled: boolean }) {
    const bands = leaf ? bandsOf(leaf) : [];
    if (bands.length === 0) return null;
    const end = (word: string, limit: number | undefined) => (limit === undefined ? [] : [`${word} ${limit}`]);
    const texts = bands.map(({ level, low, high }) => {
        const ends = [...end("below", low), ...end("above", high)].join(" or ");
        return `${level === "alarm" ? "alarm" : "warning"} ${ends}${unitText(leaf)}`;
    });
    return (
        <p class="quiet">
            The schema: {texts.join(", ")}.{isOverruled ? " What is set here holds instead." : ""}
        </p>
    );
}

type LimitProps = { name: string; text: string; isWrong: boolean; change: (text: string) => void };

function LimitInput({ name, text, isWrong, change }: LimitProps) {
    return (
        <label>
            {name}
            <input
                value={text}
                placeholder="none"
                autocomplete="off"
                aria-invalid={isWrong}
                onInput={(event) => change(event.currentTarget.value)}
            />
        </label>
    );
}

/** How many values are in alarm, and the way to the list. */
export function AlarmsButton({ session, guard }: { session: Session; guard: Guard }) {
    useSource(guard);
    useSource(guard.alarms);
    const { count, warnings } = guard;
    const past = guard.alarms.entries.filter(({ acknowledged }) => !acknowledged).length;
    const warned = warnings > 0 ? `${warnings} warned` : undefined;
    const present = count > 0 ? `${count} in alarm${warned ? `, ${warned}` : ""}` : warned;
    const text = present ?? (past > 0 ? `${past} past` : undefined);
    return (
        <>
            <button
                class={count > 0 ? "locked" : text ? "told" : ""}
                aria-expanded={session.showsAlarms}
                title="Values beyond their limits"
                onClick={() => session.showAlarms(!session.showsAlarms)}
            >
                <Icon name="alarm" /> {text ?? <span class="hidden">No alarms</span>}
            </button>
            <span class="hidden" role="status">
                {present}
            </span>
        </>
    );
}

/** What was beyond its limits, and when, over all visits. */
export function AlarmsPanel({ session }: { session: Session }) {
    const guard = guardOf(session);
    useSource(guard);
    useSource(guard.alarms, 250);
    const [isAsking, setAsking] = useState(false);
    const { entries } = guard.alarms;
    const close = () => session.showAlarms(false);
    return (
        <section
            class="panel write"
            aria-labelledby="alarms-title"
            onKeyDown={(event) => event.key === "Escape" && !isAsking && close()}
        >
            <div class="title">
                <h2 id="alarms-title">Alarms</h2>
                <button class="square" onClick={close} aria-label="Close">
                    <Icon name="close" />
                </button>
            </div>
            <div class="alarm-list">
                <div class="actions">
                    <button disabled={entries.every((each) => each.acknowledged)} onClick={() => guard.acknowledge()}>
                        Acknowledge
                    </button>
                    <button disabled={entries.length === 0} onClick={() => setAsking(true)}>
                        Clear
                    </button>
                </div>
                <NotifyChoice />
                {entries.length === 0 && <p class="quiet">No value has been beyond its limits.</p>}
                <ol>
                    {entries.map((alarm) => (
                        <AlarmItem key={alarm.id} session={session} alarm={alarm} isActive={guard.isActive(alarm)} />
                    ))}
                </ol>
                {isAsking && (
                    <Question
                        title="Clear the list of alarms?"
                        yes="Clear"
                        no="Keep it"
                        answer={(agreed) => {
                            setAsking(false);
                            if (agreed) guard.clear();
                        }}
                    >
                        <p>It is the only record that this browser has of them. What is in alarm now stays.</p>
                    </Question>
                )}
            </div>
        </section>
    );
}

function NotifyChoice() {
    const [isOn, setOn] = useState(isNotifying);
    const [isRefused, setRefused] = useState(false);
    if (!canNotify()) return <p class="quiet">This browser lets only pages over HTTPS notify.</p>;
    const choose = async (wanted: boolean) => {
        const done = await setNotifying(wanted);
        setOn(done);
        setRefused(wanted && !done);
    };
    return (
        <>
            <label class="check">
                <input type="checkbox" checked={isOn} onChange={(event) => void choose(event.currentTarget.checked)} />
                Notify when an alarm begins, also while the page is hidden
            </label>
            {isRefused && <p class="problem">The browser does not allow notifications from this page.</p>}
        </>
    );
}

function AlarmItem({ session, alarm, isActive }: { session: Session; alarm: Alarm; isActive: boolean }) {
    const { path, side, begin, end, acknowledged } = alarm;
    const { extreme, limit } = alarmTexts(session, alarm);
    const isWarning = levelOf(alarm) === "warn";
    const until = end > 0 ? stampText(end) : isActive ? "now" : "not seen";
    return (
        <li class={isActive ? "active" : ""}>
            <Icon name={isActive ? "problem" : "alarm"} />
            <span>
                {isWarning && "Warning: "}
                <b>{shown(path)}</b> too {side}: {extreme}, limit {limit}
                {!acknowledged && <b class="new"> new</b>}
                <span class="quiet">
                    <time>{stampText(begin)}</time> – {until}
                </span>
            </span>
        </li>
    );
}
