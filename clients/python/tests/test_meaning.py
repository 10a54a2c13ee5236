"""What readings mean, against the daemon: fields of bits as read-modify-write, labels, limits, what counts."""

import array
import json
import time

import pytest

import vorbel
from vorbel import Disconnected, Values, VorbelError, WriteError
from vorbel.limits import Watch
from vorbel.meaning import Meanings
from vorbel.recording import Recorder, csv_rows, json_lines, read_recording
from vorbel.schema import leaf_of
from vorbel.writing import overwritten, prepare, with_selectors

BYTE = {"@mac": 5, "@cmd": 2, "@format": "C"}
DRIVE = {
    "drive": {
        "state": {**BYTE, "bits": [0, 2], "labels": {"0": "off", "1": "slow run", "2": "fault"}},
        "mode": {**BYTE, "bits": [4, 3]},
        "temperature": {**BYTE, "@skip": 1, "offset": -40, "unit": "°C", "warn": [None, 70], "alarm": [-20, 90]},
    },
    "page": {"@mac": 5, "@cmd": 3, "@format": "C", "bits": [0, 4], "scale": 10, "initial": 0},
    "one": {"@mac": 5, "@cmd": 3, "@format": "S", "@skip": 1, "when": {"path": "page", "is": 1}},
    "plain": {"@mac": 5, "@cmd": 4, "@format": "C"},
}


def connect(**options):
    return vorbel.connect("127.0.0.1", pauses=(0.05, 0.5), **options)


def problems_of(raised):
    return [(problem.path, problem.code) for problem in raised.value.problems]


# The library


async def test_a_field_goes_into_the_last_reading_of_its_bytes(serial_bridge):
    async with connect(schema=DRIVE) as client:
        await client.confirmed()
        values = client.values()
        with pytest.raises(WriteError) as raised:
            await client.set("drive.mode", 5)
        assert problems_of(raised) == [("drive.mode", "no-reading")] and raised.value.is_early
        serial_bridge.say(5, 2, "8a 00", "8b 00")
        await anext(values), await anext(values)
        written = await client.set("drive.mode", 5)
        assert (written.raw, written.field, written.meant, str(written)) == (219, 5, 5, "raw 219")
        await client.set("drive.state", "fault")
        assert serial_bridge.heard(2) == [(5, 2, "db"), (5, 2, "da")]


async def test_what_was_written_counts_until_a_reading_comes(serial_bridge):
    async with connect(schema=DRIVE) as client:
        await client.confirmed()
        values = client.values()
        serial_bridge.say(5, 2, "8a 00")
        await anext(values)
        await client.set("drive.mode", 5)
        await client.set("drive.state", 1)
        assert serial_bridge.heard(2) == [(5, 2, "da"), (5, 2, "d9")]
        serial_bridge.say(5, 2, "80 00")
        await anext(values)
        await client.set("drive.state", 1)
        assert serial_bridge.heard(1) == [(5, 2, "81")]


@pytest.mark.parametrize("skip, width, reading, written, after", [
    (0, "C", 0x5A, {"a": 1}, 0x01), (1, "C", 0x5A, {"a": 1}, 0x5A), (0, "C", 0x5A, {"b": 0x0302}, 0x00),
    (1, "S", 0x5A5A, {"b": 0x0302}, 0x0302), (2, "S", 0x5A5A, {"b": 0x0302}, 0x5A03),
    (0, "I", 0x5A5A5A5A, {"a": 1, "b": 0x0302}, 0x5A030201),
    (0, "I", 0x5A5A5A5A, {"a": -1}, 0x5A5A5AFF), (0, "C", 0x5A, {"other": 1}, 0x5A),
    (0, "C", None, {"a": 1}, 0x01), (1, "S", None, {"b": 0x0302}, 0x0302), (0, "S", None, {"a": 1}, None),
    (0, "C", None, {"other": 1}, None),
])
def test_what_is_read_after_a_write(skip, width, reading, written, after):
    schema = {"a": BYTE, "b": {**BYTE, "@format": "S", "@skip": 1}, "other": {**BYTE, "@cmd": 7}}
    leaf = leaf_of(("x",), {**BYTE, "@format": width, "@skip": skip})
    assert overwritten(leaf, reading, prepare(schema, written).written) == after


async def test_a_field_of_an_array_goes_into_its_last_element(serial_bridge):
    async with connect(schema={"a": {**BYTE, "bits": [0, 4], "@flushSize": 2}}) as client:
        await client.confirmed()
        serial_bridge.say(5, 2, "15", "26")
        await anext(client.values())
        await client.set("a", 15)
        assert serial_bridge.heard(1) == [(5, 2, "2f")]


@pytest.mark.parametrize("happening", ["a lost connection", "another schema"])
async def test_readings_of_another_time_are_forgotten(serial_bridge, happening):
    async with connect(schema=DRIVE) as client:
        await client.confirmed()
        serial_bridge.say(5, 2, "8b 00")
        await anext(client.values())
        if happening == "another schema":
            await client.send_schema(DRIVE)
        else:
            serial_bridge.stop()
            async for event in client.events(10):
                if isinstance(event, Disconnected):
                    break
            serial_bridge.start()
            await client.connected()
        with pytest.raises(WriteError) as raised:
            await client.set("drive.mode", 5)
        assert problems_of(raised) == [("drive.mode", "no-reading")]


