"""The frames of a bus as lines and logs of candump, and the schema that is put back."""

import re
import shutil
import signal
import subprocess
import time

import can
import pytest

from bridges import MACHINE
from vorbel.dump import Stamps, line, log_line
from vorbel.tap import BYTES, Frame, covering, frames_in

SENT = "info Received schema: .*"
NOTHING = re.escape("info Received schema: QJsonDocument({})")


# The formats


def test_a_line():
    assert line(Frame(0x123, bytes(range(8)))) == "  can0  123   [8]  00 01 02 03 04 05 06 07"
    assert line(Frame(0x001, b"\xab")) == "  can0  001   [1]  AB"
    assert line(Frame(0x7FF, b"\xde\xad"), "(1700000000.123456) ", "vcan1") == (
        " (1700000000.123456)  vcan1  7FF   [2]  DE AD")


def test_a_line_of_a_log():
    assert log_line(Frame(0x123, b"\xde\xad\xbe\xef"), 1700000000.123456) == "(1700000000.123456) can0 123#DEADBEEF"
    assert log_line(Frame(0x001, b"\x0a"), 5.5, "vcan1") == "(0000000005.500000) vcan1 001#0A"


@pytest.mark.parametrize("kind, stamps", [
    ("", ["", "", ""]),
    ("a", ["(1700000000.000000) ", "(1700000000.250000) ", "(1700000001.500000) "]),
    ("z", ["(000.000000) ", "(000.250000) ", "(001.500000) "]),
    ("d", ["(000.000000) ", "(000.250000) ", "(001.250000) "]),
])
def test_time_stamps(kind, stamps):
    each = Stamps(kind)
    assert [each.of(1700000000 + after) for after in (0, 0.25, 1.5)] == stamps


def test_time_stamps_with_the_date(monkeypatch):
    monkeypatch.setenv("TZ", "UTC-1")
    time.tzset()
    assert Stamps("A").of(1700000000.9999996) == "(2023-11-14 23:13:21.000000) "
    monkeypatch.undo()
    time.tzset()


def test_a_clock_that_is_put_back():
    stamps = Stamps("d")
    assert [stamps.of(when) for when in (10, 5, 6)] == ["(000.000000) ", "(000.000000) ", "(001.000000) "]


def test_the_log_reads_like_those_of_can_utils():
    """log2long is the reader that can-utils has for them."""
    if not shutil.which("log2long"):
        pytest.fail("log2long is missing: apt-get install can-utils")
    log = "".join(log_line(Frame(number, bytes(range(length))), 1700000000 + number) + "\n"
                  for number, length in ((0, 1), (0x7FF, 8), (0x123, 3)))
    read = subprocess.run(["log2long"], input=log, capture_output=True, text=True, check=True).stdout
    assert [line.split("'")[0].split() for line in read.splitlines()] == [
        ["(1700000000.000000)", "can0", "000", "[1]", "00"],
        ["(1700002047.000000)", "can0", "7FF", "[8]", *"00 01 02 03 04 05 06 07".split()],
        ["(1700000291.000000)", "can0", "123", "[3]", "00", "01", "02"]]


# The schema behind it


def test_every_node_and_command_is_covered():
    schema = covering()
    assert len(schema) == 2048 and all(len(group) == BYTES for group in schema.values())
    assert schema["7FF"]["3"] == {"@mac": 63, "@cmd": 31, "@format": "C", "@skip": 3}
    assert list(covering([5, 9], [2])) == ["085", "089"]


def test_frames_in_values():
    assert list(frames_in({"085": {"0": 1, "1": 255}})) == [Frame(0x085, b"\x01\xff")]
    assert (Frame(0x085, b"").node, Frame(0x085, b"").command) == (5, 2)


@pytest.mark.parametrize("values", [5, {"motor": {"0": 5}}, {"085": 5}, {"085": {"1": 5}}, {"085": {"0": 1.5}},
                                    {"085": {"0": 256}}, {"085": {"0": {"0": 1}}}, {"085": {}}])
def test_values_of_another_schema_are_no_frames(values):
    assert list(frames_in(values)) == []


# The command


@pytest.fixture
def dumping(bridge, tool):
    """dumping(WORD...) is `dump --yes` on a bus on which its schema is in force; that there was none is seen first."""
    def start(*words, **environment):
        process = tool.start("dump", "--yes", *words, **environment)
        bridge.daemon.wait_for(SENT, count=2)
        return process

    return start


def test_lines_on_standard_output(bridge, dumping):
    process = dumping("-n", "4")
    bridge.say(5, 2, "58 02 90", "00 01 02 03 04 05 06 07")
    bridge.say(63, 31, "ff")
    bridge.say(0, 0, "00")
    output, errors = process.communicate(timeout=20)
    assert output == ("  can0  085   [3]  58 02 90\n  can0  085   [8]  00 01 02 03 04 05 06 07\n"
                      "  can0  7FF   [1]  FF\n  can0  000   [1]  00\n")
    assert errors == "vorbel-cli: 4 frames\nvorbel-cli: the daemon has no schema now\n" and process.returncode == 0


