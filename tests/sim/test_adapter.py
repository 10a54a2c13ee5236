"""The virtual adapter, as stock QSerialPort and QSerialPortInfo see it."""

import errno
import os
import signal
import subprocess
import time

import pytest

from vorbelsim import VirtualAdapter

READ_ERROR, RESOURCE_ERROR, PERMISSION_ERROR = 8, 9, 2
DTR, RTS = 0x04, 0x40


@pytest.fixture
def adapter(tmp_path):
    with VirtualAdapter(tmp_path) as plugged:
        yield plugged


def opened(probe, adapter):
    running = probe(adapter.env(), "serial", "VEK")
    assert running.line().startswith("open 1 0")
    return running


# Happy


def test_ports_are_listed_by_name_with_their_properties(probe, tmp_path):
    adapters = [
        VirtualAdapter(tmp_path, "ttyVEK1", "VEK CAN Adapter"),
        VirtualAdapter(tmp_path, "ttyACM7", "some modem", ID_VENDOR="Some_maker", ID_SERIAL_SHORT="A7",
                       ID_VENDOR_ID="1d50", ID_MODEL_ID="606f"),
    ]
    for each in adapters:
        each.plug()
    lines, errors = probe(adapters[0].env(), "ports").finish()
    assert [line.split("\t") for line in lines] == [
        ["ttyACM7", f"{tmp_path}/dev/ttyACM7", "some modem", "Some maker", "A7", "1d50", "606f"],
        ["ttyVEK1", f"{tmp_path}/dev/ttyVEK1", "VEK CAN Adapter", "", "", "0", "0"],
    ]
    assert errors == ""
    for each in adapters:
        each.unplug()


def test_bytes_travel_both_ways_unchanged(probe, adapter):
    running = opened(probe, adapter)
    everything = bytes(range(256))
    adapter.write(everything)
    assert adapter.read(256, timeout=5) == everything
    echoed = ""
    while len(echoed) < 512:
        echoed += running.line().split()[1]
    assert bytes.fromhex(echoed) == everything


def test_history_tells_opening_and_baud_rate_with_times(probe, adapter):
    before = time.monotonic()
    opened(probe, adapter)
    after = time.monotonic()
    events = adapter.history()
    assert events[0].name == "open"
    assert [event.value for event in events if event.name == "baud-in"][-1] == 1000000
    assert [event.value for event in events if event.name == "baud-out"][-1] == 1000000
    assert all(before < event.time < after for event in events)
    assert events == sorted(events, key=lambda event: event.time)


def test_lines_are_raised_by_opening_and_obey(probe, adapter):
    running = opened(probe, adapter)

    def lines():
        return int(running.ask("pins").split()[1], 16) & (DTR | RTS)

    assert lines() == DTR | RTS
    running.tell("dtr 0")
    assert lines() == RTS
    running.tell("rts 0")
    assert lines() == 0
    running.tell("dtr 1")
    assert lines() == DTR
    assert [event[1:] for event in adapter.history() if event.name in ("dtr", "rts")] == [
        ("dtr", 0), ("rts", 0), ("dtr", 1)]


def test_closing_is_told(probe, adapter):
    running = opened(probe, adapter)
    running.tell("quit")
    running.finish()
    assert adapter.history()[-1].name == "close"


def test_what_came_before_the_opening_is_lost(probe, adapter):
    adapter.write(b"too early")
    running = opened(probe, adapter)
    adapter.write(b"in time")
    assert bytes.fromhex(running.line().split()[1]) == b"in time"


def test_taken_means_read_by_the_program(probe, adapter):
    running = opened(probe, adapter)
    adapter.write(b"x" * 3000)
    adapter.wait_taken()
    taken = 0
    while taken < 3000:
        taken += len(running.line().split()[1]) // 2
    running.process.send_signal(signal.SIGSTOP)
    adapter.write(b"y")
    with pytest.raises(TimeoutError):
        adapter.wait_taken(timeout=0.2)


