"""What a run says in the end."""

import collections

from invariants import percentile

OF_EACH = 3  # breaches that are shown
BEHIND = 5  # seconds that are shown behind the first breach


def table(head, rows):
    widths = [max(len(str(row[at])) for row in (head, *rows)) for at in range(len(head))]

    def line(row):
        return "| " + " | ".join(str(cell).ljust(width) for cell, width in zip(row, widths)) + " |"

    return "\n".join([line(head), line(["-" * width for width in widths]), *map(line, rows)])


def text(soak):
    """The whole report: tables, and what was not kept."""
    breaches = soak.watch.breaches
    parts = [f"{soak.options.minutes:g} minutes on {soak.options.link}, seed {soak.options.seed}, "
             f"{soak.options.rate} records a second, up to {soak.at_once} faults at once",
             table(["fault", "times"], [*sorted(soak.injected.items()), ("all", sum(soak.injected.values()))]),
             values(soak.watch, soak.chain.board.batches), writes(soak.watch), programs(soak), delays(soak.watch)]
    if breaches:
        parts += [last_minute(soak), "\n".join(shown(breaches)),
                  f"Again: scripts/soak {soak.options.minutes:g} --seed {soak.options.seed} --link {soak.options.link}"]
    parts.append(f"{len(breaches)} breaches")
    return "\n\n".join(parts)


def compared(watch):
    """How many values all honest clients have heard."""
    return sum(sum(hearing.compared.values()) for hearing in watch.hearings.values())


def values(watch, batches):
    lost = collections.Counter()
    for breach in watch.breaches:
        lost[breach.text.split(":")[0]] += breach.kind == "lost"
    rows = [[name, sum(hearing.compared.values()), hearing.lost, hearing.doubled, f"{watch.silences[name]:.1f} s"]
            for name, hearing in sorted(watch.hearings.items())]
    boards = batches.hearings.values()
    rows.append(["broker", sum(sum(each.compared.values()) for each in boards), sum(each.lost for each in boards),
                 sum(each.doubled for each in boards), ""])
    rows.append(["history", len(watch.stored), lost["history"], 0, ""])
    return "\n".join([
        table(["who", "values compared", "lost", "doubled", "longest silence"], rows),
        f"Batches at the broker: {batches.missing} missing, {batches.repeated} that came again and were passed over. "
        f"Messages that a library said it had dropped: {watch.skipped}."])


def writes(watch):
    breaches = collections.Counter(breach.text.split(":")[0] for breach in watch.breaches if breach.kind == "write")
    return table(["writer", "written", "confirmed", "arrived", "breaches"],
                 [[name, *writer.counts, breaches[name]] for name, writer in watch.writers.items()])


def programs(soak):
    rows = []
    for name, before in soak.watch.before.items():
        after = soak.watch.after[name]
        rows.append([name, len(soak.programs[name].lives), f"{before['memory']:.1f}", f"{after['memory']:.1f}",
                     before["descriptors"], after["descriptors"], before["threads"], after["threads"],
                     *(f"{each[name]:.0f}" if name in each else "" for each in soak.watch.wakes)])
    return table(["program", "starts", "MiB first", "MiB last", "descriptors first", "last", "threads first", "last",
                  "wakes a second first", "last"], rows)


def delays(watch):
    return (f"From the bus to a client while faults raged elsewhere: median "
            f"{1000 * percentile(watch.delays, 0.5):.1f} ms, p99 {1000 * percentile(watch.delays, 0.99):.1f} ms, of "
            f"{len(watch.delays)} values")


def shown(breaches):
    """A few of each kind and of each who has them: many of one do not hide the others."""
    seen, found = collections.Counter(), []
    for breach in breaches:
        who = breach.kind, breach.text.split(":")[0]
        seen[who] += 1
        if seen[who] <= OF_EACH:
            found.append(f"{breach.kind}: {breach.text}")
    more = len(breaches) - len(found)
    return found + ([f"and {more} more of the same"] if more else [])


def last_minute(soak):
    """What happened in the minute before the first breach or, if there was none, before the end."""
    events = soak.watch.events
    end = min((breach.time for breach in soak.watch.breaches), default=events[-1][0] if events else 0)
    shown_events = [f"{at - end:8.2f} s  {event}" for at, event in events if end - 60 <= at <= end + BEHIND]
    return "\n".join(["The last minute:", *shown_events])
