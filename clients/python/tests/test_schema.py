"""The words about schemas and values before they are sent. What is said at all, test_conformance.py holds."""

import decimal
import fractions
import json
import numbers

import numpy
import pytest

from bridges import MACHINE
from vorbel import SchemaError, WriteError, check, load_schema
from vorbel.schema import parse, to_text
from vorbel.writing import prepare


def leaf(**options):
    return {"@mac": 5, "@cmd": 2, "@format": "s", **{f"@{name}": value for name, value in options.items()}}


def said(schema):
    return [str(problem) for problem in check(schema)]


# Happy


def test_the_machine_of_the_examples_is_in_order():
    assert check(load_schema(MACHINE)) == []


# Rainy


ERRORS = {
    "unknown option": (
        {"motor": {"speed": leaf(fator=10)}},
        'motor.speed: "@fator" is no option (did you mean "@factor"?); the daemon ignores it'),
    "unknown option like no other": ({"a": leaf(unit="rpm")}, 'a: "@unit" is no option; the daemon ignores it'),
    "option in another case": (
        {"a": leaf(flushsize=2)}, 'a: "@flushsize" is no option (did you mean "@flushSize"?); the daemon ignores it'),
    "options without mac": (
        {"a": {"@cmd": 1, "@format": "s"}, "b": leaf()},
        'a: has "@cmd", "@format" but no "@mac": without it this is no leaf, and its options are ignored'),
    "a leaf without any sign": (
        {"a": {"mac": 1, "cmd": 1, "format": "s"}, "b": leaf()},
        'a: has "mac", "cmd", "format" but no "@mac": the names of options begin with "@"'),
    "text for a number": ({"a": leaf(skip="2")}, 'a: "@skip" is "2": it must be a whole number'),
    "fraction for a whole number": ({"a": leaf(mac=1.5)}, 'a: "@mac" is 1.5: it must be a whole number'),
    "bool for a number": ({"a": leaf(factor=True)}, 'a: "@factor" is true: it must be a number'),
    "number for a bool": ({"a": leaf(asBool=1)}, 'a: "@asBool" is 1: it must be true or false'),
    "number for a text": ({"a": leaf(format=5)}, 'a: "@format" is 5: it must be a text'),
    "null": ({"a": leaf(mask=None)}, 'a: "@mask" is null: it must be a whole number'),
    "node that no header can carry": ({"a": leaf(mac=64)}, 'a: "@mac" is 64: it must be from 0 to 63'),
    "command that no header can carry": ({"a": leaf(cmd=32)}, 'a: "@cmd" is 32: it must be from 0 to 31'),
    "negative offset": ({"a": leaf(skip=-1)}, 'a: "@skip" is -1: it must be from 0 to 65535'),
    "negative flush size": ({"a": leaf(flushSize=-1)}, 'a: "@flushSize" is -1: it must be from 0 to 2147483647'),
    "no format": (
        {"a": {"@mac": 1, "@cmd": 1}}, 'a: "@format" is missing: the daemon neither reads nor writes such a leaf'),
    "no leaf": ({"a": {}}, 'the root: has no leaf, that is, no object with "@mac": the daemon would forget all values, '
                           "for all its clients"),
    "unknown format": (
        {"a": leaf(format="d")},
        'a: "@format" is "d": it must be one of C c S s Q q I i f p; the daemon neither reads nor writes any other'),
    "factor 0": ({"a": leaf(factor=0)}, 'a: "@factor" is 0: readings are divided by it in single precision'),
    "factor that is 0 in single precision": (
        {"a": leaf(factor=1e-50)}, 'a: "@factor" is 1e-50: readings are divided by it in single precision'),
    "beyond any float": ({"a": leaf(skip=10**400)}, f'a: "@skip" is 1{36 * "0"}...: it must be a whole number'),
    "name that a terminal would obey": ({"a\x1b[2J": leaf(mac=64)},
                                        'a\\x1b[2J: "@mac" is 64: it must be from 0 to 63'),
    "array of c": (
        {"a": leaf(format="c", flushSize=4)},
        'a: "c" with "@flushSize" makes every message that carries it unreadable for all clients: '
        'use "C", which reads the same'),
    "beyond any frame": (
        {"a": leaf(skip=63)},
        'a: needs 65 bytes: no frame is that long, and it is not written without "@fragmentation"'),
}


@pytest.mark.parametrize("schema, message", ERRORS.values(), ids=ERRORS)
def test_errors(schema, message):
    assert said(schema) == [message]
    assert check(schema)[0].is_error


