"""Reading and checking schemas before they are sent, and values before they are written.

The daemon takes any text for a schema and says nothing about mistakes in it; what is wrong shows as values that
never come or come out wrong. So the mistakes are found here.
"""

import difflib
import json
import math
import os
from typing import NamedTuple

from . import paths
from .errors import SchemaError
from .wire import NESTING_LIMIT  # the daemon reads 1024 in a schema, but its values have to be decoded, too

MESSAGE_LIMIT = 4 * 1024 * 1024  # bytes the daemon takes in one message

FRAME_BYTES = 8
FD_FRAME_BYTES = 64
WIDTHS = {"C": 1, "c": 1, "S": 2, "s": 2, "Q": 2, "q": 2, "I": 4, "i": 4, "f": 4}  # "p" has none of its own
MASKED = set("CcSsIi")
ALL_BITS = (-1, 2**32 - 1)  # a mask that masks nothing, signed or unsigned

# What an option holds: the word for it in messages, the least and the largest value.
OPTIONS = {
    "@mac": ("a whole number", 0, 63),
    "@cmd": ("a whole number", 0, 31),
    "@format": ("a text", None, None),
    "@skip": ("a whole number", 0, 65535),
    "@flushSize": ("a whole number", 0, 2**31 - 1),
    "@factor": ("a number", None, None),
    "@mask": ("a whole number", -(2**31), 2**32 - 1),
    "@asBool": ("true or false", None, None),
    "@observe": ("true or false", None, None),
    "@fragmentation": ("true or false", None, None),
}


class Problem(NamedTuple):
    """Something about the leaf or group at the dotted `path`. Only an `error` keeps a schema from being sent."""

    path: str
    message: str
    error: bool = True

    def __str__(self):
        return f"{paths.shown(self.path) or 'the root'}: {'' if self.error else 'warning: '}{self.message}"


def load_schema(source) -> dict:
    """A schema from a file (its path) or a dict. Raises SchemaError for what is not a JSON object."""
    if isinstance(source, dict):
        return source
    try:
        with open(source, encoding="utf-8-sig") as file:  # some editors begin a file with a byte order mark
            text = file.read()
    except OSError as error:
        raise SchemaError(f"The schema {os.fspath(source)} cannot be read: {error.strerror}") from None
    except UnicodeDecodeError as error:
        raise SchemaError(f"The schema {os.fspath(source)} is no text in UTF-8: {error}") from None
    return parse_schema(text, os.fspath(source))


def parse_schema(text: str, name: str = "the schema") -> dict:
    try:
        schema = json.loads(text, object_pairs_hook=_without_repetition, parse_constant=_no_constant)
    except json.JSONDecodeError as error:
        raise SchemaError(f"{name} is not JSON: line {error.lineno}, column {error.colno}: {error.msg}") from None
    except ValueError as error:
        raise SchemaError(f"{name}: {error}") from None
    except RecursionError:
        raise SchemaError(f"{name} is nested too deep") from None
    if not isinstance(schema, dict):
        raise SchemaError(f"{name} is no JSON object: the daemon would take it for an empty schema")
    return schema


def to_text(schema: dict) -> str:
    """The text message that carries a schema. Raises SchemaError for what the daemon would not take."""
    try:
        text = json.dumps(schema, ensure_ascii=False, separators=(",", ":"), allow_nan=False)
        size = len(text.encode())
    except (TypeError, ValueError, RecursionError) as error:
        raise SchemaError(f"The schema cannot be written as JSON: {error}") from None
    if size > MESSAGE_LIMIT:
        raise SchemaError(f"The schema has {size} bytes: the daemon closes the connection at more than 4 MiB")
    return text


def check(schema: dict) -> list:
    """Everything that is wrong or doubtful in a schema, as a list of Problem in the order of the document."""
    problems = []
    endpoints = {}
    for names, node, depth in _nodes(schema):
        path = paths.join(names)
        if depth > NESTING_LIMIT:
            return problems + [Problem(path, f"nested more than {NESTING_LIMIT} deep")]
        found = _check_node(node)
        problems += [Problem(path, *each) for each in found]
        if "@mac" in node and not any(error for _, error in found):
            endpoints.setdefault((node["@mac"], node.get("@cmd", 0)), []).append((path, node))
    for endpoint, leaves in endpoints.items():
        problems += _check_endpoint(endpoint, leaves)
    return problems


def check_or_raise(schema: dict) -> list:
    """The warnings about a schema. Raises SchemaError if there are errors."""
    problems = check(schema)
    errors = [problem for problem in problems if problem.error]
    if errors:
        raise SchemaError("The schema was not sent:\n" + "\n".join(f"  {error}" for error in errors), problems)
    return problems


