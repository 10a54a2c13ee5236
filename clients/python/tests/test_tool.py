"""The terminal tool against the daemon, as a person or a script runs it."""

import csv
import fcntl
import json
import os
import pty
import select
import signal
import struct
import subprocess
import termios
import time

import pytest

from support import MACHINE, PROJECT, TOOL

LEAF = {"@mac": 5, "@cmd": 2, "@format": "s"}


@pytest.fixture
def machine(bridge):
    """The simulated machine instead of a silent bus."""
    bridge.can.stop()
    folder = bridge.can.directory.parent
    process = subprocess.Popen(["/usr/bin/python3", PROJECT / "sim" / "simulated_bus.py", "--virtual-can", folder,
                                "--quiet", "--seed", "1"])
    yield bridge
    process.terminate()
    process.wait()


@pytest.fixture
def missing(tmp_path):
    """missing("rich") is an environment in which that module is not installed."""
    def without(name):
        (tmp_path / "missing").mkdir()
        (tmp_path / "missing" / f"{name}.py").write_text("raise ImportError")
        return {"PYTHONPATH": str(tmp_path / "missing")}

    return without


# hello, set, schema check


def test_hello(bridge, tool):
    assert tool("hello") == (0, "type: unknown\n", "")
    bridge.stop()
    bridge.start(VORBEL_DEVICE_TYPE="gateway", VORBEL_DEVICE_ID="A7")
    assert tool("hello", "--address", "127.0.0.1:10443") == (0, "type: gateway\nid: A7\n", "")


def test_no_daemon_is_told(tool):
    status, output, errors = tool("hello", "-a", "127.0.0.1", "--timeout", "0.3")
    assert (status, output) == (1, "")
    assert errors.startswith("vorbel-cli: No daemon at ws://127.0.0.1:10443 within 0.3 s: Connect call failed")


def test_set(bridge, tool):
    assert tool("set", "motor.setpoint", "-2", "--schema", MACHINE) == (0, "motor.setpoint = -2 sent\n", "")
    assert bridge.heard() == [(5, 3, "fe ff")]


@pytest.mark.parametrize("path, value, message", [
    ("motor.enabled", "true", 'motor.enabled: is read-only, because its schema has "@asBool"'),
    ("motor.setpoint", "fast", 'motor.setpoint: takes a number, not "fast"'),
    ("motor.nosuch", "1", "motor.nosuch: does not exist in the schema"),
], ids=["read-only", "text", "unknown"])
def test_set_refuses(bridge, tool, path, value, message):
    assert tool("set", path, value, "--schema", MACHINE) == (1, "", f"vorbel-cli: Not written: {message}\n")
    assert bridge.heard(timeout=0.2) == []


def test_set_without_the_check(bridge, tool):
    assert tool("set", "motor.nosuch", "1", "--no-check", "--schema", MACHINE)[0] == 0
    assert bridge.daemon.count('warning Key: "nosuch" does not exist in the schema') == 1


def test_schema_check(tool, schema_file):
    path = schema_file({"a": {**LEAF, "@skp": 1}, "b": {**LEAF, "@format": "float"}, "c": LEAF})
    status, output, errors = tool("schema", "check", path)
    assert (status, errors) == (1, "")
    assert output.splitlines() == [
        'a: "@skp" is no option (did you mean "@skip"?); the daemon ignores it',
        'b: warning: only the first character of "@format" counts: "float" is "f"',
        "c: overlaps b: both use bytes 0 to 1 of mac 5, cmd 2",
        f"{path}: 3 leaves on 1 endpoints, 2 errors, 1 warnings",
    ]


def test_schema_check_of_a_good_one(tool):
    assert tool("schema", "check", MACHINE) == (0, f"{MACHINE}: 11 leaves on 5 endpoints, 0 errors, 0 warnings\n", "")


def test_schema_that_is_no_json(tool, schema_file):
    path = schema_file("{")
    status, output, errors = tool("watch", "--schema", path)
    assert (status, output) == (1, "")
    assert errors == (f"vorbel-cli: {path} is not JSON: line 1, column 2: "
                      "Expecting property name enclosed in double quotes\n")


