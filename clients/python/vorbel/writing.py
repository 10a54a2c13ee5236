"""Values to write: whether the daemon would write them, as which raw numbers, and what to send for that."""

import math
import numbers
import struct
from collections.abc import Iterable, Iterator, Mapping, Sequence
from dataclasses import dataclass, field
from typing import Any, Callable, Optional, Union

from . import paths
from .errors import Problem, WriteError, listed, quoted, suggestion
from .meaning import field_for, field_of, field_range, mask_of, reading_with, value_of
from .schema import FORMATS, Leaf, below, is_leaf, leaf_of
from .single import next_to, shortest, single

Raw = Union[int, float]
Readings = Callable[[str], Any]  # the last reading of a path that counted, or None

LARGEST_SINGLE = 3.4028234663852886e38


@dataclass(frozen=True)
class Written:
    """A number that was written: `raw` is what stands in the payload, `nearest` what would have been nearest to
    `value`. They differ where the daemon's single precision does not reach: with a factor, beyond 24 bits."""

    leaf: Leaf
    value: Raw
    raw: Raw
    nearest: Raw

    @property
    def path(self) -> str:
        return self.leaf.path

    @property
    def reading(self) -> float:
        """What the raw number would be read as."""
        return self.raw / self.leaf.factor if self.leaf.is_scaled else self.raw

    @property
    def meant(self) -> float:
        """The value that the raw number stands for."""
        meant: float = value_of(self.leaf, self.reading)
        return meant

    @property
    def field(self) -> float:
        written: float = field_of(self.leaf, self.reading)
        return written

    @property
    def is_rounded(self) -> bool:
        """Whether something else was written than asked for."""
        asked = field_for(self.leaf, self.value)
        if self.leaf.is_scaled:
            asked = float(asked) * self.leaf.factor
        written = self.field if self.leaf.is_arranged else self.raw
        written = shortest(written) if isinstance(written, float) else written
        return abs(asked - written) > 1e-12 * max(1, abs(written))

    def __str__(self) -> str:
        rounded = f", which is {_text(self.meant)}" if self.is_rounded else ""
        missed = "" if self.raw == self.nearest else (
            f" instead of {self.nearest}, which the daemon's single precision does not reach")
        return f"raw {_text(self.raw)}{rounded}{missed}"


@dataclass
class Message:
    """What to send for values, and which numbers it will write."""

    values: dict[str, Any] = field(default_factory=dict)
    written: list[Written] = field(default_factory=list)


def prepare(schema: Mapping[str, Any], values: Any, readings: Readings = lambda path: None) -> Message:
    """The message that makes the daemon write, for every number in nested `values`, the nearest raw number, and for
    every label its field. Raises WriteError, with all problems, for what it would ignore or write otherwise.
    `readings` have the bits beside a field."""
    message = Message()
    entries: list[_Entry] = []
    if not isinstance(values, dict):
        problems = [Problem("", "not-a-map", "values are written as a map from names, not as a value of its own")]
    else:
        problems = _take_members(schema, values, (), message.values, entries)
    problems += _put(entries, message, readings)
    if problems:
        raise WriteError("Not written: " + "; ".join(map(str, problems)), problems)
    return message


def with_selectors(leaves: Mapping[str, Leaf], names: Sequence[str], value: Any) -> dict[str, Any]:
    """Nested values that write one value, and with it what its "when" asks for."""
    values: dict[str, Any] = paths.nest(names, value)
    leaf = leaves.get(paths.join(names))
    for _ in range(len(leaves)):  # a circle ends, too
        selector = leaf.meaning.when if leaf else None
        leaf = leaves.get(selector.path) if selector else None
        if selector and leaf:
            _merge(values, leaf.names, selector.value * leaf.meaning.scale + leaf.meaning.offset)
    return values


def _merge(values: dict[str, Any], names: Sequence[str], value: Any) -> None:
    for name in names[:-1]:
        values = values.setdefault(name, {})
    values.setdefault(names[-1], value)


def raw_written(leaf: Leaf, sent: float) -> int:
    """What a scaled leaf's payload holds when a number of single precision is sent: the daemon multiplies, clamps and
    cuts off."""
    least, largest = _range(leaf)
    return math.trunc(min(max(single(leaf.single_factor * sent), least), largest))


