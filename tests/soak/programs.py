"""The programs of the chain, each supervised as a service manager does: what ends is started again."""

import contextlib
import os
import pathlib
import re
import resource
import signal
import socket
import subprocess
import time
from typing import NamedTuple

import harness
from gatewayharness import ini
from vorbelsim import build

PROJECT = pathlib.Path(__file__).resolve().parents[2]
RESTART_AFTER = 0.3  # seconds
PAGE = resource.getpagesize() / 2**20  # MiB


class Place(NamedTuple):
    """Where the programs are, and the folder of their Python packages."""

    daemon: pathlib.Path
    gateway: pathlib.Path
    history: pathlib.Path
    python: pathlib.Path


def place():
    """Where packages were unpacked, $VORBEL_INSTALLED, or else the build."""
    if "VORBEL_INSTALLED" in os.environ:
        usr = pathlib.Path(os.environ["VORBEL_INSTALLED"]) / "usr"
        return Place(*(usr / "bin" / name for name in ("vorbel", "vorbel-gateway", "vorbel-history")),
                     usr / "lib" / "python3" / "dist-packages")
    python = PROJECT / "clients" / "python"
    return Place(harness.BUILD / "vorbel", harness.BUILD / "gateway" / "vorbel-gateway", python / "vorbel-history",
                 python)


class Sample:
    """What a process has at a time."""

    def __init__(self, pid):
        folder = pathlib.Path(f"/proc/{pid}")
        self.time = time.monotonic()
        self.memory = int((folder / "statm").read_text().split()[1]) * PAGE
        self.descriptors = len(os.listdir(folder / "fd"))
        self.threads = len(os.listdir(folder / "task"))


def wakes_of(pid):
    """How often its first thread has waited since it began: each timer that is left behind adds to that."""
    status = pathlib.Path(f"/proc/{pid}/status").read_text()
    return int(re.search(r"^voluntary_ctxt_switches:\s*(\d+)$", status, re.M)[1])


class Life:
    """One process from its start to its end, with its samples."""

    def __init__(self, process):
        self.process, self.samples = process, []

    def of(self, what):
        """(time, value) of one thing."""
        return [(sample.time, getattr(sample, what)) for sample in self.samples]


class Program:
    """One program, over as many lives as it takes. It ends with the soak, however that ends: only the main thread
    starts one, since the kernel counts from that."""

    def __init__(self, name, folder, command, environment=None, expected=(), before=None, output=None,
                 is_log_carried=False):
        """`expected` are the patterns of lines that may stand in its log, `before` runs in its process, and `output` is
        called with what each process prints. A log that is carried is written by another process: the disk of a program
        may be full then."""
        self.name, self.expected = name, expected
        self.folder = folder / name
        self.folder.mkdir(parents=True, exist_ok=True)
        self.log_path = folder / f"{name}.log"
        self.lives = []
        self._command = ["setpriv", "--pdeathsig", "KILL", *map(str, command)]
        self._environment = {key: value for key, value in os.environ.items() if not key.startswith("VORBEL_")}
        self._environment.update(environment or {})
        self._before, self._output, self._is_log_carried = before, output, is_log_carried
        self.may_end = False  # by itself
        self._is_killed = self._has_fallen = False
        self._ended = None
        self._read = 0
        self._carriers = []

    def start(self):
        with self._log() as log:
            process = subprocess.Popen(self._command, env=self._environment, cwd=self.folder,
                                       stdin=subprocess.DEVNULL, stderr=log, preexec_fn=self._before,
                                       stdout=subprocess.PIPE if self._output else log)
        self.lives.append(Life(process))
        self._is_killed, self._has_fallen, self._ended = False, False, None
        if self._output:
            self._output(process.stdout)
        return self

    @contextlib.contextmanager
    def _log(self):
        """Where a process writes its log."""
        with open(self.log_path, "ab") as file:
            if not self._is_log_carried:
                yield file
                return
            carrier = subprocess.Popen(["setpriv", "--pdeathsig", "KILL", "cat"], stdin=subprocess.PIPE, stdout=file)
        self._carriers.append(carrier)
        with carrier.stdin as log:
            yield log

    @property
    def process(self):
        return self.lives[-1].process

    @property
    def pid(self):
        return self.process.pid

    @property
    def alive(self):
        return self.process.poll() is None

    def kill(self):
        self._is_killed = True
        self.process.kill()
        self.process.wait()

    def pause(self):
        self.process.send_signal(signal.SIGSTOP)

    def resume(self):
        self.process.send_signal(signal.SIGCONT)

    def fell(self):
        """The return code, once, when it has ended without having been killed."""
        if self.alive or self._is_killed or self._has_fallen:
            return None
        self._has_fallen = True
        return self.process.returncode

    def supervise(self):
        """Starts it again when it has ended; whether it did so now."""
        if self.alive:
            return False
        now = time.monotonic()
        if self._ended is None:
            self._ended = now
        if now - self._ended < RESTART_AFTER:
            return False
        self.start()
        return True

    def sample(self):
        try:
            self.lives[-1].samples.append(Sample(self.pid))
        except (OSError, IndexError):
            pass  # it ends just now

    def new_lines(self):
        """The whole lines of its log since the last time."""
        with open(self.log_path, "rb") as log:
            log.seek(self._read)
            text = log.read()
        whole = text[:text.rfind(b"\n") + 1]
        self._read += len(whole)
        return whole.decode(errors="replace").splitlines()

    def end(self):
        if self.lives and self.alive:
            self.kill()
        for carrier in self._carriers:
            carrier.wait()


