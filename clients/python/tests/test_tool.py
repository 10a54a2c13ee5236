"""The terminal tool against the daemon, as a person or a script runs it."""

import base64
import csv
import fcntl
import json
import os
import pty
import select
import signal
import socket
import struct
import subprocess
import termios
import time

import harness
import pytest
from matplotlib import pyplot

import vorbel

from bridges import MACHINE, PROJECT, TOOL

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


# hello, and what all commands share


def test_version(tool):
    assert tool("--version") == (0, f"vorbel-cli {vorbel.__version__}\n", "")


def test_hello(bridge, tool):
    assert tool("hello") == (0, "type: unknown\n", "")
    bridge.stop()
    bridge.start(VORBEL_DEVICE_TYPE="gateway", VORBEL_DEVICE_ID="A7")
    assert tool("hello", "--address", "127.0.0.1:10443") == (0, "type: gateway\nid: A7\n", "")


def test_no_daemon_is_told(tool):
    status, output, errors = tool("hello", "-a", "127.0.0.1", "--timeout", "0.3")
    assert (status, output) == (1, "")
    assert errors.startswith("vorbel-cli: No daemon at ws://127.0.0.1:10443 within 0.3 s: Connection refused\n")


def test_address_that_cannot_be(tool):
    assert tool("hello", "-a", "host:port") == (
        1, "", "vorbel-cli: ws://host:port is no address of a daemon: Port could not be cast to integer value as "
               "'port'\n")


def test_a_password_is_sent_and_never_shown(tool):
    with socket.create_server(("127.0.0.1", 0)) as server:
        place = f"127.0.0.1:{server.getsockname()[1]}/vorbel"
        process = tool.start("hello", "-a", f"ws://alice:s@cret@{place}", "--timeout", "2")
        connection = server.accept()[0]
        assert b"\r\nAuthorization: Basic " + base64.b64encode(b"alice:s@cret") in connection.recv(4096)
        connection.close()
    errors = process.communicate(timeout=20)[1]
    assert errors.startswith(f"vorbel-cli: No daemon at ws://alice:***@{place} within 2 s: ")
    assert tool("hello", "-a", "http://alice:secret@b")[2].startswith(
        "vorbel-cli: http://alice:***@b is no address of a daemon: http://alice:***@b isn't a valid URI")


@pytest.mark.parametrize("words, message", [
    (("hello", "--timeout", "soon"), "argument --timeout: must be a number above 0"),
    (("record", "x.csv", "--max-size", "5x"), "argument --max-size: must be a number of bytes, with k, M or G"),
    (("watch", "--nosuch"), "unrecognized arguments: --nosuch"),
    ((), "the following arguments are required: COMMAND"),
    (("watch", "--set", "a=1"), "vorbel-cli watch: error: --set and --expect go with --once SECONDS"),
    (("watch", "--expect", "a=1"), "vorbel-cli watch: error: --set and --expect go with --once SECONDS"),
    (("watch", "--once", "1", "--set", "a"), "argument --set: 'a' is not of the form PATH=VALUE"),
    (("watch", "--once", "1", "--expect", "a=1~x"), "argument --expect: 'x' in 'a=1~x' is no number"),
    (("wacth",), "there is no 'wacth' (did you mean \"watch\"?); there are: watch, set, hello, schema, record, plot"),
    (("xyz",), "there is no 'xyz'; there are: watch, "),
    (("schema", "chekc"), "there is no 'chekc' (did you mean \"check\"?); there are: check"),
], ids=["no number", "no size", "unknown option", "no command", "set without once", "expect without once",
        "no value", "no tolerance", "mistyped", "not like any", "mistyped second word"])
def test_wrong_command_lines(tool, words, message):
    status, output, errors = tool(*words)
    assert (status, output) == (2, "") and message in errors


@pytest.mark.parametrize("words", [("hello",), ("watch",), ("watch", "--once", "9"), ("record", "x.csv"),
                                   ("set", "a", "1"), ("plot", "a", "-o", "x.png")], ids=" ".join)
@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_interrupted_before_there_was_a_daemon(tool, tmp_path, words, number):
    words = [tmp_path / word if "." in word else word for word in words]
    with socket.create_server(("127.0.0.1", 10443)) as silent:
        process = tool.start(*words, "-a", "127.0.0.1")
        silent.accept()
        process.send_signal(number)
        process.communicate(timeout=10)
    assert process.returncode == 130 and list(tmp_path.iterdir()) == []


