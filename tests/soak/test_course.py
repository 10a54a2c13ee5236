"""What the soak makes of programs that end: those that may, those that must not, and the daemon, which has a link."""

import types

import pytest

import soak


class Program:
    def __init__(self, code, may_end=False):
        self._code, self.may_end = code, may_end

    def fell(self):
        code, self._code = self._code, None
        return code

    def supervise(self):
        return False


class Recorder:
    """Takes all calls, as (name, words)."""

    def __init__(self):
        self.calls = []

    def __getattr__(self, name):
        return lambda *words: self.calls.append((name, *words))


@pytest.fixture
def run():
    run = object.__new__(soak.Soak)
    run.watch, run.bus, run.programs = Recorder(), Recorder(), {}
    run._taken = "what was read at the last look"
    return run


def test_a_program_that_ends_by_itself_is_a_breach(run):
    run.programs["history"] = Program(1)
    run._supervise()
    run._supervise()
    assert run.watch.calls == [("breach", "ended", "history ended by itself, with 1")]
    assert run.bus.calls == []


def test_a_program_that_may_end_is_none(run):
    run.programs["gateway"] = Program(-6, may_end=True)
    run._supervise()
    assert run.watch.calls == [("event", "gateway ended, with -6")]


def test_a_daemon_that_ends_unseen_has_read_what_it_had_at_the_last_look(run):
    run.programs["daemon"] = Program(-6, may_end=True)
    run._supervise()
    assert run.bus.calls == [("went_down", run._taken)]
    assert run.watch.calls[1:] == [("daemon_ends", run._taken)]


def test_that_a_broker_is_killed_is_told(run):
    run.programs.update(broker=Recorder(), history=Recorder())
    run.kill("history")
    assert run.watch.calls == []
    run.kill("broker")
    assert run.watch.calls == [("broker_ends",)]


def test_a_daemon_that_is_killed_has_read_what_is_known_just_then(run):
    killed = Recorder()
    run.programs["daemon"] = killed
    run.bus = types.SimpleNamespace(taken="now", went_down=lambda taken: None)
    run.kill("daemon")
    assert run.watch.calls == [("daemon_ends", "now")] and killed.calls == [("kill",)]
