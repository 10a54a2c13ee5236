"""Values as lines: for programs with tabs between time, path and value; on a terminal as far as they fit."""

import asyncio
import datetime
import itertools
import json
import shutil
import sys
import unicodedata
from typing import Optional

from . import paths
from .client import Hello, Values
from .digits import plain
from .meaning import Meant
from .session import Session
from .table import shown
from .terminal import say

NARROW = 60  # columns that the table needs to show a path and a value
PATIENCE = 3.0  # seconds until it is said that no values come
LEAST_VALUE = 8  # columns that are left to a value before the time is given up


async def watch_lines(session: Session) -> None:
    """Until the client is closed."""
    reminder = asyncio.get_running_loop().call_later(PATIENCE, _remind, session)
    greeted: Optional[Hello] = None
    for line in session.title.splitlines():
        say(line)
    try:
        async for event in session.client.events():
            session.take(event)
            if isinstance(event, Hello) and event != greeted:
                greeted = event
                say(f"hello: {event}")
            if isinstance(event, Values):
                _print(session, event)
    finally:
        reminder.cancel()


def _remind(session: Session) -> None:
    if session.table.messages == 0:
        say(session.silence())


def _print(session: Session, event: Values) -> None:
    when = datetime.datetime.fromtimestamp(event.time)
    columns = shutil.get_terminal_size().columns if sys.stdout.isatty() else None
    for path, meant in session.client.meanings.flat(event.data).items():
        if session.filter not in path:
            continue
        if columns is None:
            print(when.isoformat(timespec="milliseconds"), paths.shown(path), *_cells(meant), sep="\t")
        else:
            print(fitted(f"{when:%H:%M:%S}", paths.shown(path), shown(meant), columns))
    sys.stdout.flush()


def _cells(meant: Meant) -> list[str]:
    """The label or the value as JSON, and the unit if there is one."""
    value = plain(meant.value, meant.leaf) if meant.label is None else meant.label
    unit = [paths.shown(meant.unit)] if meant.unit and meant.label is None else []
    return [json.dumps(value, ensure_ascii=False), *unit]


def fitted(when: str, path: str, value: str, columns: int) -> str:
    """A line for a terminal. What does not fit is cut: the value first, then the time goes, the path last."""
    room = columns - _width(f"{when}  {path}  ")
    if room >= min(LEAST_VALUE, _width(value)):
        return f"{when}  {path}  {_cut(value, room)}"
    room = columns - _width(f"{path}  ")
    return f"{path}  {_cut(value, room)}" if room > 0 else _cut(path, columns)


def _cut(text: str, columns: int) -> str:
    if _width(text) <= columns:
        return text
    ends = itertools.accumulate(map(_width, text))
    return text[:sum(end < columns for end in ends)] + "…"


def _width(text: str) -> int:
    """In columns."""
    return sum(2 if unicodedata.east_asian_width(each) in "WF" else 1 for each in text)
