#!/usr/bin/python3
"""Measures the running daemon beside its peers: the same records in, a message per record to every client out.

    service_bench.py BUILD_DIR CASE... [--seconds S]

Peers, all in the same interleaved run: a minimal Qt program that reads the adapter and sends ready-made bytes, a
raw epoll server, and a bridge in Python. CPU is the process's own, per record; a lost message fails the run.
"""

import contextlib
import json
import os
import pathlib
import re
import selectors
import signal
import socket
import statistics
import struct
import subprocess
import sys
import tempfile
import time

import msgpack

PROJECT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(PROJECT / "sim"), str(PROJECT / "bench")]
import cases  # noqa: E402
import counting  # noqa: E402
from vorbelsim import vek  # noqa: E402
from vorbelsim.adapter import VirtualAdapter  # noqa: E402

PORT = 10443
LINE_RATE = 9090  # records a second at 1,000,000 baud
BURST = 9  # records in a millisecond
VALUE = {"motor": {"current": 700, "enabled": 1, "speed": -1200}}
MESSAGE = msgpack.packb(VALUE)
RECORD = vek.record(5, 2, struct.pack("<hHB", -1200, 700, 1))
SCHEMA = {"motor": {name: {"@mac": 5, "@cmd": 2, "@format": code, "@skip": skip}
                    for name, code, skip in (("speed", "s", 0), ("current", "S", 2), ("enabled", "C", 4))}}
REQUEST = (b"GET / HTTP/1.1\r\nHost: bench\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
           b"Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n")
PONG = b"\x8a\0"
FRAME = b"\x82" + bytes([len(MESSAGE)]) + MESSAGE


def client_frame(opcode, payload):
    """A masked frame whose mask is zero."""
    short = len(payload) < 126  # control frames have to be
    length = bytes([0x80 | len(payload)]) if short else b"\xfe" + struct.pack(">H", len(payload))
    return bytes([0x80 | opcode]) + length + bytes(4) + payload


