"""The library against the daemon."""

import asyncio
import logging

import pytest

import harness
import vorbel
from bridges import MACHINE
from vorbel import Disconnected, Hello, Undecodable, Values, wire

SPEED = {"@mac": 5, "@cmd": 2, "@format": "s"}
MOTOR = {"motor": {"speed": SPEED, "current": {**SPEED, "@format": "S", "@skip": 2, "@factor": 100},
                   "setpoint": {"@mac": 5, "@cmd": 3, "@format": "s"}}}


def connect(**options):
    return vorbel.connect("127.0.0.1", pauses=(0.05, 0.5), **options)


async def next_of(kind, events, timeout=10):
    async def search():
        async for event in events:
            if isinstance(event, kind):
                return event
    return await asyncio.wait_for(search(), timeout)


# Happy


async def test_hello(bridge):
    bridge.stop()
    bridge.start(VORBEL_DEVICE_TYPE="gateway", VORBEL_DEVICE_ID="A7")
    async with connect() as client:
        assert client.hello == Hello("gateway", "A7")
        assert await next_of(Hello, client.events()) == client.hello


async def test_nested_values(bridge):
    async with connect(schema=MOTOR) as client:
        await client.confirmed()
        bridge.say(5, 2, "58 02 90 01")
        assert await anext(client.values()) == {"motor": {"speed": 600, "current": 4.0}}


async def test_flat_values(bridge):
    async with connect(schema=MOTOR) as client:
        await client.confirmed()
        bridge.say(5, 2, "ff ff 90 01")
        assert await anext(client.values(flat=True)) == {"motor.speed": -1, "motor.current": 4.0}


ARRAYS = {
    "C": ("00 7f ff", "B", [0, 127, 255]),
    "S": ("0000 0201 ffff", "H", [0, 0x102, 65535]),
    "Q": ("0000 0201 ffff", "H", [0, 0x102, 65535]),
    "s": ("0000 0201 ffff", "h", [0, 0x102, -1]),
    "q": ("0000 0201 ffff", "h", [0, 0x102, -1]),
    "I": ("00000000 01020304 ffffffff", "I", [0, 0x4030201, 4294967295]),
    "i": ("00000000 01020304 ffffffff", "i", [0, 0x4030201, -1]),
    "f": ("00000000 0000803f 000080ff", "f", [0.0, 1.0, -float("inf")]),
}


@pytest.mark.parametrize("code, readings", ARRAYS.items(), ids=ARRAYS)
async def test_readings_gathered_in_arrays(bridge, monkeypatch, code, readings):
    monkeypatch.setattr(wire, "numpy", None)
    payloads, type_code, elements = readings
    async with connect(schema={"a": {"@mac": 1, "@cmd": 1, "@format": code, "@flushSize": 3}}) as client:
        await client.confirmed()
        bridge.say(1, 1, *payloads.split())
        value = (await anext(client.values()))["a"]
        assert (value.typecode, list(value)) == (type_code, elements)


async def test_connecting_without_a_block(bridge):
    client = await connect(schema=MOTOR)
    assert client.hello == Hello("unknown")
    assert (await client.set("motor.setpoint", 1200)).raw == 1200
    async with client as same:  # a block for a client that is connected closes it, and does not connect once more
        assert same is client
        await client.confirmed()
    assert bridge.heard() == [(5, 3, "b0 04")]
    await harness.eventually(lambda: bridge.daemon.count("info Connection closed .*"))
    assert bridge.daemon.count("info New connection incoming .*") == 1


async def test_what_was_never_connected_says_so():
    for attempt in (lambda client: client.connected(), lambda client: client.close(),
                    lambda client: client.set("a", 1)):
        with pytest.raises(vorbel.ConnectError, match="The client was not connected"):
            await attempt(connect())


