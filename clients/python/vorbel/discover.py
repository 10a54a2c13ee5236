"""The command that shows what there is on a bus, and writes a schema to begin with."""

import argparse
import asyncio
import contextlib
import json
import os
import time
import types
from collections.abc import AsyncIterator, Iterator
from typing import Optional

from .client import Values
from .division import ENOUGH
from .errors import VorbelError
from .ownership import SchemaChanged
from .session import Session
from .skeleton import skeleton
from .tap import NODES, frames_in, tapping
from .terminal import Progress, counted, say
from .traffic import Endpoint, Traffic

LOOKED_AT = 0.2  # seconds from one look at what has come to the next
NOTHING = "no frames came: is the link up, and does anything talk on the bus?"


async def discover(options: argparse.Namespace, grid: Optional[types.ModuleType]) -> int:
    """The command, with the module of the live grid or without one. Being interrupted is how a person ends it."""
    if options.output and os.path.exists(options.output):
        raise VorbelError(f"{options.output} exists; name another file")
    traffic = Traffic()
    async with tapping(options) as session:
        if grid is not None:
            watching = grid.watch_grid(session, traffic, follow(session, traffic, options.seconds))
        else:
            watching = _watch_plainly(session, traffic, options.seconds)
        with contextlib.suppress(asyncio.CancelledError):
            await watching
    traffic.digest(time.time())
    print("".join(line + "\n" for line in summary(traffic)), end="")
    if session.client.lost:
        say(f"{counted(session.client.lost, 'message')} came faster than they could be looked at")
    if traffic.frames == 0:
        say(NOTHING)
        return 1
    if options.output:
        _write(traffic, options.output)
    return 0


async def follow(session: Session, traffic: Traffic, seconds: Optional[float]) -> None:
    """For some seconds, or until another client replaces the schema."""
    async for event in session.client.events(seconds):
        if isinstance(event, Values):
            traffic.take(frames_in(event.data))
            continue
        session.take(event)
        if isinstance(event, SchemaChanged) and event.state == "replaced":
            return


async def _watch_plainly(session: Session, traffic: Traffic, seconds: Optional[float]) -> None:
    progress = Progress()
    session.note = progress.note
    async with _digesting(traffic, progress):
        await follow(session, traffic, seconds)


@contextlib.asynccontextmanager
async def _digesting(traffic: Traffic, progress: Progress) -> AsyncIterator[None]:
    async def digest() -> None:
        while True:
            await asyncio.sleep(LOOKED_AT)
            traffic.digest(time.time())
            progress.show(f"{counted(traffic.frames, 'frame')} of {counted(len(traffic.endpoints), 'endpoint')}")

    task = asyncio.create_task(digest())
    try:
        yield
    finally:
        task.cancel()
        await asyncio.wait({task})
        progress.end()


def summary(traffic: Traffic) -> Iterator[str]:
    """Lines for people and programs, with tabs between what each has of an endpoint."""
    if traffic.frames:
        yield "node\tcommand\tid\tframes\trate\tlength\tlast\tranges"
    for each in traffic.endpoints:
        yield "\t".join((str(each.identifier % NODES), str(each.identifier // NODES), f"{each.identifier:03X}",
                         str(each.count), f"{each.rate():.1f}", lengths_text(each), each.payload.hex(" ").upper(),
                         " ".join(range_text(each, at) for at in range(max(each.lengths)))))


def lengths_text(endpoint: Endpoint) -> str:
    """All that came. What has 8 may have been longer."""
    return ",".join(str(length) for length in sorted(endpoint.lengths))


def range_text(endpoint: Endpoint, byte: int) -> str:
    low, high = endpoint.low[byte], endpoint.high[byte]
    return f"{low:02X}" if low == high else f"{low:02X}-{high:02X}"


def _write(traffic: Traffic, path: str) -> None:
    progress = Progress()
    progress.show("looking for fields")
    found = traffic.fields()
    progress.end()
    try:
        with open(path, "x", encoding="utf-8") as file:
            json.dump(skeleton(found), file, indent=4)
            file.write("\n")
    except FileExistsError:
        raise VorbelError(f"{path} exists; name another file") from None
    left_out = len(traffic.endpoints) - len(found)
    if left_out:
        say(f"{counted(left_out, 'endpoint')} left out, with less than {ENOUGH} frames of one length")
    fields = sum(len(fields) for _, fields in found.values())
    say(f"{path}: {counted(fields, 'field')} of {counted(len(found), 'endpoint')}; name them, give them units, and "
        f"watch them with: vorbel-cli watch -s {path}")
