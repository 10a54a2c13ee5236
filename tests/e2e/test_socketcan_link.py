"""The SocketCAN device: created, connected, lost, recreated."""

import asyncio
import contextlib
import errno
import os
import re
import shutil
import subprocess
import time

import pytest

import harness
from hardware import counted, counter_leaf, counting_client, load, next_value, no_value, send_value
from harness import TICK, connect, receive, round_trip
from vorbelsim import CanFrame, VirtualCanBus, canbus

CLOSE = "debug Close SocketCan"
CANNOT_CONNECT = "critical Socket can cannot connect."
# qCritical() sets a blank behind the text, which ends with one.
CREATION_FAILED = 'critical Socket can creation failed:  "%s"'
NULL_SENDER = "warning QObject::connect(QCanBusDevice, Unknown): invalid nullptr parameter"
ABSENT = CREATION_FAILED % "There is no virtual CAN bus named can0"


class Interface:
    """An interface named can0. It may be of any kind: the frames are those of the virtual bus."""

    def add(self):
        subprocess.run(["ip", "link", "add", "can0", "type", "veth", "peer", "name", "far"], check=True)

    def delete(self):
        subprocess.run(["ip", "link", "del", "can0"], check=True)


@pytest.fixture
def can0():
    """An interface that is there when the test begins."""
    interface = Interface()
    interface.add()
    yield interface
    with contextlib.suppress(subprocess.CalledProcessError):
        interface.delete()


def about_the_link(daemon):
    return [line for line in daemon.lines() if not re.match("info (New c|C)onnection|info (Sending|Received)", line)]


async def hears(bus, daemon):
    """A frame on the bus reaches a client, once."""
    async with counting_client() as client:
        bus.send(CanFrame.vek(5, 2, counted(70000)))
        assert await next_value(client) == {"n": 70000}
        assert await no_value(client)


# Happy


async def test_first_attempt_comes_with_the_first_tick_and_is_silent(start_daemon, bus):
    daemon = start_daemon(**bus.env())
    bus.wait_connected()
    assert 0.9 * TICK < time.monotonic() - daemon.started < 2 * TICK
    time.sleep(2.2 * TICK)
    assert about_the_link(daemon) == []
    assert bus.accepted == bus.connected == 1
    await hears(bus, daemon)


async def test_ticks_send_no_hello(start_daemon, bus):
    start_daemon(**bus.env())
    async with connect() as client:
        await receive(client)
        assert await harness.silent(client, 2.5 * TICK)


@pytest.mark.parametrize("error", range(canbus.READ_ERROR, canbus.UNKNOWN_ERROR + 1),
                         ids=["read", "write", "connection", "configuration", "unknown"])
async def test_any_error_recreates_the_device_on_the_next_tick(start_daemon, bus, error):
    daemon = start_daemon(**bus.env())
    bus.wait_connected()
    bus.report_error(error)
    bus.wait_connected(2, timeout=2 * TICK)
    daemon.wait_for(CLOSE)
    assert about_the_link(daemon) == [CLOSE]
    assert bus.connected == 1
    await hears(bus, daemon)


async def test_an_error_behind_which_frames_come_is_none(start_daemon, bus):
    """Whoever reads a frame takes Qt's error back: a device that goes on is kept."""
    daemon = start_daemon(**bus.env())
    bus.wait_connected()
    bus.report_error(canbus.CONNECTION_ERROR)
    await hears(bus, daemon)
    time.sleep(2.2 * TICK)
    assert about_the_link(daemon) == []
    assert bus.accepted == bus.connected == 1
    await hears(bus, daemon)


async def test_each_device_has_one_read_connection(start_daemon, bus):
    daemon = start_daemon(**bus.env())
    for count in range(1, 5):
        bus.wait_connected(count)
        await hears(bus, daemon)
        bus.report_error(canbus.UNKNOWN_ERROR)
    bus.wait_connected(5)
    await hears(bus, daemon)
    assert about_the_link(daemon) == [CLOSE] * 4


# Rainy


