"""A hundred adapters, one after the other, pulled in every way."""

import asyncio
import errno

import harness
from hardware import counted, counting_client, gate_open, next_value, send_value
from harness import TICK, eventually, round_trip
from vorbelsim import vek

CYCLES = 20 if harness.SANITIZED else 100
SETTLED = 10  # cycles after which nothing may grow any more


def pull_idle(adapter):
    adapter.unplug()


def pull_in_mid_record(adapter):
    adapter.write(vek.record(5, 2, counted(1))[:7])
    adapter.wait_taken()
    adapter.unplug()


def pull_after_read_error(adapter):
    adapter.fail("read", errno.EIO)
    adapter.unplug()


def pull_after_write_error(adapter):
    adapter.fail("write", errno.EIO)
    adapter.unplug()


WAYS = [pull_idle, pull_in_mid_record, pull_after_read_error, pull_after_write_error]


async def test_many_replugs_cost_nothing(start_daemon, adapter):
    daemon = start_daemon(**adapter.plug().env())
    async with counting_client() as client:
        await gate_open(adapter)
        for cycle in range(1, CYCLES + 1):
            adapter.write(vek.record(5, 2, counted(cycle)))
            assert await next_value(client) == {"n": cycle}
            await send_value(client, {"n": cycle})
            await eventually(lambda: adapter.read(11) == vek.record(5, 2, counted(cycle)))
            if cycle == SETTLED:
                descriptors, memory = daemon.descriptors(), daemon.status("VmRSS")
            WAYS[cycle % len(WAYS)](adapter)
            await send_value(client, {"n": 0})  # for nobody
            await round_trip(client)
            # Now and then the adapter stays away for longer than a tick.
            await asyncio.sleep(1.2 * TICK if cycle % 10 == 0 else 0)
            adapter.plug()
            await gate_open(adapter, cycle + 1)
        adapter.write(vek.record(5, 2, counted(70000)))
        assert await next_value(client) == {"n": 70000}
        assert daemon.descriptors() == descriptors
        assert daemon.status("VmRSS") < memory + 2 or harness.SANITIZED
