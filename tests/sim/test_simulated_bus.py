"""The simulated bus as a program, on virtual hardware."""

import errno
import json
import os
import signal
import struct
import subprocess
import sys
import time

import pytest

from conftest import PROJECT
from vorbelsim import CanFrame, links, vek
from vorbelsim.links import SocketCanLink

PROGRAM = PROJECT / "sim" / "simulated_bus.py"


@pytest.fixture
def simulated_bus():
    """simulated_bus(arguments...) starts one; all are ended with the test."""
    running = []

    def start(*arguments):
        running.append(subprocess.Popen([sys.executable, PROGRAM, *map(str, arguments)], stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE, text=True))
        return running[-1]

    yield start
    for process in running:
        process.kill()
        process.communicate()


def env_of(*arguments):
    out = subprocess.run([sys.executable, PROGRAM, *map(str, arguments), "--env"], capture_output=True, text=True,
                         timeout=20, check=True).stdout
    shell = subprocess.run(["sh", "-c", out + "env"], capture_output=True, text=True, timeout=20, check=True).stdout
    return dict(line.split("=", 1) for line in shell.splitlines() if line.startswith(("VORBEL", "QT_", "LD_", "ASAN")))


def until(condition, timeout=10):
    deadline = time.monotonic() + timeout
    while not condition():
        assert time.monotonic() < deadline
        time.sleep(0.02)


def frames_heard(running, seconds):
    """(mac, cmd, payload) of the frames that the probe tells of within a time."""
    frames, deadline = [], time.monotonic() + seconds
    while time.monotonic() < deadline:
        words = running.line_after("frame").split()
        payload, number = ("", words[2]) if words[1] == "id" else (words[1], words[3])
        frames.append((int(number, 16) & 0x3F, int(number, 16) >> 6, bytes.fromhex(payload)))
    return frames


# Happy


def test_nodes_speak_on_the_virtual_bus(probe, simulated_bus, tmp_path):
    simulated_bus("--virtual-can", tmp_path, "--seed", 1)
    until((tmp_path / "can" / "socket").exists)
    running = probe(env_of("--virtual-can", tmp_path), "can")
    heard = frames_heard(running, 1.5)
    assert {frame[:2] for frame in heard} == {(5, 2), (9, 1), (9, 2), (12, 1)}
    speeds = [struct.unpack_from("<h", payload)[0] for mac, cmd, payload in heard if (mac, cmd) == (5, 2)]
    assert len(speeds) > 20 and speeds[-1] > speeds[0]


def test_nodes_speak_records_with_noise_on_the_adapter(probe, simulated_bus, tmp_path):
    simulated_bus("--adapter", tmp_path, "--noise", 0.5, "--seed", 1)
    until((tmp_path / "ports" / "ttyVEK0").exists)
    running = probe(env_of("--adapter", tmp_path), "serial", "VEK")
    assert running.line().startswith("open 1")
    scanner, frames, deadline = vek.Scanner(), [], time.monotonic() + 1.5
    while time.monotonic() < deadline:
        frames += scanner.feed(bytes.fromhex(running.line().split()[1]))
    assert {(5, 2), (9, 1), (12, 1)} <= {frame[:2] for frame in frames}
    assert scanner.skipped > 0


def test_motor_follows_its_set_point_with_inertia():
    import random
    from vorbelsim.nodes import Motor
    motor = Motor(random.Random(1))
    motor.hear(CanFrame.vek(5, 3, struct.pack("<h", 1200)))
    motor.step(0.1)
    assert 0 < motor.speed < 300
    for _ in range(100):
        motor.step(0.1)
    assert abs(motor.speed - 1200) < 1
    speed, current, enabled = struct.unpack("<hHB", motor.telemetry[0][1]().payload)
    assert abs(speed - 1200) < 5 and 50 < current < 200 and enabled == 1


@pytest.mark.parametrize("frame", [CanFrame.vek(5, 3, b"\x01"), CanFrame.vek(5, 3), CanFrame.vek(6, 3, b"\0\0")],
                         ids=["too short", "empty", "for another node"])
def test_motor_ignores_what_is_no_set_point(frame):
    import random
    from vorbelsim.nodes import Motor
    motor = Motor(random.Random(1))
    motor.hear(frame)
    assert motor.set_point == 600


def test_frames_of_the_daemon_are_told(probe, simulated_bus, tmp_path):
    process = simulated_bus("--adapter", tmp_path, "--noise", 0)
    until((tmp_path / "ports" / "ttyVEK0").exists)
    running = probe(env_of("--adapter", tmp_path), "serial", "VEK")  # it echoes the nodes' own records
    running.line_after("read")
    assert process.stdout.readline().startswith("bus heard mac ")


LOG = """(100.000000) can0 0C5#1234
(100.300000) can0 045#R
(100.300000) can0 00012345#01
(100.600000) can0 0C5##1000102030405060708090A0B
"""


