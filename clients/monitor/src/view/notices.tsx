import { namesOfDaemon } from "../model/link";
import type { Session } from "../model/session";
import { shown } from "../model/text";
import { useClock } from "./frame";
import { Icon } from "./icons";
import { Question } from "./question";

/** What a link wants is asked for before anything of it is done. */
export function LinkQuestion({ session }: { session: Session }) {
    const { address, schema } = session.asked;
    if (address === undefined && !schema) return null;
    const daemon = address === undefined ? undefined : namesOfDaemon(address);
    return (
        <Question
            // A schema that has been read meanwhile is a question of its own.
            key={schema?.name}
            title={daemon ? `Connect to ${daemon.host}?` : "Use another schema?"}
            yes={daemon ? `Connect to ${daemon.host}` : "Use it"}
            no="Ignore the link"
            answer={(agreed) => (agreed ? session.acceptLink() : session.declineLink())}
        >
            {daemon && (
                <p>
                    The link leads to the daemon <code>{daemon.url}</code> instead of{" "}
                    <code>{namesOfDaemon(session.address).url}</code>. It receives what is written here, and is
                    remembered for the next visit.
                </p>
            )}
            {schema && (
                <p>
                    The link brings the schema <code>{shown(schema.name)}</code>, which names the values here and is
                    remembered for the next visit. It is not sent to the daemon.
                </p>
            )}
        </Question>
    );
}

/** Whose schema is in force, when it may be another client's. */
export function SchemaNotice({ session, openSchema }: { session: Session; openSchema: () => void }) {
    useClock(500);
    const { foreign, locked } = session;
    if (!foreign) return null;
    return (
        <p class="notice" role="status">
            <Icon name="problem" />
            <span>
                <b>
                    {foreign.certain
                        ? "Another client has replaced the schema."
                        : "Another client may have replaced the schema."}
                </b>{" "}
                Who sent the last one owns it: the one here is not sent unasked.{" "}
                <span class="quiet">{shown(foreign.reason)}</span>
            </span>
            <button onClick={openSchema}>See the schema</button>
            <button disabled={locked} onClick={() => session.setSchema(session.schemaText, true)}>
                Send the one here
            </button>
        </p>
    );
}
