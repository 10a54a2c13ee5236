#!/usr/bin/python3
"""Measures a fleet end to end on this machine: simulated boards, a broker, the history service, a database.

    fleet_bench.py BUILD_DIR [--broker mosquitto|nats|memory] [--boards N] [--values N] [--interval MS] [--now MS]
                   [--subscribers N] [--seconds S] [--json]

Each value of each board comes once a second. "nats" is three servers with JetStream and three replicas on the disk,
"memory" the same without a disk. What is published and not found in the database at the end is lost, and said.
"""

import contextlib
import json
import os
import pathlib
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time
import urllib.error
import urllib.parse
import urllib.request

PROJECT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(PROJECT / "bench" / "gateway")]
import words  # noqa: E402
from plant import Listener, Program, free_port  # noqa: E402

PATIENCE = 300  # seconds: a cluster is slow to take many clients
SETTLED = 15  # seconds, after which costs are those of every day
DRAINED = 10  # seconds without another value, after which none comes
PER_PROCESS = 1000  # boards
PROBED = 0.05  # seconds between two looks for a board's newest value


def is_listening(port):
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", port)) == 0


class Mosquitto:
    name = "mosquitto"

    def __init__(self, folder):
        self.ports = [free_port()]
        file = folder / "mosquitto.conf"
        file.write_text(f"user root\nlistener {self.ports[0]} 127.0.0.1\nallow_anonymous true\npersistence false\n"
                        "log_type error\nlog_type warning\nmax_queued_messages 0\nmax_inflight_messages 100\n"
                        "set_tcp_nodelay true\n")
        self.programs = [Program(["mosquitto", "-c", file], folder / "mosquitto.log")]
        self.programs[0].wait_until(lambda: is_listening(self.ports[0]), "mosquitto to listen")


class Nats:
    """Three servers, each of which has all that is not yet acknowledged."""

    name = "nats"

    def __init__(self, folder, store=None):
        store = store or folder
        self.ports, routes, clients, monitors = ([free_port() for _ in range(3)] for _ in range(4))
        self.programs = []
        for number, port in enumerate(self.ports):
            others = ", ".join(f'"nats://127.0.0.1:{route}"' for route in routes if route != routes[number])
            file = folder / f"nats{number}.conf"
            file.write_text(f"""
                server_name: n{number}
                listen: "127.0.0.1:{clients[number]}"
                http: "127.0.0.1:{monitors[number]}"
                jetstream {{ store_dir: "{store}/store{number}", max_file: 20G }}
                cluster {{ name: plant, listen: "127.0.0.1:{routes[number]}", routes: [{others}] }}
                mqtt {{ host: "127.0.0.1", port: {port}, stream_replicas: 3, max_ack_pending: 1000 }}
            """)
            self.programs.append(Program(["nats-server", "-c", file], folder / f"nats{number}.log"))
        for program, monitor in zip(self.programs, monitors):
            program.wait_until(lambda: self._is_whole(monitor), "the cluster to agree")

    @staticmethod
    def _is_whole(monitor):
        try:
            with urllib.request.urlopen(f"http://127.0.0.1:{monitor}/jsz", timeout=10) as answer:
                meta = json.load(answer).get("meta_cluster", {})
                return bool(meta.get("leader")) and meta["cluster_size"] == 3
        except OSError:
            return False


class Database(Program):
    def __init__(self, folder):
        self.port = free_port()
        super().__init__(["victoria-metrics", f"-storageDataPath={folder}/data", "-retentionPeriod=1y",
                          f"-httpListenAddr=127.0.0.1:{self.port}", "-dedup.minScrapeInterval=1ms",
                          "-search.latencyOffset=0s", "-search.maxUniqueTimeseries=10000000",
                          "-search.maxQueryDuration=5m"], folder / "database.log")
        self.wait_until(lambda: is_listening(self.port), "the database to listen")
        self._folder = folder

    def asked(self, path, **words):
        url = f"http://127.0.0.1:{self.port}/{path}?{urllib.parse.urlencode(words)}"
        with urllib.request.urlopen(url, timeout=PATIENCE) as answer:
            return answer.read()

    def count(self):
        """Of all values that it has."""
        answer = json.loads(self.asked("api/v1/query", query="sum(count_over_time(vorbel_value[1h]))", nocache=1))
        result = answer["data"]["result"]
        return int(result[0]["value"][1]) if result else 0

    def newest(self, board, path):
        """When the newest value was read, in ms since 1970; 0 if there is none."""
        text = self.asked("api/v1/export", start=time.time() - 10,
                          **{"match[]": f'vorbel_value{{board="{board}",path="{path}"}}'})
        return max((max(json.loads(line)["timestamps"]) for line in text.splitlines()), default=0)

    def size(self):
        """Bytes on the disk."""
        return sum(path.stat().st_size for path in (self._folder / "data").rglob("*") if path.is_file())


