"""Which batches of a boot have been taken."""

from enum import Enum
from typing import NamedTuple

RUNS_LIMIT = 64


class Order(Enum):
    """How a batch comes."""

    NEXT = "next"  # right behind the last one, or after a gap
    REPEATED = "repeated"  # it was there before
    LATE = "late"  # it fills a gap


class Arrival(NamedTuple):
    order: Order
    missing: int = 0  # how many batches before it are


class Runs:
    """The numbers that were taken, as runs without a gap, in their order."""

    def __init__(self, runs: "list[list[int]] | None" = None) -> None:
        self.runs = runs or []

    @property
    def last(self) -> int:
        """The greatest number; -1 before any."""
        return self.runs[-1][1] if self.runs else -1

    def __contains__(self, number: int) -> bool:
        return any(first <= number <= last for first, last in self.runs)

    def missing(self, first: int, last: int) -> int:
        """How many from the first to the last were not taken."""
        taken = sum(max(0, min(last, end) - max(first, begin) + 1) for begin, end in self.runs)
        return last - first + 1 - taken

    def take(self, number: int, expected: int = 0) -> Arrival:
        """`expected` is the number that the first one should have."""
        if number in self:
            return Arrival(Order.REPEATED)
        following = self.last + 1 if self.runs else min(expected, number)
        self._add(number)
        if number < following:
            return Arrival(Order.LATE)
        return Arrival(Order.NEXT, number - following)

    def _add(self, number: int) -> None:
        """The oldest runs are forgotten: what comes of them again is written again, which does no harm."""
        if self.runs and self.runs[-1][1] + 1 == number:
            self.runs[-1][1] = number
            return
        merged: list[list[int]] = []
        for first, last in sorted([*self.runs, [number, number]]):
            if merged and merged[-1][1] + 1 == first:
                merged[-1][1] = last
            else:
                merged.append([first, last])
        self.runs = merged[-RUNS_LIMIT:]
