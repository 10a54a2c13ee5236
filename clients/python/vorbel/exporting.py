"""From schemas to descriptions of CAN buses, as far as these have words for what a schema says.

The leaves of a node's command become the signals of a message. What becomes of each leaf is told.
"""

import collections
import math
import re
from collections.abc import Iterable, Iterator, Mapping
from decimal import Decimal
from typing import Any, Callable, Optional

from . import dbc
from .checks import FRAME_BYTES
from .errors import VorbelError
from .frames import Choice, Message, Signal, free_name
from .importing import EXACT, LAST_BYTE_TEXT, NOT_POSSIBLE, Outcome, common_group
from .meaning import SIGNED
from .members import meaning_of
from .schema import FORMATS, Leaf, leaves
from .terminal import counted

INCOMPLETE = "incomplete"
NODES = 64
NO_LIMITS = (None, None)
LARGEST_INDEX = 2**32 - 1  # of arrays in browsers, which is beyond them
QUOTE = '"'  # ends a text in DBC
LINE_BREAK = "\n"


def export_file(schema: Mapping[str, Any], path: str, replace: bool, tell: Callable[[str], None]) -> None:
    """Writes a DBC file, one that exists only with `replace`. Tells what became of each leaf. Raises VorbelError and
    OSError."""
    messages, outcomes = to_messages(schema)
    for outcome in outcomes:
        tell(str(outcome))
    if not messages:
        raise VorbelError("The schema has no leaf that can be exported")
    try:
        with open(path, "wb" if replace else "xb") as file:
            file.write(dbc.content(messages))
    except FileExistsError:
        raise VorbelError(f"{path} exists; --replace writes over it") from None
    verdicts = collections.Counter(outcome.verdict for outcome in outcomes)
    numbers = ", ".join(f"{verdicts[verdict]} {verdict}" for verdict in (EXACT, INCOMPLETE, NOT_POSSIBLE))
    tell(f"{path}: {counted(len(messages), 'message')}; {counted(len(outcomes), 'leaf', 'leaves')}: {numbers}")


def to_messages(schema: Mapping[str, Any]) -> tuple[list[Message], list[Outcome]]:
    """The messages for a schema in which nothing is wrong."""
    by_endpoint: dict[tuple[int, int], list[Leaf]] = {}
    for leaf in leaves(_in_order(schema)).values():
        by_endpoint.setdefault(leaf.endpoint, []).append(leaf)
    names = _message_names(by_endpoint)
    tops = collections.Counter(top for together in by_endpoint.values()
                               for top in {leaf.names[:1] for leaf in together})
    made = [_Frame(names[endpoint], together, schema, any(tops[leaf.names[:1]] > 1 for leaf in together))
            for endpoint, together in by_endpoint.items()]
    messages = [frame.message for frame in made if frame.message.signals]
    return messages, [outcome for frame in made for outcome in frame.outcomes()]


def _in_order(node: Mapping[str, Any]) -> dict[str, Any]:
    """With names that are numbers first and in their order: browsers know no other, and are to make the same file."""
    return {name: _in_order(node[name]) if isinstance(node[name], dict) else node[name]
            for name in sorted(node, key=_rank)}


def _rank(name: str) -> float:
    is_number = re.fullmatch("0|[1-9][0-9]{0,9}", name) and int(name) < LARGEST_INDEX
    return int(name) if is_number else LARGEST_INDEX


