import { valueIn, type Leafish } from "../../model/workshop/selection";
import type { Endpoint } from "../../model/workshop/traffic";

/** Times, in milliseconds, and the values at them. */
export type Course = { times: number[]; values: number[] };

/** What a leaf was in the last frames of its endpoint: in so many at most, and since a time. */
export function courseOf({ recent }: Endpoint, leaf: Leafish, most: number, since = -Infinity): Course {
    const course: Course = { times: [], values: [] };
    for (let at = Math.max(0, recent.length - most); at < recent.length; at++) {
        const time = recent.timeAt(at);
        if (time < since) continue;
        const value = valueIn(leaf, recent.payloadAt(at));
        if (value === undefined || !Number.isFinite(value)) continue;
        course.times.push(time);
        course.values.push(value);
    }
    return course;
}
