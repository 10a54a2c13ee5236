import pytest

import harness
from hardware import adapter, bus  # noqa: F401
from harness import pytest_collection_modifyitems  # noqa: F401


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
