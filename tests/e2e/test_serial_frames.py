"""From the adapter's bytes to the clients' values."""

import random
import socket
import time

import msgpack
import pytest
import pytest_asyncio

import harness
from hardware import (THROWING_FORMAT, Listener, bytes_leaves, counted, counter_leaf, counting_client, load,
                      next_value, no_value, shown_bytes, values)
from harness import connect, eventually, receive
from vorbelsim import VirtualAdapter, vek


class Line(Listener):
    """The open adapter as well."""

    def __init__(self, daemon, adapter, client):
        super().__init__(daemon, client)
        self.write = adapter.write
        self.pause = adapter.wait_taken


@pytest.fixture(scope="module")
def opened(tmp_path_factory):
    """One daemon for all tests here: opening the adapter takes longer than most of them. Each leaves the line
    without a partial record."""
    folder = tmp_path_factory.mktemp("line")
    with VirtualAdapter(folder) as adapter:
        daemon = harness.Daemon(folder, adapter.env())
        adapter.wait_for("dtr", 1)
        yield daemon, adapter
        daemon.stop()


@pytest_asyncio.fixture
async def line(opened):
    daemon, adapter = opened
    async with counting_client() as client:
        yield Line(daemon, adapter, client)


def number(n):
    return vek.record(5, 2, counted(n))


def expected_numbers(stream):
    """What a scanner that was written independently finds for counter_leaf in a byte stream."""
    frames = vek.Scanner().feed(stream)
    return [int.from_bytes(frame.payload[:4], "little") for frame in frames
            if frame[:2] == (5, 2) and len(frame.payload) >= 4]


# Happy


async def test_records_become_values_in_order(line):
    line.write(b"".join(map(number, range(500))))
    await line.hears(*range(500))


async def test_every_client_hears_the_same(line):
    async with connect() as second, connect() as third:
        for client in (second, third):
            await receive(client)
        line.write(number(1) + number(2))
        for client in (line.client, second, third):
            assert await values(client, 2) == [{"n": 1}, {"n": 2}]


@pytest.mark.parametrize("length", range(9))
async def test_payload_has_the_length_that_the_record_says(line, length):
    await load(line.client, {"n": counter_leaf(), "payload": bytes_leaves(1, 1, 9)})
    line.write(vek.record(1, 1, b"abcdefgh", dlc=length) + number(1))
    if length:
        assert shown_bytes((await next_value(line.client))["payload"]) == b"abcdefgh"[:length]
    await line.hears(1)


async def test_a_record_of_length_zero_delivers_an_empty_payload(line):
    # Only an empty payload makes this leaf try to unpack what it has, which is nothing.
    await load(line.client, {"x": {"@mac": 1, "@cmd": 1, "@format": THROWING_FORMAT}})
    line.write(vek.record(1, 1, b"x"))
    line.pause()
    assert line.failures() == 0
    line.write(vek.record(1, 1, b""))
    await eventually(lambda: line.failures() == 1)


@pytest.mark.parametrize("mac, cmd", [(0, 0), (63, 31), (63, 0), (0, 31), (33, 17)])
async def test_node_and_command_come_from_the_header(line, mac, cmd):
    await load(line.client, {"n": counter_leaf(mac, cmd)})
    line.write(number(1) + vek.record(mac, cmd, counted(2)) + number(3))
    await line.hears(2)


async def test_remote_flag_is_ignored(line):
    line.write(vek.record(5, 2, counted(7), rtr=1))
    await line.hears(7)


@pytest.mark.parametrize("split", range(1, 22))
async def test_two_records_cut_anywhere(line, split):
    both = number(1) + number(2)
    line.write(both[:split])
    line.pause()
    if split >= 11:
        assert await next_value(line.client) == {"n": 1}
    else:
        assert await no_value(line.client, 0.05)
    line.write(both[split:])
    await line.hears(*((2,) if split >= 11 else (1, 2)))


async def test_a_record_byte_by_byte_is_delivered_with_its_last(line):
    record = number(9)
    for at in range(10):
        line.write(record[at:at + 1])
        line.pause()
    assert await no_value(line.client)
    line.write(record[10:])
    await line.hears(9)


async def test_a_partial_record_waits_behind_whole_ones(line):
    line.write(number(1) + number(2) + number(3)[:10])
    await line.hears(1, 2)
    line.write(number(3)[10:])
    await line.hears(3)


@pytest.mark.plain_build_only
async def test_values_do_not_wait_for_the_acknowledgement_of_the_one_before(line):
    """Nagle's algorithm would hold each back until the client's kernel acknowledges, which takes it 40 ms."""
    slow = 0
    for n in range(50):
        line.client.transport.get_extra_info("socket").setsockopt(socket.IPPROTO_TCP, socket.TCP_QUICKACK, 0)
        started = time.monotonic()
        line.write(number(n))
        assert await next_value(line.client) == {"n": n}
        slow += time.monotonic() - started > 0.03
    assert slow < 10


