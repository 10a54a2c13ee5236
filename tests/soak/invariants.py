"""What must hold, whatever happens. Nothing here runs anything: observations go in, breaches come out.

**Values.** What a client hears on one connection is held against what the bus has sent. Between two numbers that it
heard on one connection, every number that was sent is missed unless it is excused. Excused are numbers that could have
been on the line when the link ceased to stand (those behind the last that the daemon is known to have read), numbers
sent while another schema was in force, readings that a schema sent again found half gathered, and what a library itself
said that it dropped. A number that comes twice, comes after a later one, or was never sent is a breach without any
excuse.

**Writes.** What arrives at the bus must have been announced by its writer, once, in order, unaltered. What the daemon
has confirmed must arrive if link and schema stood from before it was announced until a second after the confirmation.
"""

import bisect
import collections
import math
import re
import statistics
import struct
from typing import NamedTuple


class Breach(NamedTuple):
    """A promise that was not kept."""

    time: float
    kind: str  # lost, late, doubled, unsent, undecodable, write, away, silence, log, growth, latency, ended
    text: str


class Excuses:
    """Ranges of numbers of a leaf that may be missing."""

    def __init__(self):
        self._ranges = collections.defaultdict(list)

    def __add__(self, other):
        both = Excuses()
        for excuses in (self, other):
            for leaf, ranges in excuses._ranges.items():
                both._ranges[leaf] += ranges
        return both

    def add(self, before, until, leaves=None):
        """Numbers behind the mark `before` and up to the mark `until` may be missing."""
        for leaf in leaves or before.keys():
            self._ranges[leaf].append((before[leaf] + 1, until[leaf]))

    def missing(self, leaf, first, last):
        """The ranges within [first, last] that no excuse covers."""
        at, found = first, []
        for begin, end in sorted(self._ranges[leaf]):
            if end < at or begin > last:
                continue
            if begin > at:
                found.append((at, begin - 1))
            at = max(at, end + 1)
        if at <= last:
            found.append((at, last))
        return found


def runs(numbers):
    """Numbers as runs without a gap, [first, last] each."""
    found = []
    for number in numbers:
        if found and number == found[-1][1] + 1:
            found[-1][1] = number
        else:
            found.append([number, number])
    return found


class Hearing:
    """What one client heard. Gaps are judged in the end, when all excuses are known."""

    def __init__(self, name):
        self.name = name
        self.compared = collections.Counter()
        self.lost = self.doubled = 0
        self.last = {}  # {leaf: the highest number}, over all connections
        self._breaches = []
        self._gaps = []  # (time, leaf, first, last)
        self._connected = {}  # {leaf: the last number on this connection}

    def begin(self):
        """A connection begins."""
        self._connected.clear()

    def skip(self):
        """It is said that something was dropped: the next gap of each leaf is that."""
        self._connected.clear()

    def take(self, time, leaf, runs, sent):
        """Runs of numbers without a gap, [first, last], when the bus has sent up to `sent`."""
        for first, last in runs:
            self._take(time, leaf, first, last, sent)

    def _take(self, time, leaf, first, last, sent):
        self.compared[leaf] += last - first + 1
        highest = self.last.get(leaf, 0)
        if not 0 < first <= last <= sent:
            self._breach(time, "unsent", f"{leaf} {first} to {last}, and {sent} is the last that was sent")
            return
        if first <= highest:
            self.doubled += min(last, highest) - first + 1
            self._breach(time, "doubled", f"{leaf} {first} to {last} after {highest}")
        before = self._connected.get(leaf)
        if before is not None and first > before + 1:
            self._gaps.append((time, leaf, before + 1, first - 1))
        self._connected[leaf] = max(last, before or 0)
        self.last[leaf] = max(last, highest)

    def judge(self, excuses):
        """All breaches: a number that comes too late is one of being lost, too."""
        for time, leaf, first, last in self._gaps:
            for begin, end in excuses.missing(leaf, first, last):
                self.lost += end - begin + 1
                self._breach(time, "lost", f"{leaf} {begin} to {end}")
        self._gaps.clear()
        return self._breaches

    def _breach(self, time, kind, text):
        self._breaches.append(Breach(time, kind, f"{self.name}: {text}"))


