"""A chain that is not there is watched: what is planted in it is found, and what its faults explain is not."""

import struct
import time
import types

import pytest

import lines
import load
import watch
from board import Batches

OWN = f"info Received schema: QJsonDocument({{{watch.OWN_SCHEMA}}})"


class Bus:
    """Sends what it is told to have sent."""

    def __init__(self):
        self.numbers = dict.fromkeys(load.LEAVES, 0)
        self.taken = self.mark()
        self.ups, self.downs, self.marks, self.arrived = [self.mark()], [], [], []
        self.is_up = True

    def mark(self):
        return load.Mark(time.monotonic(), dict(self.numbers))

    def send(self, count):
        for leaf in self.numbers:
            self.numbers[leaf] += count
        self.marks.append(self.mark())

    def take(self):
        self.taken = self.mark()


class Program:
    def __init__(self):
        self.lines, self.expected, self.lives = [], (".*Received schema.*", "info daemon: connected to here"), []

    def new_lines(self):
        found, self.lines = self.lines, []
        return found

    def sample(self):
        pass


@pytest.fixture
def chain(monkeypatch):
    board = types.SimpleNamespace(batches=Batches(), take=lambda sent, confirm: None, write=lambda path, value: None)
    programs = {name: Program() for name in ("daemon", "gateway")}
    chain = types.SimpleNamespace(bus=Bus(), programs=programs, board=board, database_port=0)
    monkeypatch.setattr(watch, "ask_database", lambda port: set(board.batches.slow))
    monkeypatch.setattr(watch, "CHAIN", ())
    monkeypatch.setattr(watch, "JUDGED", ())
    monkeypatch.setattr(watch.honest, "LIBRARIES", ())
    return chain


class Run:
    """A run with one client, python 0."""

    def __init__(self, chain):
        self.chain, self.bus = chain, chain.bus
        self.watch = watch.Watch(1)
        self.watch.wakes = [dict.fromkeys(watch.TICKING, 0.0)] * 2
        self.watch.begin(chain)
        self.log(OWN)

    def log(self, *found, name="daemon"):
        self.chain.programs[name].lines += found
        self.watch.step()

    def hear(self, first, last, leaf="single"):
        self.watch.said.put(["heard", "python 0", leaf, [[first, last]], last, time.monotonic()])
        self.watch.step()

    def pull(self):
        """Between now and the return nothing is sent."""
        self.bus.downs.append((self.bus.taken, self.bus.mark()))
        self.bus.ups.append(self.bus.mark())

    def batch(self, number, *values, leaf="single"):
        said = {"boot": 1, "n": number, "t": 0, "v": [[at, {leaf: value}] for at, value in enumerate(values)]}
        self.chain.board.batches.take(time.monotonic(), said, self.bus.numbers)

    def breaches(self):
        """Those of values and writes; nothing flows here in the end."""
        self.watch.judge(self.bus.mark(), time.monotonic() + 10)
        return [(breach.kind, breach.text) for breach in self.watch.breaches if breach.kind != "silence"]


@pytest.fixture
def run(chain):
    return Run(chain)


def test_nothing_is_lost(run):
    run.bus.send(100)
    run.hear(1, 50)
    run.hear(51, 100)
    assert run.breaches() == []


def test_a_lost_value(run):
    run.bus.send(100)
    run.hear(1, 50)
    run.hear(52, 100)
    assert run.breaches() == [("lost", "python 0: single 51 to 51")]


def test_what_was_not_read_when_the_link_was_taken_away_may_be_lost(run):
    run.bus.send(50)
    run.bus.take()
    run.bus.send(20)
    run.pull()
    run.bus.send(30)
    run.hear(1, 50)
    run.hear(71 + watch.BEHIND_A_DIP, 100)
    assert run.breaches() == []


def test_what_was_read_before_the_link_was_taken_away_may_not(run):
    run.bus.send(50)
    run.bus.take()
    run.pull()
    run.bus.send(50)
    run.hear(1, 49)
    run.hear(51, 100)
    assert run.breaches() == [("lost", "python 0: single 50 to 50")]