def test_a_shorter_frame_has_nothing_of_a_longer_one_before(either_bridge, tool):
    process = tool.start("dump", "--yes", "-n", "3")
    either_bridge.daemon.wait_for(SENT, count=2)
    either_bridge.say(5, 2, "01 02 03 04 05 06 07 08", "", "09 0a", "0b 0c 0d 0e 0f 10 11")
    assert process.communicate(timeout=20)[0] == (
        "  can0  085   [8]  01 02 03 04 05 06 07 08\n  can0  085   [2]  09 0A\n"
        "  can0  085   [7]  0B 0C 0D 0E 0F 10 11\n")


def test_a_log_that_other_programs_read(bridge, dumping, tmp_path):
    log = tmp_path / "bus.log"
    before = time.time()
    process = dumping("-n", "3", "-l", log, "--interface", "vcan7")
    bridge.say(5, 2, "58 02")
    bridge.say(63, 31, "ff" * 8)
    bridge.say(1, 0, "0a")
    assert process.communicate(timeout=20)[0] == "" and process.returncode == 0
    assert re.fullmatch(r"(\(\d{10}\.\d{6}\) vcan7 [0-9A-F]{3}#([0-9A-F]{2})+\n){3}", log.read_text())
    messages = list(can.io.CanutilsLogReader(log))
    assert [(each.arbitration_id, bytes(each.data), each.channel, each.is_extended_id, each.is_remote_frame)
            for each in messages] == [(0x085, b"\x58\x02", "vcan7", False, False),
                                      (0x7FF, b"\xff" * 8, "vcan7", False, False),
                                      (0x001, b"\x0a", "vcan7", False, False)]
    assert before < messages[0].timestamp <= messages[-1].timestamp < time.time()


def test_a_log_is_replayed_as_it_was(bridge, dumping, tmp_path):
    log = tmp_path / "bus.log"
    process = dumping("-L", "-n", "2")
    bridge.say(5, 2, "58 02", "59")
    log.write_text(process.communicate(timeout=20)[0])
    assert [bytes(each.data) for each in can.io.CanutilsLogReader(log)] == [b"\x58\x02", b"\x59"]


