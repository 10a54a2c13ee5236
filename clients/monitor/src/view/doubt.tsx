import { now } from "../model/clock";
import { doubtOf } from "../model/doubt";
import type { Session } from "../model/session";
import { clockText } from "../model/text";
import { Icon } from "./icons";

/** Says when the daemon seems to have another schema than the one used here. Drawn with the values. */
export function SchemaDoubt({ session, openSchema }: { session: Session; openSchema: () => void }) {
    const doubt = session.schema && !session.foreign && doubtOf(session.tree, session.connectedSince, now());
    return (
        <div role="status">
            {doubt && (
                <p class="doubt">
                    <Icon name="problem" />
                    <span>
                        {doubt.kind === "strangers" ? (
                            <>
                                Values come that the schema used here does not have, such as <code>{doubt.path}</code>:
                                another client has replaced the daemon's.
                            </>
                        ) : (
                            <>
                                No value of this schema has come since {clockText(doubt.since)}: another client has
                                cleared or replaced it, or the bus is silent.
                            </>
                        )}
                    </span>
                    <button onClick={openSchema}>See the schema</button>
                </p>
            )}
        </div>
    );
}
