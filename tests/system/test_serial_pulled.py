"""A serial adapter that is pulled and plugged in again, whatever the link is doing: how soon it is heard again."""

import asyncio
import contextlib
import os
import re

import pytest
from adapters import ready_since
from seriallink import CLOSED, FOUND, HELLO, SCHEMA, link_up
from vorbelsim import vek
from watch import Watch, now

# More for a long run: VORBEL_PULLS=70 tests/system/run -k pulled
PULLS = int(os.environ.get("VORBEL_PULLS", "2"))

# An adapter is heard again within two ticks, once it is there. A tick is a second, and where system calls are dear, as
# in emulation, as long as the search for adapters takes. What is over is for the 200 ms that DTR is low, for the way,
# and for what a busy host takes of the guest's time for itself.
TICKS = 2
OVER = 1.5
WRITE_PERIOD = 0.2  # seconds; each message is six lines in the debug log


@contextlib.asynccontextmanager
async def writing(client):
    """A client writes all the time."""
    async def write():
        while True:
            await client.send({"low": 1})
            await asyncio.sleep(WRITE_PERIOD)

    task = asyncio.create_task(write())
    yield
    task.cancel()
    await asyncio.gather(task, return_exceptions=True)


def longest_tick(service, pulled):
    """Between two signs of life of the service's that looks for the adapter, until it has found it."""
    found = service.first_line(service.first_line(pulled, CLOSED), FOUND)
    signs = [at for at, line in service.timeline()
             if pulled <= at <= found and re.fullmatch(f"{CLOSED}|{HELLO}|{FOUND}", line)]
    return max(1, *(later - earlier for earlier, later in zip(signs, signs[1:])))


async def pull(guest, service, adapter, watch, pause, streams):
    """Pulls it for a while; returns how long it was silent after it was back, and what is allowed."""
    pulled = now(guest)
    await asyncio.to_thread(adapter.unplug)
    await asyncio.sleep(pause)
    plugged = now(guest)
    await asyncio.to_thread(adapter.plug)
    ready = await asyncio.to_thread(ready_since, guest, adapter, plugged)
    await asyncio.to_thread(adapter.stream, True)
    heard = await asyncio.to_thread(watch.first_value, ready)
    await asyncio.to_thread(adapter.stream, streams)
    return heard - ready, TICKS * longest_tick(service, pulled) + OVER


@pytest.mark.parametrize("doing", ["idle", "streaming", "writing"])
async def test_it_is_heard_again_within_two_ticks(adapter, service, guest, doing):
    adapter.plug()
    async with service.connect() as client:
        await client.send_schema(SCHEMA)
        await link_up(client, adapter)
        adapter.stream(True)
        with Watch(guest) as watch:
            adapter.stream(doing == "streaming")
            for number in range(PULLS):
                async with writing(client) if doing == "writing" else contextlib.nullcontext():
                    silence, allowed = await pull(guest, service, adapter, watch, 1.7 * (number % 2),
                                                  doing == "streaming")
                print(f"pull {number + 1}: silent for {silence:.2f} s of {allowed:.2f}", flush=True)
                assert silence <= allowed
                await client.send({"alive": 0xFF})
                adapter.discard_through(vek.record(6, 1, b"\xff"))


async def test_with_two_adapters_the_other_one_takes_over(ftdi, gadget, service):
    async with service.connect() as client:
        await client.send_schema(SCHEMA)
        ftdi.plug()
        await link_up(client, ftdi)
        gadget.plug()
        await link_up(client, ftdi)
        ftdi.unplug()
        await link_up(client, gadget)
        ftdi.plug()
        await link_up(client, gadget)
        gadget.unplug()
        await link_up(client, ftdi)