def test_waiting_is_shown_on_a_terminal(terminal):
    screen = terminal("hello", "--timeout", "2")
    screen.wait_for("00:00  waiting for the daemon at ws://localhost:10443: Connection refused")
    screen.wait_for("00:01  waiting for the daemon")
    assert screen.end() == 1
    assert "\x1b[Kvorbel-cli: No daemon at ws://localhost:10443 within 2 s" in screen.seen


def test_waiting_is_not_shown_where_a_terminal_cannot(terminal):
    screen = terminal("hello", "--timeout", "1", TERM="dumb")
    assert screen.end() == 1
    assert screen.seen.startswith("vorbel-cli: No daemon at ws://localhost:10443 within 1 s")


# Where output goes


@pytest.fixture(params=["hello", "watch", "watch --once 1", "schema check"])
def saying(request):
    """The words of commands that write to standard output."""
    words = request.param.split()
    return [*words, MACHINE] if words[0] == "schema" else [*words, "--schema", MACHINE]


def test_output_that_finds_no_room(machine, tool, saying):
    with open("/dev/full", "w") as full:
        process = tool.start(*saying, stdout=full)
        errors = process.communicate(timeout=20)[1]
    assert errors.splitlines()[-1] == "vorbel-cli: standard output: No space left on device"
    assert process.returncode == 1


def test_output_that_nobody_reads(machine, tool, saying):
    process = tool.start(*saying)
    process.stdout.close()
    assert process.wait(20) == 0
    assert not set(process.stderr.read().splitlines()) - {"vorbel-cli: hello: type unknown"}


def test_output_that_cannot_show_every_character(machine, tool):
    status, output, errors = tool("watch", "--schema", MACHINE, "--once", "3", PYTHONIOENCODING="ascii")
    assert (status, errors) == (0, "") and "5 \\xd7 \\u2026 " in output


def test_names_that_a_terminal_would_obey(bridge, tool, schema_file):
    schema = schema_file({"a\tb\x1b[2J": LEAF})
    process = tool.start("watch", "--schema", schema)
    bridge.daemon.wait_for("info Received schema: .*")
    bridge.say(5, 2, "05 00")
    assert process.stdout.readline().split("\t")[1:] == ["a\\tb\\x1b[2J", "5\n"]


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_watch_until_told_to_end(bridge, tool, number):
    process = tool.start("watch")
    process.stderr.readline()
    process.send_signal(number)
    assert process.communicate(timeout=10) == ("", "") and process.returncode == 0


# set, schema check


def test_set(bridge, tool):
    assert tool("set", "motor.setpoint", "-2", "--schema", MACHINE) == (0, "motor.setpoint = -2 sent: raw -2\n", "")
    assert bridge.heard() == [(5, 3, "fe ff")]


@pytest.mark.parametrize("path, value, message", [
    ("motor.enabled", "true", 'motor.enabled: is read-only, because its schema has "@asBool"'),
    ("motor.setpoint", "fast", 'motor.setpoint: takes a number, not "fast"'),
    ("motor.nosuch", "1", "motor.nosuch: does not exist in the schema"),
    ("motor.setpint", "1", 'motor.setpint: does not exist in the schema (did you mean "setpoint"?)'),
    ("motor", "1", 'motor: is a group of values, not a value: "speed", "current", "enabled", "setpoint"'),
    ("", "1", "the root: values are written as a map from names, not as a value of its own"),
    ("motor.setpoint", "9" * 400, "motor.setpoint: Infinity is outside of -32768 to 65535"),
    ("motor.setpoint", "[" * 9999, f'motor.setpoint: takes a number, not "{36 * "["}...'),
], ids=["read-only", "text", "unknown", "mistyped", "a group", "the root", "beyond any number", "nested without end"])
def test_set_refuses(bridge, tool, path, value, message):
    assert tool("set", path, value, "--schema", MACHINE) == (1, "", f"vorbel-cli: Not written: {message}\n")
    assert bridge.heard(timeout=0.2) == []


def test_set_without_a_schema_says_what_it_cannot_know(bridge, tool):
    assert tool("set", "motor.setpoint", "5") == (
        0, "motor.setpoint = 5 sent\n",
        "vorbel-cli: not checked: the daemon ignores what its schema does not have; --schema FILE sends one and "
        "checks\n")


