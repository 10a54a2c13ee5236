"""The latest value of every path, how it changes, and how all of that is written."""

import collections
import json
import math
from collections.abc import Sequence
from typing import Any, Optional

from .client import Values
from .digits import justified
from .schema import Leaf
from .wire import is_array

WINDOW = 2.0  # seconds over which a rate is taken
HISTORY = 256  # updates of a path that are remembered for it
BARS = "▁▂▃▄▅▆▇█"


class Row:
    """What is known of one path."""

    def __init__(self) -> None:
        self.value: Any = None
        self.time = 0.0
        self._history: collections.deque[tuple[float, Any]] = collections.deque(maxlen=HISTORY)
        self._changes: collections.deque[float] = collections.deque(maxlen=HISTORY)

    def update(self, value: Any, now: float) -> None:
        if self._history and not _equal(value, self.value):
            self._changes.append(now)
        self.value, self.time = value, now
        self._history.append((now, value))

    def change(self, now: float) -> str:
        """How much a number changes per second, or how often anything else changes."""
        recent = [(when, value) for when, value in self._history if now - when <= WINDOW]
        if is_number(self.value):
            numbers = [(when, value) for when, value in recent if is_number(value) and math.isfinite(value)]
            if len(numbers) < 2 or numbers[-1][0] == numbers[0][0]:
                return ""
            return f"{(numbers[-1][1] - numbers[0][1]) / (numbers[-1][0] - numbers[0][0]):+.3g}/s"
        changes = sum(now - when <= WINDOW for when in self._changes)
        span = WINDOW if changes < HISTORY else now - self._changes[0]
        return f"{changes / span:.1f}×/s" if changes else ""

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

    def update(self, event: Values) -> None:
        self.messages += 1
        for path, value in event.flat().items():
            if path not in self._rows:
                self._rows[path] = Row()
                self._in_order = False
            self._rows[path].update(value, event.time)


def is_number(value: Any) -> bool:
    return isinstance(value, (int, float)) and not isinstance(value, bool)


def shown(value: Any, width: int = 24, leaf: Optional[Leaf] = None) -> str:
    """A value in one line for people; arrays as their course, their length and their last element. Numbers have the
    digits that their leaf justifies."""
    if is_array(value):
        if len(value) == 0:
            return "[]"
        return f"{sparkline(value, width)}  {len(value)} × … {shown(number(value[-1]), leaf=leaf)}"
    if isinstance(value, float):
        return f"{justified(value, leaf):.10g}"
    return json.dumps(plain(value), ensure_ascii=False)


def sparkline(values: Sequence[Any], width: int) -> str:
    """The course of the values in at most `width` characters."""
    points = [_mean(values, index, width) for index in range(min(width, len(values)))]
    finite = [point for point in points if math.isfinite(point)]
    low, high = (min(finite), max(finite)) if finite else (0, 0)
    return "".join(_bar(point, low, high) for point in points)


def plain(value: Any, leaf: Optional[Leaf] = None) -> Any:
    """A value as JSON knows it: arrays as lists, bytes in hexadecimal, what is not finite as text."""
    if isinstance(value, dict):
        members = {}
        for name, member in value.items():  # no comprehension: that is a second call for each level of nesting
            members[name] = plain(member)
        return members
    if is_array(value) or isinstance(value, (list, tuple)):
        return [plain(number(element), leaf) for element in value]
    if isinstance(value, bytes):
        return value.hex()
    if isinstance(value, float):
        return justified(value, leaf) if math.isfinite(value) else str(value)
    return value


def number(element: Any) -> Any:
    """A Python number for an element of an array."""
    return element.item() if hasattr(element, "item") else element


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
