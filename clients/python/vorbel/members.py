"""The members of a leaf that say what its readings mean to people; docs/protocol.md has their table."""

import re
from collections.abc import Mapping
from dataclasses import dataclass, field
from typing import Any, Optional

from .kinds import NUMBER, TEXT, TRUTH, Kind, is_finite_number, is_whole, whole

Limits = tuple[Optional[float], Optional[float]]  # low and high


@dataclass(frozen=True)
class Selector:
    """A value counts only in messages in which the leaf at `path` has the field `value`."""

    path: str
    value: int


@dataclass(frozen=True)
class Meaning:
    """What a reading means; a member that is absent, or of the wrong type, has its default."""

    title: str = ""
    description: str = ""
    unit: str = ""
    decimals: Optional[int] = None
    bits: Optional[tuple[int, int]] = None  # the lowest, and how many
    swapped: bool = False
    signed: bool = False
    is_float: bool = False
    scale: float = 1
    offset: float = 0
    labels: Mapping[int, str] = field(default_factory=dict)
    least: Optional[float] = None
    largest: Optional[float] = None
    warn: Limits = (None, None)
    alarm: Limits = (None, None)
    readonly: bool = False
    initial: Optional[int] = None
    when: Optional[Selector] = None

    @property
    def is_arranged(self) -> bool:
        """Whether the bits of a reading have to be put in order first."""
        return bool(self.bits or self.swapped or self.signed or self.is_float)

    @property
    def is_scaled(self) -> bool:
        return self.scale != 1 or self.offset != 0

    @property
    def has_limits(self) -> bool:
        return any(each is not None for each in (*self.warn, *self.alarm))

    @property
    def changes(self) -> bool:
        """Whether a value may be something else than its reading."""
        return self.is_arranged or self.is_scaled or bool(self.labels)


def _is_pair(value: Any) -> bool:
    return isinstance(value, list) and len(value) == 2


def _are_labels(value: Any) -> bool:
    return isinstance(value, dict) and all(
        re.fullmatch("0|-?[1-9][0-9]*", name, re.ASCII) and isinstance(text, str) for name, text in value.items())


def _are_limits(value: Any) -> bool:
    return _is_pair(value) and all(each is None or is_finite_number(each) for each in value)


def _is_selector(value: Any) -> bool:
    return isinstance(value, dict) and isinstance(value.get("path"), str) and is_whole(value.get("is"))


_LIMITS = Kind("[low, high], each a number or null", _are_limits)

KINDS = {
    "title": TEXT, "description": TEXT, "unit": TEXT, "decimals": whole(0, 15),
    "bits": Kind("[the lowest bit, how many]", lambda value: _is_pair(value) and all(map(is_whole, value))),
    "swapped": TRUTH, "signed": TRUTH, "float": TRUTH, "scale": NUMBER, "offset": NUMBER,
    "labels": Kind("a map from whole numbers, as texts, to texts", _are_labels), "min": NUMBER, "max": NUMBER,
    "warn": _LIMITS, "alarm": _LIMITS, "readonly": TRUTH, "initial": whole(-(2**31), 2**32 - 1),
    "when": Kind('{"path": a text, "is": a whole number}', _is_selector),
}
# These hold an object, which is a node to the daemon, though one without leaves.
MAPS = ("labels", "when")


def is_member(name: str, value: Any) -> bool:
    """Whether this is a member for people, and not a node of the schema that has the name of one."""
    if name in MAPS and isinstance(value, dict):
        return "@mac" not in value and not any(isinstance(each, dict) for each in value.values())
    return name in KINDS and not isinstance(value, dict)


def meaning_of(node: Mapping[str, Any]) -> Meaning:
    """What a leaf's members say, as far as they fit; a scale of 0 is none."""
    found = {name: node[name] for name, kind in KINDS.items()
             if name in node and is_member(name, node[name]) and kind.takes(node[name])}
    if not found:
        return _NONE
    return Meaning(
        title=found.get("title", ""), description=found.get("description", ""), unit=found.get("unit", ""),
        decimals=_whole_or_none(found.get("decimals")), bits=_bits(found.get("bits")),
        swapped=found.get("swapped", False), signed=found.get("signed", False), is_float=found.get("float", False),
        scale=found.get("scale") or 1, offset=found.get("offset", 0),
        labels={int(name): text for name, text in found.get("labels", {}).items()},
        least=found.get("min"), largest=found.get("max"), warn=_limits(found.get("warn")),
        alarm=_limits(found.get("alarm")), readonly=found.get("readonly", False),
        initial=_whole_or_none(found.get("initial")),
        when=Selector(found["when"]["path"], int(found["when"]["is"])) if "when" in found else None)


_NONE = Meaning()


def _whole_or_none(value: Any) -> Optional[int]:
    return None if value is None else int(value)


def _limits(value: Any) -> Limits:
    return (value[0], value[1]) if value else (None, None)


def _bits(value: Any) -> Optional[tuple[int, int]]:
    return (int(value[0]), int(value[1])) if value else None
