import { lag } from "../model/lag";
import { ageText } from "../model/text";
import { useSource } from "./frame";
import { Icon } from "./icons";

/** Less than this, in milliseconds, is made up for before anybody has read it. */
const WORTH_TELLING = 500;

/** How far the page is behind what has arrived, while it is. */
export function Behind() {
    useSource(lag, 250);
    if (lag.behind < WORTH_TELLING) return null;
    return (
        <p
            class="behind"
            title="This page cannot follow: newer values wait. The ages and times that it shows are those of arrival."
        >
            <Icon name="problem" /> {ageText(lag.behind)} behind
        </p>
    );
}
