"""Lines for the journal, each of which begins with its priority."""

import sys
import threading
from typing import Optional

_lock = threading.Lock()


def info(text: str) -> None:
    _write(6, text)


def warning(text: str) -> None:
    _write(4, text)


def critical(text: str) -> None:
    _write(3, text)


def _write(priority: int, text: str) -> None:
    with _lock:
        print(f"<{priority}>{text}", file=sys.stderr, flush=True)


class Trouble:
    """Something that may go wrong again and again: told once, until it is another, or is over."""

    def __init__(self) -> None:
        self._told: Optional[str] = None

    def tell(self, text: str) -> None:
        if text != self._told:
            self._told = text
            warning(text)

    def over(self) -> bool:
        """Whether there was any since the last time."""
        was_there, self._told = self._told is not None, None
        return was_there


class Refusals:
    """What strangers can cause: told at most `most` times in `seconds`, and then by number."""

    def __init__(self, most: int = 10, seconds: float = 60) -> None:
        self._most, self._seconds = most, seconds
        self._begin, self._told, self._untold = float("-inf"), 0, 0

    def tell(self, text: str, now: float) -> None:
        if now - self._begin >= self._seconds:
            self._say_rest()
            self._begin, self._told = now, 0
        if self._told < self._most:
            self._told += 1
            warning(text)
        else:
            self._untold += 1

    def _say_rest(self) -> None:
        if self._untold:
            warning(f"refused: {self._untold} more")
        self._untold = 0
