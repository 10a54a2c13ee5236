"""Scaled values on their way through the daemon's conversion, in numbers that are too large for the running daemon."""

import json
import random
import struct
import subprocess

import pytest

from harness import BUILD
from vorbel import schema as schemas, wire, writing
from vorbel.single import single

CONVERTER = BUILD / "clients" / "conformance" / "vorbel_converter"
FACTORS = (1e-6, 1e-4, 0.001, 0.0054931640625, 0.01, 0.1, 0.3, 1 / 3, 0.7, 0.9999999, 1.0000001, 1.5, 3, 7, 10, 12.5,
           100, 182.04, 360, 1000, 10000, 123456.789, 1e6, -0.1, -100)


def schema_of(code):
    """A leaf for each factor, in the order of their frames."""
    return {f"{at:02}": {"@mac": at, "@cmd": 1, "@format": code, "@factor": factor}
            for at, factor in enumerate(FACTORS)}


def converted(schema, messages):
    """The payloads that messages become, one after the other."""
    packed = [wire.encode(message) for message in messages]
    data = b"".join(struct.pack("<I", len(message)) + message for message in packed)
    out = subprocess.run([CONVERTER, json.dumps(schema)], input=data, stdout=subprocess.PIPE, check=True).stdout
    size = out[0]
    assert len(out) % (1 + size) == 0
    return [out[at + 1:at + 1 + size] for at in range(0, len(out), 1 + size)]


@pytest.mark.parametrize("code, bits", [("S", 16), ("c", 8)])
def test_every_raw_number_can_be_written_with_every_factor(code, bits):
    schema = schema_of(code)
    raws = range(-(1 << bits - 1), 1 << bits - 1)
    messages = []
    for raw in raws:
        message = writing.prepare(schema, {name: raw / leaf["@factor"] for name, leaf in schema.items()})
        assert {each.raw for each in message.written} == {raw} == {each.nearest for each in message.written}
        messages.append(message.values)
    expected = [raw.to_bytes(bits // 8, "little", signed=True) for raw in raws for _ in FACTORS]
    assert converted(schema, messages) == expected


@pytest.mark.parametrize("code, layout", [("i", "<i"), ("f", "<f")])
def test_larger_ones_as_near_as_single_precision_comes(code, layout):
    """What is told is what stands in the payload, and none of many neighbours would have come nearer."""
    schema = schema_of(code)
    chance = random.Random(1)
    messages, told = [], []
    for _ in range(500):
        raw = chance.randrange(-(2**31), 2**31) >> chance.randrange(24)
        message = writing.prepare(schema, {name: raw / leaf["@factor"] for name, leaf in schema.items()})
        messages.append(message.values)
        told += [each.raw for each in message.written]
        for each in message.written:
            assert abs(each.nearest - raw) <= 1
            if abs(raw) < 2**23:
                assert each.raw == each.nearest
            reached = [writing.raw_written(each.leaf, sent) for sent in neighbours(message.values[each.path], 6)]
            assert all(abs(other - each.nearest) >= abs(each.raw - each.nearest) for other in reached)
    payloads = converted(schema, messages)
    assert [struct.unpack(layout, payload)[0] for payload in payloads] == [
        raw if code == "i" else single(raw) for raw in told]


def neighbours(number, count):
    """The next numbers of single precision on both sides."""
    bits = struct.unpack("<i", struct.pack("<f", number))[0]
    return [struct.unpack("<f", struct.pack("<i", bits + step))[0] for step in range(-count, count + 1)
            if bits & 0x7FFFFFFF > count]


def test_the_two_decimals_that_were_one_too_low():
    """0.00 to 9.99 at factor 100, as the values stand: the daemon makes 62 of them too small, the client none."""
    schema = {"a": {"@mac": 1, "@cmd": 1, "@format": "s", "@factor": 100}}
    values = [float(f"{raw // 100}.{raw % 100:02}") for raw in range(1000)]
    as_they_are = converted(schema, [{"a": value} for value in values])
    prepared = converted(schema, [writing.prepare(schema, {"a": value}).values for value in values])
    assert sum(payload != raw.to_bytes(2, "little") for raw, payload in enumerate(as_they_are)) == 62
    assert [int.from_bytes(payload, "little") for payload in prepared] == list(range(1000))


def test_leaves_are_scaled_as_the_daemon_compares():
    assert not schemas.leaf_of((), {"@factor": 1.00000001}).is_scaled
    assert schemas.leaf_of((), {"@factor": 1.0000001}).is_scaled
