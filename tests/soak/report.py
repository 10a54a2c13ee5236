"""What a run says in the end."""

import time

from invariants import percentile

SHOWN = 40


def table(head, rows):
    widths = [max(len(str(row[at])) for row in (head, *rows)) for at in range(len(head))]

    def line(row):
        return "| " + " | ".join(str(cell).ljust(width) for cell, width in zip(row, widths)) + " |"

    return "\n".join([line(head), line(["-" * width for width in widths]), *map(line, rows)])


def show(soak):
    print(text(soak), flush=True)


def text(soak):
    parts = [f"Seed {soak.options.seed}, {soak.options.minutes:g} minutes, {soak.options.rate} records a second",
             table(["fault", "times"], sorted(soak.injected.items())), _values(soak), _writes(soak), _programs(soak)]
    delays = soak.delays
    parts.append(f"From the bus to a client while faults raged elsewhere, {len(delays)} values: median "
                 f"{1000 * percentile(delays, 0.5):.1f} ms, p99 {1000 * percentile(delays, 0.99):.1f} ms")
    parts.append(f"{len(soak.breaches)} breaches")
    if soak.breaches:
        parts.append(_breaches(soak))
    return "\n\n".join(parts)


def _values(soak):
    rows = []
    lost = {}
    for breach in soak.breaches:
        if breach.kind == "lost":
            name = breach.text.split(":")[0]
            lost[name] = lost.get(name, 0) + 1
    for name, hearing in sorted(soak.hearings.items()):
        rows.append([name, sum(hearing.compared.values()), lost.get(name, 0), hearing.doubled,
                     f"{soak.silences[name]:.1f} s"])
    board = soak.board.hearings.values()
    rows.append(["broker", sum(sum(each.compared.values()) for each in board),
                 sum(lost.get(each.name, 0) for each in board) + soak.board.missing,
                 sum(each.doubled for each in board), ""])
    rows.append(["history", len(soak.stored), lost.get("history", 0), 0, ""])
    return table(["who", "values compared", "lost", "doubled", "longest silence"], rows)


def _writes(soak):
    return table(["writer", "written", "confirmed", "arrived", "breaches"],
                 [[name, *writer.counts, sum(1 for breach in soak.breaches if breach.kind == "write"
                                             and breach.text.startswith(f"{name}:"))]
                  for name, writer in soak.writers.items()])


def _programs(soak):
    rows = []
    for name, first in soak.calm.items():
        now = soak.now[name]
        rows.append([name, len(soak.programs[name].lives), f"{first['memory']:.1f} MiB", f"{now['memory']:.1f} MiB",
                     f"{first['descriptors']} / {now['descriptors']}", f"{first['threads']} / {now['threads']}"])
    return table(["program", "starts", "memory first", "memory last", "descriptors", "threads"], rows)


def _breaches(soak):
    shown = [f"  {breach.kind}: {breach.text}" for breach in soak.breaches[:SHOWN]]
    if len(soak.breaches) > SHOWN:
        shown.append(f"  and {len(soak.breaches) - SHOWN} more")
    end = time.monotonic() if not soak.events else soak.events[-1][0]
    last = [f"  {at - end:8.2f} s  {event}" for at, event in soak.events if at > end - 60]
    return "\n".join([*shown, "", "The last minute:", *last, "", f"Again: scripts/soak {soak.options.minutes:g} --seed "
                      f"{soak.options.seed}"])
