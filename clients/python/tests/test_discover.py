"""What is seen of a bus: live, as a summary, and as a schema to begin with."""

import json
import pathlib
import re
import shlex
import signal
import time

import pytest

import harness
import machines
import vorbel
from bridges import MACHINE, PROJECT
from vorbel.schema import leaves
from vorbel.tap import Frame
from vorbel.traffic import BLOCK, MOST_BLOCKS, Endpoint, History, Traffic

SENT = "info Received schema: .*"


# Which frames are kept


def numbered(first, count):
    return [number.to_bytes(4, "little") for number in range(first, first + count)]


def test_a_history_has_all_frames_in_a_row_while_they_are_few():
    history = History()
    for first, count in ((0, 1), (1, 200), (201, 0), (201, 63)):
        history.add(numbered(first, count))
    assert history.runs() == [numbered(0, 264)] and history.frames == 264


def test_a_long_history_has_blocks_of_all_its_time():
    history = History()
    most = BLOCK * MOST_BLOCKS
    for first in range(0, 100 * most, 1000):
        history.add(numbered(first, 1000))
    runs = history.runs()
    numbers = [int.from_bytes(payload, "little") for run in runs for payload in run]
    assert BLOCK * MOST_BLOCKS / 2 <= len(numbers) <= most + BLOCK and numbers == sorted(set(numbers))
    assert numbers[0] == 0 and numbers[-1] >= 99 * most
    begins = [int.from_bytes(run[0], "little") for run in runs]
    assert len({after - before for before, after in zip(begins, begins[1:-1])}) == 1
    assert all(run == numbered(begin, len(run)) for begin, run in zip(begins, runs))


def seen(*payloads, at=(0.0,)):
    endpoint = Endpoint(0x085)
    for now in at:
        endpoint.pending = [bytes.fromhex(payload) for payload in payloads]
        endpoint.digest(now)
    return endpoint


def test_bounds_and_lengths():
    endpoint = seen("01 05", "03 05", "02 05", "02", "02 04 ff")
    assert (list(endpoint.low[:3]), list(endpoint.high[:3])) == ([1, 4, 255], [3, 5, 255])
    assert endpoint.lengths == [2, 1, 3] and endpoint.payload == b"\x02\x04\xff" and endpoint.count == 5


def test_what_changed_and_when():
    endpoint = seen("01 05 07")
    assert endpoint.changed == [None] * 8
    for now, payload in ((1.0, "01 06 07"), (2.0, "01 06 07"), (3.0, "01 06"), (4.0, "01 06 09")):
        endpoint.pending = [bytes.fromhex(payload)]
        endpoint.digest(now)
    assert endpoint.changed[:2] == [None, 1.0]
    endpoint.pending = [b"\x01\x06\x09", b"\x02\x06\x09", b"\x01\x06\x09"]  # there and back between two looks
    endpoint.digest(5.0)
    assert endpoint.changed[:3] == [5.0, 1.0, None]


def test_the_rate_is_that_of_the_last_two_seconds():
    endpoint = Endpoint(5)
    for tick in range(51):
        endpoint.pending = [b"\x01"] * (100 if tick < 25 else 10)
        endpoint.digest(tick * 0.2)
    assert endpoint.rate() == pytest.approx(50)
    assert seen("01").rate() == 0


def test_longer_frames_have_fields_of_their_own():
    traffic = Traffic()
    traffic.take(Frame(0x085, bytes([number])) for number in range(200))
    traffic.take(Frame(0x085, bytes([number, 7, number * 3 % 256])) for number in range(100))
    traffic.digest(0.0)
    length, fields = traffic.fields()[0x085]
    assert length == 3 and [(field.byte, field.kind) for field in fields] == [
        (0, "counter"), (1, "constant"), (2, "counter")]


# The command


def wait_idle(*processes):
    """Waits until they have nothing more to do, as their processor time tells."""
    def ticks():
        stats = [pathlib.Path(f"/proc/{process}/stat").read_text().rpartition(")")[2].split() for process in processes]
        return [int(stat[11]) + int(stat[12]) for stat in stats]

    def are_idle():
        before = ticks()
        time.sleep(0.5)
        return all(now - then <= 2 for then, now in zip(before, ticks()))

    harness.wait_until(are_idle, 60, "the tool to have taken everything")


