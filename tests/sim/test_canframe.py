"""CAN frames in the kernel's layouts and in can-utils logs."""

import pytest

from vorbelsim import canframe
from vorbelsim.canframe import CanFrame

FRAMES = {
    "standard": CanFrame(0x123, b"\x11\x22"),
    "empty": CanFrame(0x7FF),
    "extended": CanFrame(0x12345, b"12345678", extended=True),
    "remote": CanFrame(0x123, remote=True),
    "error": CanFrame(0x4, bytes(8), error=True),
    "FD of twelve bytes": CanFrame(0x123, b"abcdefghijkl", fd=True),
    "FD of four bytes": CanFrame(0x123, b"abcd", fd=True),
}


@pytest.mark.parametrize("frame", FRAMES.values(), ids=FRAMES.keys())
def test_frame_survives_both_layouts(frame):
    assert canframe.unpack(frame.pack()) == frame
    assert canframe.unpack(frame.pack_fd()) == frame
    assert len(frame.pack()) == (72 if frame.fd else 16)


def test_classic_layout_bytes():
    assert CanFrame(0x123, b"\x11\x22").pack().hex() == "23010000020000001122000000000000"
    assert CanFrame(0x1, extended=True).pack()[:4].hex() == "01000080"


def test_vek_identifier():
    frame = CanFrame.vek(5, 3, b"x")
    assert (frame.id, frame.mac, frame.cmd) == (0xC5, 5, 3)


@pytest.mark.parametrize("line, expected", [
    ("(1436509052.249713) vcan0 044#2A366C2BBA", CanFrame(0x44, bytes.fromhex("2A366C2BBA"))),
    ("(1.5) can0 123#", CanFrame(0x123)),
    ("(1.5) can0 123#1122 R", CanFrame(0x123, b"\x11\x22")),
    ("(1.5) can0 123#R", CanFrame(0x123, remote=True)),
    ("(1.5) can0 123#R4", CanFrame(0x123, remote=True)),
    ("(1.5) can0 00012345#01", CanFrame(0x12345, b"\x01", extended=True)),
    ("(1.5) can0 20000004#0000000000000000", CanFrame(4, bytes(8), error=True)),
    ("(1.5) can0 123##1000102030405060708090A0B", CanFrame(0x123, bytes(range(12)), fd=True)),
], ids=["standard", "empty", "with direction", "remote", "remote with length", "extended", "error", "FD"])
def test_log_line(line, expected):
    assert canframe.parse_log_line(line + "\n")[1] == expected


def test_log_time():
    assert canframe.parse_log_line("(1436509052.249713) vcan0 044#")[0] == 1436509052.249713


@pytest.mark.parametrize("line", ["", "nonsense", "(1.5) can0 12#00", "(1.5) can0 123#0", "(1.5) can0 123#" + "00" * 9,
                                  "(1.5) can0 123##1" + "00" * 65, "(x) can0 123#00"])
def test_other_lines_are_refused(line):
    with pytest.raises(ValueError):
        canframe.parse_log_line(line)