class History(Program):
    def __init__(self, folder, broker, database):
        file = folder / "history.ini"
        version = "5" if isinstance(broker, Mosquitto) else "3.1.1"
        urls = ",".join(f"mqtt://127.0.0.1:{port}" for port in broker.ports)
        file.write_text(f"[broker]\nurl = {urls}\nversion = {version}\n"
                        f"[database]\nurl = http://127.0.0.1:{database.port}/write\n")
        (folder / "state").mkdir()
        log = folder / "history.log"
        super().__init__([PROJECT / "clients" / "python" / "vorbel-history", file], log,
                         {**os.environ, "STATE_DIRECTORY": str(folder / "state")})
        self.wait_until(lambda: "broker: connected" in log.read_text(), "the history to be connected")


class Boards(Program):
    """Some boards in one process."""

    def __init__(self, build, folder, broker, options, first, count):
        self._log = folder / f"boards{first}.log"
        urls = ",".join(f"mqtt://127.0.0.1:{port}" for port in broker.ports)
        super().__init__([build / "sim" / "vorbel_sim_fleet", "--broker", urls, "--first", first, "--boards", count,
                          "--version", 5 if isinstance(broker, Mosquitto) else 3, "--values", options.values,
                          "--interval", options.interval, "--now", options.now], self._log)
        self.wait_until(lambda: self.said()["connected"] == count, "all boards to be connected")

    def said(self):
        lines = [line for line in self._log.read_text().splitlines() if line.startswith("{") and line.endswith("}")]
        return json.loads(lines[-1]) if lines else {"connected": 0, "published": 0, "dropped": 0}


class Fleet:
    """All boards. A thousand in a process, whose library looks through all its connections for each message."""

    def __init__(self, build, folder, broker, options):
        self.programs = [Boards(build, folder, broker, options, first, min(PER_PROCESS, options.boards - first + 1))
                         for first in range(1, options.boards + 1, PER_PROCESS)]

    def total(self, what):
        """Of what they published or dropped until a moment ago."""
        return sum(program.said()[what] for program in self.programs)

    def stop(self):
        for program in self.programs:
            program.stop()


class Subscriber(threading.Thread):
    """Hears all batches, as a dashboard would. Costs next to nothing itself."""

    def __init__(self, port):
        super().__init__(daemon=True)
        self.heard = 0
        self._listener = Listener(port, "vorbel/+/values", self._hear)

    def _hear(self, _topic, _payload):
        self.heard += 1

    def run(self):
        with contextlib.suppress(OSError):
            while True:
                self._listener.read(1)


class Latency(threading.Thread):
    """Of one board's batches: from when the broker had it until the database gives it out, in ms."""

    def __init__(self, broker, database, board="board1", path="axis1.speed"):
        super().__init__()
        self.found = []
        self._board, self._path, self._database = board, path, database
        self._end = threading.Event()
        self._waiting = []  # (newest value's time, when the batch was heard)
        self._listener = Listener(broker.ports[0], f"vorbel/{board}/values", self._hear)
        self._name = path.split(".")[0].encode()

    def _hear(self, _topic, payload):
        batch = json.loads(payload)
        times = [batch["t"] + offset for offset, values in batch["v"] if self._name.decode() in values]
        if times:
            self._waiting.append((max(times), time.time()))

    def run(self):
        while not self._end.is_set():
            self._listener.read(PROBED)
            with contextlib.suppress(urllib.error.URLError):
                newest = self._database.newest(self._board, self._path)
                now = time.time()
                self.found += [1000 * (now - heard) for stamp, heard in self._waiting if stamp <= newest]
                self._waiting = [one for one in self._waiting if one[0] > newest]

    def stop(self):
        self._end.set()
        self.join()
        self._listener.close()
        return sorted(self.found)