class Stands:
    """When something stood, as periods of time."""

    def __init__(self):
        self._changes = []  # (time, whether it stands)

    @property
    def now(self):
        """None before the first change."""
        return self._changes[-1][1] if self._changes else None

    def change(self, time, stands):
        self._changes.append((time, stands))

    def stood(self, begin, end):
        """Whether it stood all the time from one time to another."""
        at = bisect.bisect_right(self._changes, (begin, True)) - 1
        if at < 0 or not self._changes[at][1]:
            return False
        return all(stands for _, stands in self._changes[at:bisect.bisect_right(self._changes, (end, True))])


MARGIN = 1.0  # seconds that a write takes at most from the daemon's confirmation to the bus


class Writer:
    """The numbers that one client writes, and what arrives of them. Judged in the end, since a write can be at the bus
    before its writer's announcement is here."""

    def __init__(self, name, identifier):
        self.name, self.identifier = name, identifier
        self._announced = {}
        self._confirmed = {}
        self._arrived = []

    @property
    def counts(self):
        return len(self._announced), len(self._confirmed), len(self._arrived)

    def announce(self, number, time):
        self._announced[number] = time

    def confirm(self, number, time):
        self._confirmed[number] = time

    def arrive(self, time, payload):
        self._arrived.append((time, payload))

    def judge(self, stood, until):
        """The breaches, when what arrived until then is known. `stood(begin, end)`: whether link and schema did all the
        time."""
        breaches, last, numbers = [], 0, set()
        for time, payload in self._arrived:
            number = struct.unpack("<I", payload)[0] if len(payload) == 4 else None
            if number not in self._announced:
                breaches.append(self._breach(time, f"{payload.hex()} arrived, which was not written"))
                continue
            if number in numbers:
                breaches.append(self._breach(time, f"{number} arrived twice"))
            elif number < last:
                breaches.append(self._breach(time, f"{number} arrived after {last}"))
            numbers.add(number)
            last = max(last, number)
        return breaches + [self._breach(time, f"{number} was confirmed and did not arrive")
                           for number, time in self._confirmed.items()
                           if number not in numbers and time + MARGIN < until
                           and stood(self._announced[number] - MARGIN, time + MARGIN)]

    def _breach(self, time, text):
        return Breach(time, "write", f"{self.name}: {text}")


def unknown_lines(lines, expected):
    """The lines that no expected pattern fits as a whole."""
    fits = re.compile("|".join(f"(?:{pattern})" for pattern in expected)).fullmatch
    return [line for line in lines if not fits(line)]


LEAST = 60  # samples for a line through them


class Growth(NamedTuple):
    """The line fitted through samples."""

    slope: float  # a second
    doubt: float  # its standard error
    seconds: float

    @property
    def total(self):
        return self.slope * self.seconds


def growth(samples):
    """Of (time, value) samples; None if they are too few."""
    if len(samples) < LEAST:
        return None
    times, values = zip(*samples)
    middle, mean = statistics.fmean(times), statistics.fmean(values)
    spread = sum((time - middle) ** 2 for time in times)
    slope = sum((time - middle) * (value - mean) for time, value in samples) / spread
    rest = sum((value - mean - slope * (time - middle)) ** 2 for time, value in samples)
    # Samples of memory hang together: one in ten counts as one of its own.
    doubt = math.sqrt(rest / max(1, len(samples) / 10 - 2) / spread * 10)
    return Growth(slope, doubt, times[-1] - times[0])


def is_growing(samples, tolerated):
    """Whether the line rises by more than is tolerated over all of the time, beyond what chance explains."""
    line = growth(samples)
    return line is not None and line.total > tolerated and line.slope > 3 * line.doubt


def settled(samples):
    """The least value: what an instant's work takes is not kept."""
    return min((value for _, value in samples), default=0)


def percentile(values, share):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, int(share * len(ordered)))] if ordered else math.nan
