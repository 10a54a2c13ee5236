"""Binary messages, byte by byte."""

import array
import math

import numpy
import pytest

from vorbel import wire


@pytest.fixture(params=["array", "numpy"])
def flavour(request, monkeypatch):
    if request.param == "array":
        monkeypatch.setattr(wire, "numpy", None)
    return request.param


ARRAYS = {
    "17, signed bytes": ("c7 03 11 00 7f ff", "b", "int8", [0, 127, -1]),
    "18, bytes": ("c7 03 12 00 7f ff", "B", "uint8", [0, 127, 255]),
    "19, signed 16 bits": ("d6 13 ff ff 02 00", "h", "int16", [-1, 2]),
    "20, 16 bits": ("d6 14 01 00 01 02", "H", "uint16", [1, 513]),
    "21, signed 32 bits": ("d7 15 fe ff ff ff 00 00 00 80", "i", "int32", [-2, -2147483648]),
    "22, 32 bits": ("d6 16 ff ff ff ff", "I", "uint32", [4294967295]),
    "23, floats": ("d7 17 00 00 80 3f 00 00 80 ff", "f", "float32", [1.0, -math.inf]),
    "empty": ("c7 00 15", "i", "int32", []),
    "16 bytes": ("d8 14" + " 05 00" * 8, "H", "uint16", [5] * 8),
    "one byte": ("d4 12 09", "B", "uint8", [9]),
    "300 bytes": ("c8 01 2c 12" + " 07" * 300, "B", "uint8", [7] * 300),
}


@pytest.mark.parametrize("message, code, name, elements", ARRAYS.values(), ids=ARRAYS)
def test_arrays(flavour, message, code, name, elements):
    value = wire.decode(bytes.fromhex(message))
    assert wire.is_array(value)
    assert list(value) == elements
    if flavour == "array":
        assert isinstance(value, array.array) and value.typecode == code
    else:
        assert value.dtype == name and value.flags.writeable


def test_nested_values():
    message = bytes.fromhex("82 a1 61 82 a1 78 05 a1 79 ca 3f 80 00 00 a1 62 c3")
    assert wire.decode(message) == {"a": {"x": 5, "y": 1.0}, "b": True}


def test_other_extensions_are_handed_on():
    assert wire.decode(bytes.fromhex("d4 05 01")) == (5, b"\x01")


def test_written_bytes():
    message = bytes.fromhex("81 a5 6d 6f 74 6f 72 83 a1 61 ff a1 62 cb 3f f8 00 00 00 00 00 00 a1 63 c2")
    assert wire.encode({"motor": {"a": -1, "b": 1.5, "c": False}}) == message


def test_numbers_of_numpy_are_numbers():
    assert wire.encode({"a": numpy.int16(-1), "b": numpy.float32(0.5)}) == wire.encode({"a": -1, "b": 0.5})


# Rainy


CUT = {
    "array c alone": "81 a1 61",
    "array c before another value": "82 a1 61 a1 62 05",
    "array c before a group": "82 a1 61 a1 62 81 a1 63 05",
    "array c in a group": "82 a1 6d 82 a1 61 a1 62 01 a1 7a 02",
    "array c at the root": "",
    "two values": "01 02",
    "a byte that begins nothing": "c1",
}


@pytest.mark.parametrize("message", CUT.values(), ids=CUT)
def test_what_is_no_complete_value(message):
    with pytest.raises(ValueError):
        wire.decode(bytes.fromhex(message))


@pytest.mark.parametrize("head", ["81 a1 6e", "91"], ids=["maps", "arrays"])
def test_nesting_is_bounded(head):
    assert wire.decode(bytes.fromhex(500 * head + "05"))
    with pytest.raises(ValueError, match="nested more than 500 deep"):
        wire.decode(bytes.fromhex(501 * head + "05"))


def test_payload_that_is_no_whole_number_of_elements(flavour):
    with pytest.raises(ValueError):
        wire.decode(bytes.fromhex("c7 03 13 00 00 00"))


@pytest.mark.parametrize("value", [2**64, object(), [1, {2}]], ids=["too large", "an object", "a set in a list"])
def test_what_cannot_be_written(value):
    with pytest.raises(ValueError):
        wire.encode({"a": value})
