import type { ComponentChildren } from "preact";
import { useLayoutEffect, useRef } from "preact/hooks";

type QuestionProps = {
    title: string;
    yes: string;
    no: string;
    /** Whether it can be agreed to. */
    ready?: boolean;
    answer: (agreed: boolean) => void;
    children: ComponentChildren;
};

/** A question that has to be answered first. Whatever is not a clear yes is a no. */
export function Question({ title, yes, no, ready = true, answer, children }: QuestionProps) {
    const dialog = useRef<HTMLDialogElement>(null);
    const agreed = useRef(false);
    useLayoutEffect(() => dialog.current!.showModal(), []); // before any further key
    const leave = (agrees: boolean) => {
        agreed.current = agrees;
        dialog.current!.close(); // which gives the focus back to where it was
    };
    return (
        <dialog ref={dialog} class="question" aria-labelledby="question-title" onClose={() => answer(agreed.current)}>
            <h2 id="question-title">{title}</h2>
            {children}
            <div class="actions end">
                <button onClick={() => leave(false)}>{no}</button>
                <button disabled={!ready} onClick={() => leave(true)}>
                    {yes}
                </button>
            </div>
        </dialog>
    );
}
