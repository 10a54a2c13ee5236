import json
import os
import signal
import subprocess

import pytest

from bridges import PROJECT, TOOL, Bridge, SerialBridge
from screen import Terminal


@pytest.fixture
def bridge(tmp_path):
    """Started, with its bus connected."""
    running = Bridge(tmp_path)
    try:
        yield running.start()
    finally:
        running.stop()
        running.can.stop()


@pytest.fixture
def serial_bridge(tmp_path):
    """Started, with its adapter opened."""
    running = SerialBridge(tmp_path)
    try:
        yield running.start()
    finally:
        running.stop()
        running.unplug()


@pytest.fixture(params=["bridge", "serial_bridge"])
def either_bridge(request):
    """On the one link and on the other."""
    return request.getfixturevalue(request.param)


@pytest.fixture
def schema_file(tmp_path):
    def write(schema):
        path = tmp_path / "test.schema.json"
        path.write_text(schema if isinstance(schema, str) else json.dumps(schema))
        return path

    return write


@pytest.fixture
def tool():
    """tool(WORD...) runs the tool to its end: (status, output, errors). tool.start(WORD...) leaves it running.

    Both take variables of its environment as keywords. Its output is buffered as a person's is.
    """
    running = []
    inherited = {name: value for name, value in os.environ.items() if name != "PYTHONUNBUFFERED"}

    def start(*words, stdout=subprocess.PIPE, **environment):
        running.append(subprocess.Popen([TOOL, *map(str, words)], stdin=subprocess.DEVNULL, stdout=stdout,
                                        stderr=subprocess.PIPE, text=True, env={**inherited, **environment}))
        return running[-1]

    def run(*words, **environment):
        process = start(*words, **environment)
        output, errors = process.communicate(timeout=30)
        return process.returncode, output, errors

    run.start = start
    yield run
    for process in running:
        process.kill()
        process.communicate()


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