def test_what_comes_over_the_new_link_may_not(run):
    run.bus.send(50)
    run.bus.take()
    run.pull()
    run.bus.send(50)
    run.hear(1, 50)
    run.hear(52 + watch.BEHIND_A_DIP, 100)
    assert run.breaches() == [("lost", f"python 0: single {51 + watch.BEHIND_A_DIP} to {51 + watch.BEHIND_A_DIP}")]


def test_under_another_schema_values_may_be_lost(run):
    run.bus.send(50)
    run.hear(1, 50)
    run.bus.take()
    run.watch.step()
    run.log("info Received schema: QJsonDocument(theirs)")
    run.bus.send(20)
    run.bus.take()
    run.log(OWN)
    run.bus.send(30)
    run.hear(71, 99)
    assert run.breaches() == []


def test_the_same_schema_again_costs_half_gathered_arrays_and_nothing_else(run):
    run.bus.send(50)
    run.bus.take()
    run.watch.step()
    run.log(OWN)
    run.bus.send(50)
    run.hear(1, 36, "gathered")
    run.hear(51, 86, "gathered")
    run.hear(1, 49)
    run.hear(51, 100)
    assert run.breaches() == [("lost", "python 0: single 50 to 50")]


def test_with_another_daemon_the_board_misses_what_comes_before_the_gateway_does(run):
    run.bus.send(50)
    run.bus.take()
    run.watch.daemon_ends(run.bus.taken)
    run.log(OWN)
    run.bus.send(20)
    run.log("info daemon: connected to here", name="gateway")
    run.bus.send(30)
    run.batch(0, *range(1, 51))
    run.batch(1, *range(71, 90))
    run.batch(2, *range(91, 100))
    assert run.breaches() == [("lost", "broker, boot 1: single 90 to 90")]


@pytest.mark.parametrize("line", [
    "critical Input dropped, its conversion failed: std::bad_alloc", "warning MsgPack::pack() has run out of memory"])
def test_what_comes_while_the_daemon_says_that_it_has_no_memory_may_be_lost(run, line):
    run.chain.programs["daemon"].expected += (line.replace("(", r"\(").replace(")", r"\)"),)
    run.bus.send(50)
    run.hear(1, 50)
    run.bus.take()
    run.watch.step()
    run.bus.send(20)
    run.log(line)
    run.bus.send(30)
    run.hear(71, 80)
    run.hear(82, 100)
    assert run.breaches() == [("lost", "python 0: single 81 to 81")]


def test_what_comes_while_the_gateway_says_so_the_board_may_miss(run):
    line = "critical vorbel: an exception ended the handling of a message: std::bad_alloc"
    run.chain.programs["gateway"].expected += (line,)
    run.bus.send(50)
    run.bus.take()
    run.watch.step()
    run.bus.send(20)
    run.log(line, name="gateway")
    run.bus.send(30)
    run.batch(0, *range(1, 51))
    run.batch(1, *range(71, 90))
    run.batch(2, *range(91, 100))
    run.hear(1, 50)
    run.hear(71, 100)
    assert run.breaches() == [("lost", "python 0: single 51 to 70"), ("lost", "broker, boot 1: single 90 to 90")]


def test_a_batch_is_missing(run):
    run.bus.send(50)
    run.batch(0, *range(1, 20))
    run.batch(3, *range(40, 50))
    assert run.breaches() == [("lost", "broker: batches 1 to 2 of boot 1")]


def test_what_is_said_while_others_are_listened_to_has_been_sent(run, monkeypatch):
    """However late it is looked at what was sent."""
    said = [["heard", "python 0", "single", [[1, 10]], 10, time.monotonic()]]

    def drained(waiting):
        run.bus.send(10)
        return said

    monkeypatch.setattr(watch, "drained", drained)
    run.watch.tell_the_rest()
    assert run.breaches() == []


def test_a_batch_that_comes_late_is_missing_nowhere(run):
    run.bus.send(50)
    run.batch(0, *range(1, 20))
    run.batch(2, *range(40, 50))
    run.batch(1, *range(20, 40))
    assert run.breaches() == [("late", "broker: batch 1 of boot 1")]


