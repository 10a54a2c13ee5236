"""How many digits of a reading say something."""

import math
from typing import Optional

from .schema import Leaf
from .single import shortest


def justified(value: float, leaf: Optional[Leaf] = None) -> float:
    """The reading with the digits that its leaf's factor justifies: 9 at factor 10 is 0.9, and not the nearest number
    of single precision, 0.90000004. Of unknown origin, with the fewest that are the same in single precision."""
    fewest = shortest(value)
    decimals = _decimals(leaf) if leaf and math.isfinite(value) else None
    if decimals is None:
        return fewest
    rounded = round(value, decimals) + 0.0  # no -0.0
    return min(rounded, fewest, key=lambda number: len(repr(number)))


def _decimals(leaf: Leaf) -> Optional[int]:
    """None where the bytes may hold any fraction. Otherwise those that a step, 1 / factor, has; if these are many
    or have no end, one more than are needed to tell one step from the next."""
    if not leaf.is_scaled or leaf.format == "f":
        return None
    step = abs(1 / leaf.factor)
    needed = max(0, math.ceil(-math.log10(step)))
    exact = (decimals for decimals in range(needed + 3) if _is_whole(step * 10**decimals))
    return next(exact, needed + 1)


def _is_whole(number: float) -> bool:
    return round(number) > 0 and abs(number - round(number)) < 1e-9 * number
