"""Finds the byte of a frame that is calculated from the others."""

import functools
from collections.abc import Iterator, Sequence
from typing import Callable, NamedTuple, Optional

EVIDENCE = 8  # frames that hold it, beyond those that any rule of its kind would fit
POLYNOMIALS = (0x07, 0x1D, 0x2F, 0x31, 0x39, 0x4D, 0x9B, 0xA7, 0xD5)  # of the CRC-8s that are in use

Rule = Callable[[bytes], int]  # from the other bytes to the checksum, but for what is the same in all frames


class Checksum(NamedTuple):
    """Which byte it is, and by which rule."""

    byte: int
    rule: str


def checksum_in(payloads: Sequence[bytes], noisy: Sequence[int]) -> Optional[Checksum]:
    """The checksum in different payloads of one length. Those bytes are asked that are as `noisy` as a checksum, the
    last one first, then the first one, as any byte can be calculated from a checksum and the others."""
    last = len(payloads[0]) - 1
    for byte in sorted(noisy, key=lambda at: (at != last, at != 0, -at)):
        rule = _rule_for(payloads, byte)
        if rule is not None:
            return Checksum(byte, rule)
    return None


def _rule_for(payloads: Sequence[bytes], byte: int) -> Optional[str]:
    pairs = list({payload[:byte] + payload[byte + 1:]: payload[byte] for payload in payloads}.items())
    if len(pairs) <= EVIDENCE:
        return None
    follows_one = _follows_one(pairs)
    for name, rule, sign in _rules():
        if not (follows_one and rule in (_exclusive_or, sum)) and _holds(pairs, rule, sign):
            return name
    if not follows_one and _is_linear(payloads, byte):
        return "exclusive or of some bits of the other bytes, as CRCs are"
    return None


def _follows_one(pairs: Sequence[tuple[bytes, int]]) -> bool:
    """Whether one of the other bytes is enough to tell it: the only one that changes, or one of which it is a copy."""
    if sum(len(set(column)) > 1 for column in zip(*(others for others, _ in pairs))) < 2:
        return True
    return any(_is_told_by([others[at] for others, _ in pairs], pairs) for at in range(len(pairs[0][0])))


def _is_told_by(column: Sequence[int], pairs: Sequence[tuple[bytes, int]]) -> bool:
    """Whether each value of the column comes with one of the byte, though enough of them come several times."""
    values = len(set(column))
    is_function = values == len(set(zip(column, (own for _, own in pairs))))
    return is_function and len(pairs) - values >= EVIDENCE


def _rules() -> Iterator[tuple[str, Rule, int]]:
    """(name, rule, sign): 0 for those whose results are joined by exclusive or, otherwise by sums or differences."""
    yield "exclusive or of the other bytes", _exclusive_or, 0
    yield "sum of the other bytes", sum, 1
    yield "negative sum of the other bytes", sum, -1
    for polynomial in POLYNOMIALS:
        yield f"CRC-8 of the other bytes with the polynomial 0x{polynomial:02X}", _crc(polynomial), 0
        yield (f"CRC-8 of the other bytes with the polynomial 0x{polynomial:02X}, reflected", _reflected(polynomial), 0)


def _holds(pairs: Sequence[tuple[bytes, int]], rule: Rule, sign: int) -> bool:
    """Whether what is left is the same for all: what a checksum begins with and what it is joined with in the end."""
    def rest(others: bytes, checksum: int) -> int:
        return checksum ^ rule(others) if sign == 0 else checksum - sign * rule(others) & 0xFF

    first = rest(*pairs[0])
    return all(rest(others, checksum) == first for others, checksum in pairs)


def _exclusive_or(data: bytes) -> int:
    return functools.reduce(lambda one, other: one ^ other, data, 0)


def _crc(polynomial: int) -> Rule:
    table = [_shifted(index, polynomial) for index in range(256)]
    return lambda data: functools.reduce(lambda crc, byte: table[crc ^ byte], data, 0)


def _shifted(crc: int, polynomial: int) -> int:
    for _ in range(8):
        crc = (crc << 1 ^ (polynomial if crc & 0x80 else 0)) & 0xFF
    return crc


def _reflected(polynomial: int) -> Rule:
    plain = _crc(polynomial)
    return lambda data: _MIRRORED[plain(bytes(_MIRRORED[byte] for byte in data))]


_MIRRORED = [int(f"{byte:08b}"[::-1], 2) for byte in range(256)]


def _is_linear(payloads: Sequence[bytes], byte: int) -> bool:
    """Whether each bit of the byte is an exclusive or of bits of the others, for enough payloads that it is no chance:
    those that bring no new combination of bits have to agree with those before."""
    shift = 8 * byte
    numbers = list({int.from_bytes(payload, "little") for payload in payloads})
    own = 0xFF << shift
    basis: dict[int, int] = {}  # by the highest of the other bits
    agreeing = 0
    for number in numbers[1:]:
        left = number ^ numbers[0]
        while others := left & ~own:
            pivot = others.bit_length()
            if pivot not in basis:
                basis[pivot] = left
                break
            left ^= basis[pivot]
        else:
            if left:
                return False
            agreeing += 1
    return agreeing >= EVIDENCE
