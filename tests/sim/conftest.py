"""The probe program, stock Qt on virtual hardware, with time limits on everything it says."""

import os
import pathlib
import select
import subprocess
import time

import pytest
from vorbelsim import build

PROJECT = pathlib.Path(__file__).resolve().parents[2]


class Probe:
    def __init__(self, env, *arguments):
        program = build.build_dir() / "tests" / "sim" / "vorbel_sim_probe"
        self.process = subprocess.Popen([program, *arguments], env={**os.environ, **env}, stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self._said = b""

    def tell(self, order):
        self.process.stdin.write(order.encode() + b"\n")
        self.process.stdin.flush()

    def line(self, timeout=10):
        """The next line it says."""
        deadline = time.monotonic() + timeout
        while b"\n" not in self._said:
            left = max(0, deadline - time.monotonic())
            assert select.select([self.process.stdout], (), (), left)[0], "the probe says nothing"
            said = os.read(self.process.stdout.fileno(), 65536)
            assert said, "the probe ended: " + self.process.stderr.read().decode()
            self._said += said
        line, _, self._said = self._said.partition(b"\n")
        return line.decode()

    def line_after(self, prefix, timeout=10):
        """The next line that begins so; others are passed over."""
        deadline = time.monotonic() + timeout
        while True:
            line = self.line(deadline - time.monotonic())
            if line.startswith(prefix):
                return line

    def ask(self, order):
        self.tell(order)
        return self.line_after(order)

    def finish(self):
        """All lines and the errors it ends with by itself."""
        out, errors = self.process.communicate(timeout=20)
        return (self._said + out).decode().splitlines(), errors.decode()

    def end(self):
        self.process.kill()
        self.process.communicate()


@pytest.fixture
def probe():
    """probe(env, arguments...) starts one; all are ended with the test."""
    probes = []

    def start(env, *arguments):
        probes.append(Probe(env, *arguments))
        return probes[-1]

    yield start
    for each in probes:
        each.end()
