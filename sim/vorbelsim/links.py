"""The ways in which the simulated bus reaches the daemon. A link is a context manager with

    sockets()          what to wait on for frames from the daemon
    receive()          the frames that came, without waiting
    offer(frame)       sends a frame as a live node does: what finds no room is lost
    send(frame)        sends a frame, waiting for room
    is_heard()         whether the daemon is there, as far as one can know
    finish()           returns when the daemon has what was sent
"""

import errno
import socket
import time

from . import vek
from .adapter import VirtualAdapter
from .canbus import VirtualCanBus
from .canframe import CanFrame, unpack

PATIENCE = 10  # seconds for room in the queue of a CAN interface


class AdapterLink:
    """Records on a virtual adapter, with `noise` as the share of records that follow a little garbage.

    An adapter carries standard frames of up to eight bytes; others are counted in `unsuitable`, not sent.
    """

    def __init__(self, directory, rng, noise: float = 0):
        self._adapter = VirtualAdapter(directory)
        self._scanner = vek.Scanner()
        self._rng = rng
        self._noise = noise
        self.unsuitable = 0
        self.env = self._adapter.env

    def __enter__(self):
        self._adapter.plug()
        return self

    def __exit__(self, *_):
        self._adapter.__exit__()

    def sockets(self):
        return [self._adapter]

    def receive(self):
        return [CanFrame.vek(*frame) for frame in self._scanner.feed(self._adapter.read())]

    def offer(self, frame: CanFrame):
        self._adapter.offer(self._bytes(frame))

    def send(self, frame: CanFrame):
        self._adapter.write(self._bytes(frame))

    def is_heard(self) -> bool:
        return self._adapter.opened

    def finish(self):
        if self.is_heard():
            self._adapter.wait_taken()

    def _bytes(self, frame: CanFrame) -> bytes:
        if frame.extended or frame.error or frame.fd:
            self.unsuitable += 1
            return b""
        garbage = b""
        if self._rng.random() < self._noise:
            garbage = bytes(self._rng.randrange(256) for _ in range(self._rng.randint(1, 4)))
        return garbage + vek.record(frame.mac, frame.cmd, frame.payload, rtr=frame.remote)


class VirtualCanLink:
    """Frames on the virtual CAN bus."""

    unsuitable = 0

    def __init__(self, directory):
        self._bus = VirtualCanBus(directory)
        self.env = self._bus.env
        self.sockets = self._bus.sockets
        self.offer = self._bus.offer
        self.send = self._bus.send

    def __enter__(self):
        self._bus.start()
        return self

    def __exit__(self, *_):
        self._bus.stop()

    def receive(self):
        self._bus.poll()
        return [written.frame for written in self._bus.receive(len(self._bus.written), timeout=0)]

    def is_heard(self) -> bool:
        return self._bus.connected > 0

    def finish(self):
        """A local socket hands over what it has taken even when this side has closed it."""


class SocketCanLink:
    """Frames on a CAN interface of the machine, real or vcan, through the kernel."""

    unsuitable = 0

    def __init__(self, interface: str):
        self._interface = interface

    def env(self) -> dict:
        return {"VORBEL_SOURCE": "socketcan"}

    def __enter__(self):
        self._socket = socket.socket(socket.PF_CAN, socket.SOCK_RAW, socket.CAN_RAW)
        try:
            self._socket.setsockopt(socket.SOL_CAN_RAW, socket.CAN_RAW_FD_FRAMES, 1)
            self._socket.bind((self._interface,))
        except OSError as error:
            self._socket.close()
            raise OSError(error.errno, f"cannot use the CAN interface {self._interface}: {error.strerror}") from None
        self._socket.setblocking(False)
        return self

    def __exit__(self, *_):
        self._socket.close()

    def sockets(self):
        return [self._socket]

    def receive(self):
        frames = []
        try:
            while True:
                frames.append(unpack(self._socket.recv(72)))
        except BlockingIOError:
            return frames

    def offer(self, frame: CanFrame):
        self._is_taken(frame)

    def is_heard(self) -> bool:
        return True

    def finish(self):
        """The kernel has it."""

    def send(self, frame: CanFrame):
        deadline = time.monotonic() + PATIENCE
        while not self._is_taken(frame):
            if time.monotonic() > deadline:
                raise TimeoutError(f"the CAN interface {self._interface} takes no frames")
            time.sleep(0.001)

    def _is_taken(self, frame: CanFrame) -> bool:
        try:
            self._socket.send(frame.pack())
            return True
        except OSError as error:
            # A full queue of the interface is told as ENOBUFS; no poll waits for room in it.
            if error.errno in (errno.EAGAIN, errno.ENOBUFS):
                return False
            raise OSError(error.errno, f"the CAN interface {self._interface}: {error.strerror}") from None
