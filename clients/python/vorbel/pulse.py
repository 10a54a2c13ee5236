"""Whether the daemon at the other end of a connection still answers: asked once a second, by a ping."""

from __future__ import annotations

import asyncio
import contextlib
import socket
import struct
from collections.abc import Callable
from typing import TYPE_CHECKING

from websockets.exceptions import ConnectionClosed

if TYPE_CHECKING:
    from websockets.legacy.client import WebSocketClientProtocol

INTERVAL = 1.0  # seconds from one question to the next
DOUBTED_AFTER = 2  # questions in a row without an answer: nothing is to be written
LOST_AFTER = 5  # the connection is given up


async def ask(connection: WebSocketClientProtocol, answered: Callable[[], None]) -> None:
    """Sends a ping. `answered` is called when the answer has come, if it ever does: behind all that the daemon had
    sent when it had handled what was sent to it before."""
    def take(answer: asyncio.Future[None]) -> None:
        if not answer.cancelled() and answer.exception() is None:
            answered()

    asyncio.ensure_future(await connection.ping()).add_done_callback(take)


class Pulse:
    """The pulse of one connection. `unanswered` counts the questions since the last sign of life.

    Questions are counted and not seconds: a program that blocks its event loop asks nothing meanwhile, and does not
    take its own silence for the daemon's.
    """

    def __init__(self, connection: WebSocketClientProtocol) -> None:
        self._connection = connection
        self.unanswered = 0

    @property
    def is_doubtful(self) -> bool:
        return self.unanswered >= DOUBTED_AFTER

    @property
    def is_lost(self) -> bool:
        return self.unanswered > LOST_AFTER

    def heard(self) -> None:
        """Something came: that is an answer, too."""
        self.unanswered = 0

    async def watch(self) -> None:
        """Asks until there was no answer for too long, and ends the connection then."""
        while not self.is_lost:
            self.unanswered += 1
            pause = asyncio.create_task(asyncio.sleep(INTERVAL))
            await self._ask()
            await pause
        self._drop()

    async def _ask(self) -> None:
        with contextlib.suppress(ConnectionClosed, TimeoutError):  # a link that takes nothing does not take a ping
            async with asyncio.timeout(INTERVAL):
                await ask(self._connection, self.heard)

    def _drop(self) -> None:
        """Resets the connection, so that what the kernel has not delivered yet is gone: otherwise it would go on
        trying for minutes, and what was written would move something when the link is back."""
        transport = self._connection.transport
        transport.get_extra_info("socket").setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        transport.abort()
