"""What was seen on a bus: how often, how long, between which bounds, and a selection of the frames of each endpoint."""

import collections
import itertools
from collections.abc import Iterable, Iterator, Sequence
from typing import Optional

from .division import ENOUGH
from .fields import Field, fields_of
from .tap import BYTES, Frame

BLOCK = 64  # frames that follow one another
MOST_BLOCKS = 32  # of one length of one endpoint
WINDOW = 2.0  # seconds over which a rate is taken


class History:
    """Blocks of frames in a row from all of the time that has passed, at most so many: with time, from ever longer
    distances."""

    def __init__(self) -> None:
        self._blocks: list[tuple[int, list[bytes]]] = []
        self._every = 1  # so many blocks, one is kept
        self._begun = 0
        self._block: list[bytes] = []
        self.frames = 0

    def add(self, payloads: Sequence[bytes]) -> None:
        self.frames += len(payloads)
        for start in self._starts(len(payloads)):
            self._block += payloads[start[0]:start[1]]
            if len(self._block) == BLOCK:
                self._finish()

    def _starts(self, count: int) -> Iterator[tuple[int, int]]:
        """Where the parts of so many payloads begin and end that come into one block each."""
        begin = 0
        while begin < count:
            end = min(count, begin + BLOCK - len(self._block))
            yield begin, end
            begin = end

    def runs(self) -> list[list[bytes]]:
        """Frames that followed one another."""
        runs: list[list[bytes]] = []
        before: Optional[int] = None
        for number, block in [*self._blocks, (self._begun, self._block)]:
            if before is not None and number == before + 1:
                runs[-1] += block
            else:
                runs.append(list(block))
            before = number
        return [run for run in runs if run]

    def _finish(self) -> None:
        if self._begun % self._every == 0:
            self._blocks.append((self._begun, self._block))
        self._begun += 1
        self._block = []
        if len(self._blocks) > MOST_BLOCKS:
            self._every *= 2
            self._blocks = [(number, block) for number, block in self._blocks if number % self._every == 0]


class Endpoint:
    """What was seen of one identifier. What comes is looked at together, by digest()."""

    def __init__(self, identifier: int) -> None:
        self.identifier = identifier
        self.count = 0
        self.payload = b""  # the last one
        self.low, self.high = bytearray(b"\xff" * BYTES), bytearray(BYTES)
        self.changed: list[Optional[float]] = [None] * BYTES  # when
        self.histories: dict[int, History] = {}  # by the length of the frames
        self.pending: list[bytes] = []
        self._counts: collections.deque[tuple[float, int]] = collections.deque()

    @property
    def lengths(self) -> list[int]:
        """The commonest first."""
        return sorted(self.histories, key=lambda length: -self.histories[length].frames)

    def digest(self, now: float) -> None:
        pending, self.pending = self.pending, []
        self.count += len(pending)
        self._counts.append((now, self.count))
        while len(self._counts) > 2 and now - self._counts[1][0] >= WINDOW:
            self._counts.popleft()
        for length, payloads in itertools.groupby(pending, len):
            self._digest_equally_long(length, list(payloads), now)

    def rate(self) -> float:
        """Frames per second, lately."""
        (since, before), (now, count) = self._counts[0], self._counts[-1]
        return (count - before) / (now - since) if now > since else 0.0

    def _digest_equally_long(self, length: int, payloads: list[bytes], now: float) -> None:
        self.histories.setdefault(length, History()).add(payloads)
        joined = b"".join(payloads)
        for at in range(length):
            column = joined[at::length]
            low, high = min(column), max(column)
            if low != high or (at < len(self.payload) and self.payload[at] != low):
                self.changed[at] = now
            self.low[at], self.high[at] = min(self.low[at], low), max(self.high[at], high)
        self.payload = payloads[-1]


class Traffic:
    """The endpoints of a bus."""

    def __init__(self) -> None:
        self.frames = 0
        self._endpoints: dict[int, Endpoint] = {}

    def take(self, frames: Iterable[Frame]) -> None:
        for identifier, payload in frames:
            endpoint = self._endpoints.get(identifier)
            if endpoint is None:
                endpoint = self._endpoints[identifier] = Endpoint(identifier)
            endpoint.pending.append(payload)
            self.frames += 1

    def digest(self, now: float) -> None:
        for endpoint in self._endpoints.values():
            endpoint.digest(now)

    @property
    def endpoints(self) -> list[Endpoint]:
        """In the order of nodes, then of commands."""
        return sorted(self._endpoints.values(), key=lambda each: (each.identifier % 64, each.identifier))

    def fields(self) -> dict[int, tuple[int, list[Field]]]:
        """Of each endpoint of which enough came the length of its longest frames, and the fields: those of the
        commonest frames, and of longer ones what they have more."""
        endpoints = [each for each in self.endpoints if each.histories[each.lengths[0]].frames >= ENOUGH]
        common = fields_of({each.identifier: each.histories[each.lengths[0]].runs() for each in endpoints})
        found = {}
        for endpoint in endpoints:
            fields = list(common[endpoint.identifier])
            length = endpoint.lengths[0]
            for longer in sorted(other for other in endpoint.lengths if other > length):
                if endpoint.histories[longer].frames >= ENOUGH:
                    more = fields_of({endpoint.identifier: endpoint.histories[longer].runs()})[endpoint.identifier]
                    fields += [field for field in more if field.byte >= length]
                    length = longer
            found[endpoint.identifier] = length, fields
        return found
