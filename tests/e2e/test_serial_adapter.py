"""Finding the serial adapter, opening it, and the lines it is driven by."""

import errno
import termios
import time

import pytest

from hardware import counted, counter_leaf, counting_client, gate_open, load, next_value, no_value, send_value
from harness import TICK, connect, eventually, receive, wait_until
from vorbelsim import VirtualAdapter, vek

HELLO = 'info Sending hello message QJsonDocument({"hello":{"type":"unknown"}}) for device "%s"'
NO_DEVICE, DEVICE = HELLO % "", HELLO % "VEK CAN Adapter"
FOUND = 'debug Found "VEK CAN Adapter" "ttyVEK0"'
DTR_DELAY_LEAST = 0.199  # seconds; a timer counts whole milliseconds
DENIED = 'warning bool Main::openSerialPort() error "Permission denied"'


@pytest.fixture
def ports(tmp_path):
    """ports((name, description), ...) plugs adapters."""
    plugged = []

    def plug(*descriptions):
        for name, description in descriptions:
            plugged.append(VirtualAdapter(tmp_path, name, description).plug())
        return plugged

    yield plug
    for each in plugged:
        each.__exit__()


# Happy


@pytest.mark.parametrize("offered, chosen", [
    ([("ttyA0", "VEK CAN Adapter"), ("ttyA1", "VEK Other")], '"VEK CAN Adapter" "ttyA0"'),
    ([("ttyA1", "VEK CAN Adapter"), ("ttyA0", "VEK Other")], '"VEK Other" "ttyA0"'),
    ([("ttyA0", "USB modem"), ("ttyA1", "VEK CAN Adapter")], '"VEK CAN Adapter" "ttyA1"'),
    ([("ttyA0", "vek CAN Adapter"), ("ttyA1", "Vek"), ("ttyA2", "VEK")], '"VEK" "ttyA2"'),
    ([("ttyA0", "USB VEK"), ("ttyA1", "VE"), ("ttyA2", ""), ("ttyA3", "VEKTOR")], '"VEKTOR" "ttyA3"'),
], ids=["first of two", "first by enumeration", "not the first port", "case matters", "beginning matters"])
def test_first_port_whose_description_begins_with_the_letters(start_daemon, ports, offered, chosen):
    plugged = ports(*offered)
    daemon = start_daemon(**plugged[0].env())
    daemon.wait_for("info .*")
    assert [line for line in daemon.lines() if "Found" in line] == [f"debug Found {chosen}"]
    opened = [port.name for port in plugged if port.history("open")]
    assert opened == [chosen.split('"')[3]]


def test_opening_is_logged_before_the_hello_which_names_the_device(start_daemon, adapter):
    daemon = start_daemon(**adapter.plug().env())
    daemon.wait_for(".*hello.*")
    assert daemon.lines() == [FOUND, DEVICE]


def test_first_attempt_comes_with_the_first_tick(start_daemon, adapter):
    daemon = start_daemon(**adapter.plug().env())
    opened = adapter.wait_for("open")
    assert 0.95 * TICK < opened.time - daemon.started < 2 * TICK


async def test_an_open_healthy_port_is_left_alone(start_daemon, adapter):
    daemon = start_daemon(**adapter.plug().env())
    await gate_open(adapter)
    async with connect() as client:
        await receive(client)
        before = adapter.history()
        assert await no_value(client, 2.5 * TICK)
    assert adapter.history() == before
    assert [line for line in daemon.lines() if "onnection" not in line] == [FOUND, DEVICE, DEVICE]


def test_data_bits_parity_stop_bits_and_flow_control_are_the_usual_ones(start_daemon, adapter):
    """Eight bits, no parity, one stop bit, no flow control: as Qt opens a port unless told otherwise."""
    start_daemon(**adapter.plug().env())
    adapter.wait_for("dtr", 1)
    assert {event.value for event in adapter.history("framing")} == {termios.CS8}
    assert {event.value for event in adapter.history("software-flow")} == {0}


def test_baud_rate_is_set_for_both_directions_and_again_once_open(start_daemon, adapter):
    start_daemon(**adapter.plug().env())
    adapter.wait_for("dtr", 1)
    for direction in ("baud-in", "baud-out"):
        rates = [event.value for event in adapter.history(direction)]
        assert rates.count(1000000) >= 2
        assert rates[-1] == 1000000


def test_rts_is_raised_dtr_lowered_and_raised_after_200_ms(start_daemon, adapter):
    start_daemon(**adapter.plug().env())
    adapter.wait_for("dtr", 1)
    time.sleep(0.3)
    lines = [event for event in adapter.history() if event.name in ("rts", "dtr")]
    assert [event[1:] for event in lines] == [("rts", 1), ("dtr", 0), ("dtr", 1)]
    low = lines[2].time - lines[1].time
    assert DTR_DELAY_LEAST <= low < 0.45, f"DTR was low for {low:.4f} s"
    # The lines move once the baud rate is settled.
    assert max(event.time for event in adapter.history("baud-out")) < lines[0].time


