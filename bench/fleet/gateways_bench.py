#!/usr/bin/python3
"""Measures what real daemons and gateways take: so many boards on this machine, each in a network namespace of its own
with a virtual adapter, and one broker.

    gateways_bench.py BUILD_DIR [--boards N] [--values N] [--now MS] [--seconds S]

Each value of each board comes once a second, four in a frame. A value that is missing in the batches fails the run.
"""

import asyncio
import contextlib
import ctypes
import json
import os
import pathlib
import socket
import struct
import subprocess
import sys
import tempfile
import threading
import time

PROJECT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(PROJECT / folder) for folder in ("sim", "bench/gateway")]
import words  # noqa: E402
from plant import Broker, Listener, Program  # noqa: E402
from vorbelsim import vek  # noqa: E402
from vorbelsim.adapter import VirtualAdapter  # noqa: E402

BROKER_PORT = 1883  # where each board finds the broker
PER_FRAME = 4  # values
SETTLED = 5  # seconds
CLONE_NEWNET = 0x40000000
LIBC = ctypes.CDLL(None, use_errno=True)


def schema(frames):
    return {f"axis{frame}": {name: {"@mac": frame // 16 + 1, "@cmd": frame % 16, "@format": "S", "@skip": 2 * place}
                             for place, name in enumerate("abcd")} for frame in range(frames)}


class Network:
    """A network namespace, for as long as a process sleeps in it."""

    def __init__(self):
        self._holder = subprocess.Popen([PROJECT / "tests" / "support" / "own_network", "sleep", "infinity"])
        while pathlib.Path(f"/proc/{self._holder.pid}/comm").read_text() != "sleep\n":
            time.sleep(0.01)

    def inside(self, *command):
        return ["nsenter", f"--net=/proc/{self._holder.pid}/ns/net", *command]

    def listen(self, port):
        """A socket that listens there, for this process."""
        own = os.open("/proc/self/ns/net", os.O_RDONLY)
        theirs = os.open(f"/proc/{self._holder.pid}/ns/net", os.O_RDONLY)
        try:
            self._enter(theirs)
            return socket.create_server(("127.0.0.1", port))
        finally:
            self._enter(own)
            os.close(own)
            os.close(theirs)

    @staticmethod
    def _enter(namespace):
        if LIBC.setns(namespace, CLONE_NEWNET):
            raise OSError(ctypes.get_errno(), "setns")

    def stop(self):
        self._holder.kill()
        self._holder.wait()


class Relay(threading.Thread):
    """Leads from a port of each namespace to the broker's in this one."""

    def __init__(self, listeners, port):
        super().__init__(daemon=True)
        self._listeners, self._port = listeners, port

    def run(self):
        asyncio.run(self._serve())

    async def _serve(self):
        servers = [await asyncio.start_server(self._lead, sock=listener) for listener in self._listeners]
        await asyncio.gather(*(server.serve_forever() for server in servers))

    async def _lead(self, reader, writer):
        broker_reader, broker_writer = await asyncio.open_connection("127.0.0.1", self._port)
        await asyncio.gather(self._copy(reader, broker_writer), self._copy(broker_reader, writer))

    @staticmethod
    async def _copy(reader, writer):
        with contextlib.suppress(OSError):
            while data := await reader.read(1 << 16):
                writer.write(data)
                await writer.drain()
        writer.close()


class Board:
    """A daemon with an adapter, and a gateway, in a network of their own."""

    def __init__(self, build, folder, number, options):
        self.id = f"board{number}"
        self._folder, self._build, self._options = folder / self.id, build, options
        self._folder.mkdir()
        self.network = Network()
        self.adapter = VirtualAdapter(self._folder / "sim").plug()
        self.frames = options.values // PER_FRAME
        self._count = 0

    def start(self):
        plain = {key: value for key, value in os.environ.items() if key != "LD_PRELOAD"}
        quiet = {"QT_LOGGING_RULES": "*.debug=false"}
        self.daemon = Program(self.network.inside(self._build / "vorbel"), self._folder / "daemon.log",
                              {**plain, **self.adapter.env(), **quiet})
        (self._folder / "schema.json").write_text(json.dumps(schema(self.frames)))
        (self._folder / "gateway.ini").write_text(
            f"[topics]\nid = {self.id}\n[schema]\nfile = {self._folder}/schema.json\n"
            f"[now]\ninterval_ms = {self._options.now}\n")
        (self._folder / "state").mkdir()
        quick = pathlib.Path(tempfile.mkdtemp(dir="/dev/shm"))
        self.gateway = Program(
            self.network.inside(self._build / "gateway" / "vorbel-gateway", self._folder / "gateway.ini"),
            self._folder / "gateway.log",
            {**plain, **quiet, "STATE_DIRECTORY": str(self._folder / "state"), "RUNTIME_DIRECTORY": str(quick)})

    def send(self, frame):
        self._count += 1
        self.adapter.offer(vek.record(frame // 16 + 1, frame % 16, struct.pack("<4H", *(
            (self._count + place) % 65536 for place in range(PER_FRAME)))))

    def stop(self):
        self.gateway.stop()
        self.daemon.stop()
        self.adapter.unplug()
        self.network.stop()


