"""The latest value of every path, how it changes, and how all of that is written."""

import collections
import math
from collections.abc import Sequence
from typing import Any

from .client import Values
from .meaning import Meanings, Meant
from .wire import is_array

WINDOW = 2.0  # seconds over which a rate is taken
HISTORY = 256  # updates of a path that are remembered for it
BARS = "▁▂▃▄▅▆▇█"


class Row:
    """What is known of one path."""

    def __init__(self) -> None:
        self.meant = Meant(None)
        self.time = 0.0
        self._history: collections.deque[tuple[float, Any]] = collections.deque(maxlen=HISTORY)
        self._changes: collections.deque[float] = collections.deque(maxlen=HISTORY)

    def update(self, meant: Meant, now: float) -> None:
        if self._history and not _equal(meant.reading, self.meant.reading):
            self._changes.append(now)
        self.meant, self.time = meant, now
        self._history.append((now, meant.value))

    def change(self, now: float) -> str:
        """How much a number changes per second, or how often anything else changes."""
        recent = [(when, value) for when, value in self._history if now - when <= WINDOW]
        if self.is_number:
            numbers = [(when, value) for when, value in recent if is_number(value) and math.isfinite(value)]
            if len(numbers) < 2 or numbers[-1][0] == numbers[0][0]:
                return ""
            return f"{(numbers[-1][1] - numbers[0][1]) / (numbers[-1][0] - numbers[0][0]):+.3g}/s"
        changes = sum(now - when <= WINDOW for when in self._changes)
        span = WINDOW if changes < HISTORY else now - self._changes[0]
        return f"{changes / span:.1f}×/s" if changes else ""

    @property
    def is_number(self) -> bool:
        """Whether it has a size, and not a name."""
        return is_number(self.meant.value) and not (self.meant.leaf and self.meant.leaf.meaning.labels)

    def age(self, now: float) -> str:
        seconds = max(0.0, now - self.time)
        return f"{seconds:.1f} s" if seconds < 60 else f"{seconds / 60:.0f} min"


class Table:
    """Rows by dotted path."""

    def __init__(self) -> None:
        self.messages = 0
        self._rows: dict[str, Row] = {}
        self._in_order = True

    @property
    def rows(self) -> dict[str, Row]:
        """In the order of the paths."""
        if not self._in_order:
            self._rows = dict(sorted(self._rows.items()))
            self._in_order = True
        return self._rows

    def update(self, event: Values, meanings: Meanings) -> dict[str, Meant]:
        """Returns what the message means, by path."""
        self.messages += 1
        meant = meanings.flat(event.data)
        for path, each in meant.items():
            if path not in self._rows:
                self._rows[path] = Row()
                self._in_order = False
            self._rows[path].update(each, event.time)
        return meant


def is_number(value: Any) -> bool:
    return isinstance(value, (int, float)) and not isinstance(value, bool)


def shown(meant: Meant, width: int = 24) -> str:
    """A value in one line for people; an array as its course, its length and its last element."""
    if not is_array(meant.reading):
        return str(meant)
    if len(meant.reading) == 0:
        return "[]"
    return f"{sparkline(meant.value, width)}  {len(meant.reading)} × … {meant.last}"


def sparkline(values: Sequence[Any], width: int) -> str:
    """The course of the values in at most `width` characters."""
    points = [_mean(values, index, width) for index in range(min(width, len(values)))]
    finite = [point for point in points if math.isfinite(point)]
    low, high = (min(finite), max(finite)) if finite else (0, 0)
    return "".join(_bar(point, low, high) for point in points)


def _mean(values: Sequence[Any], index: int, width: int) -> float:
    """The index-th of `width` points of a course, each the mean of its share of the values."""
    count = len(values)
    points = min(width, count)
    share = values[index * count // points:(index + 1) * count // points]
    return sum(map(float, share)) / len(share)


def _bar(point: float, low: float, high: float) -> str:
    if not math.isfinite(point):
        return "!"
    return BARS[int((point - low) / (high - low) * (len(BARS) - 1) + 0.5)] if high > low else BARS[0]


def _equal(one: Any, other: Any) -> bool:
    if is_array(one) or is_array(other):
        return is_array(one) and is_array(other) and bool(one.tobytes() == other.tobytes())
    return bool(one == other)
