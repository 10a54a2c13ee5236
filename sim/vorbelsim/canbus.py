"""A CAN bus over a local socket, with a Qt SerialBus plugin as its other end (sim/canbus/canbus.h)."""

import os
import pathlib
import select
import socket
import struct
import time
from typing import List, NamedTuple

from . import build, canframe
from .canframe import CanFrame

_STAMP = struct.Struct("=q")

# QCanBusDevice::CanBusError
READ_ERROR, WRITE_ERROR, CONNECTION_ERROR, CONFIGURATION_ERROR, UNKNOWN_ERROR = range(1, 6)


class Written(NamedTuple):
    """A frame that the program under test wrote, at a time of time.monotonic()."""

    time: float
    frame: CanFrame


class VirtualCanBus:
    """The bus; every device that connects hears and says everything. As a context manager: started inside.

    `mode` says how devices find it: "present", "absent" (creation fails), "refuse" (connecting fails with an
    error), "refuse-silently" (connecting fails, no error is reported) or "full" (writing fails).
    """

    def __init__(self, directory):
        self.directory = pathlib.Path(directory) / "can"
        self.directory.mkdir(parents=True, exist_ok=True)
        self.accepted = 0
        self.written: List[Written] = []
        self._listener = None
        self._devices: List[socket.socket] = []

    def env(self) -> dict:
        """What to add to the environment of a program that is to find this bus."""
        return {
            "VORBEL_SIM_DIR": str(self.directory.parent),
            "VORBEL_SOURCE": "socketcan",
            # Of two plugins with one key Qt takes the later one.
            "QT_PLUGIN_PATH": build.joined(":", os.environ.get("QT_PLUGIN_PATH"), build.stock_plugin_path(),
                                           build.can_plugin_path()),
        }

    @property
    def mode(self) -> str:
        return self._mode.read_text() if self._mode.exists() else "present"

    @mode.setter
    def mode(self, mode: str):
        self._mode.write_text(mode)

    def start(self) -> "VirtualCanBus":
        path = self.directory / "socket"
        path.unlink(missing_ok=True)
        self._listener = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET | socket.SOCK_NONBLOCK)
        self._listener.bind(str(path))
        self._listener.listen()
        return self

    def stop(self):
        """The bus goes away: devices notice, and nobody can connect."""
        self.disconnect()
        if self._listener:
            self._listener.close()
            self._listener = None
            (self.directory / "socket").unlink()

    def __enter__(self):
        return self.start()

    def __exit__(self, *_):
        self.stop()

    def disconnect(self):
        """Drops every device, which reports a read error for it."""
        self.poll()
        for device in self._devices:
            device.close()
        self._devices.clear()

    @property
    def connected(self) -> int:
        """How many devices are connected now."""
        self.poll()
        return len(self._devices)

    def wait_connected(self, count: int = 1, timeout: float = 10):
        """Waits until `count` devices have connected since the start, and one of them is there."""
        deadline = time.monotonic() + timeout
        while self.connected == 0 or self.accepted < count:
            if not self._wait(deadline):
                raise TimeoutError(f"{self.accepted} devices connected, not {count}")

    # The wire

    def sockets(self) -> List[socket.socket]:
        """What to wait on: readable when poll() has something to do."""
        return [self._listener, *self._devices] if self._listener else []

    def poll(self):
        """Accepts waiting devices and takes in what they wrote, without waiting."""
        for ready in select.select(self.sockets(), (), (), 0)[0]:
            if ready is self._listener:
                device, _ = ready.accept()
                device.setblocking(False)
                self._devices.append(device)
                self.accepted += 1
            else:
                self._drain(ready)

    def send(self, frame: CanFrame, timeout: float = 10):
        """Puts a frame on the bus; waits while a device's buffer is full."""
        self._broadcast(frame.pack_fd(), timeout)

    def offer(self, frame: CanFrame):
        """Puts a frame on the bus; a device whose buffer is full misses it."""
        self._broadcast(frame.pack_fd(), timeout=0)

    def report_error(self, error: int, text: str = "bus trouble"):
        """Makes every device report an error of READ_ERROR, WRITE_ERROR, ..."""
        self._broadcast(struct.pack("=I", error) + text.encode()[:60], timeout=10)

    def receive(self, count: int, timeout: float = 10) -> List[Written]:
        """The first `count` frames of `written`, or fewer at the timeout; they are taken out of it."""
        deadline = time.monotonic() + timeout
        self.poll()
        while len(self.written) < count and self._wait(deadline):
            pass
        taken, self.written = self.written[:count], self.written[count:]
        return taken

    def _wait(self, deadline: float) -> bool:
        """Waits for something to do and does it; false at the deadline."""
        left = deadline - time.monotonic()
        if left <= 0:
            return False
        select.select(self.sockets(), (), (), left)
        self.poll()
        return True

    def _drain(self, device: socket.socket):
        try:
            while message := device.recv(256):
                (nanoseconds,) = _STAMP.unpack_from(message)
                frame = canframe.unpack(message[_STAMP.size:])
                self.written.append(Written(nanoseconds / 1e9, frame))
        except BlockingIOError:
            return
        except ConnectionError:
            pass
        self._forget(device)

    def _broadcast(self, message: bytes, timeout: float):
        self.poll()
        for device in list(self._devices):
            try:
                self._send(device, message, time.monotonic() + timeout, timeout > 0)
            except (BrokenPipeError, ConnectionError):
                self._forget(device)

    def _send(self, device: socket.socket, message: bytes, deadline: float, insist: bool):
        while True:
            try:
                device.send(message)
                return
            except BlockingIOError:
                if not insist:
                    return
                if time.monotonic() > deadline:
                    raise TimeoutError("a device does not read the bus") from None
                select.select((), [device], (), 0.1)

    def _forget(self, device: socket.socket):
        device.close()
        self._devices.remove(device)

    @property
    def _mode(self) -> pathlib.Path:
        return self.directory / "mode"
