"""When the entries of a log are played, by a clock that the test has in its hand."""

import math
from typing import NamedTuple

import pytest

from vorbel import player as player_module
from vorbel.errors import VorbelError
from vorbel.player import Player, duration


class Entry(NamedTuple):
    time: float
    name: str


class Clock:
    def __init__(self):
        self.now = 1000.0

    def __call__(self):
        return self.now


def log_of(*places):
    """Named by their places; logs begin at any time."""
    return [Entry(1_700_000_000 + place, f"{place:g}") for place in places]


class Playing:
    def __init__(self, entries, **options):
        self.clock = Clock()
        self.reads = 0
        self._entries = entries
        self.player = Player(self._read, self.clock, **options)

    def _read(self):
        self.reads += 1
        yield from self._entries

    def due(self):
        """The names of what is due now."""
        return [entry.name for entry in iter(self.player.take, None)]

    def after(self, seconds):
        self.clock.now += seconds
        return self.due()


def test_entries_are_due_at_their_times():
    playing = Playing(log_of(0, 1, 1, 2.5))
    assert playing.due() == ["0"]
    assert playing.player.until_next() == 1
    assert playing.after(0.99) == []
    assert playing.after(0.01) == ["1", "1"]
    assert playing.player.until_next() == 1.5 and not playing.player.has_ended
    assert playing.after(5) == ["2.5"]
    assert playing.player.has_ended and playing.player.until_next() == math.inf
    assert (playing.player.taken, playing.reads) == (4, 1)


def test_twice_as_fast():
    playing = Playing(log_of(0, 1, 2), speed=2)
    assert playing.due() == ["0"]
    assert playing.player.until_next() == 0.5
    assert playing.after(0.5) == ["1"]
    assert playing.player.position == 1


def test_as_fast_as_it_goes():
    playing = Playing(log_of(*range(5000)), speed=math.inf)
    assert playing.due() == [str(number) for number in range(5000)]
    assert playing.player.has_ended and playing.player.position == 4999


def test_an_entry_with_an_earlier_time_is_due_at_once():
    playing = Playing(log_of(0, 2, 1))
    playing.due()
    assert playing.after(2) == ["2", "1"]
    playing = Playing(log_of(0, 2, 1), speed=math.inf)
    assert playing.due() == ["0", "2", "1"] and playing.player.position == 2


def test_a_range():
    playing = Playing(log_of(0, 1, 2, 3, 4), start=1.5, stop=3)
    assert playing.due() == [] and playing.player.until_next() == 0.5 and playing.player.position == 1.5
    assert playing.after(0.5) == ["2"]
    assert playing.after(1) == ["3"]
    assert playing.player.has_ended


def test_a_range_takes_in_both_its_ends():
    playing = Playing(log_of(0, 1, 2, 3), start=1, stop=2, speed=math.inf)
    assert playing.due() == ["1", "2"]


def test_a_range_behind_the_end():
    playing = Playing(log_of(0, 1), start=5, loop=True)
    assert playing.due() == [] and playing.player.has_ended


def test_an_empty_log():
    playing = Playing([], loop=True)
    assert playing.due() == [] and playing.player.has_ended


def test_what_is_not_wanted_takes_its_time():
    playing = Playing(log_of(0, 1, 2), wanted=lambda entry: entry.name == "2")
    assert playing.due() == [] and playing.player.until_next() == 2
    assert playing.after(2) == ["2"]


def test_a_long_way_to_the_first_wanted_leaves_others_their_turns(monkeypatch):
    monkeypatch.setattr(player_module, "AT_ONCE", 10)
    playing = Playing(log_of(*range(25)), start=24)
    assert playing.player.take() is None and playing.player.until_next() == 0
    playing.clock.now += 100  # the search takes its time, which is none of the log's
    assert playing.player.position == 24
    assert playing.player.take() is None
    assert playing.player.take().name == "24" and playing.player.position == 24


def test_a_loop():
    playing = Playing(log_of(0, 1), loop=True)
    assert playing.due() == ["0"]
    assert playing.after(1) == ["1"]
    assert playing.due() == ["0"]
    assert playing.after(1) == ["1"] and playing.due() == ["0"]
    assert playing.reads == 3 and not playing.player.has_ended


def test_a_loop_over_a_range_lasts_to_its_end():
    playing = Playing(log_of(0, 1, 2, 9), loop=True, start=1, stop=4)
    assert playing.due() == ["1"]
    assert playing.after(1) == ["2"]
    assert playing.player.until_next() == 2
    assert playing.after(1.9) == []
    assert playing.after(0.2) == [] and playing.due() == ["1"]


def test_a_loop_as_fast_as_it_goes():
    playing = Playing(log_of(0, 1), loop=True, speed=math.inf)
    names = [playing.player.take() for _ in range(7)]
    assert [entry.name for entry in names if entry] == ["0", "1", "0", "1", "0"]