def test_log_is_replayed_at_its_own_pace(probe, simulated_bus, tmp_path):
    (tmp_path / "log").write_text(LOG)
    process = simulated_bus("--virtual-can", tmp_path, "--replay", tmp_path / "log", "--wait", 1, "--quiet")
    until((tmp_path / "can" / "socket").exists)
    running = probe(env_of("--virtual-can", tmp_path), "can")
    running.line_after("frame 1234 id c5 type 1")
    start = time.monotonic()
    running.line_after("frame  id 45 type 3")
    running.line_after("frame 01 id 12345 type 1 extended 1")
    running.line_after("frame 000102030405060708090a0b id c5 type 1 extended 0 fd 1")
    assert 0.5 < time.monotonic() - start < 1.5
    assert process.communicate(timeout=10)[0] == "replayed 4 frames, 0 of them not fit for this link\n"


def test_adapter_takes_only_what_a_record_can_hold(simulated_bus, tmp_path):
    (tmp_path / "log").write_text(LOG)
    process = simulated_bus("--adapter", tmp_path, "--replay", tmp_path / "log", "--speed", "max")
    assert process.communicate(timeout=10)[0] == "replayed 4 frames, 2 of them not fit for this link\n"


# Rainy


class Interface:
    """Stands in for the socket of a CAN interface, which not every kernel has; answers with errors first."""

    def __init__(self, *errors):
        self._errors = list(errors)
        self.sent = []

    def send(self, data):
        if self._errors:
            number = self._errors.pop(0)
            raise OSError(number, os.strerror(number))
        self.sent.append(data)


def interface_link(*errors):
    link = SocketCanLink("can0")
    link._socket = Interface(*errors)
    return link


def test_full_queue_of_an_interface_is_waited_for():
    link = interface_link(errno.ENOBUFS, errno.EAGAIN, errno.ENOBUFS)
    link.send(CanFrame(0x123, b"x"))
    assert link._socket.sent == [CanFrame(0x123, b"x").pack()]


def test_full_queue_of_an_interface_loses_what_is_only_offered():
    link = interface_link(errno.ENOBUFS)
    link.offer(CanFrame(0x123, b"x"))
    assert link._socket.sent == []


@pytest.mark.parametrize("way", ["send", "offer"])
def test_interface_that_is_down_is_an_error(way):
    with pytest.raises(OSError, match="the CAN interface can0: Network is down"):
        getattr(interface_link(errno.ENETDOWN), way)(CanFrame(0x123))


def test_interface_that_never_takes_a_frame_is_an_error(monkeypatch):
    monkeypatch.setattr(links, "PATIENCE", 0.05)
    with pytest.raises(TimeoutError, match="the CAN interface can0 takes no frames"):
        interface_link(*[errno.ENOBUFS] * 10000).send(CanFrame(0x123))


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_ends_cleanly(simulated_bus, tmp_path, number):
    process = simulated_bus("--adapter", tmp_path)
    until((tmp_path / "ports" / "ttyVEK0").exists)
    process.send_signal(number)
    assert process.communicate(timeout=10) == ("", "") and process.returncode == 0
    assert list((tmp_path / "ports").iterdir()) == list((tmp_path / "dev").iterdir()) == []


def test_bad_log_is_an_error(simulated_bus, tmp_path):
    (tmp_path / "log").write_text("(1.5) can0 123#00\n\nnonsense \xe4\n", encoding="latin-1")
    process = simulated_bus("--adapter", tmp_path, "--replay", tmp_path / "log")
    assert process.communicate(timeout=10)[1] == (
        f"simulated_bus: {tmp_path}/log: line 3: not a line of a candump log: 'nonsense \\\\xe4'\n")
    assert process.returncode == 1


def test_missing_interface_is_an_error(simulated_bus):
    process = simulated_bus("--can", "nosuchcan")
    assert process.communicate(timeout=10)[1].startswith("simulated_bus: ")
    assert process.returncode == 1


def test_schema_example_names_what_the_nodes_send():
    import random
    from vorbelsim.nodes import machine
    schema = json.loads((PROJECT / "examples" / "machine.schema.json").read_text())
    leaves = list(leaves_of(schema))
    widths = {"C": 1, "S": 2, "s": 2}
    for node in machine(random.Random(1)):
        for _, telemetry in node.telemetry:
            frame = telemetry()
            described = [leaf for leaf in leaves if (leaf["@mac"], leaf["@cmd"]) == (frame.mac, frame.cmd)]
            ends = [leaf.get("@skip", 0) + widths[leaf["@format"]] for leaf in described]
            assert max(ends) == len(frame.payload) == sum(widths[leaf["@format"]] for leaf in described)


def leaves_of(node):
    if "@mac" in node:
        yield node
    for child in node.values():
        if isinstance(child, dict):
            yield from leaves_of(child)
