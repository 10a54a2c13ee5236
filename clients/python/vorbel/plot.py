"""The command that draws values over time, as they come or from recordings."""

from collections.abc import Iterable, Mapping
from typing import Any, Optional

from . import paths, plotting
from .client import Client, Values
from .plotting import Series
from .recording import read_recording
from .session import Session
from .terminal import Progress, connected, counted, say


class Collection:
    """The series of the paths that are wanted, and which paths there were at all."""

    def __init__(self, wanted: Iterable[str]) -> None:
        self._series = {path: Series() for path in wanted}
        self._there_were: dict[str, None] = {}  # in their order

    def add(self, values: Values) -> None:
        for path, value in values.flat().items():
            self._there_were[path] = None
            if path in self._series:
                self._series[path].add(value, values.time)

    def draw(self, output: str, title: str, schema: Optional[Mapping[str, Any]]) -> int:
        """Returns the exit status: 1 if something that is wanted did not come."""
        drawn = {path: line for path, line in self._series.items() if line.times}
        empty = [path for path in self._series if path not in drawn]
        if empty:
            there_were = ", ".join(sorted(self._there_were)) or "none at all"
            say(paths.shown(f"no numbers came for {', '.join(empty)}; there were: {there_were}"))
        if drawn:
            units = {path: unit_of(schema or {}, path) for path in drawn}
            plotting.draw(drawn, output, title, units)
            print(f"{output}: {counted(sum(len(line.times) for line in drawn.values()), 'point')}")
        return 1 if empty else 0


def unit_of(schema: Mapping[str, Any], path: str) -> str:
    """What a leaf says of its unit by a member of that name, which the daemon ignores."""
    node: Any = schema
    for name in paths.split(path):
        node = node.get(name) if isinstance(node, Mapping) else None
    unit = node.get("unit") if isinstance(node, Mapping) else None
    return unit if isinstance(unit, str) else ""


async def plot(client: Client, wanted: Iterable[str], output: str, seconds: float) -> int:
    """What comes within some seconds; returns the exit status."""
    plotting.prepare(output)
    collection = Collection(wanted)
    progress = Progress()
    async with connected(client):
        session = Session(client, note=progress.note)
        async for event in client.events(seconds):
            session.take(event)
            progress.show(counted(session.table.messages, "message"))
            if isinstance(event, Values):
                collection.add(event)
    progress.end()
    status = collection.draw(output, str(client.hello), client.schema)
    if not session.table.rows:
        say(session.silence())
    return status


def plot_recordings(files: Iterable[str], wanted: Iterable[str], output: str,
                    schema: Optional[Mapping[str, Any]]) -> int:
    """What was recorded before; returns the exit status."""
    plotting.prepare(output)
    collection = Collection(wanted)
    for file in files:
        for values in read_recording(file):
            collection.add(values)
    return collection.draw(output, ", ".join(files), schema)