def test_a_loop_without_length_is_refused():
    playing = Playing(log_of(0), loop=True)
    with pytest.raises(VorbelError, match="one and the same time; an end says how long"):
        playing.due()
        playing.due()


def test_a_loop_over_one_entry_lasts_to_the_end_of_the_range():
    playing = Playing(log_of(0), loop=True, stop=2)
    assert playing.due() == ["0"]
    assert playing.after(1.5) == []
    assert playing.after(0.5) == [] and playing.due() == ["0"]


def test_a_loop_without_anything_wanted_ends():
    playing = Playing(log_of(0, 1), loop=True, wanted=lambda _: False)
    assert playing.due() == [] and playing.player.has_ended


def test_pause_stops_the_clock():
    playing = Playing(log_of(0, 1, 2))
    playing.due()
    playing.clock.now += 0.4
    playing.player.pause()
    assert playing.after(60) == [] and playing.player.until_next() == math.inf
    assert playing.player.position == pytest.approx(0.4)
    playing.player.pause()
    assert playing.player.until_next() == pytest.approx(0.6)
    assert playing.after(0.61) == ["1"]


def test_step_by_step():
    playing = Playing(log_of(0, 5, 9), paused=True)
    assert playing.due() == []
    playing.player.step()
    assert playing.player.until_next() == 0 and playing.due() == ["0"]
    assert playing.player.until_next() == math.inf
    playing.player.step()
    assert playing.after(60) == ["5"] and playing.player.position == 5
    playing.player.pause()
    assert playing.player.until_next() == 4


def test_a_step_pauses():
    playing = Playing(log_of(0, 1, 2, 3))
    playing.due()
    playing.player.step()
    assert playing.player.is_paused and playing.due() == ["1"] and playing.after(10) == []


def test_steps_go_on_in_a_loop():
    playing = Playing(log_of(0, 1), paused=True, loop=True)
    names = []
    for _ in range(3):
        playing.player.step()
        names += playing.due() or playing.due()
    assert names == ["0", "1", "0"]


def test_seek_on():
    playing = Playing(log_of(0, 1, 20, 21))
    playing.due()
    playing.player.seek(20.5)
    assert playing.due() == [] and playing.player.until_next() == pytest.approx(0.5)
    assert playing.after(0.5) == ["21"] and playing.reads == 1


def test_seek_back_reads_again():
    playing = Playing(log_of(0, 10, 20, 30))
    playing.after(0)
    assert playing.after(20) == ["10", "20"]
    playing.player.seek(5)
    assert playing.due() == [] and playing.player.position == 5 and playing.reads == 2
    assert playing.after(5) == ["10"]


def test_seek_back_to_what_was_looked_at_already():
    playing = Playing(log_of(0, 100))
    playing.due()
    playing.player.seek(50)
    playing.player.seek(90)
    assert playing.due() == [] and playing.player.until_next() == 10


def test_seek_while_paused():
    playing = Playing(log_of(0, 10, 20, 30), paused=True)
    playing.player.seek(15)
    assert playing.after(10) == [] and playing.player.position == 15
    playing.player.step()
    assert playing.due() == ["20"]


def test_seek_stays_in_the_range():
    playing = Playing(log_of(0, 10, 20, 30), start=10, stop=20, paused=True)
    playing.player.seek(-5)
    assert playing.player.position == 10
    playing.player.seek(500)
    assert playing.player.position == 20


def test_seek_behind_the_end_ends():
    playing = Playing(log_of(0, 1, 2))
    playing.due()
    playing.player.seek(60)
    assert playing.due() == [] and playing.player.has_ended


def test_the_speed_changes_from_where_it_is():
    playing = Playing(log_of(0, 10, 20))
    playing.due()
    playing.clock.now += 4
    playing.player.accelerate(2)
    assert playing.player.position == 4 and playing.player.until_next() == 3
    playing.player.accelerate(0.5)
    assert playing.player.speed == 1 and playing.player.until_next() == 6


def test_from_full_speed_to_the_logs_own():
    playing = Playing(log_of(0, 10, 20), speed=math.inf)
    assert playing.player.take().name == "0"
    playing.player.accelerate(2)
    assert playing.player.speed == math.inf
    playing.player.accelerate(0.5)
    assert playing.player.speed == 1 and playing.player.until_next() == 0
    assert playing.due() == [] and playing.player.until_next() == 10


def test_a_slow_reader_of_the_log_loses_nothing():
    playing = Playing(log_of(*range(100)), speed=10)
    assert playing.after(3600) == ["0"]  # the time counts from the first one on
    assert playing.after(3600) == [str(number) for number in range(1, 100)]


def test_duration():
    assert duration(iter(log_of(0, 7, 5)), 1) == 7
    assert duration(iter([]), 1) == 0


def test_duration_of_a_log_that_is_too_long_to_read():
    clock = Clock()

    def slowly():
        for entry in log_of(*range(100)):
            clock.now += 0.1
            yield entry

    assert duration(slowly(), 5, clock) is None
    assert duration(slowly(), 11, clock) == 99
