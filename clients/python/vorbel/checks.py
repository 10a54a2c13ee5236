"""Checking schemas before they are sent.

The daemon takes any text for a schema and says nothing about mistakes in it; what is wrong shows as values that
never come or come out wrong. So the mistakes are found here.
"""

import difflib
import math
from collections.abc import Iterable, Iterator, Mapping
from typing import Any, Optional

from . import paths
from .errors import Problem, SchemaError, listed, quoted
from .kinds import NUMBER, TEXT, TRUTH, Kind, is_finite_number, whole
from .meaning import mask_of
from .members import KINDS, MAPS, Meaning, is_member
from .schema import FORMATS, OPTIONS, Leaf, below, is_leaf, leaf_of, nodes, parse
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
    known = []
    is_too_deep = False
    for names, node in nodes(schema):
        if len(names) > NESTING_LIMIT:
            is_too_deep = True
            continue
        leaf, is_placed = _usable_leaf(names, node)
        problems += [Problem(paths.join(names), *found) for found in _check_node(node, leaf)]
        if is_leaf(node):
            known.append(leaf)
            placed += [leaf] if is_placed else []
    if is_too_deep:
        problems.append(Problem("", "too-deep", f"is nested more than {NESTING_LIMIT} deep"))
    if not known and not clear:
        problems.append(Problem("", "no-leaf", 'has no leaf, that is, no object with "@mac": the daemon would forget '
                                               "all values, for all its clients"))
    return problems + list(_check_selectors(known)) + list(_check_shared_frames(placed))


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


# Options and members by themselves

_KINDS = dict(zip(OPTIONS, (whole(0, 63), whole(0, 31), TEXT, whole(0, 65535), NUMBER, whole(-(2**31), 2**32 - 1),
                            TRUTH, whole(0, 2**31 - 1), TRUTH, TRUTH)))


def _misfit(kind: Kind, name: str, value: Any) -> Optional[tuple[str, str]]:
    """What is wrong with the type, or else the range, of a value: ("type" or "range", message)."""
    if not kind.fits(value):
        return "type", f'"{name}" is {quoted(value)}: it must be {kind.words}'
    if is_finite_number(value) and not kind.least <= value <= kind.largest:
        return "range", f'"{name}" is {value}: it must be from {kind.least} to {kind.largest}'
    return None


def _option_problem(name: str, value: Any) -> Optional[tuple[str, str]]:
    misfit = _misfit(_KINDS[name], name, value)
    if misfit:
        return f"option-{misfit[0]}", misfit[1]
    if name == "@factor" and not _has_reciprocal(single(value)):
        return "option-range", f'"@factor" is {value:g}: readings are divided by it in single precision'
    return None


def _has_reciprocal(factor: float) -> bool:
    return factor != 0 and math.isfinite(factor) and math.isfinite(single(1 / factor))


def _usable_leaf(names: tuple[str, ...], node: Mapping[str, Any]) -> tuple[Leaf, bool]:
    """The leaf that the faultless options of a node make, and whether that is certainly its place in the payload."""
    options = {name: node[name] for name in OPTIONS if name in node}
    faultless = {name: value for name, value in options.items() if not _option_problem(name, value)}
    leaf = leaf_of(names, {**faultless, **{name: value for name, value in node.items() if is_member(name, value)}})
    return leaf, len(faultless) == len(options) and leaf.format in FORMATS


# One node. The checks yield (code, message).


def _check_node(node: Mapping[str, Any], leaf: Leaf) -> Found:
    yield from _check_unknown_options(node)
    if is_leaf(node):
        yield from _check_options(node)
        yield from _check_format(node, leaf)
        yield from _check_place(leaf)
        yield from _check_effects(leaf)
        yield from _check_members(node, leaf)
        if any(name not in OPTIONS for name, _ in below(node)):
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


# Members for people


def _check_members(node: Mapping[str, Any], leaf: Leaf) -> Found:
    for name, kind in KINDS.items():
        if name in node and (name in MAPS or not isinstance(node[name], dict)):
            misfit = _misfit(kind, name, node[name])
            if misfit:
                yield f"member-{misfit[0]}", misfit[1]
            elif name == "scale" and node[name] == 0:
                yield "member-range", '"scale" is 0: all fields would mean the same'
    yield from _check_ranges(leaf.meaning, 8 * leaf.width)
    yield from _check_arrangement(leaf)
    yield from _check_combinations(leaf)


