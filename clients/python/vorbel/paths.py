"""Dotted paths: the names that lead from a schema's root to a leaf, joined by dots.

A dot or a backslash within a name is written behind a backslash. The empty path is the root.
"""

import re
from collections.abc import Iterable, Sequence
from typing import Any, Union


def join(names: Iterable[str]) -> str:
    return ".".join(re.sub(r"([.\\])", r"\\\1", name) for name in names)


def split(path: str) -> tuple[str, ...]:
    """A backslash before anything but a dot or a backslash stands for itself."""
    if not path:
        return ()
    names = re.findall(r"\.((?:\\[.\\]|[^.])*)", "." + path)
    return tuple(re.sub(r"\\([.\\])", r"\1", name) for name in names)


def shown(path: str) -> str:
    """The path as it can be shown in one line: what a terminal would obey or cannot show is written as \\x1b."""
    if path.isprintable():
        return path
    return "".join(each if each.isprintable() else each.encode("unicode_escape").decode() for each in path)


def flatten(values: Any, names: tuple[str, ...] = ()) -> dict[str, Any]:
    """{dotted path: leaf value} of nested maps, in their order."""
    if not isinstance(values, dict):
        return {join(names): values}
    flat: dict[str, Any] = {}
    for name, value in values.items():
        flat.update(flatten(value, (*names, name)))
    return flat


def nest(path: Union[str, Sequence[str]], value: Any) -> Any:
    """The nested maps that hold `value` at a path, or under names."""
    for name in reversed(split(path) if isinstance(path, str) else path):
        value = {name: value}
    return value
