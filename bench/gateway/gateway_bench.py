#!/usr/bin/python3
"""Measures the gateway between the daemon and a broker, mosquitto, on the same machine.

    gateway_bench.py BUILD_DIR CASE... [--seconds S]

The daemon is the real one with a simulated adapter, except where something is counted. A batch that is missing fails
the run.
"""

import collections
import contextlib
import os
import pathlib
import queue
import statistics
import sys
import tempfile
import threading
import time

PROJECT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(PROJECT / folder) for folder in ("sim", "bench", "bench/gateway", "bench/clients", "bench/service")]
import cases  # noqa: E402
import counting  # noqa: E402
import service_bench as service  # noqa: E402
import source  # noqa: E402
from plant import BASE, PATIENCE, Broker, Gateway, Listener, Values  # noqa: E402
from vorbelsim import vek  # noqa: E402

MARK = b'{"motor"'
EACH_MESSAGE = {"values": {"interval_ms": 0}}
EACH_MILLISECOND = {"values": {"interval_ms": 1}}


class Plant:
    """The daemon with an adapter, a broker, the gateway between them, and a listener to the batches."""

    def __init__(self, build, sections=None, schema=service.SCHEMA, lasting=None):
        with contextlib.ExitStack() as stack:
            folder = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory()))
            self.broker = Broker(folder)
            stack.callback(self.broker.stop)
            self.server = stack.enter_context(service.running("vorbel", build, 0))
            self.gateway = Gateway(build, folder, self.broker, schema, sections or {}, lasting=lasting)
            stack.callback(self.gateway.stop)
            self._stack = stack.pop_all()

    def hear_values(self):
        """The daemon's records are counted at the broker from now on."""
        self.server.clients = values = Values(self.broker.port, MARK)
        values.settle(lambda: self.server.feed(1))
        self.server.sent = 0
        return values

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self._stack.close()


def at_line_rate(server, seconds):
    server.burst(int(seconds * service.LINE_RATE / service.BURST))


def as_heard(server, seconds):
    """As many as come to the broker, with a thousand on their way: more would only pile up there."""
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        if server.sent - server.clients.received < 1000:
            server.feed(service.BURST)
        server.clients.read(0.001)


def cost(build, seconds, feed=at_line_rate, sections=None):
    """What a record costs the daemon and the gateway, and how many came in a second, in how many batches."""
    with Plant(build, sections) as plant:
        values = plant.hear_values()
        before = plant.server.cpu(), plant.gateway.cpu()
        started = time.monotonic()
        feed(plant.server, seconds)
        took, records = time.monotonic() - started, values.received
        return {"daemon us": (plant.server.cpu() - before[0]) / records * 1e6,
                "us": (plant.gateway.cpu() - before[1]) / records * 1e6,
                "records": records / took, "batches": values.batches / took, "MB": plant.gateway.resident() / 1024}


def line_rate(build, seconds, table):
    """CPU beside that of the daemon, which has the gateway as its only client, with the settings of the package."""
    runs = [cost(build, seconds) for _ in range(3)]
    run = min(runs, key=lambda each: each["us"])
    table["gateway/line_rate"] = {"us a record": round(run["us"], 2),
                                  "% of a core": percent(run["us"], service.LINE_RATE),
                                  "x daemon": round(run["us"] / run["daemon us"], 2),
                                  "MB": round(max(each["MB"] for each in runs), 2)}


def percent(each, rate):
    """Of a core, when each takes so many microseconds and so many come in a second."""
    return round(each * rate / 1e6 * 100, 1)


def batches(build, seconds, table):
    """The line's records in batches of a millisecond; and each by itself, which are more than can be published."""
    for name, feed, sections in (("1 ms", at_line_rate, EACH_MILLISECOND), ("each message", as_heard, EACH_MESSAGE)):
        run = cost(build, seconds, feed, sections)
        table[f"gateway/batches/{name}"] = {
            "records a second": round(run["records"]), "batches a second": round(run["batches"]),
            "% of a core": percent(run["us"], run["records"]), "MB": round(run["MB"], 2)}


