"""The running gateway, as a test sees it: a process with its settings, brokers nobody here wrote, and listeners."""

import asyncio
import collections
import contextlib
import json
import os
import pathlib
import re
import resource
import signal
import socket
import subprocess
import threading
import time
from typing import NamedTuple

import paho.mqtt.client as mqtt

import harness
from hardware import load
from harness import wait_until
from vorbelsim import CanFrame, VirtualCanBus

PATIENCE = 30  # seconds for whatever is to come
AT_ONCE = {"values": {"interval_ms": 0}, "now": {"interval_ms": 0}}
RECEIVED = "info Received schema: .*"
PROGRAM = harness.BUILD / "gateway" / "vorbel-gateway"

# What most tests load: a reading, a set point, a mode with names, and what nobody may write.
SCHEMA = {
    "motor": {
        "speed": {"@mac": 5, "@cmd": 2, "@format": "s", "title": "Speed", "unit": "rpm"},
        "setpoint": {"@mac": 5, "@cmd": 3, "@format": "s", "title": "Set point", "min": -6000, "max": 6000},
        "mode": {"@mac": 5, "@cmd": 4, "@format": "C", "labels": {"0": "off", "2": "running"}},
        "hot": {"@mac": 5, "@cmd": 5, "@format": "C", "@asBool": True},
    },
    "valve": {"@mac": 6, "@cmd": 1, "@format": "C"},
}


def speed(value):
    """The frame that SCHEMA reads as motor.speed."""
    return CanFrame.vek(5, 2, value.to_bytes(2, "little", signed=True))


def setpoint(value):
    """The frame that a write of motor.setpoint makes."""
    return CanFrame.vek(5, 3, value.to_bytes(2, "little", signed=True))


def milliseconds():
    """Since 1970, as the gateway counts."""
    return int(time.time() * 1000)


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def answers(port):
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", port)) == 0


def compact(value):
    """JSON as the gateway writes it."""
    return json.dumps(value, separators=(",", ":"), ensure_ascii=False).encode()


class Process:
    """A program with a log, which a test stops, kills or holds."""

    def __init__(self, command, log_path, environment=None, before=None):
        self.log_path = log_path
        with open(log_path, "wb") as log:
            self.process = subprocess.Popen(command, env=environment, stdin=subprocess.DEVNULL, stdout=log, stderr=log,
                                            preexec_fn=before)
        self.pid = self.process.pid

    def log(self):
        return self.log_path.read_text(errors="replace")

    def lines(self):
        return self.log().splitlines()

    def alive(self):
        return self.process.poll() is None

    def wait_ended(self, timeout=PATIENCE):
        """Its exit code."""
        return self.process.wait(timeout)

    def stop(self):
        """Ends it as a service manager does; its exit code."""
        self.resume()
        self.process.terminate()
        return self.wait_ended()

    def kill(self):
        self.process.kill()
        self.wait_ended()

    def pause(self):
        self.process.send_signal(signal.SIGSTOP)

    def resume(self):
        self.process.send_signal(signal.SIGCONT)

    def reset_memory_peak(self):
        pathlib.Path(f"/proc/{self.pid}/clear_refs").write_text("5")

    def memory_peak(self):
        """VmHWM in MiB since then."""
        text = pathlib.Path(f"/proc/{self.pid}/status").read_text()
        return int(re.search(r"^VmHWM:\s+(\d+) kB", text, re.M)[1]) / 1024


