"""Divides the bits of an endpoint's frames into fields.

Those bits belong together whose changes take the fewest bits to be told as the changes of one number: a number that
moves a little changes its upper byte just when the lower one goes round, and a byte that looks like noise beside one
that moves calmly is its lower one.
"""

from __future__ import annotations

import functools
import itertools
import math
import struct
from collections.abc import Iterator, Sequence
from typing import NamedTuple

from . import coding

Payloads = Sequence[bytes]

ENOUGH = 4  # frames or changes to believe in anything
WIDEST = 32  # bits, and those of the bytes that a leaf has at most
A_FIELD = 12.0  # bits that it costs to tell of one more field
A_BYTE_MORE = 18.0  # likewise of one more byte of a field: one carry into it is enough, one jump beside it is not
WITHIN_A_BYTE = 16.0  # likewise of a field that does not begin with a byte, but for single bits
ORDER = 0.3  # bits for each frame that it costs to believe in the order of bytes that is not the bus's
NOISE = 0.85  # of its bits are needed to tell a number's course: it does not follow from what was before
UNSTEADY = 0.5  # likewise of what may be a checksum
NOISE_SURCHARGE = 1.0  # bits for each frame: what is noise for itself is rarely all of a field
SLOW = 0.05  # changes per frame of bits that may be fields of their own
LIVELIER = 4  # times as many changes as a number's lowest bit has none of its others
RISE = 1.25  # of the changes from one bit to the next higher one: a number's higher bits change more seldom
PLAUSIBLE = (1e-9, 1e8)  # what measured values are between, in any unit
SPREAD = 1e4  # of the largest to the smallest of them
MANTISSA = 24  # bits


class Segment(NamedTuple):
    """Bits from `start` to before `end`, of the payload as one number, in the order of its bytes or swapped."""

    start: int
    end: int
    swapped: bool
    is_float: bool = False