async def test_what_went_out_is_told(bridge):
    async with connect(schema=MOTOR) as client:
        written = await client.write({"motor": {"setpoint": 2.6, "current": 0.53}})
        assert [(each.path, each.value, each.raw, each.is_rounded) for each in written] == [
            ("motor.setpoint", 2.6, 3, True), ("motor.current", 0.53, 53, False)]
        assert [each.reading for each in written] == [3, 0.53]
        assert bridge.heard(2) == [(5, 2, "00 00 35 00"), (5, 3, "03 00")]


async def test_a_name_with_a_dot_is_written_by_its_path_or_its_names(bridge):
    async with connect(schema={"1.5 V": MOTOR["motor"]["setpoint"]}) as client:
        await client.set("1\\.5 V", 1)
        await client.set(["1.5 V"], 2)
        assert bridge.heard(2) == [(5, 3, "01 00"), (5, 3, "02 00")]


async def test_clearing_the_schema_is_asked_for(bridge):
    async with connect(schema=MOTOR) as client:
        with pytest.raises(vorbel.SchemaError, match="has no leaf"):
            await client.send_schema({})
        assert await client.send_schema({}, clear=True) == []
        await client.confirmed()
        assert bridge.daemon.count(r"info Received schema: QJsonDocument\(\{\}\)") == 1


async def test_without_the_check_values_go_as_they_are(bridge):
    async with connect(schema=MOTOR, check=False) as client:
        assert await client.set("motor.current", 0.53) is None
        assert bridge.heard() == [(5, 2, "00 00 34 00")]


async def test_schema_from_a_file_and_later(bridge):
    async with connect() as client:
        assert await client.send_schema(MACHINE) == []
        await client.confirmed()
        bridge.say(12, 1, "01")
        assert await anext(client.values()) == {"door": {"open": True}}


async def test_written_values_become_frames(bridge):
    async with connect(schema=MOTOR) as client:
        await client.set("motor.setpoint", 1200)
        await client.write({"motor": {"speed": -2, "current": 1.5}})
        assert bridge.heard(2) == [(5, 3, "b0 04"), (5, 2, "fe ff 96 00")]


async def test_confirmed_means_that_the_frames_are_out(bridge):
    async with connect(schema=MOTOR) as client:
        for value in range(5):
            await client.set("motor.setpoint", value)
        await client.confirmed()
        assert len(bridge.heard(5, timeout=0.2)) == 5


async def test_without_a_schema_of_its_own_nothing_is_checked(bridge):
    async with connect(schema=MOTOR) as owner, connect() as other:
        await owner.confirmed()
        await other.set("motor.setpoint", 7)
        assert bridge.heard() == [(5, 3, "07 00")]


async def test_a_restarted_daemon_gets_the_schema_again(bridge):
    async with connect(schema=MOTOR) as client:
        events = client.events()
        bridge.stop()
        assert isinstance(await next_of(Disconnected, events), Disconnected)
        await asyncio.to_thread(bridge.start)
        await next_of(Hello, events)
        await client.confirmed()
        bridge.say(5, 2, "58 02 90 01")
        assert (await next_of(Values, events)).flat() == {"motor.speed": 600, "motor.current": 4.0}


async def test_closing_is_seen_by_the_daemon_and_ends_the_events(bridge):
    async with connect() as client:
        pass
    assert [type(event) async for event in client.events()] == [Hello]
    await harness.eventually(lambda: bridge.daemon.count("info Connection closed .*"))


async def test_events_for_some_seconds(bridge):
    async with connect() as client:
        assert [type(event) async for event in client.events(0.2)] == [Hello]