async def test_readings_of_another_clients_schema_are_none_to_write_into(serial_bridge):
    theirs = {"drive": {"mode": {**BYTE, "@cmd": 6}}, "more": {**BYTE, "@cmd": 6}}
    async with connect(schema=DRIVE) as client:
        await client.confirmed()
        serial_bridge.say(5, 2, "8b 00")
        await anext(client.values())
        async with connect(schema=theirs) as other:
            await other.confirmed()
            for _ in range(2):  # what was read before is forgotten, and theirs is none
                serial_bridge.say(5, 6, "8b")
                await anext(client.values())
                assert not client.owns_schema
                with pytest.raises(WriteError) as raised:
                    await client.set("drive.mode", 5)
                assert problems_of(raised) == [("drive.mode", "no-reading")]


async def test_a_reading_that_does_not_count_is_none_to_write_into(serial_bridge):
    schema = {"page": {**BYTE}, "a": {**BYTE, "@skip": 1, "bits": [0, 4], "when": {"path": "page", "is": 1}}}
    async with connect(schema=schema) as client:
        await client.confirmed()
        values = client.values()
        serial_bridge.say(5, 2, "01 30", "02 50")
        assert [await anext(values), await anext(values)] == [{"page": 1, "a": 0x30}, {"page": 2, "a": 0x50}]
        await client.set("a", 7)
        assert serial_bridge.heard(1) == [(5, 2, "01 37")]


async def test_what_readings_mean_beside_them(bridge):
    async with connect(schema=DRIVE) as client:
        await client.confirmed()
        bridge.say(5, 2, "51 5f")
        meant = await anext(client.meant())
        assert {path: (each.reading, each.value, each.label, each.unit, each.level, str(each))
                for path, each in meant.items()} == {
            "drive.mode": (0x51, 5, None, "", "", "5"),
            "drive.state": (0x51, 1, "slow run", "", "", "slow run"),
            "drive.temperature": (95, 55, None, "°C", "", "55 °C")}


async def test_what_selects_a_value_goes_out_with_it(serial_bridge):
    async with connect(schema=DRIVE) as client:
        await client.confirmed()
        assert (await client.set("one", 515)).raw == 515
        assert serial_bridge.heard(1) == [(5, 3, "01 03 02")]
        with pytest.raises(WriteError) as raised:
            await client.write({"one": 515})
        assert problems_of(raised) == [("one", "not-selected")]


def test_selectors_of_selectors():
    leaves = Meanings({"a": {"b.c": {**BYTE}, "d": {**BYTE, "@skip": 1, "when": {"path": "a.b\\.c", "is": 3}}},
                       "e": {**BYTE, "@skip": 2, "when": {"path": "a.d", "is": 4}},
                       "x": {**BYTE, "when": {"path": "x", "is": 1}}}).leaves
    assert with_selectors(leaves, ("e",), 9) == {"e": 9, "a": {"d": 4, "b.c": 3}}
    assert with_selectors(leaves, ("x",), 9) == {"x": 9} and with_selectors(leaves, ("no",), 9) == {"no": 9}


def test_what_selects_itself_never_counts():
    leaves = {"x": {**BYTE, "when": {"path": "y", "is": 1}}, "y": {**BYTE, "when": {"path": "x", "is": 1}}}
    assert Meanings(leaves).flat({"x": 1, "y": 1}) == {}


# Limits


def levels(*values):
    watch, meanings = Watch(), Meanings(DRIVE)
    return [text for time, value in values
            for text in watch.take(meanings.flat({"drive": {"temperature": value}}), time)]


@pytest.mark.parametrize("values, told", [
    ([(0, 60), (1, 100)], []),
    ([(0, 60), (1, 111)], ["drive.temperature: 71 °C is beyond its warning limits"]),
    ([(0, 60), (1, 10)], ["drive.temperature: -30 °C is beyond its alarm limits"]),
    ([(0, 111), (1, 112), (20, 113)], ["drive.temperature: 71 °C is beyond its warning limits"]),
    ([(0, 111), (1, 131)],
     ["drive.temperature: 71 °C is beyond its warning limits", "drive.temperature: 91 °C is beyond its alarm limits"]),
    ([(0, 111), (1, 60), (2, 111), (3, 60), (11, 61)],
     ["drive.temperature: 71 °C is beyond its warning limits", "drive.temperature: 21 °C is within its limits again"]),
], ids=["within", "a warning", "an alarm", "told once", "an alarm at once", "to and fro"])
def test_limits_are_told(values, told):
    assert levels(*values) == told


def test_of_an_array_the_last_element_is_beyond_a_limit():
    meanings = Meanings({"a": {**BYTE, "@flushSize": 2, "alarm": [None, 5]}})
    found = [meanings.of("a", array.array("B", elements)).level for elements in ([9, 1], [1, 9], [])]
    assert found == ["", "alarm", ""]


