"""Frames from the CAN bus to the clients, and from a client to the CAN bus."""

import time

import pytest
import pytest_asyncio

import harness
from hardware import (THROWING_FORMAT, Listener, bytes_leaves, counted, counter_leaf, counting_client, load,
                      next_value, no_value, send_value, shown_bytes)
from harness import eventually, round_trip
from vorbelsim import CanFrame, VirtualCanBus

PAUSE = 0.010  # seconds before every frame


class Wire(Listener):
    """The bus as well."""

    def __init__(self, daemon, bus, client):
        super().__init__(daemon, client)
        self.bus = bus
        self.send = bus.send

    async def written(self, count):
        """The next `count` frames from the daemon, and nothing behind them."""
        await round_trip(self.client)
        written = self.bus.receive(count)
        assert len(written) == count and self.bus.receive(1, timeout=0.1) == []
        return written


@pytest.fixture(scope="module")
def joined(tmp_path_factory):
    """One daemon for all tests here: joining the bus takes longer than most of them."""
    folder = tmp_path_factory.mktemp("wire")
    with VirtualCanBus(folder) as bus:
        daemon = harness.Daemon(folder, bus.env())
        bus.wait_connected()
        yield daemon, bus
        daemon.stop()


@pytest_asyncio.fixture
async def wire(joined):
    daemon, bus = joined
    async with counting_client() as client:
        yield Wire(daemon, bus, client)


def number(n):
    return CanFrame.vek(5, 2, counted(n))


# Happy: from the bus


@pytest.mark.parametrize("frame, mac, cmd", [
    (CanFrame(0x0C5, b"abcd"), 5, 3),
    (CanFrame(0x7FF, b"abcdefgh"), 63, 31),
    (CanFrame(0x000, b"a"), 0, 0),
    (CanFrame(0x12345, b"abcd", extended=True), 0x05, 0x0D),
    (CanFrame(0x1FFFFFFF, b"abcd", extended=True), 63, 31),
    (CanFrame(0x10000000, b"abcd", extended=True), 0, 0),
    (CanFrame(0x0C5, b"abcd", remote=True), 5, 3),
    (CanFrame(0x004, b"abcdefgh", error=True), 0, 0),
    (CanFrame(0x0C5, b"abcdefghijkl", fd=True), 5, 3),
    (CanFrame(0x0C5, bytes(range(64)), fd=True), 5, 3),
    (CanFrame(0x0C5, b"abc", fd=True), 5, 3),
    (CanFrame(0x12345, b"abcdefghijkl", extended=True, fd=True), 0x05, 0x0D),
], ids=["standard", "greatest identifier", "identifier zero", "extended", "greatest extended identifier",
        "only bits above the eleventh", "remote", "error", "FD of twelve bytes", "FD of 64 bytes",
        "FD of three bytes", "extended FD"])
async def test_frame_is_delivered_with_its_whole_payload(wire, frame, mac, cmd):
    await load(wire.client, {"payload": bytes_leaves(mac, cmd, 64)})
    wire.send(frame)
    assert shown_bytes((await next_value(wire.client))["payload"]) == frame.payload
    assert await no_value(wire.client, 0.2)


async def test_a_frame_without_payload_delivers_an_empty_one(wire):
    await load(wire.client, {"x": {"@mac": 1, "@cmd": 1, "@format": THROWING_FORMAT}})
    wire.send(CanFrame.vek(1, 1))
    await eventually(lambda: wire.failures() == 1)


async def test_a_burst_is_drained_in_order(wire):
    for n in range(1000):
        wire.send(number(n))
    await wire.hears(*range(1000))


# Happy: to the bus


async def test_a_value_becomes_a_standard_frame_without_checksum(wire):
    await send_value(wire.client, {"n": 0x04030201})
    (written,) = await wire.written(1)
    assert written.frame == CanFrame(0x085, b"\x01\x02\x03\x04")


