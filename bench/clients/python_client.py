"""A client in Python that takes a number of messages and says what they cost:

    python_client.py vorbel|plain URL COUNT

"plain" is what websockets and msgpack cost by themselves.
"""

import asyncio
import json
import os
import pathlib
import sys
import time

import msgpack
import websockets

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "clients" / "python"))
import vorbel  # noqa: E402


async def plain(url):
    async with websockets.connect(url, compression=None, max_size=None) as socket:
        await socket.recv()  # the hello
        async for message in socket:
            yield msgpack.unpackb(message)


async def with_vorbel(url):
    async with vorbel.connect(url, schema=json.loads(os.environ["BENCH_SCHEMA"])) as client:
        async for values in client.values():
            yield values


async def main(kind, url, count):
    """The first tenth of the messages is only for warming up."""
    counted, cpu = 0, 0.0
    async for _ in {"plain": plain, "vorbel": with_vorbel}[kind](url):
        counted += 1
        if counted == count // 10:
            cpu = time.process_time()
        elif counted == count:
            break
    print(json.dumps({"cpu": (time.process_time() - cpu) / (count - count // 10)}), flush=True)
    os._exit(0)  # nobody waits for a server that goes on talking


asyncio.run(main(sys.argv[1], sys.argv[2], int(sys.argv[3])))
