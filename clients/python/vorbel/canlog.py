"""Logs of CAN frames: those of candump -l, and what python-can reads beyond them."""

import contextlib
import logging
import pathlib
import re
import types
from collections.abc import Iterable, Iterator
from typing import Any, NamedTuple, Optional, Union

from .errors import VorbelError

ERROR = 0x20000000  # in the identifier of a frame that tells of an error on the bus
BIT_RATE_SWITCH, ERROR_STATE = 1, 2  # flags of an FD frame
READERS = {".asc": "ASCReader", ".blf": "BLFReader", ".trc": "TRCReader"}

_LINE = re.compile(
    r"\((?P<time>\d+\.\d+)\) +\S+ +(?P<id>[0-9A-Fa-f]{3}|[0-9A-Fa-f]{8})"
    r"(?:#[Rr](?P<remote>\d?)|##(?P<flags>[0-9A-Fa-f])(?P<fd>(?:[0-9A-Fa-f]{2}){0,64})"
    r"|#(?P<data>(?:[0-9A-Fa-f]{2}){0,8}))(?:_[9A-Fa-f])?(?: +[RT])?")


class Frame(NamedTuple):
    """What was on the bus at a time, in seconds; `length` is what a remote frame asks for."""

    time: float
    id: int
    data: bytes = b""
    is_extended: bool = False
    is_remote: bool = False
    is_error: bool = False
    is_fd: bool = False
    flags: int = 0
    length: int = 0

    @property
    def node(self) -> Optional[int]:
        """None where it is no frame of the VEK protocol, which has standard identifiers."""
        return None if self.is_extended or self.is_error else self.id & 0x3F


class Log:
    """A file of frames, which can be read again and again."""

    def __init__(self, path: Union[str, pathlib.Path]) -> None:
        self.path = pathlib.Path(path)
        self.left_out = 0  # lines of the file, as far as it was read last, that cannot be played
        self._suffix = self.path.suffix.lower()
        self._can = python_can(f"a {self._suffix} file") if self._suffix in READERS else None

    def frames(self) -> Iterator[Frame]:
        """As they are read. Raises VorbelError for what is no such log, and OSError."""
        self.left_out = 0
        return self._frames_of_reader(self._can) if self._can else self._frames_of_lines()

    def _frames_of_lines(self) -> Iterator[Frame]:
        with open(self.path, encoding="ascii", errors="backslashreplace") as file:
            for number, line in enumerate(file, 1):
                if not line.endswith("\n"):  # whoever wrote it was stopped, and nobody knows what is missing
                    self.left_out += 1
                elif line.strip():
                    yield self._frame_of(line, number)

    def _frame_of(self, line: str, number: int) -> Frame:
        try:
            return parse_line(line)
        except ValueError as error:
            raise VorbelError(f"{self.path}: line {number}: {error}") from None

    def _frames_of_reader(self, can: Any) -> Iterator[Frame]:
        with self._unread_lines_counted():
            try:
                with getattr(can, READERS[self._suffix])(str(self.path)) as reader:
                    yield from map(_frame_of_message, reader)
            except (GeneratorExit, OSError):
                raise
            except Exception as error:  # of a broken file, the readers raise whatever comes along
                reason = str(error) or type(error).__name__
                raise VorbelError(f"{self.path} cannot be read as {self._suffix[1:].upper()}: {reason}") from None

    @contextlib.contextmanager
    def _unread_lines_counted(self) -> Iterator[None]:
        """python-can passes over the lines of a .trc file that it does not know, and only logs them."""
        logger = logging.getLogger("can.io.trc")
        counter = _Counter(self)
        logger.addHandler(counter)
        logger.setLevel(logging.INFO)
        logger.propagate = False
        try:
            yield
        finally:
            logger.removeHandler(counter)


class _Counter(logging.Handler):
    def __init__(self, log: Log) -> None:
        super().__init__()
        self._log = log

    def emit(self, record: logging.LogRecord) -> None:
        if "No file version" not in record.msg:
            self._log.left_out += 1


def python_can(what: str) -> types.ModuleType:
    """The module, which is needed for that."""
    try:
        import can
    except ImportError:
        raise VorbelError(f"{what} needs python-can: apt install python3-can") from None
    module: types.ModuleType = can
    return module


def parse_line(line: str) -> Frame:
    """A line as candump -l writes it. Raises ValueError for any other."""
    match = _LINE.fullmatch(line.strip())
    if not match:
        raise ValueError(f"not a line of a candump log: {line.strip()!r}")
    number, is_long = int(match["id"], 16), len(match["id"]) == 8
    is_error = is_long and bool(number & ERROR)
    return Frame(float(match["time"]), number & 0x1FFFFFFF, bytes.fromhex(match["fd"] or match["data"] or ""),
                 is_extended=is_long and not is_error, is_remote=match["remote"] is not None, is_error=is_error,
                 is_fd=match["flags"] is not None, flags=int(match["flags"] or "0", 16),
                 length=int(match["remote"] or 0))


def _frame_of_message(message: Any) -> Frame:
    """A frame of python-can's."""
    flags = bool(message.bitrate_switch) * BIT_RATE_SWITCH | bool(message.error_state_indicator) * ERROR_STATE
    return Frame(message.timestamp, message.arbitration_id, bytes(message.data),
                 is_extended=message.is_extended_id and not message.is_error_frame,
                 is_remote=message.is_remote_frame, is_error=message.is_error_frame, is_fd=message.is_fd,
                 flags=flags, length=message.dlc if message.is_remote_frame else 0)


def message_of(can: Any, frame: Frame) -> Any:
    """The same for python-can."""
    return can.Message(arbitration_id=frame.id, data=frame.data, is_extended_id=frame.is_extended,
                       is_remote_frame=frame.is_remote, is_error_frame=frame.is_error, is_fd=frame.is_fd,
                       bitrate_switch=bool(frame.flags & BIT_RATE_SWITCH),
                       error_state_indicator=bool(frame.flags & ERROR_STATE),
                       dlc=frame.length if frame.is_remote else len(frame.data), check=True)


def only(nodes: Iterable[int]) -> Any:
    """Whether a frame is of one of these nodes; any, if there are none."""
    wanted = frozenset(nodes)
    return lambda frame: not wanted or frame.node in wanted
