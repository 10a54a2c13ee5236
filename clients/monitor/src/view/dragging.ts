/** What is dragged is a value by the id of its node. */
export const DRAGGED = "application/x-vorbel-value";

/** What makes an element a place to drop a value; it hears when one is over it, and the id of one that is dropped. */
export function dropTarget(setTarget: (on: boolean) => void, drop: (id: string) => void) {
    return {
        onDragOver: (event: DragEvent) => {
            if (!event.dataTransfer?.types.includes(DRAGGED)) return;
            event.preventDefault();
            setTarget(true);
        },
        onDragLeave: () => setTarget(false),
        onDrop: (event: DragEvent) => {
            setTarget(false);
            const id = event.dataTransfer?.getData(DRAGGED);
            if (!id) return;
            event.preventDefault();
            drop(id);
        },
    };
}