class Heard:
    """Counts the values of all batches."""

    def __init__(self, port):
        self.values, self.boards = 0, set()
        self.listener = Listener(port, "vorbel/+/values", self._hear)

    def _hear(self, topic, payload):
        self.boards.add(topic.split(b"/")[1])
        self.values += PER_FRAME * payload.count(b'"axis')


def feed(boards, heard, seconds):
    """Sends what each board's bus has in so many seconds, frame by frame, at its times."""
    started, sent = time.monotonic(), 0
    frames = boards[0].frames
    while (passed := time.monotonic() - started) < seconds:
        due = int(passed * frames)
        for number in range(sent, due):
            for board in boards:
                board.send(number % frames)
        sent = due
        heard.listener.read(0.005)
    return sent * len(boards) * PER_FRAME


def measured(build, options):
    with contextlib.ExitStack() as stack:
        folder = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory()))
        broker = Broker(folder)
        stack.callback(broker.stop)
        boards = []
        for number in range(options.boards):
            boards.append(Board(build, folder, number, options))
        Relay([board.network.listen(BROKER_PORT) for board in boards], broker.port).start()
        for board in boards:
            board.start()
            stack.callback(board.stop)
        heard = Heard(broker.port)
        deadline = time.monotonic() + 60
        while len(heard.boards) < options.boards:
            assert time.monotonic() < deadline, f"{options.boards - len(heard.boards)} boards say nothing"
            feed(boards, heard, 1)
        feed(boards, heard, SETTLED)
        while heard.listener.read(3):
            pass
        heard.values = 0
        programs = {"daemons": [board.daemon for board in boards], "gateways": [board.gateway for board in boards],
                    "broker": [broker]}
        before = {name: sum(program.cpu() for program in those) for name, those in programs.items()}
        started = time.monotonic()
        sent = feed(boards, heard, options.seconds)
        took = time.monotonic() - started
        cores = {name: (sum(program.cpu() for program in those) - before[name]) / took
                 for name, those in programs.items()}
        memories = {name: sum(program.resident() for program in those) / 1000 / len(those)
                    for name, those in programs.items()}
        while heard.values < sent and heard.listener.read(5):
            pass
        assert heard.values == sent, f"{heard.values} of {sent} values came"
        return {"boards": options.boards, "values": options.values, "now": options.now, "sent_per_s": sent / took,
                "cores": cores, "megabytes_each": memories}


def main():
    options = words.parser(__doc__, boards=50, values=100, now=3600000, seconds=30).parse_args()
    words.raise_limit_of_descriptors()
    os.environ["VORBEL_BUILD_DIR"] = str(options.build)
    found = measured(options.build, options)
    if options.json:
        print(json.dumps(found))
        return
    parts = ", ".join(f"{name} {found['cores'][name]:.2f} cores, {found['megabytes_each'][name]:.1f} MB each"
                      for name in found["cores"])
    print(f"{found['boards']} boards x {found['values']} values: {found['sent_per_s']:.0f} values/s, {parts}")


if __name__ == "__main__":
    main()
