import { Component, type ComponentChildren } from "preact";
import { Icon } from "./icons";

/** A part of the page that fails is replaced by what went wrong; the others go on. */
export class Boundary extends Component<{ part: string; children: ComponentChildren }, { error?: Error }> {
    override state: { error?: Error } = {};

    static override getDerivedStateFromError(error: unknown): { error: Error } {
        return { error: error instanceof Error ? error : new Error(String(error)) };
    }

    override componentDidCatch(error: unknown): void {
        console.warn(`${this.props.part} could not be shown:`, error);
    }

    override render() {
        const { error } = this.state;
        if (!error) return this.props.children;
        return (
            <section class="panel failed" role="alert">
                <p>
                    <Icon name="problem" />
                    <span>
                        {this.props.part} cannot be shown: {error.message}
                    </span>
                </p>
                <button onClick={() => this.setState({ error: undefined })}>Try again</button>
            </section>
        );
    }
}
