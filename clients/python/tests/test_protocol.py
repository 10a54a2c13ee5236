"""docs/protocol.md, held against the daemon: its examples are run, its tables are compared with what comes."""

import asyncio
import json
import re
import subprocess
import sys

import msgpack
import pytest

from bridges import PROJECT
from harness import connect, eventually, receive, round_trip
from vorbelsim import CanFrame
from vorbel import wire

PAGE = (PROJECT / "docs" / "protocol.md").read_text()
SENTENCES = " ".join(PAGE.split())
DEPLOYMENT = (PROJECT / "docs" / "deployment.md").read_text()


def section(title, page=PAGE):
    return re.search(rf"^#+ {re.escape(title)}\n(.*?)(?=^#+ |\Z)", page, re.M | re.S)[1]


def rows(title, page=PAGE):
    """The cells of the tables of a section, without the heads."""
    lines = [line for line in section(title, page).splitlines() if line.startswith("|")]
    table = [[cell.strip() for cell in line.strip("|").split("|")] for line in lines]
    return [cells for cells in table if not set(cells[0]) <= set("- ")][1:]


def value_of(text):
    return None if text == "nil" else json.loads(text)


@pytest.mark.parametrize("value, message", rows("Numbers"))
async def test_numbers(bridge, value, message):
    """Each is sent by the daemon for a frame that holds it, read in some format."""
    value, width = value_of(value), {"5": "C", "200": "C", "600": "S", "4294967295": "I", "1.0": "f"}.get(value, "i")
    schema = {"@mac": 1, "@cmd": 1, "@format": width, "@asBool": isinstance(value, bool)}
    payload = {"C": lambda: bytes([value]), "f": lambda: bytes.fromhex("0000803f")}.get(
        width, lambda: int(value).to_bytes({"S": 2}.get(width, 4), "little", signed=value < 0))()
    async with connect() as client:
        await receive(client)
        await client.send(json.dumps(schema))
        await round_trip(client)
        bridge.say(1, 1, payload.hex())
        assert (await receive(client)).hex(" ") == message.strip("`")


@pytest.mark.parametrize("extension, _, message, elements", rows("Arrays"))
def test_arrays(extension, _, message, elements):
    message = bytes.fromhex(message.strip("`"))
    assert list(wire.decode(message)) == json.loads(f"[{elements}]")
    assert msgpack.unpackb(message).code == int(extension)


async def test_written_values(bridge):
    table = rows("Values to the daemon")
    leaves = {str(at): {"@mac": 1, "@cmd": 1, "@format": code.strip("`"), "@factor": float(factor)}
              for at, (code, factor, *_) in enumerate(table)}
    async with connect() as client:
        await receive(client)
        await client.send(json.dumps(leaves))
        for at, (_, _, value, payload, _) in enumerate(table):
            await client.send(msgpack.packb({str(at): value_of(value)}))
            await round_trip(client)
            expected = [(1, 1, payload.strip("`"))] if payload else []
            assert bridge.heard(1, 5 if payload else 0.1) == expected, table[at]


async def test_one_minute(bridge):
    text = section("In one minute")
    codes = re.findall(r"`([^`]+)`", text)
    hello, schema, payload, message, written, frame = codes[1], codes[2], codes[3], codes[5], codes[6], codes[7]
    async with connect() as client:
        assert await receive(client) == hello
        await client.send(schema)
        await round_trip(client)
        bridge.say(5, 2, payload)
        received = await receive(client)
        assert received.hex(" ") == message
        assert msgpack.unpackb(received) == json.loads(codes[4])
        await client.send(msgpack.packb(json.loads(written)))
        assert bridge.heard() == [(5, 3, frame)]


async def test_the_message_with_a_gap(bridge):
    gap = re.search(r"comes as `([0-9a-f ]+)`", section("Messages that cannot be decoded"))[1]
    async with connect() as client:
        await receive(client)
        leaf = {"@mac": 1, "@cmd": 1, "@format": "c"}
        await client.send(json.dumps({"a": {**leaf, "@flushSize": 1}, "b": {**leaf, "@skip": 1}}))
        await round_trip(client)
        bridge.say(1, 1, "07 05")
        assert (await receive(client)).hex(" ") == gap