class Mosquitto:
    """A broker on a port of its own, which may come and go. `lines` are more of its configuration, and `first` those
    that stand before its listener."""

    def __init__(self, folder, *lines, first=(), persistence=False):
        self.port = free_port()
        self.folder = folder / f"mosquitto-{self.port}"
        self.folder.mkdir()
        self._file = self.folder / "mosquitto.conf"
        self._file.write_text("\n".join([
            *first, "user root", f"listener {self.port} 127.0.0.1", "log_dest stderr", "log_type all",
            "max_queued_messages 0", "set_tcp_nodelay true", f"persistence_location {self.folder}/",
            *(["persistence true", "autosave_on_changes true", "autosave_interval 1"] if persistence else []),
            *(lines or ["allow_anonymous true"]), ""]))
        self._process = None

    @property
    def url(self):
        return f"mqtt://127.0.0.1:{self.port}"

    @property
    def saved(self):
        """Where it keeps what is to be there after it was killed."""
        return self.folder / "mosquitto.db"

    def start(self):
        log = self.folder / f"log-{time.monotonic_ns()}"
        self._process = Process(["mosquitto", "-c", self._file], log)
        wait_until(lambda: answers(self.port), PATIENCE, "the broker to listen")
        return self

    def log(self):
        return self._process.log()

    def stop(self):
        if self._process and self._process.alive():
            self._process.stop()

    def kill(self):
        self._process.kill()

    def pause(self):
        self._process.pause()

    def resume(self):
        self._process.resume()

    def reload(self):
        """Reads its configuration again."""
        self._process.process.send_signal(signal.SIGHUP)


class Message(NamedTuple):
    topic: str
    payload: bytes
    qos: int
    retain: bool

    @property
    def json(self):
        return json.loads(self.payload)


class Listener:
    """A foreign client that keeps everything it hears, in order, and publishes.

    With a `name` its session survives: what comes while it is away, it hears later. `prepare` is given the client
    before it connects.
    """

    def __init__(self, port, *topics, name=None, base="vorbel/7/", prepare=None):
        self.base = base
        self._topics = [(topic, 1) for topic in topics or ("#",)]
        self._messages = []
        self._subscribed = threading.Event()
        self._client = mqtt.Client(client_id=name or "", clean_session=not name)
        self._client.on_connect = self._on_connect
        self._client.on_subscribe = lambda *_: self._subscribed.set()
        self._client.on_message = self._on_message
        self._client.reconnect_delay_set(1, 1)
        self._client.max_inflight_messages_set(1000)
        if prepare:
            prepare(self._client)
        self._client.connect("127.0.0.1", port, keepalive=20)
        self._client.loop_start()
        self.wait_subscribed()

    def _on_connect(self, client, _userdata, _flags, result):
        if result == 0:
            client.subscribe(self._topics)

    def _on_message(self, _client, _userdata, message):
        self._messages.append(Message(message.topic, message.payload, message.qos, bool(message.retain)))

    def wait_subscribed(self):
        assert self._subscribed.wait(PATIENCE)

    def expect_new_connection(self):
        """From here on wait_subscribed() means that it has come back."""
        self._subscribed.clear()

    def close(self):
        self._client.disconnect()
        self._client.loop_stop()

    def forget(self):
        """What has come so far."""
        self._messages.clear()

    # What has come

    def of(self, topic):
        """The messages of a topic below the base."""
        return [message for message in list(self._messages) if message.topic == self.base + topic]

    def below(self, topic):
        """The last message of each topic that begins so, by the rest of the topic."""
        begin = self.base + topic
        return {message.topic[len(begin):]: message for message in list(self._messages)
                if message.topic.startswith(begin)}

    def everything(self):
        return list(self._messages)

    def wait(self, topic, fits=lambda message: True, timeout=PATIENCE):
        """The first message of a topic that fits."""
        def found():
            return [message for message in self.of(topic) if fits(message)]

        return wait_until(found, timeout, f"a message on {topic}; there are {self.of(topic)[-3:]}")[0]

    def wait_count(self, topic, count, timeout=PATIENCE):
        """The messages of a topic, as soon as there are so many."""
        wait_until(lambda: len(self.of(topic)) >= count, timeout, f"{count} messages on {topic}")
        return self.of(topic)

    def wait_last(self, topic, payload, timeout=PATIENCE):
        """Waits until the last message of a topic is this one, and returns it."""
        def last():
            messages = self.of(topic)
            return messages[-1] if messages and messages[-1].payload == payload else None

        return wait_until(last, timeout, f"{payload!r} on {topic}; there are {self.of(topic)[-3:]}")

    def batches(self):
        return [message.json for message in self.of("values")]

    def values(self):
        """The values of all batches, in order, without their times."""
        return [value for batch in self.batches() for _, value in batch["v"]]

    # What is said

    def publish(self, topic, payload, qos=1, retain=False):
        """Publishes below the base, and returns when the broker has it."""
        if not isinstance(payload, (bytes, str)):
            payload = compact(payload)
        info = self._client.publish(self.base + topic, payload, qos, retain)
        info.wait_for_publish(PATIENCE)
        assert info.is_published()

    def publish_soon(self, topic, payload, qos=1):
        """The same without waiting."""
        self._client.publish(self.base + topic, payload, qos)


