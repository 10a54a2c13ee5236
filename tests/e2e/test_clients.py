"""Greeting, the list of clients, and what a text or binary message does."""

import asyncio
import json
import socket
import struct

import pytest

import harness
from hardware import load
from harness import connect, eventually, receive, round_trip, silent
from vorbelsim import CanFrame

OPENED = r'info New connection incoming from QHostAddress\("::ffff:127\.0\.0\.1"\)'
CLOSED = r'info Connection closed QHostAddress\("::ffff:127\.0\.0\.1"\)'


def hello_line(document, device=""):
    return f'info Sending hello message QJsonDocument({document}) for device "{device}"'


# Happy


@pytest.mark.parametrize("environment, expected", [
    ({}, '{"hello":{"type":"unknown"}}'),
    ({"VORBEL_DEVICE_ID": " A7 ", "VORBEL_DEVICE_TYPE": "gateway"}, '{"hello":{"id":"A7","type":"gateway"}}'),
    ({"VORBEL_DEVICE_ID": "   "}, '{"hello":{"type":"unknown"}}'),
    ({"VORBEL_DEVICE_ID": ""}, '{"hello":{"type":"unknown"}}'),
    ({"VORBEL_DEVICE_TYPE": "   "}, '{"hello":{"type":""}}'),
    ({"VORBEL_DEVICE_TYPE": ""}, '{"hello":{"type":""}}'),
    ({"VORBEL_DEVICE_TYPE": "\t press 4\n", "VORBEL_DEVICE_ID": "\tK 1\n"}, '{"hello":{"id":"K 1","type":"press 4"}}'),
    ({"VORBEL_DEVICE_TYPE": 'a"b\\c'}, r'{"hello":{"type":"a\"b\\c"}}'),
    ({"VORBEL_DEVICE_TYPE": "Förderband"}, '{"hello":{"type":"Förderband"}}'),
], ids=["unset", "both, trimmed", "blank id", "empty id", "blank type", "empty type", "other white space",
        "characters that JSON escapes", "beyond ASCII"])
async def test_hello_text(start_daemon, environment, expected):
    daemon = start_daemon(VORBEL_SOURCE="none", **environment)
    async with connect() as client:
        assert await receive(client) == expected
        assert hello_line(expected) in daemon.lines()


async def test_every_client_is_greeted_again_with_each_new_one(daemon):
    async with connect() as first, connect() as second, connect() as third:
        for client, hellos in ((first, 3), (second, 2), (third, 1)):
            for _ in range(hellos):
                assert json.loads(await receive(client)) == {"hello": {"type": "unknown"}}
        for client in (first, second, third):
            assert await silent(client)


async def test_log_of_a_visit(daemon):
    async with connect() as client:
        await receive(client)
    await eventually(lambda: daemon.count(CLOSED))
    assert daemon.lines() == [
        'info New connection incoming from QHostAddress("::ffff:127.0.0.1")',
        hello_line('{"hello":{"type":"unknown"}}'),
        'info Connection closed QHostAddress("::ffff:127.0.0.1")',
    ]


async def test_a_text_is_logged_as_the_document_and_not_answered(daemon):
    async with connect() as client:
        await receive(client)
        await client.send('{ "b": {"@mac": 1},\n "a": 2 }')
        await round_trip(client)
        assert daemon.lines()[-1] == 'info Received schema: QJsonDocument({"a":2,"b":{"@mac":1}})'
        assert await silent(client)


async def test_server_name(daemon):
    async with connect() as client:
        assert client.response_headers["Server"] == "vorbel"


async def test_a_value_is_packed_again_for_every_client(start_daemon, bus):
    """The log tells: packing says each time what it leaves out, and an array of this format is left out."""
    daemon = start_daemon(**bus.env())
    bus.wait_connected()
    async with connect() as first, connect() as second, connect() as third:
        await load(first, {"x": {"@mac": 5, "@cmd": 2, "@format": "c", "@flushSize": 1}})
        bus.send(CanFrame.vek(5, 2, b"a"))
        messages = []
        for client in (first, second, third):
            while isinstance(message := await receive(client), str):
                pass
            messages.append(message)
        assert messages == [b"\x81\xa1x"] * 3
    assert daemon.count(r"warning MsgPack::pack can't pack type: \d+") == 3


async def test_without_a_link_binary_messages_are_ignored_without_unpacking(daemon):
    unknown_extension = b"\xd4\x11\x00"  # unpacking it would log a warning
    async with connect() as client:
        await receive(client)
        before = daemon.lines()
        await client.send(unknown_extension)
        await round_trip(client)
        assert await silent(client)
        assert daemon.lines() == before


async def test_without_a_can_device_binary_messages_are_dropped_without_a_log_line(start_daemon):
    # The device does not exist before the first tick.
    daemon = start_daemon(VORBEL_SOURCE="socketcan")
    async with connect() as client:
        await receive(client)
        before = daemon.lines()
        await client.send(b"\xd4\x11\x00")
        await round_trip(client)
        assert daemon.lines() == before


