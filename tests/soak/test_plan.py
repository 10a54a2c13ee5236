"""A run can be repeated, and what it does is not too much at once."""

import itertools

import pytest

import faults

EVERYTHING = faults.EVERYWHERE + faults.ON_LINE["serialport"]


def described(planned):
    return [(each.start, each.seconds, each.fault.kind, each.seed) for each in planned]


def test_a_seed_replays_the_run():
    assert described(faults.plan(7, 600, EVERYTHING)) == described(faults.plan(7, 600, EVERYTHING))
    assert described(faults.plan(7, 600, EVERYTHING)) != described(faults.plan(8, 600, EVERYTHING))


@pytest.mark.parametrize("seed", range(5))
def test_each_part_is_left_alone_between_two_faults(seed):
    planned = faults.plan(seed, 600, EVERYTHING)
    for part in {part for fault in EVERYTHING for part in fault.parts}:
        own = [each for each in planned if part in each.fault.parts]
        for before, after in itertools.pairwise(own):
            assert after.start >= before.start + before.seconds + faults.REST


@pytest.mark.parametrize("link", faults.ON_LINE)
def test_an_hour_has_every_fault_many_times_and_several_at_once(link):
    planned = faults.plan(1, 3600, faults.EVERYWHERE + faults.ON_LINE[link])
    kinds = [each.fault.kind for each in planned]
    assert min(kinds.count(fault.kind) for fault in faults.EVERYWHERE + faults.ON_LINE[link]) >= 5
    at_once = [sum(other.start <= each.start < other.start + other.seconds for other in planned) for each in planned]
    assert max(at_once) >= 5


def test_all_faults_end_before_the_run_does():
    assert all(each.start + each.seconds < 600 for each in faults.plan(1, 600, EVERYTHING))


def test_nothing_is_killed_before_leaks_had_their_time():
    kills = [each.start for each in faults.plan(1, 600, EVERYTHING) if each.fault.is_kill]
    assert kills and min(kills) >= 400
