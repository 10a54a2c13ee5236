"""The command that reads values back from the database."""

import argparse
import asyncio
import csv
import datetime
import http.client
import json
import re
import sys
import time
import urllib.error
import urllib.parse
import urllib.request
from collections.abc import Iterable, Iterator
from typing import Any, NamedTuple

from .. import paths, plotting
from ..errors import VorbelError, suggestion
from ..meaning import Meant
from ..terminal import counted, say

DATABASE = "http://127.0.0.1:8428"
TIMEOUT = 60  # seconds
UNITS = {"s": 1, "m": 60, "h": 3600, "d": 86400, "w": 7 * 86400}
TEXT_LIMIT = 200  # characters of what the database says


class Point(NamedTuple):
    time: int  # milliseconds since 1970
    value: float

    @property
    def text(self) -> str:
        return str(int(self.value)) if self.value == int(self.value) else repr(self.value)


def add_arguments(command: argparse.ArgumentParser) -> None:
    command.add_argument("board", metavar="BOARD")
    command.add_argument("path", metavar="PATH")
    command.add_argument("--from", dest="begin", type=moment, default="-1h", metavar="TIME",
                         help="a date or time as in ISO 8601, one before now such as -90s, -10m, -2h, -7d or -4w, or "
                              "now (default %(default)s)")
    command.add_argument("--to", dest="end", type=moment, default="now", metavar="TIME",
                         help="the same (default %(default)s)")
    how = command.add_mutually_exclusive_group()
    how.add_argument("--csv", action="store_true", help="lines of time, path and value")
    how.add_argument("--plot", metavar="FILE", help="draw them: a .png, .svg or .pdf")
    command.add_argument("--database", default=DATABASE, metavar="URL",
                         help="where VictoriaMetrics is (default %(default)s)")


def moment(text: str) -> float:
    """Seconds since 1970. What names no zone is in that of this machine."""
    if text == "now":
        return time.time()
    if relative := re.fullmatch(r"-(\d+(?:\.\d+)?)([smhdw])", text):
        return time.time() - float(relative[1]) * UNITS[relative[2]]
    try:
        return datetime.datetime.fromisoformat(text).timestamp()
    except (ValueError, OverflowError):
        raise argparse.ArgumentTypeError(f"{text!r} is no time: 2026-11-23, 2026-11-23T05:00:00Z, -2h and now are") \
            from None


async def history(options: argparse.Namespace) -> int:
    """Returns the exit status: 1 if there is nothing."""
    if options.plot:
        plotting.prepare(options.plot)
    database = Database(options.database)
    points = await asyncio.to_thread(database.points, options.board, options.path, options.begin, options.end)
    if not points:
        say(await asyncio.to_thread(_nothing, database, options))
        return 1
    _show(options, points)
    return 0


def _show(options: argparse.Namespace, points: list[Point]) -> None:
    if options.plot:
        _plot(options, points)
    elif options.csv:
        writer = csv.writer(sys.stdout, lineterminator="\n")
        writer.writerow(("time", "path", "value"))
        writer.writerows((_utc(point.time), options.path, point.text) for point in points)
    else:
        for point in points:
            print(f"{_local(point.time)}  {point.text}")


def _utc(milliseconds: int) -> str:
    return _moment(milliseconds).isoformat(timespec="milliseconds").replace("+00:00", "Z")


def _local(milliseconds: int) -> str:
    return _moment(milliseconds).astimezone().isoformat(" ", "milliseconds")


def _moment(milliseconds: int) -> datetime.datetime:
    return datetime.datetime.fromtimestamp(milliseconds // 1000, datetime.timezone.utc) + datetime.timedelta(
        milliseconds=milliseconds % 1000)


def _plot(options: argparse.Namespace, points: list[Point]) -> None:
    series = plotting.Series()
    for point in points:
        series.add(Meant(point.value), point.time / 1000)
    title = f"{paths.shown(options.board)}, from {_local(points[0].time)}"
    plotting.draw({options.path: series}, options.plot, title, {options.path: ""})
    print(f"{options.plot}: {counted(len(points), 'point')}")


def _nothing(database: "Database", options: argparse.Namespace) -> str:
    """Why there may be none."""
    begin, end = options.begin, options.end
    boards = database.labels("board", "vorbel_value", begin, end)
    when = f"from {_local(int(begin * 1000))} to {_local(int(end * 1000))}"
    if options.board not in boards:
        there_are = f"; there are: {', '.join(map(paths.shown, boards))}" if boards else ""
        return f"there are no values of {paths.shown(options.board)} {when}{there_are}"
    known = database.labels("path", _series("vorbel_value", board=options.board), begin, end)
    return (f"there are no values of {paths.shown(options.path)} on {paths.shown(options.board)} {when}"
            f"{suggestion(options.path, known)}")


def _series(name: str, **labels: str) -> str:
    """As queries name it. Strings in these are written as in JSON."""
    return name + "{" + ",".join(f"{label}={json.dumps(value, ensure_ascii=False)}"
                                 for label, value in labels.items()) + "}"


class Database:
    """What VictoriaMetrics answers. Raises VorbelError."""

    def __init__(self, url: str) -> None:
        self._url = url.rstrip("/")

    def points(self, board: str, path: str, begin: float, end: float) -> list[Point]:
        """All there are, in their order."""
        name = _series("vorbel_value", board=board, path=path)
        found: list[Point] = []
        for line in self._lines("/api/v1/export", **{"match[]": name, "start": f"{begin:.3f}", "end": f"{end:.3f}"}):
            found += map(Point, *self._columns(line))
        return sorted(found)

    def _columns(self, line: bytes) -> tuple[Iterable[int], Iterable[float]]:
        series = self._object(line)
        try:
            return series["timestamps"], series["values"]
        except KeyError:
            raise VorbelError(f"{self._url} does not answer as VictoriaMetrics does") from None

    def labels(self, label: str, match: str, begin: float, end: float) -> list[str]:
        text = b"".join(self._lines(f"/api/v1/label/{label}/values",
                                    **{"match[]": match, "start": f"{begin:.3f}", "end": f"{end:.3f}"}))
        names: list[str] = self._object(text).get("data", [])
        return names

    def _object(self, text: bytes) -> dict[str, Any]:
        try:
            value = json.loads(text)
        except ValueError:
            value = None
        if not isinstance(value, dict):
            raise VorbelError(f"{self._url} does not answer as VictoriaMetrics does")
        return value

    def _lines(self, path: str, **parameters: str) -> Iterator[bytes]:
        try:
            address = f"{self._url}{path}?{urllib.parse.urlencode(parameters)}"
            with urllib.request.urlopen(address, timeout=TIMEOUT) as answer:
                yield from answer
        except urllib.error.HTTPError as error:
            text = error.read(TEXT_LIMIT).decode(errors="replace").strip()
            raise VorbelError(f"The database {self._url} refuses: {error.code} {paths.shown(text)}") from None
        except urllib.error.URLError as error:
            reason = getattr(error.reason, "strerror", None) or error.reason
            raise VorbelError(f"The database {self._url} does not answer: {reason}") from None
        except (OSError, ValueError, http.client.HTTPException) as error:
            raise VorbelError(f"The database {self._url} does not answer: {error}") from None
