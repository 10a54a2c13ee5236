"""Recordings of what a daemon says: JSON Lines or CSV, in files of limited size."""

import array
import contextlib
import csv
import io
import json
import pathlib
import re
from collections.abc import Iterable, Iterator, Mapping
from dataclasses import dataclass
from typing import Any, Callable, Optional, Union

from .client import Disconnected, Event, Hello, Undecodable, Values
from .digits import plain
from .errors import VorbelError
from .meaning import Meanings, Meant
from .paths import nest
from .wire import is_array, number


@dataclass(frozen=True)
class Origin:
    """Where the values of a recording come from, from a line on, and the schema that explains them."""

    address: str = ""
    hello: Optional[Hello] = None
    schema: Optional[Mapping[str, Any]] = None

    @property
    def entry(self) -> dict[str, Any]:
        """As it stands in a line."""
        entry: dict[str, Any] = {"address": self.address}
        if self.hello is not None:
            device = {"type": self.hello.type, "id": self.hello.id}
            entry["hello"] = {name: text for name, text in device.items() if text is not None}
        if self.schema is not None:
            entry["schema"] = self.schema
        return entry

    @classmethod
    def of(cls, entry: Mapping[str, Any]) -> "Origin":
        """Of a line; whatever is no such thing counts as absent."""
        hello, schema = entry.get("hello"), entry.get("schema")
        return cls(str(entry.get("address", "")), _hello_of(hello) if isinstance(hello, dict) else None,
                   schema if isinstance(schema, dict) else None)


def _hello_of(entry: Mapping[str, Any]) -> Hello:
    identifier = entry.get("id")
    return Hello(str(entry.get("type", "")), identifier if isinstance(identifier, str) else None)


def json_lines(event: Event, meanings: Meanings = Meanings(None)) -> str:
    """One line for any event: its time, and what there is of values, message, disconnected. Beside the readings, by
    path, the values and labels of those that mean something else."""
    if isinstance(event, Values):
        entry = {"time": event.time, "values": plain(event.data)}
        meant = {path: _meant(each) for path, each in meanings.flat(event.data).items()
                 if each.leaf and each.leaf.meaning.changes}
        if meant:
            entry["meant"] = meant
    elif isinstance(event, Undecodable):
        entry = {"time": event.time, "undecodable": event.message.hex(), "reason": event.reason}
    elif isinstance(event, Disconnected):
        entry = {"time": event.time, "disconnected": event.reason}
    else:
        return ""
    return _line(entry)


def _line(entry: Mapping[str, Any]) -> str:
    return json.dumps(entry, ensure_ascii=False, separators=(",", ":")) + "\n"


def _meant(meant: Meant) -> Any:
    return plain(meant.value) if meant.label is None else meant.label


def csv_rows(event: Event, meanings: Meanings = Meanings(None)) -> str:
    """A row for each value that counts: time, path, place in the array (empty for a single value), value, unit and
    label."""
    if not isinstance(event, Values):
        return ""
    text = io.StringIO()
    writer = csv.writer(text, lineterminator="\n")
    for path, meant in meanings.flat(event.data).items():
        elements = enumerate(meant.value) if is_array(meant.reading) else [("", meant.value)]
        writer.writerows((f"{event.time:.6f}", path, index, _cell(each), meant.unit, meant.label or "")
                         for index, each in elements)
    return text.getvalue()


def _cell(value: Any) -> Any:
    return str(value).lower() if isinstance(value, bool) else plain(number(value))


FORMATS: dict[str, tuple[Callable[[Event, Meanings], str], str]] = {
    ".jsonl": (json_lines, ""), ".ndjson": (json_lines, ""), ".csv": (csv_rows, "time,path,index,value,unit,label\n")}


def read_recording(path: Union[str, pathlib.Path]) -> Iterator[Values]:
    """The values of a recording with their times. Raises as read_entries() does."""
    return (entry for entry in read_entries(path) if isinstance(entry, Values))


def origin_of(path: Union[str, pathlib.Path]) -> Origin:
    """Where the first values of a recording come from, as far as it says so."""
    first = next(read_entries(path), None)
    return first if isinstance(first, Origin) else Origin()


