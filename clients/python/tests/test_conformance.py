"""What all clients agree on, held against this one and against the daemon."""

import array
import json
import math
import re

import pytest

from bridges import PROJECT
from harness import connect, receive, round_trip
from vorbel import WriteError, check, check_text, meaning, paths, schema as schemas, table, wire, writing
from vorbel.errors import WARNINGS
from vorbel.readings import LastReadings

FOLDER = PROJECT / "clients" / "conformance"


def cases(name, member):
    return json.loads((FOLDER / f"{name}.json").read_text())[member]


def named(each):
    return each.get("name") or json.dumps(each.get("values", each))[:60]


PATHS, READ, FLAT = (cases("paths", member) for member in ("paths", "read", "flat"))
SCHEMAS = cases("schemas", "cases")
WRITE_SCHEMA, WRITTEN, REFUSED = (cases("writes", member) for member in ("schema", "written", "refused"))
MESSAGES = cases("values", "messages")
MEMBER_SCHEMA, READINGS, COUNTING, MEMBERS_WRITTEN, MEMBERS_REFUSED, FOLLOWING = (
    cases("members", member) for member in ("schema", "readings", "counting", "written", "refused", "following"))
SPECIAL = {"nan": math.nan, "inf": math.inf, "-inf": -math.inf}
ARRAYS = {"b": "int8", "B": "uint8", "h": "int16", "H": "uint16", "i": "int32", "I": "uint32", "f": "float32"}


TYPE_CODES = {kind: code for code, kind in ARRAYS.items()}


def value_of(notation):
    """The value to write that a case means."""
    if isinstance(notation, dict):
        if "elements" in notation:
            return array.array(TYPE_CODES[notation["$"]], notation["elements"])
        if "$" in notation:
            return SPECIAL[notation["$"]]
        return {name: value_of(member) for name, member in notation.items()}
    return notation


def notation_of(value):
    """A value that came, as a case writes it."""
    if isinstance(value, dict):
        return {name: notation_of(member) for name, member in value.items()}
    if wire.is_array(value):
        kind = ARRAYS[value.typecode] if hasattr(value, "typecode") else str(value.dtype)
        return {"$": kind, "elements": [notation_of(wire.number(element)) for element in value]}
    if isinstance(value, float) and not math.isfinite(value):
        return {"$": str(value)}
    return value


# Paths


@pytest.mark.parametrize("case", PATHS, ids=lambda case: repr(case["path"]))
def test_paths(case):
    assert paths.join(case["names"]) == case["path"]
    assert paths.split(case["path"]) == tuple(case["names"])


@pytest.mark.parametrize("case", READ, ids=lambda case: repr(case["path"]))
def test_paths_written_otherwise(case):
    assert paths.split(case["path"]) == tuple(case["names"])


@pytest.mark.parametrize("case", FLAT, ids=lambda case: json.dumps(case["values"]))
def test_flat_values(case):
    assert paths.flatten(case["values"]) == case["flat"]


# Schemas


def problems_of(case):
    if "text" in case:
        return check_text(case["text"])
    schema = case["schema"]
    for _ in range(case.get("nested", 0)):
        schema = {"n": schema}
    return check({**schema, **case.get("beside", {})}, clear=case.get("clear", False))


@pytest.mark.parametrize("case", SCHEMAS, ids=named)
def test_schemas(case):
    found = [["error" if problem.is_error else "warning", problem.path, problem.code] for problem in problems_of(case)]
    assert sorted(found) == sorted(case["problems"])


def tabled_codes():
    page = (PROJECT / "docs" / "protocol.md").read_text()
    section = re.search(r"^## Problems that clients find\n(.*?)(?=^## )", page, re.M | re.S)[1]
    return {code: severity for code, severity in re.findall(r"^\| `([a-z-]+)` \| (\w+) \|", section, re.M)}


def test_every_code_is_in_the_table_and_in_a_case():
    table_of_codes = tabled_codes()
    in_schemas = {code: severity for case in SCHEMAS for severity, _, code in case["problems"]}
    refusals = {code: "refusal" for case in REFUSED + MEMBERS_REFUSED for _, code in case["problems"]}
    assert table_of_codes == {**refusals, **in_schemas}
    assert {code for code, severity in table_of_codes.items() if severity == "warning"} == WARNINGS


# Writes


@pytest.mark.parametrize("case", WRITTEN, ids=named)
def test_written_numbers(case):
    written = writing.prepare(WRITE_SCHEMA, value_of(case["values"])).written
    assert {each.path: each.raw for each in written} == case["raw"]
    assert [each.path for each in written if each.is_rounded] == case.get("rounded", [])
    assert {each.path: each.nearest for each in written if each.raw != each.nearest} == case.get("missed", {})


@pytest.mark.parametrize("case", REFUSED, ids=named)
def test_refused_values(case):
    with pytest.raises(WriteError) as raised:
        writing.prepare(WRITE_SCHEMA, value_of(case["values"]))
    assert [[problem.path, problem.code] for problem in raised.value.problems] == case["problems"]


async def test_payloads_of_the_daemon(serial_bridge):
    """The daemon does not warn, either, but where single precision reaches the end of the range only from beyond."""
    async with connect() as client:
        await receive(client)
        await client.send(schemas.to_text(WRITE_SCHEMA))
        for case in WRITTEN:
            await client.send(wire.encode(writing.prepare(WRITE_SCHEMA, value_of(case["values"])).values))
            await round_trip(client)
            expected = [tuple(frame) for frame in case["frames"]]
            assert serial_bridge.heard(len(expected), 5 if expected else 0.05) == expected, case
    at_the_end = "warning Invalid numeric conversion. Number overflow, value: 32767 result: 32767"
    assert {line for line in serial_bridge.daemon.lines() if line.startswith("warning")} <= {at_the_end}


