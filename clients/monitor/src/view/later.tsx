import type { ComponentType } from "preact";
import { useEffect, useReducer, useState } from "preact/hooks";

/**
 * A part of the page that is loaded when it is first shown; until then there is its box, if it has one, and it is empty.
 * One that cannot be loaded fails for the boundary around it, but a small one only leaves a mark.
 */
export function later<Props extends object>(
    load: () => Promise<ComponentType<Props>>,
    { box, small = false }: { box?: string; small?: boolean } = {},
): ComponentType<Props> {
    let Part: ComponentType<Props> | undefined;
    return function Later(props: Props) {
        const [problem, setProblem] = useState<Error>();
        const [, redraw] = useReducer<number, void>((count) => count + 1, 0);
        useEffect(() => {
            if (Part) return;
            load().then((loaded) => {
                Part = loaded;
                redraw();
            }, setProblem);
        }, []);
        if (Part) return <Part {...props} />;
        if (problem && !small) throw new Error(`the page's server does not give it: ${problem.message}`);
        if (problem) return <span title={`The page's server does not give this part: ${problem.message}`}>?</span>;
        return box === undefined ? null : <div class={box} />;
    };
}
