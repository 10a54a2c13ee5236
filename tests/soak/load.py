"""The bus: numbers at the line's rate, and what the daemon writes.

Each leaf has numbers of its own, from 1 on. A number that was sent is never sent again. While the line takes nothing,
nothing is sent: what the bus lost itself would be nobody's loss.
"""

import contextlib
import select
import struct
import threading
import time
from typing import NamedTuple

SLICE = 0.01  # seconds
LINE_RATE = 9090  # records a second at 1,000,000 baud
GATHERED = 18  # readings in an array
SINGLES = 18  # every so many-th record is one of a leaf that is sent reading by reading
SLOW = 0.1  # seconds between two numbers of the leaf for the history
CARRIED = 0.1  # seconds after which what was written is in the kernel's count of what is unread, or has been read

LEAVES = {"gathered": (5, 2), "single": (6, 2), "slow": (7, 2)}
WRITERS = {"python": (10, 1), "javascript": (11, 1), "cpp": (12, 1), "gateway": (13, 1)}

SCHEMA = {
    **{name: {"@mac": mac, "@cmd": cmd, "@format": "I"} for name, (mac, cmd) in LEAVES.items()},
    **{f"written_{name}": {"@mac": mac, "@cmd": cmd, "@format": "I"} for name, (mac, cmd) in WRITERS.items()},
}
SCHEMA["gathered"]["@flushSize"] = GATHERED


def payload_of(number):
    return struct.pack("<I", number)


class Mark(NamedTuple):
    """How far the numbers had come at a time: the last one of each leaf."""

    time: float
    numbers: dict


class Bus(threading.Thread):
    """Feeds a line while it is up, and takes what is written to it. A line is one of lines.py.

    `marks` says what was sent when; `taken` is the last mark of which the program is known to have read everything.
    `ups` has a mark for each time that the link began to stand, `downs` a pair (taken, mark) for each time that it
    ceased to: what is sent between an up and the next down goes over one opening of the link. `arrived` has what was
    written to it, as lines.Arrived.
    """

    def __init__(self, line, rate=LINE_RATE):
        super().__init__(daemon=True)
        self.line = line
        self.rate = rate
        self.marks = []
        self.arrived = []
        self.numbers = dict.fromkeys(LEAVES, 0)
        self.taken = self._mark()
        self.ups, self.downs = [], []
        self.is_up = False
        self.is_quiet = False  # the link stands, and nothing is said on it
        self._rest = []
        self._looked = self._records = self._slow_at = 0.0
        self._lock = threading.RLock()
        self._ended = threading.Event()

    # What the soak does to it

    def plug(self, *words):
        with self._lock:
            self.line.expect_opening()
            self.line.plug(*words)

    def unplug(self, in_mid_record=False, in_mid_write=False):
        """Takes the link away; with a record begun on it, or just when something is written to it, if so wanted."""
        with self._lock:
            if in_mid_write and self.is_up:
                select.select(self.line.sockets(), [], [], 0.5)
            if in_mid_record and self.is_up and not self._rest:
                self.line.begin_record(*LEAVES["single"], bytes(4))
            self.went_down()
            self._hear()
            self.line.unplug()

    def went_down(self, taken=None):
        """The program no longer has it open, or will not in an instant. `taken` is what it is known to have read when
        that may have been a while ago."""
        with self._lock:
            if self.is_up:
                self.downs.append((taken or self.taken, self._mark()))
            self.is_up, self._rest = False, []

    def reopens(self):
        """The program opens it anew from now on."""
        with self._lock:
            self.went_down()
            self.line.expect_opening()

    @contextlib.contextmanager
    def alone(self):
        """Its line, which nobody else touches meanwhile."""
        with self._lock:
            yield self.line

    def mark(self):
        with self._lock:
            return self._mark()

    def stop(self):
        if self.is_alive():
            self._ended.set()
            self.join(10)
        self.line.close()

    # Its life

    def run(self):
        next_slice = time.monotonic()
        while not self._ended.is_set():
            next_slice += SLICE
            pause = next_slice - time.monotonic()
            if pause > 0:
                time.sleep(pause)
            elif pause < -1:  # a machine that was busy is not made up for
                next_slice = time.monotonic()
            with self._lock:
                self._step()

    def _step(self):
        if not self.line.is_there:
            return
        self._hear()
        if not self.is_up:
            self._look_for_opening()
        elif self._rest:
            self._put(self._rest)
        else:
            if self.line.unread() == 0:
                self.taken = self._last_mark_until(time.monotonic() - CARRIED)
            if not self.is_quiet:
                self._say()

    def _look_for_opening(self):
        now = time.monotonic()
        if now - self._looked >= 0.05:
            self._looked = now
            self.is_up = self.line.was_opened()
            if self.is_up:
                self._slow_at = now
                self.ups.append(self._mark())

    def _say(self):
        self._records += self.rate * SLICE
        count = int(self._records)
        self._records -= count
        singles = self._due_singles(count)
        records = [self._next("gathered") for _ in range(count - singles)]
        now = time.monotonic()
        if now >= self._slow_at:
            self._slow_at = max(self._slow_at + SLOW, now)
            records.append(self._next("slow"))
        records += [self._next("single") for _ in range(singles)]
        self._put(self.line.packed(records))

    def _put(self, packed):
        self._rest = self.line.put(packed)
        if not self._rest:
            self.marks.append(self._mark())

    def _last_mark_until(self, time):
        return next((mark for mark in reversed(self.marks) if mark.time <= time), self.taken)

    def _due_singles(self, count):
        said = self.numbers["gathered"] + self.numbers["single"]
        return (said + count) // SINGLES - said // SINGLES

    def _next(self, leaf):
        self.numbers[leaf] += 1
        return *LEAVES[leaf], payload_of(self.numbers[leaf])

    def _mark(self):
        return Mark(time.monotonic(), dict(self.numbers))

    def _hear(self):
        if self.line.is_there:
            self.arrived += self.line.arrived()
