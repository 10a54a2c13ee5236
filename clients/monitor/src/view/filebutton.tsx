import type { ComponentChildren } from "preact";
import { useRef } from "preact/hooks";

type FileButtonProps = {
    /** What those hear who do not see the button. */
    label: string;
    /** The name of the field behind it. */
    name: string;
    accept: string;
    take: (file: File) => void;
    square?: boolean;
    children: ComponentChildren;
};

/** Lets somebody choose a file; the same one again as well, since it may have changed. */
export function FileButton({ label, name, accept, take, square = false, children }: FileButtonProps) {
    const input = useRef<HTMLInputElement>(null);
    return (
        <>
            <button
                class={square ? "square" : ""}
                aria-label={label}
                title={label}
                onClick={() => input.current!.click()}
            >
                {children}
            </button>
            <input
                ref={input}
                type="file"
                accept={accept}
                class="hidden"
                tabIndex={-1}
                aria-label={name}
                onChange={(event) => {
                    const file = event.currentTarget.files?.[0];
                    if (file) take(file);
                    event.currentTarget.value = "";
                }}
            />
        </>
    );
}
