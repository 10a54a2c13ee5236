"""The live table on a terminal, with a line for typed commands below it."""

import asyncio
import collections
import contextlib
import os
import sys
import termios
import time
import tty

from rich.console import Console, Group
from rich.live import Live
from rich.table import Table as Grid
from rich.text import Text

from . import commands, table
from .prompt import Prompt

REFRESH = 0.2  # seconds
NOTES = 4
FRAME_LINES = 5  # around rows and notes: hello, column names and their rule, what is not shown, the prompt


class Screen:
    """What stands on the terminal: the hello, the table, the last notes, the prompt."""

    def __init__(self, session):
        self.session = session
        self.notes = collections.deque(maxlen=NOTES)
        self.prompt = Prompt(session.complete)

    def note(self, text: str):
        self.notes.extend(f"{time.strftime('%H:%M:%S')}  {line}" for line in text.splitlines())

    def draw(self, height: int) -> Group:
        rows = self.session.shown_rows()
        room = max(1, height - FRAME_LINES - len(self.notes))
        parts = [self._header(), self._grid(rows[:room])]
        if len(rows) > room:
            parts.append(Text(f"  … {len(rows) - room} more; narrow them down with: filter TEXT", style="dim"))
        parts += [Text(note, style="yellow", overflow="ellipsis", no_wrap=True) for note in self.notes]
        parts.append(Text.assemble(("> ", "bold cyan"), self.prompt.text, ("█", "dim")))
        return Group(*parts)

    def _header(self) -> Text:
        hello, messages = self.session.client.hello, self.session.table.messages
        style = "bold green" if self.session.up else "bold red"
        device = str(hello or "not greeted yet")
        return Text.assemble((f" {device} ", style), f" {self.session.state}  {messages} messages  ",
                             ("help: commands", "dim"), overflow="ellipsis", no_wrap=True)

    def _grid(self, rows) -> Grid:
        now = time.time()
        grid = Grid(box=None, header_style="bold", pad_edge=False, expand=True)
        for name, justify, ratio in (("path", "left", 3), ("value", "left", 4), ("change", "right", 1),
                                     ("age", "right", 1)):
            grid.add_column(name, justify=justify, ratio=ratio, no_wrap=True, overflow="ellipsis")
        for path, row in rows:
            stale = "dim" if now - row.time > 10 else ""
            cells = (path, table.shown(row.value), row.change(now), row.age(now))
            grid.add_row(*map(Text, cells), style=stale)
        return grid


async def watch_live(session: commands.Session) -> int:
    """Runs until `quit`, Ctrl-D or Ctrl-C. Needs a terminal on both sides."""
    console = Console()
    screen = Screen(session)
    session.note = screen.note
    lines = asyncio.Queue()
    with _keyboard(lambda typed: [lines.put_nowait(line) for line in screen.prompt.feed(typed)]):
        with Live(console=console, screen=True, auto_refresh=False) as live:
            tasks = [asyncio.create_task(work) for work in (
                session.follow(), _obey(session, lines, screen), _refresh(live, screen, console))]
            try:
                done, _ = await asyncio.wait(tasks, return_when=asyncio.FIRST_COMPLETED)
                for task in done:
                    task.result()
            finally:
                for task in tasks:
                    task.cancel()
                await asyncio.wait(tasks)
    return 0


async def _obey(session, lines, screen):
    """Ends with the command to quit."""
    while True:
        line = await lines.get()
        answer = await session.obey(line)
        if answer is None:
            return
        if answer:
            screen.note(answer)


async def _refresh(live, screen, console):
    while True:
        live.update(screen.draw(console.size.height), refresh=True)
        await asyncio.sleep(REFRESH)


@contextlib.contextmanager
def _keyboard(typed):
    """Hands over what is typed as it is typed, not line by line, and without the terminal's echo."""
    descriptor = sys.stdin.fileno()
    before = termios.tcgetattr(descriptor)
    loop = asyncio.get_running_loop()
    tty.setcbreak(descriptor)
    loop.add_reader(descriptor, lambda: typed(os.read(descriptor, 4096).decode(errors="ignore")))
    try:
        yield
    finally:
        loop.remove_reader(descriptor)
        termios.tcsetattr(descriptor, termios.TCSADRAIN, before)