# watch


def test_watch_piped(bridge, tool):
    process = tool.start("watch", "--schema", MACHINE, "--filter", "motor")
    assert process.stderr.readline() == "vorbel-cli: hello: type unknown\n"
    bridge.daemon.wait_for("info Received schema: .*")
    bridge.say(12, 1, "01")
    bridge.say(5, 2, "58 02 90 01 01")
    lines = [process.stdout.readline().rstrip("\n").split("\t") for _ in range(3)]
    assert [line[1:] for line in lines] == [["motor.current", "4.0"], ["motor.enabled", "true"], ["motor.speed", "600"]]
    assert abs(time.mktime(time.strptime(lines[0][0][:19], "%Y-%m-%dT%H:%M:%S")) - time.time()) < 10
    process.send_signal(signal.SIGINT)
    assert process.communicate(timeout=10) == ("", "") and process.returncode == 0


def test_watch_into_a_pipe_that_closes(machine, tool):
    process = tool.start("watch", "--schema", MACHINE)
    process.stdout.readline()
    process.stdout.close()
    assert process.wait(10) == 0
    assert "Error" not in process.stderr.read()


def test_watch_tells_of_what_it_cannot_decode_and_goes_on(bridge, tool, schema_file):
    schema = schema_file({"bad": {**LEAF, "@format": "c", "@flushSize": 1}, "good": {**LEAF, "@cmd": 3}})
    process = tool.start("watch", "--no-check", "--schema", schema)
    bridge.daemon.wait_for("info Received schema: .*")
    bridge.say(5, 2, "07")
    bridge.say(5, 3, "05 00")
    assert process.stdout.readline().endswith("\tgood\t5\n")
    process.kill()
    note = "cannot decode a message of 5 bytes (Unpack failed: incomplete input): 81 a3 62 61 64"
    assert note in process.stderr.read()


def test_watch_once(machine, tool):
    status, output, errors = tool("watch", "--schema", MACHINE, "--once", "6", "--set", "motor.setpoint=1200",
                                  "--expect", "motor.speed=1200~60", "--expect", "motor.enabled=true")
    lines = output.splitlines()
    assert lines[:2] == ["hello: type unknown", "schema: sent, 11 leaves"]
    assert any(line.startswith("  battery.cells.a  ") for line in lines)
    assert lines[-3] == "set motor.setpoint = 1200: sent"
    assert lines[-2].startswith("expected motor.speed = 1200 ± 60: seen after ")
    assert lines[-1].startswith("expected motor.enabled = true: seen after ")
    assert (status, errors) == (0, "")


def test_watch_once_fails_without_values(bridge, tool):
    status, output, _ = tool("watch", "--schema", MACHINE, "--once", "0.5", "--set", "motor.setpoint=1")
    assert status == 1
    assert output.splitlines()[-1] == "values: 0 messages within 0.5 s, 0 paths"


def test_watch_once_fails_when_the_expected_does_not_come(machine, tool):
    status, output, _ = tool("watch", "--schema", MACHINE, "--once", "2", "--expect", "motor.speed=5999")
    assert status == 1
    assert output.splitlines()[-1] == "expected motor.speed = 5999: NOT SEEN"


class Terminal:
    """The tool on a terminal of 100 by 30 characters."""

    def __init__(self, *words, **environment):
        self.process, self._descriptor = pty.fork()
        if self.process == 0:
            os.environ.update(TERM="xterm-256color", **environment)
            os.execv(TOOL, [TOOL, *map(str, words)])
        fcntl.ioctl(self._descriptor, termios.TIOCSWINSZ, struct.pack("4H", 30, 100, 0, 0))
        self.seen = ""

    def type(self, text):
        os.write(self._descriptor, text.encode())

    def wait_for(self, text, timeout=10):
        deadline = time.monotonic() + timeout
        while text not in self.seen:
            assert time.monotonic() < deadline and self._read(), f"{text!r} did not appear in {self.seen[-2000:]!r}"

    def end(self):
        """The exit status."""
        while self._read():
            pass
        status = os.waitstatus_to_exitcode(os.waitpid(self.process, 0)[1])
        os.close(self._descriptor)
        self.process = 0
        return status

    def _read(self):
        try:
            ready = select.select([self._descriptor], (), (), 10)[0]
            read = os.read(self._descriptor, 65536) if ready else b""
        except OSError:  # the other side has been closed
            read = b""
        self.seen += read.decode(errors="replace")
        return bool(read)


