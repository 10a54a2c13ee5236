"""How many digits of a reading say something."""

import decimal
import json
import math
from typing import Any, Optional

from .schema import Leaf
from .single import shortest
from .wire import is_array, number


def justified(value: float, leaf: Optional[Leaf] = None) -> float:
    """The reading with the digits that its leaf's factor justifies: 9 at factor 10 is 0.9, and not the nearest number
    of single precision, 0.90000004. Of unknown origin, with the fewest that are the same in single precision."""
    fewest = shortest(value)
    decimals = _decimals(leaf) if leaf and math.isfinite(value) else None
    if decimals is None:
        return fewest
    rounded = round(value, decimals) + 0.0  # no -0.0
    return min(rounded, fewest, key=lambda number: len(repr(number)))


def digits_of(value: Any, leaf: Optional[Leaf] = None) -> str:
    """A value with the decimals that its leaf names, or else those that it justifies. As in JSON, and what is not
    finite by its name."""
    if isinstance(value, (int, float)) and not isinstance(value, bool) and leaf and leaf.meaning.decimals is not None:
        return _rounded(value, leaf.meaning.decimals)
    if isinstance(value, float):
        return f"{value if leaf and leaf.meaning.is_scaled else justified(value, leaf):.10g}"
    return json.dumps(plain(value), ensure_ascii=False)


def _rounded(value: float, decimals: int) -> str:
    """With so many decimals; halves go away from 0."""
    if not math.isfinite(value):
        return str(value)
    return str(decimal.Decimal(value).quantize(decimal.Decimal(1).scaleb(-decimals), decimal.ROUND_HALF_UP))


def plain(value: Any, leaf: Optional[Leaf] = None) -> Any:
    """A value as JSON knows it: arrays as lists, bytes in hexadecimal, what is not finite as text."""
    if isinstance(value, dict):
        members = {}
        for name, member in value.items():  # no comprehension: that is a second call for each level of nesting
            members[name] = plain(member)
        return members
    if is_array(value) or isinstance(value, (list, tuple)):
        return [plain(number(element), leaf) for element in value]
    if isinstance(value, bytes):
        return value.hex()
    if isinstance(value, float):
        return justified(value, leaf) if math.isfinite(value) else str(value)
    return value


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
