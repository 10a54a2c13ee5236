"""Checking schemas before they are sent.

The daemon takes any text for a schema and says nothing about mistakes in it; what is wrong shows as values that
never come or come out wrong. So the mistakes are found here.
"""

import difflib
import math
from collections.abc import Iterable, Iterator, Mapping
from typing import Any, Callable, NamedTuple, Optional

from . import paths
from .errors import Problem, SchemaError, listed, quoted
from .schema import FORMATS, OPTIONS, Leaf, is_leaf, leaf_of, nodes, parse
from .single import single
from .wire import NESTING_LIMIT

FRAME_BYTES = 8
FD_FRAME_BYTES = 64

Found = Iterator[tuple[str, str]]  # (code, message)


def check(schema: Mapping[str, Any], clear: bool = False) -> list[Problem]:
    """Everything that is wrong or doubtful in a schema. One without leaves is an error unless it is to `clear`
    the schema that is in force."""
    problems = []
    placed = []
    has_leaf = is_too_deep = False
    for names, node in nodes(schema):
        if len(names) > NESTING_LIMIT:
            is_too_deep = True
            continue
        has_leaf |= is_leaf(node)
        leaf, is_placed = _usable_leaf(names, node)
        problems += [Problem(paths.join(names), *found) for found in _check_node(node, leaf)]
        if is_leaf(node) and is_placed:
            placed.append(leaf)
    if is_too_deep:
        problems.append(Problem("", "too-deep", f"is nested more than {NESTING_LIMIT} deep"))
    if not has_leaf and not clear:
        problems.append(Problem("", "no-leaf", 'has no leaf, that is, no object with "@mac": the daemon would forget '
                                               "all values, for all its clients"))
    return problems + list(_check_shared_frames(placed))


def check_text(text: str, clear: bool = False) -> list[Problem]:
    """The same of a schema as JSON text, of which more can be said."""
    schema, problems = parse(text)
    is_readable = all(problem.code == "repeated-name" for problem in problems)
    return problems + check(schema, clear) if is_readable else problems


def check_or_raise(schema: Mapping[str, Any], clear: bool = False) -> list[Problem]:
    """The warnings about a schema. Raises SchemaError if there are errors."""
    problems = check(schema, clear)
    if any(problem.is_error for problem in problems):
        raise SchemaError.of(problems)
    return problems


# Options by themselves


class _Kind(NamedTuple):
    """What an option can hold: words for it, and a predicate."""

    words: str
    fits: Callable[[Any], bool]
    least: float = -math.inf
    largest: float = math.inf


def _is_finite_number(value: Any) -> bool:
    if isinstance(value, bool) or not isinstance(value, (int, float)):
        return False
    try:
        return math.isfinite(value)
    except OverflowError:  # a whole number beyond any float
        return False


def _whole(least: int, largest: int) -> _Kind:
    return _Kind("a whole number", lambda value: _is_finite_number(value) and value == int(value), least, largest)


_NUMBER = _Kind("a number", _is_finite_number)
_TEXT = _Kind("a text", lambda value: isinstance(value, str))
_TRUTH = _Kind("true or false", lambda value: isinstance(value, bool))
_KINDS = dict(zip(OPTIONS, (_whole(0, 63), _whole(0, 31), _TEXT, _whole(0, 65535), _NUMBER, _whole(-(2**31), 2**32 - 1),
                            _TRUTH, _whole(0, 2**31 - 1), _TRUTH, _TRUTH)))


def _option_problem(name: str, value: Any) -> Optional[tuple[str, str]]:
    kind = _KINDS[name]
    if not kind.fits(value):
        return "option-type", f'"{name}" is {quoted(value)}: it must be {kind.words}'
    if _is_finite_number(value) and not kind.least <= value <= kind.largest:
        return "option-range", f'"{name}" is {value}: it must be from {kind.least} to {kind.largest}'
    if name == "@factor" and not _has_reciprocal(single(value)):
        return "option-range", f'"@factor" is {value:g}: readings are divided by it in single precision'
    return None


