import { useState } from "preact/hooks";
import { namesOfDaemon } from "../model/link";
import type { Session } from "../model/session";
import { shown } from "../model/text";
import { linkText } from "../model/view";
import { copyText } from "./copy";
import { Question } from "./question";

type LinkDialogProps = { session: Session; tell: (text: string) => void; close: () => void };

/** Says what goes into the link: where the daemon is, is nobody's business unless somebody says so. */
export function LinkDialog({ session, tell, close }: LinkDialogProps) {
    const [withAddress, setWithAddress] = useState(false);
    const [withSchema, setWithSchema] = useState(false);
    const daemon = addressOf(session);
    const { schemaFile } = session;
    const { text, isWhole } = linkText(session.view.present(false));
    const link = linkTo({
        view: text,
        ...(withAddress && daemon && { address: daemon }),
        ...(withSchema && schemaFile && { schema: schemaFile }),
    });
    const answer = async (agreed: boolean) => {
        close();
        if (agreed) tell((await copyText(link)) ? "The link is copied" : "The link could not be copied");
    };
    return (
        <Question title="Copy a link to this view" yes="Copy" no="Cancel" answer={(agreed) => void answer(agreed)}>
            <p>It has the plots, pins, folds, filters and columns, by the names of values.</p>
            {!isWhole && <p class="problem">Not all that is folded and pinned fits into a link.</p>}
            <label class="check">
                <input
                    type="checkbox"
                    checked={withAddress}
                    onChange={(event) => setWithAddress(event.currentTarget.checked)}
                />
                <span>With the daemon's address{daemon && <code> {shown(daemon)}</code>}</span>
            </label>
            {schemaFile && (
                <label class="check">
                    <input
                        type="checkbox"
                        checked={withSchema}
                        onChange={(event) => setWithSchema(event.currentTarget.checked)}
                    />
                    <span>
                        With the schema <code>{shown(schemaFile)}</code>
                    </span>
                </label>
            )}
            <input
                class="link"
                readOnly
                value={link}
                aria-label="The link"
                onFocus={(event) => event.currentTarget.select()}
            />
        </Question>
    );
}

function addressOf({ address }: Session): string | undefined {
    try {
        return namesOfDaemon(address).url;
    } catch {
        return undefined;
    }
}

/** This page, and what a link to it brings. */
function linkTo(query: Record<string, string>): string {
    const url = new URL(window.location.href);
    url.hash = "";
    url.search = String(new URLSearchParams(query));
    return url.href;
}
