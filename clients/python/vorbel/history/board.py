"""What is known of one board, and what its messages become."""

import hashlib
import json
import time
from collections.abc import Collection, Mapping
from dataclasses import dataclass, field
from typing import NamedTuple, Optional

from ..schema import Leaf
from . import batches
from .batches import Batch, Refused
from .lines import head
from .runs import Runs
from .tree import Explained, Intervals, Lines, Tree

BOOTS_LIMIT = 8  # of a board that are remembered
HOLES_LIMIT = 64
SCHEMAS_LIMIT = 16 * 1024 * 1024  # bytes of all schemas together; of those that are alike, only one counts
GRACE = 60.0  # seconds for what is missing to come after all; nats-server sends again after 30
NO_SCHEMA = ""  # the key of the schema that nobody knows


@dataclass
class Boot:
    """One run of a board's gateway."""

    schema: str  # the key of the one that its values have
    runs: Runs = field(default_factory=Runs)
    intervals: Intervals = field(default_factory=Intervals)
    before: str = NO_SCHEMA  # the schema that it had, and up to which batch there may be readings of that
    boundary: int = -1


@dataclass
class Hole:
    """Batches that have not come, though a later one has."""

    boot: int
    first: int
    last: int
    time: int  # of the later one
    since: float  # when that came


class Written(NamedTuple):
    """What became of a batch."""

    lines: Lines
    values: int = 0
    overwritten: int = 0
    is_repeated: bool = False


class Gap(NamedTuple):
    """Batches that are missing for good, as it seems."""

    missing: int
    boot: int
    following: int  # the number of the batch behind them
    line: tuple[str, int]


class Schemas:
    """The schemas of all boards by their keys, which tell one from another."""

    def __init__(self, texts: Mapping[str, bytes]) -> None:
        self.texts = dict(texts)
        self._explained = {NO_SCHEMA: Explained(None)}

    def add(self, text: bytes) -> str:
        """The key of a schema; raises Refused for what is none."""
        if len(text) > batches.BATCH_LIMIT:
            raise Refused("larger than 4 MiB")
        schema = batches.parse_json(text)
        if schema is None:
            return NO_SCHEMA
        if not isinstance(schema, dict):
            raise Refused("no object of JSON")
        key = hashlib.sha256(text).hexdigest()
        if key in self.texts:
            return key
        if sum(map(len, self.texts.values())) + len(text) > SCHEMAS_LIMIT:
            raise Refused("more than 16 MiB of schemas")
        try:
            self._explained[key] = Explained(schema)
        except (TypeError, ValueError, ArithmeticError) as error:
            raise Refused(str(error)) from None
        self.texts[key] = text
        return key

    def of(self, key: str) -> Explained:
        if key not in self._explained:
            self._explained[key] = Explained(json.loads(self.texts[key]))
        return self._explained[key]

    def keep(self, used: Collection[str]) -> None:
        """Forgets the others."""
        self.texts = {key: text for key, text in self.texts.items() if key in used}
        self._explained = {key: each for key, each in self._explained.items() if key in used or key == NO_SCHEMA}


