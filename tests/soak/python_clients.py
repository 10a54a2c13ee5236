"""Honest clients with the Python library; what they say to the soak is in honest.py.

    python_clients.py URI COUNT     the library is the one of PYTHONPATH
"""

import asyncio
import json
import sys
import time

import vorbel

TELLING = 0.25  # seconds
WRITING = 0.1
LIBRARY = "python"


class Heard:
    """What one client heard since it was told last, as runs of numbers without a gap."""

    def __init__(self, name):
        self._name = name
        self._runs = {}  # {leaf: [[first, last], ...]}
        self._last = {}  # {leaf: (number, arrival)}

    def take(self, leaf, numbers):
        runs = self._runs.setdefault(leaf, [])
        for number in numbers:
            if runs and number == runs[-1][1] + 1:
                runs[-1][1] = number
            else:
                runs.append([number, number])
        self._last[leaf] = (int(numbers[-1]), time.monotonic())

    def tell(self, *words):
        """Says a thing that happened, behind all that was heard before."""
        for leaf, runs in self._runs.items():
            number, arrival = self._last[leaf]
            say("heard", self._name, leaf, [[int(first), int(last)] for first, last in runs], number, arrival)
        self._runs.clear()
        if words:
            say(words[0], self._name, *words[1:])


def say(*words):
    sys.stdout.write(json.dumps(words, separators=(",", ":")) + "\n")


async def listen(client, heard):
    lost, there = 0, True
    async for event in client.events():
        if isinstance(event, vorbel.Values):
            for leaf, value in event.data.items():
                heard.take(leaf, [value] if isinstance(value, int) else value.tolist())
        elif isinstance(event, vorbel.Hello) and not there:
            heard.tell("there", time.monotonic())
            there = True
        elif isinstance(event, vorbel.Disconnected):
            if there:
                heard.tell("away", time.monotonic(), event.reason)
            there = False
        elif isinstance(event, vorbel.Undecodable):
            heard.tell("undecodable", time.monotonic(), event.message.hex())
        if client.lost != lost:
            heard.tell("skipped", time.monotonic(), client.lost - lost)
            lost = client.lost


async def write(client, heard):
    """One number after the other, each told before it goes and once the daemon has handled it."""
    number = 0
    while True:
        await asyncio.sleep(WRITING)
        number += 1
        heard.tell("writes", number, time.monotonic())
        try:
            await client.write({f"written_{LIBRARY}": number})
            await client.confirmed()
            heard.tell("wrote", number, time.monotonic())
        except vorbel.ConnectError as error:
            heard.tell("refused", number, time.monotonic(), str(error))


async def tell_always(everybody):
    while True:
        await asyncio.sleep(TELLING)
        for heard in everybody:
            heard.tell()
        sys.stdout.flush()


async def main(uri, count):
    everybody = [Heard(f"{LIBRARY} {number}") for number in range(count)]
    clients = [await vorbel.connect(uri, pauses=(0.2, 2.0)) for _ in everybody]
    for heard in everybody:
        heard.tell("there", time.monotonic())
    await asyncio.gather(tell_always(everybody), write(clients[0], everybody[0]),
                         *(listen(client, heard) for client, heard in zip(clients, everybody)))


asyncio.run(main(sys.argv[1], int(sys.argv[2])))
