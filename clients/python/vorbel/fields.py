"""Guesses from recorded frames of one endpoint which fields they have, and of what kind these are."""

from __future__ import annotations

import dataclasses
import itertools
from collections.abc import Iterator, Mapping, Sequence
from dataclasses import dataclass
from typing import Literal

from . import coding
from .checksums import checksum_in
from .coding import Runs
from .division import ENOUGH, Division, Payloads, Segment, float_of
from .terminal import counted

Kind = Literal["constant", "flag", "counter", "checksum", "float", "state", "number"]
COUNTS = 0.9  # share of a counter's steps that are the same
LIKELY_SIGN = 0xF0  # upper bytes from here on are rather those of numbers below 0


@dataclass(frozen=True)
class Field:
    """Some bits of a payload. `bits` are the lowest and the number of those within its bytes in their order."""

    kind: Kind
    byte: int
    width: int  # bytes
    bits: tuple[int, int]
    swapped: bool = False
    signed: bool = False
    reason: str = ""
    low: float = 0
    high: float = 0

    @property
    def is_whole(self) -> bool:
        """Whether it has all bits of its bytes."""
        return self.bits == (0, 8 * self.width)

    @property
    def bytes(self) -> range:
        return range(self.byte, self.byte + self.width)


def fields_in(runs: Sequence[Payloads], prefer_swapped: bool = False) -> list[Field]:
    """All fields in payloads of one length, in their order, each with the reason to believe in it. The runs are frames
    that followed one another. Between two orders of bytes that explain the same, the preferred one is taken."""
    return _Analysis(runs, prefer_swapped).fields() if any(runs) else []


def fields_of(recordings: Mapping[int, Sequence[Payloads]]) -> dict[int, list[Field]]:
    """The fields of several endpoints of one bus, most of which have the same order of bytes."""
    found = {endpoint: fields_in(runs) for endpoint, runs in recordings.items()}
    wide = [field for fields in found.values() for field in fields if field.width > 1]
    if 2 * sum(field.swapped for field in wide) > len(wide):
        found = {endpoint: fields_in(runs, prefer_swapped=True) for endpoint, runs in recordings.items()}
    return found


