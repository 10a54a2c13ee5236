"""A recording of a bus, replayed by the simulated bus: the library gets the same values each time, on either link."""

import asyncio
import sys

import pytest

import harness
import vorbel
from bridges import PROJECT

COUNTER = {"count": {"@mac": 5, "@cmd": 2, "@format": "I"}}
PROGRAM = PROJECT / "sim" / "simulated_bus.py"


@pytest.fixture(params=["--adapter", "--virtual-can"])
async def replay(request, tmp_path):
    """replay(log, option...) plays it on the link and returns the counter's values and how long that took."""
    link = [request.param, tmp_path / "link"]
    (tmp_path / "link").mkdir()

    async def run(*options):
        process = await asyncio.create_subprocess_exec(sys.executable, PROGRAM, *map(str, link + list(options)),
                                                       stdout=asyncio.subprocess.PIPE)
        return (await process.communicate())[0].decode()

    environment = dict(line.removeprefix("export ").split("=", 1) for line in (await run("--env")).splitlines())
    daemon = harness.Daemon(tmp_path, environment)
    daemon.wait_listening()

    async def replayed(log, count, *options):
        path = tmp_path / "log"
        path.write_text(log)
        async with vorbel.connect("127.0.0.1", schema=COUNTER) as client:
            await client.confirmed()
            told = await run("--replay", path, "--wait", 0.1, "--quiet", *options)
            assert told == f"replayed {count} frames, 0 of them not fit for this link\n"
            events = []
            async for event in client.events(10):
                events += [event] if isinstance(event, vorbel.Values) else []
                if len(events) == count:
                    break
        return [event.data["count"] for event in events], events[-1].time - events[0].time

    yield replayed
    daemon.stop()


def log_of(numbers, interval):
    """A log of `candump -l` with a counter in the frames of node 5, command 2."""
    return "".join(f"({1700000000 + at * interval:.6f}) can0 085#{number.to_bytes(4, 'little').hex().upper()}\n"
                   for at, number in enumerate(numbers))


async def test_full_speed_loses_nothing_and_can_be_repeated(replay):
    numbers = list(range(3000))
    log = log_of(numbers, interval=3600)
    assert (await replay(log, len(numbers), "--speed", "max"))[0] == numbers
    assert (await replay(log, len(numbers), "--speed", "max"))[0] == numbers


async def test_own_speed(replay):
    values, seconds = await replay(log_of([7, 8, 9, 10], interval=0.4), 4)
    assert values == [7, 8, 9, 10]
    assert 1.0 < seconds < 2.0