async def test_idle_line_of_zero_bytes_is_empty_frames_of_node_zero(line):
    await load(line.client, {"n": counter_leaf(), "x": {"@mac": 0, "@cmd": 0, "@format": THROWING_FORMAT}})
    line.write(bytes(11 * 20))
    await eventually(lambda: line.failures() == 20)
    line.write(number(1))
    await line.hears(1)


async def test_gathered_readings_come_as_one_array_and_not_before(line):
    await load(line.client, {"n": counter_leaf(), "a": {"@mac": 1, "@cmd": 1, "@format": "S", "@flushSize": 3}})
    reading = [vek.record(1, 1, value.to_bytes(2, "little")) for value in (1, 0x0203, 0xFFFF)]
    line.write(reading[0] + reading[1] + number(1) + reading[2])
    assert await values(line.client, 2) == [{"n": 1}, {"a": msgpack.ExtType(20, bytes.fromhex("01000302ffff"))}]


# Rainy


async def test_three_bytes_of_garbage_cost_three_bytes(line):
    line.write(b"\x01\x02\x03" + number(1) + number(2))
    await line.hears(1, 2)


async def test_garbage_without_a_record_behind_it_delays_nothing(line):
    line.write(b"\xff" * 15)
    line.pause()
    assert await no_value(line.client, 0.1)
    stream = b"\xff" * 15 + number(1)
    assert expected_numbers(stream) == [1]
    line.write(number(1))
    await line.hears(1)


@pytest.mark.parametrize("at", range(11))
async def test_a_record_with_one_bad_byte_is_skipped_alone(line, at):
    bad = bytearray(number(2))
    bad[at] ^= 0x40
    before = line.daemon.lines()
    stream = number(1) + bytes(bad) + number(3)
    line.write(stream)
    assert expected_numbers(stream) == [1, 3]
    await line.hears(1, 3)
    assert line.daemon.lines() == before


async def test_a_lost_byte_costs_one_record(line):
    stream = number(1) + number(2)[1:] + number(3)
    line.write(stream)
    assert expected_numbers(stream) == [1, 3]
    await line.hears(1, 3)


@pytest.mark.parametrize("length", range(9, 16))
async def test_lengths_beyond_eight_deliver_the_eight_bytes(line, length):
    await load(line.client, {"n": counter_leaf(), "payload": bytes_leaves(1, 1, 16)})
    line.write(vek.record(1, 1, b"abcdefgh", dlc=length) + number(1))
    assert shown_bytes((await next_value(line.client))["payload"]) == b"abcdefgh"
    await line.hears(1)


@pytest.mark.parametrize("seed", range(5))
async def test_noise_in_any_pieces_is_read_like_an_independent_scanner_reads_it(line, seed):
    rng = random.Random(seed)
    stream = b""
    for n in range(300):
        if rng.random() < 0.4:
            stream += bytes(rng.randrange(256) for _ in range(rng.randrange(1, 30)))
        stream += number(n)[:rng.choice([11, 11, 11, rng.randrange(11)])]
    stream += number(70000)
    expected = expected_numbers(stream)
    assert len(expected) > 100
    at = 0
    while at < len(stream):
        size = rng.choice([1, 5, 10, 11, 12, 100, 700])
        line.write(stream[at:at + size])
        if rng.random() < 0.3:
            line.pause()
        at += size
    await line.hears(*expected)


async def test_a_frame_whose_conversion_throws_costs_only_itself(line):
    await load(line.client, {"n": counter_leaf(), "x": {"@mac": 1, "@cmd": 1, "@format": THROWING_FORMAT}})
    throwing = vek.record(1, 1, b"")
    # All in one read, the last frame behind a throwing one: nothing may wait for more bytes.
    line.write(number(1) + throwing + throwing + number(2) + throwing + number(3))
    await line.hears(1, 2, 3)
    assert line.failures() == 3
    line.write(throwing)
    await eventually(lambda: line.failures() == 4)
    line.write(number(4))
    await line.hears(4)


async def test_unknown_endpoints_and_short_payloads_are_silent(line):
    before = line.daemon.lines()
    line.write(vek.record(5, 3, counted(1)) + vek.record(5, 2, b"abc") + number(2))
    await line.hears(2)
    assert line.daemon.lines() == before


async def test_with_nobody_there_frames_are_dropped(line):
    await line.client.close()
    line.write(number(1))
    line.pause()
    async with connect() as late:
        await receive(late)
        assert await no_value(late)
        line.write(number(2))
        assert await next_value(late) == {"n": 2}