# Recordings


EVENT = Values({"drive": {"state": 0x51, "mode": 0x51, "temperature": 95}, "plain": 7, "page": 2, "one": 5}, 12.5)


def test_recordings_have_both_readings_and_values():
    line = json.loads(json_lines(EVENT, Meanings(DRIVE)))
    assert line == {"time": 12.5, "values": EVENT.data,
                    "meant": {"drive.state": "slow run", "drive.mode": 5, "drive.temperature": 55, "page": 20}}
    assert csv_rows(EVENT, Meanings(DRIVE)) == (
        "12.500000,drive.state,,1,,slow run\n12.500000,drive.mode,,5,,\n12.500000,drive.temperature,,55,°C,\n"
        "12.500000,plain,,7,,\n12.500000,page,,20,,\n")


def test_elements_have_values_of_their_own():
    schema = {"a": {**BYTE, "@flushSize": 2, "scale": 0.5, "unit": "V"}}
    event = Values({"a": array.array("B", [1, 2])}, 1.0)
    assert json.loads(json_lines(event, Meanings(schema)))["meant"] == {"a": [0.5, 1.0]}
    assert csv_rows(event, Meanings(schema)) == "1.000000,a,0,0.5,V,\n1.000000,a,1,1.0,V,\n"


def test_columns_of_another_kind_are_not_mixed(tmp_path):
    path = tmp_path / "run.csv"
    path.write_text("time,path,index,value\n1,a,,1\n")
    with pytest.raises(VorbelError, match="has other columns"):
        Recorder(path, append=True)
    assert [values.data for values in read_recording(path)] == [{"a": 1}]
    path.write_text("time,path,index,value,unit,label\n")
    Recorder(path, append=True).close()


# The tool


def test_the_tool_shows_and_takes_labels(serial_bridge, tool, schema_file):
    schema = schema_file(DRIVE)
    watching = tool.start("watch", "--schema", schema)
    serial_bridge.daemon.wait_for("info Received schema: .*")
    serial_bridge.say(5, 2, "51 83")
    lines = [watching.stdout.readline().rstrip("\n").split("\t")[1:] for _ in range(3)]
    assert lines == [["drive.mode", "5"], ["drive.state", '"slow run"'], ["drive.temperature", "91", "°C"]]
    watching.stderr.readline()
    assert watching.stderr.readline() == (
        "vorbel-cli: drive.temperature: 91 °C is beyond its alarm limits\n")


def test_set_waits_for_the_reading_that_it_needs(serial_bridge, tool, schema_file):
    setting = tool.start("set", "--schema", schema_file(DRIVE), "drive.state", "fault")
    serial_bridge.daemon.wait_for("info Received schema: .*")
    time.sleep(0.5)  # readings count once the daemon has answered
    serial_bridge.say(5, 4, "00")
    serial_bridge.say(5, 2, "51 00")
    output, errors = setting.communicate(timeout=20)
    assert (output, setting.returncode) == ('drive.state = "fault" sent: raw 82\n', 0), errors
    assert serial_bridge.heard(1) == [(5, 2, "52")]


def test_set_gives_up_without_that_reading(serial_bridge, tool, schema_file):
    status, output, errors = tool("set", "--schema", schema_file(DRIVE), "--timeout", "1", "drive.state", "fault")
    assert (status, output) == (1, "") and "no reading of these came yet" in errors


def test_once_expects_labels_and_values(serial_bridge, tool, schema_file):
    watching = tool.start("watch", "--schema", schema_file(DRIVE), "--once", "4", "--set", "drive.mode=2",
                          "--expect", "drive.state=slow run", "--expect", "drive.temperature=55")
    serial_bridge.daemon.wait_for("info Received schema: .*")
    time.sleep(0.5)  # readings count once the daemon has answered
    serial_bridge.say(5, 4, "00")
    serial_bridge.say(5, 2, "51 5f")
    assert serial_bridge.heard(1, 10) == [(5, 2, "21")]
    time.sleep(0.5)  # what comes before the answer to the write is not compared
    serial_bridge.say(5, 2, "51 5f")
    output = watching.communicate(timeout=20)[0]
    assert watching.returncode == 0, output
    assert "  drive.state        slow run" in output and "  drive.temperature  55 °C" in output


def test_the_table_completes_labels_and_marks_what_is_beyond_its_limits(serial_bridge, terminal, schema_file):
    screen = terminal("watch", "--schema", schema_file(DRIVE))
    serial_bridge.daemon.wait_for("info Received schema: .*")
    serial_bridge.say(5, 2, "51 83")
    screen.wait_for("!! 91 °C")
    screen.wait_for("beyond its alarm limits")
    serial_bridge.say(5, 2, "52 70")
    screen.wait_for("m! 72 °C")
    screen.type("set drive.st\tsl\t\r")
    screen.wait_for('drive.state = "slow run" sent: raw 81')
    assert serial_bridge.heard(1) == [(5, 2, "51")]