def read_entries(path: Union[str, pathlib.Path]) -> Iterator[Union[Values, Origin]]:
    """The values of a recording, and where those that follow come from. Raises VorbelError for what is none, and
    OSError; a last line that was never finished is passed over."""
    path = pathlib.Path(path)
    if path.suffix not in FORMATS:
        raise VorbelError(f"{path} says by its suffix how it was recorded: it must be one of {', '.join(FORMATS)}")
    read: Callable[[Iterable[str]], Iterator[Union[Values, Origin]]] = (
        _read_rows if path.suffix == ".csv" else _read_json_lines)
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


def _read_json_lines(lines: Iterable[str]) -> Iterator[Union[Values, Origin]]:
    for line in lines:
        entry = json.loads(line)
        if isinstance(entry.get("recording"), dict):
            yield Origin.of(entry["recording"])
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
    if re.fullmatch(r"-?\d+", cell):
        return int(cell)
    try:
        return float(cell)
    except ValueError:
        return cell


class Recorder:
    """Writes events to `path`; in JSON Lines behind a line with their `origin`, which may change at any time. A file
    that reached `max_size` bytes is put aside as NAME.1.SUFFIX, NAME.2.SUFFIX and so on; of those the latest `keep`
    stay (0: all). Raises OSError with the file's name when one cannot be written; what was written of the last line is
    then taken away again."""

    def __init__(self, path: Union[str, pathlib.Path], max_size: int = 0, keep: int = 0, append: bool = False,
                 meanings: Meanings = Meanings(None)) -> None:
        self.path = pathlib.Path(path)
        self._meanings = meanings
        if self.path.suffix not in FORMATS:
            raise VorbelError(f"{path} says by its suffix how to record: it must be one of {', '.join(FORMATS)}")
        if self.path.exists() and not append:
            raise VorbelError(f"{path} exists; go on with it by --append, or name another file")
        self._text_of, self._header = FORMATS[self.path.suffix]
        self._refuse_other_columns()
        self._max_size = max_size
        self._keep = keep
        self._is_new = not self.path.exists()
        self._was_disconnected = False
        self.origin: Optional[Origin] = None
        self._told: Optional[Origin] = None  # what the file says of it
        self.messages = self.written = 0
        self.files = 1
        self._open()

    def record(self, event: Event) -> None:
        """Of attempts to connect that fail one after another, only the first is recorded."""
        is_disconnected = isinstance(event, Disconnected)
        text = "" if is_disconnected and self._was_disconnected else self._text_of(event, self._meanings)
        self._was_disconnected = is_disconnected
        if text:
            self._append(text.encode(errors="backslashreplace"), event)
            self.messages += not is_disconnected

    def _refuse_other_columns(self) -> None:
        """Rows of these columns do not belong behind others."""
        if self._header and self.path.is_file():
            with open(self.path, encoding="utf-8", errors="replace", newline="") as file:
                first = file.readline()
            if first not in ("", self._header):
                raise VorbelError(f"{self.path} has other columns than {self._header.strip()}: name another file")

    def close(self) -> None:
        """A file that was begun here, and into which nothing came, is taken away again."""
        self._file.close()
        if self._is_new and self._size <= len(self._header):
            self.path.unlink(missing_ok=True)

    def _append(self, line: bytes, event: Event) -> None:
        if self._max_size and self._size > len(self._header) and self._size + len(line) > self._max_size:
            self._put_aside()
        lines = self._head(event) + line
        self._write(lines)
        self.written += len(lines)

    def _head(self, event: Event) -> bytes:
        """The line with the origin, if it is not that of what the file has already."""
        if self.origin is None or self.origin == self._told or self._text_of is not json_lines:
            return b""
        self._told = self.origin
        entry = {"time": getattr(event, "time"), "recording": self.origin.entry}
        return _line(entry).encode(errors="backslashreplace")

    def _open(self) -> None:
        self._file = open(self.path, "ab", buffering=0)
        self._size = self._file.tell()
        self._told = None
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