def load_as_another_client(schema):
    """Replaces the daemon's schema, as any client may."""
    async def replace():
        async with harness.connect() as client:
            await harness.receive(client)
            await load(client, schema)

    asyncio.run(replace())


def retained(port, topic="#", seconds=0.5, prepare=None):
    """What a broker has kept, by topic."""
    listener = Listener(port, topic, prepare=prepare)
    # Kept messages come right behind the subscription; one of our own comes behind them.
    mark = f"mark/{time.monotonic_ns()}"
    with contextlib.closing(listener):
        if topic == "#":
            listener.base = ""
            listener.publish(mark, b"")
            listener.wait(mark)
        else:
            time.sleep(seconds)
        return {message.topic: message.payload for message in listener.everything() if message.retain}


def ini(settings):
    """Settings by section and key as a file's text."""
    def text(value):
        return str(value).lower() if isinstance(value, bool) else str(value)

    return "".join(f"[{section}]\n" + "".join(f"{key} = {text(value)}\n" for key, value in keys.items()) + "\n"
                   for section, keys in settings.items())


class Gateway(Process):
    """One run of the gateway. Its log lines begin with their level: "info ..."."""

    def __init__(self, folder, settings, *, before=None, wrapper=(), state=None, environment=None):
        """`wrapper` are the words before the program's name, `before` runs in its process."""
        folder.mkdir(exist_ok=True)
        self.state = state or folder / "state"
        self.file = folder / "gateway.ini"
        self.file.write_text(ini(settings))
        super().__init__([*wrapper, PROGRAM, self.file], folder / f"gateway-{time.monotonic_ns()}.log",
                         gateway_environment(folder, self.state, environment), before)

    def wait_for(self, pattern, count=1, timeout=PATIENCE):
        """The first line that matches as a whole."""
        def found():
            lines = [line for line in self.lines() if re.fullmatch(pattern, line)]
            return lines if len(lines) >= count else None

        return wait_until(found, timeout, f"{count} x {pattern!r} in the log:\n{self.log()}")[0]

    def end_at_once(self):
        """Kills it, and fails if it had ended by itself."""
        assert self.alive(), f"the gateway ended by itself, {self.process.returncode}:\n{self.log()}"
        self.kill()

    def finish(self):
        """Stops it, and fails if it had ended by itself or does not end well."""
        assert self.alive(), f"the gateway ended by itself, {self.process.returncode}:\n{self.log()}"
        code = self.stop()
        for mark in ("ERROR: AddressSanitizer", "runtime error:", "ERROR: LeakSanitizer", "WARNING: ThreadSanitizer"):
            assert mark not in self.log(), self.log()
        assert code == 0, self.log()


def gateway_environment(folder, state, more=None):
    """The variables that a service manager sets, with folders that are there."""
    folders = {"STATE_DIRECTORY": state, "RUNTIME_DIRECTORY": folder / "run",
               "CREDENTIALS_DIRECTORY": folder / "credentials"}
    for path in folders.values():
        path.mkdir(exist_ok=True)
    inherited = {key: value for key, value in os.environ.items() if not key.startswith("VORBEL_")}
    return {**inherited, "QT_MESSAGE_PATTERN": "%{type} %{message}", "LC_ALL": "C.UTF-8",
            **{key: str(value) for key, value in folders.items()}, **(more or {})}


def limit_file_size(size):
    """For Gateway's `before`: no file may grow beyond, as on a disk that is full."""
    def limit():
        signal.signal(signal.SIGXFSZ, signal.SIG_IGN)
        resource.setrlimit(resource.RLIMIT_FSIZE, (size, size))

    return limit


