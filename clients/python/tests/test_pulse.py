"""What a client does when the daemon, or the way to it, falls silent."""

import asyncio
import base64
import contextlib
import hashlib
import time

import pytest

import harness
import vorbel
from bridges import link_down
from vorbel import ConnectError, Disconnected, Hello, pulse

SETPOINT = {"setpoint": {"@mac": 5, "@cmd": 3, "@format": "s"}}


@pytest.fixture
def fast(monkeypatch):
    """Ten questions a second."""
    monkeypatch.setattr(pulse, "INTERVAL", 0.1)


def connect(**options):
    return vorbel.connect("127.0.0.1", pauses=(0.05, 0.5), **options)


async def until(kind, events):
    async with asyncio.timeout(20):
        async for event in events:
            if isinstance(event, kind):
                return event


async def test_no_order_is_delivered_when_the_link_is_back(bridge, fast):
    async with connect(schema=SETPOINT) as client:
        events = client.events()
        await client.set("setpoint", 1)
        await client.confirmed()
        with link_down():
            await client.set("setpoint", 2)  # nothing has been noticed yet
            with pytest.raises(ConnectError, match=r"^Not written: ws://127\.0\.0\.1:10443 has not answered for 2 s$"):
                while True:
                    await client.set("setpoint", 3)
                    await asyncio.sleep(0.05)
            assert (await until(Disconnected, events)).reason == "the daemon has not answered for 5 s"
            with pytest.raises(ConnectError, match=r"^Not written: there is no connection to ws://127\.0\.0\.1:10443: "
                                                   "the daemon has not answered for 5 s$"):
                await client.set("setpoint", 4)
            await asyncio.sleep(1)  # so that the kernel tries to deliver before the daemon says anything
        await until(Hello, events)
        await client.connected()
        await client.set("setpoint", 5)
        await client.confirmed()
        assert bridge.heard(2) == [(5, 3, "01 00"), (5, 3, "05 00")]
        assert bridge.heard(timeout=3) == []  # the kernel has tried again by then, if it still does


async def test_a_link_that_takes_no_ping_either_is_given_up(bridge, fast):
    async with connect() as client:
        events = client.events()
        with link_down():
            writing = asyncio.create_task(client.write({"a": "x" * 4_000_000}))
            await until(Disconnected, events)
            with pytest.raises(ConnectError, match="nothing says whether the message arrived"):
                await writing


async def test_nothing_waits_for_the_connection_to_come_back(bridge):
    async with connect(schema=SETPOINT) as client:
        events = client.events()
        bridge.stop()
        await until(Disconnected, events)
        with pytest.raises(ConnectError, match="^Not written: there is no connection to ws://127.0.0.1:10443: "):
            await client.set("setpoint", 3)
        await asyncio.to_thread(bridge.start)
        await until(Hello, events)
        await client.confirmed()
        assert bridge.heard(timeout=0.5) == []


async def test_an_idle_connection_is_kept(bridge, fast):
    async with connect() as client:
        events = client.events(1.5)
        assert [type(event) async for event in events] == [Hello]


async def test_a_program_that_is_busy_itself_keeps_its_connection(bridge, fast):
    async with connect(schema=SETPOINT) as client:
        for _ in range(3):
            time.sleep(1.5)
            await asyncio.sleep(0)
        await client.set("setpoint", 1)
        assert [type(event) async for event in client.events(0.5)] == [Hello]
        assert bridge.heard() == [(5, 3, "01 00")]


async def test_values_are_an_answer_too(fast):
    """A daemon whose answers to pings are queued behind many values."""
    ended = asyncio.Event()

    async def serve(reader, writer):
        request = await reader.readuntil(b"\r\n\r\n")
        (key,) = (line.split(b": ")[1] for line in request.split(b"\r\n") if line.startswith(b"Sec-WebSocket-Key"))
        accept = base64.b64encode(hashlib.sha1(key + b"258EAFA5-E914-47DA-95CA-C5AB0DC85B11").digest())
        writer.write(b"HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                     b"Sec-WebSocket-Accept: " + accept + b"\r\n\r\n")
        hello = b'{"hello":{"type":"unknown"}}'
        writer.write(bytes([0x81, len(hello)]) + hello)
        with contextlib.suppress(ConnectionError):
            while True:
                writer.write(bytes([0x82, 4]) + b"\x81\xa1a\x01")
                await writer.drain()
                await asyncio.sleep(0.05)
        ended.set()

    async with await asyncio.start_server(serve, "127.0.0.1", harness.PORT):
        async with connect() as client:
            assert not [event async for event in client.events(1.5) if isinstance(event, Disconnected)]
            await client.write({"a": 1})
        await ended.wait()
