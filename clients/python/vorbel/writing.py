"""Values to write: whether the daemon would write them, as which raw numbers, and what to send for that."""

import math
import numbers
from collections.abc import Mapping
from dataclasses import dataclass, field
from typing import Any, Optional, Union

from . import paths
from .errors import Problem, WriteError, listed, quoted, suggestion
from .schema import FORMATS, Leaf, is_leaf, leaf_of
from .single import next_to, shortest, single

Raw = Union[int, float]

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
        """What the raw number stands for."""
        return self.raw / self.leaf.factor if self.leaf.is_scaled else self.raw

    @property
    def is_rounded(self) -> bool:
        """Whether something else was written than asked for."""
        asked: Raw = float(self.value) * self.leaf.factor if self.leaf.is_scaled else self.value
        written = shortest(self.raw) if isinstance(self.raw, float) else self.raw
        return abs(asked - written) > 1e-12 * max(1, abs(written))

    def __str__(self) -> str:
        rounded = f", which is {_text(self.reading)}" if self.is_rounded else ""
        missed = "" if self.raw == self.nearest else (
            f" instead of {self.nearest}, which the daemon's single precision does not reach")
        return f"raw {_text(self.raw)}{rounded}{missed}"


@dataclass
class Message:
    """What to send for values, and which numbers it will write."""

    values: dict[str, Any] = field(default_factory=dict)
    written: list[Written] = field(default_factory=list)


def prepare(schema: Mapping[str, Any], values: Any) -> Message:
    """The message that makes the daemon write, for every number in nested `values`, the nearest raw number. Raises
    WriteError, with all problems, for what it would ignore or write otherwise."""
    message = Message()
    if not isinstance(values, dict):
        problems = [Problem("", "not-a-map", "values are written as a map from names, not as a value of its own")]
    else:
        problems = _prepare_members(schema, values, (), message.values, message.written)
    if problems:
        raise WriteError("Not written: " + "; ".join(map(str, problems)), problems)
    return message


def raw_written(leaf: Leaf, sent: float) -> int:
    """What a scaled leaf's payload holds when a number of single precision is sent: the daemon multiplies, clamps and
    cuts off."""
    least, largest = _range(leaf)
    return math.trunc(min(max(single(leaf.single_factor * sent), least), largest))


# The walk along values and schema


def _prepare_members(node: Mapping[str, Any], values: Mapping[str, Any], names: tuple[str, ...],
                     sent: dict[str, Any], written: list[Written]) -> list[Problem]:
    problems = []
    for name, value in values.items():
        below = (*names, name)
        member = node.get(name)
        if not isinstance(member, dict):
            known = [name for name, member in node.items() if isinstance(member, dict)]
            problems.append(Problem(paths.join(below), "unknown-name",
                                    f"does not exist in the schema{suggestion(name, known)}"))
        elif isinstance(value, dict) and _is_group(member):
            sent[name] = {}
            problems += _prepare_members(member, value, below, sent[name], written)
        elif not is_leaf(member):
            problems.append(Problem(paths.join(below), "is-a-group",
                                    f"is a group of values, not a value: {listed(member) or 'it is empty'}"))
        else:
            leaf = leaf_of(below, member)
            problem = _refusal(leaf, value)
            if problem:
                problems.append(Problem(leaf.path, *problem))
            else:
                sent[name] = _prepare_leaf(leaf, value, written)
    return problems


def _is_group(node: Mapping[str, Any]) -> bool:
    """Whether there are names below to be written: leaves may have some, too."""
    if not is_leaf(node):
        return True
    return not str(node.get("@format", "")).startswith("p") and any(isinstance(each, dict) for each in node.values())


def _prepare_leaf(leaf: Leaf, value: Any, written: list[Written]) -> Any:
    if leaf.format == "p" or value is None:
        return value
    number = _plain(value)
    if not leaf.is_scaled:
        raw = single(number) if leaf.format == "f" else _nearest(number)
        written.append(Written(leaf, value, raw, raw))
        return raw
    nearest = _nearest(number * leaf.factor)
    sent = _sent_for(leaf, nearest)
    written.append(Written(leaf, value, raw_written(leaf, sent), nearest))
    return sent


# Numbers


def _refusal(leaf: Leaf, value: Any) -> Optional[tuple[str, str]]:
    if leaf.is_read_only:
        options = [name for name, is_set in (("@asBool", leaf.as_bool), ("@mask", leaf.is_masked)) if is_set]
        return "read-only", f'is read-only, because its schema has "{options[0]}"'
    if leaf.format == "":
        return "no-format", 'has no "@format" and cannot be written'
    if leaf.format not in FORMATS:
        return "unknown-format", f'has the format "{leaf.format}", which cannot be written'
    if leaf.format == "p" or value is None:
        return None
    if isinstance(value, bool) or not isinstance(value, numbers.Real) or math.isnan(_plain(value)):
        return "not-a-number", f"takes a number, not {quoted(value)}"
    return _range_refusal(leaf, _plain(value))


def _range_refusal(leaf: Leaf, number: Raw) -> Optional[tuple[str, str]]:
    least, largest = _range(leaf)
    scaled = number * leaf.factor if leaf.is_scaled else number
    rounded = single(scaled) if not leaf.is_scaled and leaf.format == "f" else (
        _nearest(scaled) if math.isfinite(scaled) else scaled)
    if least <= rounded <= largest:
        return None
    product = f" times the factor {leaf.factor:g} is {scaled:g}, which" if leaf.is_scaled else ""
    return "out-of-range", f"{quoted(number)}{product} is outside of {_text(least)} to {_text(largest)}"


def _range(leaf: Leaf) -> tuple[Raw, Raw]:
    """The raw numbers that the daemon writes as they are. It does not tell formats with a sign from those without;
    scaled numbers it clamps to the signed range."""
    if leaf.format == "f" and not leaf.is_scaled:
        return -LARGEST_SINGLE, LARGEST_SINGLE
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
