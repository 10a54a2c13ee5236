"""The terminal tool's watch, piped, once and as a table on a terminal."""

import os
import signal
import time

import pytest

from bridges import MACHINE

LEAF = {"@mac": 5, "@cmd": 2, "@format": "s"}


def test_watch_piped(bridge, tool):
    process = tool.start("watch", "--schema", MACHINE, "--filter", "motor")
    assert process.stderr.readline() == "vorbel-cli: hello: type unknown\n"
    bridge.daemon.wait_for("info Received schema: .*")
    bridge.say(12, 1, "01")
    bridge.say(5, 2, "58 02 90 01 01")
    lines = [process.stdout.readline().rstrip("\n").split("\t") for _ in range(3)]
    assert [line[1:] for line in lines] == [["motor.current", "4.0", "A"], ["motor.enabled", '"on"'],
                                            ["motor.speed", "600", "rpm"]]
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
    screen.wait_for("  door.open  open\r\n")
    screen.type("\x03")
    assert screen.end() == 0


@pytest.mark.parametrize("columns, variables", [(100, {"TERM": "dumb"}), (40, {})], ids=["dumb", "narrow"])
def test_lines_where_the_table_cannot_be(bridge, terminal, columns, variables):
    screen = terminal("watch", "--schema", MACHINE, columns=columns, **variables)
    screen.wait_for("hello: type unknown")
    bridge.daemon.wait_for("info Received schema: .*")
    bridge.say(5, 2, "58 02 90 01 01")
    screen.wait_for("  motor.speed  600 rpm\r\n")
    screen.type("\x03")
    assert screen.end() == 0
    assert "\x1b" not in screen.seen.replace("\x1b[K", "") and max(map(len, screen.seen.splitlines())) <= columns
