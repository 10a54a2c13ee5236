"""The two links as a load sees them. A line has

    env()                   what to add to the daemon's environment
    plug(), unplug()        it is there from now on, or is not
    is_there                whether it is
    expect_opening()        was_opened() is about openings from now on
    was_opened()            whether the daemon has it open: what is put on it now is heard
    packed(records)         (mac, cmd, payload) as put() takes them
    put(packed)             what finds no room right now is returned
    begin_record(record)    a part of a record, and nothing behind it
    unread()                how much the daemon has not read
    sockets()               readable when it has written something
    arrived()               what it has written since
    close()
"""

import fcntl
import math
import struct
import termios
import time
from typing import NamedTuple

from harness import TICK
from vorbelsim import CanFrame, VirtualAdapter, VirtualCanBus, vek


class Arrived(NamedTuple):
    """A frame that the daemon wrote. Bytes that are none have -1 for a mac."""

    time: float
    mac: int
    cmd: int
    payload: bytes


class AdapterLine:
    """A serial adapter, and another one that may be there instead."""

    def __init__(self, folder):
        self.adapters = [VirtualAdapter(folder), VirtualAdapter(folder, "ttyVEK1", "VEK spare")]
        self.adapter = self.adapters[0]
        self._since = self._trusted = 0.0
        self._scanner = vek.Scanner()

    def env(self):
        return self.adapter.env()

    @property
    def is_there(self):
        return self.adapter.plugged

    def plug(self, which=0):
        self.adapter = self.adapters[which]
        self._scanner = vek.Scanner()
        self.adapter.plug()

    def unplug(self):
        self.adapter.unplug()

    def expect_opening(self):
        self._since = time.monotonic()

    def distrust(self):
        """Openings mean nothing: the daemon will close the port again."""
        self._trusted = math.inf

    def trust(self):
        """Nor do they until the daemon has looked after the port twice."""
        self._trusted = time.monotonic() + 2 * TICK + 0.2

    def was_opened(self):
        if time.monotonic() < self._trusted:
            return False
        return any(event.time > self._since and event.value == 1 for event in self.adapter.history("dtr"))

    def packed(self, records):
        return [b"".join(vek.record(*record) for record in records)]

    def put(self, packed):
        (data,) = packed
        rest = data[self.adapter.offer(data):]
        return [rest] if rest else []

    def begin_record(self, *record):
        self.adapter.offer(vek.record(*record)[:6])

    def unread(self):
        return self.adapter.unread()

    def sockets(self):
        return [self.adapter]

    def arrived(self):
        data = self.adapter.read()
        if not data:
            return []
        now, skipped = time.monotonic(), self._scanner.skipped
        found = [Arrived(now, *frame) for frame in self._scanner.feed(data)]
        if self._scanner.skipped != skipped:
            found.append(Arrived(now, -1, self._scanner.skipped - skipped, data))
        return found

    def close(self):
        for adapter in self.adapters:
            adapter.__exit__()


class CanLine:
    """can0 on the virtual CAN bus."""

    def __init__(self, folder):
        folder.mkdir()
        self.bus = VirtualCanBus(folder)
        self.is_there = False
        self._accepted = 0
        self._trusted = 0.0

    def env(self):
        return self.bus.env()

    def plug(self):
        self.bus.start()
        self.is_there = True

    def unplug(self):
        self.bus.stop()
        self.is_there = False

    def expect_opening(self):
        self._accepted = self.bus.accepted

    def distrust(self):
        """Whether it stays open is not known: the daemon may look after it at any time."""
        self._trusted = math.inf

    def trust(self):
        """Whoever has it open when the daemon has looked after it twice keeps it."""
        self._accepted = -1
        self._trusted = time.monotonic() + 2 * TICK + 0.2

    def was_opened(self):
        return time.monotonic() >= self._trusted and self.bus.connected > 0 and self.bus.accepted > self._accepted

    def packed(self, records):
        return [CanFrame.vek(*record).pack_fd() for record in records]

    def put(self, packed):
        for at, message in enumerate(packed):
            for device in self.bus.sockets()[1:]:
                try:
                    device.send(message)
                except BlockingIOError:
                    return packed[at:]
                except ConnectionError:
                    pass  # the next look notices
        return []

    def begin_record(self, *_record):
        """A frame is there as a whole or not at all."""

    def unread(self):
        return sum(struct.unpack("=i", fcntl.ioctl(device, termios.TIOCOUTQ, bytes(4)))[0]
                   for device in self.bus.sockets()[1:])

    def sockets(self):
        return self.bus.sockets()

    def arrived(self):
        self.bus.poll()
        written = self.bus.receive(len(self.bus.written), timeout=0)
        return [Arrived(each.time, each.frame.mac, each.frame.cmd, each.frame.payload) for each in written]

    def close(self):
        self.bus.stop()
