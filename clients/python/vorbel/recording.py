"""Recordings of what a daemon says: JSON Lines or CSV, in files of limited size."""

import csv
import io
import json
import pathlib

from . import client as clients
from .errors import VorbelError
from .table import number, plain
from .wire import is_array


def json_lines(event) -> str:
    """One line for any event: its time, and what there is of values, message, hello, disconnected."""
    if isinstance(event, clients.Values):
        entry = {"time": event.time, "values": plain(event.data)}
    elif isinstance(event, clients.Undecodable):
        entry = {"time": event.time, "undecodable": event.message.hex(), "reason": event.reason}
    elif isinstance(event, clients.Disconnected):
        entry = {"time": event.time, "disconnected": event.reason}
    else:
        return ""
    return json.dumps(entry, ensure_ascii=False, separators=(",", ":")) + "\n"


def csv_rows(event) -> str:
    """A row for each value: time, path, place in the array (empty for a single value), value."""
    if not isinstance(event, clients.Values):
        return ""
    text = io.StringIO()
    writer = csv.writer(text, lineterminator="\n")
    for path, value in event.flat().items():
        elements = enumerate(value) if is_array(value) else [("", value)]
        writer.writerows((f"{event.time:.6f}", path, index, _cell(each)) for index, each in elements)
    return text.getvalue()


def _cell(value):
    return str(value).lower() if isinstance(value, bool) else plain(number(value))


FORMATS = {".jsonl": (json_lines, ""), ".ndjson": (json_lines, ""), ".csv": (csv_rows, "time,path,index,value\n")}


class Recorder:
    """Writes events to `path`. A file that reached `max_size` bytes is put aside as NAME.1.SUFFIX, NAME.2.SUFFIX and
    so on; of those the latest `keep` stay (0: all)."""

    def __init__(self, path, max_size=0, keep=0, append=False):
        self.path = pathlib.Path(path)
        if self.path.suffix not in FORMATS:
            raise VorbelError(f"{path} says by its suffix how to record: it must be one of {', '.join(FORMATS)}")
        if self.path.exists() and not append:
            raise VorbelError(f"{path} exists; go on with it by --append, or name another file")
        self._text_of, self._header = FORMATS[self.path.suffix]
        self._max_size = max_size
        self._keep = keep
        self.messages = self.written = 0
        self.files = 1
        self._open()

    def record(self, event):
        text = self._text_of(event)
        if not text:
            return
        size = len(text.encode())
        if self._max_size and self._size > len(self._header) and self._size + size > self._max_size:
            self._put_aside()
        self._file.write(text)
        self._file.flush()
        self._size += size
        self.written += size
        self.messages += 1

    def close(self):
        self._file.close()

    def _open(self):
        self._file = open(self.path, "a", encoding="utf-8", newline="")
        self._size = self._file.tell()
        if self._size == 0:
            self._file.write(self._header)
            self._size = len(self._header)

    def _put_aside(self):
        self._file.close()
        aside = self._earlier_files()
        number = aside[-1][0] + 1 if aside else 1
        self.path.rename(self.path.with_name(f"{self.path.stem}.{number}{self.path.suffix}"))
        surplus = len(aside) + 1 - self._keep if self._keep else 0
        for _, old in aside[:max(0, surplus)]:
            old.unlink()
        self.files += 1
        self._open()

    def _earlier_files(self) -> list:
        """(number, path) of the files that were put aside already, oldest first."""
        found = []
        for path in self.path.parent.iterdir():
            number = path.name[len(self.path.stem) + 1:-len(self.path.suffix)]
            if path.name == f"{self.path.stem}.{number}{self.path.suffix}" and number.isdecimal():
                found.append((int(number), path))
        return sorted(found)

