"""What the gateway is measured with: a broker, a listener that costs next to nothing, and the gateway itself."""

import json
import os
import pathlib
import re
import selectors
import socket
import struct
import subprocess
import tempfile
import time

PATIENCE = 60  # seconds for whatever is to come; valgrind takes its time
BASE = "vorbel/bench/"


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Program:
    """A process with a log."""

    def __init__(self, command, log, environment=None):
        self._log = log
        with open(log, "wb") as output:
            self._process = subprocess.Popen(list(map(str, command)), env=environment, stdin=subprocess.DEVNULL,
                                             stdout=output, stderr=output)
        self.pid = self._process.pid

    def wait_until(self, is_so, what):
        """Fails with the log when it takes too long or the program ends."""
        deadline = time.monotonic() + PATIENCE
        while not is_so():
            if time.monotonic() > deadline or self._process.poll() is not None:
                raise AssertionError(f"waited for {what}; the log:\n{self._log.read_text(errors='replace')}")
            time.sleep(0.01)

    def cpu(self):
        """Seconds of CPU that all of its threads have taken."""
        return time.clock_gettime(~self.pid << 3 | 2)  # what clock_getcpuclockid(3) makes of a process

    def resident(self, kind="VmRSS"):
        """Kilobytes in memory: all, or with "RssAnon" without the pages of files."""
        return self._counted("status", kind)

    def written(self):
        """Bytes that the kernel has sent to a disk, or is going to, because of this process."""
        return self._counted("io", "write_bytes")

    def _counted(self, file, name):
        text = pathlib.Path(f"/proc/{self.pid}/{file}").read_text()
        return int(re.search(rf"^{name}:\s+(\d+)", text, re.M)[1])

    def stop(self):
        self._process.terminate()
        self._process.wait(PATIENCE)


class Broker(Program):
    """mosquitto, which keeps nothing on a disk and drops nothing."""

    def __init__(self, folder):
        self.port = free_port()
        file = folder / "mosquitto.conf"
        file.write_text(f"user root\nlistener {self.port} 127.0.0.1\nallow_anonymous true\npersistence false\n"
                        "log_type error\nlog_type warning\nmax_queued_messages 0\nset_tcp_nodelay true\n")
        super().__init__(["mosquitto", "-c", file], folder / "mosquitto.log")
        self.wait_until(self._listens, "the broker to listen")

    def _listens(self):
        with socket.socket() as probe:
            return probe.connect_ex(("127.0.0.1", self.port)) == 0


class Listener:
    """Calls hear(topic, payload) for what a broker has on a topic. Reading it costs next to nothing."""

    def __init__(self, port, topic, hear):
        self._hear = hear
        self._rest = b""
        self._socket = socket.create_connection(("127.0.0.1", port))
        self._selector = selectors.DefaultSelector()
        self._selector.register(self._socket, selectors.EVENT_READ)
        name = b"\0\4MQTT\4\2\0\0" + _text(f"bench-{self._socket.getsockname()[1]}")  # MQTT 3.1.1, a clean session
        filter_ = b"\0\1" + _text(topic) + b"\0"
        self._socket.sendall(b"\x10" + bytes([len(name)]) + name + b"\x82" + bytes([len(filter_)]) + filter_)

    def read(self, timeout):
        """Hears what is there, or comes within the time. Whether something did."""
        is_there = bool(self._selector.select(timeout))
        if is_there:
            self._rest = self._take(self._rest + self._socket.recv(1 << 20))
        return is_there

    def read_until(self, is_so, what, timeout=PATIENCE):
        deadline = time.monotonic() + timeout
        while not is_so():
            if time.monotonic() > deadline:
                raise AssertionError(f"waited for {what}")
            self.read(0.1)

    def _take(self, data):
        """Hears the packets that are whole; the rest of the data."""
        at = 0
        while (packet := _packet(data, at)) is not None:
            kind, begin, at = packet
            if kind == 3:  # PUBLISH, which with QoS 0 has no identifier
                (length,) = struct.unpack_from(">H", data, begin)
                payload = begin + 2 + length
                self._hear(data[begin + 2:payload], data[payload:at])
        return data[at:]

    def close(self):
        self._socket.close()


def _text(text):
    return struct.pack(">H", len(text)) + text.encode()


def _packet(data, at):
    """Kind, begin and end of what a packet of MQTT says; None if it is not whole."""
    size = 0
    for width in range(1, 5):
        if at + width >= len(data):
            return None
        byte = data[at + width]
        size |= (byte & 0x7F) << 7 * (width - 1)
        if byte < 0x80:
            break
    begin = at + 1 + width
    return (data[at] >> 4, begin, begin + size) if begin + size <= len(data) else None


class Values(Listener):
    """Counts the messages of the daemon in the batches, and fails where one of these is missing.

    Has what a client of the daemon has for service_bench.Server.
    """

    def __init__(self, port, mark):
        """`mark` stands once in each message."""
        self.received = self.batches = 0
        self._mark = mark
        self._next = None
        super().__init__(port, BASE + "values", self._count)

    def _count(self, _topic, batch):
        number = int(re.search(rb'"n":(\d+)', batch)[1])
        if self._next not in (None, number):
            raise AssertionError(f"batch {number} came instead of {self._next}")
        self._next = number + 1
        self.batches += 1
        self.received += batch.count(self._mark)

    def wait(self, count, timeout=PATIENCE):
        self.read_until(lambda: self.received >= count, f"{count} messages; there are {self.received}", timeout)

    def settle(self, feed):
        """Feeds until something comes, and then waits until nothing does any more; counts from 0 again."""
        def comes():
            feed()
            return self.received

        self.read_until(comes, "the first values")
        while self.read(1.5):
            pass
        self.received = self.batches = 0


class Gateway(Program):
    """The gateway as a service manager starts it: what is quick is in memory. It is online when this returns."""

    def __init__(self, build, folder, broker, schema, sections, wrapper=(), lasting=None):
        """`sections` are settings by section and key; `lasting` is its folder on a disk."""
        file, schema_file = folder / "gateway.ini", folder / "schema.json"
        schema_file.write_text(json.dumps(schema))
        settings = {"topics": {"id": "bench"}, "schema": {"file": schema_file}, **sections}
        settings["broker"] = {"url": f"mqtt://127.0.0.1:{broker.port}", **sections.get("broker", {})}
        file.write_text("".join(f"[{section}]\n" + "".join(f"{key} = {value}\n" for key, value in keys.items())
                                for section, keys in settings.items()))
        self._quick = tempfile.TemporaryDirectory(dir="/dev/shm")
        lasting = lasting or folder / "state"
        lasting.mkdir(exist_ok=True)
        environment = {key: value for key, value in os.environ.items() if key != "LD_PRELOAD"}
        environment.update(STATE_DIRECTORY=str(lasting), RUNTIME_DIRECTORY=self._quick.name, QT_HASH_SEED="0",
                           QT_LOGGING_RULES="*.debug=false")
        super().__init__([*wrapper, build / "gateway" / "vorbel-gateway", file], folder / "gateway.log", environment)
        self._wait_online(broker)

    def _wait_online(self, broker):
        said = []
        status = Listener(broker.port, BASE + "status", lambda _topic, payload: said.append(payload))

        def is_online():
            status.read(0)
            return any(b'"online":true' in payload for payload in said)

        self.wait_until(is_online, "the gateway to be online")
        status.close()

    def stop(self):
        super().stop()
        self._quick.cleanup()
