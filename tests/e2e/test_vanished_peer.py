"""A peer that disappears without a word: its machine lost power, its cable was pulled."""

import asyncio
import subprocess
import sys
import time

import pytest

from harness import connect, eventually, receive

PEER = """
import asyncio, sys, websockets
async def main():
    async with websockets.connect("ws://10.77.0.1:10443", ping_interval=None) as client:
        await client.recv()
        print("greeted", flush=True)
        await asyncio.sleep(600)
asyncio.run(main())
"""


def ip(*words):
    subprocess.run(["ip", *words], check=True)


@pytest.fixture
def peer():
    """A client in a network namespace of its own, at the other end of a cable."""
    holder = subprocess.Popen(["unshare", "--net", "sleep", "600"])
    time.sleep(0.2)
    try:
        ip("link", "add", "cable", "type", "veth", "peer", "name", "far", "netns", str(holder.pid))
        ip("addr", "add", "10.77.0.1/24", "dev", "cable")
        ip("link", "set", "cable", "up")
        there = ["nsenter", "--net", "--target", str(holder.pid)]
        subprocess.run([*there, "ip", "addr", "add", "10.77.0.2/24", "dev", "far"], check=True)
        subprocess.run([*there, "ip", "link", "set", "far", "up"], check=True)

        def start():
            client = subprocess.Popen([*there, sys.executable, "-c", PEER], stdout=subprocess.PIPE, text=True)
            assert client.stdout.readline() == "greeted\n"
            return client

        def vanish():
            subprocess.run([*there, "ip", "link", "set", "far", "down"], check=True)

        start.vanish = vanish
        yield start
    finally:
        ip("link", "del", "cable")
        holder.kill()
        holder.wait()


@pytest.mark.parametrize("busy", [False, True], ids=["idle", "busy"])
async def test_is_gone_within_30_seconds(start_daemon, peer, busy):
    # The serial link without an adapter sends a hello each second: that keeps the connection busy.
    daemon = start_daemon(VORBEL_SOURCE="serialport" if busy else "none")
    client = peer()
    try:
        async with connect() as other:
            await receive(other)
            peer.vanish()
            started = time.monotonic()
            await eventually(lambda: daemon.count("info Connection closed .*"), 30, "the peer to be given up")
            assert time.monotonic() - started > 5
            await asyncio.wait_for(await other.ping(), 5)
    finally:
        client.kill()
        client.wait()
