"""What outlives the service."""

import sqlite3

import pytest

from vorbel.history.state import State


@pytest.fixture
def path(tmp_path):
    return str(tmp_path / "history.db")


def held(state):
    return state.boards(), state.schemas(), list(state.recent()), state.mark("a")


def test_a_new_one_is_empty(path):
    assert held(State(path)) == ({}, {}, [], None)


def test_what_was_committed_is_there_again(path):
    state = State(path)
    state.commit({"a": "1", "b": "2"}, {"k": b"{}"}, b"one\n" * 1000, 10, 0)
    state.commit({"b": "3"}, None, b"two\n", 11, 0)
    state.set_mark("a", "x")
    state.set_mark("a", "y")
    state.close()
    assert held(State(path)) == ({"a": "1", "b": "3"}, {"k": b"{}"}, [b"one\n" * 1000, b"two\n"], "y")


def test_a_commit_is_whole_or_not_there(path):
    state = State(path)
    before = {"a": "1"}, {"k": b"{}"}, [b"one\n"], None
    state.commit(*before[:2], b"one\n", 10, 0)
    with pytest.raises(sqlite3.Error):
        state.commit({"a": "2", "b": None}, {"l": b"{}"}, b"two\n", 11, 10.5)
    state.close()
    assert held(State(path)) == before


def test_schemas_that_are_not_named_any_more_go(path):
    state = State(path)
    state.commit({}, {"k": b"1", "l": b"2"}, b"", 10, 0)
    state.commit({}, {"l": b"2", "m": b"3"}, b"", 10, 0)
    assert state.schemas() == {"l": b"2", "m": b"3"}


def test_lines_are_forgotten_in_time_and_when_written_again_later(path):
    state = State(path)
    for now, lines in ((10, b"one\n"), (15, b"two\n"), (20, b"three\n")):
        state.commit({}, None, lines, now, now - 6)
    assert list(state.recent()) == [b"two\n", b"three\n"]
    state.renew_recent(100)
    state.commit({}, None, b"", 103, 97)
    assert list(state.recent()) == [b"two\n", b"three\n"]
    state.commit({}, None, b"four\n", 103, 103)  # nothing is to be written again
    assert list(state.recent()) == []


def test_a_later_versions_is_left_alone(path):
    State(path).close()
    with sqlite3.connect(path) as file:
        file.execute("PRAGMA user_version = 2")
    with pytest.raises(sqlite3.Error, match="it is of a later version"):
        State(path)
