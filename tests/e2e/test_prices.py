"""What one message, one schema or one bus may cost: time like any other of its size, bounded memory, bounded lines."""

import asyncio
import re

import msgpack
import pytest

from hardware import (CONVERSION_FAILED, counted, counter_leaf, counting_client, gate_open, load, next_value,
                      send_value)
from harness import connect, eventually, receive, round_trip
from hostile import (EXTENSION, INCOMING_LIMIT, LARGE, LARGE_READINGS, MESSAGES, MIB, SCHEMAS, doubling,
                     gathering_schema, large_schema, unknown_extensions, unknown_keys)
from vorbelsim import CanFrame, vek

LINES_OF_ONE_KIND = 1000
FRAMES_OF_ONE_MESSAGE = 8192
# The packaged unit's MemoryMax=, less a fifth of it.
CEILING = 0.8 * 384

UNKNOWN_KEY = 'warning Key: ".*" does not exist in the schema'
UNKNOWN_EXTENSION = "warning MsgPack::unpack\\(\\) unpacker for type 17 doesn't exist"
MORE_LINES = r"{} And (\d+) more lines of this kind from the same message: .*"
TOO_MANY_FRAMES = r"warning Dropping a message of (\d+) frames: can0 takes at most 8192 of one message"
TOO_LARGE = (r"warning Dropping a (message|schema) of \d+ bytes: decoded it takes up to \d+ bytes of memory, "
             r"and \d+ are granted")


async def cost(daemon, client, message, times=1):
    """Seconds of the processor that the daemon takes for a message."""
    before = daemon.cpu_seconds()
    for _ in range(times):
        await client.send(message)
        await asyncio.wait_for(await client.ping(), 60)
    return daemon.cpu_seconds() - before


# Time


async def test_doubling_costs_what_other_messages_of_its_size_cost(start_daemon, bus):
    """With debug lines: the daemon is started so."""
    daemon = start_daemon(**bus.env())
    bus.wait_connected()
    hostile = doubling(22)
    assert len(hostile) < 90
    ordinary = msgpack.packb([{"name": "x" * 20, "values": [1, 2, 3]} for _ in range(2)])
    assert len(ordinary) < len(hostile)
    async with counting_client() as client:
        expected = await cost(daemon, client, ordinary, times=500)
        assert await cost(daemon, client, hostile, times=500) < 10 * expected + 0.1


@pytest.mark.parametrize("hostile, line", [(unknown_extensions(), UNKNOWN_EXTENSION), (unknown_keys(), UNKNOWN_KEY)],
                         ids=["extensions", "keys"])
