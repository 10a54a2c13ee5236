"""The running history, as a test sees it: the service, a database and brokers that nobody here wrote, and a board."""

import collections
import contextlib
import json
import os
import pathlib
import signal
import socket
import subprocess
import time
import urllib.error
import urllib.parse
import urllib.request

import paho.mqtt.client as mqtt

PROJECT = pathlib.Path(__file__).parents[3]
PROGRAM = PROJECT / "clients" / "python" / "vorbel-history"
PATIENCE = 60  # seconds for whatever is to come

SCHEMA = {
    "motor": {
        "speed": {"@mac": 5, "@cmd": 2, "@format": "s"},
        "heat": {"@mac": 5, "@cmd": 3, "@format": "S", "scale": 0.1, "offset": -40},
        "on": {"@mac": 5, "@cmd": 4, "@format": "C", "@asBool": True},
        "wave": {"@mac": 5, "@cmd": 5, "@format": "s", "@flushSize": 4},
    },
}


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def wait_until(condition, what, patience=PATIENCE):
    end = time.monotonic() + patience
    while not (found := condition()):
        assert time.monotonic() < end, f"waited {patience} s for {what}"
        time.sleep(0.05)
    return found


def milliseconds():
    return int(time.time() * 1000)


def compact(value):
    """JSON as the gateway writes it."""
    return json.dumps(value, separators=(",", ":"), ensure_ascii=False).encode()


class Process:
    """A program with a log that may come and go. `command` is what starts it."""

    def __init__(self, folder, name):
        self.folder = folder / name
        self.folder.mkdir(parents=True)
        self.process = None
        self._log = self.folder / "log"

    def command(self):
        raise NotImplementedError

    def environment(self):
        return None

    def is_ready(self):
        return True

    def start(self, wait=True):
        with open(self._log, "ab") as log:
            self.process = subprocess.Popen(self.command(), stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                                            env=self.environment(), cwd=self.folder)
        if wait:
            wait_until(self.is_ready, f"{self.folder.name} to be ready:\n{self.log()[-2000:]}")
        return self

    def log(self):
        return self._log.read_text(errors="replace")

    def kill(self):
        self.process.kill()
        self.process.wait(PATIENCE)

    def stop(self):
        """Its exit code."""
        self.process.terminate()
        return self.process.wait(PATIENCE)

    def pause(self):
        self.process.send_signal(signal.SIGSTOP)

    def resume(self):
        self.process.send_signal(signal.SIGCONT)

    def end(self):
        if self.process and self.process.poll() is None:
            self.kill()


def answers(port):
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", port)) == 0


class Mosquitto(Process):
    def __init__(self, folder, *lines):
        super().__init__(folder, "mosquitto")
        self.port = free_port()
        (self.folder / "conf").write_text("\n".join([
            "user root", f"listener {self.port} 127.0.0.1", "allow_anonymous true", "max_queued_messages 100000",
            "set_tcp_nodelay true", "persistence true", f"persistence_location {self.folder}/",
            "autosave_on_changes true", "autosave_interval 1", *lines, ""]))

    def command(self):
        return ["mosquitto", "-c", self.folder / "conf"]

    def is_ready(self):
        return answers(self.port)


class Nats(Process):
    def __init__(self, folder, *lines):
        super().__init__(folder, "nats")
        self.port, self._client = free_port(), free_port()
        (self.folder / "conf").write_text("\n".join([
            "server_name: plant-1", f'listen: "127.0.0.1:{self._client}"',
            f'jetstream {{ store_dir: "{self.folder}/store", max_file_store: 1GB }}',
            f'mqtt {{ host: "127.0.0.1", port: {self.port}', *lines, "}", ""]))

    def command(self):
        return ["nats-server", "-c", self.folder / "conf"]

    def is_ready(self):
        return answers(self.port)


