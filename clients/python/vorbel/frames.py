"""Messages and signals, as descriptions of CAN buses know them."""

from collections.abc import Collection, Mapping
from dataclasses import dataclass, field
from decimal import Decimal
from typing import Optional

Ranges = tuple[tuple[int, int], ...]

LARGEST_SINGLE = Decimal("3.4028234663852886E+38")


@dataclass(frozen=True)
class Choice:
    """Frames have a signal only where the signal named `selector` holds a raw number within one of the ranges, ends
    included. The name is empty where the description does not say which signal that is."""

    selector: str
    ranges: Ranges

    @property
    def only(self) -> Optional[int]:
        """The one raw number, if there are no others."""
        (low, high), *others = self.ranges
        return low if low == high and not others else None


@dataclass(frozen=True)
class Signal:
    """Bits of a message. `start` counts from the first byte: of a little-endian signal it is its lowest bit, each
    byte's lowest being 0; of a big-endian one its highest bit, each byte's highest being 0."""

    name: str
    start: int
    size: int
    is_little_endian: bool = True
    is_signed: bool = False
    is_float: bool = False
    is_text: bool = False
    scale: Decimal = Decimal(1)
    offset: Decimal = Decimal(0)
    least: Optional[Decimal] = None
    largest: Optional[Decimal] = None
    unit: str = ""
    comment: str = ""
    labels: Mapping[int, str] = field(default_factory=dict)
    choice: Optional[Choice] = None
    path: str = ""  # of its leaf, where this is not under the names of the message and its own

    @property
    def first_byte(self) -> int:
        return self.start // 8

    @property
    def last_byte(self) -> int:
        return (self.start + self.size - 1) // 8

    @property
    def value_range(self) -> tuple[Decimal, Decimal]:
        """The values that its bits can stand for."""
        ends = sorted(raw * self.scale + self.offset for raw in self._raw_range)
        return ends[0], ends[1]

    @property
    def _raw_range(self) -> tuple[Decimal, Decimal]:
        if self.is_float:
            return -LARGEST_SINGLE, LARGEST_SINGLE
        all_bits = 1 << self.size
        return (Decimal(-all_bits // 2), Decimal(all_bits // 2 - 1)) if self.is_signed else (
            Decimal(0), Decimal(all_bits - 1))


@dataclass(frozen=True)
class Message:
    """The frames of one identifier. A `refusal` says why the daemon cannot carry them."""

    name: str
    identifier: int
    size: int  # bytes
    signals: tuple[Signal, ...]
    comment: str = ""
    refusal: str = ""


def free_name(name: str, taken: Collection[str]) -> str:
    """The name, or one like it that is not taken, and that no option of a leaf can have."""
    name = "_" + name if name.startswith("@") or not name else name
    free, number = name, 1
    while free in taken:
        number += 1
        free = f"{name}_{number}"
    return free
