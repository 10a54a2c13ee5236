"""VEK records: one CAN message of the VEK protocol as the serial adapter carries it.

Eleven bytes: a little-endian header (bits 0-5 mac, 6-10 cmd, 11-14 dlc, 15 rtr), eight data bytes, and the
CRC-8 of those ten. Written independently of the daemon's module, so that the two can be held against each other.
"""

import struct
from typing import List, NamedTuple

SIZE = 11


class Frame(NamedTuple):
    mac: int
    cmd: int
    payload: bytes


def crc8(data: bytes) -> int:
    """Polynomial 0x07, initial value 0, nothing reflected; 0xF4 for b"123456789"."""
    crc = 0
    for byte in data:
        crc = _TABLE[crc ^ byte]
    return crc


def _remainder(crc: int) -> int:
    for _ in range(8):
        crc = (crc << 1) ^ (0x107 if crc & 0x80 else 0)
    return crc


_TABLE = [_remainder(byte) for byte in range(256)]


def seal(ten_bytes: bytes) -> bytes:
    return ten_bytes + bytes([crc8(ten_bytes)])


def record(mac: int, cmd: int, payload: bytes = b"", *, dlc: int = None, rtr: int = 0) -> bytes:
    """A valid record. `payload` has up to eight bytes; `dlc` is its length unless given (0 to 15)."""
    length = len(payload) if dlc is None else dlc
    header = (mac & 0x3F) | (cmd & 0x1F) << 6 | (length & 0x0F) << 11 | (rtr & 1) << 15
    return seal(struct.pack("<H8s", header, payload))


def is_valid(data: bytes) -> bool:
    return len(data) == SIZE and crc8(data[:10]) == data[10]


def parse(data: bytes) -> Frame:
    """The frame in a valid record; a length beyond the eight data bytes means eight."""
    (header,) = struct.unpack_from("<H", data)
    length = min(header >> 11 & 0x0F, 8)
    return Frame(header & 0x3F, header >> 6 & 0x1F, data[2:2 + length])


class Scanner:
    """Cuts a byte stream into frames: a valid record is taken whole, anything else is skipped bytewise."""

    def __init__(self):
        self._bytes = bytearray()
        self.skipped = 0

    def feed(self, data: bytes) -> List[Frame]:
        """The frames that `data` completes, in order; a partial record waits for more."""
        self._bytes += data
        frames, at = [], 0
        while len(self._bytes) - at >= SIZE:
            window = bytes(self._bytes[at:at + SIZE])
            if is_valid(window):
                frames.append(parse(window))
                at += SIZE
            else:
                self.skipped += 1
                at += 1
        del self._bytes[:at]
        return frames