@pytest.fixture
def terminal():
    running = []

    def start(*words, **environment):
        running.append(Terminal(*words, **environment))
        return running[-1]

    yield start
    for each in running:
        if each.process:
            os.kill(each.process, signal.SIGKILL)
            each.end()


def test_watch_on_a_terminal(bridge, terminal):
    screen = terminal("watch", "--schema", MACHINE)
    screen.wait_for("unknown")
    bridge.daemon.wait_for("info Received schema: .*")
    bridge.say(5, 2, "58 02 90 01 01")
    screen.wait_for("motor.speed")
    screen.wait_for("600")
    screen.type("set motor.setp\t1200\r")
    assert bridge.heard() == [(5, 3, "b0 04")]
    screen.wait_for("motor.setpoint = 1200 sent")
    screen.type("set motor.enabled 1\r")
    screen.wait_for("Not written: motor.enabled: is read-only")
    screen.type("nonsense\r")
    screen.wait_for("quit              ends")
    screen.type("quit\r")
    assert screen.end() == 0
    assert screen.seen.endswith("\x1b[?1049l")  # the terminal is as it was


def test_table_outlives_the_daemon(bridge, terminal):
    screen = terminal("watch", "--schema", MACHINE)
    screen.wait_for("unknown")
    bridge.stop()
    screen.wait_for("no connection to ws://localhost:10443")
    bridge.start()
    bridge.daemon.wait_for("info Received schema: .*", timeout=20)
    bridge.say(12, 1, "01")
    screen.wait_for("door.open")
    screen.type("\x04")
    assert screen.end() == 0


def test_without_rich_there_are_lines(bridge, terminal, missing):
    screen = terminal("watch", "--schema", MACHINE, **missing("rich"))
    screen.wait_for("plain lines instead of the live table, which needs rich: apt install python3-rich")
    bridge.daemon.wait_for("info Received schema: .*")
    bridge.say(12, 1, "01")
    screen.wait_for("\tdoor.open\ttrue")
    screen.type("\x03")
    assert screen.end() == 0


# record


def test_record_json_lines(machine, tool, tmp_path):
    file = tmp_path / "run.jsonl"
    status, output, errors = tool("record", file, "--schema", MACHINE, "--for", "3")
    entries = [json.loads(line) for line in file.read_text().splitlines()]
    assert (status, output) == (0, "") and len(entries) > 10
    assert errors == f"vorbel-cli: recorded {len(entries)} messages, {file.stat().st_size} bytes in 1 file at {file}\n"
    assert all(set(entry) == {"time", "values"} for entry in entries)
    assert any(len(entry["values"].get("battery", {}).get("cells", {}).get("a", ())) == 5 for entry in entries)


def test_record_csv_in_files_of_limited_size(machine, tool, tmp_path):
    file = tmp_path / "run.csv"
    assert tool("record", file, "--schema", MACHINE, "--for", "4", "--max-size", "1k", "--keep", "2")[0] == 0
    files = sorted(tmp_path.glob("run*.csv"), key=lambda path: path.stat().st_mtime_ns)
    numbers = [int(path.suffixes[0][1:]) for path in files[:-1]]
    assert files[-1] == file and len(numbers) == 2 and numbers[1] == numbers[0] + 1 > 2
    times = []
    for path in files:
        assert path.stat().st_size <= 1024
        rows = list(csv.DictReader(path.open()))
        assert rows and set(rows[0]) == {"time", "path", "index", "value"}
        times += [float(row["time"]) for row in rows]
    assert times == sorted(times)