def overwritten(leaf: Leaf, reading: Optional[int], written: Iterable[Written]) -> Optional[int]:
    """What a leaf reads once a device has taken what was written: the bytes of the payload in place of the reading's.
    Those before the last one that no value covers are 0. None if bytes beside these are not known."""
    together = [each for each in written if each.leaf.endpoint == leaf.endpoint]
    payload = 0
    for each in sorted(together, key=lambda each: each.leaf.names):
        payload = payload & ~_window(each.leaf) | _payload(each)
    length = max((int(each.leaf.skip) + each.leaf.width for each in together), default=0)
    shift, window = 8 * int(leaf.skip), (1 << 8 * leaf.width) - 1
    mask = (1 << 8 * length) - 1 >> shift & window
    if reading is None and mask != window:
        return None
    return (reading or 0) & window & ~mask | payload >> shift & mask


# The walk along values and schema


@dataclass
class _Entry:
    """A number to be written, and the map that what is sent for it goes into, under the leaf's name."""

    leaf: Leaf
    value: Raw
    into: dict[str, Any]


def _take_members(node: Mapping[str, Any], values: Mapping[str, Any], names: tuple[str, ...], sent: dict[str, Any],
                  entries: list[_Entry]) -> list[Problem]:
    problems = []
    members = dict(below(node))
    for name, value in values.items():
        path = paths.join((*names, name))
        member = members.get(name)
        if member is None:
            problems.append(Problem(path, "unknown-name", f"does not exist in the schema{suggestion(name, members)}"))
        elif isinstance(value, dict) and _is_group(member):
            sent[name] = {}
            problems += _take_members(member, value, (*names, name), sent[name], entries)
        elif not is_leaf(member):
            problems.append(Problem(path, "is-a-group",
                                    f"is a group of values, not a value: {listed(member) or 'it is empty'}"))
        else:
            problem = _take_leaf(leaf_of((*names, name), member), value, sent, entries)
            problems += [Problem(path, *problem)] if problem else []
    return problems


def _is_group(node: Mapping[str, Any]) -> bool:
    """Whether there are names below to be written: leaves may have some, too."""
    if not is_leaf(node):
        return True
    return not str(node.get("@format", "")).startswith("p") and any(True for _ in below(node))


def _take_leaf(leaf: Leaf, value: Any, sent: dict[str, Any], entries: list[_Entry]) -> Optional[tuple[str, str]]:
    """Returns why a value cannot be written, if so."""
    refusal = _label_refusal(leaf, value)
    if refusal:
        return refusal
    value = _of_label(leaf, value)
    refusal = _refusal(leaf, value)
    if refusal:
        return refusal
    sent[leaf.names[-1]] = value
    if leaf.format != "p" and value is not None:
        entries.append(_Entry(leaf, value, sent))
    return None


# What is sent for the numbers


def _put(entries: list[_Entry], message: Message, readings: Readings) -> list[Problem]:
    problems = []
    fields = _Fields(entry for entry in entries if entry.leaf.is_part)
    for entry in entries:
        leaf = entry.leaf
        if leaf.is_part:
            former = leaf.meaning.initial if readings(leaf.path) is None else int(readings(leaf.path))
            if former is None and not fields.cover(leaf):
                problems.append(Problem(leaf.path, "no-reading", "shares its bytes with other bits, and no reading of "
                                                                 'these came yet; "initial" would say what they are'))
                continue
            sent, written = _of_raw(entry, fields.reading(leaf, former or 0))
        else:
            sent, written = _sent(leaf, entry.value)
        entry.into[leaf.names[-1]] = sent
        message.written.append(written)
    return [*problems, *fields.conflicts, *_contradictions(message.written), *_unselected(message.written)]


