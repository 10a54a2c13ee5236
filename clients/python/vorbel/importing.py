"""From descriptions of CAN buses to schemas.

Each message becomes a group and each of its signals a leaf, under the names that they have. What became of each signal
is told: nothing is left out, or comes out otherwise, without a word.
"""

import collections
import json
import math
from collections.abc import Collection, Iterable, Iterator, Mapping, Sequence
from dataclasses import dataclass
from decimal import Decimal
from typing import Any, Callable, NamedTuple, Optional, Union

from . import matrix, paths
from .errors import VorbelError
from .frames import Message, Signal, free_name
from .schema import is_leaf
from .terminal import counted

EXACT, READ_ONLY, NOT_POSSIBLE = "exact", "read-only", "not possible"
LAST_BYTE = "last byte"
LAST_BYTE_TEXT = "No signal is in it. Written as 0 along with the others, it gives the message its full length."
LARGEST = 32  # bits of a reading
WIDTHS = {1: 1, 2: 2, 3: 4, 4: 4}  # that a reading can have, by the bytes that its signal touches
UNSIGNED = {1: "C", 2: "S", 4: "I"}
SIGNED = {2: "s", 4: "i"}  # the daemon takes "c" for unsigned as well

Node = dict[str, Any]


@dataclass(frozen=True)
class Outcome:
    """What became of the signal that is, or would be, the leaf at a path; `why` is empty where that needs no words."""

    path: str
    verdict: str
    why: str = ""

    def __str__(self) -> str:
        return f"{paths.shown(self.path)}: {self.verdict}" + (f": {paths.shown(self.why)}" if self.why else "")


def import_file(path: str, bus: Optional[str], tell: Callable[[str], None]) -> str:
    """The text of the schema for a file, or for one bus of several in it. Tells what became of each signal. Raises
    VorbelError."""
    messages, complaints = matrix.read(path, bus)
    for complaint in complaints:
        tell(f"{path}: canmatrix: {paths.shown(complaint)}")
    schema, outcomes = to_schema(messages)
    for outcome in outcomes:
        tell(str(outcome))
    tell(f"{path}: {summary(outcomes)}")
    empty = sum(not message.signals for message in messages)
    if empty:
        tell(f"{path}: {counted(empty, 'message')} without signals left out")
    if not schema:
        raise VorbelError(f"{path}: no signal of it can be imported")
    return text_of(schema)


def summary(outcomes: Collection[Outcome]) -> str:
    verdicts = collections.Counter(outcome.verdict for outcome in outcomes)
    numbers = ", ".join(f"{verdicts[verdict]} {verdict}" for verdict in (EXACT, READ_ONLY, NOT_POSSIBLE))
    return f"{counted(len(outcomes), 'signal')}: {numbers}"


def text_of(schema: Node, indent: str = "") -> str:
    """JSON with a line for each leaf."""
    inner = indent + "    "
    members = (f"{inner}{json.dumps(name, ensure_ascii=False)}: "
               + (text_of(each, inner) if isinstance(each, dict) and not is_leaf(each)
                  else json.dumps(each, ensure_ascii=False)) for name, each in schema.items())
    return "{\n" + ",\n".join(members) + f"\n{indent}}}"


def to_schema(messages: Iterable[Message]) -> tuple[Node, list[Outcome]]:
    schema: Node = {}
    outcomes: list[Outcome] = []
    for message in messages:
        group = _Group(message, schema)
        group.put_into(schema)
        outcomes += group.outcomes()
    return schema, outcomes


class Window(NamedTuple):
    """The bytes that a leaf reads."""

    skip: int
    width: int

    @property
    def end(self) -> int:
        return self.skip + self.width

    @property
    def bytes(self) -> range:
        return range(self.skip, self.end)


