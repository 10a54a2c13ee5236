#!/usr/bin/python3
"""Measures the running daemon beside its peers: the same records in, a message per record to every client out.

    service_bench.py BUILD_DIR [--seconds S] [--only CASE] [--json FILE]

Peers, all in the same interleaved run: a minimal Qt program that reads the adapter and sends ready-made bytes, a
raw epoll server, and a bridge in Python. CPU is the process's own, per record; a lost message fails the run.
"""

import argparse
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
sys.path.insert(0, str(PROJECT / "sim"))
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

    def resident(self):
        text = pathlib.Path(f"/proc/{self.pid}/status").read_text()
        return int(re.search(r"^VmRSS:\s+(\d+)", text, re.M)[1])

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
    """Microseconds of CPU a record when the line is always full."""
    with running(program, build, clients) as server:
        server.burst(200)
        before = server.cpu()
        for _ in range(records // 300):
            server.feed(300)
            server.clients.read(0)
        server.clients.wait(server.sent, 120)
        return (server.cpu() - before) / records * 1e6


def broadcast(build, seconds, table):
    for clients in (1, 10, 50):
        rounds = [{program: (cpu_at_line_rate(program, build, clients, seconds)
                             if program != "python" or clients < 50 else None)
                   for program in ("vorbel", "qt", "epoll", "python")} for _ in range(2)]
        best = {program: min((r[program] for r in rounds if r[program]), default=None) for program in rounds[0]}
        row = table[f"service/broadcast/{clients} clients/line rate"] = {
            "us a record": round(best["vorbel"][0], 2), "share of a core": round(best["vorbel"][1], 3),
            "x Qt skeleton": round(best["vorbel"][0] / best["qt"][0], 2),
            "x epoll": round(best["vorbel"][0] / best["epoll"][0], 2)}
        if best["python"]:
            row["Python bridge x"] = round(best["python"][0] / best["vorbel"][0], 1)
        full = {program: min(cpu_at_full_speed(program, build, clients, 30_000) for _ in range(2))
                for program in ("vorbel", "qt")}
        table[f"service/broadcast/{clients} clients/max"] = {
            "us a record": round(full["vorbel"], 2), "x Qt skeleton": round(full["vorbel"] / full["qt"], 2)}


def latency(build, seconds, table):
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


def memory(build, seconds, table):
    with running("vorbel", build, 0) as server:
        time.sleep(1.5)
        idle = server.resident()
    with running("vorbel", build, 1) as server:
        one = server.resident()
    with running("vorbel", build, 51) as server:
        many = server.resident()
    with running("vorbel", build, 1) as server:
        server.burst(300)
        before = server.resident()
        for _ in range(1_000_000 // 900):
            server.feed(900)
            server.clients.read(0)
        server.clients.wait(server.sent, 120)
        grown = server.resident() - before
    table["service/rss"] = {"idle MB": round(idle / 1024, 2), "kB a client": round((many - one) / 50, 1),
                            "kB growth over 1,000,000 frames": grown}


def start_to_listen(build, seconds, table):
    times = []
    for _ in range(5):
        with running("vorbel", build, 0) as server:
            times.append(server.listening * 1000)
    table["service/start_to_listen"] = {"ms": round(min(times), 1)}


def instructions(build, seconds, table):
    """Instructions a record of the whole daemon, counted by callgrind in bursts of nine: the same every time."""
    for clients in (1, 10):
        totals = {}
        for bursts in (100, 300):
            with tempfile.NamedTemporaryFile() as counts:
                wrapper = ["valgrind", "-q", "--tool=callgrind", f"--callgrind-out-file={counts.name}"]
                with running("vorbel", build, clients, wrapper=wrapper) as server:
                    server.burst(bursts, period=0.02)
                totals[bursts] = int(re.search(r"^(?:summary|totals): (\d+)", pathlib.Path(counts.name).read_text(),
                                               re.M)[1])
        each = (totals[300] - totals[100]) / (200 * BURST)
        table[f"service/instructions/{clients} clients"] = {"a record": round(each), "goal": 8000 + 2600 * clients}


def system_calls(build, seconds, table):
    """System calls a batch of nine records, with ten clients."""
    with running("vorbel", build, 10) as server:
        with tempfile.NamedTemporaryFile("r") as report:
            tracer = subprocess.Popen(["strace", "-f", "-c", "-o", report.name, "-p", str(server.pid)],
                                      stderr=subprocess.DEVNULL)
            time.sleep(1)
            batches = 150
            server.burst(batches, period=0.01)
            tracer.send_signal(signal.SIGINT)
            tracer.wait()
            calls = {line.split()[-1]: int(line.split()[3]) for line in report.read().splitlines()
                     if re.match(r"\s+\d", line) and not line.endswith("total")}
    table["service/system calls a batch"] = {name: round(count / batches, 2) for name, count in calls.items()
                                             if count >= batches / 2}


CASES = [broadcast, latency, memory, start_to_listen, instructions, system_calls]


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("build", type=pathlib.Path)
    parser.add_argument("--seconds", type=float, default=5, help="length of one measurement (default 5)")
    parser.add_argument("--only", action="append", help="only this case: " + ", ".join(c.__name__ for c in CASES))
    parser.add_argument("--json", type=pathlib.Path, help="write the figures to a file too")
    options = parser.parse_args()
    table = {}
    for case in CASES:
        if not options.only or case.__name__ in options.only:
            print(f"measuring {case.__name__} ...", file=sys.stderr)
            known = len(table)
            case(options.build.resolve(), options.seconds, table)
            for name, figures in list(table.items())[known:]:
                print(f"{name:48}" + ", ".join(f"{value} {unit}" for unit, value in figures.items()), flush=True)
    if options.json:
        options.json.write_text(json.dumps(table, indent=2))


if __name__ == "__main__":
    main()