class _Fields:
    """The bits that the fields of a message write, by endpoint."""

    def __init__(self, entries: Iterable[_Entry]) -> None:
        self._masks: dict[tuple[int, int], int] = {}
        self._bits: dict[tuple[int, int], int] = {}
        self.conflicts: list[Problem] = []
        for entry in sorted(entries, key=lambda entry: entry.leaf.names):
            self._add(entry)

    def _add(self, entry: _Entry) -> None:
        leaf = entry.leaf
        shift = 8 * int(leaf.skip)
        mask = mask_of(leaf) << shift
        bits = reading_with(leaf, _nearest(field_for(leaf, _plain(entry.value)))) << shift
        before = self._masks.get(leaf.endpoint, 0), self._bits.get(leaf.endpoint, 0)
        if (before[1] ^ bits) & before[0] & mask:
            self.conflicts.append(_shared(leaf))
        self._masks[leaf.endpoint] = before[0] | mask
        self._bits[leaf.endpoint] = before[1] & ~mask | bits

    def cover(self, leaf: Leaf) -> bool:
        """Whether all bits of its bytes are written."""
        window = (1 << 8 * leaf.width) - 1
        return self._masks[leaf.endpoint] >> 8 * int(leaf.skip) & window == window

    def reading(self, leaf: Leaf, former: int) -> int:
        shift, window = 8 * int(leaf.skip), (1 << 8 * leaf.width) - 1
        mask = self._masks[leaf.endpoint] >> shift & window
        return former & window & ~mask | self._bits[leaf.endpoint] >> shift & mask


def _contradictions(written: Iterable[Written]) -> Iterator[Problem]:
    """Values that would put something else into bytes of a field than the field does: the daemon takes the later."""
    by_endpoint: dict[tuple[int, int], list[Written]] = {}
    for each in sorted(written, key=lambda each: each.leaf.names):
        by_endpoint.setdefault(each.leaf.endpoint, []).append(each)
    for together in by_endpoint.values():
        parts = [each for each in together if each.leaf.is_part]
        for at, each in enumerate(together if parts else ()):
            if any(_differ(each, other) for other in together[:at] if each.leaf.is_part != other.leaf.is_part):
                yield _shared(each.leaf)


def _differ(one: Written, other: Written) -> bool:
    window = _window(one.leaf) & _window(other.leaf)
    return (_payload(one) ^ _payload(other)) & window != 0


def _window(leaf: Leaf) -> int:
    return (1 << 8 * leaf.width) - 1 << 8 * int(leaf.skip)


def _payload(written: Written) -> int:
    """The bits of the payload that a value becomes."""
    leaf = written.leaf
    raw = int.from_bytes(struct.pack("<f", written.raw), "little") if leaf.format == "f" else int(written.raw)
    return raw << 8 * int(leaf.skip) & _window(leaf)


def _shared(leaf: Leaf) -> Problem:
    return Problem(leaf.path, "shared-bits", "has bits that another value of this message sets otherwise")


def _unselected(written: Iterable[Written]) -> Iterator[Problem]:
    fields = {each.path: each.field for each in written}
    for each in written:
        selector = each.leaf.meaning.when
        if selector and fields.get(selector.path) != selector.value:
            yield Problem(each.path, "not-selected",
                          f"counts only where {paths.shown(selector.path)} is {selector.value}: write that with it")


def _sent(leaf: Leaf, value: Any) -> tuple[Raw, Written]:
    """What to send for a value that has its bytes for itself."""
    wanted = field_for(leaf, _plain(value))
    if leaf.is_arranged:
        return _of_raw(_Entry(leaf, value, {}), reading_with(leaf, wanted if leaf.is_float else _nearest(wanted)))
    if not leaf.is_scaled:
        raw = single(wanted) if leaf.format == "f" else _nearest(wanted)
        return raw, Written(leaf, value, raw, raw)
    nearest = _nearest(wanted * leaf.factor)
    sent = _sent_for(leaf, nearest)
    return sent, Written(leaf, value, raw_written(leaf, sent), nearest)


def _of_raw(entry: _Entry, raw: int) -> tuple[Raw, Written]:
    return raw, Written(entry.leaf, entry.value, raw, raw)


# Labels and numbers


def _label_refusal(leaf: Leaf, value: Any) -> Optional[tuple[str, str]]:
    labels = leaf.meaning.labels
    if not labels or not isinstance(value, str) or value in labels.values():
        return None
    return ("unknown-label",
            f"has no label {quoted(value)}{suggestion(value, labels.values())}: there are {listed(labels.values())}")