# Members for people


@pytest.mark.parametrize("case", READINGS, ids=named)
def test_what_readings_mean(case):
    leaf = schemas.leaf_of(("a",), {"@mac": 1, "@cmd": 1, **case["leaf"]})
    meant = meaning.Meant(value_of(case["reading"]), leaf)
    if "field" in case:
        assert notation_of(meaning.field_of(leaf, meant.reading)) == case["field"]
        assert table.shown(meant) == case["shown"]
    assert notation_of(meant.value) == case["value"]
    assert isinstance(meant.value, bool) == isinstance(case["value"], bool)
    assert (meant.label, meant.level) == (case.get("label"), case.get("level", ""))


@pytest.mark.parametrize("case", COUNTING, ids=named)
def test_which_values_count(case):
    assert list(meaning.Meanings(case["schema"]).flat(case["values"])) == case["counts"]


def member_message(case):
    return writing.prepare(MEMBER_SCHEMA, value_of(case["values"]), case.get("readings", {}).get)


@pytest.mark.parametrize("case", MEMBERS_WRITTEN, ids=named)
def test_written_fields(case):
    written = member_message(case).written
    assert {each.path: each.raw for each in written} == case["raw"]
    assert [each.path for each in written if each.is_rounded] == case.get("rounded", [])


@pytest.mark.parametrize("case", MEMBERS_REFUSED, ids=named)
def test_refused_fields(case):
    with pytest.raises(WriteError) as raised:
        member_message(case)
    assert [[problem.path, problem.code] for problem in raised.value.problems] == case["problems"]


async def test_payloads_of_fields(serial_bridge):
    async with connect() as client:
        await receive(client)
        await client.send(schemas.to_text(MEMBER_SCHEMA))
        for case in MEMBERS_WRITTEN:
            await client.send(wire.encode(member_message(case).values))
            await round_trip(client)
            expected = [tuple(frame) for frame in case["frames"]]
            assert serial_bridge.heard(len(expected), 5 if expected else 0.05) == expected, case
    assert [line for line in serial_bridge.daemon.lines() if line.startswith("warning")] == []


@pytest.mark.parametrize("case", FOLLOWING, ids=named)
def test_what_is_written_after_what_was_read_and_written(case):
    readings = LastReadings(meaning.Meanings(case["schema"]))
    for step in case["steps"]:
        if "reads" in step:
            readings.heard(value_of(step["reads"]))
        elif "refused" in step:
            with pytest.raises(WriteError) as raised:
                writing.prepare(case["schema"], step["writes"], readings.of)
            assert [[problem.path, problem.code] for problem in raised.value.problems] == step["refused"]
        else:
            written = writing.prepare(case["schema"], step["writes"], readings.of).written
            assert {each.path: each.raw for each in written} == step["raw"]
            readings.wrote(written)


def without_members(node):
    return {name: without_members(member) if isinstance(member, dict) else member
            for name, member in node.items() if name.startswith("@") or (isinstance(member, dict) and "@mac" in member)}


async def test_the_daemon_passes_over_members(either_bridge):
    """Frames make the same messages, and messages the same frames, with and without them."""
    outcomes = []
    async with connect() as client:
        await receive(client)
        for schema in (MEMBER_SCHEMA, without_members(MEMBER_SCHEMA)):
            await client.send(schemas.to_text(schema))
            await round_trip(client)
            received = []
            for cmd in range(1, 15):
                either_bridge.say(1, cmd, "81 02 f3 04")
                while isinstance(message := await receive(client), str):
                    pass  # a hello
                received.append(message.hex(" "))
            sent = {"state": 1, "mode": 128, "on": 1, "one": 515, "page": 2, "labels": 5, "fixed": 3}
            await client.send(wire.encode(sent))
            await round_trip(client)
            outcomes.append((received, either_bridge.heard(4, 5)))
    assert outcomes[0] == outcomes[1] and len(outcomes[0][0]) == 14


# Values


@pytest.fixture(params=["array", "numpy"])
def arrays(request, monkeypatch):
    """Both kinds of arrays that readings can be gathered in."""
    if request.param == "array":
        monkeypatch.setattr(wire, "numpy", None)
    assert (wire.numpy is None) == (request.param == "array")


@pytest.mark.parametrize("case", MESSAGES, ids=named)
def test_messages(arrays, case):
    message = bytes.fromhex(case["message"])
    if case.get("undecodable"):
        with pytest.raises(ValueError):
            wire.decode(message)
        return
    value = wire.decode(message)
    assert json.dumps(notation_of(value)) == json.dumps(case["value"])  # which tells 1 from 1.0 and true
    for path, text in case.get("shown", {}).items():
        assert table.shown(meaning.Meanings(case["schema"]).flat(value)[path]) == text


async def test_messages_of_the_daemon(either_bridge):
    async with connect() as client:
        await receive(client)
        for case in MESSAGES:
            if "schema" in case:
                await client.send(schemas.to_text(case["schema"]))
                await round_trip(client)
                for mac, cmd, payload in case["frames"]:
                    either_bridge.say(mac, cmd, payload)
                while isinstance(message := await receive(client), str):
                    pass  # a hello
                assert message.hex(" ") == case["message"], case
