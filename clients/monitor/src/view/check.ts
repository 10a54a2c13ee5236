import { useEffect, useRef, useState } from "preact/hooks";
import { Checker, type Checked } from "../check/checker";

/** The last finished check, and whether it is that of `text`. */
export function useCheck(text: string): Checked & { isFinished: boolean } {
    const [checked, setChecked] = useState<Checked>({ text: "", problems: [] });
    const checker = useRef<Checker>(null);
    useEffect(() => {
        checker.current = new Checker(setChecked);
        return () => checker.current!.end();
    }, []);
    useEffect(() => checker.current!.check(text), [text]);
    return { ...checked, isFinished: checked.text === text };
}