def _of_label(leaf: Leaf, value: Any) -> Any:
    """The value that a label stands for; any other is its own."""
    if not isinstance(value, str) or not leaf.meaning.labels:
        return value
    field = next(field for field, label in leaf.meaning.labels.items() if label == value)
    return field * leaf.meaning.scale + leaf.meaning.offset


def _refusal(leaf: Leaf, value: Any) -> Optional[tuple[str, str]]:
    if leaf.is_read_only:
        options = {"@asBool": leaf.as_bool, "@mask": leaf.is_masked, "readonly": leaf.meaning.readonly}
        option = next(name for name, is_set in options.items() if is_set)
        return "read-only", f'is read-only, because its schema has "{option}"'
    if leaf.format == "":
        return "no-format", 'has no "@format" and cannot be written'
    if leaf.format not in FORMATS:
        return "unknown-format", f'has the format "{leaf.format}", which cannot be written'
    if leaf.format == "p" or value is None:
        return None
    if isinstance(value, bool) or not isinstance(value, numbers.Real) or math.isnan(_plain(value)):
        return "not-a-number", f"takes a number, not {quoted(value)}"
    return _bounds_refusal(leaf, _plain(value)) or _range_refusal(leaf, _plain(value))


def _bounds_refusal(leaf: Leaf, value: Raw) -> Optional[tuple[str, str]]:
    least, largest = leaf.meaning.least, leaf.meaning.largest
    if (least is None or value >= least) and (largest is None or value <= largest):
        return None
    bounds = " and ".join(f"{name} {_text(bound)}" for name, bound in (("at least", least), ("at most", largest))
                          if bound is not None)
    return "out-of-bounds", f"takes {bounds}, not {quoted(value)}"


def _range_refusal(leaf: Leaf, value: Raw) -> Optional[tuple[str, str]]:
    least, largest = _range(leaf)
    number = field_for(leaf, value)
    scaled = number * leaf.factor if leaf.is_scaled else number
    is_single = leaf.is_float or (leaf.format == "f" and not leaf.is_scaled)
    rounded = single(scaled) if is_single else _nearest(scaled) if math.isfinite(scaled) else scaled
    if least <= rounded <= largest:
        return None
    field = f" is the field {_text(number)}, which" if leaf.meaning.is_scaled else ""
    product = f" times the factor {leaf.factor:g} is {scaled:g}, which" if leaf.is_scaled else ""
    return "out-of-range", f"{quoted(value)}{field}{product} is outside of {_text(least)} to {_text(largest)}"


def _range(leaf: Leaf) -> tuple[Raw, Raw]:
    """The raw numbers that the daemon writes as they are. It does not tell formats with a sign from those without;
    scaled numbers it clamps to the signed range. A field that means something else than itself has those that it can
    be read as."""
    if leaf.is_float or (leaf.format == "f" and not leaf.is_scaled):
        return -LARGEST_SINGLE, LARGEST_SINGLE
    if leaf.is_arranged or (leaf.meaning.is_scaled and leaf.is_whole):
        return field_range(leaf)
    bits = 8 * leaf.width
    return -(1 << bits - 1), (1 << bits - 1) - 1 if leaf.is_scaled else (1 << bits) - 1


def _sent_for(leaf: Leaf, nearest: int) -> float:
    """Of the numbers of single precision around nearest / factor, the one that the daemon turns into that raw number,
    or else into the one nearest to it. Further ones miss by more."""
    middle = min(max(single(nearest / leaf.single_factor), -LARGEST_SINGLE), LARGEST_SINGLE)
    if raw_written(leaf, middle) == nearest:
        return middle
    candidates = (middle, *filter(math.isfinite, next_to(middle)))
    return min(candidates, key=lambda sent: abs(raw_written(leaf, sent) - nearest))


def _nearest(number: Raw) -> int:
    """The nearest whole number; halves go up, as they do in the daemon."""
    below = math.floor(number)
    return below + (number - below >= 0.5)


def _plain(value: Any) -> Raw:
    """A number of Python for one of any library; infinite beyond its floats."""
    if isinstance(value, numbers.Integral) and abs(value) < 2**64:
        return int(value)
    try:
        return float(value)
    except OverflowError:
        return math.inf if value > 0 else -math.inf


# Words


def _text(number: Raw) -> str:
    return str(number) if isinstance(number, int) else f"{shortest(number):.10g}"