class Division:
    """Of frames of one length, in runs that followed one another."""

    def __init__(self, runs: Sequence[Payloads], prefer_swapped: bool) -> None:
        self._length = len(next(run for run in runs if run)[0])
        self._prefer_swapped = prefer_swapped
        self._numbers = {swapped: [[int.from_bytes(payload, "big" if swapped else "little") for payload in run]
                                   for run in runs] for swapped in (False, True)}
        self.flips = {swapped: self._flips_of(swapped) for swapped in (False, True)}
        self.steps = sum(max(0, len(run) - 1) for run in runs)
        self._cost = functools.lru_cache(maxsize=None)(self._cost_of)
        self._divided = functools.lru_cache(maxsize=None)(self._cheapest)

    def _flips_of(self, swapped: bool) -> list[int]:
        """How often each bit changed."""
        changes = [before ^ after for run in self._numbers[swapped] for before, after in itertools.pairwise(run)]
        ever = functools.reduce(lambda one, other: one | other, changes, 0)
        return [sum(change >> bit & 1 for change in changes) if ever >> bit & 1 else 0
                for bit in range(8 * self._length)]

    def take_out(self, byte: int) -> None:
        """What is explained changes no more."""
        for swapped in (False, True):
            at = 8 * (self._length - 1 - byte if swapped else byte)
            self.flips[swapped][at:at + 8] = [0] * 8

    def noisy_bytes(self) -> list[int]:
        return [byte for byte in range(self._length)
                if self._cost(8 * byte, 8 * byte + 8, False) - A_FIELD > self.steps * 8 * UNSTEADY]

    def values(self, start: int, end: int, swapped: bool) -> list[list[int]]:
        mask = (1 << end - start) - 1
        return [[number >> start & mask for number in run] for run in self._numbers[swapped]]

    def _cost_of(self, start: int, end: int, swapped: bool) -> float:
        """Of a field of these bits, noise apart."""
        width = end - start
        more = (end - 1) // 8 - start // 8
        split = WITHIN_A_BYTE if start % 8 and width > 1 else 0
        return A_FIELD + A_BYTE_MORE * more + split + coding.bits_of(self.values(start, end, swapped), width)

    def _cost_with_noise(self, start: int, end: int, swapped: bool) -> float:
        """Noise over several bytes is no number. That of one may be the lower byte of the one before it as well as of
        the one behind it: the usual order decides."""
        cost = self._cost(start, end, swapped)
        is_wide = start // 8 != (end - 1) // 8
        if self.is_noise(start, end, swapped):
            return math.inf if is_wide else cost + NOISE_SURCHARGE * self.steps * (end - start) / 8
        if is_wide and swapped != self._prefer_swapped and self.is_noise(start, start // 8 * 8 + 8, swapped):
            cost += ORDER * self.steps
        return cost

    def is_noise(self, start: int, end: int, swapped: bool) -> bool:
        return self._cost(start, end, swapped) > NOISE * (end - start) * self.steps

    def _float_cost(self, start: int, swapped: bool) -> float:
        """Infinite for what is no number that anything could measure."""
        floats = [[float_of(number) for number in run] for run in self.values(start, start + 32, swapped)]
        if not _are_plausible(list(itertools.chain(*floats))):
            return math.inf
        quantum = max(abs(each) for run in floats for each in run) / 2**MANTISSA
        bits = coding.bits_of([[round(each / quantum) for each in run] for run in floats], WIDEST)
        return A_FIELD + 3 * A_BYTE_MORE + bits * 0.95

    def segments(self) -> list[Segment]:
        """The cheapest way to divide all bytes into pieces, each of which has one order, and these into segments."""
        plain, swapped = self._pieces(False), self._pieces(True)
        best: list[tuple[float, list[Segment]]] = [(0.0, [])]
        for end in range(1, self._length + 1):
            ways = []
            for begin in range(end):
                for cost, segments in (plain[begin, end], swapped[begin, end]):
                    ways.append((best[begin][0] + cost, [*best[begin][1], *segments]))
            best.append(min(ways, key=lambda way: way[0]))
        return best[-1][1]

    def _pieces(self, swapped: bool) -> dict[tuple[int, int], tuple[float, list[Segment]]]:
        """By their first byte and the one behind them."""
        pieces = {}
        for first in range(self._length):
            for last in range(first, self._length):
                low, high = (self._length - 1 - last, self._length - 1 - first) if swapped else (first, last)
                pieces[first, last + 1] = self._divided(8 * low, 8 * high + 8, swapped)
        return pieces

    def _cheapest(self, start: int, end: int, swapped: bool) -> tuple[float, list[Segment]]:
        """The cheapest segments of these bits, from the lowest, with their cost."""
        flips = self.flips[swapped]
        if not any(flips[start:end]):
            return 0.0, []
        if flips[start] == 0 and not self._is_float_at(start, end):
            return self._divided(start + 1, end, swapped)
        first = [(self._cost_with_noise(start, stop, swapped), Segment(start, stop, swapped))
                 for stop in self._stops(start, end, swapped)]
        if self._is_float_at(start, end):
            first.append((self._float_cost(start, swapped), Segment(start, start + WIDEST, swapped, True)))
        ways = [self._divided(start + 1, end, swapped)] if flips[start] == 0 else []
        for cost, segment in first:
            rest, segments = self._divided(segment.end, end, swapped)
            ways.append((cost + rest, [segment, *segments]))
        return min(ways, key=lambda way: way[0])

    def _is_float_at(self, start: int, end: int) -> bool:
        return start % 8 == 0 and start + WIDEST <= end

    def _stops(self, start: int, end: int, swapped: bool) -> Iterator[int]:
        """Where a segment may end: behind a bit that changes, and before one that may begin another; not behind one
        that changes much more often than the lowest."""
        flips = self.flips[swapped]
        for stop in range(start + 1, min(end, start // 8 * 8 + WIDEST) + 1):
            if flips[stop - 1] > LIVELIER * max(flips[start], ENOUGH):
                return
            is_end = stop == end or self._may_begin(flips[stop - 1], flips[stop], stop)
            if is_end and flips[start] and flips[stop - 1]:
                yield stop

    def _may_begin(self, below: int, flips: int, bit: int) -> bool:
        is_slow = max(below, flips) < SLOW * self.steps
        return bit % 4 == 0 or flips == 0 or is_slow or flips > RISE * below


def float_of(number: int) -> float:
    value: float = struct.unpack("<f", number.to_bytes(4, "little"))[0]
    return value


def _are_plausible(values: Sequence[float]) -> bool:
    """What something may have measured: numbers of a usual size, and, but for those on the way through 0, of much the
    same size."""
    sizes = [abs(value) for value in values if value]
    if not sizes or not all(PLAUSIBLE[0] <= size <= PLAUSIBLE[1] for size in sizes):
        return False
    return max(sizes) <= SPREAD * min(sizes) or min(values) < 0 < max(values)
