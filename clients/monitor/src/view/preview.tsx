import type { Leaf } from "vorbel";
import type { Draft } from "../model/draft";
import { touchedText } from "../model/plan";
import { hexText, shown } from "../model/text";

/** The frames that a draft becomes. */
export function FramePreview({ leaf, draft: { plan } }: { leaf: Leaf; draft: Draft }) {
    return (
        <span class="preview">
            mac {leaf.mac} cmd {leaf.cmd}
            {plan?.frames?.map((bytes, at) => (
                <code key={at}>{hexText(bytes)}</code>
            ))}
            {plan?.frames?.length === 0 && ": nothing goes out"}
        </span>
    );
}

/** What a draft changes on the bus, and what of it has to be agreed to: here, where there is something to call. */
export function Consequences({
    draft,
    agreed = false,
    agree,
}: {
    draft: Draft;
    agreed?: boolean;
    agree?: (agreed: boolean) => void;
}) {
    const { plan, foreign, consequences } = draft;
    if (!plan) return null;
    return (
        <>
            {plan.frames && <p class="changes quiet">{shown(changesText(plan.changes))}</p>}
            {plan.beside.length > 0 && <p class="quiet">{plan.beside.map((text) => `${text}.`).join(" ")}</p>}
            {plan.sharing.length > 0 && (
                <p class="quiet">In the same bytes: {shown(plan.sharing.map(touchedText).join("; "))}.</p>
            )}
            {plan.cut > 0 && <p class="quiet">The last {plan.cut} bytes do not fit the frame and are cut off.</p>}
            {plan.left.length > 0 && (
                <p class="quiet">
                    The frame ends before {shown(plan.left.map(touchedText).join("; "))}: it goes out without.
                </p>
            )}
            {consequences !== "" && (
                <div class="consequences" role="group" aria-label="Consequences">
                    {plan.zeroed.length > 0 && (
                        <>
                            <p>These go out as zero, because nothing is written to them:</p>
                            <ul>
                                {plan.zeroed.map((each) => (
                                    <li key={each.what}>{shown(touchedText(each))}</li>
                                ))}
                            </ul>
                        </>
                    )}
                    {foreign !== undefined && (
                        <p>
                            Another client may have replaced the schema ({shown(foreign)}): in its schema, these names
                            may belong to other frames.
                        </p>
                    )}
                    {agree && (
                        <label>
                            <input
                                type="checkbox"
                                checked={agreed}
                                onChange={(event) => agree(event.currentTarget.checked)}
                            />
                            Send it nevertheless
                        </label>
                    )}
                </div>
            )}
        </>
    );
}

function changesText(changes: string[] | undefined): string {
    if (!changes) return "Nothing of this frame has been read: what changes is not known.";
    if (changes.length === 0) return "Changes nothing of the last reading.";
    return `Changes ${changes.join("; ")}`;
}