def flash(build, seconds, table):
    """What is written to the disk of BENCH_STATE, a folder, in hours with a batch a second. Not part of all runs, since
    it says little after less than ten minutes: --seconds 600.

    The file system's count has its journal and whatever else is on it: a file system of its own says most.
    """
    folder = pathlib.Path(os.environ["BENCH_STATE"]).resolve()
    with Plant(build, lasting=folder) as plant:
        values = plant.hear_values()
        before = plant.gateway.written(), file_system_written(folder)
        started = time.monotonic()
        while (passed := time.monotonic() - started) < seconds:
            plant.server.feed(service.BURST)
            values.read(0.1)
            time.sleep(0.1)
        of_process = plant.gateway.written() - before[0]
        of_file_system = file_system_written(folder) - before[1]
        table["gateway/flash"] = {
            "minutes": round(passed / 60, 1), "batches": values.batches,
            "MB an hour": round(of_process / passed * 3600 / 1e6, 2),
            "MB an hour of the file system": round(of_file_system / passed * 3600 / 1e6, 2)}


def file_system_written(folder):
    """Bytes that ext4 has written to the file system of a folder since it was mounted."""
    os.sync()
    device = folder.stat().st_dev
    name = pathlib.Path(f"/sys/dev/block/{os.major(device)}:{os.minor(device)}").resolve().name
    return int(pathlib.Path(f"/sys/fs/ext4/{name}/session_write_kbytes").read_text()) * 1024


# The latest values of 2,000 paths

FRAMES, LEAVES = 250, 8
CYCLE = FRAMES / service.LINE_RATE  # seconds in which the line brings all of them once
PATHS = FRAMES * LEAVES


def endpoint(frame):
    return 1 + frame // 25, 1 + frame % 25


def leaf_at(frame, byte):
    mac, cmd = endpoint(frame)
    return {"@mac": mac, "@cmd": cmd, "@format": "C", "@skip": byte}


ALL_PATHS = {f"f{frame}": {f"v{byte}": leaf_at(frame, byte) for byte in range(LEAVES)} for frame in range(FRAMES)}


def all_values(value):
    """The records that give all paths one value, as the line brings them: in bursts."""
    records = [vek.record(*endpoint(frame), bytes([value] * LEAVES)) for frame in range(FRAMES)]
    return [b"".join(records[at:at + service.BURST]) for at in range(0, FRAMES, service.BURST)]