class _Group:
    """A message on its way to a group: the leaves by the signals that they are for."""

    def __init__(self, message: Message, schema: Node) -> None:
        self._message = message
        self._name = free_name(message.name, schema) if message.name else ""
        self._places = self._find_places(schema)
        self._refusals = _refusals(message)
        self._windows = {at: _window(each, message) for at, each in enumerate(message.signals)
                         if at not in self._refusals}
        self._locked: dict[int, str] = {}
        self._find_locked()
        self.leaves = {at: self._leaf(at) for at in self._windows}

    def put_into(self, schema: Node) -> None:
        group = common_group(self._places[at] for at in self.leaves)
        description = (*group, "description")
        if group and self._message.comment and description not in self._places and _is_free(schema, description):
            _put(schema, description, self._message.comment)
        for at, leaf in self.leaves.items():
            _put(schema, self._places[at], leaf)
        for when in self._short():
            leaf = {**self._place(), "@format": "C", "@skip": self._message.size - 1, "description": LAST_BYTE_TEXT}
            if when:
                leaf["when"] = when
            _put(schema, (*group, free_name(LAST_BYTE, _at(schema, group))), leaf)

    def _find_places(self, schema: Node) -> list[tuple[str, ...]]:
        """The names that lead to each signal's leaf."""
        places: list[tuple[str, ...]] = []
        taken: Node = {}
        for signal in self._message.signals:
            place = paths.split(signal.path)
            if not place or not (_is_free(schema, place) and _is_free(taken, place)):
                if taken.get(self._name, {}) is None:  # another's leaf
                    self._name = free_name(self._name, {**schema, **taken})
                group = (self._name,) if self._name else ()
                place = (*group, free_name(signal.name, _at(taken, group)))
            places.append(place)
            _put(taken, place, None)
        return places

    def outcomes(self) -> Iterator[Outcome]:
        for at, signal in enumerate(self._message.signals):
            path = paths.join(self._places[at])
            if at in self._refusals:
                yield Outcome(path, NOT_POSSIBLE, self._refusals[at])
                continue
            said = [self._locked[at]] if at in self._locked else []
            verdict = READ_ONLY if said else EXACT
            yield Outcome(path, verdict, "; ".join([*said, *_remarks(signal, path)]))

    def _place(self) -> Node:
        return {"@mac": self._message.identifier & 63, "@cmd": self._message.identifier >> 6}

    def _leaf(self, at: int) -> Node:
        signal, window = self._message.signals[at], self._windows[at]
        leaf = {**self._place(), **_arrangement(signal, window), **_meaning(signal)}
        if at in self._locked:
            leaf["readonly"] = True
        when = self._when(signal)
        if when:
            leaf["when"] = when
        return leaf

    def _when(self, signal: Signal) -> Optional[Node]:
        if signal.choice is None:
            return None
        selector = self._places[_index(self._message, signal.choice.selector)]
        return {"path": paths.join(selector), "is": signal.choice.only}

    # What can be written

    def _find_locked(self) -> None:
        """Those that cannot be written, and why; and with a selector those that it selects."""
        found = {at: reason for at in self._windows for reason in [self._lock(at)] if reason}
        while found:
            self._locked.update(found)
            found = {at: f"{each.choice.selector}, which selects it, is"
                     for at, each in enumerate(self._message.signals)
                     if at in self._windows and at not in self._locked and each.choice
                     and _index(self._message, each.choice.selector) in self._locked}

    def _lock(self, at: int) -> str:
        """Why a signal cannot be written, if so: of three bytes, it is read with a fourth. Where that is another's
        whole reading, clients would not write the two in one message, unless that one is read as a field as well."""
        signal, window = self._message.signals[at], self._windows[at]
        extra = [byte for byte in window.bytes if not _touches(signal, byte)]
        for other in self._whole(extra, {at}) if window.width == 4 else ():
            if not self._widen(other, signal):
                return f"it is read together with a byte of {self._message.signals[other].name}"
        return ""

    def _whole(self, bytes_: Collection[int], but: Collection[int]) -> list[int]:
        """The signals that are whole readings of some of these bytes, and may be in frames with all of `but`."""
        signals = self._message.signals
        return [at for at, window in self._windows.items()
                if at not in but and signals[at].size == 8 * window.width
                and not any(_are_apart(signals[at], signals[other]) for other in but)
                and any(_touches(signals[at], byte) for byte in bytes_)]

    def _widen(self, at: int, towards: Signal) -> bool:
        """Makes a whole reading a field of a longer one, which reaches into the three bytes beside it, and may reach
        into no other whole one."""
        signal, width = self._message.signals[at], 2 * self._windows[at].width
        begin = signal.first_byte if towards.start > signal.start else signal.last_byte + 1 - width
        wide = Window(begin, width)
        if width > 4 or self._whole(wide.bytes, {at}):
            return False
        self._windows[at] = wide
        return True

    # The length of what is written

    def _short(self) -> Iterator[Optional[Node]]:
        """For each kind of frame that would end too early when all its leaves are written, what selects that kind."""
        kinds = self._kinds()
        for kind in kinds:
            ends = [self._windows[at].end for at in self.leaves
                    if at not in self._locked and self._is_in(self._message.signals[at], kind)]
            if ends and max(ends) < self._message.size:
                yield self._when(kind) if kind else None

    def _kinds(self) -> list[Optional[Signal]]:
        """A signal of each kind of frame; no signal stands for the only kind."""
        chosen: dict[tuple[str, Any], Signal] = {}
        for at in self.leaves:
            signal = self._message.signals[at]
            if signal.choice and at not in self._locked:
                chosen.setdefault((signal.choice.selector, signal.choice.only), signal)
        asked = {selector for selector, _ in chosen}
        inner = [each for key, each in chosen.items()
                 if not any(_selected_by(other, key) and other.name in asked for other in self._message.signals)]
        return list(inner) or [None]

    def _is_in(self, signal: Signal, kind: Optional[Signal]) -> bool:
        """Whether frames with the signal `kind` have the other one as well."""
        while kind and kind.choice and signal.choice:
            if kind.choice == signal.choice:
                return True
            kind = self._message.signals[_index(self._message, kind.choice.selector)]
        return signal.choice is None


