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
    origin, *entries = [json.loads(line) for line in file.read_text().splitlines()]
    assert (status, output) == (0, "") and len(entries) > 10
    assert origin == {"time": entries[0]["time"], "recording": {
        "address": "ws://localhost:10443", "hello": {"type": "unknown"}, "schema": json.loads(MACHINE.read_text())}}
    assert errors == f"vorbel-cli: recorded {len(entries)} messages, {file.stat().st_size} bytes in 1 file at {file}\n"
    assert all(set(entry) - {"meant"} == {"time", "values"} for entry in entries)
    assert {entry["meant"]["motor.enabled"] for entry in entries if "motor" in entry["values"]} <= {"on", "off"}
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
        assert rows and set(rows[0]) == {"time", "path", "index", "value", "unit", "label"}
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
    assert json.loads(file.read_text().splitlines()[1])["values"] == {"door": {"open": True}}


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
    screen = terminal("record", tmp_path / "run.csv", "--schema", MACHINE, "--for", "8")
    screen.wait_for(" MB, 1 file")
    assert screen.end() == 0
    assert "\x1b[Kvorbel-cli: recorded " in screen.seen  # in place of the progress


def test_record_keeps_what_cannot_be_decoded(bridge, tool, schema_file, tmp_path):
    schema = schema_file({"bad": {**LEAF, "@format": "c", "@flushSize": 1}})
    process = tool.start("record", tmp_path / "run.jsonl", "--for", "1.5", "--no-check", "--schema", schema)
    bridge.daemon.wait_for("info Received schema: .*")
    bridge.say(5, 2, "07")
    process.communicate(timeout=10)
    entry = json.loads((tmp_path / "run.jsonl").read_text().splitlines()[1])
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
    assert [set(entry) for entry in entries] == [{"time", "recording"}, {"time", "disconnected"},
                                                 {"time", "values", "meant"}]
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
    assert all(json.loads(line)["values"] for line in lines[1:]) if name == "run.jsonl" else (
        {line.count(",") for line in lines} == {5})


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


def test_record_begins_each_file_with_its_origin(bridge, tool, schema_file, tmp_path):
    process = tool.start("record", tmp_path / "run.jsonl", "--max-size", "1", "--schema", schema_file({"a": LEAF}))
    bridge.daemon.wait_for("info Received schema: .*")
    for number in range(3):
        bridge.say(5, 2, f"0{number} 00")
    harness.wait_until((tmp_path / "run.2.jsonl").exists)
    process.send_signal(signal.SIGINT)
    process.communicate(timeout=10)
    for number, name in enumerate(("run.1", "run.2", "run")):
        origin, values = map(json.loads, (tmp_path / f"{name}.jsonl").read_text().splitlines())
        assert origin["recording"]["schema"] == {"a": LEAF} and values["values"] == {"a": number}


def test_record_does_not_name_a_schema_that_it_does_not_know(bridge, tool, schema_file, tmp_path):
    """It sent none, or another client has replaced it."""
    file = tmp_path / "run.jsonl"
    process = tool.start("record", file, "--schema", schema_file({"a": LEAF}))
    bridge.daemon.wait_for("info Received schema: .*")
    bridge.say(5, 2, "01 00")
    harness.wait_until(lambda: file.exists() and '"values"' in file.read_text())
    tool("watch", "--once", "0.1", "--schema", schema_file({"b": LEAF}))
    bridge.say(5, 2, "01 00")
    bridge.say(5, 2, "02 00")
    harness.wait_until(lambda: file.read_text().count('"b"') == 2)
    tool("hello")  # all are greeted again
    bridge.say(5, 2, "03 00")
    harness.wait_until(lambda: file.read_text().count('"b"') == 3)
    process.send_signal(signal.SIGINT)
    process.communicate(timeout=10)
    origins = [entry["recording"] for entry in map(json.loads, file.read_text().splitlines()) if "recording" in entry]
    assert [origin.get("schema") for origin in origins] == [{"a": LEAF}, None]


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
    points = sum(text.count('"values":{"door"') if suffix == "jsonl" else text.count(",door.open,")
                 for text in (file.read_text() for file in files))
    machine.stop()
    picture = tmp_path / "x.png"
    status, output, errors = tool("plot", "door.open", "-o", picture, "--from", files[0], "--from", files[1],
                                  "--schema", MACHINE)
    assert (status, output, errors) == (0, f"{picture}: {points} points\n", "") and picture.exists()
    status, _, errors = tool("plot", "door.opened", "-o", picture, "--from", files[0])
    assert status == 1
    assert errors.startswith("vorbel-cli: no numbers came for door.opened; there were: ") and " door.open," in errors


def test_plot_of_a_recording_knows_its_schema(tool, tmp_path):
    """Units and scales come from the file, and of files with other schemas each has its own."""
    files = []
    for scale in (2, 3):
        files.append(tmp_path / f"{scale}.jsonl")
        origin = {"time": 1, "recording": {"schema": {"a": {**LEAF, "scale": scale, "unit": "km"}}}}
        files[-1].write_text("".join(json.dumps(entry) + "\n" for entry in (
            origin, {"time": 1, "values": {"a": 10}}, {"time": 2, "values": {"a": 20}})))
    picture = tmp_path / "x.svg"
    words = [word for file in files for word in ("--from", file)]
    assert tool("plot", "a", "-o", picture, *words) == (0, f"{picture}: 4 points\n", "")
    text = picture.read_text()
    assert "<!-- 60 -->" in text and "km" in text and "<!-- 40 -->" in text
    schema = tmp_path / "given.json"
    schema.write_text(json.dumps({"a": {**LEAF, "unit": "mm"}}))
    tool("plot", "a", "-o", picture, *words, "--schema", schema)
    assert "mm" in picture.read_text() and "<!-- 60 -->" not in picture.read_text()


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