class Now(Listener):
    """Hears the latest values, and how old they are: since when the record with the value is on the line."""

    def __init__(self, plant):
        self.times = []  # of arrivals
        self.ages = []
        self._adapter = plant.server.adapter
        self._records = [all_values(value) for value in range(256)]
        self._written = collections.defaultdict(dict)  # when a burst brought a value last
        super().__init__(plant.broker.port, BASE + "now/#", self._hear_value)

    def _hear_value(self, topic, payload):
        frame = int(topic[len(BASE) + len("now/f"):].split(b"/")[0])
        now = time.monotonic()
        self.times.append(now)
        self.ages.append(now - self._written[frame // service.BURST][int(payload)])

    def say(self, value):
        """All paths take a value, at the rate of the line."""
        start = time.monotonic()
        for number, records in enumerate(self._records[value]):
            while (wait := start + number * CYCLE * service.BURST / FRAMES - time.monotonic()) > 0:
                self.read(wait)
            self._written[number][value] = time.monotonic()
            self._adapter.write(records)

    def settle(self):
        """All paths have been heard, and rested since."""
        def come():
            self.say(0)
            return len(self.times) >= PATHS

        self.read_until(come, "all paths")
        self.rest()
        self.forget()

    def rest(self):
        until = time.monotonic() + 1.5
        while time.monotonic() < until:
            self.read(0.1)

    def forget(self):
        self.times, self.ages = [], []

    def figures(self):
        ages = [age * 1000 for age in self.ages]
        return {"p50 ms": round(statistics.median(ages), 1), "p99 ms": round(statistics.quantiles(ages, n=100)[98], 1)}


def now(build, seconds, table):
    """All paths change after a rest, at once; and all change with each cycle of a line that is always full."""
    with Plant(build, schema=ALL_PATHS) as plant:
        hears = Now(plant)
        hears.settle()
        for value in range(1, 1 + int(seconds)):
            hears.say(value)
            hears.rest()
        if len(hears.ages) != PATHS * int(seconds):
            raise AssertionError(f"{len(hears.ages)} values came of {PATHS * int(seconds)}")
        table["gateway/now/2,000 paths after a rest"] = hears.figures()
        hears.forget()
        before, started = plant.gateway.cpu(), time.monotonic()
        while (passed := time.monotonic() - started) < seconds + 0.5:
            hears.say(int(passed / CYCLE) % 256)
        # Values come about once a second all together: half a second later none are about to.
        count = sum(started + 0.5 <= at < started + 0.5 + int(seconds) for at in hears.times)
        table["gateway/now/2,000 paths all the time"] = {
            **hears.figures(), "publishes a second": round(count / int(seconds)),
            "% of a core": round((plant.gateway.cpu() - before) / passed * 100, 1)}
        hears.close()


# Counted cases: a stand-in for the daemon, in step with the gateway

class InStep:
    """Sends the messages that are asked for when those before have been taken. For source.Source."""

    def __init__(self, at_once):
        self._chunk = source.FRAME * at_once + b"\x89\0"
        self._at_once = at_once
        self.sent = 0
        self._asked = queue.Queue()
        self._done = threading.Semaphore(0)

    def __call__(self, connection):
        while (chunks := self._asked.get()) is not None:
            for _ in range(chunks):
                connection.send(self._chunk)
                if not connection.ponged.acquire(timeout=PATIENCE):
                    return
            self._done.release()

    def feed(self, count):
        """Returns when the gateway has taken them."""
        self._asked.put(count // self._at_once)
        if not self._done.acquire(timeout=10 * PATIENCE):
            raise AssertionError("the gateway does not take what is sent to it")
        self.sent += count

    def end(self):
        self._asked.put(None)


@contextlib.contextmanager
def fed(build, sections, at_once, wrapper=()):
    """A gateway and what feeds it."""
    with contextlib.ExitStack() as stack:
        folder = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory()))
        steps = InStep(at_once)
        serving = source.Source(steps)
        stack.callback(serving.close)
        stack.callback(steps.end)
        broker = Broker(folder)
        stack.callback(broker.stop)
        gateway = Gateway(build, folder, broker, source.SCHEMA, sections, wrapper)
        stack.callback(gateway.stop)
        yield gateway, steps, broker


def memory(build, seconds, table):
    """Resident memory, and what a million messages add to it. What is on its way to the broker is little, whatever the
    load."""
    with fed(build, {}, 100) as (gateway, steps, broker):
        values = Values(broker.port, MARK)

        def feed(count):
            for _ in range(count // 1000):
                steps.feed(1000)
                values.wait(steps.sent - 2000)  # a batch has less
            values.wait(steps.sent)

        def own():
            """What is its own at rest: in between, a batch more or less is in memory."""
            time.sleep(1)
            return gateway.resident("RssAnon")

        feed(500_000)
        before = own()
        feed(1_000_000)
        table["gateway/memory"] = {"MB": round(gateway.resident() / 1024, 2),
                                   "kB growth over 1,000,000 messages": own() - before}
        values.close()


def instructions(build, seconds, table):
    """Instructions a message, nine in each read, in batches of 64 kB."""
    few, many = 1_800, 18_000
    settings = {"values": {"interval_ms": 60_000}, "broker": {"keepalive_s": 600}}
    totals = {}
    for count in (few, many):
        with tempfile.NamedTemporaryFile() as counts:
            with fed(build, settings, 9, counting.callgrind(counts.name)) as (_, steps, _):
                steps.feed(count)
            totals[count] = counting.Profile(counts.name).total
    table["gateway/instructions"] = {"a message": round((totals[many] - totals[few]) / (many - few))}


def smoke(build, seconds, table):
    """Records come to the broker, and so do latest values; nothing is measured."""
    with Plant(build, EACH_MILLISECOND) as plant:
        plant.hear_values()
        plant.server.burst(10)
    with Plant(build, schema=ALL_PATHS) as plant:
        hears = Now(plant)
        hears.settle()
        hears.close()
    with fed(build, {}, 100) as (_, steps, _):
        steps.feed(1000)
    table["gateway/smoke"] = {"plants deliver": 3}


CASES = {case.__name__: case for case in (line_rate, batches, flash, now, memory, instructions, smoke)}

if __name__ == "__main__":
    cases.run(__doc__, CASES, seconds=5)