def test_a_log_without_a_name_is_called_after_its_time(bridge, tool, tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    process = tool.start("dump", "--yes", "-l", "-n", "1")
    bridge.daemon.wait_for(SENT, count=2)
    bridge.say(5, 2, "58")
    process.communicate(timeout=20)
    (log,) = tmp_path.glob("candump-*.log")
    assert re.fullmatch(r"candump-\d{4}-\d{2}-\d{2}_\d{6}\.log", log.name)


def test_a_log_that_exists_is_not_touched(bridge, tool, tmp_path):
    log = tmp_path / "bus.log"
    log.write_text("precious")
    assert tool("dump", "--yes", "-l", log) == (1, "", f"vorbel-cli: {log} exists; name another file\n")
    assert log.read_text() == "precious" and bridge.daemon.count(SENT) == 0


def test_only_what_is_named(bridge, tool):
    process = tool.start("dump", "--yes", "--node", "5", "--node", "0x9", "--command", "2", "-n", "2")
    bridge.daemon.wait_for(SENT, count=2)
    bridge.say(5, 3, "01")
    bridge.say(6, 2, "02")
    bridge.say(9, 2, "03")
    bridge.say(5, 2, "04")
    assert process.communicate(timeout=20)[0] == "  can0  089   [1]  03\n  can0  085   [1]  04\n"


def test_nothing_came(bridge, tool, tmp_path):
    log = tmp_path / "bus.log"
    status, output, errors = tool("dump", "--yes", "--for", "0.3", "-l", log)
    assert (status, output) == (1, "") and not log.exists()
    assert errors.splitlines()[:2] == [
        "vorbel-cli: 0 frames", "vorbel-cli: no frames came: is the link up, and does anything talk on the bus?"]


def test_no_frame_of_a_thousand_a_second_is_lost(bridge, dumping, tmp_path):
    log = tmp_path / "bus.log"
    process = dumping("-l", log, "-n", "5000")
    started = time.monotonic()
    for number in range(5000):
        time.sleep(max(0, started + number / 1000 - time.monotonic()))
        bridge.say(number % 64, number // 64 % 32, f"{number:08x} 00 00")
    assert "5000 frames\n" in process.communicate(timeout=60)[1]
    assert [line.split()[2] for line in log.read_text().splitlines()] == [
        f"{number % 64 + 64 * (number // 64 % 32):03X}#{number:08X}0000" for number in range(5000)]


# Whose schema it is


@pytest.mark.parametrize("words", [("discover",), ("dump",)], ids=" ".join)
def test_nobody_is_there_to_be_asked(bridge, tool, words):
    status, _, errors = tool(*words)
    assert status == 2
    assert errors.endswith("error: this replaces the schema of all clients for a while: --yes agrees to that where "
                           "nobody can be asked\n")


@pytest.mark.parametrize("answer", ["\n", "n\n", "no\n"])
def test_whoever_does_not_agree_keeps_the_schema(bridge, terminal, answer):
    screen = terminal("dump")
    screen.wait_for("Go on? [y/N] ")
    assert "This replaces it by one for 2048 endpoints" in screen.seen
    screen.type(answer)
    assert screen.end() == 1 and "Nothing was sent" in screen.seen
    assert bridge.daemon.count(SENT) == 0


def test_whoever_agrees_sees_frames(bridge, terminal):
    screen = terminal("dump", "-n", "1", "--node", "5")
    screen.wait_for("Go on? [y/N] ")
    screen.type("y\n")
    bridge.daemon.wait_for(SENT, count=2)
    bridge.say(5, 2, "58 02")
    screen.wait_for("  can0  085   [2]  58 02\r\n")
    assert screen.end() == 0


def test_whoever_is_asked_can_interrupt(bridge, terminal):
    screen = terminal("dump")
    screen.wait_for("Go on? [y/N] ")
    screen.type("\x03")
    assert screen.end() == 130 and bridge.daemon.count(SENT) == 0


def is_restored(bridge):
    """The machine's schema holds again: whoever connects now gets the motor's values."""
    last = [line for line in bridge.daemon.lines() if line.startswith("info Received schema")][-1]
    return "setpoint" in last


def test_the_former_schema_is_put_back(bridge, dumping):
    process = dumping("--restore", MACHINE, "-n", "1")
    bridge.say(5, 2, "58 02")
    assert process.communicate(timeout=20)[1].endswith(f"vorbel-cli: the schema {MACHINE} is in force again\n")
    assert is_restored(bridge)


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
@pytest.mark.parametrize("seen", [True, False], ids=["after a frame", "before any"])
def test_the_former_schema_is_put_back_at_a_signal(bridge, dumping, number, seen):
    process = dumping("--restore", MACHINE)
    if seen:
        bridge.say(5, 2, "58 02")
        assert process.stdout.readline() == "  can0  085   [2]  58 02\n"
    for _ in range(3):  # somebody impatient
        process.send_signal(number)
    process.communicate(timeout=20)
    assert is_restored(bridge) and process.returncode == (0 if seen else 130)


def test_the_former_schema_is_put_back_when_nobody_reads_the_lines(bridge, dumping):
    process = dumping("--restore", MACHINE)
    process.stdout.close()
    bridge.say(5, 2, "58 02", "58 03")
    assert process.wait(20) == 0
    process.stderr.read()
    assert is_restored(bridge)


def test_the_former_schema_is_put_back_to_a_daemon_that_was_restarted(bridge, dumping):
    process = dumping("--restore", MACHINE)
    bridge.stop()
    bridge.start()
    bridge.daemon.wait_for(SENT)  # nothing came, so that it has none
    process.send_signal(signal.SIGTERM)
    process.communicate(timeout=20)
    assert is_restored(bridge)


def test_a_schema_that_cannot_be_put_back_is_told(bridge, dumping):
    process = dumping("--restore", MACHINE, "--timeout", "0.5", "--for", "1.5")
    bridge.stop()
    errors = process.communicate(timeout=20)[1]
    assert process.returncode == 1
    assert "The schema was not put back, and the daemon may still have the one of this command: " in errors


def test_a_schema_that_would_not_be_sent_is_refused_before(bridge, tool, schema_file):
    broken = schema_file({"a": {"@mac": 5}})
    status, _, errors = tool("dump", "--yes", "--restore", broken)
    assert status == 1 and errors.startswith(f"vorbel-cli: The schema {broken} was not sent:\n")
    assert bridge.daemon.count(SENT) == 0


def test_another_clients_schema_stays(bridge, dumping, tool, schema_file):
    process = dumping("--restore", MACHINE)
    other = tool.start("watch", "--plain", "--schema", schema_file({"theirs": {"@mac": 5, "@cmd": 2, "@format": "C"}}))
    bridge.daemon.wait_for(SENT, count=3)
    bridge.say(5, 2, "58")
    errors = process.communicate(timeout=20)[1]
    assert "another client has replaced the schema" in errors
    assert errors.endswith("vorbel-cli: another client has sent a schema meanwhile, which stays in force\n")
    assert bridge.daemon.count(SENT) == 3
    other.kill()


def test_a_busy_bus_under_another_schema_is_not_taken_for_another_client(bridge, tool, schema_file):
    """What was on its way under the former schema comes behind the new one's confirmation."""
    other = tool.start("watch", "--plain", "--schema", schema_file({"theirs": {"@mac": 5, "@cmd": 2, "@format": "C"}}))
    bridge.daemon.wait_for(SENT)
    process = tool.start("dump", "--yes", "-n", "10")
    while process.poll() is None:
        bridge.say(5, 2, *["58"] * 100)
    assert process.communicate()[0] == "  can0  085   [1]  58\n" * 10
    other.kill()
