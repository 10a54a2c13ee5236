"""From the nested readings of messages to lines of values, by a schema."""

import functools
import math
import zlib
from collections.abc import Iterable, Mapping
from typing import Any, Callable, Optional

from .. import paths
from ..meaning import Meanings, value_of
from ..schema import Leaf
from .lines import LARGEST, head, is_name

STRANGERS_LIMIT = 10_000  # paths of a board that its schema does not have
REMEMBERED = 256  # values of a leaf whose text is not made anew
_DIGITS = 10  # of a value that was computed, those that say something

Reading = Any
Text = Optional[str]  # None for what is no finite number


class Node:
    """A place in the messages of a board: a value, or what has values below, or both."""

    __slots__ = ("names", "members", "path", "head", "text", "guard", "is_known")

    def __init__(self, names: tuple[str, ...]) -> None:
        self.names = names
        self.members: dict[str, Node] = {}
        self.path = ""
        self.head = ""  # of its lines; empty before a value has come
        self.text: Optional[Callable[[Reading], Text]] = None  # None: the reading is the value
        self.guard: Optional[Leaf] = None  # a leaf that counts only "when"
        self.is_known = False


class Lines(list[tuple[str, int]]):
    """What a batch becomes: each line up to its time, and the time. Counts what it could not take."""

    def __init__(self) -> None:
        super().__init__()
        self.unfit = 0


class Intervals:
    """When the last array of each path came, and how long that was after the one before it."""

    def __init__(self, last: Optional[Mapping[str, list[int]]] = None) -> None:
        self.last = dict(last or {})

    def before(self, path: str, time: int) -> Optional[int]:
        """When the array before this one came, if the elements of this one were gathered since then: a pause is not
        spread over them."""
        known = self.last.get(path)
        if known is None:
            self.last[path] = [time, 0]
            return None
        begin, interval = known
        self.last[path] = [time, time - begin]
        return begin if 0 < time - begin <= 2 * interval else None

    def forget(self) -> None:
        """Arrays are missing."""
        self.last.clear()


class Explained(Meanings):
    """What the readings of a schema mean, and the names on the way to them."""

    @functools.cached_property
    def ways(self) -> set[tuple[str, ...]]:
        return {leaf.names[:depth] for leaf in self.leaves.values() for depth in range(1, len(leaf.names) + 1)}


class Tree:
    """What the readings of a board mean under one schema. `doubtful` are paths of which the schema does not say it for
    sure: their readings are written as such."""

    def __init__(self, board: str, meanings: Explained, doubtful: Iterable[str] = ()) -> None:
        self._board = board
        self._meanings = meanings
        self._doubtful = frozenset(doubtful)
        self._root = Node(())
        self._strangers = 0

    def write(self, lines: Lines, time: int, values: Mapping[str, Any], intervals: Intervals) -> None:
        """Appends the lines of a message."""
        self._walk(self._root, values, lines, time, _Message(self._meanings, values, intervals))

    def _walk(self, node: Node, values: Mapping[str, Any], lines: Lines, time: int, message: "_Message") -> None:
        members = node.members
        for name, value in values.items():
            member = members.get(name)
            if member is None:
                member = self._member(node, name)
                if member is None:
                    lines.unfit += 1
                    continue
            kind = type(value)
            if kind is dict:
                self._walk(member, value, lines, time, message)
                continue
            if not member.head and not self._begin(member):
                lines.unfit += 1
                continue
            if member.guard is not None and not message.counts(member.guard):
                continue
            if kind is int or kind is float:
                if not -LARGEST <= value <= LARGEST:
                    lines.unfit += 1
                    continue
                text = value if member.text is None else member.text(value)
                if text is None:
                    lines.unfit += 1
                    continue
                lines.append((f"{member.head}{text}", time))
            elif kind is bool:
                text = _digit(value) if member.text is None else member.text(value)
                lines.append((f"{member.head}{text}", time))
            elif kind is list:
                self._write_array(member, value, lines, time, message)
            elif value is not None:
                lines.unfit += 1

    def _member(self, node: Node, name: str) -> Optional[Node]:
        """A new one; None for one stranger too many."""
        names = (*node.names, name)
        if names not in self._meanings.ways:
            if self._strangers == STRANGERS_LIMIT:
                return None
            self._strangers += 1
        node.members[name] = Node(names)
        return node.members[name]

    def _begin(self, node: Node) -> bool:
        """Prepares a node for its first value; whether it can have one."""
        path = paths.join(node.names)
        if not is_name(path):
            return False
        leaf = None if path in self._doubtful else self._meanings.leaves.get(path)
        node.path, node.is_known = path, leaf is not None
        node.head = f"{head(self._board, path)}{'value' if leaf else 'reading'}="
        if leaf is not None:
            node.guard = leaf if leaf.meaning.when else None
            node.text = _text_of(leaf) if leaf.is_arranged or leaf.meaning.is_scaled else None
        return True

    def _write_array(self, node: Node, readings: list[Any], lines: Lines, time: int, message: "_Message") -> None:
        texts = [_element(node, reading) for reading in readings]
        numbers = [text for text in texts if text is not None]
        lines.unfit += sum(text is None and reading is not None for text, reading in zip(texts, readings))
        if not numbers:
            return
        if not node.is_known:
            lines.append((f"{node.head}{numbers[-1]}", time))
            return
        begin = message.intervals.before(node.path, time)
        if begin is not None and time - begin >= len(texts):
            count = len(texts)
            lines.extend((f"{node.head}{text}", begin + (time - begin) * place // count)
                         for place, text in enumerate(texts, 1) if text is not None)
        else:
            lines.append((f"{node.head}{numbers[-1]}{_summary(texts, numbers)}", time))


class _Message:
    """A message that is being written."""

    def __init__(self, meanings: Meanings, values: Mapping[str, Any], intervals: Intervals) -> None:
        self._meanings = meanings
        self._values = values
        self.intervals = intervals

    @functools.cached_property
    def _flat(self) -> dict[str, Any]:
        return paths.flatten(self._values)

    def counts(self, leaf: Leaf) -> bool:
        return self._meanings.counts(leaf, self._flat)


def _digit(flag: bool) -> str:
    return "1" if flag else "0"


def _text_of(leaf: Leaf) -> Callable[[Reading], Text]:
    """The text of what a reading stands for, with the digits that the gateway's `now` has."""
    @functools.lru_cache(REMEMBERED, typed=True)
    def text(reading: Reading) -> Text:
        try:
            value = float(f"{value_of(leaf, reading):.{_DIGITS}g}")
        except OverflowError:
            return None
        return _number(value) if math.isfinite(value) else None

    return text


def _number(value: float) -> str:
    return str(int(value)) if value == int(value) and abs(value) < 1e15 else repr(value)


def _element(node: Node, reading: Reading) -> Text:
    if isinstance(reading, bool):
        return _digit(reading) if node.text is None else node.text(reading)
    if not isinstance(reading, (int, float)) or not -LARGEST <= reading <= LARGEST:
        return None
    return str(reading) if node.text is None else node.text(reading)


def _summary(texts: list[Text], numbers: list[str]) -> str:
    """The fields that stand for an array of which the elements have no times."""
    values = [float(text) for text in numbers]
    mean = math.fsum(values) / len(values)
    checksum = zlib.crc32(f"[{','.join(text or 'null' for text in texts)}]".encode())
    return (f",min={_number(min(values))},max={_number(max(values))},mean={float(f'{mean:.{_DIGITS}g}')!r}"
            f",elements={len(texts)},checksum={checksum}")
