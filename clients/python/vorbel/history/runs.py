"""Which batches of a boot have been taken."""

from typing import Optional

RUNS_LIMIT = 64


class Runs:
    """The numbers that were taken, as runs without a gap, in their order."""

    def __init__(self, runs: Optional[list[list[int]]] = None) -> None:
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

    def take(self, number: int, expected: int) -> int:
        """Takes one that is not there. Returns how many are missing between the one that was the last, or before the
        one that is `expected` to be the first, and this one."""
        following = self.last + 1 if self.runs else expected
        self._add(number)
        return max(0, number - following)

    def _add(self, number: int) -> None:
        """The oldest runs are forgotten: what comes of them again is written again, which does no harm."""
        merged: list[list[int]] = []
        for run in sorted([*self.runs, [number, number]]):
            if merged and merged[-1][1] + 1 == run[0]:
                merged[-1][1] = run[1]
            else:
                merged.append(run)
        self.runs = merged[-RUNS_LIMIT:]
