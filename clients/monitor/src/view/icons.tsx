const shapes = {
    open: "M9 6l6 6-6 6",
    foldAll: "M7 5l5 5 5-5M7 19l5-5 5 5",
    unfoldAll: "M7 10l5-5 5 5M7 14l5 5 5-5",
    columns: "M4 5h16v14H4zM10 5v14M15 5v14",
    link: "M10 14a4 4 0 0 0 6 0l3-3a4 4 0 0 0-6-6l-1 1M14 10a4 4 0 0 0-6 0l-3 3a4 4 0 0 0 6 6l1-1",
    workshop: "M4 4h6v6H4zM14 4h6v6h-6zM4 14h6v6H4zM14 17h6M17 14v6",
    fleet: "M4 5h7v5H4zM13 5h7v5h-7zM4 14h7v5H4zM13 14h7v5h-7z",
    undo: "M9 5L4 10l5 5M4 10h10a5 5 0 0 1 0 10h-3",
    redo: "M15 5l5 5-5 5M20 10H10a5 5 0 0 0 0 10h3",
    reset: "M5 12a7 7 0 1 0 2.5-5.4M5 4v4h4",
    changed: "M3 12h4l3-7 4 14 3-7h4",
    pin: "M9 3h6l-1 7 4 4H6l4-4zM12 14v7",
    plot: "M4 4v16h16M7 14l3-4 3 3 4-6",
    set: "M4 17v3h3L18 9l-3-3L4 17zM13 8l3 3",
    lock: "M7 11V8a5 5 0 0 1 10 0v3M6 11h12v9H6z",
    unlocked: "M7 11V8a5 5 0 0 1 9.6-2M6 11h12v9H6z",
    pause: "M9 6v12M15 6v12",
    play: "M8 5l11 7-11 7z",
    record: "M12 7a5 5 0 1 1 0 10 5 5 0 0 1 0-10z",
    stop: "M7 7h10v10H7z",
    folder: "M4 19V6h6l2 3h8v10z",
    back: "M7 6v12M18 6l-8 6 8 6z",
    on: "M17 6v12M6 6l8 6-8 6z",
    closer: "M11 4a7 7 0 1 1 0 14 7 7 0 0 1 0-14zM16 16l4 4M8 11h6M11 8v6",
    wider: "M11 4a7 7 0 1 1 0 14 7 7 0 0 1 0-14zM16 16l4 4M8 11h6",
    down: "M12 5v14M6 13l6 6 6-6",
    alarm: "M6 17V11a6 6 0 0 1 12 0v6l2 2H4zM10 21h4",
    orders: "M4 6h9M4 12h9M4 18h6M17 6v12M14 15l3 3 3-3",
    close: "M6 6l12 12M18 6L6 18",
    schema: "M9 4H7a2 2 0 0 0-2 2v4l-2 2 2 2v4a2 2 0 0 0 2 2h2M15 4h2a2 2 0 0 1 2 2v4l2 2-2 2v4a2 2 0 0 1-2 2h-2",
    theme: "M12 3a9 9 0 1 0 0 18zM12 3a9 9 0 0 1 0 18",
    search: "M11 4a7 7 0 1 1 0 14 7 7 0 0 1 0-14zM16 16l4 4",
    sent: "M4 12h14M13 6l6 6-6 6",
    problem: "M12 4l9 16H3zM12 10v4M12 17v.5",
    connection: "M5 12a7 7 0 0 1 14 0M8.5 12a3.5 3.5 0 0 1 7 0M12 12v7",
};

export type IconName = keyof typeof shapes;

/** A drawing that says nothing to a screen reader: the label is on what it stands in. */
export function Icon({ name }: { name: IconName }) {
    return (
        <svg class="icon" viewBox="0 0 24 24" aria-hidden="true">
            <path d={shapes[name]} />
        </svg>
    );
}
