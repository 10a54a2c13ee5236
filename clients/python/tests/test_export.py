"""Exporting schemas as DBC files, and importing them again."""

import dataclasses
import json
import os
import subprocess

import pytest

from bridges import MACHINE, PROJECT, TOOL
from test_import import FOREIGN, OWN, identity, imported
from vorbel import checks, dbc, exporting, importing, matrix
from vorbel.schema import leaves

CASES = json.loads((PROJECT / "clients" / "conformance" / "buses.json").read_text(encoding="utf-8"))["exports"]
PLACE = {"@mac": 5, "@cmd": 2}
ALL = {  # as the import writes it
    "motor": {
        "description": "The motor, and\nwhat it drives",
        "speed": {**PLACE, "@format": "s", "@skip": 0, "unit": "rpm", "min": -100},
        "torque": {**PLACE, "@format": "S", "@skip": 2, "swapped": True, "signed": True, "scale": 0.1, "offset": -7.5,
                   "max": 1e-7, "unit": "Nm"},
        "state": {**PLACE, "@format": "C", "@skip": 4, "bits": [1, 3], "initial": 0, "description": "One line",
                  "labels": {"0": "aus", "1": "größer"}},
        "slip": {**PLACE, "@format": "C", "@skip": 5, "signed": True, "min": 0},
        "wide": {**PLACE, "@format": "S", "@skip": 6, "bits": [3, 11], "initial": 0, "swapped": True, "signed": True},
    },
    "flow": {"@mac": 6, "@cmd": 2, "@format": "f", "@skip": 0, "max": 2.5},
    "plant": {
        "tank": {
            "level.1": {"@mac": 7, "@cmd": 31, "@format": "I", "@skip": 0, "float": True, "swapped": True},
            "a name that is longer than thirty-two letters": {"@mac": 7, "@cmd": 31, "@format": "i", "@skip": 4,
                                                              "min": -(2**31) + 1, "unit": "Ω"},
        },
        "valve": {"@mac": 8, "@cmd": 31, "@format": "C", "@skip": 0},
        "page": {"@mac": 9, "@cmd": 0, "@format": "C", "@skip": 0},
        "sub": {"@mac": 9, "@cmd": 0, "@format": "C", "@skip": 1, "when": {"path": "plant.page", "is": 1}},
        "deep": {"@mac": 9, "@cmd": 0, "@format": "C", "@skip": 2, "when": {"path": "plant.sub", "is": 255}},
        "other": {"@mac": 9, "@cmd": 0, "@format": "S", "@skip": 1, "when": {"path": "plant.page", "is": 0}},
    },
    "pages": {
        "page": {"@mac": 10, "@cmd": 0, "@format": "C", "@skip": 0, "labels": {"1": "first"}},
        "one": {"@mac": 10, "@cmd": 0, "@format": "C", "@skip": 1, "when": {"path": "pages.page", "is": 1}},
        "two": {"@mac": 10, "@cmd": 0, "@format": "C", "@skip": 1, "when": {"path": "pages.page", "is": 2}},
        "last byte": {"@mac": 10, "@cmd": 0, "@format": "C", "@skip": 3, "when": {"path": "pages.page", "is": 1},
                      "description": importing.LAST_BYTE_TEXT},
        "last byte_2": {"@mac": 10, "@cmd": 0, "@format": "C", "@skip": 3, "when": {"path": "pages.page", "is": 2},
                        "description": importing.LAST_BYTE_TEXT},
    },
}


def exported(schema):
    """The text of the file, and {path: what became of the leaf}."""
    messages, outcomes = exporting.to_messages(schema)
    content = dbc.content(messages)
    return content, {outcome.path: str(outcome).partition(": ")[2] for outcome in outcomes}


def back(content, tmp_path):
    path = tmp_path / "exported.dbc"
    path.write_bytes(content)
    return imported(path)


@pytest.mark.parametrize("case", CASES, ids=lambda case: case["name"])
def test_what_all_clients_make_of_a_schema(case):
    assert not any(problem.is_error for problem in checks.check(case["schema"]))
    messages, outcomes = exporting.to_messages(case["schema"])
    text = "".join(f"{line}\n" for line in case["file"])
    assert (dbc.content(messages) if messages else b"") == text.encode("iso-8859-1" if case.get("latin1") else "utf-8")
    assert [[each.path, each.verdict, *filter(None, [each.why])] for each in outcomes] == case["outcomes"]


