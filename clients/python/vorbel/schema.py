"""What a schema may say, and reading one."""

import functools
import json
import os
from collections.abc import Iterator, Mapping
from dataclasses import dataclass
from typing import Any, NamedTuple, Union

from . import paths
from .errors import Problem, SchemaError
from .members import Meaning, is_member, meaning_of
from .single import single
from .wire import NESTING_LIMIT  # the daemon reads 1024 in a schema, but its values have to be decoded, too

MESSAGE_LIMIT = 4 * 1024 * 1024  # bytes the daemon takes in one message
ALL_BITS = (-1, 2**32 - 1)  # a mask that masks nothing, signed or unsigned

Source = Union[str, "os.PathLike[str]", dict[str, Any]]


class Format(NamedTuple):
    """How many bytes a leaf has, whether a mask is applied to its readings, and whether these are whole numbers."""

    width: int
    masked: bool
    whole: bool


FORMATS = {
    "C": Format(1, True, True), "c": Format(1, True, True), "S": Format(2, True, True), "s": Format(2, True, True),
    "Q": Format(2, False, True), "q": Format(2, False, True), "I": Format(4, True, True), "i": Format(4, True, True),
    "f": Format(4, False, False), "p": Format(0, False, False),
}

OPTIONS = ("@mac", "@cmd", "@format", "@skip", "@factor", "@mask", "@asBool", "@flushSize", "@observe",
           "@fragmentation")


@dataclass(frozen=True)
class Leaf:
    """One value that a schema describes; an option that is absent has the daemon's default."""

    names: tuple[str, ...]
    mac: int
    cmd: int
    format: str  # one character; "" if there is none
    skip: int
    factor: float
    mask: int
    as_bool: bool
    flush_size: int
    observe: bool
    fragmentation: bool
    meaning: Meaning = Meaning()

    @property
    def path(self) -> str:
        return paths.join(self.names)

    @property
    def endpoint(self) -> tuple[int, int]:
        """Frames go out in this order."""
        return self.cmd, self.mac

    @property
    def width(self) -> int:
        return FORMATS[self.format].width if self.format in FORMATS else 0

    @property
    def is_masked(self) -> bool:
        return self.mask not in ALL_BITS

    @functools.cached_property
    def single_factor(self) -> float:
        """As the daemon has it."""
        return single(self.factor)

    @property
    def is_scaled(self) -> bool:
        return self.single_factor != 1

    @property
    def is_read_only(self) -> bool:
        """Readings lose bits on the way in, so that the daemon refuses to write them back; or no client shall."""
        return self.as_bool or self.is_masked or self.meaning.readonly

    @property
    def is_whole(self) -> bool:
        """Whether readings are whole numbers, as they are on the bus."""
        return self.format in FORMATS and FORMATS[self.format].whole and not self.is_scaled and not self.as_bool

    @property
    def is_arranged(self) -> bool:
        """Whether the field has to be taken out of the reading. Members that do not apply here are without effect."""
        return self.meaning.is_arranged and self.is_whole

    @property
    def is_float(self) -> bool:
        """Whether the field is a number of single precision, though the format is not."""
        return self.meaning.is_float and self.is_whole and self.width == 4

    @property
    def bits(self) -> tuple[int, int]:
        """The lowest bit of the field and how many it has, within the reading in the order of its bytes."""
        most = 8 * self.width
        lowest, count = self.meaning.bits or (0, most)
        return (lowest, count) if 0 <= lowest < lowest + count <= most else (0, most)

    @property
    def is_part(self) -> bool:
        """Whether the reading has bits beside the field."""
        return self.is_arranged and self.bits[1] < 8 * self.width


def is_leaf(node: Mapping[str, Any]) -> bool:
    return "@mac" in node


def below(node: Mapping[str, Any]) -> Iterator[tuple[str, dict[str, Any]]]:
    """(name, object) of the nodes in a node: all objects but what a leaf has for people."""
    has_members = is_leaf(node)
    for name, member in node.items():
        if isinstance(member, dict) and not (has_members and is_member(name, member)):
            yield name, member


def leaf_of(names: tuple[str, ...], options: Mapping[str, Any]) -> Leaf:
    return Leaf(names=names, mac=options.get("@mac", 0), cmd=options.get("@cmd", 0),
                format=str(options.get("@format", ""))[:1], skip=options.get("@skip", 0),
                factor=options.get("@factor", 1), mask=options.get("@mask", -1),
                as_bool=bool(options.get("@asBool", False)), flush_size=options.get("@flushSize", 0),
                observe=bool(options.get("@observe", False)), fragmentation=bool(options.get("@fragmentation", False)),
                meaning=meaning_of(options))


