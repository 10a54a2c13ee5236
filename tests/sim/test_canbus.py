"""The virtual CAN bus, as stock Qt SerialBus sees it through the plugin."""

import time

import pytest

from vorbelsim import CanFrame, VirtualCanBus, canbus

DATA, ERROR, REMOTE = 1, 2, 3


@pytest.fixture
def bus(tmp_path):
    with VirtualCanBus(tmp_path) as started:
        yield started


def connected(probe, bus):
    running = probe(bus.env(), "can")
    assert running.line() == "connected 1 0"
    bus.wait_connected()
    return running


FRAMES = {
    "standard": (CanFrame(0x123, b"\x11\x22"), DATA),
    "without payload": (CanFrame(0x7FF), DATA),
    "extended": (CanFrame(0x12345, b"12345678", extended=True), DATA),
    "remote": (CanFrame(0x123, remote=True), REMOTE),
    "error": (CanFrame(0x0, bytes(8), error=True), ERROR),
    "FD of twelve bytes": (CanFrame(0x123, b"abcdefghijkl", fd=True), DATA),
    "FD of sixty-four bytes": (CanFrame(0x123, bytes(range(64)), fd=True), DATA),
}

# Happy


@pytest.mark.parametrize("frame, kind", FRAMES.values(), ids=FRAMES.keys())
def test_frame_travels_both_ways(probe, bus, frame, kind):
    running = connected(probe, bus)
    bus.send(frame)
    assert running.line() == (f"frame {frame.payload.hex()} id {frame.id:x} type {kind} "
                              f"extended {frame.extended:d} fd {frame.fd:d} valid 1")
    assert [written.frame for written in bus.receive(1)] == [frame]


def test_written_frames_carry_the_time_of_writing(probe, bus):
    connected(probe, bus)
    before = time.monotonic()
    bus.send(CanFrame(1))
    time.sleep(0.2)
    (written,) = bus.receive(1)
    assert before < written.time < before + 0.15


def test_many_frames_keep_their_order(probe, bus):
    connected(probe, bus)
    for group in range(10):  # of fewer frames than a socket buffer holds: the device drops what finds no room
        frames = [CanFrame(number, bytes([group])) for number in range(100)]
        for frame in frames:
            bus.send(frame)
        assert [written.frame for written in bus.receive(100)] == frames


# Rainy


def test_frame_too_long_for_its_kind_arrives_as_invalid(probe, bus):
    running = connected(probe, bus)
    bus.send(CanFrame(0x123, b"abcdefghijkl"))
    assert running.line().endswith("fd 0 valid 0")
    assert running.line().startswith(f"error {canbus.WRITE_ERROR} ")


def test_errors_are_reported(probe, bus):
    running = connected(probe, bus)
    bus.report_error(canbus.UNKNOWN_ERROR, "bus off")
    assert running.line() == f"error {canbus.UNKNOWN_ERROR} bus off"


def test_absent_device_cannot_be_created(probe, bus):
    bus.mode = "absent"
    assert probe(bus.env(), "can").line() == "not created: There is no virtual CAN bus named can0"


def test_refused_connection_is_an_error(probe, bus):
    bus.mode = "refuse"
    lines = probe(bus.env(), "can")
    assert lines.line().startswith(f"error {canbus.CONNECTION_ERROR} ")
    assert lines.line() == f"connected 0 {canbus.CONNECTION_ERROR}"


def test_silently_refused_connection_leaves_no_error(probe, bus):
    bus.mode = "refuse-silently"
    assert probe(bus.env(), "can").line() == "connected 0 0"


def test_bus_that_was_not_started_refuses(probe, tmp_path):
    lines = probe(VirtualCanBus(tmp_path).env(), "can")
    assert lines.line().startswith(f"error {canbus.CONNECTION_ERROR} ")


def test_full_queue_is_a_write_error(probe, bus):
    running = connected(probe, bus)
    bus.mode = "full"
    bus.send(CanFrame(0x123))
    assert running.line().startswith("frame ")
    assert running.line() == f"error {canbus.WRITE_ERROR} No buffer space available"
    assert bus.receive(1, timeout=0.1) == []
    bus.mode = "present"
    bus.send(CanFrame(0x124))
    assert bus.receive(1)[0].frame == CanFrame(0x124)


def test_lost_bus_is_a_read_error(probe, bus):
    running = connected(probe, bus)
    bus.disconnect()
    assert running.line() == f"error {canbus.READ_ERROR} The virtual CAN bus is gone"


def test_device_that_ends_is_forgotten(probe, bus):
    running = connected(probe, bus)
    running.end()
    deadline = time.monotonic() + 5
    while bus.connected and time.monotonic() < deadline:
        time.sleep(0.01)
    assert bus.connected == 0
    bus.send(CanFrame(1))
