#!/usr/bin/python3
"""What one would write instead: the same bridge with asyncio, websockets and msgpack.

    asyncio_bridge.py DEVICE
"""

import asyncio
import os
import struct
import sys

import msgpack
import websockets

POLYNOMIAL = 0x07


def crc_table():
    for byte in range(256):
        for _ in range(8):
            byte = (byte << 1) ^ (0x107 if byte & 0x80 else 0)
        yield byte


TABLE = list(crc_table())


def crc8(data):
    crc = 0
    for byte in data:
        crc = TABLE[crc ^ byte]
    return crc


class Bridge:
    def __init__(self, device):
        self.device = os.open(device, os.O_RDWR | os.O_NOCTTY | os.O_NONBLOCK)
        self.buffered = bytearray()
        self.clients = set()

    def read(self):
        self.buffered += os.read(self.device, 65536)
        at = 0
        while len(self.buffered) - at >= 11:
            if crc8(self.buffered[at:at + 10]) != self.buffered[at + 10]:
                at += 1
                continue
            speed, current, enabled = struct.unpack_from("<hHB", self.buffered, at + 2)
            message = msgpack.packb({"motor": {"current": current, "enabled": enabled, "speed": speed}})
            websockets.broadcast(self.clients, message)
            at += 11
        del self.buffered[:at]

    async def serve(self, client):
        await client.send("{}")
        self.clients.add(client)
        try:
            async for _ in client:
                pass
        finally:
            self.clients.discard(client)


async def main():
    bridge = Bridge(sys.argv[1])
    asyncio.get_running_loop().add_reader(bridge.device, bridge.read)
    async with websockets.serve(bridge.serve, "0.0.0.0", 10443, compression=None, ping_interval=None):
        await asyncio.Future()


asyncio.run(main())
