"""Logs of every format that is read, written by others' writers."""

import can
import pytest

from vorbel import canlog
from vorbel.canlog import Frame, Log, only
from vorbel.errors import VorbelError
from vorbelsim import canframe

START = 1_700_000_000.0
STANDARD = Frame(0, 0x085, bytes.fromhex("58029001"))
EMPTY = Frame(0.25, 0x7FF)
FULL = Frame(0.5, 0x0C5, bytes(range(8)))
EXTENDED = Frame(1.25, 0x12345, b"\x2a", is_extended=True)
REMOTE = Frame(1.5, 0x085, is_remote=True)
FD = Frame(2.0, 0x085, bytes(range(12)), is_fd=True, flags=1)
ALL = [STANDARD, EMPTY, FULL, EXTENDED, REMOTE, FD]
WRITERS = {".log": can.CanutilsLogWriter, ".asc": can.ASCWriter, ".blf": can.BLFWriter, ".trc": can.TRCWriter}


def written(path, frames):
    """By python-can's own writer."""
    with WRITERS[path.suffix](str(path)) as writer:
        for frame in frames:
            message = canlog.message_of(can, frame)
            message.timestamp, message.channel = START + frame.time, 0
            writer.on_message_received(message)
    return path


def of_any_flags(frame):
    """A remote frame without its length, which not every format has."""
    return frame._replace(time=0, length=0)


@pytest.mark.parametrize("suffix, frames", [(".log", ALL), (".asc", ALL), (".blf", ALL),
                                            (".trc", [STANDARD, EMPTY, FULL, EXTENDED])])
def test_frames_of_a_format(tmp_path, suffix, frames):
    log = Log(written(tmp_path / f"drive{suffix}", frames))
    read = list(log.frames())
    assert [of_any_flags(frame) for frame in read] == [of_any_flags(frame) for frame in frames]
    assert [frame.time - read[0].time for frame in read] == pytest.approx([frame.time for frame in frames], abs=1e-5)
    assert list(log.frames()) == read and log.left_out == 0


def test_suffixes_in_capitals(tmp_path):
    path = written(tmp_path / "drive.blf", ALL).rename(tmp_path / "DRIVE.BLF")
    assert len(list(Log(path).frames())) == len(ALL)


def test_lines_of_a_trc_file_that_are_no_data_frames_are_counted(tmp_path):
    path = written(tmp_path / "drive.trc", [STANDARD, FULL])
    with path.open("a", newline="") as file:
        file.write("      3       700.000 RR  1     0085 Rx -  4    \r\n      4       800.000 ST  1\r\n")
    log = Log(path)
    assert [frame.data for frame in log.frames()] == [STANDARD.data, FULL.data] and log.left_out == 2
    assert len(list(log.frames())) == log.left_out == 2


def test_a_trc_file_of_the_first_version(tmp_path):
    """Which says no version."""
    path = tmp_path / "drive.trc"
    path.write_text(";   Start time: 1.1.2024\n;---+--\n     1)      17      0085 4 58 02 90 01\n"
                    "     2)     517  00012345 1 2A\n")
    log = Log(path)
    assert list(log.frames()) == [STANDARD._replace(time=0.017), EXTENDED._replace(time=0.517)] and log.left_out == 0


LINES = {
    "044#2A366C2BBA": Frame(1.5, 0x44, bytes.fromhex("2A366C2BBA")),
    "123#": Frame(1.5, 0x123),
    "123#1122 R": Frame(1.5, 0x123, b"\x11\x22"),
    "123#R": Frame(1.5, 0x123, is_remote=True),
    "123#R4": Frame(1.5, 0x123, is_remote=True, length=4),
    "00012345#01": Frame(1.5, 0x12345, b"\x01", is_extended=True),
    "20000004#0001020304050607": Frame(1.5, 4, bytes(range(8)), is_error=True),
    "123##F000102030405060708090A0B": Frame(1.5, 0x123, bytes(range(12)), is_fd=True, flags=15),
    "123##0": Frame(1.5, 0x123, is_fd=True),
    "123#0102030405060708_B": Frame(1.5, 0x123, bytes(range(1, 9))),
}