@pytest.fixture
def found(bridge, tool, tmp_path):
    """found(FRAMES, WORD...) discovers on a bus on which these (identifier, payload) come: summary, schema, errors."""
    def run(frames, *words):
        path = tmp_path / "found.json"
        process = tool.start("discover", "--yes", "-o", path, *words)
        bridge.daemon.wait_for(SENT, count=2)
        for identifier, payload in frames:
            bridge.say(identifier % 64, identifier // 64, payload.hex())
        bridge.say(63, 31, *["ff"] * 4)
        wait_idle(process.pid, bridge.daemon.pid)
        process.send_signal(signal.SIGINT)
        output, errors = process.communicate(timeout=60)
        assert process.returncode == 0, errors
        return [line.split("\t") for line in output.splitlines()], json.loads(path.read_text()), errors

    return run


def test_a_summary_and_a_schema(found, tmp_path):
    lines, schema, errors = found([(0x085, bytes([at % 256, 0x10, at // 2 % 3])) for at in range(300)])
    assert lines[0] == ["node", "command", "id", "frames", "rate", "length", "last", "ranges"]
    assert lines[1][:4] == ["5", "2", "085", "300"] and lines[1][5:] == ["3", "2B 10 02", "00-FF 10 00-02"]
    assert lines[2][:4] == ["63", "31", "7FF", "4"] and len(lines) == 3
    assert list(schema) == ["node5", "node63"] and list(schema["node5"]) == ["command2"]
    assert schema["node5"]["command2"]["counter0"] == {
        "@mac": 5, "@cmd": 2, "@format": "C", "@skip": 0,
        "description": "byte 0: counts up by 1 each time it changes, 0 to 255, 299 changes in 300 frames"}
    assert schema["node5"]["command2"]["constant1"]["description"] == "always 16 (0x10)"
    assert f"vorbel-cli: {tmp_path}/found.json: 4 fields of 2 endpoints; " in errors and "left out" not in errors


def test_an_endpoint_of_a_few_frames_may_be_noise_on_the_line(found):
    lines, schema, errors = found([(0x085, b"\x01\x02")] * 3)
    assert lines[1][:4] == ["5", "2", "085", "3"] and list(schema) == ["node63"]
    assert "vorbel-cli: 1 endpoint left out, with less than 4 frames of one length\n" in errors


@pytest.mark.parametrize("name", machines.MACHINES)
def test_the_fields_of_a_machine_are_found_through_the_daemon(found, name):
    nodes = machines.recorded(name, frames=600)
    schema = found([(node.identifier, payloads[at]) for at in range(600) for node, payloads in nodes])[1]
    assert vorbel.check(schema) == []
    places = {(leaf.mac + 64 * leaf.cmd, leaf.skip, leaf.width) for leaf in leaves(schema).values()}
    found_ones = [(node.identifier, truth.byte, truth.width) in places or truth.width == 3
                  for node, _ in nodes for truth in node.truths]
    assert sum(found_ones) >= 0.9 * len(found_ones)


def test_lengths_that_differ(found):
    lines, _, _ = found([(0x085, b"\x01"), (0x085, b"\x01\x02"), (0x085, b"\x01")])
    assert lines[1][5:] == ["1,2", "01", "01 02"]


def test_nothing_came(bridge, tool, tmp_path):
    status, output, errors = tool("discover", "--yes", "--for", "0.3", "-o", tmp_path / "x.json")
    assert (status, output) == (1, "") and not (tmp_path / "x.json").exists()
    assert errors.endswith("no frames came: is the link up, and does anything talk on the bus?\n")


def test_a_file_that_exists_is_not_touched(bridge, tool, tmp_path):
    (tmp_path / "x.json").write_text("precious")
    assert tool("discover", "--yes", "-o", tmp_path / "x.json") == (
        1, "", f"vorbel-cli: {tmp_path}/x.json exists; name another file\n")
    assert (tmp_path / "x.json").read_text() == "precious" and bridge.daemon.count(SENT) == 0


@pytest.mark.parametrize("end", ["q", "\x04", "\x03"], ids=["q", "Ctrl-D", "Ctrl-C"])
def test_the_grid_on_a_terminal(bridge, terminal, tmp_path, end):
    screen = terminal("discover", "--yes", "-o", tmp_path / "x.json", "--restore", MACHINE, columns=80)
    bridge.daemon.wait_for(SENT, count=2)
    screen.wait_for("no frames came")
    bridge.say(5, 2, "58 02 90")
    screen.wait_for(" 085 ")
    bridge.say(5, 2, "58 02 91", "58 02 91", "58 02 91")
    screen.wait_for("91*")
    screen.wait_for("90-91")
    assert "58*" not in screen.seen and "02*" not in screen.seen
    screen.type(end)
    assert screen.end() == 0
    assert "085\t4\t" in screen.seen  # the summary stays on the terminal
    assert f"the schema {MACHINE} is in force again" in screen.seen
    assert list(json.loads((tmp_path / "x.json").read_text())) == ["node5"]


def test_a_narrow_terminal_has_the_summary_only(bridge, terminal):
    screen = terminal("discover", "--yes", "--for", "1.5", columns=71)
    bridge.daemon.wait_for(SENT, count=2)
    bridge.say(5, 2, "58", "59")
    assert screen.end() == 0
    assert "59*" not in screen.seen and "\x1b[?1049h" not in screen.seen
    assert "2 frames of 1 endpoint" in screen.seen and "085\t2\t" in screen.seen


def test_the_mark_of_a_change_goes(bridge, terminal):
    screen = terminal("discover", "--yes")
    bridge.daemon.wait_for(SENT, count=2)
    bridge.say(5, 2, "58", "59")
    screen.wait_for("59*")
    screen.seen = ""
    screen.read_until(lambda: "59 " in screen.seen, "the byte without its mark")


def test_a_terminal_that_is_closed_puts_the_schema_back(bridge, terminal):
    screen = terminal("discover", "--yes", "--restore", MACHINE)
    bridge.daemon.wait_for(SENT, count=2)
    screen.wait_for("no frames came")
    screen.hang_up()
    bridge.daemon.wait_for("info Received schema: .*setpoint.*")


def test_no_frame_of_a_thousand_a_second_is_missed(found):
    frames = [(number % 40, number.to_bytes(4, "little")) for number in range(4000)]
    lines = found(frames)[0]
    assert sum(int(line[3]) for line in lines[1:]) == 4004


PAGE = PROJECT / "docs" / "unknown-bus.md"


def test_the_two_minutes_of_the_page(machine, tool, terminal, tmp_path, monkeypatch):
    """On the simulated machine; only the editing is done by a program."""
    monkeypatch.chdir(tmp_path)
    walk = PAGE.read_text().split("## What it believes")[0]
    commands = [shlex.split(line) for line in re.findall(r"^   vorbel-cli (.*)$", walk, re.M)]
    assert [words[0] for words in commands] == ["discover", "set", "schema", "watch", "plot"]
    screen = terminal(*commands[0])
    screen.wait_for("Go on? [y/N] ")
    screen.type("y\n")
    screen.wait_for(" 085 ")
    assert tool(*commands[1])[0] == 0
    screen.wait_for("-09", timeout=60)  # from 0, 1 or 2, as fast as the motor was
    screen.type("q")
    assert screen.end() == 0
    name(tmp_path / "bus.schema.json", json.loads("{" + re.findall(r"```json\n(.*?)```", walk, re.S)[1] + "}"))
    outcomes = [tool(*words) for words in (commands[2], commands[3], [*commands[4], "--for", "2"])]
    assert [status for status, _, _ in outcomes] == [0, 0, 0], outcomes
    assert re.search(r"node5\.command2\.current +\d\.\d\d A", outcomes[1][1])
    assert re.search(r"node5\.command2\.number0to1 +2\d{3}", outcomes[1][1])
    assert (tmp_path / "current.png").stat().st_size > 1000


def name(path, leaf):
    """The current in place of what was found."""
    schema = json.loads(path.read_text())
    group = schema["node5"]["command2"]
    assert group["number0to1"]["@format"] == "S"
    found = [each for each in group if each.startswith("number2")]
    assert found
    for each in [*found, *(each for each in group if each in ("number3", "constant3"))]:
        del group[each]
    group.update(leaf)
    path.write_text(json.dumps(schema))
