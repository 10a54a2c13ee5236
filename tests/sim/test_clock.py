"""The virtual clock, as C programs and Python see it."""

import os
import subprocess
import time

import pytest

from vorbelsim import VirtualClock

HOUR = 3600
CLOSE = 30  # seconds between two looks, on a machine that is busy


@pytest.fixture
def clock(tmp_path):
    return VirtualClock(tmp_path / "clock")


def said(clock, *command):
    return subprocess.run(command, env={**os.environ, **clock.env()}, check=True, capture_output=True,
                          text=True).stdout.split()


def ahead(clock, *command):
    """How far what a program says first is ahead of the machine's clock."""
    return float(said(clock, *command)[0]) - time.time()


@pytest.mark.parametrize("hours", [0, 1, -1, 24 * 365, -24 * 365])
@pytest.mark.parametrize("command", [("date", "+%s.%N"), ("python3", "-c", "import time; print(time.time())")],
                         ids=["date", "Python"])
def test_it_is_so_far_ahead(clock, hours, command):
    clock.set_ahead(HOUR * hours)
    assert HOUR * hours - CLOSE < ahead(clock, *command) < HOUR * hours + 1


def test_a_fraction_counts_and_nanoseconds_stay_below_a_second(clock):
    clock.set_ahead(-0.5)
    for _ in range(20):
        assert -CLOSE < ahead(clock, "date", "+%s.%N") < 0.5


def test_it_is_set_while_a_program_runs(clock):
    reader = subprocess.Popen(["python3", "-uc", "import time\nwhile input() == '': print(time.time())"], text=True,
                              env={**os.environ, **clock.env()}, stdin=subprocess.PIPE, stdout=subprocess.PIPE)

    def now():
        reader.stdin.write("\n")
        reader.stdin.flush()
        return float(reader.stdout.readline()) - time.time()

    assert abs(now()) < CLOSE
    clock.set_ahead(HOUR)
    assert abs(now() - HOUR) < CLOSE
    clock.set_ahead(-HOUR)
    assert abs(now() + HOUR) < CLOSE
    reader.stdin.close()
    reader.wait(10)


def test_clocks_that_only_count_are_left_alone(clock):
    clock.set_ahead(HOUR)
    (counted,) = said(clock, "python3", "-c", "import time; print(time.monotonic())")
    assert abs(float(counted) - time.monotonic()) < CLOSE
