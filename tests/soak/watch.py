"""Watches a chain: takes in what its clients and logs say and what arrives at the bus, and judges it in the end."""

import bisect
import collections
import queue
import re
import sys
import time

import harness
import honest
import load
from board import ask_database, drained
from chain import CHAIN
from invariants import Breach, Excuses, Hearing, Stands, Writer, is_growing, percentile, settled, unknown_lines
from programs import DAEMON_WITHOUT_MEMORY, GATEWAY_WITHOUT_MEMORY, wakes_of

PATIENCE = 5.0  # seconds without a value, once nothing disturbs it any more
BY_BROKER = 40.0  # the same by way of the broker: the gateway tries again every 30 s at least
MEMORY = 10.0  # seconds for which a hold may be the reason that a connection ends: two of them may add up
LATENCY = 1.0  # seconds that 99 of 100 values may take while faults rage elsewhere
ORDERING = 0.5  # seconds between two writes by way of the broker
SAMPLING = 1.0
FORGOTTEN = 1.0  # seconds before a broker is killed: it keeps what is for others after it has passed it on
BEHIND_A_DIP = 3  # numbers behind the beginning of a link that garbage on the line may take with it
PROMISED = ("link", "daemon", "schema")  # the parts between bus and client
JUDGED = ("daemon", "broker", "gateway", "history", *honest.LIBRARIES)  # the database's caches fill: it is only shown
TOLERATED = {"memory": 16.0, "descriptors": 4, "threads": 4}
TICKING = ("daemon", "gateway", "history")
MORE_WAKES = 20.0  # a second, besides half as many as before, that a program may have in the end on a quiet bus
COLLECTED = 48.0  # MiB that a program may keep which frees memory when it likes
OWN_SCHEMA = "written_gateway"  # only the soak's has it


