import { checkText, type Problem } from "vorbel";
import CheckThread from "./thread?worker";

/** What a check found, and in which text. */
export type Checked = { text: string; problems: Problem[] };

/** Checks one text after the other; of those that come meanwhile only the last, as nobody waits for the others. */
export class Checker {
    #thread: Worker | undefined = new CheckThread();
    #checking: string | undefined;
    #next: string | undefined;

    constructor(readonly tell: (checked: Checked) => void) {
        this.#thread!.onmessage = ({ data }: MessageEvent<Problem[]>) => this.#finish(data);
        // The thread's program lies on the page's server, which may be away by now.
        this.#thread!.onerror = () => this.#goOnHere();
    }

    check(text: string): void {
        this.#next = text;
        if (this.#checking === undefined) this.#begin();
    }

    end(): void {
        this.#thread?.terminate();
    }

    #begin(): void {
        this.#checking = this.#next;
        this.#next = undefined;
        if (this.#checking === undefined) return;
        if (this.#thread) this.#thread.postMessage(this.#checking);
        else this.#finish(checkText(this.#checking));
    }

    #finish(problems: Problem[]): void {
        this.tell({ text: this.#checking!, problems });
        this.#begin();
    }

    #goOnHere(): void {
        this.end();
        this.#thread = undefined;
        this.#next ??= this.#checking;
        this.#begin();
    }
}
