"""Frames as lines and logs of candump, which many programs read."""

import argparse
import asyncio
import contextlib
import os
import sys
import time
from collections.abc import Iterator
from typing import Callable, Optional, TextIO

from .client import Values
from .errors import VorbelError
from .ownership import SchemaChanged
from .session import Session
from .tap import Frame, frames_in, tapping
from .terminal import counted, say

INTERFACE = "can0"


def log_line(frame: Frame, when: float, interface: str = INTERFACE) -> str:
    """As in a file of candump -l."""
    return f"({when:017.6f}) {interface} {frame.identifier:03X}#{frame.payload.hex().upper()}"


def line(frame: Frame, stamp: str = "", interface: str = INTERFACE) -> str:
    """As candump shows it, with a time stamp or without one."""
    return (f" {stamp} {interface}  {frame.identifier:03X}   [{len(frame.payload)}]  "
            f"{frame.payload.hex(' ').upper()}")


class Stamps:
    """The time stamps of candump -t: (a)bsolute, (d)elta to the frame before, (z)ero at the first one, (A)bsolute with
    the date; none for an empty one."""

    def __init__(self, kind: str = "") -> None:
        self._kind = kind
        self._since: Optional[float] = None

    def of(self, when: float) -> str:
        if self._kind == "a":
            return f"({when:017.6f}) "
        if self._kind == "A":
            seconds, fraction = divmod(round(when * 1e6), 10**6)
            return f"({time.strftime('%Y-%m-%d %H:%M:%S', time.localtime(seconds))}.{fraction:06}) "
        return f"({self._passed(when):010.6f}) " if self._kind else ""

    def _passed(self, when: float) -> float:
        """A clock that was put back lets no time pass."""
        since = when if self._since is None else self._since
        if self._since is None or self._kind == "d":
            self._since = when
        return max(0.0, when - since)


def default_log() -> str:
    return time.strftime("candump-%Y-%m-%d_%H%M%S.log")


@contextlib.contextmanager
def opened_log(path: Optional[str]) -> Iterator[Optional[TextIO]]:
    """The log to write to, a new file, which is taken away again if nothing came into it."""
    if path is None:
        yield None
        return
    try:
        file = open(path, "x", encoding="ascii")
    except FileExistsError:
        raise VorbelError(f"{path} exists; name another file") from None
    try:
        with file:
            yield file
    finally:
        if os.path.getsize(path) == 0:
            os.unlink(path)


async def dump(options: argparse.Namespace) -> int:
    """The command. Being interrupted is how a person ends it, and no failure if something came."""
    with opened_log(options.log) as log:
        written = Written(_writer(options, log))
        async with tapping(options) as session:
            try:
                await written.follow(session, options.seconds, options.count)
            except asyncio.CancelledError:
                if written.frames == 0:
                    raise
            finally:
                say(_summary(written.frames, session.client.lost))
            if written.frames == 0:
                say("no frames came: is the link up, and does anything talk on the bus?")
    return 0 if written.frames else 1


class Written:
    """Counts the frames that are written by `write`."""

    def __init__(self, write: Callable[[Frame, float], None]) -> None:
        self.frames = 0
        self._write = write

    async def follow(self, session: Session, seconds: Optional[float], most: Optional[int]) -> None:
        """For some seconds, until there were so many frames, or until another client replaces the schema."""
        async for event in session.client.events(seconds):
            if isinstance(event, Values):
                for frame in frames_in(event.data):
                    self._write(frame, event.time)
                    self.frames += 1
                    if self.frames == most:
                        return
                continue
            session.take(event)
            if isinstance(event, SchemaChanged) and event.state == "replaced":
                return


def _writer(options: argparse.Namespace, log: Optional[TextIO]) -> Callable[[Frame, float], None]:
    """Writes a frame to the log; where there is none to standard output, as a line or as in a log."""
    interface, stamps = options.interface, Stamps(options.stamps)
    if log is not None:
        to_log = log
        return lambda frame, when: _put(to_log, log_line(frame, when, interface))
    if options.as_log:
        return lambda frame, when: _put(sys.stdout, log_line(frame, when, interface))
    return lambda frame, when: _put(sys.stdout, line(frame, stamps.of(when), interface))


def _put(file: TextIO, text: str) -> None:
    """Whoever reads it has it at once."""
    file.write(text + "\n")
    file.flush()


def _summary(frames: int, lost: int) -> str:
    more = f"; {counted(lost, 'message')} more came faster than they could be written" if lost else ""
    return f"{counted(frames, 'frame')}{more}"
