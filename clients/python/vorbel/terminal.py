"""What the tool says to the person: on standard error, as standard output is for values."""

import asyncio
import contextlib
import os
import sys
import time
from collections.abc import AsyncIterator, Coroutine
from typing import Any

from .client import Client


def say(text: str) -> None:
    print(f"vorbel-cli: {text}", file=sys.stderr, flush=True)


def counted(number: int, one: str, many: str = "") -> str:
    """A number of things; of more than one, an s is the rule."""
    return f"{number} {one if number == 1 else many or one + 's'}"


def is_dumb() -> bool:
    """Whether the terminal only writes one line after the other."""
    return os.environ.get("TERM", "dumb") == "dumb"


async def first_of(*works: Coroutine[Any, Any, Any]) -> None:
    """Does them all until one ends, which then is asked how; the others are cancelled."""
    tasks = [asyncio.create_task(work) for work in works]
    try:
        done, _ = await asyncio.wait(tasks, return_when=asyncio.FIRST_COMPLETED)
        for task in done:
            task.result()
    finally:
        for task in tasks:
            task.cancel()
        await asyncio.wait(tasks)


async def agreed(about: str) -> bool:
    """Asks the person at the terminal; the answer is awaited, so that signals end the question."""
    print(f"{about}\nGo on? [y/N] ", end="", file=sys.stderr, flush=True)
    answered = asyncio.Event()
    loop = asyncio.get_running_loop()
    loop.add_reader(sys.stdin.fileno(), answered.set)
    try:
        await answered.wait()
    finally:
        loop.remove_reader(sys.stdin.fileno())
    return sys.stdin.readline().strip().lower() in ("y", "yes")


class Progress:
    """One line on the terminal that is written over and over, behind the time since the beginning if it is `timed`;
    nothing where standard error is none."""

    INTERVAL = 0.2  # seconds

    def __init__(self, timed: bool = True) -> None:
        self._timed = timed
        self.can_be_shown = sys.stderr.isatty() and not is_dumb()
        self._started = time.monotonic()
        self._shown_at = 0.0

    def show(self, text: str) -> None:
        now = time.monotonic()
        if self.can_be_shown and now - self._shown_at > self.INTERVAL:
            self._shown_at = now
            print(f"\r\x1b[K{self._passed(now)}{text}", end="", file=sys.stderr, flush=True)

    def _passed(self, now: float) -> str:
        seconds = int(now - self._started)
        return f"{seconds // 60:02}:{seconds % 60:02}  " if self._timed else ""

    def note(self, text: str) -> None:
        self.end()
        say(text)

    def end(self) -> None:
        if self._shown_at:
            self._shown_at = 0.0
            print("\r\x1b[K", end="", file=sys.stderr, flush=True)


@contextlib.asynccontextmanager
async def connected(client: Client) -> AsyncIterator[Client]:
    """`async with client`, that tells on the terminal what is being waited for."""
    telling = asyncio.create_task(_tell_waiting(client))
    try:
        await client
    finally:
        telling.cancel()
        await asyncio.wait({telling})
    try:
        yield client
    finally:
        await client.close()


async def _tell_waiting(client: Client) -> None:
    progress = Progress()
    try:
        while True:
            await asyncio.sleep(Progress.INTERVAL)
            progress.show(f"waiting for the daemon at {client.uri}: {client.trouble}")
    finally:
        progress.end()