@pytest.fixture
def forgotten(run, monkeypatch):
    """The history has none of the values 1 to 10, which were passed on just now."""
    monkeypatch.setattr(watch, "ask_database", lambda port: set())
    monkeypatch.setattr(watch, "BY_BROKER", 0)
    run.bus.send(10)
    run.batch(0, *range(1, 11), leaf="slow")
    return run


def test_what_the_history_has_not(forgotten):
    assert forgotten.breaches() == [
        ("lost", f"history: slow {value}, which the broker passed on with the time {value - 1}")
        for value in range(1, 11)]


@pytest.mark.parametrize("later, lost", [(0, 0), (0.9, 0), (1.1, 10), (-0.1, 10)])
def test_a_broker_that_is_killed_forgets_what_it_has_just_passed_on(forgotten, monkeypatch, later, lost):
    at = forgotten.chain.board.batches.slow[1].time
    with monkeypatch.context() as context:
        context.setattr(watch.time, "monotonic", lambda: at + later)
        forgotten.watch.broker_ends()
    assert len(forgotten.breaches()) == lost


def test_values_of_another_schema_are_nobodys(run):
    run.hear(7, 7, "other")
    assert run.breaches() == []


def test_a_line_of_the_log_that_nobody_expects(run):
    run.log("warning something is wrong")
    assert run.breaches() == [("log", "daemon: warning something is wrong")]


def test_a_message_that_cannot_be_decoded(run):
    run.watch.said.put(["undecodable", "python 0", time.monotonic(), "81a161"])
    run.watch.step()
    assert run.breaches() == [("undecodable", "python 0: 81a161")]


def arrive(run, number, mac=10, cmd=1):
    run.bus.arrived.append(lines.Arrived(time.monotonic(), mac, cmd, struct.pack("<I", number)))
    run.watch.step()


def write(run, number, at):
    run.watch.said.put(["writes", "python 0", number, at])
    run.watch.said.put(["wrote", "python 0", number, at])
    run.watch.step()


def test_a_write_that_arrives_is_announced_a_moment_later(run):
    arrive(run, 1)
    write(run, 1, time.monotonic())
    assert run.breaches() == []


def test_a_write_that_nobody_sent(run):
    arrive(run, 1)
    assert run.breaches() == [("write", "python: 01000000 arrived, which was not written")]


def test_a_write_to_where_nobody_writes(run):
    arrive(run, 1, mac=9, cmd=3)
    assert run.breaches() == [("write", "node 9, command 3, 01000000 arrived, which nobody wrote")]


def test_a_write_that_is_lost_while_all_stands(run):
    write(run, 1, time.monotonic() + 2)
    assert run.breaches() == [("write", "python: 1 was confirmed and did not arrive")]


@pytest.mark.parametrize("part", watch.PROMISED)
def test_a_write_that_is_lost_while_something_is_disturbed(run, part):
    run.watch.disturbed(part)
    write(run, 1, time.monotonic() + 2)
    assert run.breaches() == []


def test_a_fault_that_breaks_nothing_explains_nothing(run):
    run.watch.disturbed("daemon", breaks=False)
    write(run, 1, time.monotonic() + 2)
    assert run.breaches() == [("write", "python: 1 was confirmed and did not arrive")]


def test_silence(run, monkeypatch):
    run.watch.before = {"daemon": {}}
    run.watch._clients = ["python 0"]
    for part in ("python", "gateway"):
        run.watch.healed(part)
    later = time.monotonic() + watch.PATIENCE
    monkeypatch.setattr(watch.time, "monotonic", lambda: later - 0.5)
    run.watch.step()
    assert run.watch.breaches == []
    monkeypatch.setattr(watch.time, "monotonic", lambda: later + 0.5)
    run.watch.step()
    assert [(breach.kind, breach.text) for breach in run.watch.breaches] == [
        ("silence", "python 0 has heard nothing for 5.5 s")]


@pytest.fixture
def connected(run):
    """Nothing was done to the daemon or to python 0 for long."""
    for part in ("daemon", "python"):
        run.watch._stands[part]._changes[:] = [(0, True)]
    return run


