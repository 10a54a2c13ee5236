"""The terminal tool's record and plot."""

import csv
import json
import signal
import subprocess
import time

import harness
import pytest
from matplotlib import pyplot

from bridges import MACHINE, TOOL

LEAF = {"@mac": 5, "@cmd": 2, "@format": "s"}


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