class Database(Process):
    def __init__(self, folder, port=None):
        super().__init__(folder, "database")
        self.port = port or free_port()

    @property
    def url(self):
        return f"http://127.0.0.1:{self.port}"

    def command(self):
        return ["victoria-metrics", f"-storageDataPath={self.folder}/data", f"-httpListenAddr=127.0.0.1:{self.port}",
                "-dedup.minScrapeInterval=1ms", "-retentionPeriod=100y", "-search.latencyOffset=0s",
                "-memory.allowedBytes=256MB", "-search.disableCache"]

    def is_ready(self):
        with contextlib.suppress(OSError):
            return self.get("/health") == b"OK"

    def get(self, path, **parameters):
        query = "?" + urllib.parse.urlencode(parameters) if parameters else ""
        with urllib.request.urlopen(f"{self.url}{path}{query}", timeout=PATIENCE) as answer:
            return answer.read()

    def query(self, expression, **parameters):
        """What an instant query says, by the labels that tell the series apart."""
        answer = json.loads(self.get("/api/v1/query", query=expression, **parameters))
        assert answer["status"] == "success", answer
        return {tuple(sorted(each["metric"].items())): float(each["value"][1]) for each in answer["data"]["result"]}

    def series(self, name="vorbel_value"):
        """{(board, path): [(ms, value), ...]} of all that is there."""
        self.get("/internal/force_flush")
        found = collections.defaultdict(list)
        text = self.get("/api/v1/export", **{"match[]": f'{{__name__="{name}"}}', "start": "0"})
        for line in text.splitlines():
            each = json.loads(line)
            labels = each["metric"]
            found[labels.get("board"), labels.get("path")] += zip(each["timestamps"], each["values"])
        return {key: sorted(points) for key, points in found.items()}


class History(Process):
    """Its log lines begin with their priority: "<6>..."."""

    def __init__(self, folder, broker, database):
        super().__init__(folder, "history")
        self.state = self.folder / "state"
        self.state.mkdir()
        self.settings = {
            "broker": {"url": f"mqtt://127.0.0.1:{broker.port}",
                       "version": "3.1.1" if isinstance(broker, Nats) else "5"},
            "database": {"url": f"{database.url}/write"}, "topics": {}}

    def command(self):
        file = self.folder / "history.ini"
        file.write_text("".join(f"[{section}]\n" + "".join(f"{key} = {value}\n" for key, value in keys.items())
                                for section, keys in self.settings.items()))
        return [PROGRAM, file]

    def environment(self):
        return {**os.environ, "STATE_DIRECTORY": str(self.state)}

    def start(self, wait=True):
        self._connections = self.log().count("broker: connected") if self._log.exists() else 0
        return super().start(wait)

    def is_ready(self):
        assert self.process.poll() is None, self.log()
        return self.log().count("broker: connected") > self._connections

    def lines(self):
        return self.log().splitlines()


class Board:
    """Publishes as a gateway does, and remembers what it said."""

    def __init__(self, port, name="press7", boot=1790000000, schema=SCHEMA):
        self.name, self.boot, self.number = name, boot, 0
        self.said = {}  # {(path, ms): value}
        self.number_of = {}  # {(path, ms): the number of its batch}
        self._client = mqtt.Client(client_id=f"gateway-{name}", clean_session=False)
        self._client.max_queued_messages_set(0)
        self._client.max_inflight_messages_set(100)
        self._client.reconnect_delay_set(1, 1)
        self._taken = set()  # by the broker, whatever became of the connection meanwhile
        self._client.on_publish = lambda client, data, number: self._taken.add(number)
        self._client.connect("127.0.0.1", port, keepalive=60)
        self._client.loop_start()
        self._last = None
        self.begin(boot)
        if schema is not None:
            self.publish("schema", compact(schema), retain=True)

    def begin(self, boot):
        self.boot, self.number = boot, 0
        self.publish("status", compact({"online": True, "type": "press", "id": "7", "since": boot * 1000, "boot": boot,
                                        "lost": 0}), retain=True)

    def publish(self, kind, payload, retain=False, qos=1):
        self._last = self._client.publish(f"vorbel/{self.name}/{kind}", payload, qos, retain)

    def batch(self, messages, begin):
        """The bytes of the next batch."""
        text = compact({"boot": self.boot, "n": self.number, "t": begin, "v": messages})
        self.number += 1
        return text

    def say(self, messages, begin):
        self.publish("values", self.batch(messages, begin))

    def say_speeds(self, count, begin, step=10):
        """One batch of speeds, each `step` ms behind the one before."""
        messages = []
        for place in range(count):
            value = len(self.said) % 30000
            self.said["motor.speed", begin + place * step] = value
            self.number_of["motor.speed", begin + place * step] = self.number
            messages.append([place * step, {"motor": {"speed": value}}])
        self.say(messages, begin)

    def settle(self):
        """Returns when the broker has all of it."""
        wait_until(lambda: self._last.mid in self._taken, "the broker to take what was published")

    def close(self):
        self._client.disconnect()
        self._client.loop_stop()
