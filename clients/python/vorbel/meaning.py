"""From readings to what they mean, and back; docs/protocol.md says how."""

import struct
from collections.abc import Iterator, Mapping
from dataclasses import dataclass
from typing import Any, Optional, Union

from . import paths
from .digits import digits_of, justified
from .schema import Leaf, leaves
from .wire import is_array, last_of, number

Number = Union[int, float]

SIGNED = "sqi"  # the formats whose readings are below 0 as well


# Fields


def field_of(leaf: Leaf, reading: Any) -> Any:
    """The field that a reading, one that is no array, holds. What the daemon does not send under such a leaf, but may
    under another client's schema, is its own."""
    if not leaf.is_arranged or not isinstance(reading, int):
        return int(reading) if isinstance(reading, bool) else reading
    in_order = _in_order(leaf, int(reading) & (1 << 8 * leaf.width) - 1)
    if leaf.is_float:
        return struct.unpack("<f", in_order.to_bytes(4, "little"))[0]
    lowest, count = leaf.bits
    field = in_order >> lowest & (1 << count) - 1
    is_negative = leaf.meaning.signed and field >> count - 1
    return field - (1 << count) if is_negative else field


def reading_with(leaf: Leaf, field: Number) -> int:
    """The reading, as a number without a sign, that holds a field within field_range(), and zeros beside it."""
    if leaf.is_float:
        return _in_order(leaf, int.from_bytes(struct.pack("<f", field), "little"))
    lowest, count = leaf.bits
    return _in_order(leaf, (int(field) & (1 << count) - 1) << lowest)


def mask_of(leaf: Leaf) -> int:
    """The bits of a reading that its field has."""
    lowest, count = leaf.bits
    return _in_order(leaf, (1 << count) - 1 << lowest)


def field_range(leaf: Leaf) -> tuple[int, int]:
    """The whole numbers that the field of a leaf with whole numbers can be."""
    _, count = leaf.bits
    is_signed = leaf.meaning.signed if leaf.is_arranged else leaf.format in SIGNED
    return (-(1 << count - 1), (1 << count - 1) - 1) if is_signed else (0, (1 << count) - 1)


def _in_order(leaf: Leaf, reading: int) -> int:
    """Swapping back is the same again."""
    return int.from_bytes(reading.to_bytes(leaf.width, "little"), "big") if leaf.meaning.swapped else reading


# Values


def value_of(leaf: Leaf, reading: Any) -> Any:
    """The value of a reading, or the list of those of an array's."""
    if is_array(reading):
        return [value_of(leaf, number(each)) for each in reading]
    if not leaf.is_arranged and not leaf.meaning.is_scaled:
        return reading
    field = field_of(leaf, reading)
    if not leaf.meaning.is_scaled or not isinstance(field, (int, float)):
        return field
    exact = justified(field, leaf) if isinstance(field, float) else field
    return exact * leaf.meaning.scale + leaf.meaning.offset


def field_for(leaf: Leaf, value: Number) -> float:
    """The field, not rounded, that stands for a value."""
    return (value - leaf.meaning.offset) / leaf.meaning.scale if leaf.meaning.is_scaled else value


def label_of(leaf: Leaf, reading: Any) -> Optional[str]:
    if not leaf.meaning.labels or is_array(reading):
        return None
    return leaf.meaning.labels.get(field_of(leaf, reading))


def level_of(leaf: Leaf, value: Any) -> str:
    """"alarm", "warn" or nothing: which limits a value is beyond. One that is no number is beyond none."""
    if isinstance(value, (int, float)):
        for level, (low, high) in (("alarm", leaf.meaning.alarm), ("warn", leaf.meaning.warn)):
            if (low is not None and value < low) or (high is not None and value > high):
                return level
    return ""


@dataclass(frozen=True)
class Meant:
    """A reading and what it means. Without a leaf, nothing is known of it but itself."""

    reading: Any
    leaf: Optional[Leaf] = None

    @property
    def value(self) -> Any:
        """Of an array the list of its elements' values."""
        return value_of(self.leaf, self.reading) if self.leaf else self.reading

    @property
    def label(self) -> Optional[str]:
        return label_of(self.leaf, self.reading) if self.leaf else None

    @property
    def unit(self) -> str:
        return self.leaf.meaning.unit if self.leaf else ""

    def __str__(self) -> str:
        """As it is shown, of what is no array."""
        if self.label is not None:
            return paths.shown(self.label)
        text = digits_of(self.value, self.leaf)
        return f"{text} {paths.shown(self.unit)}" if self.unit else text

    @property
    def level(self) -> str:
        """Of an array that of its last element."""
        return level_of(self.leaf, self.last.value) if self.leaf else ""

    @property
    def last(self) -> "Meant":
        """The last element of an array, which is None without one; what is no array is its own."""
        return Meant(last_of(self.reading), self.leaf) if is_array(self.reading) else self


class Meanings:
    """What the readings of a schema mean."""

    def __init__(self, schema: Optional[Mapping[str, Any]]) -> None:
        self.leaves = leaves(schema) if schema else {}

    def of(self, path: str, reading: Any) -> Meant:
        return Meant(reading, self.leaves.get(path))

    def flat(self, data: Any) -> dict[str, Meant]:
        """{path: what its reading means} of a message's nested values, of those that count."""
        return dict(self._counting(paths.flatten(data)))

    def _counting(self, readings: Mapping[str, Any]) -> Iterator[tuple[str, Meant]]:
        for path, reading in readings.items():
            leaf = self.leaves.get(path)
            if leaf is None or self.counts(leaf, readings):
                yield path, Meant(reading, leaf)

    def counts(self, leaf: Leaf, readings: Mapping[str, Any]) -> bool:
        """Whether a leaf says anything in a message with these readings, by their paths. What the selector depends on
        in turn is asked as well; one that is in a circle never counts."""
        asked: set[str] = set()
        while leaf.meaning.when:
            selector = leaf.meaning.when
            other = self.leaves.get(selector.path)
            if selector.path in asked or other is None or selector.path not in readings:
                return False
            if field_of(other, readings[selector.path]) != selector.value:
                return False
            asked.add(selector.path)
            leaf = other
        return True
