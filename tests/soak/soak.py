#!/usr/bin/python3
"""A year in an hour: the whole chain under load while everything is done to it. See docs/reliability.md.

    soak.py [MINUTES] [--seed N] [--rate RECORDS] [--clients N] [--keep FOLDER]
"""

import argparse
import bisect
import collections
import json
import pathlib
import queue
import random
import shutil
import signal
import struct
import sys
import tempfile
import time

PROJECT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(PROJECT / each) for each in ("tests/support", "sim", "gateway/tests", "clients/python/tests")]

import faults  # noqa: E402
import harness  # noqa: E402
import honest  # noqa: E402
import load  # noqa: E402
import programs  # noqa: E402
import report  # noqa: E402
from chain import BoardEar, ask_database  # noqa: E402
from gatewayharness import Relay, free_port  # noqa: E402
from invariants import Breach, Excuses, Hearing, Stands, Writer, is_growing, percentile, unknown_lines  # noqa: E402

TICK = 0.1
SAMPLING = 1.0
PATIENCE = 5.0  # seconds without a value, once nothing disturbs them any more
BY_BROKER = 15.0  # the same where a broker and its reconnections are between
ORDERING = 0.5  # seconds between two writes by way of the broker
SETTLING = 1.0  # seconds within which clients tell what they did
CALM_BEFORE, CALM_AFTER = 8.0, 8.0
LATENCY = 1.0  # seconds that 99 of 100 values may take while faults rage elsewhere
BEHIND_THE_DIP = 3  # numbers behind the beginning of a link that garbage on the line may take with it
TOLERATED = {"memory": 16.0, "descriptors": 4, "threads": 4}
OPEN_ENDED = {"database"}  # a stock program whose files and caches grow: shown and not judged
CHAIN = ("daemon", "broker", "gateway", "history", "database")


