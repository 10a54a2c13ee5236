"""One connection as the terminal tool uses it: the table that follows it, and typed commands."""

import json
import shlex
from collections.abc import Iterable
from typing import Any, Callable, Optional

from . import paths
from .client import Client, Disconnected, Event, Hello, Values
from .errors import VorbelError, suggestion
from .ownership import SchemaChanged
from .limits import Watch
from .meaning import Meant
from .schema import Leaf
from .table import Row, Table, shown
from .writing import Written

HELP = """set PATH VALUE    writes a value to the bus
schema FILE       replaces the schema, for all clients of the daemon
filter [TEXT]     shows only the paths that contain the text
quit              ends; Tab completes commands and paths"""
NAMES = ("set", "schema", "filter", "help", "quit")


def parse_value(text: str) -> Any:
    """A typed value: JSON where it is JSON, otherwise the text itself."""
    try:
        return json.loads(text)
    except (ValueError, RecursionError):
        return text


def sent_text(path: str, value: Any, written: Optional[Written]) -> str:
    return f"{paths.shown(path)} = {shown(Meant(value))} sent" + (f": {written}" if written else "")


class Session:
    """Follows a client's events into a table; `note` is called with texts for the person watching."""

    def __init__(self, client: Client, note: Callable[[str], None] = lambda text: None) -> None:
        self.client = client
        self.note = note
        self.table = Table()
        self.state = ""
        self.up = False
        self.title = ""
        self.filter = ""
        self._trouble = ""
        self._sent: dict[str, Any] = {}  # what was last written from here, by path
        self._limits = Watch()

    async def follow(self) -> None:
        async for event in self.client.events():
            self.take(event)

    def take(self, event: Event) -> None:
        if isinstance(event, Values):
            for text in self._limits.take(self.table.update(event, self.client.meanings), event.time):
                self.note(text)
        elif isinstance(event, Hello):
            self._take_hello()
        elif isinstance(event, Disconnected):
            self._take_disconnected(event)
        elif not (isinstance(event, SchemaChanged) and event.is_restored):
            self.note(str(event))

    def _take_hello(self) -> None:
        if self._trouble:
            self.note("connected again")
        self.up, self.state, self._trouble = True, f"at {self.client.uri}", ""

    def _take_disconnected(self, event: Disconnected) -> None:
        """Each attempt that fails is told in the state, but only once for each reason in a note."""
        self.up, self.state = False, f"no connection to {self.client.uri}, next attempt in {event.retry_in:.1f} s"
        if event.reason != self._trouble:
            self._trouble = event.reason
            self.note(f"no connection: {event.reason}; trying again")

    def silence(self) -> str:
        """What may be the matter when no values come."""
        if self.client.schema is None:
            return "no values came: do frames come, and is a schema in force? --schema FILE sends one"
        return "no values came: do frames come, and does the schema name them?"

    def leaf(self, path: str) -> Optional[Leaf]:
        """What the schema says of a path, if one was sent from here."""
        return self.client.meanings.leaves.get(path)

    def shown_rows(self) -> list[tuple[str, Optional[Row]]]:
        """In the order of the paths; without a row those that are only for writing or were only written."""
        rows: dict[str, Optional[Row]] = {**dict.fromkeys([*self._never_read(), *self._sent]), **self.table.rows}
        return [(path, rows[path]) for path in sorted(rows) if self.filter in path]

    def text_without_row(self, path: str) -> str:
        """What stands for the value of a leaf of which none has come."""
        return f"sent {shown(Meant(self._sent[path]))}" if path in self._sent else "only for writing"

    async def carry_out(self, line: str) -> Optional[str]:
        """Carries out a typed command and returns the answer to it; None for the one that quits."""
        try:
            words = shlex.split(line.replace("\\", "\\\\"))
            if words[0] in ("quit", "exit"):
                return None
            return await self._answer(words)
        except (VorbelError, ValueError) as error:
            return str(error)

    async def _answer(self, words: list[str]) -> str:
        if words[0] == "set" and len(words) >= 3:
            return await self._set(words[1], parse_value(" ".join(words[2:])))
        if words[0] == "schema" and len(words) == 2:
            warnings = await self.client.send_schema(words[1])
            self.table, self._sent, self._limits = Table(), {}, Watch()  # what the old schema named comes no more
            return "\n".join(["schema sent", *map(str, warnings)])
        if words[0] == "filter":
            self.filter = " ".join(words[1:])
            return ""
        if words[0] in NAMES:
            return HELP
        return f'There is no command "{words[0]}"{suggestion(words[0], NAMES)}: help lists them'

    async def _set(self, path: str, value: Any) -> str:
        if not self.up:  # nobody wants it written at some later time
            return "Not written: no connection"
        written = await self.client.set(path, value)
        await self.client.confirmed()
        self._sent[paths.join(paths.split(path))] = value
        return sent_text(path, value, written)

    def complete(self, text: str) -> str:
        """The text with its last word completed as far as there is one way to go on."""
        before, blank, word = text.rpartition(" ")
        candidates: Iterable[str] = self._paths() if blank else NAMES
        command = before.split(maxsplit=2)
        if blank and command[0] == "set" and len(command) > 1:  # labels may have blanks
            before, word = " ".join(command[:2]), " ".join([*command[2:], word])
            leaf = self.leaf(command[1])
            candidates = leaf.meaning.labels.values() if leaf else ()
        fitting = [candidate for candidate in candidates if candidate.startswith(word)]
        if not fitting:
            return text
        completed = _common_beginning(fitting)
        end = " " if len(fitting) == 1 else ""
        return before + blank + completed + end

    def _paths(self) -> set[str]:
        return set(self.table.rows) | set(self.client.meanings.leaves)

    def _never_read(self) -> list[str]:
        """The daemon only packs values of this format, and never reads one."""
        return [path for path, leaf in self.client.meanings.leaves.items() if leaf.format == "p"]


def _common_beginning(texts: Iterable[str]) -> str:
    first, last = min(texts), max(texts)
    length = next((at for at, (one, other) in enumerate(zip(first, last)) if one != other), min(len(first), len(last)))
    return first[:length]
