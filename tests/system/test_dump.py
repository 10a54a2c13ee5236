"""The terminal tool outside of the machine shows what candump shows inside."""

import pathlib
import re
import subprocess

import pytest
from canbus import VIRTUAL, CanBus

TOOL = pathlib.Path(__file__).parents[2] / "clients" / "python" / "vorbel-cli"
FRAMES = ["085#58020E0001", "7FF#FFFFFFFFFFFFFFFF", "000#00", "001#0102", "085#58", "3E5#0011223344556677",
          *(f"{number * 37 % 2048:03X}#{number:016X}" for number in range(50))]


RECEIVED = "Received schema: .*"


@pytest.fixture
def bus(guest, service):
    bus = CanBus(guest, VIRTUAL, "can0")
    service.configure(VORBEL_SOURCE="socketcan")
    bus.wait_for_listener()
    return bus


@pytest.mark.parametrize("words", [[], ["-L"]], ids=["lines", "a log"])
def test_byte_by_byte(bus, guest, service, words):
    schemas = service.count(RECEIVED)
    tool = subprocess.Popen(["/usr/bin/python3", TOOL, "dump", "--yes", "-a", f"127.0.0.1:{guest.port}", "-n",
                             str(len(FRAMES)), "--for", "120", "--timeout", "120", *words],
                            stdout=subprocess.PIPE, text=True)
    service.wait_for_log(RECEIVED, count=schemas + 2, limit=120)  # the second one is long
    guest.run(f"""
        candump {' '.join(words)} -n {len(FRAMES)} -T 120000 can0 >/host/candump.txt 2>&1 &
        echo $! >/run/candump.pid
    """)
    bus.wait_for_listener(2)
    bus.send(*FRAMES)
    guest.run("while kill -0 $(cat /run/candump.pid) 2>/dev/null; do sleep 0.1; done", limit=150)
    shown = tool.communicate(timeout=300)[0]
    assert without_times(shown) == without_times((guest.share / "candump.txt").read_text())
    assert len(shown.splitlines()) == len(FRAMES)


def without_times(text):
    """Inside, the kernel's clock is asked; outside, the tool's."""
    return re.sub(r"^\(\d{10}\.\d{6}\) ", "(TIME) ", text, flags=re.M)
