import { dotted, type Problem } from "vorbel";
import { shown } from "../model/text";
import { Icon } from "./icons";

/** What is wrong or doubtful in a schema, as items of a list; more than `most` are told by their number. */
export function ProblemItems({ problems, most }: { problems: readonly Problem[]; most: number }) {
    return (
        <>
            {problems.slice(0, most).map(({ severity, path, message }) => (
                <li key={`${path.join("/")} ${message}`} class={severity}>
                    <Icon name="problem" />
                    <span>
                        <span class="hidden">{severity}: </span>
                        <code>{shown(dotted(path)) || "document"}</code> {shown(message)}
                    </span>
                </li>
            ))}
            {problems.length > most && <li>… and {problems.length - most} more.</li>}
        </>
    );
}