def _has_reciprocal(factor: float) -> bool:
    return factor != 0 and math.isfinite(factor) and math.isfinite(single(1 / factor))


def _usable_leaf(names: tuple[str, ...], node: Mapping[str, Any]) -> tuple[Leaf, bool]:
    """The leaf that the faultless options of a node make, and whether that is certainly its place in the payload."""
    options = {name: node[name] for name in OPTIONS if name in node}
    faultless = {name: value for name, value in options.items() if not _option_problem(name, value)}
    leaf = leaf_of(names, faultless)
    return leaf, len(faultless) == len(options) and leaf.format in FORMATS


# One node. The checks yield (code, message).


def _check_node(node: Mapping[str, Any], leaf: Leaf) -> Found:
    yield from _check_unknown_options(node)
    if is_leaf(node):
        yield from _check_options(node)
        yield from _check_format(node, leaf)
        yield from _check_place(leaf)
        yield from _check_effects(leaf)
        if any(isinstance(member, dict) and name not in OPTIONS for name, member in node.items()):
            yield "leaf-in-leaf", "holds further nodes inside of a leaf: their values and its own replace one another"
    else:
        yield from _check_branch(node)


def _check_unknown_options(node: Mapping[str, Any]) -> Found:
    for name, value in node.items():
        if name.startswith("@") and name not in OPTIONS and not isinstance(value, dict):
            yield "unknown-option", f'"{name}" is no option{_suggestion(name)}; the daemon ignores it'


def _check_branch(node: Mapping[str, Any]) -> Found:
    plain = [name for name, value in node.items() if not isinstance(value, dict)]
    known = [name for name in plain if name in OPTIONS]
    if known:
        yield ("options-without-mac",
               f'has {listed(known)} but no "@mac": without it this is no leaf, and its options are ignored')
    unsigned = [name for name in plain if name.lower() in ("mac", "cmd", "format")]
    if unsigned:
        yield "leaf-without-signs", f'has {listed(unsigned)} but no "@mac": the names of options begin with "@"'


def _check_options(node: Mapping[str, Any]) -> Found:
    for name, value in node.items():
        if name in OPTIONS:
            problem = _option_problem(name, value)
            if problem:
                yield problem
        elif _option_in_other_letters("@" + name) and not isinstance(value, dict):
            yield "option-without-sign", f'"{name}" has no meaning for the daemon{_suggestion("@" + name)}'
    if "@cmd" not in node:
        yield "no-cmd", '"@cmd" is missing, which counts as 0'


def _check_format(node: Mapping[str, Any], leaf: Leaf) -> Found:
    text = node.get("@format")
    if "@format" not in node:
        yield "no-format", '"@format" is missing: the daemon neither reads nor writes such a leaf'
    elif isinstance(text, str) and leaf.format not in FORMATS:
        yield ("unknown-format", f'"@format" is {quoted(text)}: it must be one of {" ".join(FORMATS)}; '
                                 "the daemon neither reads nor writes any other")
    elif isinstance(text, str) and len(text) > 1:
        yield "long-format", f'only the first character of "@format" counts: {quoted(text)} is "{leaf.format}"'


def _check_place(leaf: Leaf) -> Found:
    end = leaf.skip + leaf.width
    if leaf.width == 0 or end <= FRAME_BYTES or leaf.fragmentation:
        return
    if end > FD_FRAME_BYTES:
        yield ("beyond-any-frame",
               f'needs {end} bytes: no frame is that long, and it is not written without "@fragmentation"')
    else:
        yield ("beyond-frame", f"needs {end} bytes, a CAN frame has {FRAME_BYTES}: it is read from CAN FD frames only, "
                               'and written only with "@fragmentation": true')