def end_connection(run, at):
    run.watch.said.put(["away", "python 0", at, "no answer"])
    run.watch.step()


def test_a_connection_that_ends_for_no_reason(connected):
    end_connection(connected, 100)
    assert connected.breaches() == [
        ("away", "python 0: the connection ended, and nothing was done to either end of it")]


@pytest.mark.parametrize("part", ["daemon", "python"])
def test_a_connection_that_ends_after_something_was_done(connected, part):
    connected.watch._stands[part]._changes += [(91, False), (92, True)]
    end_connection(connected, 100)
    assert connected.breaches() == []


def test_a_connection_that_ends_long_after_something_was_done(connected):
    connected.watch._stands["daemon"]._changes += [(81, False), (82, True)]
    end_connection(connected, 100)
    assert [kind for kind, _ in connected.breaches()] == ["away"]


@pytest.mark.parametrize("part", [*watch.PROMISED, "python"])
def test_no_silence_while_something_is_disturbed(run, monkeypatch, part):
    run.watch.before = {"daemon": {}}
    run.watch._clients = ["python 0"]
    for each in ("python", "gateway"):
        run.watch.healed(each)
    run.watch.disturbed(part)
    later = time.monotonic() + 2 * watch.PATIENCE
    monkeypatch.setattr(watch.time, "monotonic", lambda: later)
    run.watch.step()
    assert run.watch.breaches == []


def test_the_calm_after_the_last_fault_has_to_bring_values(run):
    run.watch._clients = ["python 0"]
    run.bus.send(10)
    run.hear(1, 10)
    run.watch.judge(run.bus.mark(), time.monotonic())
    assert {breach.text for breach in run.watch.breaches} == {
        "python 0: no gathered since the last fault", "python 0: no single since the last fault",
        "python 0: no slow since the last fault", "broker: nothing since the last fault"}


def test_timers_that_are_left_behind(run, monkeypatch):
    monkeypatch.setattr(watch, "TICKING", ("daemon", "gateway"))
    run.watch.wakes = [{"daemon": 10.0, "gateway": 40.0}, {"daemon": 36.0, "gateway": 79.0}]
    assert run.breaches() == [("growth", "daemon: wakes 36 times a second on a quiet bus, and 10 times before")]


class Life:
    def __init__(self, memory, descriptors):
        self._samples = {"memory": memory, "descriptors": descriptors, "threads": [1.0] * len(memory)}

    def of(self, what):
        return [(float(second), value) for second, value in enumerate(self._samples[what])]


@pytest.mark.parametrize("is_sanitized", [False, True])
def test_growth(run, monkeypatch, is_sanitized):
    """A sanitizer keeps what is freed: of its memory nothing is said."""
    monkeypatch.setattr(watch.harness, "SANITIZED", is_sanitized)
    monkeypatch.setattr(watch, "JUDGED", ("daemon",))
    monkeypatch.setattr(watch, "CHAIN", ("daemon",))
    daemon = run.chain.programs["daemon"]
    daemon.lives = [Life([20.0] * 100, [10] * 100)]
    run.watch.look_before()
    daemon.lives = [Life([20.0 + second for second in range(100)], [10] * 100), Life([20.0] * 9, [15] * 9)]
    found = [text for kind, text in run.breaches() if kind == "growth"]
    memory = ["daemon: memory 90.0 in the end, and 46.0 is what it may be", "daemon: memory rises all the time"]
    descriptors = ["daemon: descriptors 15.0 in the end, and 14.0 is what it may be"]
    assert found == (descriptors if is_sanitized else memory + descriptors)


def test_latency(run):
    run.bus.send(1)
    sent = run.bus.marks[0].time
    run.watch._latencies = [(1, sent + watch.LATENCY + 0.1, "python")]
    run.watch._stands["python"].change(0, True)
    for part in (*watch.PROMISED, "in force", "up"):
        run.watch._stands[part]._changes[:] = [(0, True)]
    assert ("latency", "of 100 values, one takes 1.100 s") in run.breaches()