class Board:
    """A board's schemas, which of its batches have been taken, and when its arrays came."""

    def __init__(self, name: str, schemas: Schemas, saved: str = "{}") -> None:
        self.name = name
        self._schemas = schemas
        state = json.loads(saved)
        self._newest: str = state.get("newest", NO_SCHEMA)
        self._running: Optional[int] = state.get("running")
        self._boots = {int(boot): Boot(each["schema"], Runs(each["runs"]), Intervals(each["arrays"]), each["before"],
                                       each["boundary"])
                       for boot, each in state.get("boots", {}).items()}
        self._holes = [Hole(boot, first, last, when, time.monotonic())
                       for boot, first, last, when in state.get("holes", ())]
        self._trees: dict[str, Tree] = {}

    def saved(self) -> str:
        boots = {boot: {"schema": each.schema, "runs": each.runs.runs, "arrays": each.intervals.last,
                        "before": each.before, "boundary": each.boundary} for boot, each in self._boots.items()}
        holes = [(hole.boot, hole.first, hole.last, hole.time) for hole in self._holes]
        return json.dumps({"newest": self._newest, "running": self._running, "boots": boots, "holes": holes})

    def used_schemas(self) -> set[str]:
        boots = self._boots.values()
        return {self._newest, *(boot.schema for boot in boots), *(boot.before for boot in boots)}

    # What it says

    def hear_status(self, payload: bytes) -> None:
        """A gateway that is there says which boot this is; one that is not says none. Raises Refused."""
        status = batches.parse_json(payload) if payload else {}
        boot = status.get("boot") if isinstance(status, dict) and status.get("online") is True else None
        self._running = boot if type(boot) is int else None
        self._change_schema()

    def hear_schema(self, payload: bytes) -> None:
        """It counts from here on for the boot that runs: what an earlier one had spooled has the schema that was.
        Raises Refused."""
        self._newest = self._schemas.add(payload or b"null")
        self._change_schema()

    def _change_schema(self) -> None:
        boot = None if self._running is None else self._boots.get(self._running)
        if boot is not None and boot.schema != self._newest:
            boot.before, boot.boundary = boot.schema, boot.runs.last + 1
            boot.schema = self._newest
            boot.intervals.forget()

    def take(self, payload: bytes) -> Written:
        """The lines of a batch. Raises Refused for one of which nothing can be taken."""
        batch = batches.parse(payload)
        boot = self._boot(batch.boot)
        lines = Lines()
        if batch.number in boot.runs:
            return Written(lines, is_repeated=True)
        if batch.number != boot.runs.last + 1:
            boot.intervals.forget()
        tree = self._tree(boot, batch.number)
        try:
            for when, values in batch.messages:
                tree.write(lines, when, values, boot.intervals)
        except RecursionError:
            raise Refused("nested too deep") from None
        values, overwritten = len(lines), _keep_latest(lines, batch)
        begin = batch.messages[0][0] if batch.messages else 0
        self._note_missing(boot, batch, begin)
        if batch.messages:
            lines.append((f"{head(self.name)}batch={batch.number}", begin))
        return Written(lines, values, overwritten)

    def _note_missing(self, boot: Boot, batch: Batch, begin: int) -> None:
        """Of the first boot that is heard of, nobody knows where it began."""
        is_first = all(known >= batch.boot for known in self._boots)
        missing = boot.runs.take(batch.number, batch.number if is_first else 0)
        if missing:
            self._holes.append(Hole(batch.boot, batch.number - missing, batch.number - 1, begin, time.monotonic()))
            del self._holes[:-HOLES_LIMIT]

    @property
    def has_holes(self) -> bool:
        return bool(self._holes)

    def gaps(self, now: float) -> list[Gap]:
        """What has not come within GRACE, though brokers may send in another order what they send again."""
        overdue = [hole for hole in self._holes if now - hole.since >= GRACE]
        self._holes = [hole for hole in self._holes if now - hole.since < GRACE]
        found = []
        for hole in overdue:
            boot = self._boots.get(hole.boot)
            missing = boot.runs.missing(hole.first, hole.last) if boot else 0
            if missing:
                line = f"{head(self.name)}gap={missing}", hole.time
                found.append(Gap(missing, hole.boot, hole.last + 1, line))
        return found

    # Which schema

    def _boot(self, number: int) -> Boot:
        """What has an earlier boot than any that was seen, and comes now, has a schema that nobody knows."""
        if number not in self._boots:
            is_latest = all(number > known for known in self._boots)
            self._boots[number] = Boot(self._newest if is_latest else NO_SCHEMA)
            for forgotten in sorted(self._boots)[:-BOOTS_LIMIT]:
                del self._boots[forgotten]
        return self._boots.get(number) or Boot(NO_SCHEMA)

    def _tree(self, boot: Boot, number: int) -> Tree:
        """Behind a change of the schema, the batch that had begun may have readings of both."""
        if number <= boot.boundary:
            return Tree(self.name, self._schemas.of(boot.schema),
                        _different(self._schemas.of(boot.before).leaves, self._schemas.of(boot.schema).leaves))
        if boot.schema not in self._trees:
            self._trees = {key: tree for key, tree in self._trees.items() if key in self.used_schemas()}
            self._trees[boot.schema] = Tree(self.name, self._schemas.of(boot.schema))
        return self._trees[boot.schema]


def _different(before: Mapping[str, Leaf], after: Mapping[str, Leaf]) -> set[str]:
    """The paths whose readings mean something else."""
    return {path for path, leaf in after.items() if before.get(path) != leaf}


def _keep_latest(lines: Lines, batch: Batch) -> int:
    """Of two values of a path in one millisecond, the later one stays; returns how many did not."""
    times = [when for when, _ in batch.messages]
    if all(earlier < later for earlier, later in zip(times, times[1:])):
        return 0
    kept: dict[tuple[str, int], tuple[str, int]] = {}
    for text, when in lines:
        kept[text[:text.rindex(" ")], when] = text, when
    count = len(lines) - len(kept)
    lines[:] = kept.values()
    return count
