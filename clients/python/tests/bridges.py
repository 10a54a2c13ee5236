"""The real daemon on a virtual CAN bus, the way to it, and where this source tree's tool and example are."""

import contextlib
import pathlib
import subprocess

import harness
from vorbelsim import CanFrame, VirtualAdapter, VirtualCanBus, vek

PROJECT = pathlib.Path(__file__).resolve().parents[3]
TOOL = PROJECT / "clients" / "python" / "vorbel-cli"
MACHINE = PROJECT / "examples" / "machine.schema.json"


class Bridge:
    """A daemon that can be ended and started again, and its bus."""

    def __init__(self, folder):
        self._folder = folder
        self.can = VirtualCanBus(folder).start()
        self.daemon = None

    def start(self, **environment):
        self.daemon = harness.Daemon(self._folder, {**self.can.env(), **environment})
        self.daemon.wait_listening()
        self.can.wait_connected(self.can.accepted + 1)
        return self

    def stop(self):
        if self.daemon:
            self.daemon.stop()
            self.daemon = None

    def say(self, mac, cmd, *payloads):
        """Puts frames on the bus."""
        for payload in payloads:
            self.can.send(CanFrame.vek(mac, cmd, bytes.fromhex(payload)))

    def heard(self, count=1, timeout=5):
        """(mac, cmd, payload as hex) of the next frames that the daemon wrote."""
        frames = [written.frame for written in self.can.receive(count, timeout)]
        return [(frame.mac, frame.cmd, frame.payload.hex(" ")) for frame in frames]


class SerialBridge(Bridge):
    """The same with a bus behind a serial adapter."""

    def __init__(self, folder):
        self._folder = folder
        self._adapter = VirtualAdapter(folder).plug()
        self.daemon = None

    def start(self, **environment):
        opened_before = self._raised()
        self.daemon = harness.Daemon(self._folder, {**self._adapter.env(), **environment})
        self.daemon.wait_listening()
        self._adapter.wait_for("dtr", 1, count=opened_before + 1)  # what is written now, it hears
        return self

    def _raised(self):
        return sum(event.value for event in self._adapter.history("dtr"))

    def unplug(self):
        self._adapter.__exit__()

    def say(self, mac, cmd, *payloads):
        self._adapter.write(b"".join(vek.record(mac, cmd, bytes.fromhex(payload)) for payload in payloads))

    def heard(self, count=1, timeout=5):
        frames = vek.Scanner().feed(self._adapter.read(count * vek.SIZE, timeout))
        return [(mac, cmd, payload.hex(" ")) for mac, cmd, payload in frames]


@contextlib.contextmanager
def link_down():
    """Nothing passes, and nobody is told."""
    def switch(state):
        subprocess.run(["ip", "link", "set", "lo", state], check=True)

    switch("down")
    try:
        yield
    finally:
        switch("up")
