"""What the tool says to the person: on standard error, as standard output is for values."""

import asyncio
import contextlib
import os
import sys
import time
from collections.abc import AsyncIterator

from .client import Client


def say(text: str) -> None:
    print(f"vorbel-cli: {text}", file=sys.stderr, flush=True)


def counted(number: int, one: str, many: str = "") -> str:
    """A number of things; of more than one, an s is the rule."""
    return f"{number} {one if number == 1 else many or one + 's'}"


def is_dumb() -> bool:
    """Whether the terminal only writes one line after the other."""
    return os.environ.get("TERM", "dumb") == "dumb"


class Progress:
    """One line on the terminal that is written over and over; nothing where standard error is none."""

    INTERVAL = 0.2  # seconds

    def __init__(self) -> None:
        self._can_be_shown = sys.stderr.isatty() and not is_dumb()
        self._started = time.monotonic()
        self._shown_at = 0.0

    def show(self, text: str) -> None:
        now = time.monotonic()
        if self._can_be_shown and now - self._shown_at > self.INTERVAL:
            self._shown_at = now
            seconds = int(now - self._started)
            print(f"\r\x1b[K{seconds // 60:02}:{seconds % 60:02}  {text}", end="", file=sys.stderr, flush=True)

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