async def values_of(bridge, schema, *frames):
    """What comes for frames, (identifier, payload) each, up to the value of the leaf "end"."""
    async with connect() as client:
        await receive(client)
        await client.send(json.dumps({**schema, "end": {"@mac": 63, "@cmd": 31, "@format": "C"}}))
        await round_trip(client)
        for number, payload in frames:
            bridge.can.send(CanFrame(number, bytes.fromhex(payload), extended=number > 0x7FF))
        bridge.say(63, 31, "00")
        values = []
        while (value := msgpack.unpackb(await receive(client))) != {"end": 0}:
            values.append(value)
        return values


LEAF = {"@mac": 5, "@cmd": 2, "@format": "s"}
SAID_OF_READINGS = {
    "the lower 6 bits of the frame's identifier": (LEAF, [(0x85, "01 00")], [1]),
    "numbers up to 65535 match no frame": ({**LEAF, "@mac": 69}, [(0x85, "01 00")], []),
    "Of an extended identifier the lower 11 bits count": (LEAF, [(0x12345085, "01 00")], [1]),
    "below 0: none is ever sent": ({**LEAF, "@flushSize": -1}, [(0x85, "01 00")], []),
    "A leaf of another format, or of none, is neither read": ({**LEAF, "@format": "x"}, [(0x85, "01 00")], []),
    '(`"5"` is 5, 1 is true)': ({**LEAF, "@mac": "5", "@asBool": 1}, [(0x85, "01 00")], [True]),
    "counts as 0 or false if it cannot be": ({**LEAF, "@skip": [1], "@asBool": None}, [(0x85, "07 00")], [7]),
    "a frame too short for a leaf gives that leaf none": (LEAF, [(0x85, "01"), (0x85, "02 00")], [2]),
    "The first reading under a new schema counts as a change": (
        {**LEAF, "@observe": True}, [(0x85, "01 00"), (0x85, "01 00"), (0x85, "02 00")], [1, 2]),
}


@pytest.mark.parametrize("sentence, case", SAID_OF_READINGS.items(), ids=range(len(SAID_OF_READINGS)))
async def test_what_is_said_of_readings(bridge, sentence, case):
    assert sentence in SENTENCES
    leaf, frames, values = case
    assert await values_of(bridge, {"a": leaf}, *frames) == [{"a": value} for value in values]


SAID_OF_WRITING = {
    "lose their upper bits when written": ({"a": {**LEAF, "@mac": 69}}, {"a": 1}, [(5, 2, "01 00")]),
    "any but -1 makes the leaf read-only": (
        {"a": {**LEAF, "@mask": -1}, "b": {**LEAF, "@mask": 1, "@skip": 2}}, {"a": 1, "b": 1}, [(5, 2, "01 00")]),
    "Any form of a number will do, also one of 64 bits": (
        {"a": LEAF, "b": {**LEAF, "@skip": 2}}, {"a": 2.0**33 + 1, "b": 2**33 + 2}, [(5, 2, "01 00 02 00")]),
    "and, without one, a number where the schema has a group": (
        {"a": {"x": LEAF}, "b": LEAF}, {"a": 5, "b": 1}, [(5, 2, "01 00")]),
    "Bytes before it that no value of this message covers are 0": (
        {"a": {**LEAF, "@skip": 2}}, {"a": 1}, [(5, 2, "00 00 01 00")]),
    "Frames go out in the order of commands, then of nodes": (
        {"a": {**LEAF, "@mac": 9, "@cmd": 1}, "b": LEAF, "c": {**LEAF, "@cmd": 1}}, {"a": 1, "b": 2, "c": 3},
        [(5, 1, "03 00"), (9, 1, "01 00"), (5, 2, "02 00")]),
}


