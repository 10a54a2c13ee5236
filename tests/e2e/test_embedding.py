"""Main in a program other than the daemon."""

import asyncio
import os
import subprocess

import harness
from hardware import gate_open, load, send_value
from harness import connect, receive, round_trip
from vorbelsim import CanFrame

# What is asked of the adapter from its opening on; the settings of the line have tests of their own.
EVENTS = ("open", "close", "rts", "dtr")
OPENED = ["open", "rts 1", "dtr 0"]
PROGRAM = harness.BUILD / "tests" / "e2e" / "vorbel_embedder"


def run(adapter, action):
    """Lets the program act, and returns what that did to the adapter."""
    subprocess.run([PROGRAM, action], env={**os.environ, **adapter.plug().env()}, timeout=20, check=True)
    events = [event for event in adapter.history() if event.name in EVENTS]
    return [f"{event.name} {event.value}" if event.name in ("rts", "dtr") else event.name for event in events]


class Embedder:
    """The program at work: driven by bytes on its input, until that ends."""

    def __init__(self, action, environment):
        self.process = subprocess.Popen([PROGRAM, action], env={**os.environ, **environment}, stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.stdin.close()
        assert self.process.wait(20) == 0

    def drive(self, answer):
        self.process.stdin.write(b"x")
        self.process.stdin.flush()
        assert self.process.stdout.readline().decode().strip() == answer


def test_closing_lowers_dtr_and_leaves_a_port_that_opens_again(adapter):
    assert run(adapter, "close") == OPENED + ["dtr 1"] + ["dtr 0", "close"] + OPENED + ["close"]


def test_deleted_before_dtr_is_raised(adapter):
    assert run(adapter, "delete") == OPENED + ["close"]


async def test_closing_writes_out_what_the_line_takes(adapter):
    """The line is full when the program stops to look after it, and has room again when it closes the port."""
    with Embedder("flush", adapter.plug().env()) as embedder:
        await gate_open(adapter)
        async with connect() as client:
            await receive(client)
            await load(client, {"x": {"@mac": 1, "@cmd": 1, "@format": "p", "@fragmentation": True}})
            await send_value(client, {"x": bytes(60_000)})
            await round_trip(client)
            embedder.drive("blocked")
            assert 0 < len(adapter.read(timeout=0.2)) < 60_000
            embedder.process.stdin.close()
            # What the line holds is waited for when it closes.
            assert len(adapter.read(1, timeout=5)) == 1
            while embedder.process.poll() is None:
                adapter.read(timeout=0.01)


async def test_frames_after_its_end_are_nobodys_and_the_device_stays(bus):
    # The device is nobody's then, and is there until the process ends: no leak to report.
    environment = {**bus.env(), "VORBEL_SOURCE": "socketcan", "ASAN_OPTIONS": "detect_leaks=0"}
    with Embedder("orphan", environment) as embedder:
        bus.wait_connected()
        embedder.drive("deleted")
        for _ in range(100):
            bus.send(CanFrame.vek(5, 2, bytes(8)))
            await asyncio.sleep(0.001)
        assert bus.connected == 1
        assert embedder.process.poll() is None