async def test_what_comes_before_dtr_is_up_is_discarded(start_daemon, adapter):
    start_daemon(**adapter.plug().env())
    async with counting_client() as client:
        opened = await eventually(lambda: adapter.history("open"))
        early = 0
        while time.monotonic() < opened[0].time + 0.15:
            early += 1
            adapter.write(vek.record(5, 2, counted(early)))
            adapter.wait_taken()
        assert early > 0
        await gate_open(adapter)
        adapter.write(vek.record(5, 2, counted(70000)))
        assert await next_value(client) == {"n": 70000}
        assert await no_value(client)


async def test_the_beginning_of_a_record_is_discarded_with_the_rest(start_daemon, adapter):
    start_daemon(**adapter.plug().env())
    cut, whole = vek.record(5, 2, counted(1)), vek.record(5, 2, counted(2))
    async with counting_client() as client:
        await eventually(lambda: adapter.history("dtr"))
        adapter.write(cut[:6])
        adapter.wait_taken()
        await gate_open(adapter)
        adapter.write(cut[6:] + whole)
        assert await next_value(client) == {"n": 2}


async def test_the_gate_does_not_apply_to_writing(start_daemon, adapter):
    start_daemon(**adapter.plug().env())
    async with counting_client() as client:
        for opening in range(1, 6):
            await eventually(lambda: len(adapter.history("open")) == opening)
            await send_value(client, {"n": opening})
            await eventually(lambda: adapter.read(11) == vek.record(5, 2, counted(opening)))
            if adapter.history()[-1][1:] == ("dtr", 0):
                return
            # On a busy machine the message may have come too late to tell; again with a new opening.
            adapter.unplug()
            adapter.plug()
    pytest.fail("nothing was written before DTR was raised")


# Rainy


async def test_without_an_adapter_every_tick_greets_and_says_nothing_else(start_daemon, adapter):
    daemon = start_daemon(**adapter.env())
    async with connect() as client:
        await receive(client)
        times = []
        for _ in range(4):
            assert await receive(client, 1.5 * TICK) == '{"hello":{"type":"unknown"}}'
            times.append(time.monotonic())
        gaps = [later - earlier for earlier, later in zip(times, times[1:])]
        assert all(0.8 * TICK < gap < 1.2 * TICK for gap in gaps), gaps
    assert set(line for line in daemon.lines() if "onnection" not in line) == {NO_DEVICE}


async def test_hello_once_per_attempt_and_none_while_open(start_daemon, adapter):
    daemon = start_daemon(**adapter.env())
    daemon.wait_for(".*hello.*", 2)
    adapter.plug()
    daemon.wait_for("debug Found.*")
    time.sleep(2.3 * TICK)
    lines = daemon.lines()
    at = lines.index(FOUND)
    assert set(lines[:at]) == {NO_DEVICE}
    assert lines[at:] == [FOUND, DEVICE]


def test_a_port_that_does_not_open_is_a_warning_each_second(start_daemon, adapter):
    adapter.plug().fail("open", errno.EACCES)
    daemon = start_daemon(**adapter.env())
    daemon.wait_for(".*hello.*", 3)
    # The device is named even so: it was selected.
    assert daemon.lines()[:9] == [FOUND, DENIED, DEVICE] * 3
    assert adapter.history() == []
    adapter.heal("open")
    adapter.wait_for("dtr", 1, timeout=2 * TICK)


def test_the_text_is_that_of_the_failure(start_daemon, adapter):
    adapter.plug().fail("open", errno.ENOENT)
    daemon = start_daemon(**adapter.env())
    daemon.wait_for('warning bool Main::openSerialPort\\(\\) error "No such file or directory"')


def test_the_second_best_is_not_tried_when_the_first_does_not_open(start_daemon, ports):
    first, second = ports(("ttyA0", "VEK one"), ("ttyA1", "VEK two"))
    first.fail("open", errno.EACCES)
    daemon = start_daemon(**first.env())
    daemon.wait_for("warning bool.*", 2)
    assert second.history() == []


async def test_a_device_pulled_while_dtr_is_low_does_no_harm(start_daemon, adapter):
    daemon = start_daemon(**adapter.plug().env())
    wait_until(lambda: adapter.history("dtr"))
    adapter.unplug()
    daemon.wait_for("debug Close SerialPort")
    adapter.plug()
    await gate_open(adapter)
    async with connect() as client:
        await load(client, {"n": counter_leaf()})
        adapter.write(vek.record(5, 2, counted(3)))
        assert await next_value(client) == {"n": 3}