@pytest.mark.parametrize("sentence, case", SAID_OF_WRITING.items(), ids=range(len(SAID_OF_WRITING)))
async def test_what_is_said_of_writing(bridge, sentence, case):
    assert sentence in SENTENCES
    schema, values, frames = case
    async with connect() as client:
        await receive(client)
        await client.send(json.dumps(schema))
        await client.send(msgpack.packb(values))
        await round_trip(client)
        assert bridge.heard(len(frames)) == frames


async def test_packed_example(bridge):
    packed = re.search(r"makes `([0-9a-f ]+)`", section("Values to the daemon"))[1]
    async with connect() as client:
        await receive(client)
        await client.send('{"config": {"@mac": 1, "@cmd": 1, "@format": "p", "@fragmentation": true}}')
        await client.send(msgpack.packb({"config": 1}))
        frames = bridge.heard(2)
        assert " ".join(payload for _, _, payload in frames) == packed


TOO_DEEP = b"\x91" * 10001 + b"\x01"
REPEATING = b"\x94\xc5\x9c\x40" + bytes(40000) + b"\xd4\x11\x00" * 3


async def test_log_lines(bridge):
    """Every line of the table of what clients cause is provoked, but what is dropped: other tests do that."""
    lines = {(level, line.strip("`")) for level, line, _ in rows("Clients and what they send", DEPLOYMENT)}
    lines = {line for line in lines if not re.search("^Dropping|drops", line[1])}
    async with connect() as client:
        await receive(client)
        await client.send('{"a": {"@mac": 1, "@cmd": 1, "@format": "C"}}')
        many_unknown = {f"unknown {i}": 1 for i in range(5000)}
        for message in ({"a": 7}, {"b": 1}, [], {"a": msgpack.ExtType(17, b"")}, many_unknown):
            await client.send(msgpack.packb(message))
        for message in (TOO_DEEP, REPEATING):
            await client.send(message)
        leaf = {"@mac": 1, "@cmd": 1, "@format": "s"}
        far = {"@format": "s", "@skip": 65534}
        await client.send(json.dumps({
            "r": {**leaf, "@asBool": True}, "z": {**leaf, "@skip": -1}, "k": {**leaf, "@factor": 100},
            "long": {**leaf, "@skip": 7}, "c": {**leaf, "@cmd": 2, "@format": "c", "@flushSize": 1},
            "x": {**far, "@mac": 1, "@cmd": 4},
            **{f"far {i}": {**far, "@mac": i, "@cmd": 3} for i in range(64)}}))
        for message in ({"r": 1}, {"z": 1}, {"k": 400}, {"long": 1}, {**{f"far {i}": 1 for i in range(64)}, "x": 1}):
            await client.send(msgpack.packb(message))
        await round_trip(client)
        bridge.say(1, 2, "00")
        await receive(client)
    await eventually(lambda: bridge.daemon.count("info Connection closed .*"))
    logged = {re.sub(r"(pack type:) \d+", r"\1 1038", line) for line in bridge.daemon.lines()}
    assert {f"{level} {line}" for level, line in lines} - logged == set()


@pytest.mark.parametrize("depth, taken", [(1024, True), (1025, False)])
async def test_schema_depth(bridge, depth, taken):
    assert "any depth up to 1024" in PAGE
    async with connect() as client:
        await receive(client)
        await client.send('{"a":' * (depth - 1) + "{}" + "}" * (depth - 1))
        await round_trip(client)
        assert bridge.daemon.count(r"info Received schema: QJsonDocument\(\)") == (not taken)


async def test_the_complete_client(bridge, tmp_path):
    program = tmp_path / "client.py"
    program.write_text(re.search(r"```python\n(.*?)```", section("A complete client"), re.S)[1])
    running = subprocess.Popen([sys.executable, "-u", program], stdout=subprocess.PIPE, text=True)
    try:
        assert running.stdout.readline() == "{'type': 'unknown'}\n"
        assert await asyncio.to_thread(bridge.heard) == [(5, 3, "b0 04")]
        bridge.say(5, 2, "58 02", "ff ff")
        assert running.stdout.readline() == "{'motor': {'speed': array('h', [600, -1])}}\n"
    finally:
        running.kill()
        running.communicate()
