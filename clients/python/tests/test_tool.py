"""The terminal tool against the daemon, as a person or a script runs it: what all commands share, hello, set and
schema check."""

import base64
import signal
import socket

import pytest

import vorbel
from bridges import MACHINE

LEAF = {"@mac": 5, "@cmd": 2, "@format": "s"}


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
    ("motor.setpoint", "9" * 400, "motor.setpoint: takes at least -6000 and at most 6000, not Infinity"),
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