WARNINGS = {
    "no command": ({"a": {"@mac": 1, "@format": "s"}}, 'a: warning: "@cmd" is missing, which counts as 0'),
    "overlap": (
        {"motor": {"a": leaf(skip=0), "b": leaf(skip=1)}},
        "motor.b: warning: overlaps motor.a: both use byte 1 of mac 5, cmd 2; written together, one destroys the "
        "other"),
    "overlap of more bytes": (
        {"a": leaf(format="f", skip=2), "b": leaf(format="i", skip=4)},
        "b: warning: overlaps a: both use bytes 4 to 5 of mac 5, cmd 2; written together, one destroys the other"),
    "format of several characters": (
        {"a": leaf(format="float")}, 'a: warning: only the first character of "@format" counts: "float" is "f"'),
    "option without its sign": (
        {"a": {**leaf(), "skip": 2}}, 'a: warning: "skip" has no meaning for the daemon (did you mean "@skip"?)'),
    "observing what is gathered": (
        {"a": leaf(observe=True, flushSize=2)}, 'a: warning: "@observe" has no effect beside "@flushSize"'),
    "mask on a format without": (
        {"a": leaf(format="Q", mask=1)},
        'a: warning: "@mask" is not applied by the format "Q" and only makes the leaf read-only'),
    "only in CAN FD frames": (
        {"a": leaf(skip=7)},
        "a: warning: needs 9 bytes, a CAN frame has 8: it is read from CAN FD frames only, and written only with "
        '"@fragmentation": true'),
    "a flag out of a byte that is read too": (
        {"a": leaf(format="C"), "b": leaf(format="C", mask=128, asBool=True)},
        "b: warning: overlaps a: both use byte 0 of mac 5, cmd 2"),
    "leaf in a leaf": (
        {"a": {**leaf(), "b": leaf(cmd=3)}},
        "a: warning: holds further nodes inside of a leaf: their values and its own replace one another"),
    "fragments in one leaf only": (
        {"a": leaf(), "b": leaf(skip=2, fragmentation=True)},
        'b: warning: "@fragmentation" differs from that of a, also mac 5, cmd 2: in each message the first leaf by '
        "name decides for all"),
    "packed": (
        {"a": leaf(format="p", fragmentation=True)},
        'a: warning: "p" is only for writing: the daemon never reads a value of this format'),
}


@pytest.mark.parametrize("schema, message", WARNINGS.values(), ids=WARNINGS)
def test_warnings(schema, message):
    assert said(schema) == [message]
    assert not check(schema)[0].is_error


def test_all_mistakes_are_told_in_the_order_of_the_document():
    schema = {"z": leaf(skip="x", mac=99), "a": leaf(format="?")}
    assert [message.split(":")[0] for message in said(schema)] == ["z", "z", "a"]


def test_packed_values_have_no_place_and_no_scale():
    assert said({"a": leaf(format="p", skip=2, factor=3)})[1:] == [
        'a: warning: a packed value of more than 8 bytes is cut without "@fragmentation": true',
        'a: warning: "@skip" has no effect on "p"',
        'a: warning: "@factor" has no effect on "p"']


FILES = {
    "not JSON": ('{"a": \n 1,}', "the root: is no JSON: line 2, column 4: "),
    "not an object": ("[1]", "the root: is no JSON object: the daemon would take it for an empty schema"),
    "a name twice": ('{"a": {"b": 1, "b": 2}}', "a.b: is there twice; only the last one would count"),
    "not a number": ('{"a": NaN}', "the root: is no JSON: NaN is no number of JSON"),
    "nested without end": ('{"a":' * 100_000, "the root: is nested too deep to be read"),
}


@pytest.mark.parametrize("text, message", FILES.values(), ids=FILES)
def test_files_that_are_no_schema(schema_file, text, message):
    path = schema_file(text)
    with pytest.raises(SchemaError) as raised:
        load_schema(path)
    assert str(path) in str(raised.value) and message in str(raised.value)


def test_file_that_begins_with_a_byte_order_mark(tmp_path):
    (tmp_path / "marked.json").write_text('{"a": 1}', encoding="utf-8-sig")
    assert load_schema(tmp_path / "marked.json") == {"a": 1}


def test_missing_file(tmp_path):
    with pytest.raises(SchemaError, match="none.json cannot be read: No such file or directory$"):
        load_schema(tmp_path / "none.json")


def test_text_is_compact_and_keeps_its_characters():
    assert to_text(parse('{ "ü": {"@mac": 1} }')[0]) == '{"ü":{"@mac":1}}'


def test_larger_than_the_daemon_takes():
    assert len(to_text({"a": "x" * (4 * 1024 * 1024 - 8)})) == 4 * 1024 * 1024
    with pytest.raises(SchemaError, match="4194305 bytes"):
        to_text({"a": "x" * (4 * 1024 * 1024 - 7)})