async def test_a_round_on_either_link(either_bridge):
    """What a client sees does not depend on the link: hello, schema, values, arrays, written frames."""
    schema = {**MOTOR, "cells": {"@mac": 9, "@cmd": 1, "@format": "S", "@flushSize": 2, "@factor": 1000}}
    async with connect(schema=schema) as client:
        assert client.hello == Hello("unknown")
        await client.confirmed()
        either_bridge.say(5, 2, "58 02 90 01")
        either_bridge.say(9, 1, "6e 0f", "a0 0f")
        values = client.values()
        assert await anext(values) == {"motor": {"speed": 600, "current": 4.0}}
        assert [round(float(volts), 3) for volts in (await anext(values))["cells"]] == [3.95, 4.0]
        await client.set("motor.setpoint", 1200)
        await client.write({"motor": {"speed": -2, "current": 1.5}})
        assert either_bridge.heard(2) == [(5, 3, "b0 04"), (5, 2, "fe ff 96 00")]


async def test_a_restarted_daemon_on_either_link(either_bridge):
    async with connect(schema=MOTOR) as client:
        events = client.events()
        either_bridge.stop()
        await next_of(Disconnected, events)
        await asyncio.to_thread(either_bridge.start)
        await next_of(Hello, events)
        await client.confirmed()
        either_bridge.say(5, 2, "58 02 90 01")
        assert (await next_of(Values, events)).flat() == {"motor.speed": 600, "motor.current": 4.0}


async def test_pauses_grow_to_a_bound_and_differ_from_client_to_client(bridge):
    """Each is between half and all of 0.02 s, doubled each time up to 0.1 s."""
    options = {"pauses": (0.02, 0.1)}
    async with vorbel.connect("127.0.0.1", **options) as here, vorbel.connect("127.0.0.1", **options) as there:
        bridge.stop()
        both = []
        for events in (here.events(), there.events()):
            both.append([(await next_of(Disconnected, events)).retry_in for _ in range(8)])
    for pauses in both:
        bounds = [0.02, 0.04, 0.08] + 5 * [0.1]
        assert all(bound / 2 <= pause <= bound for pause, bound in zip(pauses, bounds))
    assert both[0] != both[1]


# Rainy


async def test_a_message_that_cannot_be_decoded_does_not_end_the_stream(bridge):
    schema = {"bad": {"@mac": 1, "@cmd": 1, "@format": "c", "@flushSize": 1}, "good": {**SPEED}}
    async with connect(schema=schema, check=False) as client:
        await client.confirmed()
        bridge.say(1, 1, "07")
        bridge.say(5, 2, "05 00")
        events = client.events()
        event = await next_of(Undecodable, events)
        assert event.message == bytes.fromhex("81 a3 62 61 64")
        assert str(event) == "cannot decode a message of 5 bytes (Unpack failed: incomplete input): 81 a3 62 61 64"
        assert (await next_of(Values, events)).data == {"good": 5}


async def test_values_go_on_behind_such_a_message_which_is_logged(bridge, caplog):
    schema = {"bad": {"@mac": 1, "@cmd": 1, "@format": "c", "@flushSize": 1}, "good": {**SPEED}}
    async with connect(schema=schema, check=False) as client:
        await client.confirmed()
        bridge.say(1, 1, "07")
        bridge.say(5, 2, "05 00")
        with caplog.at_level(logging.WARNING, "vorbel"):
            assert await anext(client.values()) == {"good": 5}
        assert "81 a3 62 61 64" in caplog.text


async def test_a_faulty_schema_is_not_sent(bridge):
    async with connect(schema=MOTOR) as client:
        await client.confirmed()
        with pytest.raises(vorbel.SchemaError, match="motor.speed: \"@factr\" is no option") as raised:
            await client.send_schema({"motor": {"speed": {**SPEED, "@factr": 2}}})
        assert [problem.path for problem in raised.value.problems] == ["motor.speed"]
        assert client.schema == MOTOR
        assert bridge.daemon.count(r"info Received schema: .*") == 1


async def test_a_value_that_would_be_ignored_is_not_sent(bridge):
    async with connect(schema=MOTOR) as client:
        with pytest.raises(vorbel.WriteError, match="motor.spede: does not exist in the schema"):
            await client.set("motor.spede", 1)
        await client.confirmed()
        assert bridge.daemon.count("warning Key: .*") == 0


