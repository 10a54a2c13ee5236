"""What the load says of itself is true: all else stands on it. The program at the other end of the line is played."""

import os
import time

import pytest

from harness import wait_until
from lines import AdapterLine
from load import CARRIED, LEAVES, Bus
from vorbelsim import vek


class Program:
    """Opens the adapter and reads when it is told to."""

    def __init__(self, bus):
        self._bus, self._scanner = bus, vek.Scanner()
        self.heard = {leaf: [] for leaf in LEAVES}

    def open(self):
        adapter = self._bus.line.adapter
        self._file = os.open(adapter.node, os.O_RDWR | os.O_NONBLOCK)
        with open(adapter.directory / "history" / adapter.name, "a") as history:
            history.write(f"{time.monotonic()} dtr 1\n")
        wait_until(lambda: self._bus.is_up)

    def close(self):
        os.close(self._file)

    def read(self):
        """What is there, as long as there is something."""
        leaves = {identifier: leaf for leaf, identifier in LEAVES.items()}
        try:
            while data := os.read(self._file, 65536):
                for mac, cmd, payload in self._scanner.feed(data):
                    self.heard[leaves[mac, cmd]].append(int.from_bytes(payload, "little"))
        except BlockingIOError:
            return

    def read_for(self, seconds):
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            self.read()
            time.sleep(0.005)

    def write(self, data):
        os.write(self._file, data)

    @property
    def skipped(self):
        return self._scanner.skipped


@pytest.fixture
def bus(tmp_path):
    bus = Bus(AdapterLine(tmp_path), rate=9090)
    bus.plug()
    bus.start()
    yield bus
    bus.stop()


@pytest.fixture
def program(bus):
    program = Program(bus)
    program.open()
    return program


def assert_whole(program, bus):
    """All numbers from 1 on, and behind what is known to be read nothing is missing."""
    assert program.skipped == 0
    for leaf, numbers in program.heard.items():
        assert numbers == list(range(1, len(numbers) + 1))
        assert bus.taken.numbers[leaf] <= len(numbers) <= bus.numbers[leaf]


def test_every_number_is_sent_once_and_in_order(program, bus):
    program.read_for(1)
    assert_whole(program, bus)
    assert len(program.heard["gathered"]) > 4000
    assert bus.taken.numbers["gathered"] > 2000


def test_a_line_that_is_full_costs_no_number(program, bus):
    time.sleep(1)
    sent = bus.mark().numbers
    assert set(bus.taken.numbers.values()) == {0}
    time.sleep(0.2)
    assert bus.mark().numbers == sent
    program.read_for(0.5)
    assert_whole(program, bus)
    assert len(program.heard["gathered"]) > sent["gathered"]


def test_a_bus_that_makes_up_for_a_pause_knows_nothing_sooner(program, bus, monkeypatch):
    """What the kernel carries is counted nowhere for a moment, however much of it there is."""
    monkeypatch.setattr(bus.line, "unread", lambda: 0)
    program.read_for(0.3)
    with bus.alone():
        time.sleep(0.5)
        before = bus.numbers["gathered"]
    wait_until(lambda: bus.numbers["gathered"] > before + 1000)
    with bus.alone():
        assert bus.taken.numbers["gathered"] <= before
        assert bus.taken.time <= time.monotonic() - CARRIED


def test_what_found_no_room_at_once_was_sent_when_it_did(program, bus):
    time.sleep(1)
    full = bus.mark()
    assert bus.marks[-1].numbers["gathered"] < full.numbers["gathered"]
    program.read_for(0.3)
    (mark,) = [mark for mark in bus.marks if mark.numbers == full.numbers]
    assert mark.time > full.time


def test_nothing_is_sent_before_the_line_is_open_and_behind_its_end(bus):
    time.sleep(0.1)
    assert set(bus.numbers.values()) == {0} and bus.ups == []
    program = Program(bus)
    program.open()
    program.read_for(0.3)
    bus.unplug()
    assert [mark.numbers for mark in bus.ups] == [dict.fromkeys(LEAVES, 0)]
    ((taken, down),) = bus.downs
    assert taken.numbers["gathered"] <= down.numbers["gathered"] == bus.numbers["gathered"]
    time.sleep(0.1)
    assert bus.numbers == down.numbers
    program.close()


def test_on_a_quiet_bus_the_link_stands_and_nothing_is_sent(program, bus):
    program.read_for(0.3)
    bus.is_quiet = True
    program.read_for(0.3)
    before = dict(bus.numbers)
    program.read_for(0.3)
    assert bus.numbers == before and bus.is_up and bus.downs == []
    assert {leaf: numbers[-1] for leaf, numbers in program.heard.items()} == before
    bus.is_quiet = False
    program.read_for(0.3)
    assert_whole(program, bus)
    assert bus.numbers["gathered"] > before["gathered"] + 1000


def test_a_program_that_ended_unseen_has_read_what_it_had_before(program, bus):
    program.read_for(0.5)
    earlier = bus.taken
    program.read_for(0.3)
    assert bus.taken.numbers["gathered"] > earlier.numbers["gathered"]
    bus.went_down(earlier)
    ((taken, _),) = bus.downs
    assert taken == earlier


def test_over_the_next_link_the_numbers_go_on(program, bus):
    program.read_for(0.3)
    bus.unplug()
    program.close()
    before = dict(bus.numbers)
    bus.plug()
    again = Program(bus)
    again.open()
    again.read_for(0.3)
    assert [numbers[0] for numbers in again.heard.values()] == [before[leaf] + 1 for leaf in LEAVES]
    assert len(bus.ups) == 2 and bus.ups[1].numbers == before


def test_what_is_written_arrives(program, bus):
    program.write(vek.record(10, 1, b"\1\0\0\0") + vek.record(11, 1, b"\2\0\0\0"))
    wait_until(lambda: len(bus.arrived) == 2)
    assert [(each.mac, each.cmd, each.payload) for each in bus.arrived] == [(10, 1, b"\1\0\0\0"), (11, 1, b"\2\0\0\0")]


def test_what_is_no_record_arrives_as_such(program, bus):
    program.write(b"no record, as nobody would write")
    wait_until(lambda: bus.arrived)
    assert {each.mac for each in bus.arrived} == {-1}