class _Analysis:
    """Of the frames of one endpoint."""

    def __init__(self, runs: Sequence[Payloads], prefer_swapped: bool) -> None:
        self._payloads = [payload for run in runs for payload in run]
        self._length = len(self._payloads[0])
        self._prefer_swapped = prefer_swapped
        self._division = Division(runs, prefer_swapped)

    def fields(self) -> list[Field]:
        checksum = checksum_in(self._payloads, self._division.noisy_bytes()) if self._division.steps >= ENOUGH else None
        found: list[Field] = []
        if checksum:
            self._division.take_out(checksum.byte)
            found.append(self._described(Field("checksum", checksum.byte, 1, (0, 8), reason=checksum.rule)))
        found += itertools.chain(*map(self._fields_of, self._widened(self._division.segments())))
        wide = [self._with_still_byte(field, above) for field, above in self._still_bytes(found)]
        replaced = {byte for field in wide for byte in field.bytes}
        found = wide + [field for field in found if field.byte not in replaced]
        used = {byte for field in found for byte in field.bytes}
        found += [self._constant(byte) for byte in range(self._length) if byte not in used]
        return sorted(found, key=lambda field: (field.byte, field.bits))

    def _is_constant(self, byte: int) -> bool:
        return len({payload[byte] for payload in self._payloads}) == 1

    def _widened(self, segments: Sequence[Segment]) -> Iterator[Segment]:
        """Numbers with those bits of their bytes that never changed: the upper ones, and the lower ones if that makes
        the byte a whole one. Not those of counters that went round, which have no more bits."""
        taken = {(segment.swapped, bit) for segment in segments for bit in range(segment.start, segment.end)}
        for segment in segments:
            start, end, swapped, is_float = segment
            if end - start == 1 or is_float or self._goes_round(segment):
                yield segment
                continue
            while end % 8 and (swapped, end) not in taken:
                end += 1
            if not any((swapped, bit) in taken for bit in range(start // 8 * 8, start)):
                start = start // 8 * 8
            yield Segment(start, end, swapped)

    def _goes_round(self, segment: Segment) -> bool:
        """Whether it is a counter that was seen to begin again."""
        runs = self._division.values(segment.start, segment.end, segment.swapped)
        width = segment.end - segment.start
        _, share = coding.usual_step(runs, width)
        return share >= COUNTS and any(abs(after - before) > 1 << width - 1 for run in runs
                                       for before, after in itertools.pairwise(run))

    def _fields_of(self, segment: Segment) -> list[Field]:
        runs = self._division.values(segment.start, segment.end, segment.swapped)
        if segment.is_float:
            floats = [float_of(number) for run in runs for number in run]
            return [self._described(self._at(segment, "float"), min(floats), max(floats))]
        if self._are_flags(segment, runs):
            return [self._flag(bit, segment.swapped) for bit in range(segment.start, segment.end)
                    if self._division.flips[segment.swapped][bit]]
        step, share = coding.usual_step(runs, segment.end - segment.start)
        changes = coding.steps_of(coding.differences(runs, segment.end - segment.start)).changes
        if changes >= ENOUGH and share >= COUNTS:
            return [self._counter(segment, step)]
        return [self._number(segment, runs)]

    def _are_flags(self, segment: Segment, runs: Runs) -> bool:
        """Bits that change one at a time, and not as a number does that goes up and down by 1."""
        width = segment.end - segment.start
        if width == 1:
            return True
        if width > 8 or segment.start // 8 != (segment.end - 1) // 8:
            return False
        changes = [(before ^ after, abs(after - before)) for run in runs
                   for before, after in itertools.pairwise(run) if before != after]
        alone = sum(change.bit_count() == 1 for change, _ in changes)
        return alone > COUNTS * len(changes) and any(step > 1 for _, step in changes)

    def _still_bytes(self, found: Sequence[Field]) -> list[tuple[Field, int]]:
        """Numbers of a byte beside a byte that is always the same, and not 0, with this byte: their upper one, if the
        frame has several pairs of which the upper ones are the same, or a number of two bytes in line with them."""
        ways = [self._pairs(found, swapped) for swapped in (self._prefer_swapped, not self._prefer_swapped)]
        return max(ways, key=len)

    def _pairs(self, found: Sequence[Field], swapped: bool) -> list[tuple[Field, int]]:
        beside = -1 if swapped else 1
        numbers = [field for field in found if field.kind in ("number", "state") and field.bits == (0, 8)]
        pairs = [(field, field.byte + beside) for field in numbers if 0 <= field.byte + beside < self._length
                 and self._is_constant(field.byte + beside) and self._payloads[0][field.byte + beside]]
        wide = {field.byte % 2 for field in found if field.width == 2 and field.swapped == swapped and field.is_whole}
        return [(field, above) for field, above in pairs
                if min(field.byte, above) % 2 in wide or sum(self._are_alike(above, other) for _, other in pairs) > 1]

    def _are_alike(self, one: int, other: int) -> bool:
        return (one - other) % 2 == 0 and abs(self._payloads[0][one] - self._payloads[0][other]) <= 1

    def _with_still_byte(self, field: Field, above: int) -> Field:
        top = self._payloads[0][above]
        signed = top >= LIKELY_SIGN
        bottom = ((top - 256) if signed else top) << 8
        values = [bottom + payload[field.byte] for payload in self._payloads]
        wide = Field("number", min(field.byte, above), 2, (0, 16), above < field.byte, signed)
        return self._described(wide, min(values), max(values))

    def _flag(self, bit: int, swapped: bool) -> Field:
        segment = Segment(bit, bit + 1, swapped)
        return self._described(self._at(segment, "flag"), 0, 1)

    def _counter(self, segment: Segment, step: int) -> Field:
        runs = self._division.values(segment.start, segment.end, segment.swapped)
        values = [value for run in runs for value in run]
        field = dataclasses.replace(self._at(segment, "counter"),
                                    reason=f"counts {'up' if step > 0 else 'down'} by {abs(step)}")
        return self._described(field, min(values), max(values))

    def _number(self, segment: Segment, runs: Runs) -> Field:
        width = segment.end - segment.start
        values = [value for run in runs for value in run]
        signed = [value - (1 << width) if value >> width - 1 else value for value in values]
        is_signed = max(signed) - min(signed) < max(values) - min(values)
        kind: Kind = "state" if width <= 8 and len(set(values)) <= 4 else "number"
        shown = signed if is_signed else values
        noise = ", at random" if self._division.is_noise(*segment[:3]) else ""
        field = dataclasses.replace(self._at(segment, kind), signed=is_signed, reason=noise)
        return self._described(field, min(shown), max(shown))

    def _constant(self, byte: int) -> Field:
        value = self._payloads[0][byte]
        return Field("constant", byte, 1, (0, 8), reason=f"always {value} (0x{value:02X})", low=value, high=value)

    def _at(self, segment: Segment, kind: Kind) -> Field:
        """The bytes that a segment touches, and its bits in them."""
        first, last = segment.start // 8, (segment.end - 1) // 8
        byte = self._length - 1 - last if segment.swapped else first
        return Field(kind, byte, last - first + 1, (segment.start - 8 * first, segment.end - segment.start),
                     segment.swapped and last > first)

    def _described(self, field: Field, low: float = 0, high: float = 255) -> Field:
        where = f"byte {field.byte}" if field.width == 1 else f"bytes {field.byte} to {field.byte + field.width - 1}"
        lowest, count = field.bits
        if not field.is_whole:
            where = f"bit {lowest} of {where}" if count == 1 else f"bits {lowest} to {lowest + count - 1} of {where}"
        return dataclasses.replace(field, low=low, high=high, reason=f"{where}: {_REASONS[field.kind]}".format(
            reason=field.reason, order="high byte first" if field.swapped else "low byte first",
            low=f"{low:g}" if field.kind == "float" else low, high=f"{high:g}" if field.kind == "float" else high,
            sign="with a sign, " if field.signed else "",
            whole="changes like one number" if field.width == 1 else "change together like one number",
            changes=counted(self._changes(field), "change"), frames=counted(len(self._payloads), "frame")))

    def _changes(self, field: Field) -> int:
        first = self._length - field.byte - field.width if field.swapped else field.byte
        start = 8 * first + field.bits[0]
        runs = self._division.values(start, start + field.bits[1], field.swapped)
        return coding.steps_of(coding.differences(runs, field.bits[1])).changes


_REASONS: dict[Kind, str] = {
    "flag": "changes for itself, {changes} in {frames}",
    "counter": "{reason} each time it changes, {low} to {high}, {changes} in {frames}",
    "checksum": "{reason}, in all of {frames}",
    "float": "a float, {order}: only as one it moves steadily, {low} to {high}",
    "state": "{low} to {high}, few different values, {changes} in {frames}",
    "number": "{whole}, {order}, {sign}{low} to {high}, {changes} in {frames}{reason}",
    "constant": "{reason}",
}
