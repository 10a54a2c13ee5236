"""The live table on a terminal, with a line for typed commands below it."""

import asyncio
import collections
import time
from typing import Optional

from rich.cells import cell_len
from rich.console import Console, Group
from rich.live import Live
from rich.table import Table as Grid
from rich.text import Text

from . import paths
from .keyboard import keyboard
from .prompt import Prompt
from .session import Session
from .table import Row, shown
from .terminal import counted, first_of

MARKS = {"alarm": ("!! ", "bold red"), "warn": ("! ", "yellow"), "": ("", "")}  # of values beyond their limits
REFRESH = 0.2  # seconds
NOTES = 4
OTHER_COLUMNS = 11 + 7 + 4 * 2  # those of change and age, and the space around all four
LEAST_VALUE = 12  # columns
BESIDE_POINTS = 18  # columns for an array's length and its last element
FRAME_LINES = 5  # around rows and notes: hello, column names and their rule, what is not shown, the prompt


class Screen:
    """What stands on the terminal: a title, the hello, the table, the last notes, the prompt."""

    def __init__(self, session: Session) -> None:
        self.session = session
        self.notes: collections.deque[str] = collections.deque(maxlen=NOTES)
        self.prompt = Prompt(session.complete)

    def note(self, text: str) -> None:
        self.notes.extend(f"{time.strftime('%H:%M:%S')}  {paths.shown(line)}" for line in text.splitlines())

    def draw(self, width: int, height: int) -> Group:
        rows = self.session.shown_rows()
        titles = self._titles(width)
        room = max(1, height - FRAME_LINES - len(titles) - len(self.notes))
        remark = self._remark(len(rows) - room)
        return Group(*(_line(title, "bold") for title in titles), self._header(), self._grid(rows[:room], width),
                     *([_line(f"  {remark}", "dim")] if remark else []),
                     *(_line(note, "yellow") for note in self.notes), self._prompt_line(width))

    def _titles(self, width: int) -> list[str]:
        """The lines of the title, continued below where they are too long, so that an address stays whole."""
        return [line[at:at + width] for line in self.session.title.splitlines() for at in range(0, len(line), width)]

    def _remark(self, hidden: int) -> str:
        """On what is not in the table."""
        if not self.session.table.rows:
            return "no values yet: do frames come, and is there a schema for them? The command: schema FILE"
        return f"… {hidden} more; narrow them down with: filter TEXT" if hidden > 0 else ""

    def _prompt_line(self, width: int) -> Text:
        """Of a line that is too long for the terminal, the part that ends where the cursor is."""
        text, cursor = self.prompt.text, self.prompt.cursor
        start = max(0, cursor - max(1, width - 4))
        under = (text[cursor], "reverse") if cursor < len(text) else ("█", "dim")
        return Text.assemble(("> ", "bold cyan"), text[start:cursor], under, text[cursor + 1:],
                             overflow="crop", no_wrap=True)

    def _header(self) -> Text:
        session = self.session
        state = (f" {session.client.hello} ", "bold green" if session.up else "bold red")
        filtered = f"  filter: {session.filter}" if session.filter else ""
        return Text.assemble(state, f" {session.state}  {counted(session.table.messages, 'message')}{filtered}  ",
                             ("help: commands", "dim"), overflow="ellipsis", no_wrap=True)

    def _grid(self, rows: list[tuple[str, Optional[Row]]], width: int) -> Grid:
        """What does not fit is cut: the values before the paths."""
        longest = max((cell_len(paths.shown(path)) for path, _ in rows), default=0)
        path_width = max(len("path"), min(longest, width - OTHER_COLUMNS - LEAST_VALUE))
        value_width = width - OTHER_COLUMNS - path_width
        grid = Grid(box=None, header_style="bold", pad_edge=False, expand=True)
        grid.add_column("path", no_wrap=True, overflow="ellipsis", width=path_width)
        grid.add_column("value", no_wrap=True, overflow="ellipsis", ratio=1)
        grid.add_column("change", justify="right", no_wrap=True, overflow="ellipsis", width=11)
        grid.add_column("age", justify="right", no_wrap=True, overflow="ellipsis", width=7)
        for path, row in rows:
            self._add_row(grid, path, row, value_width)
        return grid

    def _add_row(self, grid: Grid, path: str, row: Optional[Row], value_width: int) -> None:
        if row is None:
            grid.add_row(Text(paths.shown(path)), Text(self.session.text_without_row(path)), style="dim")
            return
        now = time.time()
        points = max(5, value_width - BESIDE_POINTS)
        mark, style = MARKS[row.meant.level]
        cells = (paths.shown(path), mark + shown(row.meant, points), row.change(now), row.age(now))
        grid.add_row(*map(Text, cells), style="dim" if now - row.time > 10 else style)


async def watch_live(session: Session) -> int:
    """Runs until `quit`, Ctrl-D or Ctrl-C. Needs a terminal on both sides."""
    console = Console()
    screen = Screen(session)
    session.note = screen.note
    lines: asyncio.Queue[str] = asyncio.Queue()

    def typed(characters: str) -> None:
        for line in screen.prompt.feed(characters):
            lines.put_nowait(line)

    with keyboard(typed), Live(console=console, screen=True, auto_refresh=False) as live:
        await first_of(session.follow(), _carry_out(session, lines, screen), _refresh(live, screen, console))
    return 0


async def _carry_out(session: Session, lines: asyncio.Queue[str], screen: Screen) -> None:
    """Ends with the command to quit."""
    while True:
        answer = await session.carry_out(await lines.get())
        if answer is None:
            return
        if answer:
            screen.note(answer)


async def _refresh(live: Live, screen: Screen, console: Console) -> None:
    while True:
        live.update(screen.draw(*console.size), refresh=True)
        await asyncio.sleep(REFRESH)


def _line(text: str, style: str) -> Text:
    return Text(text, style=style, overflow="ellipsis", no_wrap=True)