class Watch:
    """`disturbed` and `healed` are told of each part; `step` is called ten times a second; then `judge`."""

    def __init__(self, clients):
        self.said = queue.SimpleQueue()
        self.events = collections.deque(maxlen=100_000)
        self.breaches = []
        self.hearings, self.silences = {}, collections.Counter()
        self.writers = {name: Writer(name, each) for name, each in load.WRITERS.items()}
        self.delays, self.stored, self.skipped = [], set(), 0
        self.before, self.after = {}, {}  # what the programs have, by name
        self.wakes = []  # {program: how often a second it wakes on a quiet bus}, before the first fault and in the end
        self._told = set()
        self._clients = [f"{library} {number}" for library in honest.LIBRARIES for number in range(clients)]
        self._excuses, self._boards_excuses = Excuses(), Excuses()
        self._parts = {}  # {part: None while it is disturbed, else since when it is not}
        self._stands = collections.defaultdict(Stands)
        self._heard_at, self._latencies = {}, []
        self._is_in_force, self._ceased, self._board_left = False, None, None
        self._arrived, self._strays = 0, []
        self._sampled = self._ordered = 0.0
        self._brokers_ends = []
        self._chain = self._last_look = None

    def begin(self, chain):
        self._chain = chain
        self._last_look = chain.bus.taken
        for part in PROMISED:
            self.healed(part)

    def event(self, text):
        self.events.append((time.monotonic(), text))

    def breach(self, kind, text):
        self.breaches.append(Breach(time.monotonic(), kind, text))
        if (kind, text) not in self._told:
            self._told.add((kind, text))
            self.event(f"BREACH: {kind}: {text}")
            print(f"Breach: {kind}: {text}", file=sys.stderr, flush=True)

    # What the soak says

    def disturbed(self, part, breaks=True):
        self._parts[part] = None
        if breaks:
            self._stands[part].change(time.monotonic(), False)

    def healed(self, part):
        self._parts[part] = time.monotonic()
        self._stands[part].change(time.monotonic(), True)

    def daemon_ends(self, taken):
        """It has lost the schema, and the gateway the daemon; `taken` is what it has surely read."""
        self._cease(taken)
        self._board_left = self._board_left or taken

    def broker_ends(self):
        self._brokers_ends.append(time.monotonic())

    def step(self):
        self._look_at_logs()
        self._take_what_was_said()
        self._take_writes()
        self._write_by_broker()
        self._look_for_silence()
        self._sample()

    # Logs. The schema in force is known from the daemon's log only

    def _look_at_logs(self):
        taken = self._chain.bus.taken
        lines = {name: program.new_lines() for name, program in self._chain.programs.items()}
        here = self._chain.bus.mark()
        for name, found in lines.items():
            for line in unknown_lines(found, self._chain.programs[name].expected):
                self.breach("log", f"{name}: {line[:300]}")
        for line in lines["daemon"]:
            if line.startswith("info Received schema: "):
                self._schema_came(OWN_SCHEMA in line, here)
        if self._board_left and any("daemon: connected to" in line for line in lines["gateway"]):
            self._boards_excuses.add(self._board_left.numbers, here.numbers)
            self._board_left = None
        if count_of(DAEMON_WITHOUT_MEMORY, lines["daemon"]):
            self._excuses.add(self._last_look.numbers, here.numbers)
        if count_of(GATEWAY_WITHOUT_MEMORY, lines["gateway"]):
            self._boards_excuses.add(self._last_look.numbers, here.numbers)
        self._last_look = taken

    def _schema_came(self, is_own, here):
        """Between the last look and this one."""
        if not is_own:
            self._cease(self._last_look)
            return
        if not self._is_in_force:
            self._excuses.add((self._ceased or self._last_look).numbers, here.numbers)
            self._is_in_force = True
            self._stands["in force"].change(here.time, True)
        gathered = {"gathered": self._last_look.numbers["gathered"] - load.GATHERED}
        self._excuses.add(gathered, here.numbers)

    def _cease(self, mark):
        if self._is_in_force:
            half_gathered = mark.numbers["gathered"] - load.GATHERED
            self._ceased = mark._replace(numbers={**mark.numbers, "gathered": half_gathered})
            self._stands["in force"].change(time.monotonic(), False)
        self._is_in_force = False

    # What clients say

    def _take_what_was_said(self):
        said = drained(self.said)
        sent = self._chain.bus.mark().numbers  # looked at behind what was said: that cannot be ahead of it
        for what, client, *words in said:
            hearing = self.hearings.setdefault(client, Hearing(client))
            getattr(self, f"_{what}")(hearing, sent, *words)
        self._chain.board.take(self._chain.bus.mark, self.writers["gateway"].confirm)

    def _heard(self, hearing, sent, leaf, runs, number, arrival):
        if leaf not in sent:
            return  # of somebody else's schema
        hearing.take(arrival, leaf, runs, sent[leaf])
        self._heard_at[hearing.name] = arrival
        if leaf == "single":
            self._latencies.append((number, arrival, library_of(hearing)))

    def _there(self, hearing, _sent, _at):
        hearing.begin()
        self.event(f"{hearing.name}: connected")

    def _away(self, hearing, _sent, at, *reason):
        hearing.begin()
        self.event(f"{hearing.name}: away {' '.join(reason)}")
        if all(self._stands[part].stood(at - MEMORY, at) for part in ("daemon", library_of(hearing))):
            self.breach("away", f"{hearing.name}: the connection ended, and nothing was done to either end of it")

    def _skipped(self, hearing, _sent, _at, count):
        hearing.skip()
        self.skipped += count
        self.event(f"{hearing.name}: the library says that it dropped {count} messages")

    def _undecodable(self, hearing, _sent, _at, message):
        self.breach("undecodable", f"{hearing.name}: {message[:100]}")

    def _writes(self, hearing, _sent, number, at):
        self.writers[library_of(hearing)].announce(number, at)

    def _wrote(self, hearing, _sent, number, at):
        self.writers[library_of(hearing)].confirm(number, at)

    def _refused(self, *_):
        """Nothing is promised."""

    # Writes

    def _take_writes(self):
        arrived = self._chain.bus.arrived[self._arrived:]
        self._arrived += len(arrived)
        writers = {writer.identifier: writer for writer in self.writers.values()}
        for each in arrived:
            if (each.mac, each.cmd) in writers:
                writers[each.mac, each.cmd].arrive(each.time, each.payload)
            else:
                self._strays.append(each)
        is_up = self._chain.bus.is_up
        if self._stands["up"].now != is_up:
            self._stands["up"].change(time.monotonic(), is_up)

    def _write_by_broker(self):
        now, writer = time.monotonic(), self.writers["gateway"]
        if now - self._ordered >= ORDERING:
            self._ordered = now
            number = writer.counts[0] + 1
            writer.announce(number, now)
            self._chain.board.write("written_gateway", number)

    # Silence

    def _look_for_silence(self):
        if not self.before:
            return
        now = time.monotonic()
        for name in self._clients:
            since = self._undisturbed_since(name.split()[0])
            if since is None:
                continue
            silence = now - max(since, self._heard_at.get(name, 0))
            self.silences[name] = max(self.silences[name], silence)
            if silence > PATIENCE:
                self.breach("silence", f"{name} has heard nothing for {silence:.1f} s")
                self._heard_at[name] = now

    def _undisturbed_since(self, library):
        parts = [*PROMISED, library, *([] if self._is_in_force else ["gateway"])]
        times = [self._parts[part] for part in parts]
        return None if None in times else max(times)

    # What the programs take

    def _sample(self):
        now = time.monotonic()
        if now - self._sampled >= SAMPLING:
            self._sampled = now
            for program in self._chain.programs.values():
                program.sample()

    def look_before(self):
        """What the programs have when nothing has been done to them yet. From now on silence counts."""
        self.before = self._present()
        for part in (*PROMISED, *honest.LIBRARIES, "gateway"):
            self.healed(part)

    def _present(self):
        return {name: {what: settled(self._chain.programs[name].lives[-1].of(what)[-5:]) for what in TOLERATED}
                for name in (*CHAIN, *honest.LIBRARIES)}

    def count_wakes(self):
        """(time, {program: how often it has woken}), of which two make what `wakes` has."""
        return time.monotonic(), {name: wakes_of(self._chain.programs[name].pid) for name in TICKING}

    def take_wakes(self, begun):
        now, counts = self.count_wakes()
        self.wakes.append({name: (count - begun[1][name]) / (now - begun[0]) for name, count in counts.items()})

    # The judgement

    def has_heard_by_broker(self, mark):
        """Whether what was sent behind a mark has come by way of the broker."""
        return any(number > mark.numbers["slow"] for number in self._chain.board.batches.slow)

    def tell_the_rest(self):
        """Takes what clients say of the time before."""
        self._take_what_was_said()

    def judge(self, last, until):
        """`last` is the mark of the last fault's end, `until` when writes were listened to for the last time."""
        self._excuse_links()
        batches = self._chain.board.batches
        self._judge_values(batches)
        self._judge_writes(until)
        self._judge_flow(last)
        self._judge_growth()
        self._judge_latency()
        self._judge_history(batches)

    def _excuse_links(self):
        ups = [*self._chain.bus.ups[1:], self._chain.bus.mark()]
        for (taken, _), up in zip(self._chain.bus.downs, ups):
            self._excuses.add(taken.numbers, {leaf: number + BEHIND_A_DIP for leaf, number in up.numbers.items()})

    def _judge_values(self, batches):
        for hearing in self.hearings.values():
            self.breaches += hearing.judge(self._excuses)
        for hearing in batches.hearings.values():
            self.breaches += hearing.judge(self._excuses + self._boards_excuses)
        self.breaches += batches.late + batches.lost

    def _judge_writes(self, until):
        for writer in self.writers.values():
            self.breaches += writer.judge(self._stood, until)
        for at, mac, cmd, payload in self._strays:
            if mac >= 0 or self._stood(at - 1, at):  # what was begun when the link was taken away is no frame
                self.breach("write", f"node {mac}, command {cmd}, {payload.hex()} arrived, which nobody wrote")

    def _stood(self, begin, end, *more):
        return all(self._stands[part].stood(begin, end) for part in (*PROMISED, "in force", "up", *more))

    def _judge_flow(self, last):
        for name in self._clients:
            for leaf in load.LEAVES:
                if name not in self.hearings or self.hearings[name].last.get(leaf, 0) <= last.numbers[leaf]:
                    self.breach("silence", f"{name}: no {leaf} since the last fault")
        if not self.has_heard_by_broker(last):
            self.breach("silence", "broker: nothing since the last fault")

    def _judge_growth(self):
        self.after = self._present()
        for name in JUDGED:
            lives = self._chain.programs[name].lives
            for what, tolerated in TOLERATED.items():
                if what == "memory" and harness.SANITIZED:
                    continue  # a sanitizer keeps what is freed
                if what == "memory":
                    tolerated = self.before[name][what] / 2 + (COLLECTED if name == "javascript" else tolerated)
                limit = self.before[name][what] + tolerated
                for life in lives:
                    self._judge_life(name, what, life, life is lives[-1], limit, tolerated)
        first, last = self.wakes
        for name in TICKING:
            if last[name] > 1.5 * first[name] + MORE_WAKES:
                self.breach("growth", f"{name}: wakes {last[name]:.0f} times a second on a quiet bus, and "
                                      f"{first[name]:.0f} times before")

    def _judge_life(self, name, what, life, is_last, limit, tolerated):
        samples = life.of(what)
        calm = samples[-5:] if is_last else samples[-30:] if len(samples) >= 60 else []
        if calm and settled(calm) > limit:
            self.breach("growth", f"{name}: {what} {settled(calm):.1f} in the end, and {limit:.1f} is what it may be")
        if is_growing(samples, tolerated):
            self.breach("growth", f"{name}: {what} rises all the time")

    def _judge_latency(self):
        marks = self._chain.bus.marks
        numbers = [mark.numbers["single"] for mark in marks]
        for number, arrival, library in self._latencies:
            at = bisect.bisect_left(numbers, number)
            if at < len(marks) and self._stood(marks[at].time - 2, arrival, library):
                self.delays.append(max(0.0, arrival - marks[at].time))
        if percentile(self.delays, 0.99) > LATENCY:
            self.breach("latency", f"of 100 values, one takes {percentile(self.delays, 0.99):.3f} s")

    def _judge_history(self, batches):
        deadline = time.monotonic() + BY_BROKER
        while True:
            self.stored = ask_database(self._chain.database_port)
            missing = [(value, passed) for value, passed in batches.missing_in(self.stored)
                       if not self._may_be_forgotten(passed)]
            if not missing or time.monotonic() > deadline:
                break
            time.sleep(1)
        for value, passed in missing:
            self.breach("lost", f"history: slow {value}, which the broker passed on with the time {passed.ms}")

    def _may_be_forgotten(self, passed):
        return any(0 <= end - passed.time <= FORGOTTEN for end in self._brokers_ends)


def count_of(patterns, lines):
    return sum(any(re.fullmatch(pattern, line) for pattern in patterns) for line in lines)


def library_of(hearing):
    return hearing.name.split()[0]
