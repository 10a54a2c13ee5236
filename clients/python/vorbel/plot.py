"""The command that draws values over time, as they come or from recordings."""

from collections.abc import Iterable, Mapping
from typing import Any, Optional

from . import paths, plotting
from .client import Client, Values
from .meaning import Meanings, Meant
from .plotting import Series
from .recording import read_entries
from .session import Session
from .terminal import Progress, connected, counted, say


class Collection:
    """The series of the paths that are wanted, and which paths there were at all."""

    def __init__(self, wanted: Iterable[str], schema: Optional[Mapping[str, Any]]) -> None:
        self._explain(schema)
        self._series = {path: Series() for path in wanted}
        self._there_were: dict[str, None] = {}  # in their order

    def _explain(self, schema: Optional[Mapping[str, Any]]) -> None:
        self._meanings = Meanings(schema)

    def add_recording(self, file: str, has_schema: bool) -> None:
        """What a file says of its schema counts where none was given."""
        for entry in read_entries(file):
            if isinstance(entry, Values):
                self.add(entry, is_meant=file.endswith(".csv"))
            elif not has_schema:
                self._explain(entry.schema)

    def add(self, values: Values, is_meant: bool = False) -> None:
        """Readings, or what they mean already."""
        flat = {path: Meant(value) for path, value in values.flat().items()} if is_meant else (
            self._meanings.flat(values.data))
        for path, meant in flat.items():
            self._there_were[path] = None
            if path in self._series:
                self._series[path].add(meant, values.time)

    def draw(self, output: str, title: str) -> int:
        """Returns the exit status: 1 if something that is wanted did not come."""
        drawn = {path: line for path, line in self._series.items() if line.times}
        empty = [path for path in self._series if path not in drawn]
        if empty:
            there_were = ", ".join(sorted(self._there_were)) or "none at all"
            say(paths.shown(f"no numbers came for {', '.join(empty)}; there were: {there_were}"))
        if drawn:
            units = {path: self._meanings.of(path, None).unit for path in drawn}
            plotting.draw(drawn, output, title, units)
            print(f"{output}: {counted(sum(len(line.times) for line in drawn.values()), 'point')}")
        return 1 if empty else 0


async def plot(client: Client, wanted: Iterable[str], output: str, seconds: float) -> int:
    """What comes within some seconds; returns the exit status."""
    plotting.prepare(output)
    collection = Collection(wanted, client.schema)
    progress = Progress()
    async with connected(client):
        session = Session(client, note=progress.note)
        async for event in client.events(seconds):
            session.take(event)
            progress.show(counted(session.table.messages, "message"))
            if isinstance(event, Values):
                collection.add(event)
    progress.end()
    status = collection.draw(output, str(client.hello))
    if not session.table.rows:
        say(session.silence())
    return status


def plot_recordings(files: Iterable[str], wanted: Iterable[str], output: str,
                    schema: Optional[Mapping[str, Any]]) -> int:
    """What was recorded before; returns the exit status."""
    plotting.prepare(output)
    collection = Collection(wanted, schema)
    for file in files:
        collection.add_recording(file, schema is not None)
    return collection.draw(output, ", ".join(files))