class Clients:
    """Raw WebSocket clients that count the messages they get; reading them costs next to nothing."""

    def __init__(self, count):
        self.selector = selectors.DefaultSelector()
        self.sockets = []
        self.rest = {}
        self.received = {}
        for _ in range(count):
            sock = socket.create_connection(("127.0.0.1", PORT))
            sock.sendall(REQUEST)
            self.sockets.append(sock)
            self.rest[sock] = b""
            self.received[sock] = 0
            self.selector.register(sock, selectors.EVENT_READ)
        self.drain(0.5)

    def drain(self, seconds):
        """Reads and forgets whatever comes until it has been quiet for a while: greetings, handshakes."""
        quiet = time.monotonic() + seconds
        while time.monotonic() < quiet:
            for key, _ in self.selector.select(0.05):
                key.fileobj.recv(1 << 20)
                quiet = time.monotonic() + seconds

    def read(self, timeout):
        for key, _ in self.selector.select(timeout):
            sock = key.fileobj
            data = self.rest[sock] + sock.recv(1 << 20)
            if data.startswith(PONG):
                data = data[len(PONG):]
            whole = len(data) - len(data) % len(FRAME)
            if data[:whole] != FRAME * (whole // len(FRAME)):
                raise AssertionError(f"a client got something else: {data[:80].hex()}")
            self.received[sock] += whole // len(FRAME)
            self.rest[sock] = data[whole:]

    def wait(self, count, timeout=30):
        deadline = time.monotonic() + timeout
        while min(self.received.values()) < count:
            if time.monotonic() > deadline:
                raise AssertionError(f"lost messages: {sorted(self.received.values())[:3]} of {count}, "
                                     f"left over: {self.rest[self.sockets[0]].hex()}, expected: {FRAME.hex()}")
            self.read(0.1)

    def close(self):
        for sock in self.sockets:
            sock.close()


class Server:
    """One program under measurement, with the adapter plugged in and `clients` connected."""

    def __init__(self, program, build, clients, wrapper=()):
        self.folder = tempfile.TemporaryDirectory()
        self.adapter = VirtualAdapter(self.folder.name).plug()
        os.environ["VORBEL_BUILD_DIR"] = str(build)
        environment = {**os.environ, **self.adapter.env(), "BENCH_MESSAGE": MESSAGE.hex(),
                       "QT_LOGGING_RULES": "default.debug=false"}
        device = os.path.realpath(self.adapter.node)
        command = {"vorbel": [build / "vorbel"],
                   "qt": [build / "bench/service/qt_skeleton"],
                   "epoll": [build / "bench/service/epoll_server", device],
                   "python": ["/usr/bin/python3", PROJECT / "bench/service/asyncio_bridge.py", device]}[program]
        self.log = open(pathlib.Path(self.folder.name) / "log", "w+b")
        self.started = time.monotonic()
        self.process = subprocess.Popen([*wrapper, *command], env=environment, stdout=self.log, stderr=self.log)
        self.listening = self._wait_listening()
        self.clients = Clients(clients)
        self.sent = 0
        if program == "vorbel":
            self._prepare_daemon()
        self.pid = self.process.pid

    def _wait_listening(self):
        while True:
            with socket.socket() as probe:
                if probe.connect_ex(("127.0.0.1", PORT)) == 0:
                    return time.monotonic() - self.started
            if self.process.poll() is not None:
                raise AssertionError(self.log_text())
            time.sleep(0.001)

    def log_text(self):
        self.log.seek(0)
        return self.log.read().decode(errors="replace")

    def _prepare_daemon(self):
        self.adapter.wait_for("dtr", 1, timeout=60)
        if self.clients.sockets:
            self.clients.sockets[0].sendall(client_frame(1, json.dumps(SCHEMA).encode()))
        self.clients.drain(1.2)

    def cpu(self):
        """Seconds of CPU so far."""
        return int(pathlib.Path(f"/proc/{self.pid}/schedstat").read_text().split()[0]) / 1e9

    def resident(self, kind="VmRSS"):
        """Kilobytes in memory: all, or with "RssAnon" without the pages of files, which come and go."""
        text = pathlib.Path(f"/proc/{self.pid}/status").read_text()
        return int(re.search(rf"^{kind}:\s+(\d+)", text, re.M)[1])

    def feed(self, records):
        self.adapter.write(RECORD * records, timeout=120)
        self.sent += records

    def burst(self, bursts, period=0.001):
        """Nine records each period, as the adapter's line delivers them."""
        start = time.monotonic()
        for number in range(bursts):
            while (wait := start + number * period - time.monotonic()) > 0:
                self.clients.read(wait)
            self.feed(BURST)
        self.clients.wait(self.sent)

    def in_step(self, bursts, records=BURST):
        """Records when those before have arrived at all clients: what piles up is the same whatever the load."""
        for _ in range(bursts):
            self.feed(records)
            self.clients.wait(self.sent)

    def close(self):
        self.clients.close()
        self.process.send_signal(signal.SIGTERM)
        self.process.wait(60)
        self.adapter.unplug()
        self.log.close()
        self.folder.cleanup()


@contextlib.contextmanager
def running(*arguments, **options):
    server = Server(*arguments, **options)
    try:
        yield server
    except AssertionError as error:
        raise AssertionError(f"{error}; the log:\n{server.log_text()}") from None
    finally:
        server.close()


def cpu_at_line_rate(program, build, clients, seconds):
    """Microseconds of CPU a record, and the share of one core."""
    with running(program, build, clients) as server:
        server.burst(200)
        before, started = server.cpu(), time.monotonic()
        count = int(seconds * LINE_RATE / BURST)
        server.burst(count)
        used = server.cpu() - before
        return used / (count * BURST) * 1e6, used / (time.monotonic() - started)


def cpu_at_full_speed(program, build, clients, records):
    """Microseconds of CPU a record when the line is always full.

    A read then brings hundreds of records, and the system calls that they share vanish. What is left is converting
    and packing, of which the Qt skeleton does nothing: the ratio to it is large here because the cost is small.
    """
    with running(program, build, clients) as server:
        server.burst(200)
        before = server.cpu()
        for _ in range(records // 300):
            server.feed(300)
            server.clients.read(0)
        server.clients.wait(server.sent, 120)
        return (server.cpu() - before) / records * 1e6


def fastest(measure, programs, rounds=2):
    """The least that each program took in interleaved rounds."""
    taken = [{program: measure(program) for program in programs} for _ in range(rounds)]
    return {program: min(took[program] for took in taken) for program in programs}


def broadcast(build, seconds, table):
    """CPU a record beside the peers: at line rate, and with as many records in each read as a read can bring."""
    for clients in (1, 10, 50):
        # The Python bridge falls behind the line: a fifth of the records has to do.
        line = fastest(lambda program: cpu_at_line_rate(program, build, clients,
                                                        seconds / 5 if program == "python" else seconds),
                       ("vorbel", "qt", "epoll", "python"))
        took, share = line["vorbel"]
        table[f"service/broadcast/{clients} clients/line rate"] = {
            "us a record": round(took, 2), "% of a core": round(share * 100, 1),
            "x Qt skeleton": round(took / line["qt"][0], 2), "x epoll": round(took / line["epoll"][0], 2),
            "Python bridge x": round(line["python"][0] / took, 1)}
        full = fastest(lambda program: cpu_at_full_speed(program, build, clients, 30_000), ("vorbel", "qt"))
        table[f"service/broadcast/{clients} clients/max"] = {
            "us a record": round(full["vorbel"], 2), "x Qt skeleton": round(full["vorbel"] / full["qt"], 2)}


def latency(build, seconds, table):
    """From writing a record to having read its message, also with a client that delays its ACKs."""
    for delayed in (False, True):
        with running("vorbel", build, 1) as server:
            sock = server.clients.sockets[0]
            times = []
            for _ in range(int(seconds * 100)):
                if delayed:
                    sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_QUICKACK, 0)
                    sock.sendall(client_frame(9, b""))  # a client that also sends
                    server.clients.drain(0.005)
                started = time.perf_counter()
                server.feed(1)
                server.clients.wait(server.sent)
                times.append((time.perf_counter() - started) * 1000)
            name = "service/latency/" + ("delayed ACKs" if delayed else "plain")
            table[name] = {"p50 ms": round(statistics.median(times), 3),
                           "p99 ms": round(statistics.quantiles(times, n=100)[98], 3)}


def rss(build, seconds, table):
    """Resident memory: idle, of a client, and what a million frames add to it."""
    idle = []
    for _ in range(3):
        with running("vorbel", build, 0) as server:
            time.sleep(1.5)
            idle.append(server.resident())
    with running("vorbel", build, 1) as server:
        one = server.resident("RssAnon")
    with running("vorbel", build, 51) as server:
        many = server.resident("RssAnon")
    with running("vorbel", build, 1) as server:
        server.in_step(200, 100)
        before = server.resident("RssAnon")
        server.in_step(10_000, 100)
        grown = server.resident("RssAnon") - before
    table["service/rss"] = {"idle MB": round(min(idle) / 1024, 2), "kB a client": round((many - one) / 50, 1),
                            "kB growth over 1,000,000 frames": grown}


def start_to_listen(build, seconds, table):
    """From starting the process to accepting connections."""
    times = []
    for _ in range(5):
        with running("vorbel", build, 0) as server:
            times.append(server.listening * 1000)
    table["service/start_to_listen"] = {"ms": round(min(times), 1)}


def counted(build, clients, bursts, wrapper):
    """Runs the daemon under a counting `wrapper` for a number of bursts, each in one read."""
    with running("vorbel", build, clients, wrapper=wrapper) as server:
        server.in_step(bursts)


def instructions(build, seconds, table):
    """Instructions a record of the whole daemon, in bursts of nine."""
    few, many = 50, 150
    for clients in (1, 10):
        totals = {}
        for bursts in (few, many):
            with tempfile.NamedTemporaryFile() as counts:
                counted(build, clients, bursts, counting.callgrind(counts.name))
                totals[bursts] = counting.Profile(counts.name).total
        each = (totals[many] - totals[few]) / ((many - few) * BURST)
        table[f"service/instructions/{clients} clients"] = {"a record": round(each)}


def system_calls(build, seconds, table):
    """System calls a batch of nine records, with ten clients."""
    few, many = 100, 400
    counts = {}
    for bursts in (few, many):
        with tempfile.NamedTemporaryFile() as report:
            counted(build, 10, bursts, counting.strace(report.name))
            while not (found := counting.system_calls(report.name)):
                time.sleep(0.05)
            counts[bursts] = found
    each = {name: (count - counts[few].get(name, 0)) / (many - few) for name, count in counts[many].items()}
    writes = each.get("write", 0) + each.get("send", 0) + each.get("sendto", 0) + each.get("sendmsg", 0)
    polls = each.get("poll", 0) + each.get("ppoll", 0)
    table["service/system_calls/10 clients"] = {
        "writes a client and batch": round(writes / 10, 2), "reads a batch": round(each.get("read", 0), 2),
        "polls a batch": round(polls, 2), "all a batch": round(sum(each.values()), 2)}


def profile(build, seconds, table):
    """Writes the profile of 150 bursts to ten clients, for callgrind_annotate."""
    path = "callgrind.out"
    counted(build, 10, 150, counting.callgrind(path))
    table["service/profile"] = {path: counting.Profile(path).total}


def smoke(build, seconds, table):
    """Every program delivers what is fed to it; nothing is measured."""
    for program in ("vorbel", "qt", "epoll", "python"):
        with running(program, build, 2) as server:
            server.burst(10)
    table["service/smoke"] = {"programs deliver": 4}


CASES = {case.__name__: case for case in (broadcast, latency, rss, start_to_listen, instructions, system_calls,
                                          profile, smoke)}

if __name__ == "__main__":
    cases.run(__doc__, CASES, seconds=5)