def ignore_full_disk():
    """A write beyond the limit of a file's size fails then, as one to a full disk does."""
    signal.signal(signal.SIGXFSZ, signal.SIG_IGN)


QT = {"QT_MESSAGE_PATTERN": "%{type} %{message}", "LC_ALL": "C.UTF-8", "QT_LOGGING_RULES": "default.debug=false"}
PEER = r'QHostAddress\("[^"]*"\)'
DAEMON_WITHOUT_MEMORY = (r"critical Input dropped, its conversion failed: std::bad_alloc",
                         r"warning MsgPack::\w+\(\) has run out of memory")
GATEWAY_WITHOUT_MEMORY = (r"critical vorbel: an exception ended the handling of a message: std::bad_alloc",)
ENDS_WITHOUT_MEMORY = (r"terminate called after throwing an instance of 'std::bad_alloc'",
                       r"  what\(\):  std::bad_alloc")
DAEMON_LINES = (
    f"info New connection incoming from {PEER}",
    f"info Connection closed {PEER}",
    r'info Sending hello message QJsonDocument\(.*\) for device "[^"]*"',
    r"info Received schema: QJsonDocument\(.*\)",
    f"warning Dropping the client at {PEER} which leaves \\d+ bytes unread",
    r"warning Dropping a (?:schema|message) of \d+ bytes: decoded it takes up to \d+ bytes of memory, and \d+ are "
    r"granted",
    r"warning No file descriptor is left: new clients have to wait",
    r"warning Cannot accept a connection.*",
    r"critical Input dropped, its conversion failed: Bad type",
    *DAEMON_WITHOUT_MEMORY,
    *ENDS_WITHOUT_MEMORY,
    r"warning MsgPack::unpack\(\) (?:unpacker for type -?\d+ doesn't exist|can't .*)",
    r'warning Key: ".*" does not exist in the schema',
    r"warning And \d+ more lines of this kind from the same message: .*",
    r"info QLockFile: Lock file '.*' has a modification time in the future",  # the clock was set back
    # the serial link
    r"warning QIODevice::write \(QSerialPort\): device not open",
    r'warning bool Main::openSerialPort\(\) error ".*"',
    r'warning The adapter is not heard, its DTR cannot be raised: ".*"',
    r'warning The serial port is used on after an error: ".*"',
    # SocketCAN
    r'critical Socket can creation failed:  ".*"',
    r"critical Socket can cannot connect\.",
    r"warning QObject::connect\(QCanBusDevice, Unknown\): invalid nullptr parameter",
    r'warning Lost \d+ of \d+ frames of one message, can0 says: ".*"',
)
GATEWAY_LINES = (
    r"info daemon: connected to .*",
    r"warning daemon: .*; trying again",
    r"info broker: connected to .* as .*",
    r"warning broker: .*; trying again(?:, at least every \d+ s)?",
    r"info schema: .*",
    r"warning schema: a value comes that it does not have, .*",
    r"info done \{.*\}",
    r"warning broker: cannot subscribe to .*",
    r"warning spool: cannot write to .*: what the broker has not acknowledged is kept in memory",
    r"warning (?:state|topics): cannot write .*",
    r"warning broker: cannot publish on [^ ]*/(?:pulse|now/[^ ]*): MQTT error \[-3\]: Disconnected",
    *GATEWAY_WITHOUT_MEMORY,
    *ENDS_WITHOUT_MEMORY,
)
HISTORY_LINES = (
    r"<6>broker: connected to .* as .*",
    r"<4>broker: .*; trying again",
    r"<4>database: .*; trying again",
    r"<6>database: it takes values again",
)
A_STOCK_PROGRAMS = (".*",)  # its own affair


