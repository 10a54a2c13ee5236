"""What is said about schemas and values before they are sent."""

import json

import pytest

from support import MACHINE
from vorbel import SchemaError, check, load_schema
from vorbel.schema import check_write, parse_schema, to_text


def leaf(**options):
    return {"@mac": 5, "@cmd": 2, "@format": "s", **{f"@{name}": value for name, value in options.items()}}


def said(schema):
    return [str(problem) for problem in check(schema)]


# Happy


def test_the_machine_of_the_examples_is_in_order():
    assert check(load_schema(MACHINE)) == []


GOOD = {
    "empty": {},
    "every option": {"a": leaf(skip=2, flushSize=3, factor=0.5, mask=255, asBool=False, fragmentation=False)},
    "leaf at the root": leaf(),
    "numbers written as 5.0": {"a": leaf(skip=2.0)},
    "side by side": {"a": leaf(skip=0), "b": leaf(skip=2), "c": leaf(format="i", skip=4)},
    "same bytes of other commands": {"a": leaf(), "b": leaf(cmd=3), "c": leaf(mac=6)},
    "bits of one byte": {"a": leaf(format="C", mask=1, asBool=True), "b": leaf(format="C", mask=6)},
    "remarks": {"unit": "rpm", "a": {**leaf(), "unit": "rpm", "note": ["x"]}},
    "behind the eighth byte, in fragments": {"a": leaf(format="i", skip=6, fragmentation=True)},
    "mask of the highest bit": {"a": leaf(format="I", mask=2**31)},
}


@pytest.mark.parametrize("schema", GOOD.values(), ids=GOOD)
def test_nothing_is_wrong_with(schema):
    assert said(schema) == []


# Rainy


ERRORS = {
    "unknown option": (
        {"motor": {"speed": leaf(fator=10)}},
        'motor.speed: "@fator" is no option (did you mean "@factor"?); the daemon ignores it'),
    "unknown option like no other": ({"a": leaf(unit="rpm")}, 'a: "@unit" is no option; the daemon ignores it'),
    "option in another case": (
        {"a": leaf(flushsize=2)}, 'a: "@flushsize" is no option (did you mean "@flushSize"?); the daemon ignores it'),
    "options without mac": (
        {"a": {"@cmd": 1, "@format": "s"}},
        'a: has "@cmd", "@format" but no "@mac": without it this is no leaf, and its options are ignored'),
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
    "no command": ({"a": {"@mac": 1, "@format": "s"}}, 'a: "@cmd" is missing'),
    "no format": ({"a": {"@mac": 1, "@cmd": 1}}, 'a: "@format" is missing'),
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
        "a: needs 65 bytes, a CAN frame has 8: it is read from CAN FD frames only, and written only with "
        '"@fragmentation": true'),
    "overlap": (
        {"motor": {"a": leaf(skip=0), "b": leaf(skip=1)}},
        "motor.b: overlaps motor.a: both use byte 1 of mac 5, cmd 2"),
    "overlap of more bytes": (
        {"a": leaf(format="f", skip=2), "b": leaf(format="i", skip=4)},
        "b: overlaps a: both use bytes 4 to 5 of mac 5, cmd 2"),
}


@pytest.mark.parametrize("schema, message", ERRORS.values(), ids=ERRORS)
def test_errors(schema, message):
    assert said(schema) == [message]
    assert check(schema)[0].error


WARNINGS = {
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
        'a: warning: mac 5, cmd 2 is "@fragmentation" in some leaves only: in each message the first leaf by name '
        "decides for all"),
    "packed": (
        {"a": leaf(format="p", fragmentation=True)},
        'a: warning: "p" is only for writing: the daemon never reads a value of this format'),
}


@pytest.mark.parametrize("schema, message", WARNINGS.values(), ids=WARNINGS)
def test_warnings(schema, message):
    assert said(schema) == [message]
    assert not check(schema)[0].error


def test_all_mistakes_are_told_in_the_order_of_the_document():
    schema = {"z": leaf(skip="x", mac=99), "a": leaf(format="?")}
    assert [message.split(":")[0] for message in said(schema)] == ["z", "z", "a"]


def test_packed_values_have_no_place_and_no_scale():
    assert said({"a": leaf(format="p", skip=2, factor=3)})[1:] == [
        'a: warning: a packed value of more than 8 bytes is cut without "@fragmentation": true',
        'a: warning: "@skip", "@factor" have no effect on "p"']


