"""The page for electricians: its tables and records against the protocol, its first steps on a virtual adapter."""

import os
import pathlib
import re
import subprocess
import time

import documents
import pytest
from vorbelsim import vek

PROJECT = pathlib.Path(__file__).parents[2]
PAGE = PROJECT / "docs" / "wiring.md"
TOOL = PROJECT / "clients" / "python" / "vorbel-cli"
SIMULATION = ["/usr/bin/python3", PROJECT / "sim" / "simulated_bus.py"]


def blocks():
    return [re.sub("^   ", "", block, flags=re.M)
            for block in re.findall(r"^ *```\w*\n(.*?)^ *```$", PAGE.read_text(), re.M | re.S)]


def test_identifiers():
    rows = documents.tables(PAGE, "What is on the bus")[2:]
    assert len(rows) == 4
    for node, command, identifier in rows:
        assert int(identifier, 16) == int(node) + 64 * int(command)


def test_the_record():
    node, command, payload, record = re.search(
        r"frame of node (\d+), command (\d+) with the payload `([^`]+)` is `([^`]+)`", PAGE.read_text()).groups()
    assert vek.record(int(node), int(command), bytes.fromhex(payload)) == bytes.fromhex(record)
    assert vek.record(0, 0, b"") == bytes(11)


@pytest.mark.parametrize("case, figure, said", [
    ("service/rss", "idle MB", r"takes (\d+) MB"),
    ("service/broadcast/1 clients/line rate", "% of a core", r"one client costs (\d+) %"),
    ("service/broadcast/10 clients/line rate", "% of a core", r"ten clients (\d+) %")])
def test_figures(case, figure, said):
    (value,) = (row[2] for row in documents.tables(PROJECT / "docs" / "performance.md", "The table")
                if row[:2] == [case, figure])
    assert int(re.search(said, PAGE.read_text().replace("\n", " "))[1]) == round(float(value))


@pytest.fixture
def machine(tmp_path):
    """The simulated machine on a virtual adapter, and a daemon that has found it."""
    log = tmp_path / "log"
    environment = subprocess.run([*SIMULATION, "--adapter", tmp_path, "--env"], capture_output=True, text=True,
                                 check=True).stdout
    program = pathlib.Path(os.environ["VORBEL_BUILD_DIR"]) / "vorbel"
    started = [subprocess.Popen([*SIMULATION, "--adapter", tmp_path, "--quiet"]),
               subprocess.Popen(["sh", "-c", f"{environment}\nexec {program} 2>{log}"])]
    try:
        wait_for_adapter(log)
        yield
    finally:
        for process in started:
            process.terminate()
            process.wait(10)


def wait_for_adapter(log):
    deadline = time.monotonic() + 30
    while not log.exists() or 'for device "VEK' not in log.read_text():
        assert time.monotonic() < deadline, log.read_text()
        time.sleep(0.1)


def test_the_first_steps(machine, tmp_path):
    (schema,) = (block for block in blocks() if block.startswith("{"))
    (tmp_path / "first.schema.json").write_text(schema)
    commands = re.findall(r"^vorbel-cli (.*)$", "\n".join(blocks()), re.M)
    assert [command.split()[0] for command in commands] == ["hello", "schema", "watch", "set"]
    said = [subprocess.run([TOOL, *command.split()], cwd=tmp_path, capture_output=True, text=True)
            for command in commands]
    assert [run.returncode for run in said] == [0] * 4, said
    assert "motor.speed" in said[2].stdout and "raw 600" in said[3].stdout + said[3].stderr
