"""The bus: numbers at the line's rate on a virtual adapter, and what the daemon writes to it.

Each leaf has numbers of its own, from 1 on. A number that was sent is never sent again. While the line takes nothing,
nothing is sent: what the bus lost itself would be nobody's loss.
"""

import fcntl
import select
import struct
import termios
import threading
import time
from typing import NamedTuple

from vorbelsim import VirtualAdapter, vek

SLICE = 0.01  # seconds
LINE_RATE = 9090  # records a second at 1,000,000 baud
GATHERED = 18  # readings in an array
SINGLES = 18  # every so many-th record is one of a leaf that is sent reading by reading
SLOW = 0.1  # seconds between two numbers of the leaf for the history

LEAVES = {"gathered": (5, 2), "single": (6, 2), "slow": (7, 2)}
WRITERS = {"python": (10, 1), "javascript": (11, 1), "cpp": (12, 1), "gateway": (13, 1)}

SCHEMA = {
    **{name: {"@mac": mac, "@cmd": cmd, "@format": "I"} for name, (mac, cmd) in LEAVES.items()},
    **{f"written_{name}": {"@mac": mac, "@cmd": cmd, "@format": "I"} for name, (mac, cmd) in WRITERS.items()},
}
SCHEMA["gathered"]["@flushSize"] = GATHERED


class Mark(NamedTuple):
    """How far the numbers had come at a time: the last one of each leaf."""

    time: float
    numbers: dict


class Arrived(NamedTuple):
    """A frame that the daemon wrote, or bytes that are none (`mac` is -1 then)."""

    time: float
    mac: int
    cmd: int
    payload: bytes


class Bus(threading.Thread):
    """Feeds the adapter that is plugged in, while it is up, and takes what is written to it.

    `marks` says what was sent when; `taken` is the last mark of which the program has read everything. `ups` and
    `downs` are when the link began and ceased to stand, as marks: what is sent between an up and the next down goes
    over one opening of the port.
    """

    def __init__(self, folder, rate=LINE_RATE):
        super().__init__(daemon=True)
        self.adapters = [VirtualAdapter(folder), VirtualAdapter(folder, "ttyVEK1", "VEK spare")]
        self.rate = rate
        self.marks = []
        self.arrived = []
        self.numbers = dict.fromkeys(LEAVES, 0)
        self.taken = self._mark()
        self.ups, self.downs = [], []
        self._adapter = self.adapters[0]
        self._rest = b""
        self._since = time.monotonic()
        self._is_up = False
        self._looked = 0.0
        self._scanner = vek.Scanner()
        self._records, self._slow_at = 0.0, 0.0
        self._lock = threading.RLock()
        self._ended = threading.Event()

    # What the soak does to it

    def plug(self, which=0):
        with self._lock:
            self._adapter = self.adapters[which]
            self._adapter.plug()
            self._expect_opening()

    def unplug(self, in_mid_record=False, in_mid_write=False):
        """Pulls the adapter; with a record begun on the wire, or just when something is written to it, if so wanted."""
        with self._lock:
            if in_mid_write and self._adapter.plugged:
                select.select([self._adapter], [], [], 0.5)
            if in_mid_record and self._is_up and not self._rest:
                self._adapter.offer(vek.record(*LEAVES["single"], bytes(4))[:6])
            self.went_down()
            if self._adapter.plugged:
                self._hear()
                self._adapter.unplug()

    def went_down(self):
        """The port is no longer open, or will not be in an instant."""
        with self._lock:
            if self._is_up:
                self.downs.append((self.taken, self._mark()))
            self._is_up, self._rest = False, b""

    def reopens(self):
        """The program that had the port open is another one from now on."""
        with self._lock:
            self.went_down()
            self._expect_opening()

    @property
    def is_up(self):
        return self._is_up

    @property
    def plugged(self):
        return self._adapter.plugged

    @property
    def adapter(self):
        return self._adapter

    def mark(self):
        with self._lock:
            return self._mark()

    def stop(self):
        self._ended.set()
        self.join(10)
        for adapter in self.adapters:
            adapter.__exit__()

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
        if not self._adapter.plugged:
            return
        self._hear()
        if not self._is_up:
            self._look_for_opening()
            return
        if self._rest:
            self._rest = self._rest[self._adapter.offer(self._rest):]
            return
        if self._unread() == 0 and len(self.marks) > 3:
            self.taken = self.marks[-3]  # what the kernel carries in the background is not in its count
        self._say()

    def _expect_opening(self):
        self._since = time.monotonic()
        self._is_up = False
        self._rest = b""
        self._scanner = vek.Scanner()

    def _look_for_opening(self):
        now = time.monotonic()
        if now - self._looked < 0.05:
            return
        self._looked = now
        if any(event.time > self._since and event.value == 1 for event in self._adapter.history("dtr")):
            self._is_up = True
            self._records, self._slow_at = 0.0, now
            self.ups.append(self._mark())

    def _say(self):
        self._records += self.rate * SLICE
        count = int(self._records)
        self._records -= count
        singles = [self._next("single") for _ in range(self._due_singles(count))]
        records = [self._next("gathered") for _ in range(count - len(singles))]
        now = time.monotonic()
        if now >= self._slow_at:
            self._slow_at = max(self._slow_at + SLOW, now)
            records.append(self._next("slow"))
        data = b"".join(records + singles)
        self._rest = data[self._adapter.offer(data):]
        self.marks.append(self._mark())

    def _due_singles(self, count):
        said = self.numbers["gathered"] + self.numbers["single"]
        return (said + count) // SINGLES - said // SINGLES

    def _next(self, leaf):
        self.numbers[leaf] += 1
        return vek.record(*LEAVES[leaf], struct.pack("<I", self.numbers[leaf]))

    def _mark(self):
        return Mark(time.monotonic(), dict(self.numbers))

    def _unread(self):
        return struct.unpack("=i", fcntl.ioctl(self._adapter._slave, termios.FIONREAD, bytes(4)))[0]

    def _hear(self):
        try:
            data = self._adapter.read()
        except OSError:
            return
        if not data:
            return
        now, skipped = time.monotonic(), self._scanner.skipped
        for frame in self._scanner.feed(data):
            self.arrived.append(Arrived(now, *frame))
        if self._scanner.skipped != skipped:
            self.arrived.append(Arrived(now, -1, self._scanner.skipped - skipped, data))