def _check_ranges(meaning: Meaning, width: int) -> Found:
    if meaning.bits and width and not 0 <= meaning.bits[0] < sum(meaning.bits) <= width:
        yield "member-range", f'"bits" is {list(meaning.bits)}: the reading has the bits 0 to {width - 1}'
    for words, low, high in (('"min" is above "max"', meaning.least, meaning.largest),
                             ('the low end of "warn" is above the high one', *meaning.warn),
                             ('the low end of "alarm" is above the high one', *meaning.alarm)):
        if low is not None and high is not None and low > high:
            yield "member-range", f"{words}: {low:g} and {high:g}"


def _check_arrangement(leaf: Leaf) -> Found:
    """What puts the bits of a reading in order needs to know them."""
    meaning = leaf.meaning
    used = listed(name for name, is_set in (("bits", meaning.bits), ("swapped", meaning.swapped),
                                            ("signed", meaning.signed), ("float", meaning.is_float)) if is_set)
    if used and leaf.format in FORMATS and not leaf.is_whole:
        yield "member-conflict", f"{used} needs whole numbers for readings, without a factor and \"@asBool\""
    elif meaning.is_float and leaf.width in (1, 2):
        yield "member-conflict", f'"float" needs 4 bytes, the format "{leaf.format}" has {leaf.width}'
    if meaning.is_float and (meaning.bits or meaning.signed):
        yield "member-conflict", '"float" takes all bits as they are: "bits" and "signed" do not go with it'
    if meaning.swapped and leaf.width == 1:
        yield "no-effect", '"swapped" has no effect on a single byte'
    if meaning.initial is not None and not leaf.is_part and leaf.format in FORMATS:
        yield "no-effect", '"initial" has no effect without "bits" that leave others over'


def _check_combinations(leaf: Leaf) -> Found:
    labels = list(leaf.meaning.labels.values())
    repeated = {label for label in labels if labels.count(label) > 1}
    if repeated:
        yield "member-conflict", f"{listed(sorted(repeated))} in \"labels\" stands for several fields"
    if leaf.meaning.when and (leaf.observe or leaf.flush_size):
        yield ("member-conflict", '"when" does not go with "@observe" or "@flushSize": these would take readings that '
                                  "do not count with those that do")


def _check_selectors(leaves: Iterable[Leaf]) -> Iterator[Problem]:
    by_path = {leaf.path: leaf for leaf in leaves}
    for path, leaf in by_path.items():
        if leaf.meaning.when:
            found = _selector_problem(leaf, by_path)
            if found:
                yield Problem(path, *found)


def _selector_problem(leaf: Leaf, by_path: Mapping[str, Leaf]) -> Optional[tuple[str, str]]:
    asked = {leaf.path}
    selector: Optional[Leaf] = leaf
    while selector and selector.meaning.when:
        path = selector.meaning.when.path
        if path in asked:
            return "unknown-when", f'"when" leads back to {paths.shown(path)}'
        asked.add(path)
        selector = by_path.get(path)
    first = by_path.get(leaf.meaning.when.path) if leaf.meaning.when else None
    if first is None:
        return "unknown-when", f'"when" names {quoted(leaf.meaning.when and leaf.meaning.when.path)}, which is no leaf'
    if first.endpoint != leaf.endpoint:
        return "when-elsewhere", f'"when" names {paths.shown(first.path)}, which is read from other frames'
    if first.observe or first.flush_size or first.width == 0:
        return "when-elsewhere", f'"when" names {paths.shown(first.path)}, which is not in every message'
    return None


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
    users: dict[int, list[Leaf]] = {}
    for leaf in leaves:
        bits = _bits(leaf)
        other = next((user for bit in bits for user in users.get(bit, ()) if not _are_apart(user, leaf)), None)
        if other:
            shared = sorted({bit // 8 for bit in bits} & {bit // 8 for bit in _bits(other)})
            yield Problem(leaf.path, "overlap", _overlap(leaf, other, shared))
        for bit in bits:
            if not other or bit not in users:
                users.setdefault(bit, []).append(leaf)


def _bits(leaf: Leaf) -> list[int]:
    """The bits of the payload that a leaf reads."""
    mask = int(leaf.mask) if FORMATS[leaf.format].masked else -1
    if leaf.is_arranged:
        mask &= mask_of(leaf)
    return [int(leaf.skip) * 8 + bit for bit in range(8 * leaf.width) if mask >> bit & 1]


def _are_apart(one: Leaf, other: Leaf) -> bool:
    """Whether no frame has a value of both."""
    first, second = one.meaning.when, other.meaning.when
    return first is not None and second is not None and first.path == second.path and first.value != second.value


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