def test_depth_is_bounded():
    schema = {}
    for _ in range(5000):
        schema = {"a": schema}
    assert [problem.message for problem in check(schema)] == ["nested more than 500 deep"]


FILES = {
    "not JSON": ('{"a": \n 1,}', ": line 2, column 4: "),
    "not an object": ("[1]", "is no JSON object: the daemon would take it for an empty schema"),
    "a name twice": ('{"a": {"b": 1, "b": 2}}', '"b" is there twice in one object, of which only the last would count'),
    "not a number": ('{"a": NaN}', "NaN is not JSON"),
    "nested without end": ('{"a":' * 100_000, "is nested too deep"),
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
    assert to_text(parse_schema('{ "ü": {"@mac": 1} }')) == '{"ü":{"@mac":1}}'


def test_larger_than_the_daemon_takes():
    assert len(to_text({"a": "x" * (4 * 1024 * 1024 - 8)})) == 4 * 1024 * 1024
    with pytest.raises(SchemaError, match="4194305 bytes"):
        to_text({"a": "x" * (4 * 1024 * 1024 - 7)})


# Values to write


WRITABLE = {"c": leaf(format="C"), "s": leaf(skip=1), "i": leaf(format="i", skip=3), "f": leaf(format="f", cmd=3),
            "scaled": leaf(format="S", cmd=4, factor=100), "flag": leaf(format="C", cmd=5, asBool=True),
            "masked": leaf(format="C", cmd=6, mask=3), "packed": leaf(format="p", cmd=7), "group": {"x": leaf(cmd=8)},
            "odd": leaf(format="d", cmd=9), "whole": leaf(format="I", cmd=10, mask=2**32 - 1)}

ACCEPTED = [("c", 255), ("c", -128), ("c", True), ("c", None), ("s", 65535), ("s", -32768), ("s", 2.5),
            ("i", 2**32 - 1), ("f", 1e30), ("f", float("nan")), ("scaled", 327.67), ("packed", {"any": ["thing"]}),
            ("group", {"x": 1}), ("whole", 1)]


@pytest.mark.parametrize("name, value", ACCEPTED)
def test_values_that_are_written_as_they_are(name, value):
    assert check_write(WRITABLE, {name: value}) == []


REFUSED = {
    "beyond the bytes": ({"c": 256}, "c: 256 is outside of -128 to 255"),
    "below them": ({"s": -32769}, "s: -32769 is outside of -32768 to 65535"),
    "beyond with the factor": (
        {"scaled": 400}, "scaled: 400 times the factor 100 is 40000, which is outside of -32768 to 32767"),
    "read-only by asBool": ({"flag": 1}, 'flag: is read-only, because its schema has "@asBool"'),
    "read-only by mask": ({"masked": 1}, 'masked: is read-only, because its schema has "@mask"'),
    "unknown": ({"nosuch": 1}, "nosuch: does not exist in the schema"),
    "unknown in a group": ({"group": {"y": 1}}, "group.y: does not exist in the schema"),
    "a value for a group": ({"group": 1}, 'group: is a group of values, not a value: "x"'),
    "text": ({"c": "12"}, 'c: takes a number, not "12"'),
    "list": ({"c": [1]}, "c: takes a number, not [1]"),
    "group for a value": ({"c": {"x": 1}}, 'c: takes a number, not {"x": 1}'),
    "no number": ({"c": float("nan")}, "c: takes a finite number, not NaN"),
    "beyond any float": ({"c": 10**400}, f"c: takes a finite number, not 1{36 * '0'}..."),
    "format that writes nothing": ({"odd": 1}, 'odd: has the format "d", which cannot be written'),
}


@pytest.mark.parametrize("values, message", REFUSED.values(), ids=REFUSED)
def test_values_that_are_refused(values, message):
    assert [str(problem) for problem in check_write(WRITABLE, values)] == [message]


def test_the_root_is_no_place_for_a_value():
    assert [str(problem) for problem in check_write(leaf(), 5)] == [
        "the root: values are written as a map from names, not as a value of its own"]


def test_checks_leave_the_schema_alone():
    schema = load_schema(MACHINE)
    before = json.dumps(schema)
    check(schema)
    check_write(schema, {"motor": {"setpoint": 1}})
    assert json.dumps(schema) == before