def nodes(schema: Mapping[str, Any]) -> Iterator[tuple[tuple[str, ...], dict[str, Any]]]:
    """(names, object) of all objects in the document, in its order; none below one that is too deep already."""
    waiting: list[tuple[tuple[str, ...], Any]] = [((), schema)]
    while waiting:
        names, node = waiting.pop()
        yield names, node
        if len(names) <= NESTING_LIMIT:
            waiting += reversed([((*names, name), member) for name, member in below(node)])


def leaves(schema: Mapping[str, Any]) -> dict[str, Leaf]:
    """{path: leaf} of all leaves."""
    return {paths.join(names): leaf_of(names, node) for names, node in nodes(schema) if is_leaf(node)}


# Reading


def load_schema(source: Source) -> dict[str, Any]:
    """A schema from a file (its path) or a dict. Raises SchemaError for what cannot be read, and with its problems
    for what is no JSON object or names something twice."""
    if isinstance(source, dict):
        return source
    schema, problems = parse(read(source))
    if problems:
        raise SchemaError.of(problems, os.fspath(source))
    return schema


def read(path: Union[str, "os.PathLike[str]"]) -> str:
    """The text of a file. Raises SchemaError."""
    try:
        with open(path, encoding="utf-8-sig") as file:  # some editors begin a file with a byte order mark
            return file.read()
    except OSError as error:
        raise SchemaError(f"The schema {os.fspath(path)} cannot be read: {error.strerror}") from None
    except UnicodeDecodeError as error:
        raise SchemaError(f"The schema {os.fspath(path)} is no text in UTF-8: {error}") from None


def parse(text: str) -> tuple[dict[str, Any], list[Problem]]:
    """The schema that a text of JSON holds, and what keeps it from being one as it stands."""
    repeated: list[tuple[dict[str, Any], str]] = []
    try:
        document = json.loads(text, object_pairs_hook=lambda pairs: _object(pairs, repeated),
                              parse_constant=_no_constant)
    except json.JSONDecodeError as error:
        return {}, [Problem("", "not-json", f"is no JSON: line {error.lineno}, column {error.colno}: {error.msg}")]
    except ValueError as error:
        return {}, [Problem("", "not-json", f"is no JSON: {error}")]
    except RecursionError:
        return {}, [Problem("", "not-json", "is nested too deep to be read")]
    if not isinstance(document, dict):
        return {}, [Problem("", "not-an-object", "is no JSON object: the daemon would take it for an empty schema")]
    return document, list(_repetitions(document, repeated)) if repeated else []


def to_text(schema: Mapping[str, Any]) -> str:
    """The text message that carries a schema. Raises SchemaError for what the daemon would not take."""
    try:
        text = json.dumps(schema, ensure_ascii=False, separators=(",", ":"), allow_nan=False)
        size = len(text.encode())
    except (TypeError, ValueError, RecursionError) as error:
        raise SchemaError(f"The schema cannot be written as JSON: {error}") from None
    if size > MESSAGE_LIMIT:
        raise SchemaError(f"The schema has {size} bytes: the daemon closes the connection at more than 4 MiB")
    return text


def _object(pairs: list[tuple[str, Any]], repeated: list[tuple[dict[str, Any], str]]) -> dict[str, Any]:
    members: dict[str, Any] = {}
    for name, value in pairs:
        if name in members:
            repeated.append((members, name))
        members[name] = value
    return members


def _no_constant(text: str) -> Any:
    raise ValueError(f"{text} is no number of JSON")


def _repetitions(document: dict[str, Any], repeated: list[tuple[dict[str, Any], str]]) -> Iterator[Problem]:
    names_of: dict[int, list[str]] = {}
    for members, name in repeated:
        names_of.setdefault(id(members), []).append(name)
    waiting: list[tuple[tuple[str, ...], Any]] = [((), document)]
    while waiting:
        names, node = waiting.pop()
        for name in names_of.get(id(node), ()):
            yield Problem(paths.join((*names, name)), "repeated-name", "is there twice; only the last one would count")
        if isinstance(node, dict):
            waiting += [((*names, name), member) for name, member in node.items()]
        elif isinstance(node, list):
            waiting += [(names, element) for element in node]