def leaves(schema: dict) -> dict:
    """{dotted path: leaf} of all leaves."""
    return {paths.join(names): node for names, node, _ in _nodes(schema) if "@mac" in node}


def is_read_only(leaf: dict) -> bool:
    """Whether readings lose bits on the way in, so that the daemon refuses to write them back."""
    return bool(leaf.get("@asBool")) or leaf.get("@mask", -1) not in ALL_BITS


def check_write(schema: dict, values: dict) -> list:
    """What the daemon would ignore, or write otherwise than it stands in `values`, as a list of Problem."""
    if not isinstance(values, dict):
        return [Problem("", "values are written as a map from names, not as a value of its own")]
    return _check_members(schema, values, ())


# The document


def _nodes(schema):
    """(names, object, depth) of all objects in the document, in its order."""
    waiting = [((), schema)]
    while waiting:
        names, node = waiting.pop()
        yield names, node, len(names)
        members = [((*names, name), member) for name, member in node.items() if isinstance(member, dict)]
        waiting += reversed(members)


def _without_repetition(pairs):
    members = dict(pairs)
    if len(members) < len(pairs):
        names = [name for name, _ in pairs]
        twice = next(name for name in names if names.count(name) > 1)
        raise ValueError(f'"{twice}" is there twice in one object, of which only the last would count')
    return members


def _no_constant(text):
    raise ValueError(f"{text} is not JSON")


# One leaf. The checks yield (message, whether it is an error).


def _check_node(node):
    found = list(_check_names(node))
    if "@mac" in node:
        found += _check_types(node)
        if not any(error for _, error in found):
            found += _check_leaf(node)
    return found


def _check_names(node):
    known = [name for name in node if name in OPTIONS]
    if known and "@mac" not in node:
        yield f'has {_listed(known)} but no "@mac": without it this is no leaf, and its options are ignored', True
    for name in node:
        if name.startswith("@") and name not in OPTIONS:
            yield f'"{name}" is no option{_suggestion(name)}; the daemon ignores it', True
        elif "@mac" in node and f"@{name.lower()}" in {option.lower() for option in OPTIONS}:
            yield f'"{name}" has no meaning for the daemon{_suggestion("@" + name)}', False


def _check_types(leaf):
    for name, value in leaf.items():
        if name in OPTIONS:
            kind, least, largest = OPTIONS[name]
            if not _is_kind(kind, value):
                yield f'"{name}" is {_shown(value)}: it must be {kind}', True
            elif least is not None and not least <= value <= largest:
                yield f'"{name}" is {value}: it must be from {least} to {largest}', True
    for name in ("@cmd", "@format"):
        if name not in leaf:
            yield f'"{name}" is missing', True


def _check_leaf(leaf):
    code = leaf["@format"][:1]
    if code not in WIDTHS and code != "p":
        yield (f'"@format" is {_shown(leaf["@format"])}: it must be one of C c S s Q q I i f p; '
               "the daemon neither reads nor writes any other"), True
        return
    if len(leaf["@format"]) > 1:
        yield f'only the first character of "@format" counts: {_shown(leaf["@format"])} is "{code}"', False
    if not _has_reciprocal(leaf.get("@factor", 1)):
        yield f'"@factor" is {leaf["@factor"]:g}: readings are divided by it in single precision', True
    yield from (_check_packed(leaf) if code == "p" else _check_fixed(leaf, code))
    if leaf.get("@observe") and leaf.get("@flushSize", 0) != 0:
        yield '"@observe" has no effect beside "@flushSize"', False
    if any(isinstance(member, dict) for member in leaf.values()):
        yield "holds further nodes inside of a leaf: their values and its own replace one another", False


def _check_packed(leaf):
    yield '"p" is only for writing: the daemon never reads a value of this format', False
    if not leaf.get("@fragmentation"):
        yield 'a packed value of more than 8 bytes is cut without "@fragmentation": true', False
    unused = [name for name in ("@skip", "@factor", "@flushSize", "@observe") if name in leaf]
    if unused:
        yield f'{_listed(unused)} {"has" if len(unused) == 1 else "have"} no effect on "p"', False


def _check_fixed(leaf, code):
    end = leaf.get("@skip", 0) + WIDTHS[code]
    if end > FRAME_BYTES and not leaf.get("@fragmentation"):
        yield (f"needs {end} bytes, a CAN frame has {FRAME_BYTES}: it is read from CAN FD frames only, and "
               'written only with "@fragmentation": true'), end > FD_FRAME_BYTES
    if code == "c" and leaf.get("@flushSize", 0) > 0 and leaf.get("@factor", 1) == 1:
        yield ('"c" with "@flushSize" makes every message that carries it unreadable for all clients: '
               'use "C", which reads the same'), True
    if leaf.get("@mask", -1) not in ALL_BITS and code not in MASKED:
        yield f'"@mask" is not applied by the format "{code}" and only makes the leaf read-only', False