class Plant:
    """A bus, a daemon, a broker, a listener to everything, and a gateway when it is started."""

    def __init__(self, folder, broker=None, schema=None, **environment):
        """`environment` is more of the daemon's."""
        self.folder = folder
        self.bus = VirtualCanBus(folder).start()
        self.broker = broker or Mosquitto(folder).start()
        self.schema_file = folder / "schema.json"
        self.set_schema_file(SCHEMA if schema is None else schema)
        self.gateway = self.daemon = self.listener = None
        self.environment = environment
        self.start_daemon()

    def set_schema_file(self, schema):
        self.schema_file.write_text(json.dumps(schema, indent=4, ensure_ascii=False))

    def start_daemon(self):
        self.daemon = harness.Daemon(self.folder, {**self.bus.env(), **self.environment})
        self.daemon.wait_listening()
        self.bus.wait_connected(self.bus.accepted + 1)

    def stop_daemon(self):
        self.daemon.stop()
        self.daemon = None

    def listen(self, **options):
        """Begins to listen; the gateway that is started then is heard from its first message on."""
        if not self.listener:
            self.listener = Listener(self.broker.port, **options)
        return self.listener

    def settings(self, **sections):
        """What every gateway here is told, and what a test tells it beside that."""
        base = {"broker": {"url": self.broker.url}, "topics": {"id": "7"}, "schema": {"file": self.schema_file}}
        return {section: {**base.get(section, {}), **sections.get(section, {})} for section in {**base, **sections}}

    def start(self, wait=True, options=None, **sections):
        """Starts the gateway with these settings. `options` are those of Gateway."""
        self.listen()
        boots, pulses = {message.payload for message in self.listener.of("status")}, len(self.listener.of("pulse"))
        settings = self.settings(**sections)
        schemas = self.daemon.count(RECEIVED) if self.daemon else 0
        self.gateway = Gateway(self.folder / "gateway", settings, **(options or {}))
        if wait:
            self.wait_online(boots)
            self.listener.wait("schema")
            if self.daemon and settings["schema"].get("file"):
                self.daemon.wait_for(RECEIVED, schemas + 1, PATIENCE)  # what comes before has no names
            if "write" in settings or settings["schema"].get("accept"):
                self.listener.wait_count("pulse", pulses + 1)  # only from then on it hears what is written
        return self.gateway

    def wait_online(self, others=frozenset()):
        """Waits for a status that is none of `others`, and returns it."""
        return self.listener.wait("status",
                                  lambda message: message.json["online"] and message.payload not in others).json

    def wait_heard(self, value):
        """Says a speed until it comes to the listener: after a reconnection, the daemon has no schema at first."""
        def is_heard():
            self.say_speeds(value)
            time.sleep(0.1)
            return value in speeds(self.listener)

        wait_until(is_heard, PATIENCE, f"the speed {value}")

    def restart(self, **sections):
        self.stop_gateway()
        return self.start(**sections)

    def stop_gateway(self):
        if self.gateway:
            gateway, self.gateway = self.gateway, None
            gateway.finish()

    def close(self):
        """Ends everything; fails if the gateway or the daemon ended by itself. A sanitizer reports at a proper end."""
        with contextlib.ExitStack() as stack:
            stack.callback(self.bus.stop)
            stack.callback(self.broker.stop)
            if self.listener:
                stack.callback(self.listener.close)
            if self.daemon:
                stack.callback(self.daemon.stop)
            if harness.SANITIZED:
                self.stop_gateway()
            elif self.gateway:
                self.gateway.end_at_once()

    # Values

    def say(self, *frames):
        for frame in frames:
            self.bus.send(frame)

    def say_speeds(self, *speeds):
        self.say(*map(speed, speeds))

    def wait_speed(self, value):
        """Waits until a value has come to the listener."""
        wait_until(lambda: value in speeds(self.listener), PATIENCE, f"the speed {value}")

    # Writes

    def write(self, user, path, payload):
        """Publishes a write and returns what the gateway says became of it."""
        return self._done_with(f"set/{user}/{path}", payload)

    def put_schema(self, schema):
        """The same with a schema."""
        return self._done_with("schema/set", schema)

    def _done_with(self, topic, payload):
        before = len(self.listener.of("done"))
        self.listener.publish(topic, payload)
        return self.listener.wait_count("done", before + 1)[before].json

    def frames(self, count, timeout=PATIENCE):
        """The next frames that the daemon wrote."""
        return [written.frame for written in self.bus.receive(count, timeout)]

    def only_frames(self, *expected):
        """These frames were written, and none behind them."""
        assert self.frames(len(expected)) == list(expected)
        assert self.frames(1, timeout=0.1) == []


