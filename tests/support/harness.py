"""The running daemon, as a test sees it: a process, its log, and clients nobody here wrote."""

import asyncio
import contextlib
import itertools
import os
import pathlib
import re
import resource
import signal
import socket
import subprocess
import time

import websockets

PORT = 10443
URI = f"ws://127.0.0.1:{PORT}"
BUILD = pathlib.Path(os.environ["VORBEL_BUILD_DIR"])
SANITIZED = bool(os.environ.get("VORBEL_SANITIZED"))
TICK = 1.0  # seconds between two supervision ticks
LOOKS, BETWEEN_LOOKS = 30, 0.01  # seconds; together more than a search for adapters takes, and less than a tick


def pytest_collection_modifyitems(items):
    """For a conftest: under sanitizers, tests of memory and time are skipped, and the run says so."""
    for item in items:
        if SANITIZED and item.get_closest_marker("plain_build_only"):
            item.add_marker("skip")


def wait_until(condition, timeout=10.0, what="the condition"):
    """Polls until condition() is true and returns its value; fails the test after `timeout` seconds."""
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        assert time.monotonic() < deadline, f"waited {timeout} s for {what}"
        time.sleep(0.01)


async def eventually(condition, timeout=10.0, what="the condition"):
    """The same, leaving the event loop to the test's clients meanwhile."""
    deadline = time.monotonic() + timeout
    while True:
        value = condition()
        if value:
            return value
        assert time.monotonic() < deadline, f"waited {timeout} s for {what}"
        await asyncio.sleep(0.01)


class Daemon:
    """One run of the daemon. Its log lines begin with their level: "info Connection closed ..."."""

    def __init__(self, folder, environment, tracer=()):
        """`tracer` is the beginning of a command that runs the daemon in its own process."""
        self.log_path = folder / f"vorbel-{time.monotonic_ns()}.log"
        # LD_PRELOAD libraries of the virtual hardware come before the sanitizer's runtime.
        sanitizer = "verify_asan_link_order=0:detect_leaks=0:abort_on_error=0"
        inherited = {k: v for k, v in os.environ.items() if not k.startswith("VORBEL_")}
        self.environment = {
            **inherited,
            "QT_MESSAGE_PATTERN": "%{type} %{message}",
            "LC_ALL": "C.UTF-8",
            **environment,
        }
        self.environment["ASAN_OPTIONS"] = ":".join(
            filter(None, [self.environment.get("ASAN_OPTIONS"), sanitizer]))
        self.started = time.monotonic()
        with open(self.log_path, "wb") as log:
            self.process = subprocess.Popen([*tracer, BUILD / "vorbel"], env=self.environment, stdin=subprocess.DEVNULL,
                                            stdout=log, stderr=log)
        self.pid = self.process.pid

    def lines(self):
        return self.log_path.read_text(errors="replace").splitlines()

    def count(self, pattern):
        """How many log lines match the regular expression as a whole."""
        return sum(1 for line in self.lines() if re.fullmatch(pattern, line))

    def wait_for(self, pattern, count=1, timeout=10.0):
        wait_until(lambda: self.count(pattern) >= count or not self.alive(), timeout, f"{count} x {pattern!r}")
        assert self.count(pattern) >= count, f"the daemon ended:\n{self.log_path.read_text(errors='replace')}"

    def wait_listening(self, timeout=10.0):
        def answers():
            assert self.alive(), self.log_path.read_text(errors="replace")
            with socket.socket() as probe:
                return probe.connect_ex(("127.0.0.1", PORT)) == 0

        wait_until(answers, timeout, "the daemon to listen")

    def alive(self):
        return self.process.poll() is None

    def status(self, field):
        """A memory field of /proc/PID/status, in MiB: VmRSS now, VmHWM at its peak."""
        text = pathlib.Path(f"/proc/{self.pid}/status").read_text()
        return int(re.search(rf"^{field}:\s+(\d+) kB", text, re.M)[1]) / 1024

    def reset_peak(self):
        pathlib.Path(f"/proc/{self.pid}/clear_refs").write_text("5")

    def descriptors(self):
        """How many it keeps open. The least of several looks: each tick opens and closes some while it searches."""
        def count():
            time.sleep(BETWEEN_LOOKS)
            return len(os.listdir(f"/proc/{self.pid}/fd"))

        return min(count() for _ in range(LOOKS))

    def highest_descriptor(self):
        return max(map(int, os.listdir(f"/proc/{self.pid}/fd")))

    def take_descriptors_away(self):
        """From now on it cannot open anything; what it has open stays."""
        taken = set(map(int, os.listdir(f"/proc/{self.pid}/fd")))
        first_free = next(number for number in itertools.count() if number not in taken)
        resource.prlimit(self.pid, resource.RLIMIT_NOFILE, (first_free, first_free))

    def cpu_seconds(self):
        fields = pathlib.Path(f"/proc/{self.pid}/stat").read_text().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def stop(self):
        """Ends the daemon from outside, the only way it ends, and fails if it had ended by itself."""
        ended_by_itself = self.process.poll()
        if ended_by_itself is None:
            self.process.terminate()
            self.process.wait(10)
        log = self.log_path.read_text(errors="replace")
        assert ended_by_itself is None, f"the daemon ended by itself, status {ended_by_itself}:\n{log}"
        assert self.process.returncode == -signal.SIGTERM
        for mark in ("ERROR: AddressSanitizer", "runtime error:", "ERROR: LeakSanitizer"):
            assert mark not in log, log


def connect(uri=URI, **options):
    """A WebSocket client that takes messages of any size and sends no pings of its own."""
    return websockets.connect(uri, max_size=None, compression=None, ping_interval=None, **options)


async def receive(client, timeout=5.0):
    return await asyncio.wait_for(client.recv(), timeout)


async def silent(client, seconds=0.3):
    """True when nothing arrives for a while."""
    with contextlib.suppress(asyncio.TimeoutError):
        await asyncio.wait_for(client.recv(), seconds)
        return False
    return True


async def round_trip(client):
    """Returns once the daemon has handled everything that `client` sent before."""
    await asyncio.wait_for(await client.ping(), 10)
