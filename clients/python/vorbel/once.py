"""A look at a daemon without a terminal: what came within some seconds, and whether it was as expected."""

import time
from typing import NamedTuple, Optional

from . import client as clients, commands, paths, schema as schemas
from .digits import justified
from .errors import VorbelError
from .schema import Leaf
from .table import is_number, number, shown
from .wire import is_array


class Expectation(NamedTuple):
    path: str
    value: object
    tolerance: float = 0

    def __str__(self):
        return f"{paths.shown(self.path)} = {shown(self.value)}" + (f" ± {self.tolerance:g}" if self.tolerance else "")

    def is_met_by(self, value, leaf: Optional[Leaf] = None) -> bool:
        """Of an array, the last element counts; of a number, the digits that are shown."""
        if is_array(value) and len(value):
            value = number(value[-1])
        if is_number(value) and is_number(self.value):
            return abs(justified(value, leaf) - self.value) <= self.tolerance
        return type(value) is type(self.value) and value == self.value  # noqa: E721, as true is not 1


def parse_assignment(text: str) -> tuple:
    """(path, value) of PATH=VALUE."""
    path, sign, value = text.partition("=")
    if not path or not sign:
        raise VorbelError(f"{text!r} is not of the form PATH=VALUE")
    return path, commands.parse_value(value)


def parse_expectation(text: str) -> Expectation:
    """PATH=VALUE or PATH=VALUE~TOLERANCE."""
    rest, _, tolerance = text.partition("~")
    try:
        return Expectation(*parse_assignment(rest), float(tolerance or 0))
    except ValueError:
        raise VorbelError(f"{tolerance!r} in {text!r} is no number") from None


class Look:
    """Follows a session for a while: writes when the first values came, that is when the bus is up, and notes when
    each expectation was first met after that."""

    def __init__(self, session: commands.Session, assignments, expectations):
        self._session = session
        self._assignments = list(assignments)
        self._waiting = set(expectations)
        self._written_at = None
        self.sent = []
        self.met = {}

    async def follow(self, seconds: float):
        async for event in self._session.client.events(seconds):
            self._session.take(event)
            if isinstance(event, clients.Values):
                await self._write_once()
                self._compare(event)

    async def _write_once(self):
        if self._written_at is None:
            for path, value in self._assignments:
                self.sent.append(commands.sent_text(path, value, await self._session.client.set(path, value)))
            await self._session.client.confirmed()
            self._written_at = time.time()

    def _compare(self, event):
        if event.time < self._written_at:
            return
        flat = event.flat()
        for expectation in list(self._waiting):
            path = expectation.path
            if path in flat and expectation.is_met_by(flat[path], self._session.leaf(path)):
                self.met[expectation] = event.time - self._written_at
                self._waiting.discard(expectation)


def report(session, look, expectations, seconds) -> tuple:
    """(lines, whether all is well)"""
    client, table = session.client, session.table
    lines = [f"hello: {client.hello}"]
    if client.schema is not None:
        lines.append(f"schema: sent, {len(schemas.leaves(client.schema))} leaves")
    lines.append(f"values: {table.messages} messages within {seconds:g} s, {len(table.rows)} paths")
    now = time.time()
    width = max((len(paths.shown(path)) for path in table.rows), default=0)
    for path, row in table.rows.items():
        value = shown(row.value, leaf=session.leaf(path))
        lines.append(f"  {paths.shown(path):{width}}  {value}  {row.change(now)}".rstrip())
    lines += look.sent
    for expectation in expectations:
        seen = f"seen after {look.met[expectation]:.1f} s" if expectation in look.met else "NOT SEEN"
        lines.append(f"expected {expectation}: {seen}")
    return lines, table.messages > 0 and len(look.met) == len(expectations)