def speeds(listener):
    """The readings of motor.speed in all batches, in order."""
    return [value["motor"]["speed"] for value in listener.values() if "speed" in value.get("motor", {})]


def numbers(listener):
    """The n of all batches by boot, in order of arrival."""
    by_boot = collections.defaultdict(list)
    for batch in listener.batches():
        by_boot[batch["boot"]].append(batch["n"])
    return dict(by_boot)


def without_repeats(sequence):
    return list(dict.fromkeys(sequence))


def assert_nothing_missing(listener):
    """Within each boot, n counts from 0 without a gap, and what comes again came before."""
    for boot, arrived in numbers(listener).items():
        assert without_repeats(arrived) == list(range(max(arrived) + 1)), f"boot {boot}"


class Relay:
    """A network between a port of its own and another one: it carries, stalls, breaks and is not there."""

    def __init__(self, target):
        self._target = target
        self.port = free_port()
        self._flows = {"up": threading.Event(), "down": threading.Event()}
        self._connections = []
        self._listening = None
        self.carry()
        self.open()

    def open(self):
        """Takes connections from now on."""
        self._listening = socket.create_server(("127.0.0.1", self.port))
        threading.Thread(target=self._accept, args=(self._listening,), daemon=True).start()

    def shut(self):
        """Takes no more connections, and breaks those that there are."""
        self._listening.shutdown(socket.SHUT_RDWR)
        self._listening.close()
        self.cut()

    def cut(self):
        """Breaks all connections."""
        taken, self._connections = self._connections, []
        for end in taken:
            with contextlib.suppress(OSError):
                end.shutdown(socket.SHUT_RDWR)
            end.close()

    def stall(self, *directions):
        """Carries nothing "up" to the target or "down" from it, and says nothing about it; by default neither."""
        for direction in directions or self._flows:
            self._flows[direction].clear()

    def carry(self):
        for flow in self._flows.values():
            flow.set()

    def close(self):
        self.carry()
        with contextlib.suppress(OSError):
            self.shut()

    def _accept(self, listening):
        with contextlib.suppress(OSError):
            while True:
                near = listening.accept()[0]
                try:
                    far = socket.create_connection(("127.0.0.1", self._target))
                except OSError:
                    near.close()
                    continue
                self._connections += [near, far]
                for ends in ((near, far, "up"), (far, near, "down")):
                    threading.Thread(target=self._carry, args=ends, daemon=True).start()

    def _carry(self, source, sink, direction):
        flow = self._flows[direction]
        with contextlib.suppress(OSError):
            while data := source.recv(65536):
                flow.wait()
                sink.sendall(data)
        for end in (source, sink):
            with contextlib.suppress(OSError):
                end.shutdown(socket.SHUT_RDWR)


class Sender:
    """As a context manager: says one speed after the other, from 0, some each second, until its end."""

    def __init__(self, plant, rate=50):
        self.said = 0
        self._plant = plant
        self._pause = 1 / rate
        self._ended = threading.Event()
        self._thread = threading.Thread(target=self._say)

    def _say(self):
        while not self._ended.wait(self._pause):
            self._plant.say_speeds(self.said % 30_000)
            self.said += 1

    def wait(self, more):
        """Until so many more have been said."""
        count = self.said + more
        wait_until(lambda: self.said >= count, PATIENCE, f"{count} speeds to be said")

    def __enter__(self):
        self._thread.start()
        return self

    def __exit__(self, *_):
        self._ended.set()
        self._thread.join()
