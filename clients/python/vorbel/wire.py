"""Values to and from the bytes of binary messages."""

import array
import sys
from collections.abc import Iterable
from typing import Any

import msgpack

try:
    import numpy
except ImportError:
    numpy = None  # type: ignore[assignment]

NESTING_LIMIT = 500  # maps in maps; Python's msgpack packs 511 of them, and what walks them here recurses

# Extension type: (type code of array.array, numpy's type). The payload is the elements, little-endian.
ARRAYS = {
    17: ("b", "<i1"),
    18: ("B", "<u1"),
    19: ("h", "<i2"),
    20: ("H", "<u2"),
    21: ("i", "<i4"),
    22: ("I", "<u4"),
    23: ("f", "<f4"),
}


def decode(message: bytes) -> Any:
    """The value in a binary message: nested dicts, numbers, bools, arrays.

    Raises ValueError for bytes that are no complete value, and for values nested too deep.
    """
    try:
        value = msgpack.unpackb(message, ext_hook=_extension)
    except TypeError as error:  # a map that stands where a key should be
        raise ValueError(str(error)) from None
    if len(message) > NESTING_LIMIT and _is_too_deep(value):  # a level takes a byte at least
        raise ValueError(f"nested more than {NESTING_LIMIT} deep")
    return value


def encode(values: Any) -> bytes:
    """The binary message for nested dicts of values. Raises ValueError for what MessagePack does not know."""
    try:
        message: bytes = msgpack.packb(values, default=_plain)
    except (TypeError, OverflowError) as error:
        raise ValueError(str(error)) from None
    return message


def is_array(value: Any) -> bool:
    return isinstance(value, array.array) or (numpy is not None and isinstance(value, numpy.ndarray))


def number(element: Any) -> Any:
    """A Python number for an element of an array."""
    return element.item() if hasattr(element, "item") else element


def last_of(values: Any) -> Any:
    """The last element of an array, None without one."""
    return number(values[-1]) if len(values) else None


def _is_too_deep(value: Any) -> bool:
    level = [value]
    for _ in range(NESTING_LIMIT + 1):
        level = [member for each in level for member in _members(each)]
        if not level:
            return False
    return True


def _members(value: Any) -> Iterable[Any]:
    if isinstance(value, dict):
        return value.values()
    return value if isinstance(value, list) else ()


def _extension(code: int, payload: bytes) -> Any:
    if code not in ARRAYS:
        return msgpack.ExtType(code, payload)
    type_code, numpy_type = ARRAYS[code]
    if numpy is not None:
        return numpy.frombuffer(bytearray(payload), numpy_type)
    elements = array.array(type_code, payload)
    if sys.byteorder == "big":
        elements.byteswap()
    return elements


def _plain(value: Any) -> Any:
    """Called for what MessagePack does not know: numpy's numbers as Python's own."""
    if numpy is not None and isinstance(value, numpy.generic):
        return value.item()
    what = "a whole number of more than 64 bits" if isinstance(value, int) else f"a {type(value).__name__}"
    raise TypeError(f"{what} cannot be sent")
