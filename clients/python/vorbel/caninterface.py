"""A CAN interface as the target of a replay."""

import asyncio
import collections
import errno
import time
from typing import Any

from .canlog import Frame, message_of, python_can
from .errors import VorbelError

PATIENCE = 10.0  # seconds for room in the interface's queue
FULL = (None, errno.EAGAIN, errno.ENOBUFS)  # what python-can tells of a queue without room


class CanInterface:
    """Frames onto a SocketCAN interface, through python-can. Inside `with` it is open.

    Error frames are not sent: a controller makes them and cannot be asked for one, and drivers that do not look would
    make data frames of them, for some node to obey."""

    def __init__(self, name: str) -> None:
        self.left_out: collections.Counter[str] = collections.Counter()
        self._name = name
        self._can: Any = python_can("--interface")

    def __enter__(self) -> "CanInterface":
        try:
            self._bus = self._can.Bus(channel=self._name, interface="socketcan", fd=True)
        except (self._can.CanError, OSError) as error:
            raise VorbelError(f"the CAN interface {self._name} cannot be used: {error}") from None
        return self

    def __exit__(self, *_: object) -> None:
        self._bus.shutdown()

    async def send(self, frame: Frame) -> None:
        if frame.is_error:
            self.left_out["error frames"] += 1
            return
        try:
            message = message_of(self._can, frame)
        except ValueError:  # a length that no frame has
            self.left_out["no CAN frames"] += 1
            return
        await self._insist(message)

    async def _insist(self, message: Any) -> None:
        deadline = time.monotonic() + PATIENCE
        while not self._is_done_with(message):
            if time.monotonic() > deadline:
                raise VorbelError(f"the CAN interface {self._name} takes no frames: is anybody on the bus?")
            await asyncio.sleep(0.001)

    def _is_done_with(self, message: Any) -> bool:
        """False while there is no room."""
        try:
            self._bus.send(message)
        except self._can.CanOperationError as error:
            if error.error_code in FULL:
                return False
            if not (message.is_fd and error.error_code == errno.EINVAL):
                raise VorbelError(f"the CAN interface {self._name}: {error}") from None
            self.left_out["FD frames, which the interface is not set up for"] += 1
        return True
