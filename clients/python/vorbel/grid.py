"""The live grid of a bus's bytes on a terminal."""

import asyncio
import collections
import time
from collections.abc import Coroutine
from typing import Any

from rich.console import Console, Group
from rich.live import Live
from rich.table import Table as Grid
from rich.text import Text

from . import paths
from .discover import LOOKED_AT, NOTHING, lengths_text, range_text
from .keyboard import keyboard
from .session import Session
from .tap import BYTES, NODES
from .terminal import counted, first_of
from .traffic import Endpoint, Traffic

LATELY = 1.0  # seconds for which a byte that changed is marked
NOTES = 3
FRAME_LINES = 3  # around endpoints and notes: the header, the names of the columns, what is not shown
ENDING_KEYS = ("q", "\x04")


class Screen:
    """What stands on the terminal: what this is, the endpoints, the last notes."""

    def __init__(self, session: Session, traffic: Traffic) -> None:
        self._session = session
        self._traffic = traffic
        self._notes: collections.deque[str] = collections.deque(maxlen=NOTES)

    def note(self, text: str) -> None:
        self._notes.extend(f"{time.strftime('%H:%M:%S')}  {paths.shown(line)}" for line in text.splitlines())

    def draw(self, height: int, now: float) -> Group:
        endpoints = self._traffic.endpoints
        room = max(1, (height - FRAME_LINES - len(self._notes)) // 2)
        hidden = len(endpoints) - room
        remarks = [NOTHING] if not endpoints else [f"… {hidden} more: --node N shows only some"] if hidden > 0 else []
        return Group(self._header(len(endpoints)), _grid(endpoints[:room], now),
                     *(_line(remark, "dim") for remark in remarks), *(_line(note, "yellow") for note in self._notes))

    def _header(self, endpoints: int) -> Text:
        return Text.assemble((f" {self._session.client.hello} ", "bold green" if self._session.client.hello else "red"),
                             f" {counted(self._traffic.frames, 'frame')} of {counted(endpoints, 'endpoint')}  ",
                             ("* changed lately   q: end", "dim"), overflow="ellipsis", no_wrap=True)


def _grid(endpoints: list[Endpoint], now: float) -> Grid:
    """Two lines for each: its bytes, and below each the range it had."""
    grid = Grid(box=None, header_style="bold", pad_edge=False, padding=(0, 1, 0, 0))
    for name, width in (("node", 4), ("cmd", 3), ("id", 3), ("rate/s", 7), ("len", 3)):
        grid.add_column(name, justify="right", no_wrap=True, width=width)
    for at in range(BYTES):
        grid.add_column(f"{at}", no_wrap=True, width=5)
    for each in endpoints:
        grid.add_row(f"{each.identifier % NODES}", f"{each.identifier // NODES}", f"{each.identifier:03X}",
                     f"{each.rate():.1f}", lengths_text(each), *(_byte(each, at, now) for at in range(BYTES)))
        grid.add_row(*[""] * 5, *(Text(range_text(each, at) if at < max(each.lengths, default=0) else "", "dim")
                                  for at in range(BYTES)))
    return grid


def _byte(endpoint: Endpoint, at: int, now: float) -> Text:
    if at >= len(endpoint.payload):
        return Text("")
    changed = endpoint.changed[at]
    is_marked = changed is not None and now - changed < LATELY
    return Text(f"{endpoint.payload[at]:02X}{'*' if is_marked else ''}", "bold yellow" if is_marked else "")


def _line(text: str, style: str) -> Text:
    return Text(text, style=style, overflow="ellipsis", no_wrap=True)


async def watch_grid(session: Session, traffic: Traffic, following: Coroutine[Any, Any, None]) -> None:
    """Until what follows the traffic ends, or a key says so. Needs a terminal on both sides."""
    console = Console()
    screen = Screen(session, traffic)
    session.note = screen.note
    ended = asyncio.Event()

    def typed(characters: str) -> None:
        if any(key in characters for key in ENDING_KEYS):
            ended.set()

    with keyboard(typed), Live(console=console, screen=True, auto_refresh=False) as live:
        await first_of(following, ended.wait(), _refresh(live, screen, traffic))


async def _refresh(live: Live, screen: Screen, traffic: Traffic) -> None:
    while True:
        now = time.time()
        traffic.digest(now)
        live.update(screen.draw(live.console.size.height, now), refresh=True)
        await asyncio.sleep(LOOKED_AT)
