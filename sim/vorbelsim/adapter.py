"""A pty that QSerialPort takes for a USB CAN adapter, with the help of a preloaded library.

The folder `directory` is what both sides share; sim/adapter/sim.h says what is in it. Several adapters may live
in one folder; ports are enumerated in the order of their names.
"""

import errno
import fcntl
import os
import pathlib
import select
import shutil
import struct
import termios
import time
import tty
from typing import List, NamedTuple

from . import build


class Event(NamedTuple):
    """One thing that the program under test did to a port, at a time of time.monotonic()."""

    time: float
    name: str
    value: int


class VirtualAdapter:
    """One adapter, unplugged at first. As a context manager: plugged inside, unplugged at the end."""

    def __init__(self, directory, name="ttyVEK0", description="VEK CAN Adapter", **properties):
        """`properties` are further udev properties, such as ID_VENDOR_ID="1d50"."""
        self.directory = pathlib.Path(directory)
        self.name = name
        self.properties = {"ID_MODEL": description.replace(" ", "_"), **properties}
        self._master = self._slave = -1
        self._plugged_at = 0.0
        for folder in ("ports", "dev", "history"):
            (self.directory / folder).mkdir(parents=True, exist_ok=True)

    def env(self) -> dict:
        """What to add to the environment of a program that is to see the adapters of this folder."""
        return {
            "VORBEL_SIM_DIR": str(self.directory),
            "VORBEL_SOURCE": "serialport",
            "LD_PRELOAD": build.joined(":", build.adapter_library(), os.environ.get("LD_PRELOAD")),
            "ASAN_OPTIONS": build.sanitizer_options(),
        }

    @property
    def node(self) -> pathlib.Path:
        """The path of the device node."""
        return self.directory / "dev" / self.name

    @property
    def plugged(self) -> bool:
        return self._master != -1

    @property
    def opened(self) -> bool:
        """Whether the program under test has it open and has raised DTR: what is written now, it hears."""
        raised = False
        for event in self.history():
            if event.time >= self._plugged_at and event.name in ("dtr", "close"):
                raised = event.name == "dtr" and event.value == 1
        return raised

    def plug(self) -> "VirtualAdapter":
        assert not self.plugged
        self._plugged_at = time.monotonic()
        self._master, self._slave = os.openpty()
        # Kept open: the line keeps its settings, and reading here does not fail, while nobody else has it open.
        tty.setraw(self._slave)
        os.set_blocking(self._master, False)
        self.node.symlink_to(os.ttyname(self._slave))
        self._publish()
        return self

    def unplug(self):
        """Pulls the adapter: the node vanishes, and whoever has it open is hung up."""
        if not self.plugged:
            return
        hidden = self._port.with_name("." + self.name)
        self._port.rename(hidden)
        shutil.rmtree(hidden)
        self.node.unlink()
        os.close(self._master)
        os.close(self._slave)
        self._master = self._slave = -1

    def __enter__(self):
        return self.plug()

    def __exit__(self, *_):
        self.unplug()
        self.remove_lock()

    def remove_lock(self):
        """What QSerialPort notes of who uses the port; a program that is killed leaves the note behind."""
        lock = pathlib.Path("/var/lock") / f"LCK..{self.node}".replace("/", "_")
        lock.unlink(missing_ok=True)

    # The wire

    def fileno(self) -> int:
        """Readable when the program under test has written something."""
        return self._master

    def offer(self, data: bytes) -> int:
        """Writes what fits into the line right now; what does not is the sender's loss. Returns its length."""
        try:
            return os.write(self._master, data)
        except BlockingIOError:
            return 0

    def write(self, data: bytes, timeout: float = 10):
        """Writes all of it, as fast as the other side reads."""
        deadline = time.monotonic() + timeout
        rest = memoryview(data)
        while rest:
            rest = rest[self.offer(rest):]
            if rest and not self._wait(deadline, writable=True):
                raise TimeoutError(f"{self.name}: {len(rest)} bytes not taken")

    def read(self, size: int = 1 << 30, timeout: float = 0) -> bytes:
        """What was written by the other side: returns as soon as `size` bytes are there, or at the timeout."""
        deadline = time.monotonic() + timeout
        data = bytearray()
        while len(data) < size:
            try:
                data += os.read(self._master, min(size - len(data), 65536))
            except BlockingIOError:
                if not self._wait(deadline, writable=False):
                    break
        return bytes(data)

    def _wait(self, deadline: float, writable: bool) -> bool:
        fds = [self._master]
        ready = select.select(() if writable else fds, fds if writable else (), (),
                              max(0, deadline - time.monotonic()))
        return bool(ready[0] or ready[1])

    def unread(self) -> int:
        """How many of the bytes that were written the kernel has ready and the program under test has not read."""
        return struct.unpack("=i", fcntl.ioctl(self._slave, termios.FIONREAD, bytes(4)))[0]

    def settings(self) -> list:
        """Those of the line, as termios.tcgetattr() gives them."""
        return termios.tcgetattr(self._slave)

    def wait_taken(self, timeout: float = 10):
        """Waits until the program under test has read everything that was written."""
        deadline = time.monotonic() + timeout
        time.sleep(0.005)  # the kernel hands bytes from one end of the pty to the other in the background
        while self.unread():
            if time.monotonic() > deadline:
                raise TimeoutError(f"{self.name}: bytes stay unread")
            time.sleep(0.001)

    # Faults

    def fail(self, operation: str, error: int = errno.EIO):
        """Makes "read", "write" or "open" fail with an errno until healed or unplugged.

        A read has to be provoked: one zero byte is put on the line, and stays there.
        """
        fault = self._port / f"fail-{operation}"
        fault.with_name("." + fault.name).write_text(str(error))
        fault.with_name("." + fault.name).rename(fault)
        if operation == "read":
            self.write(b"\0")

    def heal(self, operation: str):
        (self._port / f"fail-{operation}").unlink()

    # What the other side did

    def history(self, name: str = None) -> List[Event]:
        """All events so far, over all pluggings, or those of one name: open, close, rts, dtr, and for every setting of
        the line baud-in, baud-out, framing (the bits of termios' c_cflag) and software-flow (of c_iflag)."""
        try:
            lines = (self.directory / "history" / self.name).read_text().splitlines()
        except FileNotFoundError:
            return []
        events = [Event(float(at), what, int(value)) for at, what, value in map(str.split, lines)]
        return [event for event in events if name in (None, event.name)]

    def wait_for(self, name: str, value: int = None, *, count: int = 1, timeout: float = 10) -> Event:
        """The count-th event of that name and value in the history, waited for if need be."""
        deadline = time.monotonic() + timeout
        while True:
            found = [event for event in self.history(name) if value in (None, event.value)]
            if len(found) >= count:
                return found[count - 1]
            if time.monotonic() > deadline:
                raise TimeoutError(f"{self.name}: {len(found)} of {count} events {name} {value}")
            time.sleep(0.002)

    # The shared folder

    @property
    def _port(self) -> pathlib.Path:
        return self.directory / "ports" / self.name

    def _publish(self):
        """The port's folder appears complete: whoever enumerates sees all of it or nothing."""
        hidden = self._port.with_name("." + self.name)
        hidden.mkdir()
        for key, value in self.properties.items():
            (hidden / key).write_text(value)
        hidden.rename(self._port)