@pytest.mark.parametrize("text, frame", LINES.items(), ids=LINES)
def test_lines_of_candump(text, frame):
    assert canlog.parse_line(f"(1.500000) can0 {text}\n") == frame


@pytest.mark.parametrize("text", [text for text in LINES if "_" not in text])
def test_the_virtual_bus_reads_them_alike(text):
    """Its parser was written independently, and reads what candump says in tests."""
    line = f"(1.500000) can0 {text}"
    stamp, other = canframe.parse_log_line(line)
    frame = canlog.parse_line(line)
    assert (stamp, *other) == (frame.time, frame.id, frame.data, frame.is_extended, frame.is_remote, frame.is_error,
                               frame.is_fd)


@pytest.mark.parametrize("line", ["nonsense", "(1.5) can0 12#00", "(1.5) can0 123#0", "(1.5) can0 123#" + "00" * 9,
                                  "(1.5) can0 123##1" + "00" * 65, "(x) can0 123#00", "(1.5) can0 123#00 and more"])
def test_other_lines_are_refused_with_their_numbers(tmp_path, line):
    path = tmp_path / "drive.log"
    path.write_text(f"(1.5) can0 123#00\n\n{line}\n")
    frames = Log(path).frames()
    assert next(frames) == Frame(1.5, 0x123, b"\0")
    with pytest.raises(VorbelError) as caught:
        next(frames)
    assert str(caught.value) == f"{path}: line 3: not a line of a candump log: {line!r}"


def test_a_line_that_was_never_finished_is_left_out(tmp_path):
    """It may have had more bytes."""
    path = tmp_path / "drive.log"
    path.write_text("(1.5) can0 123#00\n(1.6) can0 123#00")
    log = Log(path)
    assert len(list(log.frames())) == 1 and log.left_out == 1


def test_a_log_is_read_as_it_goes(tmp_path):
    path = tmp_path / "drive.log"
    path.write_text("(1.5) can0 123#00\n" + "nonsense\n" * 100000)
    assert next(Log(path).frames()).id == 0x123


@pytest.mark.parametrize("suffix, content", [(".blf", b"nonsense"), (".blf", b""), (".trc", b"; only this\n"),
                                             (".trc", b"1) 17 0085 2 zz 01\n"),
                                             (".asc", b"base hex\nno internal events logged\n0.5 1 zz Rx d 2 01 02\n")])
def test_broken_files(tmp_path, suffix, content):
    path = tmp_path / f"drive{suffix}"
    path.write_bytes(content)
    with pytest.raises(VorbelError, match=f"drive{suffix} cannot be read as {suffix[1:].upper()}: "):
        list(Log(path).frames())


def test_a_blf_file_that_was_cut_off(tmp_path):
    path = written(tmp_path / "drive.blf", [FULL._replace(time=number / 100) for number in range(20000)])
    path.write_bytes(path.read_bytes()[:-2000])
    frames = Log(path).frames()
    assert next(frames).data == FULL.data
    with pytest.raises(VorbelError, match="cannot be read as BLF: "):
        list(frames)


def test_a_file_that_is_not_there(tmp_path):
    for name in ("drive.log", "drive.asc", "drive.blf"):
        with pytest.raises(FileNotFoundError):
            list(Log(tmp_path / name).frames())


def test_nodes():
    frames = [STANDARD, FULL, EXTENDED, REMOTE, FD, Frame(0, 5, is_error=True), Frame(0, 6)]
    assert [frame.node for frame in frames] == [5, 5, None, 5, 5, None, 6]
    assert list(filter(only([6, 9]), frames)) == [frames[-1]]
    assert list(filter(only([]), frames)) == frames
