"""Dotted paths: the names that lead from a schema's root to a leaf, joined by dots.

A dot or a backslash within a name is written behind a backslash. The empty path is the root.
"""

import re


def join(names) -> str:
    return ".".join(re.sub(r"([.\\])", r"\\\1", name) for name in names)


def split(path: str) -> tuple:
    if not path:
        return ()
    parts = re.findall(r"(?:^|\.)((?:[^.\\]|\\.)*)", path)
    return tuple(re.sub(r"\\(.)", r"\1", part) for part in parts)


def shown(path: str) -> str:
    """The path as it can be shown in one line: what a terminal would obey or cannot show is written as \\x1b."""
    if path.isprintable():
        return path
    return "".join(each if each.isprintable() else each.encode("unicode_escape").decode() for each in path)


def flatten(values, names=()) -> dict:
    """{dotted path: leaf value} of nested maps, in their order."""
    if not isinstance(values, dict):
        return {join(names): values}
    flat = {}
    for name, value in values.items():
        flat.update(flatten(value, (*names, name)))
    return flat


def nest(path: str, value):
    """The nested maps that hold `value` at `path`."""
    for name in reversed(split(path)):
        value = {name: value}
    return value