def test_failed_creation_is_told_each_second(start_daemon, bus):
    bus.mode = "absent"
    daemon = start_daemon(**bus.env())
    daemon.wait_for(re.escape(NULL_SENDER), 3)
    # Reading is set up in every case; without a device Qt says what it thinks of that.
    assert about_the_link(daemon)[:6] == [ABSENT, NULL_SENDER] * 3
    assert 2.9 * TICK < time.monotonic() - daemon.started < 4 * TICK
    bus.mode = "present"
    bus.wait_connected(timeout=2 * TICK)
    assert CLOSE not in daemon.lines()


def test_a_missing_plugin_is_told_in_the_words_of_qt(tmp_path, start_daemon, monkeypatch):
    """Qt looks for the plugins where a file beside the program says, and there are none."""
    shutil.copy(harness.BUILD / "vorbel", tmp_path)
    (tmp_path / "qt.conf").write_text("[Paths]\nPlugins = nowhere\n")
    monkeypatch.setattr(harness, "BUILD", tmp_path)
    daemon = start_daemon(VORBEL_SOURCE="socketcan")
    daemon.wait_for(re.escape(NULL_SENDER), 2)
    assert about_the_link(daemon)[:2] == [CREATION_FAILED % "No such plugin: 'socketcan'", NULL_SENDER]


async def test_without_a_device_binary_messages_are_dropped_silently(start_daemon, bus):
    bus.mode = "absent"
    daemon = start_daemon(**bus.env())
    daemon.wait_for(re.escape(ABSENT))
    async with counting_client() as client:
        before = [line for line in daemon.lines() if line not in (ABSENT, NULL_SENDER)]
        await send_value(client, {"n": 1})
        await client.send(b"\xd4\x11\x00")  # would be a warning if it were unpacked
        await round_trip(client)
        assert [line for line in daemon.lines() if line not in (ABSENT, NULL_SENDER)] == before
        bus.mode = "present"
        bus.wait_connected()
        assert bus.receive(1, timeout=0.3) == []


def test_refused_connection_with_an_error_is_tried_again_each_second(start_daemon, bus):
    bus.mode = "refuse"
    daemon = start_daemon(**bus.env())
    daemon.wait_for(re.escape(CANNOT_CONNECT), 3)
    assert about_the_link(daemon)[:5] == [CANNOT_CONNECT, CLOSE, CANNOT_CONNECT, CLOSE, CANNOT_CONNECT]
    bus.mode = "present"
    bus.wait_connected(timeout=2 * TICK)


async def test_refused_connection_without_an_error_is_kept_as_it_is(start_daemon, bus):
    bus.mode = "refuse-silently"
    daemon = start_daemon(**bus.env())
    daemon.wait_for(re.escape(CANNOT_CONNECT))
    bus.mode = "present"
    async with counting_client() as client:
        await send_value(client, {"n": 1})  # the device is there, so the message is converted
        await round_trip(client)
    time.sleep(2.2 * TICK)
    assert daemon.count(re.escape(CANNOT_CONNECT)) == 1
    assert daemon.count(CLOSE) == 0
    assert bus.connected == 0
    assert daemon.count("debug Converted VEK frames: 1") == 1


async def test_a_bus_that_goes_away_and_comes_back(start_daemon, tmp_path):
    bus = VirtualCanBus(tmp_path)
    with bus:
        daemon = start_daemon(**bus.env())
        bus.wait_connected()
    daemon.wait_for(re.escape(CANNOT_CONNECT), 2)
    with bus:
        bus.wait_connected(2, timeout=2 * TICK)
        await hears(bus, daemon)
    assert about_the_link(daemon)[:4] == [CLOSE, CANNOT_CONNECT, CLOSE, CANNOT_CONNECT]


async def test_an_interface_that_was_made_again_is_connected_again(start_daemon, bus, can0):
    """Qt reports no error to somebody who only reads: the kernel's number of the interface tells."""
    daemon = start_daemon(**bus.env())
    bus.wait_connected()
    for connections, change in ((2, can0.delete), (3, can0.add)):
        change()
        bus.wait_connected(connections, timeout=2 * TICK)
        await hears(bus, daemon)
    time.sleep(1.2 * TICK)
    assert about_the_link(daemon) == [CLOSE] * 2
    assert bus.accepted == 3