# Nodes by the names that lead to them


def _put(schema: Node, place: Sequence[str], member: Any) -> None:
    *group, name = place
    for each in group:
        schema = schema.setdefault(each, {})
    schema[name] = member


def _at(schema: Node, group: Iterable[str]) -> Node:
    for each in group:
        schema = schema.get(each, {})
    return schema


def _is_free(schema: Node, place: Sequence[str]) -> bool:
    """Whether nothing is at the place yet, and no leaf on the way to it."""
    *group, name = place
    node: Any = schema
    for each in group:
        node = node.get(each, {})
        if not isinstance(node, dict) or is_leaf(node):
            return False
    return name not in node


def common_group(places: Iterable[tuple[str, ...]]) -> tuple[str, ...]:
    """The group that all places are in."""
    common: list[str] = []
    for level in zip(*(place[:-1] for place in places)):
        if len(set(level)) > 1:
            break
        common.append(level[0])
    return tuple(common)


# Signals of a message


def _index(message: Message, name: str) -> int:
    return next((at for at, each in enumerate(message.signals) if each.name == name), -1)


def _selected_by(signal: Signal, key: tuple[str, Any]) -> bool:
    return signal.choice is not None and (signal.choice.selector, signal.choice.only) == key


def _is_whole(signal: Signal) -> bool:
    """Whether it has its bytes for itself."""
    return signal.start % 8 == 0 and signal.size in (8, 16, 32)


def _are_apart(one: Signal, other: Signal) -> bool:
    """Whether no frame has both."""
    return (one.choice is not None and other.choice is not None and one.choice.selector == other.choice.selector
            and one.choice.only != other.choice.only)


def _touches(signal: Signal, byte: int) -> bool:
    return signal.first_byte <= byte <= signal.last_byte


# What is not possible


def _refusals(message: Message) -> dict[int, str]:
    """Why signals cannot be imported, by their index."""
    refusals = {at: reason for at, each in enumerate(message.signals)
                for reason in [message.refusal or _refusal(each, message)] if reason}
    while True:
        dependent = {at: reason for at, each in enumerate(message.signals) if at not in refusals
                     for reason in [_choice_refusal(each, message, refusals)] if reason}
        if not dependent:
            return refusals
        refusals.update(dependent)


def _refusal(signal: Signal, message: Message) -> str:
    return _kind_refusal(signal) or _place_refusal(signal, message)


def _kind_refusal(signal: Signal) -> str:
    if signal.is_text:
        return "it is a text"
    if signal.size < 1:
        return "it has no bits"
    if signal.size > LARGEST:
        return f"it has {signal.size} bits, a value has at most {LARGEST}"
    if signal.is_float and (signal.size != LARGEST or signal.start % 8):
        return "it is a floating-point number, which needs four whole bytes"
    if float(signal.scale) == 0:
        return "its factor is 0"
    if any(math.isinf(float(number)) for number in signal.value_range):
        return "its values are beyond all numbers"
    return ""


def _place_refusal(signal: Signal, message: Message) -> str:
    touched = signal.last_byte - signal.first_byte + 1
    if signal.last_byte >= message.size:
        return f"it reaches into byte {signal.last_byte}, the message has {message.size}"
    if touched not in WIDTHS:
        return f"its bits are spread over {touched} bytes, a reading has at most 4"
    if WIDTHS[touched] > message.size:
        return f"it has {touched} bytes, and the message no fourth: a reading has 1, 2 or 4"
    return ""


def _choice_refusal(signal: Signal, message: Message, refusals: Collection[int]) -> str:
    choice = signal.choice
    if choice is None:
        return ""
    selector = _index(message, choice.selector)
    if not choice.selector or selector < 0:
        return "it is in some frames only, and in which is not said"
    if selector in refusals:
        return f"it is in some frames only, which {choice.selector} tells, and that is not possible"
    if choice.only is None:
        return f"it is in frames with several values of {choice.selector}, a leaf in those with one"
    if _is_in_a_circle(signal, message):
        return "whether it is in a frame depends on itself"
    return ""


