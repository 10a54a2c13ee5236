import pytest

import harness
from hardware import adapter, bus  # noqa: F401


def pytest_collection_modifyitems(config, items):
    """Under sanitizers, tests of memory and time are left out, and the run says so."""
    if harness.SANITIZED:
        out = [item for item in items if item.get_closest_marker("plain_build_only")]
        config.hook.pytest_deselected(items=out)
        items[:] = [item for item in items if item not in out]


@pytest.fixture
def start_daemon(tmp_path):
    """start_daemon(VARIABLE=value, ...) runs a daemon until the test ends; `listening=False` does not wait."""
    running = []

    def start(listening=True, **environment):
        daemon = harness.Daemon(tmp_path, environment)
        running.append(daemon)
        if listening:
            daemon.wait_listening()
        return daemon

    yield start
    for daemon in running:
        daemon.stop()


@pytest.fixture
def daemon(start_daemon):
    """A daemon without a CAN link."""
    return start_daemon(VORBEL_SOURCE="none")
