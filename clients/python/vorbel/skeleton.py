"""A schema to begin with: a group for each node and command, and in it a leaf for each field that was found."""

import dataclasses
import itertools
from collections.abc import Iterable, Mapping
from typing import Any

from .fields import Field
from .tap import BYTES, NODES


def skeleton(found: Mapping[int, tuple[int, list[Field]]]) -> dict[str, Any]:
    """The schema for the fields of endpoints, by their identifiers, each with the length of its frames."""
    schema: dict[str, Any] = {}
    for identifier, (length, fields) in sorted(found.items(), key=lambda each: (each[0] % NODES, each[0])):
        node, command = identifier % NODES, identifier // NODES
        group = schema.setdefault(f"node{node}", {}).setdefault(f"command{command}", {})
        for field in itertools.chain(*(_parts(field, length) for field in fields)):
            group[name_of(field)] = {"@mac": node, "@cmd": command, **leaf_of(field, length)}
    return schema


def name_of(field: Field) -> str:
    last = field.byte + field.width - 1
    place = f"{field.byte}" if field.width == 1 else f"{field.byte}to{last}"
    lowest, count = field.bits
    if field.is_whole:
        return f"{field.kind}{place}"
    bits = f"bit{lowest}" if count == 1 else f"bits{lowest}to{lowest + count - 1}"
    return f"{field.kind}{place}{bits}"


def _parts(field: Field, length: int) -> list[Field]:
    """The field, or the two that stand for it where it has three bytes, and the frame no fourth one: a leaf has one,
    two or four."""
    if field.width != 3 or length > 3:
        return [field]
    low, high = (1, 0) if field.swapped else (0, 2)
    lowest, count = field.bits
    reason = f"{field.reason}; a part of it, as no leaf has three bytes"
    return [dataclasses.replace(field, byte=low, width=2, bits=(lowest, 16 - lowest), signed=False, reason=reason),
            dataclasses.replace(field, byte=high, width=1, bits=(0, lowest + count - 16), swapped=False, reason=reason)]


def leaf_of(field: Field, length: int) -> dict[str, Any]:
    """What of a leaf says where the field is and how it is read. There is no format of three bytes: one of four then
    has one that is not the field's."""
    byte, width, (lowest, count) = field.byte, field.width, field.bits
    if width == 3:
        before = 1 if byte + 4 > min(length, BYTES) else 0
        byte, width = byte - before, 4
        lowest += 8 * (1 - before if field.swapped else before)
    is_part = (lowest, count) != (0, 8 * width)
    members: dict[str, Any] = {"@format": {1: "C", 2: "S", 4: "I"}[width], "@skip": byte}
    if field.kind == "float" and not field.swapped:
        members["@format"] = "f"
    elif field.signed and width > 1 and not field.swapped and not is_part:
        members["@format"] = members["@format"].lower()
    else:
        members.update(_arrangement(field, (lowest, count) if is_part else None))
    members["description"] = field.reason
    return members


def _arrangement(field: Field, bits: Any) -> Iterable[tuple[str, Any]]:
    """The members for people that take the field out of the reading."""
    if bits:
        yield "bits", list(bits)
    if field.swapped:
        yield "swapped", True
    if field.signed:
        yield "signed", True
    if field.kind == "float":
        yield "float", True