async def test_frames_go_out_in_list_order(wire):
    await load(wire.client, {"a": counter_leaf(1, 2), "b": counter_leaf(2, 1), "c": counter_leaf(1, 1),
                             "d": {"@mac": 63, "@cmd": 31, "@format": "C"}})
    await send_value(wire.client, {"a": 1, "b": 2, "c": 3, "d": 4})
    assert [written.frame for written in await wire.written(4)] == [
        CanFrame.vek(1, 1, counted(3)), CanFrame.vek(2, 1, counted(2)), CanFrame.vek(1, 2, counted(1)),
        CanFrame(0x7FF, b"\x04")]


async def test_a_long_value_is_cut_into_classic_frames(wire):
    await load(wire.client, {"n": {"@mac": 1, "@cmd": 1, "@format": "i", "@skip": 6, "@fragmentation": True},
                             "z": {"@mac": 1, "@cmd": 1, "@format": "i", "@skip": 0, "@fragmentation": True},
                             "y": {"@mac": 1, "@cmd": 1, "@format": "s", "@skip": 4, "@fragmentation": True}})
    await send_value(wire.client, {"z": 0x04030201, "y": 0x0605, "n": 0x0A090807})
    assert [written.frame for written in await wire.written(2)] == [
        CanFrame.vek(1, 1, bytes(range(1, 9))), CanFrame.vek(1, 1, b"\x09\x0a")]


async def test_every_frame_waits_10_ms_also_the_first(wire):
    for _ in range(5):
        before = time.monotonic()
        await send_value(wire.client, {"n": 1})
        (written,) = await wire.written(1)
        assert written.time - before >= PAUSE


async def test_frames_of_one_message_are_10_ms_apart(wire):
    await load(wire.client, {str(mac): counter_leaf(mac, 1) for mac in range(20)})
    before = time.monotonic()
    await send_value(wire.client, {str(mac): mac for mac in range(20)})
    written = await wire.written(20)
    assert [each.frame.mac for each in written] == list(range(20))
    times = [before] + [each.time for each in written]
    gaps = [later - earlier for earlier, later in zip(times, times[1:])]
    assert min(gaps) >= PAUSE, gaps
    assert times[3] - before >= 3 * PAUSE


async def test_frames_of_many_messages_are_10_ms_apart_too(wire):
    for n in range(30):
        await send_value(wire.client, {"n": n})
    written = await wire.written(30)
    assert [each.frame for each in written] == [number(n) for n in range(30)]
    assert all(later.time - earlier.time >= PAUSE for earlier, later in zip(written, written[1:]))


# Rainy


@pytest.mark.parametrize("length", [9, 12, 64])
async def test_invalid_frames_are_skipped_silently(wire, length):
    before = wire.daemon.lines()
    wire.send(number(1))
    wire.send(CanFrame.vek(5, 2, bytes(length)))  # too long for a frame that is not FD
    wire.send(number(2))
    await wire.hears(1, 2)
    assert wire.daemon.lines() == before


async def test_a_frame_whose_conversion_throws_costs_only_itself(wire):
    await load(wire.client, {"n": counter_leaf(), "x": {"@mac": 1, "@cmd": 1, "@format": THROWING_FORMAT}})
    throwing = CanFrame.vek(1, 1)
    for frame in (number(1), throwing, throwing, number(2), throwing, number(3)):
        wire.send(frame)
    await wire.hears(1, 2, 3)
    assert wire.failures() == 3


@pytest.mark.parametrize("message", [b"", b"\xc1", b"\x01", b"\x93\x01\x02\x03"],
                         ids=["empty", "reserved byte", "number", "array"])
async def test_what_is_no_map_costs_only_itself(wire, message):
    await wire.client.send(message)
    await send_value(wire.client, {"n": 1})
    assert [written.frame for written in await wire.written(1)] == [number(1)]


async def test_values_arrive_behind_a_long_write(wire):
    """Writing holds up everything else; what came meanwhile is not lost."""
    await load(wire.client, {"n": counter_leaf(), **{str(mac): counter_leaf(mac, 1) for mac in range(20)}})
    await send_value(wire.client, {str(mac): mac for mac in range(20)})
    for n in range(100):
        wire.send(number(n))
    await wire.hears(*range(100))
    assert len(await wire.written(20)) == 20
