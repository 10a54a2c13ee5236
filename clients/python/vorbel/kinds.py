"""What a member of a schema can hold."""

import math
from typing import Any, Callable, NamedTuple


class Kind(NamedTuple):
    """Words for it, a predicate, and the least and the largest of what it takes."""

    words: str
    fits: Callable[[Any], bool]
    least: float = -math.inf
    largest: float = math.inf

    def takes(self, value: Any) -> bool:
        """Whether a value has the right type and is in range."""
        return self.fits(value) and (not is_finite_number(value) or self.least <= value <= self.largest)


def is_finite_number(value: Any) -> bool:
    if isinstance(value, bool) or not isinstance(value, (int, float)):
        return False
    try:
        return math.isfinite(value)
    except OverflowError:  # a whole number beyond any float
        return False


def is_whole(value: Any) -> bool:
    return is_finite_number(value) and value == int(value)


def whole(least: int, largest: int) -> Kind:
    return Kind("a whole number", is_whole, least, largest)


NUMBER = Kind("a number", is_finite_number)
TEXT = Kind("a text", lambda value: isinstance(value, str))
TRUTH = Kind("true or false", lambda value: isinstance(value, bool))