# Rainy


def test_without_adapters_no_port_of_the_machine_is_listed(probe, tmp_path):
    assert probe(VirtualAdapter(tmp_path).env(), "ports").finish() == ([], "")


def test_missing_folder_means_no_ports(probe, tmp_path):
    env = {**VirtualAdapter(tmp_path).env(), "VORBEL_SIM_DIR": str(tmp_path / "nowhere")}
    assert probe(env, "ports").finish() == ([], "")


def test_pulled_adapter_gives_read_errors_on_a_port_that_claims_to_be_open(probe, adapter):
    running = opened(probe, adapter)
    adapter.unplug()
    for _ in range(5):
        assert running.line() == f"error {READ_ERROR}"
    assert running.ask("state") == f"state 1 {READ_ERROR}"
    assert not adapter.node.exists()
    assert probe(adapter.env(), "ports").finish() == ([], "")


def test_write_to_a_pulled_adapter_fails_with_a_resource_error(probe, adapter):
    running = opened(probe, adapter)
    adapter.unplug()
    running.line_after("error")
    running.tell("write")
    running.line_after(f"error {RESOURCE_ERROR}")


def test_lines_of_a_pulled_adapter_cannot_be_read(probe, adapter):
    running = opened(probe, adapter)
    adapter.unplug()
    running.line_after("error")
    assert running.ask("pins") == "pins 0"


def test_replugged_adapter_has_another_node_under_the_same_path(probe, adapter):
    running = opened(probe, adapter)
    first = os.stat(adapter.node)
    adapter.unplug()
    adapter.plug()
    second = os.stat(adapter.node)
    assert (first.st_dev, first.st_ino) != (second.st_dev, second.st_ino)
    running.tell("reopen")
    running.line_after("open 1 0")
    adapter.write(b"back")
    assert bytes.fromhex(running.line_after("read").split()[1]) == b"back"


def test_node_of_an_open_port_has_the_identity_of_its_descriptor(probe, adapter):
    running = opened(probe, adapter)
    descriptor = adapter.history("open")[0].value
    through_descriptor = os.stat(f"/proc/{running.process.pid}/fd/{descriptor}")
    assert os.path.samestat(through_descriptor, os.stat(adapter.node))


@pytest.mark.parametrize("error, reported", [(errno.EIO, RESOURCE_ERROR), (errno.EBADF, RESOURCE_ERROR),
                                             (errno.EINVAL, READ_ERROR)])
def test_read_fails_with_the_chosen_error(probe, adapter, error, reported):
    running = opened(probe, adapter)
    adapter.fail("read", error)
    assert running.line() == f"error {reported}"


def test_healed_port_reads_again(probe, adapter):
    running = opened(probe, adapter)
    adapter.fail("read", errno.EINVAL)
    assert running.line() == f"error {READ_ERROR}"
    adapter.heal("read")
    assert running.line_after("read") == "read 00"


def test_write_fails_with_the_chosen_error(probe, adapter):
    running = opened(probe, adapter)
    adapter.fail("write", errno.EIO)
    running.tell("write")
    assert running.line() == f"error {RESOURCE_ERROR}"
    assert adapter.read(timeout=0.1) == b""


def test_open_fails_with_the_chosen_error(probe, adapter):
    adapter.fail("open", errno.EACCES)
    running = probe(adapter.env(), "serial", "VEK")
    assert running.line_after("open") == f"open 0 {PERMISSION_ERROR} Permission denied"
    assert adapter.history() == []


def test_faults_end_with_the_plugging(probe, adapter):
    adapter.fail("open", errno.EACCES)
    adapter.unplug()
    adapter.plug()
    opened(probe, adapter)


def test_other_programs_run_unharmed_behind_the_library(probe, adapter):
    run = subprocess.run(["sh", "-c", "ls / && cat /etc/passwd"], env={**os.environ, **adapter.env()},
                         capture_output=True, timeout=20)
    assert run.returncode == 0 and b"root:" in run.stdout