async def test_four_mib_of_what_nobody_knows_cost_few_lines(start_daemon, bus, hostile, line):
    daemon = start_daemon(**bus.env())
    bus.wait_connected()
    message, count = hostile
    assert 0.9 * INCOMING_LIMIT < len(message) <= INCOMING_LIMIT
    ordinary = msgpack.packb({"n": [f"{i:05x}" for i in range(len(message) // 6 - 10)]})
    assert 0.9 * len(message) < len(ordinary) <= len(message)
    async with counting_client() as client:
        expected = await cost(daemon, client, ordinary)
        assert await cost(daemon, client, message) < 5 * expected + 0.1
    assert daemon.count(line) == LINES_OF_ONE_KIND
    totals = (re.fullmatch(MORE_LINES.format("warning"), text) for text in daemon.lines())
    more = [found[1] for found in totals if found]
    assert more == [str(count - LINES_OF_ONE_KIND)]


# The bus


PACKED = {"@mac": 1, "@cmd": 1, "@format": "p", "@fragmentation": True}


async def test_packed_values_that_repeat_one_another_are_refused_as_a_whole(start_daemon, bus):
    daemon = start_daemon(**bus.env())
    bus.wait_connected()
    async with connect() as client:
        await receive(client)
        names = [f"{i:03}" for i in range(1000)]
        await load(client, {"n": counter_leaf(), **{name: PACKED for name in names}})
        content = msgpack.packb(bytes(36_000))
        message = (b"\xde" + len(names).to_bytes(2, "big") + msgpack.packb(names[0]) + content
                   + b"".join(msgpack.packb(name) + EXTENSION for name in names[1:]))
        assert len(message) < 43_100
        await client.send(message)
        await round_trip(client)
        await send_value(client, {"n": 1})
        await round_trip(client)
    assert [written.frame for written in bus.receive(2, timeout=0.3)] == [CanFrame.vek(5, 2, counted(1))]
    assert daemon.count(CONVERSION_FAILED) + daemon.count(TOO_MANY_FRAMES) == 1


async def test_one_frame_too_many_refuses_the_whole_message(start_daemon, bus):
    daemon = start_daemon(**bus.env())
    bus.wait_connected()
    async with connect() as client:
        await receive(client)
        await load(client, {"n": counter_leaf(), "x": PACKED})
        header = len(msgpack.packb({"x": bytes(60_000)})) - 60_000
        await send_value(client, {"x": bytes(8 * FRAMES_OF_ONE_MESSAGE + 1 - header)})
        await send_value(client, {"n": 1})
        await round_trip(client)
    assert [written.frame for written in bus.receive(2, timeout=0.3)] == [CanFrame.vek(5, 2, counted(1))]
    assert daemon.count(TOO_MANY_FRAMES.replace(r"(\d+)", str(FRAMES_OF_ONE_MESSAGE + 1))) == 1


async def test_the_last_frame_that_is_allowed_is_not_too_many(start_daemon, bus):
    daemon = start_daemon(**bus.env())
    bus.wait_connected()
    async with connect() as client:
        await receive(client)
        await load(client, {"x": PACKED})
        header = len(msgpack.packb({"x": bytes(60_000)})) - 60_000
        await send_value(client, {"x": bytes(8 * FRAMES_OF_ONE_MESSAGE - header)})
        written = bus.receive(20)
    assert len(written) == 20
    assert all(later.time - earlier.time >= 0.010 for earlier, later in zip(written, written[1:]))
    assert daemon.count(TOO_MANY_FRAMES) == 0


# Memory


@pytest.fixture
def listening(start_daemon):
    """A daemon that unpacks messages: with a link, which is down."""
    return start_daemon(VORBEL_SOURCE="serialport", QT_LOGGING_RULES="*.debug=false;qt.*=false")


@pytest.mark.parametrize("make", [*MESSAGES.values(), *SCHEMAS.values()], ids=[*MESSAGES, *SCHEMAS])
async def test_what_decodes_too_large_is_refused_and_what_decodes_just_not_is_not(listening, make):
    kind = "schema" if make in SCHEMAS.values() else "message"
    async with connect() as client:
        await receive(client)
        await load(client, {"n": counter_leaf()})
        await client.send(make(1))
        await round_trip(client)
        assert listening.count(TOO_LARGE) == 0
        await client.send(make(1.02))
        await round_trip(client)
        assert listening.count(TOO_LARGE.replace("(message|schema)", kind)) == 1
        # And nobody else pays for it; a schema that is refused leaves the one before.
        if kind == "message":
            await send_value(client, {"n": 1, "unknown": 1})
            await round_trip(client)
            assert listening.count('warning Key: "unknown" does not exist in the schema') == 1


async def peak(daemon, client, *messages):
    """MiB that the daemon takes at most for these, one after another, under no schema at first."""
    await client.send("{}")
    await round_trip(client)
    await eventually(lambda: daemon.status("VmRSS") < 30, 10, "the memory to come back")
    daemon.reset_peak()
    for message in messages:
        assert len(message) <= INCOMING_LIMIT
        await client.send(message)
    await asyncio.wait_for(await client.ping(), 60)
    return daemon.status("VmHWM")


@pytest.mark.plain_build_only
async def test_no_schema_and_no_message_behind_it_come_near_the_ceiling(listening):
    async with connect() as client:
        await receive(client)
        messages = {name: make(1) for name, make in MESSAGES.items()}
        peaks = {name: await peak(listening, client, message) for name, message in messages.items()}
        worst = messages[max(peaks, key=peaks.get)]
        for name, make in SCHEMAS.items():
            peaks["behind " + name] = await peak(listening, client, make(1), worst)
    for name, size in peaks.items():
        print(f"{size:.0f} MiB: {name}")
    assert listening.count(TOO_LARGE) == 0
    assert max(peaks.values()) < CEILING


@pytest.mark.plain_build_only
async def test_what_all_arrays_gather_is_bounded(start_daemon, bus):
    daemon = start_daemon(**bus.env())
    bus.wait_connected()
    async with connect() as client:
        await receive(client)
        await load(client, {"n": counter_leaf(), **gathering_schema(10_000)})
        before = daemon.status("VmRSS")
        for _ in range(64 * MIB // (4 * 10_000) + 800):
            bus.send(CanFrame.vek(1, 1, bytes(8)))
        bus.send(CanFrame.vek(5, 2, counted(7)))
        assert await next_value(client, 60) == {"n": 7}
        assert daemon.status("VmRSS") < before + 160
        bound = [line for line in daemon.lines() if line.startswith("warning")]
        assert len(bound) == 1 and '"0' in bound[0], bound
        await load(client, {"n": counter_leaf()})
        await eventually(lambda: daemon.status("VmRSS") < 30, 5, "the memory to come back")


# Clients


def fill(bus):
    for _ in range(LARGE_READINGS):
        bus.send(CanFrame.vek(1, 1, bytes(4)))


async def large_message(client):
    while isinstance(message := await receive(client, 60), str):
        pass
    return message


@pytest.mark.plain_build_only
async def test_whoever_reads_receives_a_message_larger_than_the_limit_of_unread_bytes(start_daemon, bus):
    daemon = start_daemon(**bus.env())
    bus.wait_connected()
    async with connect() as first, connect() as second, connect() as idle:
        for client in (first, second):
            await receive(client)
        await load(first, large_schema())
        # Reads nothing from here on: neither by itself nor in the background.
        idle.transport.pause_reading()
        for _ in range(6):
            fill(bus)
            messages = await asyncio.gather(large_message(first), large_message(second))
            assert messages[0] == messages[1] and len(messages[0]) > LARGE > 16 * MIB
            assert daemon.status("VmHWM") < CEILING
        await eventually(lambda: daemon.count("info Connection closed .*") == 1, 30, "the idle client to be dropped")
        assert daemon.count("warning Dropping the client at .*") == 1
        # The next one has no more room than if there never had been such a message.
        await load(first, {f"{i:05}": leaf for i, leaf in enumerate(list(large_schema().values())[:10_000])})
        size = 10_000 * LARGE_READINGS * 4
        idle = await connect()
        idle.transport.pause_reading()
        while daemon.count("warning Dropping the client at .*") < 2:
            fill(bus)
            for client in (first, second):
                assert len(await large_message(client)) > size
        last = [line for line in daemon.lines() if "Dropping the client" in line][-1]
        assert 16 * MIB < int(last.split()[-3]) < 16 * MIB + 2 * size
        idle.transport.abort()


@pytest.mark.plain_build_only
async def test_many_clients_that_do_not_read_do_not_fill_the_memory_together(start_daemon, bus):
    """Each of them stays below what one client may leave."""
    daemon = start_daemon(**bus.env())
    bus.wait_connected()
    async with connect() as reads:
        await receive(reads)
        size = 1000 * 1000 * 4
        await load(reads, {f"{i:05}": {"@mac": 1, "@cmd": 1, "@format": "f", "@flushSize": 1000} for i in range(1000)})
        idle = [await connect() for _ in range(20)]
        for client in idle:
            client.transport.pause_reading()
        for _ in range(10):
            for _ in range(1000):
                bus.send(CanFrame.vek(1, 1, bytes(4)))
            assert len(await large_message(reads)) > size
            assert daemon.status("VmHWM") < CEILING
        assert 5 < daemon.count("warning Dropping the client at .*") <= len(idle)
        await round_trip(reads)
        for client in idle:
            client.transport.abort()


# The adapter


WRITE_WHILE_CLOSED = r"warning QIODevice::write \(QSerialPort\): device not open"
UNWRITTEN = "warning Dropping a message of .*unwritten"


async def test_a_backlog_ends_with_its_adapter(start_daemon, adapter):
    daemon = start_daemon(**adapter.plug().env())
    await gate_open(adapter)
    async with connect() as client:
        await receive(client)
        await load(client, {"n": counter_leaf(), "x": PACKED})
        for _ in range(30):
            await send_value(client, {"x": bytes(60_000)})
        await round_trip(client)
        assert daemon.count(UNWRITTEN) > 0
        adapter.unplug()
        daemon.wait_for("debug Close SerialPort")
        before = daemon.count(UNWRITTEN)
        await send_value(client, {"n": 1})
        await round_trip(client)
        assert daemon.count(WRITE_WHILE_CLOSED) == 1
        assert daemon.count(UNWRITTEN) == before
        adapter.plug()
        await gate_open(adapter, 2)
        await send_value(client, {"n": 2})
        await round_trip(client)
        await asyncio.sleep(0.3)
        assert adapter.read() == vek.record(5, 2, counted(2))
