"""Adapters that are pulled, replaced, or in trouble, while the daemon has them open."""

import errno
import re
import time

import pytest

from hardware import counted, counting_client, gate_open, next_value, send_value
from harness import TICK, connect, eventually, receive, round_trip
from vorbelsim import VirtualAdapter, vek

# Patience with a busy machine included.
NEXT_TICK = 2 * TICK
WITHIN_TWO_TICKS = 3 * TICK

CLOSE = "debug Close SerialPort"
FOUND = 'debug Found "VEK CAN Adapter" "ttyVEK0"'
HELLO = 'info Sending hello message QJsonDocument({"hello":{"type":"unknown"}}) for device "VEK CAN Adapter"'


@pytest.fixture
def opened(start_daemon, adapter):
    """A daemon whose adapter is open and heard."""
    daemon = start_daemon(**adapter.plug().env())
    adapter.wait_for("dtr", 1)
    return daemon


async def hears(adapter, n=70000):
    """What the adapter says now reaches a client."""
    async with counting_client() as client:
        adapter.write(vek.record(5, 2, counted(n)))
        assert await next_value(client) == {"n": n}


async def write_something():
    """A client's message that the daemon has handled when this returns."""
    async with counting_client() as client:
        await send_value(client, {"n": 1})
        await round_trip(client)


async def comes_back(daemon, adapter):
    """The pulled adapter is closed by the next tick, and heard again within two of being plugged in."""
    daemon.wait_for(CLOSE, timeout=NEXT_TICK)
    adapter.plug()
    await gate_open(adapter, 2, timeout=WITHIN_TWO_TICKS)
    await hears(adapter)


# Happy


async def test_pulled_and_plugged_in_again(opened, adapter):
    before = len(opened.lines())
    adapter.unplug()
    opened.wait_for(CLOSE, timeout=NEXT_TICK)
    opened.wait_for(re.escape(HELLO), 3)
    plugged = time.monotonic()
    adapter.plug()
    raised = await gate_open(adapter, 2, timeout=WITHIN_TWO_TICKS)
    assert raised - plugged < WITHIN_TWO_TICKS
    assert [line for line in opened.lines()[before:] if line != HELLO] == [CLOSE, FOUND]
    assert opened.lines()[before:before + 2] == [CLOSE, HELLO]
    await hears(adapter)


async def test_replaced_between_two_ticks(opened, adapter):
    opened.wait_for(re.escape(HELLO))
    adapter.unplug()
    adapter.plug()
    await gate_open(adapter, 2, timeout=WITHIN_TWO_TICKS)
    assert opened.lines()[-3:] == [CLOSE, FOUND, HELLO]
    await hears(adapter)


async def test_comes_back_under_another_name(opened, adapter, tmp_path):
    adapter.unplug()
    with VirtualAdapter(tmp_path, "ttyVEK7") as elsewhere:
        await gate_open(elsewhere, timeout=WITHIN_TWO_TICKS)
        assert opened.count('debug Found "VEK CAN Adapter" "ttyVEK7"') == 1
        await hears(elsewhere)


async def test_a_second_adapter_takes_over(start_daemon, adapter, tmp_path):
    with VirtualAdapter(tmp_path, "ttyVEK1", "VEK spare") as spare:
        daemon = start_daemon(**adapter.plug().env())
        await gate_open(adapter)
        assert spare.history() == []
        adapter.unplug()
        await gate_open(spare, timeout=WITHIN_TWO_TICKS)
        assert daemon.count('debug Found "VEK spare" "ttyVEK1"') == 1
        await hears(spare)
        # The first one back changes nothing: the open port is healthy.
        adapter.plug()
        time.sleep(1.5 * TICK)
        assert len(adapter.history("open")) == 1
        await hears(spare)


# Rainy


async def test_a_read_error_on_a_port_that_is_still_there_reopens_it(opened, adapter):
    opened.wait_for(re.escape(HELLO))
    adapter.fail("read", errno.EINVAL)
    opened.wait_for(CLOSE, timeout=NEXT_TICK)
    adapter.heal("read")
    await gate_open(adapter, 2, timeout=WITHIN_TWO_TICKS)
    assert opened.lines()[1:5] == [HELLO, CLOSE, FOUND, HELLO]
    await hears(adapter)


async def test_a_read_error_that_stays_is_tried_again_each_second(opened, adapter):
    adapter.fail("read", errno.EINVAL)
    opened.wait_for(CLOSE)
    # Reopened, the port has nothing to read, so it fails again only with the next byte.
    for _ in range(3):
        seen = opened.count(CLOSE)
        await eventually(lambda: adapter.offer(b"\0") and opened.count(CLOSE) > seen, 3 * TICK)
    adapter.heal("read")
    time.sleep(2 * TICK)  # the last byte may have cost one more reopening
    await hears(adapter)


@pytest.mark.parametrize("operation", ["read", "write"])
async def test_other_errors_do_not_reopen_the_port(opened, adapter, operation):
    opened.wait_for(re.escape(HELLO))
    adapter.fail(operation, errno.EIO)
    await write_something()
    adapter.heal(operation)
    time.sleep(2.2 * TICK)
    assert opened.count(CLOSE) == 0
    assert len(adapter.history("open")) == 1


@pytest.mark.parametrize("operation", ["read", "write"])
async def test_pulled_after_another_error_it_comes_back_all_the_same(opened, adapter, operation):
    adapter.fail(operation, errno.EIO)
    await write_something()
    adapter.unplug()
    await comes_back(opened, adapter)


async def test_replaced_between_two_ticks_after_another_error(opened, adapter):
    """The port is open and deaf, its node is there: only that the node is a new one tells."""
    adapter.fail("read", errno.EIO)
    await write_something()
    adapter.unplug()
    adapter.plug()
    await gate_open(adapter, 2, timeout=WITHIN_TWO_TICKS)
    await hears(adapter)


async def test_pulled_after_a_failed_write_to_the_dead_port(opened, adapter):
    async with counting_client() as client:
        adapter.unplug()
        await send_value(client, {"n": 1})
        await round_trip(client)
    await comes_back(opened, adapter)


async def test_half_a_record_from_before_is_not_glued_to_what_comes_after(opened, adapter):
    async with counting_client() as client:
        record = vek.record(5, 2, counted(1))
        adapter.write(record[:6])
        adapter.wait_taken()
        adapter.unplug()
        adapter.plug()
        await gate_open(adapter, 2)
        adapter.write(record[6:] + vek.record(5, 2, counted(2)))
        assert await next_value(client) == {"n": 2}


@pytest.mark.plain_build_only
async def test_a_pulled_adapter_burns_cpu_until_the_next_tick_only(opened, adapter):
    opened.wait_for(re.escape(HELLO))
    adapter.unplug()
    opened.wait_for(CLOSE)
    assert opened.cpu_seconds() < 1.5 * TICK
    before = opened.cpu_seconds()
    time.sleep(3 * TICK)
    assert opened.cpu_seconds() - before < 0.15


async def test_clients_are_served_while_the_pulled_adapter_fails(opened, adapter):
    """The errors come at full speed; messages must not have to wait for their end."""
    async with connect() as client:
        await receive(client)
        adapter.unplug()
        for _ in range(20):
            started = time.monotonic()
            await round_trip(client)
            assert time.monotonic() - started < TICK / 2