def test_what_the_import_writes_comes_back_as_it_was(tmp_path):
    assert not any(problem.is_error for problem in checks.check(ALL))
    content, verdicts = exported(ALL)
    schema, outcomes, complaints = back(content, tmp_path)
    assert (schema, complaints) == (ALL, [])
    assert set(verdicts.values()) == {"exact", "exact: the length of the message"}
    assert {str(outcome).partition(": ")[2] for outcome in outcomes} == {"exact"}


@pytest.mark.parametrize("path, bus", [(OWN / "plant.dbc", None), (OWN / "plant.sym", None),
                                       (OWN / "plant.kcd", "Field"), *FOREIGN], ids=identity)
def test_imported_schemas_and_signals_come_back_as_they_were(tmp_path, path, bus):
    schema, _, _ = imported(path, bus)
    content, _ = exported(schema)
    again, _, complaints = back(content, tmp_path)
    assert (again, complaints) == (schema, [])
    assert exported(again)[0] == content
    before, after = (signals_of(read, schema) for read in (matrix.read(str(path), bus),
                                                           matrix.read(str(tmp_path / "exported.dbc"))))
    assert before == after


def signals_of(read, schema):
    """{(identifier, name as DBC takes it): all that a schema can hold of a signal}, of those in the schema."""
    known = {(leaf.mac + 64 * leaf.cmd, exporting._word(leaf.names[-1:])) for leaf in leaves(schema).values()}
    found = {(message.identifier, exporting._word([signal.name])): (message, signal)
             for message in read[0] for signal in message.signals}
    return {key: (message.size, message.comment, dataclasses.replace(
        signal, name="", least=None, largest=None, path="",
        labels=importing._labels(signal.labels), **place_of(signal)))
        for key, (message, signal) in found.items() if key in known}


def place_of(signal):
    """In one byte, the order of bytes says nothing."""
    if signal.is_little_endian or signal.first_byte != signal.last_byte:
        return {}
    return {"is_little_endian": True, "start": 8 * signal.first_byte + 8 - signal.start % 8 - signal.size}


def test_a_file():
    content, _ = exported({name: ALL[name] for name in ("motor", "flow")})
    lines = content.decode("iso-8859-1").splitlines()
    assert [line for line in lines if line.startswith(("BO_", " SG_", "BA_ ", "VAL_", "SIG_"))] == [
        'BO_ 133 motor: 8 Vector__XXX',
        ' SG_ speed : 0|16@1- (1,0) [-100|32767] "rpm" Vector__XXX',
        ' SG_ torque : 23|16@0- (0.1,-7.5) [-3284.3|1E-7] "Nm" Vector__XXX',
        ' SG_ state : 33|3@1+ (1,0) [0|0] "" Vector__XXX',
        ' SG_ slip : 40|8@1- (1,0) [0|127] "" Vector__XXX',
        ' SG_ wide : 53|11@0- (1,0) [0|0] "" Vector__XXX',
        'BO_ 134 CAN_086: 4 Vector__XXX',
        ' SG_ flow : 0|32@1- (1,0) [-3.4028234663852886E+38|2.5] "" Vector__XXX',
        'BA_ "VorbelPath" SG_ 134 flow "flow";',
        'VAL_ 133 state 0 "aus" 1 "größer" ;',
        'SIG_VALTYPE_ 134 flow : 1;']
    assert 'CM_ BO_ 133 "The motor, and' in lines and 'CM_ SG_ 133 state "One line";' in lines


def test_multiplexers():
    lines = exported(ALL)[0].decode().splitlines()
    assert [line.partition(" :")[0] for line in lines if line.startswith(" SG_ ")][-7:] == [
        " SG_ page M", " SG_ sub m1M", " SG_ deep m255", " SG_ other m0", " SG_ page M", " SG_ one m1", " SG_ two m2"]
    assert [line for line in lines if line.startswith("SG_MUL_VAL_")] == [
        "SG_MUL_VAL_ 9 sub page 1-1;", "SG_MUL_VAL_ 9 deep sub 255-255;", "SG_MUL_VAL_ 9 other page 0-0;"]
    assert "BO_ 10 pages: 4 Vector__XXX" in lines


def test_long_names_stand_in_attributes():
    lines = exported(ALL)[0].decode().splitlines()
    short = "a_name_that_is_longer_than_th"
    assert "BO_ 1992 plant_7C8: 1 Vector__XXX" in lines  # one of several messages of a group
    assert f'BA_ "SystemSignalLongSymbol" SG_ 1991 {short} "a_name_that_is_longer_than_thirty_two_letters";' in lines