@pytest.mark.parametrize("value, reason", [(2**64, "more than 64 bits"), ({1, 2}, "a set cannot be sent"),
                                           ("x" * (4 * 1024 * 1024), "no message of more than 4 MiB")],
                         ids=["too large a number", "no value", "too large a message"])
async def test_a_value_that_cannot_be_sent(bridge, value, reason):
    async with connect() as client:
        with pytest.raises(vorbel.WriteError, match=reason):
            await client.set("a", value)


async def test_no_daemon():
    with pytest.raises(vorbel.ConnectError, match="No daemon at ws://127.0.0.1:10443 within 0.3 s: Connection refused"):
        async with connect(timeout=0.3):
            pass


@pytest.mark.parametrize("address", ["", "host:port", "host:70000", "http://host", "ws://"])
def test_what_no_attempt_could_reach_is_told_at_once(address):
    with pytest.raises(vorbel.ConnectError, match="is no address of a daemon: "):
        vorbel.connect(address)


async def test_a_server_that_does_not_greet(monkeypatch):
    monkeypatch.setattr(vorbel.client, "HELLO_TIMEOUT", 0.1)
    async with harness.websockets.serve(lambda socket: socket.wait_closed(), "127.0.0.1", harness.PORT):
        with pytest.raises(vorbel.ConnectError, match="it does not answer in time"):
            async with connect(timeout=1):
                pass


async def test_values_nested_too_deep_to_be_handled_are_reported(bridge):
    schema = SPEED
    for _ in range(501):
        schema = {"n": schema}
    async with connect(schema=schema, check=False) as client:
        await client.confirmed()
        bridge.say(5, 2, "07 00")
        assert (await next_of(Undecodable, client.events())).reason == "nested more than 500 deep"


async def answering(answer):
    """A server on the daemon's port that says `answer` to everybody."""
    async def serve(reader, writer):
        await reader.readline()
        writer.write(answer)
        await writer.drain()
        writer.close()

    return await asyncio.start_server(serve, "127.0.0.1", harness.PORT)


async def test_something_else_on_the_port():
    async with await answering(b"HTTP/1.1 200 OK\r\nContent-Length: 0\r\n\r\n"):
        with pytest.raises(vorbel.ConnectError, match="something else than a Vorbel daemon answers"):
            async with connect(timeout=0.5):
                pass


async def test_another_websocket_server_on_the_port():
    async def greet(socket):
        await socket.send('{"welcome": 1}')
        await socket.wait_closed()

    async with harness.websockets.serve(greet, "127.0.0.1", harness.PORT):
        with pytest.raises(vorbel.ConnectError, match="no Vorbel daemon: it greets with"):
            async with connect(timeout=0.5):
                pass


async def test_a_consumer_that_falls_behind_loses_the_oldest(bridge, monkeypatch):
    monkeypatch.setattr(vorbel.client, "EVENTS_KEPT", 10)
    async with connect(schema={"a": {**SPEED}}) as client:
        await client.confirmed()
        for value in range(30):
            bridge.say(5, 2, f"{value:02x} 00")
        await harness.eventually(lambda: client.lost == 21, what="30 values and the hello in 10 places")
        kept = [event.data["a"] async for event in client.events(0.1)]
        assert kept == list(range(20, 30))
        assert len(bridge.daemon.lines()) and bridge.daemon.count("warning Dropping the client .*") == 0


@pytest.mark.parametrize("address, uri", [
    ("localhost", "ws://localhost:10443"), ("10.0.0.5:8080", "ws://10.0.0.5:8080"), ("[::1]", "ws://[::1]:10443"),
    ("::1", "ws://[::1]:10443"),
    ("[::1]:80", "ws://[::1]:80"), ("wss://plant.example/vorbel", "wss://plant.example/vorbel")])
def test_addresses(address, uri):
    assert vorbel.client.uri_of(address) == uri