async def test_an_interface_made_again_between_two_ticks_is_another_one(start_daemon, bus, can0):
    daemon = start_daemon(**bus.env())
    bus.wait_connected()
    can0.delete()
    can0.add()
    bus.wait_connected(2, timeout=2 * TICK)
    await hears(bus, daemon)
    assert about_the_link(daemon) == [CLOSE]


@pytest.mark.plain_build_only
async def test_a_daemon_without_descriptors_keeps_its_healthy_device(start_daemon, bus, can0):
    """It cannot even look for the interface then."""
    daemon = start_daemon(**bus.env())
    bus.wait_connected()
    async with counting_client() as client:
        daemon.take_descriptors_away()
        daemon.wait_for("warning No file descriptor is left.*", 3)
        assert daemon.count(CLOSE) == 0
        bus.send(CanFrame.vek(5, 2, counted(70000)))
        assert await next_value(client) == {"n": 70000}


async def test_a_failed_write_is_seen_by_the_next_tick(start_daemon, bus):
    daemon = start_daemon(**bus.env())
    async with counting_client() as client:
        bus.wait_connected()
        bus.disconnect()
        await send_value(client, {"n": 1})
        bus.wait_connected(2, timeout=2 * TICK)
        await send_value(client, {"n": 2})
        await round_trip(client)
        assert [written.frame for written in bus.receive(1)] == [CanFrame.vek(5, 2, counted(2))]
    assert daemon.count(CLOSE) == 1


LOST = r'warning Lost (\d+) of (\d+) frames of one message, can0 says: "(.*)"'


def losses(daemon):
    """(lost, of, reason) of each message that lost frames."""
    found = (re.fullmatch(LOST, line) for line in daemon.lines())
    return [(int(loss[1]), int(loss[2]), loss[3]) for loss in found if loss]


async def test_frames_that_a_full_queue_does_not_take_are_told_in_one_line(start_daemon, bus):
    daemon = start_daemon(**bus.env())
    bus.wait_connected()
    async with connect() as client:
        await receive(client)
        await load(client, {"x": {"@mac": 1, "@cmd": 1, "@format": "p", "@fragmentation": True}})
        await send_value(client, {"x": bytes(8 * 400 - 6)})
        await asyncio.wait_for(await client.ping(), 20)
    ((lost, of, reason),) = losses(daemon)
    assert of == 400 and reason == os.strerror(errno.EAGAIN)
    assert 0 < lost == of - len(bus.receive(of, timeout=0.5))
    assert not any(line.startswith("warning") for line in daemon.lines() if not re.fullmatch(LOST, line))


async def test_each_message_tells_its_own_losses(start_daemon, bus):
    daemon = start_daemon(**bus.env())
    bus.wait_connected()
    async with connect() as client:
        await receive(client)
        await load(client, {"a": counter_leaf(1, 1), "b": counter_leaf(2, 1)})
        await send_value(client, {"a": 1, "b": 2})
        await round_trip(client)
        assert losses(daemon) == []
        bus.disconnect()
        await send_value(client, {"a": 1, "b": 2})
        await send_value(client, {"a": 1})
        await round_trip(client)
        gone = os.strerror(errno.EPIPE)
        assert losses(daemon) == [(2, 2, gone), (1, 1, gone)]
        bus.wait_connected(2, timeout=2 * TICK)
        await send_value(client, {"a": 1, "b": 2})
        await round_trip(client)
        assert len(losses(daemon)) == 2


async def test_many_recreations_cost_no_descriptors(start_daemon, bus):
    daemon = start_daemon(**bus.env())
    bus.wait_connected()
    before = daemon.descriptors()
    for count in range(2, 8):
        bus.report_error(canbus.UNKNOWN_ERROR)
        bus.wait_connected(count)
    assert daemon.descriptors() == before