def test_set_says_what_went_out(bridge, tool, schema_file):
    schema = schema_file({"volt": {**LEAF, "@factor": 100}})
    assert tool("set", "volt", "0.53", "--schema", schema) == (0, "volt = 0.53 sent: raw 53\n", "")
    assert tool("set", "volt", "0.539", "--schema", schema) == (0, "volt = 0.539 sent: raw 54, which is 0.54\n", "")
    assert bridge.heard(2) == [(5, 2, "35 00"), (5, 2, "36 00")]


@pytest.mark.parametrize("value, payload", [
    ("-5", "fb ff"), ("-1e3", "18 fc"), ("-1.5E+2", "6a ff"), ("-20e-1", "fe ff"),
])
def test_set_below_zero(bridge, tool, value, payload):
    assert tool("set", "motor.setpoint", value, "--schema", MACHINE)[0] == 0
    assert bridge.heard() == [(5, 3, payload)]


def test_set_without_the_check(bridge, tool):
    assert tool("set", "motor.nosuch", "1", "--no-check", "--schema", MACHINE)[0] == 0
    assert bridge.daemon.count('warning Key: "nosuch" does not exist in the schema') == 1


def test_schema_check(tool, schema_file):
    path = schema_file({"a": {**LEAF, "@skp": 1}, "b": {**LEAF, "@cmd": 3, "@format": "float"}, "c": LEAF})
    status, output, errors = tool("schema", "check", path)
    assert (status, errors) == (1, "")
    assert output.splitlines() == [
        'a: "@skp" is no option (did you mean "@skip"?); the daemon ignores it',
        'b: warning: only the first character of "@format" counts: "float" is "f"',
        "c: warning: overlaps a: both use bytes 0 to 1 of mac 5, cmd 2; written together, one destroys the other",
        f"{path}: 3 leaves on 2 endpoints, 1 error, 2 warnings",
    ]


def test_schema_check_of_a_good_one(tool):
    assert tool("schema", "check", MACHINE) == (0, f"{MACHINE}: 11 leaves on 5 endpoints, 0 errors, 0 warnings\n", "")


def test_one_is_not_many(tool, schema_file):
    path = schema_file({"a": {**LEAF, "@format": "short"}})
    assert tool("schema", "check", path)[1].splitlines()[-1] == f"{path}: 1 leaf on 1 endpoint, 0 errors, 1 warning"