# Values to write


WRITABLE = {"c": leaf(format="C"), "s": leaf(skip=1), "i": leaf(format="i", skip=3), "f": leaf(format="f", cmd=3),
            "scaled": leaf(format="S", cmd=4, factor=100), "flag": leaf(format="C", cmd=5, asBool=True),
            "masked": leaf(format="C", cmd=6, mask=3), "packed": leaf(format="p", cmd=7), "group": {"x": leaf(cmd=8)},
            "odd": leaf(format="d", cmd=9), "none": {"@mac": 1}, "thousandth": leaf(format="i", cmd=10, factor=1000)}


WRITTEN = [
    ("s", 1200, "raw 1200"), ("s", 1.6, "raw 2, which is 2"), ("scaled", 0.53, "raw 53"),
    ("scaled", 0.534, "raw 53, which is 0.53"), ("f", 0.1, "raw 0.1"),
    ("f", 16777217, "raw 16777216, which is 16777216"),
    ("thousandth", 2000000.001, "raw 2000000000, which is 2000000 instead of 2000000001, which the daemon's single "
                                "precision does not reach"),
]


@pytest.mark.parametrize("name, value, text", WRITTEN)
def test_what_is_written_is_said(name, value, text):
    written, = prepare(WRITABLE, {name: value}).written
    assert str(written) == text


REFUSED = {
    "beyond the bytes": ({"c": 256}, "c: 256 is outside of -128 to 255"),
    "below them": ({"s": -32769}, "s: -32769 is outside of -32768 to 65535"),
    "beyond with the factor": (
        {"scaled": 400}, "scaled: 400 times the factor 100 is 40000, which is outside of -32768 to 32767"),
    "read-only by asBool": ({"flag": 1}, 'flag: is read-only, because its schema has "@asBool"'),
    "read-only by mask": ({"masked": 1}, 'masked: is read-only, because its schema has "@mask"'),
    "unknown": ({"nosuch": 1}, "nosuch: does not exist in the schema"),
    "a value for a group": ({"group": 1}, 'group: is a group of values, not a value: "x"'),
    "text": ({"c": "12"}, 'c: takes a number, not "12"'),
    "list": ({"c": [1]}, "c: takes a number, not [1]"),
    "group for a value": ({"c": {"x": 1}}, 'c: takes a number, not {"x": 1}'),
    "no number": ({"c": float("nan")}, "c: takes a number, not NaN"),
    "beyond any float": ({"c": 10**400}, "c: Infinity is outside of -128 to 255"),
    "beyond any float, scaled": (
        {"scaled": -10**400}, "scaled: -Infinity times the factor 100 is -inf, which is outside of -32768 to 32767"),
    "beyond single precision": ({"f": 1e39}, "f: 1e+39 is outside of -3.4028235e+38 to 3.4028235e+38"),
    "format that writes nothing": ({"odd": 1}, 'odd: has the format "d", which cannot be written'),
    "no format": ({"none": 1}, 'none: has no "@format" and cannot be written'),
    "two": ({"c": 256, "group": {"y": 1}}, "c: 256 is outside of -128 to 255; group.y: does not exist in the schema"),
}


@pytest.mark.parametrize("values, message", REFUSED.values(), ids=REFUSED)
def test_values_that_are_refused(values, message):
    with pytest.raises(WriteError) as raised:
        prepare(WRITABLE, values)
    assert str(raised.value) == f"Not written: {message}"


def test_the_root_is_no_place_for_a_value():
    with pytest.raises(WriteError, match="the root: values are written as a map from names, not as a value of its own"):
        prepare(leaf(), 5)


@pytest.mark.parametrize("number", [fractions.Fraction(53, 100), decimal.Decimal("0.53")], ids=["fraction", "decimal"])
def test_numbers_of_the_standard_library(number):
    if isinstance(number, numbers.Real):
        assert prepare(WRITABLE, {"scaled": number}).written[0].raw == 53
    else:
        with pytest.raises(WriteError, match="takes a number"):
            prepare(WRITABLE, {"scaled": number})


def test_numbers_of_numpy_are_numbers_and_its_truths_are_none():
    assert prepare(WRITABLE, {"s": numpy.int16(-2), "scaled": numpy.float32(0.53)}).values["s"] == -2
    with pytest.raises(WriteError, match="takes a number"):
        prepare(WRITABLE, {"s": numpy.bool_(True)})


def test_checks_leave_the_schema_alone():
    schema = load_schema(MACHINE)
    before = json.dumps(schema)
    check(schema)
    prepare(schema, {"motor": {"setpoint": 1}})
    assert json.dumps(schema) == before
