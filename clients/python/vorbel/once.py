"""A look at a daemon without a terminal: what came within some seconds, and whether it was as expected."""

import time
from collections.abc import Iterable
from typing import Any, NamedTuple, Optional

from . import paths
from .client import Client, Values
from .digits import justified
from .errors import VorbelError, WriteError, suggestion
from .meaning import Meant
from .session import Session, parse_value, sent_text
from .table import is_number, shown
from .terminal import counted
from .writing import prepare, with_selectors


class Expectation(NamedTuple):
    path: str
    value: Any
    tolerance: float = 0

    def __str__(self) -> str:
        tolerance = f" ± {self.tolerance:g}" if self.tolerance else ""
        return f"{paths.shown(self.path)} = {shown(Meant(self.value))}{tolerance}"

    def is_met_by(self, meant: Meant) -> bool:
        """Of an array, the last element counts; of a number, the digits that are shown; or else the label."""
        meant = meant.last
        value = meant.value
        if is_number(value) and is_number(self.value):
            return bool(abs(justified(value, meant.leaf) - self.value) <= self.tolerance)
        if isinstance(self.value, str) and self.value == meant.label:
            return True
        return type(value) is type(self.value) and bool(value == self.value)  # noqa: E721, as true is not 1


def parse_assignment(text: str) -> tuple[str, Any]:
    """(path, value) of PATH=VALUE."""
    path, sign, value = text.partition("=")
    if not path or not sign:
        raise VorbelError(f"{text!r} is not of the form PATH=VALUE")
    return path, parse_value(value)


def parse_expectation(text: str) -> Expectation:
    """PATH=VALUE or PATH=VALUE~TOLERANCE."""
    rest, _, tolerance = text.partition("~")
    try:
        return Expectation(*parse_assignment(rest), float(tolerance or 0))
    except ValueError:
        raise VorbelError(f"{tolerance!r} in {text!r} is no number") from None


def check_paths(client: Client, assignments: Iterable[tuple[str, Any]], expectations: Iterable[Expectation]) -> None:
    """Raises VorbelError for what the client's schema says will never be: before anything is sent or waited for."""
    if client.schema is None:
        return
    known = client.meanings.leaves
    for path, value in assignments:
        prepare(client.schema, with_selectors(known, paths.split(path), value), lambda path: 0)
    for path, *_ in expectations:
        if path not in known:
            raise VorbelError(paths.shown(f"{path or 'the root'}: does not exist in the schema as a value"
                                          f"{suggestion(path, known)} and cannot be expected"))


class Observation:
    """Follows a session for a while: writes when the first values came, that is when the bus is up, and notes when
    each expectation was first met after that."""

    def __init__(self, session: Session, assignments: Iterable[tuple[str, Any]],
                 expectations: Iterable[Expectation]) -> None:
        self._session = session
        self._assignments = list(assignments)
        self._waiting = set(expectations)
        self._written_at: Optional[float] = None
        self.sent: list[str] = []
        self.met: dict[Expectation, float] = {}

    async def follow(self, seconds: float) -> None:
        async for event in self._session.client.events(seconds):
            self._session.take(event)
            if isinstance(event, Values):
                if self._written_at is None:
                    self._written_at = await self._write()
                if self._written_at is not None and event.time >= self._written_at:
                    self._compare(event, self._written_at)

    async def _write(self) -> Optional[float]:
        """Returns when all had been written; None while a field waits for the first reading of its bytes."""
        while self._assignments:
            path, value = self._assignments[0]
            try:
                self.sent.append(sent_text(path, value, await self._session.client.set(path, value)))
            except WriteError as error:
                if error.is_early:
                    return None
                raise
            del self._assignments[0]
        await self._session.client.confirmed()
        return time.time()

    def _compare(self, event: Values, written_at: float) -> None:
        flat = self._session.client.meanings.flat(event.data)
        for expectation in list(self._waiting):
            path = expectation.path
            if path in flat and expectation.is_met_by(flat[path]):
                self.met[expectation] = event.time - written_at
                self._waiting.discard(expectation)


def report(session: Session, observation: Observation, expectations: Iterable[Expectation],
           seconds: float) -> tuple[list[str], bool]:
    """(lines, whether all is well)"""
    client, table = session.client, session.table
    lines = [f"hello: {client.hello}"]
    if client.schema is not None:
        lines.append(f"schema: sent, {counted(len(client.meanings.leaves), 'leaf', 'leaves')}")
    lines.append(f"values: {counted(table.messages, 'message')} within {seconds:g} s, "
                 f"{counted(len(table.rows), 'path')}")
    lines += _row_lines(session)
    lines += observation.sent
    for expectation in expectations:
        met = observation.met.get(expectation)
        seen = "NOT SEEN" if met is None else f"seen after {met:.1f} s"
        lines.append(f"expected {expectation}: {seen}")
    return lines, table.messages > 0 and all(each in observation.met for each in expectations)


def _row_lines(session: Session) -> list[str]:
    """Behind those with values, those that are only for writing."""
    now = time.time()
    rows = session.shown_rows()
    width = max((len(paths.shown(path)) for path, _ in rows), default=0)
    values = [f"  {paths.shown(path):{width}}  {shown(row.meant)}  {row.change(now)}".rstrip()
              for path, row in rows if row is not None]
    return values + [f"  {paths.shown(path):{width}}  {session.text_without_row(path)}"
                     for path, row in rows if row is None]
