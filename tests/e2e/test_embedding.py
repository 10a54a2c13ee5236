"""Main in a program other than the daemon."""

import os
import subprocess

import harness

# What is asked of the adapter from its opening on; the baud rates have tests of their own.
OPENED = ["open", "rts 1", "dtr 0"]


def run(adapter, deed):
    """Lets the program do it, and returns what that did to the adapter."""
    program = harness.BUILD / "tests" / "e2e" / "vorbel_embedder"
    subprocess.run([program, deed], env={**os.environ, **adapter.plug().env()}, timeout=20, check=True)
    events = [event for event in adapter.history() if not event.name.startswith("baud")]
    return [f"{event.name} {event.value}" if event.name in ("rts", "dtr") else event.name for event in events]


def test_closing_lowers_dtr_and_leaves_a_port_that_opens_again(adapter):
    assert run(adapter, "close") == OPENED + ["dtr 1"] + ["dtr 0", "close"] + OPENED + ["close"]


def test_deleted_before_dtr_is_raised(adapter):
    assert run(adapter, "delete") == OPENED + ["close"]