def test_schema_that_is_no_json(tool, schema_file):
    path = schema_file("{")
    status, output, errors = tool("watch", "--schema", path)
    assert (status, output) == (1, "")
    assert errors == (f"vorbel-cli: The schema {path} was not sent:\n  the root: is no JSON: line 1, column 2: "
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


def test_values_have_the_digits_that_their_factor_justifies(bridge, tool, schema_file):
    schema = schema_file({"a": {**LEAF, "@factor": 10}, "b": {**LEAF, "@cmd": 3, "@factor": 10, "@flushSize": 2}})
    process = tool.start("watch", "--schema", schema)
    bridge.daemon.wait_for("info Received schema: .*")
    bridge.say(5, 2, "09 00")
    bridge.say(5, 3, "09 00", "14 00")
    lines = [process.stdout.readline().rstrip("\n").split("\t")[1:] for _ in range(2)]
    assert lines == [["a", "0.9"], ["b", "[0.9, 2.0]"]]


def test_watch_once_expects_the_digits_that_are_shown(bridge, tool, schema_file):
    schema = schema_file({"a": {**LEAF, "@factor": 10}})
    process = tool.start("watch", "--schema", schema, "--once", "1.5", "--expect", "a=0.9")
    bridge.daemon.wait_for("info Received schema: .*")
    for _ in range(2):  # what comes before all has been written is not compared
        bridge.say(5, 2, "09 00")
        time.sleep(0.3)
    output = process.communicate(timeout=20)[0]
    assert "\n  a  0.9  +0/s\n" in output and process.returncode == 0


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
    assert lines[-3] == "motor.setpoint = 1200 sent: raw 1200"
    assert lines[-2].startswith("expected motor.speed = 1200 ± 60: seen after ")
    assert lines[-1].startswith("expected motor.enabled = true: seen after ")
    assert (status, errors) == (0, "")


def test_watch_once_shows_what_the_filter_leaves(machine, tool):
    output = tool("watch", "--schema", MACHINE, "--once", "1.5", "--filter", "motor.s")[1]
    assert [line.split()[0] for line in output.splitlines()[3:]] == ["motor.speed"]


def test_watch_once_fails_without_values(bridge, tool):
    status, output, _ = tool("watch", "--schema", MACHINE, "--once", "0.5", "--set", "motor.setpoint=1")
    assert status == 1
    assert output.splitlines()[-1] == "values: 0 messages within 0.5 s, 0 paths"


@pytest.mark.parametrize("words", [("watch", "--once", "0.5"), ("watch",), ("record", "x.jsonl", "--for", "0.5"),
                                   ("plot", "a", "-o", "x.png", "--for", "0.5")], ids=" ".join)
@pytest.mark.parametrize("schema, doubt", [
    ((), "is a schema in force? --schema FILE sends one"),
    (("--schema", MACHINE), "does the schema name them?"),
], ids=["no schema", "schema"])
def test_silence_is_explained(bridge, tool, tmp_path, words, schema, doubt):
    process = tool.start(*(tmp_path / word if "." in word and word[0] == "x" else word for word in words), *schema)
    lines = iter(process.stderr.readline, "")
    assert f"vorbel-cli: no values came: do frames come, and {doubt}\n" in lines


def test_values_need_no_explanation(machine, tool):
    process = tool.start("watch", "--schema", MACHINE)
    time.sleep(4)
    process.send_signal(signal.SIGINT)
    assert process.communicate(timeout=10)[1] == "vorbel-cli: hello: type unknown\n"


@pytest.mark.parametrize("words, message", [
    (("--expect", "motor.sped=1"), 'motor.sped: does not exist in the schema as a value (did you mean "motor.speed"?) '
                                   "and cannot be expected"),
    (("--expect", "motor=1"), "motor: does not exist in the schema as a value"),
    (("--set", "motor.nosuch=1"), "Not written: motor.nosuch: does not exist in the schema"),
    (("--set", "motor.setpoint=1", "--set", "motor.enabled=1"), "Not written: motor.enabled: is read-only"),
], ids=["unknown", "a group", "set of unknown", "set of read-only"])
def test_watch_once_refuses_at_once_what_can_never_be(tool, words, message):
    """Without any daemon."""
    status, output, errors = tool("watch", "--once", "20", "--schema", MACHINE, *words)
    assert (status, output) == (1, "") and errors.startswith(f"vorbel-cli: {message}")


def test_watch_once_expects_anything_without_a_check(bridge, tool):
    status, output, _ = tool("watch", "--once", "0.3", "--schema", MACHINE, "--no-check", "--expect", "nosuch=1")
    assert status == 1 and output.endswith("expected nosuch = 1: NOT SEEN\n")


def test_watch_once_interrupted(machine, tool):
    process = tool.start("watch", "--schema", MACHINE, "--once", "20")
    machine.daemon.wait_for("info Received schema: .*")
    process.send_signal(signal.SIGINT)
    assert process.communicate(timeout=10) == ("", "") and process.returncode == 130


def test_watch_once_fails_when_the_expected_does_not_come(machine, tool):
    status, output, _ = tool("watch", "--schema", MACHINE, "--once", "2", "--expect", "motor.speed=5999")
    assert status == 1
    assert output.splitlines()[-1] == "expected motor.speed = 5999: NOT SEEN"


class Terminal:
    """The tool on a terminal of 30 lines."""

    def __init__(self, *words, columns=100, **environment):
        self.process, self._descriptor = pty.fork()
        if self.process == 0:
            fcntl.ioctl(0, termios.TIOCSWINSZ, struct.pack("4H", 30, columns, 0, 0))
            os.environ.update({"TERM": "xterm-256color", **environment})
            os.execv(TOOL, [TOOL, *map(str, words)])
        self.seen = ""

    def type(self, text):
        os.write(self._descriptor, text.encode())

    def wait_for(self, text, timeout=10):
        self.read_until(lambda: text in self.seen, repr(text), timeout)

    def read_until(self, condition, what, timeout=10):
        """A terminal that nobody reads makes the tool wait."""
        deadline = time.monotonic() + timeout
        while not condition():
            assert time.monotonic() < deadline and self._read(), f"{what} did not appear in {self.seen[-2000:]!r}"

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

    def start(*words, **options):
        running.append(Terminal(*words, **options))
        return running[-1]

    yield start
    for each in running:
        if each.process:
            os.kill(each.process, signal.SIGKILL)
            each.end()


def test_watch_on_a_terminal(bridge, terminal, schema_file):
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
    screen.wait_for('There is no command "nonsense": help lists them')
    screen.type("sett motor.setpoint 5\r")
    screen.wait_for('There is no command "sett" (did you mean "set"?): help lists them')
    screen.type("help\r")
    screen.wait_for("quit              ends")
    screen.seen = ""
    screen.type(f"schema {schema_file({'other': LEAF})}\r")
    screen.wait_for("no values yet")
    screen.wait_for("schema sent")
    bridge.say(5, 2, "05 00")
    screen.wait_for("other")
    screen.type("quit\r")
    assert screen.end() == 0
    assert screen.seen.endswith("\x1b[?1049l")  # the terminal is as it was


def test_what_is_only_for_writing_appears(bridge, terminal, tool, schema_file):
    packed = {**LEAF, "@format": "p", "@fragmentation": True}
    schema = schema_file({"text": packed, "value": {**LEAF, "@cmd": 3}})
    screen = terminal("watch", "--schema", schema, columns=60)
    screen.wait_for("no values yet")
    screen.wait_for("only for writing  ")
    screen.type('set text "a"\r')
    screen.wait_for('sent "a"')
    screen.type("quit\r")
    assert screen.end() == 0
    output = tool("watch", "--schema", schema, "--once", "0.3")[1]
    assert output.splitlines()[-1] == "  text  only for writing"


def test_what_was_written_and_does_not_come_appears(bridge, terminal, schema_file):
    screen = terminal("watch", "--schema", schema_file({"speed": LEAF, "setpoint": {**LEAF, "@cmd": 3}}), columns=60)
    screen.wait_for("no values yet")
    screen.type("set setpoint 12\r")
    assert bridge.heard() == [(5, 3, "0c 00")]
    screen.wait_for("sent 12  ")
    bridge.say(5, 3, "0b 00")
    screen.wait_for("setpoint   11 ")
    screen.type("set setpoint 13\r")
    screen.wait_for("setpoint = 13 sent")
    screen.type(f"schema {schema_file({'setpoint': LEAF})}\r")
    screen.wait_for("schema sent")
    screen.seen = ""
    screen.wait_for("no values yet")
    screen.type("quit\r")
    assert screen.end() == 0 and "sent 13 " not in screen.seen


def test_values_are_cut_before_paths(bridge, terminal, schema_file):
    path = "a" * 40
    schema = schema_file({path: {**LEAF, "@format": "C", "@flushSize": 60}})
    screen = terminal("watch", "--schema", schema, columns=80)
    bridge.daemon.wait_for("info Received schema: .*")
    bridge.say(5, 2, *["05"] * 60)
    screen.wait_for(f"{path}   ▁▁▁▁▁  60 ×")
    screen.type("quit\r")
    assert screen.end() == 0


def test_table_outlives_the_daemon(bridge, terminal):
    """Meanwhile nothing is written: nobody expects an old set point to take effect by itself."""
    screen = terminal("watch", "--schema", MACHINE)
    screen.wait_for("no values yet")
    bridge.stop()
    screen.wait_for("no connection to ws://localhost:10443")
    screen.wait_for("no connection: Connection refused; trying again")
    screen.type("set motor.setpoint 5\r")
    screen.wait_for("Not written: no connection")
    bridge.start()
    screen.read_until(lambda: bridge.daemon.count("info Received schema: .*"), "the schema", timeout=20)
    screen.wait_for("connected again")
    assert bridge.heard(timeout=0.2) == []
    bridge.say(12, 1, "01")
    screen.wait_for("door.open")
    screen.type("\x04")
    assert screen.end() == 0


def test_watch_says_that_the_schema_was_replaced(bridge, terminal, tool, schema_file):
    screen = terminal("watch", "--schema", MACHINE, columns=160)
    bridge.daemon.wait_for("info Received schema: .*")
    lines = tool.start("watch", "--schema", MACHINE).stderr
    bridge.daemon.wait_for("info Received schema: .*", count=2)
    assert tool("watch", "--schema", schema_file({"other": LEAF}), "--once", "0.3")[0] == 1
    bridge.say(5, 2, "01 00")
    told = ("another client has replaced the schema, which is not sent again by itself: a value comes that it does not "
            "have, other\n")
    assert [lines.readline(), lines.readline()] == ["vorbel-cli: hello: type unknown\n", f"vorbel-cli: {told}"]
    screen.wait_for(told.strip())
    screen.type("quit\r")
    assert screen.end() == 0


def test_title_stays_above_the_table(bridge, terminal, tool):
    screen = terminal("watch", "--title", "The page is at http://a")
    screen.wait_for("\x1b[H\x1b[1mThe page is at http://a\x1b[0m")
    screen.seen = ""
    screen.wait_for("\x1b[H\x1b[1mThe page is at http://a\x1b[0m")
    screen.type("quit\r")
    assert screen.end() == 0
    lines = tool.start("watch", "--title", "The page is at http://a").stderr
    assert lines.readline() == "vorbel-cli: The page is at http://a\n"


def test_title_of_several_lines_is_shown_whole(bridge, terminal, tool):
    title = "Two lines:\nhttp://" + "a" * 60 + "z"
    screen = terminal("watch", "--title", title, columns=60)
    screen.wait_for("Two lines:")
    screen.wait_for("http://" + "a" * 53)
    screen.wait_for("aaaaaaaz")
    screen.type("quit\r")
    assert screen.end() == 0
    lines = tool.start("watch", "--title", title).stderr
    assert [lines.readline() for _ in range(2)] == [f"vorbel-cli: {line}\n" for line in title.splitlines()]


def test_typed_lines_can_be_recalled_and_changed(bridge, terminal):
    screen = terminal("watch", "--schema", MACHINE)
    screen.wait_for("no values yet")
    screen.type("set motor.setpoint 5\r")
    assert bridge.heard() == [(5, 3, "05 00")]
    screen.type("\x1b[A\x1b[D1\r")
    assert bridge.heard() == [(5, 3, "0f 00")]
    screen.type("quit\r")
    assert screen.end() == 0


def test_line_longer_than_the_terminal_shows_its_end(bridge, terminal):
    screen = terminal("watch")
    screen.wait_for("unknown")
    screen.type("set a.path " + 200 * "7" + "890")
    screen.wait_for(93 * "7" + "890")
    screen.type("\x01")
    screen.wait_for("et a.path " + 60 * "7")
    screen.type("\x05\x15quit\r")
    assert screen.end() == 0


@pytest.mark.parametrize("number", [signal.SIGTERM, signal.SIGINT])
def test_terminal_is_given_back(bridge, terminal, number):
    screen = terminal("watch")
    screen.wait_for("unknown")
    os.kill(screen.process, number)
    assert screen.end() == 0
    assert screen.seen.endswith("\x1b[?1049l")


def test_without_rich_there_are_lines(bridge, terminal, missing):
    screen = terminal("watch", "--schema", MACHINE, **missing("rich"))
    screen.wait_for("plain lines instead of the live table, which needs rich: apt install python3-rich")
    bridge.daemon.wait_for("info Received schema: .*")
    bridge.say(12, 1, "01")
    screen.wait_for("  door.open  true\r\n")
    screen.type("\x03")
    assert screen.end() == 0


@pytest.mark.parametrize("columns, variables", [(100, {"TERM": "dumb"}), (40, {})], ids=["dumb", "narrow"])
def test_lines_where_the_table_cannot_be(bridge, terminal, columns, variables):
    screen = terminal("watch", "--schema", MACHINE, columns=columns, **variables)
    screen.wait_for("hello: type unknown")
    bridge.daemon.wait_for("info Received schema: .*")
    bridge.say(5, 2, "58 02 90 01 01")
    screen.wait_for("  motor.speed  600\r\n")
    screen.type("\x03")
    assert screen.end() == 0
    assert "\x1b" not in screen.seen.replace("\x1b[K", "") and max(map(len, screen.seen.splitlines())) <= columns


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
    assert "recorded 1 message," in process.communicate(timeout=10)[1]
    assert process.returncode == 0
    assert json.loads(file.read_text())["values"] == {"door": {"open": True}}


@pytest.mark.parametrize("words", [(), ("--for", "20")], ids=["nothing recorded", "before its time"])
def test_record_interrupted_before_it_did_its_work(bridge, tool, tmp_path, words):
    process = tool.start("record", tmp_path / "run.jsonl", "--schema", MACHINE, *words)
    bridge.daemon.wait_for("info Received schema: .*")
    if words:
        bridge.say(12, 1, "01")
        harness.wait_until(lambda: (tmp_path / "run.jsonl").read_text())
    process.send_signal(signal.SIGINT)
    assert f"recorded {'1 message,' if words else 'to'}" in process.communicate(timeout=10)[1]
    assert process.returncode == 130


def test_record_shows_its_progress_on_a_terminal(machine, terminal, tmp_path):
    screen = terminal("record", tmp_path / "run.csv", "--schema", MACHINE, "--for", "3")
    screen.wait_for(" MB, 1 file")
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


def test_record_tells_a_lost_connection_once(bridge, tool, tmp_path):
    file = tmp_path / "run.jsonl"
    process = tool.start("record", file, "--schema", MACHINE)
    bridge.daemon.wait_for("info Received schema: .*")
    bridge.stop()
    time.sleep(2)
    bridge.start()
    bridge.daemon.wait_for("info Received schema: .*", timeout=20)
    bridge.say(12, 1, "01")
    harness.wait_until(lambda: '"values"' in file.read_text())
    process.send_signal(signal.SIGTERM)
    errors = process.communicate(timeout=10)[1]
    entries = [json.loads(line) for line in file.read_text().splitlines()]
    assert [set(entry) for entry in entries] == [{"time", "disconnected"}, {"time", "values"}]
    assert errors.splitlines()[-2:] == [
        "vorbel-cli: connected again",
        f"vorbel-cli: recorded 1 message, {file.stat().st_size} bytes in 1 file at {file}"]


def test_record_outlives_a_silence_and_a_restart(bridge, tool, tmp_path):
    """As when machine and bridge are switched off for the night."""
    file = tmp_path / "run.jsonl"
    tool.start("record", file, "--schema", MACHINE)
    bridge.daemon.wait_for("info Received schema: .*")
    bridge.say(5, 2, *3 * ["58 02 90 01 01"])
    harness.wait_until(lambda: file.read_text().count('"values"') == 3)
    time.sleep(13)
    bridge.stop()
    bridge.start()
    bridge.daemon.wait_for("info Received schema: .*", timeout=20)


def test_record_of_nothing_leaves_nothing(tool, tmp_path):
    file = tmp_path / "run.csv"
    assert tool("record", file, "--timeout", "0.3") == (
        1, "", f"vorbel-cli: nothing was recorded to {file}\n"
               "vorbel-cli: No daemon at ws://localhost:10443 within 0.3 s: Connection refused\n")
    assert not file.exists()


def test_record_on_a_full_disk(machine, tool, tmp_path):
    file = tmp_path / "run.jsonl"
    file.symlink_to("/dev/full")
    status, output, errors = tool("record", file, "--append", "--schema", MACHINE)
    assert (status, output) == (1, "")
    assert errors.splitlines()[-1] == f"vorbel-cli: {file}: No space left on device"


@pytest.mark.parametrize("name", ["run.jsonl", "run.csv"])
def test_record_on_a_disk_that_fills_up_keeps_whole_lines(machine, tmp_path, name):
    file = tmp_path / name
    process = run_with_files_of(3000, "record", file, "--schema", MACHINE)
    assert process.returncode == 1
    assert process.stderr.splitlines()[-1] == f"vorbel-cli: {file}: File too large"
    text = file.read_text()
    assert 2000 < len(text) <= 3000 and text.endswith("\n")
    lines = text.splitlines()
    assert all(json.loads(line)["values"] for line in lines) if name == "run.jsonl" else (
        {line.count(",") for line in lines} == {3})


def test_record_on_a_disk_without_any_room(bridge, tmp_path):
    process = run_with_files_of(5, "record", tmp_path / "run.csv")
    assert (process.returncode, process.stderr) == (1, f"vorbel-cli: {tmp_path}/run.csv: File too large\n")
    assert list(tmp_path.glob("run*")) == []


def run_with_files_of(size, *words):
    """The tool where no file can have more bytes."""
    return subprocess.run(["prlimit", f"--fsize={size}", TOOL, *map(str, words)], stdin=subprocess.DEVNULL,
                          capture_output=True, text=True, timeout=30)


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
    file = tmp_path / "x.png"
    status, output, errors = tool("plot", "motor.speed", "battery.cells.a", "-o", file, "--for", "4",
                                  "--schema", MACHINE)
    assert (status, errors) == (0, "")
    assert output.startswith(f"{file}: ")
    picture = pyplot.imread(file)
    assert len({tuple(pixel) for row in picture for pixel in row}) > 20  # lines, grid, text


@pytest.mark.parametrize("suffix", ["jsonl", "csv"])
def test_plot_of_recordings(machine, tool, tmp_path, suffix):
    """Without the daemon that they are of."""
    files = [tmp_path / f"{name}.{suffix}" for name in "ab"]
    for file in files:
        assert tool("record", file, "--schema", MACHINE, "--for", "2")[0] == 0
    points = sum(text.count('"door"') if suffix == "jsonl" else text.count(",door.open,")
                 for text in (file.read_text() for file in files))
    machine.stop()
    picture = tmp_path / "x.png"
    status, output, errors = tool("plot", "door.open", "-o", picture, "--from", files[0], "--from", files[1],
                                  "--schema", MACHINE)
    assert (status, output, errors) == (0, f"{picture}: {points} points\n", "") and picture.exists()
    status, _, errors = tool("plot", "door.opened", "-o", picture, "--from", files[0])
    assert status == 1
    assert errors.startswith("vorbel-cli: no numbers came for door.opened; there were: ") and " door.open," in errors


def test_plot_of_a_recording_that_is_not_there(tool, tmp_path):
    file = tmp_path / "nosuch.csv"
    assert tool("plot", "a", "-o", tmp_path / "x.png", "--from", file) == (
        1, "", f"vorbel-cli: {file}: No such file or directory\n")


def test_plot_of_a_path_that_does_not_come(machine, tool, tmp_path):
    status, _, errors = tool("plot", "motor.spede", "-o", tmp_path / "x.png", "--for", "2", "--schema", MACHINE)
    assert status == 1 and not (tmp_path / "x.png").exists()
    assert errors.startswith("vorbel-cli: no numbers came for motor.spede; there were: ") and "motor.speed" in errors


@pytest.mark.parametrize("name, message", [
    ("x.txt", "says by its suffix what to draw: it must be one of .png, .svg, .pdf"),
    ("nosuch/x.png", "there is no such folder"),
], ids=["suffix", "folder"])
def test_plot_that_could_not_be_written_is_told_before_it_is_collected(tool, tmp_path, name, message):
    status, _, errors = tool("plot", "motor.speed", "-o", tmp_path / name)
    assert status == 1 and message in errors


def test_plot_on_a_full_disk(machine, tool, tmp_path):
    file = tmp_path / "x.png"
    file.symlink_to("/dev/full")
    status, _, errors = tool("plot", "motor.speed", "-o", file, "--for", "1", "--schema", MACHINE)
    assert (status, errors) == (
        1, f"vorbel-cli: The plot cannot be written to {file}: No space left on device\n")


@pytest.mark.parametrize("before", [None, b"older"], ids=["new", "older"])
def test_plot_on_a_disk_that_fills_up_leaves_what_was_there(machine, tmp_path, before):
    file = tmp_path / "x.png"
    if before:
        file.write_bytes(before)
    process = run_with_files_of(1000, "plot", "motor.speed", "-o", file, "--for", "1", "--schema", MACHINE)
    assert process.returncode == 1
    assert process.stderr.splitlines()[-1] == f"vorbel-cli: The plot cannot be written to {file}: File too large"
    assert [path.read_bytes() for path in tmp_path.glob("x*")] == ([before] if before else [])


def test_plot_of_names_that_look_like_formulas(bridge, tool, schema_file, tmp_path):
    process = tool.start("plot", "$x_{$", "日本", "-o", tmp_path / "x.png", "--for", "2", "--schema",
                         schema_file({"$x_{$": LEAF, "日本": {**LEAF, "@cmd": 3}}))
    bridge.daemon.wait_for("info Received schema: .*")
    bridge.say(5, 2, "05 00")
    bridge.say(5, 3, "05 00")
    assert process.communicate(timeout=20) == (f"{tmp_path}/x.png: 2 points\n", "")


def test_plot_without_matplotlib(tool, missing):
    status, _, errors = tool("plot", "motor.speed", "-o", "x.png", **missing("matplotlib"))
    assert (status, errors) == (1, "vorbel-cli: plot needs matplotlib: apt install python3-matplotlib\n")
