"""Numbers of single precision, which is what the daemon scales with."""

import math
import struct

_FLOAT = struct.Struct("<f")
_BITS = struct.Struct("<i")


def single(number: float) -> float:
    """The number of single precision that is nearest; infinite beyond their range."""
    try:
        nearest: float = _FLOAT.unpack(_FLOAT.pack(number))[0]
    except OverflowError:
        return math.inf if number > 0 else -math.inf
    return nearest


def next_to(number: float) -> tuple[float, float]:
    """Of a number of single precision other than 0, the next one further from 0 and the next one nearer to it."""
    bits = _BITS.unpack(_FLOAT.pack(number))[0]
    return _FLOAT.unpack(_BITS.pack(bits + 1))[0], _FLOAT.unpack(_BITS.pack(bits - 1))[0]


def shortest(number: float) -> float:
    """Of all numbers that are the same in single precision, the one with the fewest digits: 3.93 for
    3.930000066757202. A number that needs more than single precision is its own."""
    if not math.isfinite(number) or single(number) != number:
        return number
    candidates = (float(f"{number:.{digits}g}") for digits in range(6, 10))  # nine always do
    return next(candidate for candidate in candidates if single(candidate) == number)