def _is_in_a_circle(signal: Signal, message: Message) -> bool:
    asked = set()
    while signal.choice and signal.name not in asked:
        asked.add(signal.name)
        signal = message.signals[_index(message, signal.choice.selector)]
    return signal.choice is not None


# The bytes and bits


def _window(signal: Signal, message: Message) -> Window:
    """The bytes to read: those that the signal touches. With three, there is a fourth: the one before, with which the
    frame need not be longer, unless another signal has that for itself and not the one behind."""
    touched = signal.last_byte - signal.first_byte + 1
    width = WIDTHS[touched]
    if touched == width:
        return Window(signal.first_byte, width)
    begins = [begin for begin in (signal.first_byte - 1, signal.first_byte) if 0 <= begin <= message.size - width]
    extra = {begin: begin if begin < signal.first_byte else begin + 3 for begin in begins}
    whole = [each for each in message.signals if _is_whole(each) and not _are_apart(each, signal)]
    return Window(min(begins, key=lambda begin: any(_touches(each, extra[begin]) for each in whole)), width)


def _arrangement(signal: Signal, window: Window) -> Node:
    """The options and members that take the signal's bits out of the payload."""
    is_swapped = not signal.is_little_endian and window.width > 1
    if signal.is_float:
        return ({"@format": "I", "@skip": window.skip, "float": True, "swapped": True} if is_swapped
                else {"@format": "f", "@skip": window.skip})
    found: Node = {"@format": UNSIGNED[window.width], "@skip": window.skip}
    if signal.size < 8 * window.width:
        found.update(bits=[_lowest(signal, window), signal.size], initial=0)
    if is_swapped:
        found["swapped"] = True
    if signal.is_signed and len(found) == 2 and window.width in SIGNED:
        found["@format"] = SIGNED[window.width]
    elif signal.is_signed:
        found["signed"] = True
    return found


def _lowest(signal: Signal, window: Window) -> int:
    """The place of the signal's lowest bit within the window's bytes in the signal's order."""
    before = signal.start - 8 * window.skip
    return before if signal.is_little_endian else 8 * window.width - before - signal.size


# What it means


def _meaning(signal: Signal) -> Node:
    least, largest = _bounds(signal)
    found = {
        "description": signal.comment or None, "unit": signal.unit or None,
        "scale": _number(signal.scale) if signal.scale != 1 else None,
        "offset": _number(signal.offset) if signal.offset else None,
        "labels": {str(raw): text for raw, text in _labels(signal.labels).items()} or None,
        "min": None if least is None else _number(least), "max": None if largest is None else _number(largest)}
    return {name: value for name, value in found.items() if value is not None}


def _number(number: Decimal) -> Union[int, float]:
    return int(number) if number == int(number) and abs(number) < 2**53 else float(number)


def _labels(labels: Mapping[int, str]) -> dict[int, str]:
    """A text that stands for several raw numbers is told apart by these, as a label has to be for writing."""
    found: dict[int, str] = {}
    for raw, text in sorted(labels.items()):
        while text in found.values():
            text = f"{text} ({raw})"
        found[raw] = text
    return found


def _bounds(signal: Signal) -> tuple[Optional[Decimal], Optional[Decimal]]:
    """Those that leave out something that the bits could be, and leave something."""
    if not _are_sensible(signal):
        return None, None
    least, largest = signal.least, signal.largest
    low, high = signal.value_range
    return (least if least is not None and least > low else None,
            largest if largest is not None and largest < high else None)


def _are_in_order(least: Optional[Decimal], largest: Optional[Decimal]) -> bool:
    return least is None or largest is None or least <= largest


def _are_sensible(signal: Signal) -> bool:
    least, largest = signal.least, signal.largest
    low, high = signal.value_range
    return _are_in_order(least, largest) and _are_in_order(least, high) and _are_in_order(low, largest)


def _remarks(signal: Signal, path: str) -> Iterator[str]:
    """What is another than in the description, though the signal is read and written as it says."""
    name = paths.split(path)[-1]
    if name != signal.name and path != signal.path:
        yield f"named {name}"
    if not _are_sensible(signal):
        bounds = ("any" if bound is None else str(bound) for bound in (signal.least, signal.largest))
        yield f"without its bounds, {' to '.join(bounds)}, within which it never is"
    renamed = [text for raw, text in _labels(signal.labels).items() if text != signal.labels[raw]]
    if renamed:
        yield "labels told apart: " + ", ".join(renamed)
    if signal.is_float and (signal.scale != 1 or signal.offset):
        yield "its value has the digits of single precision"