class Soak:
    """One run."""

    def __init__(self, folder, options):
        self.folder, self.options = folder, options
        self.events = collections.deque(maxlen=100_000)
        self.breaches, self.injected = [], collections.Counter()
        self.excuses, self.gathered_excuses = Excuses(), Excuses()
        self.hearings, self.latencies, self.silences = {}, [], collections.Counter()
        self.writers = {name: Writer(name, each) for name, each in load.WRITERS.items()}
        self.stands = {part: Stands() for part in ("link", "daemon", "schema", "up")}
        self._disturbed = {}  # {part: None while it is, else since when it is no more}
        self._running = []  # (end, generator, planned)
        self._said = queue.SimpleQueue()
        self._heard_at, self._arrived_count, self._is_up = {}, 0, False
        self._schema_in_force, self._schema_ceased = False, None
        self._last_look = None
        self._skips = 0
        self._sampled = self._ordered = 0.0
        self._build()

    # The chain

    def _build(self):
        folder = self.folder
        self.bus = load.Bus(folder / "bus", self.options.rate)
        (folder / "schema.json").write_text(json.dumps(load.SCHEMA))
        broker_port, database_port = free_port(), free_port()
        self.relay = Relay(broker_port)
        self.programs = {
            "daemon": programs.daemon(folder, self.bus.adapters),
            "broker": programs.broker(folder, broker_port),
            "database": programs.database(folder, database_port),
            "history": programs.history(folder, broker_port, database_port),
            "gateway": programs.gateway(folder, self.relay.port, folder / "schema.json"),
        }
        self.broker_port, self.database_port = broker_port, database_port
        for name, command in honest.commands(harness.BUILD, harness.URI, self.options.clients).items():
            self.programs[name] = programs.Program(name, folder, command, expected=CLIENT_LINES, output=self._listen)
        self.board = None

    def _listen(self, stream):
        honest.Ear(stream, self._said.put)

    def begin(self):
        self.bus.plug()
        self.programs["daemon"].start()
        harness.wait_until(lambda: programs.answers(harness.PORT), 20, "the daemon to listen")
        for name, port in (("broker", self.broker_port), ("database", self.database_port)):
            self.programs[name].start()
            programs.wait_answering(port)
        self.board = BoardEar(self.broker_port)
        for name in ("history", "gateway", *honest.LIBRARIES):
            self.programs[name].start()
        now = time.monotonic()
        for part in ("link", "daemon", "schema", "clients", "gateway", "network", "broker", *honest.LIBRARIES):
            self._heal(part, now)
        self._last_look = self.bus.mark(), self.bus.taken
        self.bus.start()

    def end(self):
        """Ends everything that was started."""
        for _, running, _ in self._running:
            running.close()
        for program in self.programs.values():
            program.end()
        if self.bus.is_alive():
            self.bus.stop()
        self.relay.close()
        if self.board:
            self.board.close()

    # What faults ask for

    def kill(self, name):
        if name == "daemon":
            self.bus.went_down()
            self._daemon_gone()
        self.programs[name].kill()

    def restore_schema(self):
        faults.tell(faults.TEXT, json.dumps(load.SCHEMA).encode())

    # The run

    def run(self, seconds):
        self._go_on(CALM_BEFORE)
        self.calm = {name: self._present(name) for name in CHAIN}
        started = time.monotonic()
        planned = collections.deque(faults.plan(self.options.seed, seconds))
        while time.monotonic() < started + seconds:
            while planned and planned[0].start <= time.monotonic() - started:
                self._inject(planned.popleft())
            self._step()
        while self._running:
            self._step()
        self.last_fault = time.monotonic()
        self.event("no more faults")
        last = self.bus.mark()
        self._go_on(CALM_AFTER)
        listened_until = time.monotonic()
        time.sleep(SETTLING)  # what has arrived was announced, and is told by now
        self._take_what_was_said()
        self._judge(last, listened_until)

    def _go_on(self, seconds):
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            self._step()

    def _inject(self, planned):
        now, fault = time.monotonic(), planned.fault
        self.event(f"begins: {fault.kind}, for {planned.seconds:.1f} s")
        self.injected[fault.kind] += 1
        for part in fault.needs:
            self._disturbed[part] = None
            if part in self.stands:
                self.stands[part].change(now, False)
        running = fault.run(self, random.Random(planned.seed))
        next(running)
        self._running.append((time.monotonic() + planned.seconds, running, planned))

    def _step(self):
        time.sleep(TICK)
        self._end_faults()
        self._supervise()
        self._look_at_logs()
        self._take_what_was_said()
        self._take_writes()
        self._write_by_broker()
        self._look_for_silence()
        self._sample()

    def _end_faults(self):
        now = time.monotonic()
        for entry in [entry for entry in self._running if entry[0] <= now]:
            self._running.remove(entry)
            next(entry[1], None)
            fault = entry[2].fault
            self.event(f"ends: {fault.kind}")
            for part in fault.needs:
                self._heal(part, time.monotonic())

    def _heal(self, part, now):
        self._disturbed[part] = now
        if part in self.stands:
            self.stands[part].change(now, True)

    def _supervise(self):
        for name, program in self.programs.items():
            fallen = len(program.fallen)
            if program.supervise():
                self.event(f"started again: {name}")
                if name == "daemon":
                    self.bus.reopens()
                if program.fallen[fallen:] or self._disturbed.get(name) is not None:
                    self._heal(name, time.monotonic())
            for at, code in program.fallen[fallen:]:
                self.breach(at, "ended", f"{name} ended by itself, with {code}")
                if name == "daemon":
                    self._daemon_gone()

    def _daemon_gone(self):
        self._cease_schema(self.bus.taken)
        for hearing in self.board.hearings.values():
            hearing.skip()

    # Logs, and the schema in force, which only the daemon's log tells

    def _look_at_logs(self):
        now = time.monotonic()
        here = self.bus.mark(), self.bus.taken
        for name, program in self.programs.items():
            lines = program.new_lines()
            for line in unknown_lines(lines, program.expected):
                self.breach(now, "log", f"{name}: {line[:300]}")
            if name == "daemon":
                for line in lines:
                    if line.startswith("info Received schema: "):
                        self._schema_came("gathered" in line and "written_gateway" in line, here[0])
        self._last_look = here

    def _schema_came(self, is_ours, mark):
        before = self._before_last_look()
        if not is_ours:
            self._cease_schema(before)
            return
        if not self._schema_in_force:
            ceased = self._schema_ceased or before
            self.excuses.add(ceased.numbers, mark.numbers)
            self._schema_in_force = True
            self.stands["schema"].change(mark.time, self._disturbed["schema"] is not None)
        self.excuses.add({"gathered": before.numbers["gathered"] - load.GATHERED}, mark.numbers, ["gathered"])

    def _before_last_look(self):
        return self._last_look[1]

    def _cease_schema(self, mark):
        if self._schema_in_force:
            numbers = {**mark.numbers, "gathered": mark.numbers["gathered"] - load.GATHERED}
            self._schema_ceased = mark._replace(numbers=numbers)
            self.stands["schema"].change(mark.time, False)
        self._schema_in_force = False

    # What clients say

    def _take_what_was_said(self):
        sent = self.bus.mark().numbers
        while True:
            try:
                what, client, *words = self._said.get_nowait()
            except queue.Empty:
                break
            hearing = self.hearings.setdefault(client, Hearing(client))
            getattr(self, f"_{what}")(hearing, sent, *words)
        self.board.take(sent, self.writers["gateway"].confirm)

    def _heard(self, hearing, sent, leaf, runs, number, arrival):
        hearing.take(arrival, leaf, runs, sent[leaf])
        self._heard_at[hearing.name] = arrival
        if leaf == "single":
            self.latencies.append((number, arrival, hearing.name))

    def _there(self, hearing, _sent, at):
        hearing.begin()
        self.event(f"{hearing.name}: connected")

    def _away(self, hearing, _sent, at, *reason):
        hearing.begin()
        self.event(f"{hearing.name}: away {' '.join(reason)}")

    def _skipped(self, hearing, _sent, at, count):
        hearing.skip()
        self._skips += count
        self.event(f"{hearing.name}: the library dropped {count} messages")

    def _undecodable(self, hearing, _sent, at, message):
        self.breach(at, "undecodable", f"{hearing.name}: {message[:100]}")

    def _writes(self, hearing, _sent, number, at):
        self.writers[hearing.name.split()[0]].announce(number, at)

    def _wrote(self, hearing, _sent, number, at):
        self.writers[hearing.name.split()[0]].confirm(number, at)

    def _refused(self, hearing, _sent, number, at, *_reason):
        pass

    def _take_writes(self):
        arrived = self.bus.arrived[self._arrived_count:]
        self._arrived_count += len(arrived)
        by_identifier = {writer.identifier: writer for writer in self.writers.values()}
        for at, mac, cmd, payload in arrived:
            if (mac, cmd) in by_identifier:
                by_identifier[mac, cmd].arrive(at, payload)
            else:
                self.breach(at, "write", f"{mac}/{cmd} {payload.hex()} arrived, which nobody wrote")
        if self.bus.is_up != self._is_up:
            self._is_up = self.bus.is_up
            self.stands["up"].change(time.monotonic(), self._is_up)

    def _write_by_broker(self):
        now, writer = time.monotonic(), self.writers["gateway"]
        if now - self._ordered >= ORDERING:
            self._ordered = now
            number = writer.counts[0] + 1
            writer.announce(number, now)
            self.board.write("written_gateway", number)

    # Silence

    def _look_for_silence(self):
        now = time.monotonic()
        for name, hearing in self.hearings.items():
            since = self._undisturbed_since(name.split()[0])
            if since is None:
                continue
            silence = now - max(since, self._heard_at.get(name, 0))
            self.silences[name] = max(self.silences[name], silence)
            if silence > PATIENCE:
                self.breach(now, "silence", f"{name} has heard nothing for {silence:.1f} s")
                self._heard_at[name] = now

    def _undisturbed_since(self, library):
        parts = ["link", "daemon", "schema", library] + ([] if self._schema_in_force else ["gateway"])
        healed = [self._disturbed[part] for part in parts]
        return None if None in healed else max(healed)

    def _sample(self):
        if time.monotonic() - self._sampled >= SAMPLING:
            self._sampled = time.monotonic()
            for program in self.programs.values():
                program.sample()

    def _present(self, name):
        """The least of the last samples: an instant's work opens and takes more."""
        samples = self.programs[name].lives[-1].samples[-5:]
        return {what: min(getattr(sample, what) for sample in samples) for what in TOLERATED}

    # The judgement

    def _judge(self, last, listened_until):
        self._excuse_links()
        for hearing in [*self.hearings.values(), *self.board.hearings.values()]:
            self.breaches += hearing.breaches + hearing.judge(self.excuses)
        for writer in self.writers.values():
            self.breaches += writer.judge(self._stood, listened_until)
        self.breaches += self.board.breaches
        self._judge_flow(last)
        self._judge_growth()
        self._judge_latency()
        self._judge_history()

    def _excuse_links(self):
        ups = [*self.bus.ups[1:], self.bus.mark()]
        for (taken, down), up in zip(self.bus.downs, ups):
            until = {leaf: number + BEHIND_THE_DIP for leaf, number in up.numbers.items()}
            self.excuses.add(taken.numbers, until)

    def _stood(self, begin, end):
        return all(stands.stood(begin, end) for stands in self.stands.values())

    def _judge_flow(self, last):
        """After the last fault, everybody has heard what was sent since, within the patience."""
        for library in honest.LIBRARIES:
            for number in range(self.options.clients):
                name = f"{library} {number}"
                hearing = self.hearings.get(name)
                for leaf in load.LEAVES:
                    if not hearing or hearing.last.get(leaf, 0) <= last.numbers[leaf]:
                        self.breach(time.monotonic(), "silence", f"{name}: no {leaf} since the last fault")

    def _judge_growth(self):
        self.now = {name: self._present(name) for name in CHAIN}
        for name in set(CHAIN) - OPEN_ENDED:
            for what, tolerated in TOLERATED.items():
                first, now = self.calm[name][what], self.now[name][what]
                limit = first + tolerated + (0.5 * first if what == "memory" else 0)
                if now > limit:
                    self.breach(time.monotonic(), "growth", f"{name}: {what} {first:.1f} before, {now:.1f} after")
                for life in self.programs[name].lives:
                    samples = [(sample.time, getattr(sample, what)) for sample in life.samples]
                    if is_growing(samples, tolerated):
                        self.breach(samples[-1][0], "growth", f"{name}: {what} rises without an end")

    def _judge_latency(self):
        self.delays = self._delays()
        delay = percentile(self.delays, 0.99)
        if delay > LATENCY:
            self.breach(time.monotonic(), "latency", f"99 of 100 values within {delay:.3f} s")

    def _delays(self):
        """From the bus to the client, of those values on whose way nothing was disturbed."""
        times = [mark.time for mark in self.bus.marks]
        numbers = [mark.numbers["single"] for mark in self.bus.marks]
        found = []
        for number, arrival, name in self.latencies:
            at = bisect.bisect_left(numbers, number)
            if at < len(times) and self._stood(times[at] - 2, arrival):
                found.append(max(0.0, arrival - times[at]))
        return found

    def _judge_history(self):
        passed_on = dict(self.board.slow)
        deadline = time.monotonic() + BY_BROKER
        while True:
            self.stored = ask_database(self.database_port)
            missing = self.board.missing_in(self.stored, passed_on)
            if not missing or time.monotonic() > deadline:
                break
            time.sleep(1)
        for at, value in missing[:20]:
            self.breach(time.monotonic(), "lost", f"history: slow {value}, which the broker passed on at {at} ms")

    def event(self, text):
        self.events.append((time.monotonic(), text))

    def breach(self, at, kind, text):
        self.breaches.append(Breach(at, kind, text))
        self.event(f"BREACH: {kind}: {text}")


CLIENT_LINES = [r".*"]


def parse(words):
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("minutes", type=float, nargs="?", default=3)
    parser.add_argument("--seed", type=int, default=None)
    parser.add_argument("--rate", type=int, default=load.LINE_RATE)
    parser.add_argument("--clients", type=int, default=5)
    parser.add_argument("--keep", type=pathlib.Path)
    options = parser.parse_args(words)
    if options.seed is None:
        options.seed = struct.unpack("<I", random.SystemRandom().randbytes(4))[0]
    return options


def main():
    options = parse(sys.argv[1:])
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(143))
    folder = options.keep or pathlib.Path(tempfile.mkdtemp(prefix="vorbel-soak-"))
    folder.mkdir(parents=True, exist_ok=True)
    print(f"The soak's seed: {options.seed}", flush=True)
    soak = Soak(folder, options)
    try:
        soak.begin()
        soak.run(60 * options.minutes)
    finally:
        soak.end()
        if not options.keep:
            shutil.rmtree(folder, ignore_errors=True)
    report.show(soak)
    return 1 if soak.breaches else 0


if __name__ == "__main__":
    sys.exit(main())