def test_record_until_interrupted(bridge, tool, tmp_path):
    file = tmp_path / "run.jsonl"
    process = tool.start("record", file, "--schema", MACHINE)
    bridge.daemon.wait_for("info Received schema: .*")
    bridge.say(12, 1, "01")
    deadline = time.monotonic() + 10
    while not (file.exists() and file.read_text()):
        assert time.monotonic() < deadline
        time.sleep(0.02)
    process.send_signal(signal.SIGINT)
    assert "recorded 1 messages" in process.communicate(timeout=10)[1]
    assert process.returncode == 0
    assert json.loads(file.read_text())["values"] == {"door": {"open": True}}


def test_record_shows_its_progress_on_a_terminal(machine, terminal, tmp_path):
    screen = terminal("record", tmp_path / "run.csv", "--schema", MACHINE, "--for", "3")
    screen.wait_for(" MB, 1 files")
    assert screen.end() == 0
    assert "\x1b[Kvorbel-cli: recorded " in screen.seen  # in place of the progress


def test_record_keeps_what_cannot_be_decoded(bridge, tool, schema_file, tmp_path):
    schema = schema_file({"bad": {**LEAF, "@format": "c", "@flushSize": 1}})
    process = tool.start("record", tmp_path / "run.jsonl", "--for", "1.5", "--no-check", "--schema", schema)
    bridge.daemon.wait_for("info Received schema: .*")
    bridge.say(5, 2, "07")
    process.communicate(timeout=10)
    entry = json.loads((tmp_path / "run.jsonl").read_text())
    assert entry["undecodable"] == "81a3626164" and entry["reason"] == "Unpack failed: incomplete input"


def test_record_does_not_overwrite(bridge, tool, tmp_path):
    file = tmp_path / "run.jsonl"
    file.write_text("precious\n")
    assert tool("record", file) == (
        1, "", f"vorbel-cli: {file} exists; go on with it by --append, or name another file\n")
    tool("record", file, "--append", "--for", "0.5")
    assert file.read_text().startswith("precious\n")


def test_record_needs_a_suffix_it_knows(tool, tmp_path):
    status, _, errors = tool("record", tmp_path / "run.txt")
    assert status == 1 and "must be one of .jsonl, .ndjson, .csv" in errors


def test_record_where_nothing_can_be_written(tool, tmp_path):
    status, _, errors = tool("record", tmp_path / "nosuch" / "run.csv")
    assert (status, errors) == (1, f"vorbel-cli: {tmp_path}/nosuch/run.csv: No such file or directory\n")


# plot


def test_plot(machine, tool, tmp_path):
    pyplot = pytest.importorskip("matplotlib.pyplot")
    file = tmp_path / "x.png"
    status, output, errors = tool("plot", "motor.speed", "battery.cells.a", "-o", file, "--for", "4",
                                  "--schema", MACHINE)
    assert (status, errors) == (0, "")
    assert output.startswith(f"{file}: ")
    picture = pyplot.imread(file)
    assert len({tuple(pixel) for row in picture for pixel in row}) > 20  # lines, grid, text


def test_plot_of_a_path_that_does_not_come(machine, tool, tmp_path):
    pytest.importorskip("matplotlib")
    status, _, errors = tool("plot", "motor.spede", "-o", tmp_path / "x.png", "--for", "2", "--schema", MACHINE)
    assert status == 1 and not (tmp_path / "x.png").exists()
    assert errors.startswith("vorbel-cli: no numbers came for motor.spede; there were: ") and "motor.speed" in errors


def test_plot_without_matplotlib(tool, missing):
    status, _, errors = tool("plot", "motor.speed", "-o", "x.png", **missing("matplotlib"))
    assert (status, errors) == (1, "vorbel-cli: plot needs matplotlib: apt install python3-matplotlib\n")
