"""What has come from the broker and has not been taken yet, between the thread of the session and that which writes."""

import collections
import threading
from typing import NamedTuple

HELD_LIMIT = 64 * 1024 * 1024  # bytes of messages that wait


class Message(NamedTuple):
    connection: int  # acknowledgements go to the connection on which it came
    mid: int  # 0 for one that needs no acknowledgement
    topic: str
    payload: bytes


class Inbox:
    def __init__(self) -> None:
        self._messages: collections.deque[Message] = collections.deque()
        self._bytes = 0
        self._changed = threading.Condition()
        self._is_closed = False

    @property
    def bytes(self) -> int:
        return self._bytes

    def put(self, message: Message) -> bool:
        """False if there is no room for it."""
        with self._changed:
            if self._bytes and self._bytes + len(message.payload) > HELD_LIMIT:
                return False
            self._messages.append(message)
            self._bytes += len(message.payload)
            self._changed.notify()
            return True

    def take(self, most: int, seconds: float) -> list[Message]:
        """The next messages, of about so many bytes; none if none comes in time."""
        with self._changed:
            if not self._messages and not self._is_closed:
                self._changed.wait(seconds)
            taken: list[Message] = []
            while self._messages and most > 0:
                taken.append(self._messages.popleft())
                most -= len(taken[-1].payload)
            self._bytes -= sum(len(message.payload) for message in taken)
            return taken

    def clear(self) -> None:
        """The connection is gone: whatever came on it comes again."""
        with self._changed:
            self._messages.clear()
            self._bytes = 0

    def close(self) -> None:
        """Nobody waits any more."""
        with self._changed:
            self._is_closed = True
            self._changed.notify()