def _check_effects(leaf: Leaf) -> Found:
    if leaf.format == "c" and leaf.flush_size > 0 and not leaf.is_scaled:
        yield ("unreadable-array", '"c" with "@flushSize" makes every message that carries it unreadable for all '
                                   'clients: use "C", which reads the same')
    if leaf.format == "p":
        yield from _check_packed(leaf)
    elif leaf.observe and leaf.flush_size != 0:
        yield "no-effect", '"@observe" has no effect beside "@flushSize"'
    if leaf.format in FORMATS and leaf.is_masked and not FORMATS[leaf.format].masked:
        yield "no-effect", f'"@mask" is not applied by the format "{leaf.format}" and only makes the leaf read-only'


def _check_packed(leaf: Leaf) -> Found:
    yield "write-only", '"p" is only for writing: the daemon never reads a value of this format'
    if not leaf.fragmentation:
        yield "packed-cut", 'a packed value of more than 8 bytes is cut without "@fragmentation": true'
    if leaf.as_bool:
        yield "no-effect", '"@asBool" has no effect on "p" but to make the leaf read-only'
    for name, is_set in (("@skip", leaf.skip != 0), ("@factor", leaf.is_scaled), ("@flushSize", leaf.flush_size != 0),
                         ("@observe", leaf.observe)):
        if is_set:
            yield "no-effect", f'"{name}" has no effect on "p"'


# The leaves of one node and command


def _check_shared_frames(leaves: Iterable[Leaf]) -> Iterator[Problem]:
    by_endpoint: dict[tuple[int, int], list[Leaf]] = {}
    for leaf in sorted(leaves, key=lambda leaf: leaf.names):  # the daemon goes by names
        by_endpoint.setdefault(leaf.endpoint, []).append(leaf)
    for together in by_endpoint.values():
        yield from _overlaps(together)
        yield from _mixed_fragmentation(together)


def _overlaps(leaves: list[Leaf]) -> Iterator[Problem]:
    """Each leaf that uses bits of one before it is told once."""
    users: dict[int, Leaf] = {}
    for leaf in leaves:
        bits = list(_bits(leaf))
        other = next((users[bit] for bit in bits if bit in users), None)
        if other:
            shared = sorted({bit // 8 for bit in bits} & {bit // 8 for bit in _bits(other)})
            yield Problem(leaf.path, "overlap", _overlap(leaf, other, shared))
        for bit in bits:
            users.setdefault(bit, leaf)


def _bits(leaf: Leaf) -> Iterator[int]:
    """The bits of the payload that a leaf reads."""
    mask = int(leaf.mask) if FORMATS[leaf.format].masked else -1
    return (int(leaf.skip) * 8 + bit for bit in range(8 * leaf.width) if mask >> bit & 1)


def _overlap(leaf: Leaf, other: Leaf, shared: list[int]) -> str:
    where = f"byte {shared[0]}" if len(shared) == 1 else f"bytes {shared[0]} to {shared[-1]}"
    writable = not leaf.is_read_only and not other.is_read_only
    return (f"overlaps {other.path}: both use {where} of {_named(leaf)}"
            + ("; written together, one destroys the other" if writable else ""))


def _mixed_fragmentation(leaves: list[Leaf]) -> Iterator[Problem]:
    other = next((leaf for leaf in leaves if leaf.fragmentation != leaves[0].fragmentation), None)
    if other:
        yield Problem(other.path, "mixed-fragmentation",
                      f'"@fragmentation" differs from that of {leaves[0].path}, also {_named(other)}: in each message '
                      "the first leaf by name decides for all")


def _named(leaf: Leaf) -> str:
    return f"mac {leaf.mac:g}, cmd {leaf.cmd:g}"


# Words


def _option_in_other_letters(name: str) -> Optional[str]:
    return next((option for option in OPTIONS if option.lower() == name.lower()), None)


def _suggestion(name: str) -> str:
    close = difflib.get_close_matches(name.lower(), [option.lower() for option in OPTIONS], n=1)
    return f' (did you mean "{_option_in_other_letters(close[0])}"?)' if close else ""