def wait_until_drained(database):
    """How many values there are when no more come."""
    former, since = -1, time.monotonic()
    while time.monotonic() - since < DRAINED:
        count = database.count()
        if count != former:
            former, since = count, time.monotonic()
        time.sleep(1)
    return former


def measured(build, options):
    with contextlib.ExitStack() as stack:
        folder = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory()))
        memory = stack.enter_context(tempfile.TemporaryDirectory(dir="/dev/shm"))
        broker = {"mosquitto": lambda: Mosquitto(folder), "nats": lambda: Nats(folder),
                  "memory": lambda: Nats(folder, memory)}[options.broker]()
        for program in broker.programs:
            stack.callback(program.stop)
        database = Database(folder)
        stack.callback(database.stop)
        history = History(folder, broker, database)
        stack.callback(history.stop)
        for number in range(options.subscribers):
            Subscriber(broker.ports[number % len(broker.ports)]).start()
        fleet = Fleet(build, folder, broker, options)
        parts = {"boards": fleet.programs, "broker": broker.programs, "history": [history], "database": [database]}
        time.sleep(SETTLED)
        latency = Latency(broker, database)
        latency.start()
        stored, counted = database.count(), time.monotonic()
        published = fleet.total("published")
        before = {name: sum(program.cpu() for program in programs) for name, programs in parts.items()}
        started = time.monotonic()
        time.sleep(options.seconds)
        published, took = fleet.total("published") - published, time.monotonic() - started
        cores = {name: (sum(program.cpu() for program in programs) - before[name]) / took
                 for name, programs in parts.items()}
        stored = (database.count() - stored) / (time.monotonic() - counted)
        memories = {name: sum(program.resident() for program in programs) / 1000 for name, programs in parts.items()}
        delays = latency.stop()
        fleet.stop()
        found, published_in_all = wait_until_drained(database), fleet.total("published")
        return {
            "broker": options.broker, "boards": options.boards, "values": options.values,
            "interval": options.interval, "now": options.now, "subscribers": options.subscribers,
            "published_per_s": published / took, "stored_per_s": stored,
            "published": published_in_all, "dropped": fleet.total("dropped"), "lost": published_in_all - found,
            "cores": cores, "megabytes": memories, "bytes_per_value": database.size() / max(found, 1),
            "latency_p50": statistics.median(delays) if delays else None,
            "latency_p99": delays[int(len(delays) * 0.99)] if delays else None,
        }


def row(found):
    cores, memory = found["cores"], found["megabytes"]
    latency = "none" if found["latency_p50"] is None else f"{found['latency_p50']:.0f} / {found['latency_p99']:.0f} ms"
    return (f"{found['broker']:9} {found['boards']:5} boards x {found['values']:3} values: "
            f"{found['published_per_s']:8.0f} published/s {found['stored_per_s']:8.0f} stored/s, lost {found['lost']}, "
            f"dropped {found['dropped']}, latency {latency}, "
            + ", ".join(f"{name} {cores[name]:.2f} cores {memory[name]:.0f} MB" for name in cores)
            + f", {found['bytes_per_value']:.2f} bytes a value on the disk")


def main():
    parser = words.parser(__doc__, boards=1000, values=100, interval=1000, now=3600000, subscribers=0, seconds=30)
    parser.add_argument("--broker", choices=("mosquitto", "nats", "memory"), default="mosquitto")
    options = parser.parse_args()
    words.raise_limit_of_descriptors()
    try:
        found = measured(options.build, options)
    except subprocess.SubprocessError as error:
        sys.exit(str(error))
    if options.json:
        print(json.dumps(found))
        return
    print(row(found))
    if found["lost"] or found["dropped"]:
        sys.exit("values were lost")


if __name__ == "__main__":
    main()
