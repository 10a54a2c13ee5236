"""Virtual hardware for the daemon under test, and its values as a foreign MessagePack implementation reads them."""

import asyncio
import contextlib
import json

import msgpack
import pytest

from harness import connect, eventually, receive, round_trip
from vorbelsim import VirtualAdapter, VirtualCanBus


@pytest.fixture
def adapter(tmp_path):
    """An adapter that is not plugged yet."""
    adapter = VirtualAdapter(tmp_path)
    yield adapter
    adapter.__exit__()


@pytest.fixture
def bus(tmp_path):
    """A bus that is there, with nobody on it."""
    with VirtualCanBus(tmp_path) as bus:
        yield bus


async def gate_open(adapter, count=1, timeout=5):
    """Waits until the daemon has raised DTR for the count-th time: what is written now, it hears."""
    def raised():
        return [event for event in adapter.history("dtr") if event.value == 1]

    await eventually(lambda: len(raised()) >= count, timeout, f"DTR to be raised {count} times")
    return raised()[count - 1].time


async def load(client, schema):
    """Sends a schema and returns when it holds."""
    await client.send(json.dumps(schema))
    await round_trip(client)


async def next_value(client, timeout=5.0):
    """The next value message; hellos are passed over."""
    while isinstance(message := await receive(client, timeout), str):
        pass
    return msgpack.unpackb(message)


async def values(client, count):
    return [await next_value(client) for _ in range(count)]


async def no_value(client, seconds=0.3):
    """True when no value arrives for a while."""
    try:
        await next_value(client, seconds)
    except asyncio.TimeoutError:
        return True
    return False


async def send_value(client, value):
    """Sends a value for the bus."""
    await client.send(msgpack.packb(value))


def counter_leaf(mac=5, cmd=2):
    """A leaf that reads the first four bytes as one number."""
    return {"@mac": mac, "@cmd": cmd, "@format": "I"}


def counted(number):
    """The payload that carries a number for counter_leaf."""
    return number.to_bytes(4, "little")


def bytes_leaves(mac, cmd, size):
    """Leaves that show each of the first `size` payload bytes; see shown_bytes."""
    return {f"{at:02}": {"@mac": mac, "@cmd": cmd, "@format": "C", "@skip": at} for at in range(size)}


def shown_bytes(value):
    """The payload that the leaves of bytes_leaves show."""
    assert sorted(value) == [f"{at:02}" for at in range(len(value))]
    return bytes(value[name] for name in sorted(value))


# A leaf that throws on every frame without payload: there is nothing to unpack.
THROWING_FORMAT = "p"
CONVERSION_FAILED = "critical Input dropped, its conversion failed: Bad type"


class Listener:
    """A client with counter_leaf's schema, and the log of the daemon that it hears."""

    def __init__(self, daemon, client):
        self.daemon, self.client = daemon, client
        self._failures_before = daemon.count(CONVERSION_FAILED)

    async def hears(self, *numbers):
        """The values that arrive are these numbers, and no more."""
        assert [value["n"] for value in await values(self.client, len(numbers))] == list(numbers)
        assert await no_value(self.client, 0.2)

    def failures(self):
        """How many conversions have thrown since the listener came."""
        return self.daemon.count(CONVERSION_FAILED) - self._failures_before


@contextlib.asynccontextmanager
async def counting_client():
    """A client that was greeted and has loaded counter_leaf as "n"."""
    async with connect() as client:
        await receive(client)
        await load(client, {"n": counter_leaf()})
        yield client