def combined(*environments):
    """Of what each of them preloads, everything."""
    preloaded = build.joined(":", *(each.get("LD_PRELOAD") for each in environments))
    both = {key: value for each in environments for key, value in each.items()}
    return {**both, **({"LD_PRELOAD": preloaded} if preloaded else {})}


def daemon(folder, link, clock):
    """`link` and `clock` are what the environment says of them."""
    return Program("daemon", folder, [place().daemon], combined(QT, link, clock), DAEMON_LINES)


def gateway(folder, broker, schema_file, clock):
    """`broker` is its host and port."""
    files = folder / "gateway-files"
    folders = {"STATE_DIRECTORY": files / "state", "RUNTIME_DIRECTORY": files / "run",
               "CREDENTIALS_DIRECTORY": files / "credentials"}
    for each in folders.values():
        each.mkdir(parents=True)
    settings = {"broker": {"url": f"mqtt://{broker}"}, "topics": {"id": "soak"},
                "schema": {"file": schema_file, "defend": True}, "write": {"users": "tester: *"}}
    (files / "gateway.ini").write_text(ini(settings))
    return Program("gateway", folder, [place().gateway, files / "gateway.ini"],
                   combined(QT, {key: str(value) for key, value in folders.items()}, clock), GATEWAY_LINES,
                   ignore_full_disk, is_log_carried=True)


def broker(folder, port, inside):
    """`inside` is given its command."""
    file = folder / "mosquitto.conf"
    files = folder / "mosquitto-files"
    files.mkdir()
    file.write_text("\n".join([
        "user root", f"listener {port}", "allow_anonymous true", "log_dest stderr", "log_type error",
        "log_type warning", "log_type subscribe", "max_queued_messages 100000", "set_tcp_nodelay true",
        "persistence true", f"persistence_location {files}/", "autosave_on_changes true", "autosave_interval 1", ""]))
    return Program("broker", folder, inside("mosquitto", "-c", file), expected=A_STOCK_PROGRAMS)


def database(folder, port):
    return Program("database", folder, [
        "victoria-metrics", f"-storageDataPath={folder}/data", f"-httpListenAddr=127.0.0.1:{port}",
        "-dedup.minScrapeInterval=1ms", "-retentionPeriod=1y", "-search.latencyOffset=0s",
        "-memory.allowedBytes=128MB", "-search.disableCache", "-loggerLevel=ERROR"], expected=A_STOCK_PROGRAMS)


def history(folder, broker, database_port, clock):
    files = folder / "history-files"
    (files / "state").mkdir(parents=True)
    file = files / "history.ini"
    file.write_text(ini({"broker": {"url": f"mqtt://{broker}", "keepalive_s": 5},
                         "database": {"url": f"http://127.0.0.1:{database_port}/write"}}))
    return Program("history", folder, [place().history, file],
                   combined(python_path(), {"STATE_DIRECTORY": str(files / "state")}, clock), HISTORY_LINES)


def python_path():
    return {"PYTHONPATH": str(place().python)}


def wait_answering(place):
    """`place` is an address and a port."""
    def answers():
        with contextlib.suppress(OSError), socket.create_connection(place, timeout=1):
            return True

    harness.wait_until(answers, 30, f"{place} to answer")


def wait_subscribed(broker, client):
    """What is published before nobody keeps for it."""
    harness.wait_until(lambda: client in broker.log_path.read_text(), 30, f"{client} to subscribe")
