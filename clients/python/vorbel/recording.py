"""Recordings of what a daemon says: JSON Lines or CSV, in files of limited size."""

import array
import contextlib
import csv
import io
import json
import pathlib
from collections.abc import Iterable, Iterator
from typing import Any, Callable, Union

from .client import Disconnected, Event, Undecodable, Values
from .errors import VorbelError
from .paths import nest
from .table import number, plain
from .wire import is_array


def json_lines(event: Event) -> str:
    """One line for any event: its time, and what there is of values, message, hello, disconnected."""
    if isinstance(event, Values):
        entry = {"time": event.time, "values": plain(event.data)}
    elif isinstance(event, Undecodable):
        entry = {"time": event.time, "undecodable": event.message.hex(), "reason": event.reason}
    elif isinstance(event, Disconnected):
        entry = {"time": event.time, "disconnected": event.reason}
    else:
        return ""
    return json.dumps(entry, ensure_ascii=False, separators=(",", ":")) + "\n"


def csv_rows(event: Event) -> str:
    """A row for each value: time, path, place in the array (empty for a single value), value."""
    if not isinstance(event, Values):
        return ""
    text = io.StringIO()
    writer = csv.writer(text, lineterminator="\n")
    for path, value in event.flat().items():
        elements = enumerate(value) if is_array(value) else [("", value)]
        writer.writerows((f"{event.time:.6f}", path, index, _cell(each)) for index, each in elements)
    return text.getvalue()


def _cell(value: Any) -> Any:
    return str(value).lower() if isinstance(value, bool) else plain(number(value))


FORMATS: dict[str, tuple[Callable[[Event], str], str]] = {
    ".jsonl": (json_lines, ""), ".ndjson": (json_lines, ""), ".csv": (csv_rows, "time,path,index,value\n")}


def read_recording(path: Union[str, pathlib.Path]) -> Iterator[Values]:
    """The values of a recording with their times. Raises VorbelError for what is none, and OSError; a last line that
    was never finished is passed over."""
    path = pathlib.Path(path)
    if path.suffix not in FORMATS:
        raise VorbelError(f"{path} says by its suffix how it was recorded: it must be one of {', '.join(FORMATS)}")
    read = _read_rows if path.suffix == ".csv" else _read_json_lines
    with open(path, encoding="utf-8", newline="") as file:
        lines = _Lines(file)
        try:
            yield from read(lines)
        except (ValueError, KeyError, TypeError, AttributeError, RecursionError):
            raise VorbelError(f"{path}: line {lines.number} is none of a recording") from None


class _Lines:
    """The finished lines of a file, and the number of the one that is being read."""

    def __init__(self, file: Iterable[str]) -> None:
        self._file = file
        self.number = 0

    def __iter__(self) -> Iterator[str]:
        for line in self._file:
            self.number += 1
            if line.endswith("\n"):
                yield line


def _read_json_lines(lines: Iterable[str]) -> Iterator[Values]:
    for line in lines:
        entry = json.loads(line)
        if entry.get("values") is not None:
            yield Values(_number_or_value(entry["values"]), float(entry["time"]))


def _number_or_value(value: Any) -> Any:
    """What plain() made of a value, made what it was, as far as it is a number."""
    if isinstance(value, dict):
        return {name: _number_or_value(member) for name, member in value.items()}
    if isinstance(value, list):
        return array.array("d", map(float, value))
    return float(value) if value in ("nan", "inf", "-inf") else value


def _read_rows(lines: Iterable[str]) -> Iterator[Values]:
    """The rows of an array follow one another, from the index 0 on."""
    elements = array.array("d")
    begun = ("", 0.0)  # their path and time
    for row in csv.DictReader(lines, strict=True):
        path, time = row["path"], float(row["time"])
        if elements and row["index"] in ("", "0"):
            yield Values(nest(begun[0], elements), begun[1])
            elements = array.array("d")
        if row["index"]:
            begun = path, time
            elements.append(float(row["value"]))
        else:
            yield Values(nest(path, _from_cell(row["value"])), time)
    if elements:
        yield Values(nest(begun[0], elements), begun[1])


def _from_cell(cell: str) -> Any:
    if cell in ("true", "false"):
        return cell == "true"
    try:
        return float(cell)
    except ValueError:
        return cell


class Recorder:
    """Writes events to `path`. A file that reached `max_size` bytes is put aside as NAME.1.SUFFIX, NAME.2.SUFFIX and
    so on; of those the latest `keep` stay (0: all). Raises OSError with the file's name when one cannot be written;
    what was written of the last line is then taken away again."""

    def __init__(self, path: Union[str, pathlib.Path], max_size: int = 0, keep: int = 0, append: bool = False) -> None:
        self.path = pathlib.Path(path)
        if self.path.suffix not in FORMATS:
            raise VorbelError(f"{path} says by its suffix how to record: it must be one of {', '.join(FORMATS)}")
        if self.path.exists() and not append:
            raise VorbelError(f"{path} exists; go on with it by --append, or name another file")
        self._text_of, self._header = FORMATS[self.path.suffix]
        self._max_size = max_size
        self._keep = keep
        self._is_new = not self.path.exists()
        self._was_disconnected = False
        self.messages = self.written = 0
        self.files = 1
        self._open()

    def record(self, event: Event) -> None:
        """Of attempts to connect that fail one after another, only the first is recorded."""
        is_disconnected = isinstance(event, Disconnected)
        text = "" if is_disconnected and self._was_disconnected else self._text_of(event)
        self._was_disconnected = is_disconnected
        if text:
            self._append(text.encode(errors="backslashreplace"))
            self.messages += not is_disconnected

    def close(self) -> None:
        """A file that was begun here, and into which nothing came, is taken away again."""
        self._file.close()
        if self._is_new and self._size <= len(self._header):
            self.path.unlink(missing_ok=True)

    def _append(self, line: bytes) -> None:
        if self._max_size and self._size > len(self._header) and self._size + len(line) > self._max_size:
            self._put_aside()
        self._write(line)
        self.written += len(line)

    def _open(self) -> None:
        self._file = open(self.path, "ab", buffering=0)
        self._size = self._file.tell()
        if self._size == 0:
            try:
                self._write(self._header.encode())
            except OSError:
                self.close()
                raise

    def _write(self, data: bytes) -> None:
        rest = memoryview(data)
        try:
            while rest:
                rest = rest[self._file.write(rest):]
        except OSError as error:
            with contextlib.suppress(OSError):  # what is no file has no lines either
                self._file.truncate(self._size)
            raise OSError(error.errno, error.strerror, str(self.path)) from None
        self._size += len(data)

    def _put_aside(self) -> None:
        self._file.close()
        aside = self._earlier_files()
        number = aside[-1][0] + 1 if aside else 1
        self.path.rename(self.path.with_name(f"{self.path.stem}.{number}{self.path.suffix}"))
        surplus = len(aside) + 1 - self._keep if self._keep else 0
        for _, old in aside[:max(0, surplus)]:
            old.unlink()
        self.files += 1
        self._is_new = True
        self._open()

    def _earlier_files(self) -> list[tuple[int, pathlib.Path]]:
        """(number, path) of the files that were put aside already, oldest first."""
        found = []
        for path in self.path.parent.iterdir():
            number = path.name[len(self.path.stem) + 1:-len(self.path.suffix)]
            if path.name == f"{self.path.stem}.{number}{self.path.suffix}" and number.isdecimal():
                found.append((int(number), path))
        return sorted(found)