def test_multiplexers_with_long_names(tmp_path):
    outer, inner = ("which of the many pages " + which + " this is" for which in ("of the book", "of the chapter"))
    place = {"@mac": 1, "@cmd": 0, "@format": "C"}
    schema = {"book": {outer: {**place, "@skip": 0},
                       inner: {**place, "@skip": 1, "when": {"path": f"book.{outer}", "is": 1}},
                       "line": {**place, "@skip": 2, "when": {"path": f"book.{inner}", "is": 2}}}}
    schema["book"]["last byte"] = {**schema["book"]["line"], "description": "no filler"}
    content, verdicts = exported(schema)
    assert set(verdicts.values()) == {"exact"}
    assert back(content, tmp_path)[0] == schema


def test_groups_whose_leaves_are_in_several_messages(tmp_path):
    leaf = {"@format": "C", "@skip": 0}
    schema = {"A": {"x": {"@mac": 1, "@cmd": 0, **leaf}, "z": {"@mac": 2, "@cmd": 0, **leaf}},
              "B": {"y": {"@mac": 1, "@cmd": 0, **leaf}}}
    content, _ = exported(schema)
    assert back(content, tmp_path)[0] == schema


def test_names_that_are_alike_once_cut(tmp_path):
    names = [29 * "a" + "bcde", 29 * "a" + "bcdf", 29 * "a", 28 * "a"]
    schema = {name: {name: {"@mac": at, "@cmd": 0, "@format": "C", "@skip": 0}} for at, name in enumerate(names)}
    schema["M"] = {name: {"@mac": 9, "@cmd": 0, "@format": "C", "@skip": at} for at, name in enumerate(names)}
    content, _ = exported(schema)
    assert back(content, tmp_path)[0] == schema
    words = [line.split()[1] for line in content.decode().splitlines() if line.startswith(" SG_ ")]
    assert words[-4:] == [29 * "a" + "_2", 29 * "a" + "_3", 29 * "a", 28 * "a"]


@pytest.mark.parametrize("members, verdict, back_as", [
    ({"@format": "C", "title": "T", "decimals": 1}, 'incomplete: without "title", "decimals"', {"@format": "C"}),
    ({"@format": "C", "warn": [0, None], "alarm": [None, 1]}, 'incomplete: without "warn", "alarm"', {"@format": "C"}),
    ({"@format": "C", "readonly": True}, 'incomplete: without "readonly"', {"@format": "C"}),
    ({"@format": "C", "@observe": True}, 'incomplete: without "@observe"', {"@format": "C"}),
    ({"@format": "C", "@flushSize": 3}, 'incomplete: without "@flushSize"', {"@format": "C"}),
    ({"@format": "C", "@fragmentation": True}, 'incomplete: without "@fragmentation"', {"@format": "C"}),
    ({"@format": "C", "min": 0, "max": 0}, "incomplete: without bounds", {"@format": "C"}),
    ({"@format": "C", "@asBool": True}, 'incomplete: without "@asBool"', {"@format": "C"}),
    ({"@format": "C", "bits": [0, 4], "initial": 3}, 'incomplete: without "initial"',
     {"@format": "C", "bits": [0, 4], "initial": 0}),
    ({"@format": "C", "unit": 'a"\\'}, "incomplete: without quotation marks and backslashes",
     {"@format": "C", "unit": "a'/"}),
    ({"@format": "Q"}, "exact", {"@format": "S"}), ({"@format": "q"}, "exact", {"@format": "s"}),
    ({"@format": "c"}, "exact", {"@format": "C"}),
    ({"@format": "s", "@factor": 100, "scale": 2, "offset": 1}, "exact", {"@format": "s", "scale": 0.02, "offset": 1}),
    ({"@format": "C", "@mask": 2, "@asBool": True}, "exact", {"@format": "C", "bits": [1, 1], "initial": 0}),
    ({"@format": "C", "@mask": 2, "@asBool": True, "@factor": 10}, "exact",
     {"@format": "C", "bits": [1, 1], "initial": 0}),
    ({"@format": "s", "@mask": 0x0FF0}, "exact", {"@format": "S", "bits": [4, 8], "initial": 0, "scale": 16}),
    ({"@format": "C", "@mask": 5}, 'not possible: the bits of its "@mask" are not side by side', None),
    ({"@format": "C", "@mask": 1, "bits": [0, 1]}, 'not possible: "@mask" and fields of bits together', None),
    ({"@format": "p", "@fragmentation": True}, 'not possible: a signal has no format "p"', None),
    ({"@format": "S", "@skip": 7}, "not possible: it is beyond 8 bytes", None),
    ({"@format": "C", "when": {"path": "g.s", "is": -1}}, 'not possible: its "when" asks for a number below 0', None),
], ids=str)
def test_what_becomes_of_a_leaf(tmp_path, members, verdict, back_as):
    schema = {"g": {"s": {**PLACE, "@format": "C", "@skip": 0}, "x": {**PLACE, "@skip": 1, **members}}}
    content, verdicts = exported(schema)
    assert verdicts["g.x"] == verdict
    expected = {**PLACE, "@skip": 1, **back_as} if back_as else None
    assert back(content, tmp_path)[0]["g"].get("x") == expected