async def test_serial_supervision_greets_every_client_each_second(start_daemon):
    start_daemon()
    async with connect() as first, connect() as second:
        for client in (first, second):
            await receive(client)
        await receive(first)
        for _ in range(3):
            assert json.loads(await receive(first, 1.5)) == json.loads(await receive(second, 1.5))


# Rainy


@pytest.mark.parametrize("text", ["", "x", "{", '{"a":}', "nul", '{"a":1}{'],
                         ids=["empty", "word", "open brace", "no value", "cut word", "trailing brace"])
async def test_malformed_text_is_a_null_document(daemon, text):
    async with connect() as client:
        await receive(client)
        await client.send(text)
        await round_trip(client)
        assert daemon.lines()[-1] == "info Received schema: QJsonDocument()"


@pytest.mark.parametrize("text, shown", [("[]", "[]"), ("[1,2]", "[1,2]"), ("{}", "{}")])
async def test_other_documents_are_logged_as_they_are(daemon, text, shown):
    async with connect() as client:
        await receive(client)
        await client.send(text)
        await round_trip(client)
        assert daemon.lines()[-1] == f"info Received schema: QJsonDocument({shown})"


async def test_a_client_that_left_is_never_sent_anything(daemon):
    async with connect() as stays:
        await receive(stays)
        async with connect() as leaves:
            await receive(leaves)
            await receive(stays)
        await eventually(lambda: daemon.count(CLOSED) == 1)
        async with connect() as late:
            await receive(late)
            await receive(stays)
            assert await silent(stays, 0.2)
    await eventually(lambda: daemon.count(CLOSED) == 3)
    assert not [line for line in daemon.lines() if line.startswith("warning")]


async def test_a_client_that_breaks_off_is_forgotten(daemon):
    descriptors = daemon.descriptors()
    for _ in range(5):
        client = await connect()
        await receive(client)
        client.transport.abort()
    await eventually(lambda: daemon.count(CLOSED) == 5)
    await eventually(lambda: daemon.descriptors() == descriptors)


async def test_reset_during_the_greeting(daemon):
    """The connection is gone before the hello can be written."""
    for _ in range(20):
        reader, writer = await asyncio.open_connection("127.0.0.1", harness.PORT)
        writer.write(b"GET / HTTP/1.1\r\nHost: x\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                     b"Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n")
        sock = writer.get_extra_info("socket")
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        writer.transport.abort()
    async with connect() as client:
        await receive(client)
    await eventually(lambda: daemon.count(CLOSED) == daemon.count(OPENED))


async def test_not_a_websocket_client(daemon):
    for request in (b"GET / HTTP/1.1\r\nHost: x\r\n\r\n", b"\x16\x03\x01\x02\x00", b"\0" * 4096, b"\r\n\r\n"):
        reader, writer = await asyncio.open_connection("127.0.0.1", harness.PORT)
        writer.write(request)
        writer.close()
    async with connect() as client:
        await receive(client)


@pytest.mark.plain_build_only
async def test_many_visits_leave_nothing_behind(daemon):
    async def visits(count):
        before = daemon.count(CLOSED)
        for _ in range(count):
            async with connect() as client:
                await receive(client)
        await eventually(lambda: daemon.count(CLOSED) == before + count)
        return daemon.status("VmRSS")

    settled = await visits(100)
    assert await visits(1000) < settled + 2


async def test_two_hundred_clients_at_once(daemon):
    before = daemon.descriptors()
    clients = [await connect() for _ in range(200)]
    assert daemon.count(OPENED) == 200
    for position, client in enumerate(clients):
        for _ in range(200 - position):
            assert await receive(client) == '{"hello":{"type":"unknown"}}'
    await asyncio.gather(*(client.close() for client in clients))
    await eventually(lambda: daemon.count(CLOSED) == 200)
    await eventually(lambda: daemon.descriptors() == before)


async def test_a_value_that_is_no_map_costs_itself_and_nothing_else(start_daemon):
    """Sent in one go, so that all of them are buffered when the first is handled."""
    daemon = start_daemon(VORBEL_SOURCE="serialport")
    not_a_map = b"\x01"
    async with connect() as client:
        await receive(client)
        for message in (not_a_map, b"\x80", not_a_map, not_a_map, "{}", b"\x80"):
            await client.send(message)
        await round_trip(client)
        failures = "critical Input dropped, its conversion failed: Bad type"
        converted = "debug Converted size: 0"
        results = [line for line in daemon.lines() if line in (failures, converted) or "schema" in line]
        assert results == [failures, converted, failures, failures, "info Received schema: QJsonDocument({})",
                           converted]
    async with connect() as next_client:
        await receive(next_client)