class _Frame:
    """A node's command on its way to a message."""

    def __init__(self, name: str, together: list[Leaf], schema: Mapping[str, Any], is_beside_others: bool) -> None:
        self._needs_paths = is_beside_others
        self._leaves = together
        self._fillers = [leaf for leaf in together if _is_filler(leaf)]
        self._names = _signal_names(leaf for leaf in together if leaf not in self._fillers)
        self._refusals = self._find_refusals()
        group = _common(together)
        signals = tuple(self._signal(leaf, name) for leaf in together
                        if leaf not in self._fillers and leaf.path not in self._refusals)
        self.message = Message(name, int(together[0].cmd) * NODES + int(together[0].mac), self._size(), signals,
                               _printable(_description(schema, group)))

    def outcomes(self) -> Iterator[Outcome]:
        for leaf in self._leaves:
            if leaf in self._fillers:
                yield (Outcome(leaf.path, EXACT, "the length of the message") if self.message.signals
                       else Outcome(leaf.path, NOT_POSSIBLE, "no signal is beside it"))
            elif leaf.path in self._refusals:
                yield Outcome(leaf.path, NOT_POSSIBLE, self._refusals[leaf.path])
            else:
                lost = list(_lost(leaf))
                yield Outcome(leaf.path, INCOMPLETE if lost else EXACT, "without " + ", ".join(lost) if lost else "")

    def _size(self) -> int:
        return max((int(leaf.skip) + leaf.width for leaf in self._leaves if leaf.path not in self._refusals), default=0)

    def _find_refusals(self) -> dict[str, str]:
        known = {leaf.path: leaf for leaf in self._leaves if leaf not in self._fillers}
        refusals = {path: reason for path, leaf in known.items() for reason in [_refusal(leaf)] if reason}
        while True:
            more = {path: "what its \"when\" asks for is not in the message" for path, leaf in known.items()
                    if path not in refusals and leaf.meaning.when
                    and (leaf.meaning.when.path not in known or leaf.meaning.when.path in refusals)}
            if not more:
                return refusals
            refusals.update(more)

    def _signal(self, leaf: Leaf, message: str) -> Signal:
        meaning = leaf.meaning
        name = self._names[leaf.path]
        start, size = _place(leaf)
        return Signal(
            name=name, start=start, size=size, is_little_endian=not _is_swapped(leaf), is_signed=_is_signed(leaf),
            is_float=_is_float(leaf), scale=_scale(leaf), offset=_decimal(meaning.offset),
            least=_bound(meaning.least), largest=_bound(meaning.largest), unit=_in_line(meaning.unit),
            comment=_printable(meaning.description),
            labels={raw: _in_line(label) for raw, label in sorted(meaning.labels.items())},
            choice=self._choice(leaf), path=self._path(leaf, message, name))

    def _path(self, leaf: Leaf, message: str, name: str) -> str:
        """Where the names of message and signal do not say it, or others of the group are in another message."""
        is_said = leaf.names == (message, name) and not self._needs_paths
        return "" if is_said or not _is_sayable(leaf.path) else leaf.path

    def _choice(self, leaf: Leaf) -> Optional[Choice]:
        when = leaf.meaning.when
        return Choice(self._names[when.path], ((when.value, when.value),)) if when else None


def _is_filler(leaf: Leaf) -> bool:
    """Whether the import made it, to give its message the length."""
    return leaf.meaning.description == LAST_BYTE_TEXT


# Names


def _message_names(by_endpoint: Mapping[tuple[int, int], list[Leaf]]) -> dict[tuple[int, int], str]:
    """That of the group which all leaves are in, told apart by the identifier where several are in one."""
    groups = {endpoint: _common(together) for endpoint, together in by_endpoint.items()}
    shared = list(groups.values())
    names: dict[tuple[int, int], str] = {}
    for endpoint, group in groups.items():
        identifier = f"{int(endpoint[0]) * NODES + int(endpoint[1]):03X}"
        words = [*group, *([identifier] if shared.count(group) > 1 or not group else [])]
        names[endpoint] = free_name(_word(words if group else ["CAN", identifier]), names.values())
    return names


def _common(together: Iterable[Leaf]) -> tuple[str, ...]:
    return common_group(leaf.names for leaf in together)


def _signal_names(together: Iterable[Leaf]) -> dict[str, str]:
    together = list(together)
    depth = len(_common(together))
    names: dict[str, str] = {}
    for leaf in together:
        names[leaf.path] = free_name(_word(leaf.names[depth:] or ["Value"]), names.values())
    return names


def _word(names: Iterable[str]) -> str:
    """The names as one that DBC takes."""
    word = re.sub(r"[^A-Za-z0-9_]", "_", "_".join(names))
    return word if re.match("[A-Za-z_]", word) else f"_{word}"


def _description(schema: Mapping[str, Any], group: Iterable[str]) -> str:
    node: Any = schema
    for name in group:
        node = node[name]
    return meaning_of(node).description


# Place and numbers


