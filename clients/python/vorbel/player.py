"""When each entry of a log is due, at any speed, from any place, by any clock."""

import math
import time
from collections.abc import Iterator
from typing import Callable, Generic, Optional, Protocol, TypeVar

from .errors import VorbelError

AT_ONCE = 2000  # entries that are passed over before whoever plays has a turn again


class Timed(Protocol):
    @property
    def time(self) -> float:
        """In seconds, from any beginning."""


E = TypeVar("E", bound=Timed)


def anything(_: object) -> bool:
    return True


class Player(Generic[E]):
    """Hands out the entries of a log as they are due. Places are seconds since the log's first entry.

    `read` begins to read the log, and is called again to go back. Only entries that are `wanted`, from the place
    `start` to `stop`, are played; others take their time all the same. An infinite speed waits for nothing."""

    def __init__(self, read: Callable[[], Iterator[E]], clock: Callable[[], float] = time.monotonic,
                 wanted: Callable[[E], bool] = anything, start: float = 0, stop: float = math.inf,
                 speed: float = 1, loop: bool = False, paused: bool = False) -> None:
        self._read = read
        self._clock = clock
        self._wanted = wanted
        self._start, self._stop = start, stop
        self._loop = loop
        self.speed = speed
        self.is_paused = paused
        self.has_ended = False
        self.taken = 0
        self._ahead: Optional[E] = None
        self._first: Optional[float] = None  # the time of the log's first entry
        self._steps = 0  # entries that are asked for one by one
        self._begin(start)

    @property
    def position(self) -> float:
        """The place that is played now."""
        if self.is_paused or self._is_searching or math.isinf(self.speed):
            return self._place
        return self._place + (self._clock() - self._since) * self.speed

    def take(self) -> Optional[E]:
        """The next entry if it is due."""
        entry = self._look_ahead()
        if entry is None or not self._is_due(entry):
            return None
        self._ahead = None
        self.taken += 1
        if self.is_paused or math.isinf(self.speed):
            self._settle(max(self._place, self._place_of(entry)))
        self._steps = max(0, self._steps - 1)
        return entry

    def until_next(self) -> float:
        """Seconds until take() may have something."""
        if self.has_ended or self.is_paused and not self._steps:
            return math.inf
        if self._is_over:  # and the next round waits for the end of this one
            return max(0, self._stop - self.position) / self.speed
        if self._ahead is None or self._steps:
            return 0
        return max(0, self._place_of(self._ahead) - self.position) / self.speed

    def pause(self) -> None:
        """Or goes on."""
        self._settle(self.position)
        self.is_paused = not self.is_paused
        self._steps = 0

    def step(self) -> None:
        """One entry more is due; then it is paused."""
        if not self.is_paused:
            self.pause()
        self._steps += 1

    def accelerate(self, factor: float) -> None:
        """What is slower than as fast as it goes has the log's own speed."""
        self._settle(self.position)
        self.speed = 1 if math.isinf(self.speed) and factor < 1 else self.speed * factor

    def seek(self, place: float) -> None:
        place = max(self._start, min(self._stop, place))
        if place < self._read_to or self._is_over:
            self._begin(place)
        else:
            self._search(place)
            self._drop_before(place)

    def _begin(self, place: float) -> None:
        self._entries = self._read()
        self._ahead = None
        self._is_over = False
        self._read_to = 0.0
        self._search(place)

    def _search(self, place: float) -> None:
        """The clock counts from there once what is to be played there has been found."""
        self._is_searching = True
        self._settle(place)

    def _settle(self, place: float) -> None:
        self._place, self._since = place, self._clock()

    def _drop_before(self, place: float) -> None:
        if self._ahead is not None and self._place_of(self._ahead) < place:
            self._ahead = None

    def _place_of(self, entry: E) -> float:
        if self._first is None:
            self._first = entry.time
        return entry.time - self._first

    def _is_due(self, entry: E) -> bool:
        if self.is_paused:
            return self._steps > 0
        return math.isinf(self.speed) or self._place_of(entry) <= self.position

    def _look_ahead(self) -> Optional[E]:
        """The next entry; None if it has not been found yet, or there is none."""
        for _ in range(AT_ONCE):
            if self._ahead is not None or self._is_over:
                break
            entry = next(self._entries, None)
            if entry is None or self._place_of(entry) > self._stop:
                self._is_over = True
            else:
                self._consider(entry)
        if self._is_over and not self.has_ended:
            self._end_round()
        return self._ahead

    def _consider(self, entry: E) -> None:
        place = self._place_of(entry)
        self._read_to = max(self._read_to, place)
        if self._is_searching and place < self._place:
            return
        if self._is_searching:
            self._is_searching = False
            self._settle(self._place)
        if self._wanted(entry):
            self._ahead = entry

    def _end_round(self) -> None:
        """A round lasts to the end of the range, or of the log if that is unbounded."""
        if not self._loop or self.taken == 0:
            self.has_ended = True
        elif self._steps or not self.is_paused and self._is_round_over():
            self._begin(self._start)

    def _is_round_over(self) -> bool:
        end = self._read_to if math.isinf(self._stop) else self._stop
        if math.isinf(self.speed):
            return True
        if end <= self._start:
            raise VorbelError("all that is to be repeated has one and the same time; an end says how long a round is")
        return self.position >= end


def duration(entries: Iterator[E], patience: float, clock: Callable[[], float] = time.monotonic) -> Optional[float]:
    """How long a log is in its own seconds; None if it could not be read within so many seconds."""
    began = clock()
    first: Optional[float] = None
    last = 0.0
    for entry in entries:
        first = entry.time if first is None else first
        last = max(last, entry.time - first)
        if clock() - began > patience:
            return None
    return last