def test_what_a_leaf_asks_for_has_to_be_in_the_message():
    schema = {"g": {"s": {**PLACE, "@format": "C", "@mask": 5},
                    "x": {**PLACE, "@format": "C", "@skip": 1, "when": {"path": "g.s", "is": 1}},
                    "y": {**PLACE, "@format": "C", "@skip": 2}}}
    assert exported(schema)[1]["g.x"] == "not possible: what its \"when\" asks for is not in the message"


def test_names_that_are_none_in_dbc(tmp_path):
    leaf = {"@format": "C", "@skip": 0}
    schema = {"1 a": {"ä-b": {**leaf, **PLACE}, "ö-b": {**leaf, **PLACE, "@skip": 1}},
              "1+a": {"x": {**leaf, "@mac": 9, "@cmd": 0}}, 'q"': {"x": {**leaf, "@mac": 8, "@cmd": 0}}}
    content, verdicts = exported(schema)
    lines = content.decode("iso-8859-1").splitlines()
    assert [line.split(":")[0] for line in lines if line.startswith(("BO_ ", " SG_"))] == [
        "BO_ 133 _1_a", " SG_ __b ", " SG_ __b_2 ", "BO_ 9 _1_a_2", " SG_ x ", "BO_ 8 q_", " SG_ x "]
    assert verdicts['q".x'] == "incomplete: without its path"
    assert back(content, tmp_path)[0] == {"1 a": schema["1 a"], "1+a": schema["1+a"], "q_": schema['q"']}


# The tool


def test_the_tool_writes_a_file(tool, tmp_path):
    path = tmp_path / "machine.dbc"
    status, output, errors = tool("schema", "export", path, "--schema", MACHINE)
    assert (status, output) == (0, "")
    assert errors.splitlines()[0] == 'motor.speed: incomplete: without "title"'
    assert errors.splitlines()[-1] == f"{path}: 5 messages; 11 leaves: 0 exact, 11 incomplete, 0 not possible"
    schema = json.loads(tool("schema", "import", path)[1])
    assert list(schema) == ["motor", "battery", "door"] and list(schema["battery"]["cells"]) == ["a", "b", "c", "d"]


def test_the_schema_may_come_on_standard_input(tool, tmp_path):
    command = [TOOL, "schema", "export", tmp_path / "a.dbc"]
    text = json.dumps({"ä": {**PLACE, "@format": "C"}}, ensure_ascii=False)
    result = subprocess.run(command, input=text.encode(), capture_output=True,
                            env={**os.environ, "PYTHONIOENCODING": "ascii"})
    assert result.returncode == 0
    assert 'BA_ "VorbelPath" SG_ 133 _ "ä";' in (tmp_path / "a.dbc").read_text(encoding="iso-8859-1")


def test_what_is_there_stays_unless_told(tool, tmp_path, schema_file):
    path = tmp_path / "there.dbc"
    path.write_text("mine")
    words = ("schema", "export", path, "-s", schema_file({"a": {**PLACE, "@format": "C"}}))
    status, _, errors = tool(*words)
    assert (status, errors.splitlines()[-1]) == (1, f"vorbel-cli: {path} exists; --replace writes over it")
    assert path.read_text() == "mine"
    assert tool(*words, "--replace")[0] == 0
    assert path.read_text().startswith("VERSION")


def test_schemas_with_errors_are_not_exported(tool, tmp_path, schema_file):
    path = tmp_path / "none.dbc"
    status, _, errors = tool("schema", "export", path, "-s", schema_file({"a": {**PLACE, "@format": "X"}}))
    assert status == 1
    assert errors.startswith('vorbel-cli: The schema was not exported:\n  a: "@format" is "X": it must be one of C c S')
    assert tool("schema", "export", path, "-s", schema_file({"a": {**PLACE, "@format": "p", "@fragmentation": True}}))[
        ::2] == (1, 'a: not possible: a signal has no format "p"\n'
                    "vorbel-cli: The schema has no leaf that can be exported\n")
    assert not path.exists()
