"""A program of the soak is supervised as a service manager does it, and what ends by itself is told from what is
killed."""

import signal
import subprocess
import sys
import time

import pytest

import programs
from harness import wait_until


@pytest.fixture
def program(tmp_path):
    """It reads what it is to do from a file, again and again."""
    script = ("import pathlib, sys, time\n"
              "while not pathlib.Path('end').exists(): time.sleep(0.01)\n"
              "pathlib.Path('end').unlink(); sys.exit(3)")
    program = programs.Program("worker", tmp_path, [sys.executable, "-c", script])
    program.start()
    yield program
    program.end()


def let_end(program):
    (program.folder / "end").touch()
    wait_until(lambda: not program.alive)


def started_again(program):
    return wait_until(program.supervise)


def test_it_ends_by_itself_once(program):
    assert program.fell() is None
    let_end(program)
    assert [program.fell(), program.fell()] == [3, None]
    assert started_again(program) and program.alive
    assert program.fell() is None
    let_end(program)
    assert program.fell() == 3


def test_it_is_killed(program):
    program.kill()
    assert program.process.returncode == -signal.SIGKILL
    assert program.fell() is None
    assert started_again(program) and program.alive and len(program.lives) == 2


def test_it_is_started_again_after_a_pause(program):
    program.kill()
    ended = time.monotonic()
    assert not program.supervise()
    started_again(program)
    assert time.monotonic() - ended >= programs.RESTART_AFTER


def test_each_timer_of_a_process_counts(tmp_path):
    """Ten times a second, against hardly ever."""
    def wakes(pause):
        process = subprocess.Popen([sys.executable, "-c", f"import time\nwhile True: time.sleep({pause})"])
        time.sleep(0.5)
        before = programs.wakes_of(process.pid)
        time.sleep(1)
        counted = programs.wakes_of(process.pid) - before
        process.kill()
        process.wait()
        return counted

    assert wakes(0.1) >= 5 and wakes(60) <= 1


def test_what_several_environments_preload_is_preloaded_together():
    found = programs.combined({"A": "1"}, {"LD_PRELOAD": "/x.so", "A": "2"}, {"LD_PRELOAD": "/y.so"})
    assert found == {"A": "2", "LD_PRELOAD": "/x.so:/y.so"}
    assert "LD_PRELOAD" not in programs.combined({"A": "1"}, {"B": "2"})


def test_packages_are_run_where_they_were_unpacked(monkeypatch, tmp_path):
    monkeypatch.setenv("VORBEL_INSTALLED", str(tmp_path))
    assert programs.place().gateway == tmp_path / "usr/bin/vorbel-gateway"
    assert programs.python_path() == {"PYTHONPATH": str(tmp_path / "usr/lib/python3/dist-packages")}
    monkeypatch.delenv("VORBEL_INSTALLED")
    assert programs.place().daemon == programs.harness.BUILD / "vorbel"
