"""CAN frames and their layouts: the kernel's struct can_frame and canfd_frame, and lines of can-utils logs."""

import re
import struct
from typing import NamedTuple

EXTENDED, REMOTE, ERROR = 0x80000000, 0x40000000, 0x20000000
FD_FLAG = 0x04
CLASSIC_LAYOUT, FD_LAYOUT = struct.Struct("=IB3x8s"), struct.Struct("=IBB2x64s")

_LOG_LINE = re.compile(
    r"\((?P<time>\d+\.\d+)\) (?P<interface>\S+) (?P<id>[0-9A-Fa-f]{3}|[0-9A-Fa-f]{8})"
    r"(?:#(?P<remote>R[0-8]?)|##(?P<flags>[0-9A-Fa-f])(?P<fd>[0-9A-Fa-f]*)|#(?P<data>[0-9A-Fa-f]*))"
    r"(?: [RT])?$"
)


class CanFrame(NamedTuple):
    id: int
    payload: bytes = b""
    extended: bool = False
    remote: bool = False
    error: bool = False
    fd: bool = False

    @classmethod
    def vek(cls, mac: int, cmd: int, payload: bytes = b"") -> "CanFrame":
        """A standard frame of the VEK protocol."""
        return cls(mac | cmd << 6, payload)

    @property
    def mac(self) -> int:
        return self.id & 0x3F

    @property
    def cmd(self) -> int:
        return self.id >> 6 & 0x1F

    @property
    def wire_id(self) -> int:
        return self.id | self.extended * EXTENDED | self.remote * REMOTE | self.error * ERROR

    def pack_fd(self) -> bytes:
        """As struct canfd_frame, whatever the frame is; FD frames are flagged as such."""
        return FD_LAYOUT.pack(self.wire_id, len(self.payload), self.fd * FD_FLAG, self.payload)

    def pack(self) -> bytes:
        """As a CAN_RAW socket takes it: classic frames as struct can_frame."""
        if self.fd:
            return self.pack_fd()
        return CLASSIC_LAYOUT.pack(self.wire_id, len(self.payload), self.payload)


def unpack(data: bytes) -> CanFrame:
    """A frame in either of the kernel's layouts, told apart by their sizes and the FD flag."""
    if len(data) == CLASSIC_LAYOUT.size:
        wire_id, length, payload = CLASSIC_LAYOUT.unpack(data)
        return _frame(wire_id, payload[:length], fd=False)
    wire_id, length, flags, payload = FD_LAYOUT.unpack(data)
    return _frame(wire_id, payload[:length], fd=bool(flags & FD_FLAG))


def _frame(wire_id: int, payload: bytes, fd: bool) -> CanFrame:
    extended = bool(wire_id & EXTENDED)
    number = wire_id & (0x1FFFFFFF if extended else 0x7FF)
    return CanFrame(number, payload, extended, bool(wire_id & REMOTE), bool(wire_id & ERROR), fd)


def parse_log_line(line: str):
    """(seconds, CanFrame) of one line as `candump -l` writes it; ValueError for any other."""
    match = _LOG_LINE.match(line.strip())
    if not match:
        raise ValueError(f"not a line of a candump log: {line.strip()!r}")
    data = bytes.fromhex(match["fd"] if match["flags"] else match["data"] or "")
    if len(data) > (64 if match["flags"] else 8):
        raise ValueError(f"too many data bytes: {line.strip()!r}")
    number, is_long = int(match["id"], 16), len(match["id"]) == 8
    # An error frame is written as eight digits with the error flag among them.
    error = is_long and bool(number & ERROR)
    frame = CanFrame(number & 0x1FFFFFFF, data, is_long and not error, bool(match["remote"]), error,
                     bool(match["flags"]))
    return float(match["time"]), frame
