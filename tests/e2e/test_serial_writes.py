"""From a client's message to the bytes on the serial line."""

import asyncio

import pytest
import pytest_asyncio

from hardware import counted, counter_leaf, counting_client, gate_open, load, send_value
from harness import connect, eventually, receive, round_trip
from vorbelsim import vek

WRITE_WHILE_CLOSED = r"warning QIODevice::write \(QSerialPort\): device not open"


@pytest_asyncio.fixture
async def client(start_daemon, adapter):
    """A client of a daemon whose adapter is open."""
    adapter.daemon = start_daemon(**adapter.plug().env())
    await gate_open(adapter)
    async with connect() as connected:
        await receive(connected)
        yield connected


async def written(adapter, size):
    """The next `size` bytes from the daemon, and nothing behind them."""
    data = b""
    for _ in range(500):
        data += adapter.read(size - len(data))
        if len(data) == size:
            break
        await asyncio.sleep(0.01)
    await asyncio.sleep(0.05)
    return data + adapter.read()


# Happy


async def test_worked_example_to_the_byte(client, adapter):
    await load(client, {"motor": {"mode": {"@mac": 5, "@cmd": 3, "@format": "s"}}})
    await send_value(client, {"motor": {"mode": 0x3412}})
    assert (await written(adapter, 11)).hex() == "c510123400000000000096"


async def test_records_of_one_message_stand_back_to_back_in_endpoint_order(client, adapter):
    await load(client, {
        "a": counter_leaf(1, 2),
        "b": counter_leaf(2, 1),
        "c": counter_leaf(1, 1),
        "d": {"@mac": 0, "@cmd": 31, "@format": "C"},
    })
    await send_value(client, {"a": 1, "b": 2, "c": 3, "d": 4})
    expected = (vek.record(1, 1, counted(3)) + vek.record(2, 1, counted(2)) + vek.record(1, 2, counted(1))
                + vek.record(0, 31, b"\x04"))
    assert await written(adapter, len(expected)) == expected


async def test_a_long_payload_is_cut_and_the_rest_of_the_last_record_is_the_one_before(client, adapter):
    await load(client, {
        "low": {"@mac": 1, "@cmd": 1, "@format": "i", "@skip": 2, "@fragmentation": True},
        "high": {"@mac": 1, "@cmd": 1, "@format": "i", "@skip": 6, "@fragmentation": True},
        "first": {"@mac": 1, "@cmd": 1, "@format": "s", "@fragmentation": True},
    })
    await send_value(client, {"first": 0x0201, "low": 0x06050403, "high": 0x0A090807})
    expected = vek.record(1, 1, bytes(range(1, 9))) + vek.record(1, 1, b"\x09\x0a\x03\x04\x05\x06\x07\x08", dlc=2)
    assert await written(adapter, 22) == expected


async def test_many_messages_of_many_clients_stay_whole(client, adapter):
    await load(client, {str(n): counter_leaf(n, 1) for n in range(1, 6)})
    async with connect() as a, connect() as b, connect() as c, connect() as d:
        for n, sender in enumerate((client, a, b, c, d), start=1):
            for serial in range(200):
                await send_value(sender, {str(n): serial})
    frames = [vek.parse(data) for data in split(await written(adapter, 11 * 1000))]
    for n in range(1, 6):
        assert [frame.payload for frame in frames if frame.mac == n] == [counted(serial) for serial in range(200)]


def split(records):
    assert len(records) % 11 == 0
    cut = [records[at:at + 11] for at in range(0, len(records), 11)]
    assert all(map(vek.is_valid, cut))
    return cut


async def test_a_message_without_frames_writes_nothing(client, adapter):
    await load(client, {"n": counter_leaf()})
    await send_value(client, {})
    await send_value(client, {"n": None})
    await send_value(client, {"n": 1})
    assert await written(adapter, 11) == vek.record(5, 2, counted(1))


# Rainy


@pytest.mark.parametrize("message", [b"", b"\xc1", b"\x01", b"\xa1x", b"\x93\x01\x02\x03", b"\x81\xa1n"],
                         ids=["empty", "reserved byte", "number", "text", "array", "cut map"])
async def test_what_is_no_map_costs_only_itself(client, adapter, message):
    await load(client, {"n": counter_leaf()})
    await client.send(message)
    await send_value(client, {"n": 1})
    assert (await written(adapter, 11))[-11:] == vek.record(5, 2, counted(1))


async def test_messages_for_a_closed_port_are_dropped(start_daemon, adapter):
    daemon = start_daemon(**adapter.env())
    async with counting_client() as client:
        await send_value(client, {"n": 1})
        await send_value(client, {"n": 2})
        await round_trip(client)
        assert daemon.count(WRITE_WHILE_CLOSED) == 2
        adapter.plug()
        await gate_open(adapter)
        await send_value(client, {"n": 3})
        assert await written(adapter, 11) == vek.record(5, 2, counted(3))


async def test_messages_for_a_pulled_adapter_are_lost_and_later_ones_are_not(client, adapter):
    await load(client, {"n": counter_leaf()})
    adapter.unplug()
    for n in range(10):
        await send_value(client, {"n": n})
    await round_trip(client)
    adapter.plug()
    await gate_open(adapter, 2)
    await send_value(client, {"n": 77})
    assert await written(adapter, 11) == vek.record(5, 2, counted(77))


async def test_an_adapter_that_takes_nothing_does_not_fill_the_memory(client, adapter):
    await load(client, {"n": {"@mac": 5, "@cmd": 2, "@format": "p", "@fragmentation": True}})
    dropped = r"warning Dropping a message of \d+ bytes: the serial port leaves \d+ bytes unwritten"
    for n in range(40):
        await send_value(client, {"n": b"x" * 50_000})
    await round_trip(client)
    assert adapter.daemon.count(dropped) > 10
    # Once it takes bytes again, the records that were kept come out whole, and new ones follow.
    data = b""
    for _ in range(300):
        data += adapter.read()
        await asyncio.sleep(0.01)
        if len(data) > 1_100_000 and not adapter.read():
            break
    split(data[:len(data) // 11 * 11])
    await eventually(lambda: not adapter.read())