def _refusal(leaf: Leaf) -> str:
    if leaf.width == 0:
        return f'a signal has no format "{leaf.format}"'
    if leaf.skip + leaf.width > FRAME_BYTES:
        return f"it is beyond {FRAME_BYTES} bytes"
    if leaf.meaning.when and leaf.meaning.when.value < 0:
        return 'its "when" asks for a number below 0'
    if _is_masked(leaf) and leaf.is_arranged:
        return '"@mask" and fields of bits together'
    if _is_masked(leaf) and not re.fullmatch("0b1+0*", bin(_mask(leaf))):
        return 'the bits of its "@mask" are not side by side'
    if _scale(leaf) == 0 or not math.isfinite(_scale(leaf)):
        return "its scale is too large or too small a number"
    return ""


def _is_masked(leaf: Leaf) -> bool:
    return leaf.is_masked and FORMATS[leaf.format].masked


def _mask(leaf: Leaf) -> int:
    return int(leaf.mask) & (1 << 8 * leaf.width) - 1


def _place(leaf: Leaf) -> tuple[int, int]:
    """Where a signal begins, and how many bits it has."""
    lowest, count = _bits(leaf)
    first = 8 * int(leaf.skip)
    return (first + 8 * leaf.width - lowest - count if _is_swapped(leaf) else first + lowest), count


def _bits(leaf: Leaf) -> tuple[int, int]:
    if _is_masked(leaf):
        lowest = _lowest_of(_mask(leaf))
        return lowest, _mask(leaf).bit_length() - lowest
    return leaf.bits if leaf.is_arranged else (0, 8 * leaf.width)


def _lowest_of(mask: int) -> int:
    return (mask & -mask).bit_length() - 1


def _is_swapped(leaf: Leaf) -> bool:
    return leaf.is_arranged and leaf.meaning.swapped and leaf.width > 1


def _is_signed(leaf: Leaf) -> bool:
    if leaf.is_arranged:
        return leaf.meaning.signed and not leaf.is_float
    return leaf.format in SIGNED and _bits(leaf) == (0, 8 * leaf.width)


def _is_float(leaf: Leaf) -> bool:
    return leaf.is_float or leaf.format == "f"


def _scale(leaf: Leaf) -> Decimal:
    """From the bits to the value: a factor divides them, a mask leaves them where they are."""
    scale = float(leaf.meaning.scale)
    if _is_masked(leaf) and not leaf.as_bool:
        scale *= 1 << _lowest_of(_mask(leaf))
    return _decimal(scale / leaf.factor if leaf.is_scaled and not leaf.as_bool else scale)


def _decimal(number: float) -> Decimal:
    """With the digits that stand in the schema, of those that a number of double precision has."""
    return Decimal(repr(float(number))).normalize()


def _bound(bound: Optional[float]) -> Optional[Decimal]:
    return None if bound is None else _decimal(bound)


# What is lost


def _lost(leaf: Leaf) -> Iterator[str]:
    meaning = leaf.meaning
    has = {
        '"title"': meaning.title, '"decimals"': meaning.decimals is not None, '"warn"': meaning.warn != NO_LIMITS,
        '"alarm"': meaning.alarm != NO_LIMITS, '"readonly"': meaning.readonly, '"initial"': meaning.initial,
        '"@observe"': leaf.observe, '"@flushSize"': leaf.flush_size, '"@asBool"': leaf.as_bool and _bits(leaf)[1] > 1,
        '"@fragmentation"': leaf.fragmentation, "bounds": (meaning.least, meaning.largest) == (0, 0),
        "its path": not _is_sayable(leaf.path),
        "quotation marks and backslashes": any(_printable(text) != text for text in (
            meaning.unit, meaning.description, *meaning.labels.values())),
        "line breaks": any(LINE_BREAK in text for text in (meaning.unit, *meaning.labels.values()))}
    return (name for name, is_lost in has.items() if is_lost)


def _is_sayable(path: str) -> bool:
    return path != "" and QUOTE not in path and LINE_BREAK not in path


def _printable(text: str) -> str:
    """Without what ends a text in DBC."""
    return text.replace(QUOTE, "'").replace("\\", "/")


def _in_line(text: str) -> str:
    """Without what ends a statement in DBC as well: only comments have several lines."""
    return _printable(text).replace(LINE_BREAK, " ")