# The leaves of one endpoint


def _check_endpoint(endpoint, leaves_of_it):
    placed = [(path, leaf, _bits(leaf)) for path, leaf in leaves_of_it]
    for number, (path, leaf, bits) in enumerate(placed):
        for other_path, other, other_bits in placed[:number]:
            if bits & other_bits:
                yield _overlap(endpoint, (path, leaf), (other_path, other), bits & other_bits)
                break
    if len({bool(leaf.get("@fragmentation")) for _, leaf in leaves_of_it}) > 1:
        yield Problem(leaves_of_it[0][0], f'{_named(endpoint)} is "@fragmentation" in some leaves only: in each '
                      "message the first leaf by name decides for all", False)


def _bits(leaf) -> int:
    """The bits of the payload that a leaf reads, as a number."""
    width = WIDTHS.get(leaf["@format"][0], 0)
    mask = (1 << 8 * width) - 1
    if leaf["@format"][0] in MASKED:
        mask &= int(leaf.get("@mask", -1))
    return mask << 8 * int(leaf.get("@skip", 0))


def _overlap(endpoint, one, other, bits):
    """Two leaves on the same bits. Where one is read-only they may be meant: a byte, and flags out of it."""
    first = ((bits & -bits).bit_length() - 1) // 8
    last = (bits.bit_length() - 1) // 8
    where = f"byte {first}" if first == last else f"bytes {first} to {last}"
    writable = not is_read_only(one[1]) and not is_read_only(other[1])
    return Problem(one[0], f"overlaps {other[0]}: both use {where} of {_named(endpoint)}", writable)


def _named(endpoint):
    return f"mac {endpoint[0]}, cmd {endpoint[1]}"


# Words


def _is_kind(kind, value):
    if kind == "a text":
        return isinstance(value, str)
    if kind == "true or false":
        return isinstance(value, bool)
    if isinstance(value, bool) or not isinstance(value, (int, float)) or not _is_finite(value):
        return False
    return kind == "a number" or value == int(value)


def _is_finite(number):
    try:
        return math.isfinite(number)
    except OverflowError:  # a whole number beyond any float
        return False


def _has_reciprocal(factor):
    """Whether dividing by the factor gives something else than 0 or infinity, as 32-bit floats go."""
    return 3e-39 < abs(factor) < 3.4e38


def _shown(value):
    text = json.dumps(value, ensure_ascii=False, default=str)
    return text if len(text) <= 40 else text[:37] + "..."


def _suggestion(name):
    close = difflib.get_close_matches(name.lower(), [option.lower() for option in OPTIONS], n=1)
    meant = next((option for option in OPTIONS if [option.lower()] == close), None)
    return f' (did you mean "{meant}"?)' if meant else ""


def _listed(names):
    return ", ".join(f'"{name}"' for name in names)


# Values to write


def _check_members(node, values, names):
    problems = []
    for name, value in values.items():
        path = paths.join((*names, name))
        member = node.get(name)
        if not isinstance(member, dict):
            problems.append(Problem(path, "does not exist in the schema"))
        elif "@mac" in member:
            problems += [Problem(path, message) for message in _check_value(member, value)]
        elif isinstance(value, dict):
            problems += _check_members(member, value, (*names, name))
        else:
            problems.append(Problem(path, f"is a group of values, not a value: {_listed(member) or 'it is empty'}"))
    return problems


def _check_value(leaf, value):
    code = str(leaf.get("@format", ""))[:1]
    if is_read_only(leaf):
        options = [name for name in ("@asBool", "@mask") if name in leaf]
        yield f"is read-only, because its schema has {_listed(options)}"
    elif code not in WIDTHS and code != "p":
        yield f"has the format {_shown(leaf.get('@format'))}, which cannot be written"
    elif code != "p" and value is not None:
        yield from _check_number(leaf, code, value)


def _check_number(leaf, code, value):
    factor = leaf.get("@factor", 1)
    if not hasattr(value, "__float__") or hasattr(value, "__len__"):
        yield f"takes a number, not {_shown(value)}"
    elif not _is_finite(value):
        if code != "f" or factor != 1:
            yield f"takes a finite number, not {_shown(value)}"
    elif code != "f" or factor != 1:
        yield from _check_range(WIDTHS[code] * 8, value, factor)


def _check_range(bits, value, factor):
    """With a factor the daemon clamps to the signed range, also for unsigned formats; without, it wraps."""
    least = -(1 << bits - 1)
    largest = (1 << bits) - 1 if factor == 1 else (1 << bits - 1) - 1
    written = value * factor
    if not least <= written <= largest:
        product = "" if factor == 1 else f" times the factor {factor} is {written:g}, which"
        yield f"{value}{product} is outside of {least} to {largest}"
