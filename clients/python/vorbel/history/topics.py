"""The topics of boards, as docs/gateway.md has them."""

import re
from typing import NamedTuple, Optional
from urllib.parse import unquote


class Topic(NamedTuple):
    """Whose it is, and what it says: "values", "schema", "status" and others."""

    board: str
    kind: str


class Topics:
    def __init__(self, prefix: str) -> None:
        self._base = prefix + "/"

    @property
    def filter(self) -> str:
        """One filter, since brokers keep the order of what matches it, and not of what matches several: a schema comes
        before the values that it explains."""
        return self._base + "+/+"

    def parse(self, topic: str) -> Optional[Topic]:
        """None for one that is no board's."""
        if not topic.startswith(self._base):
            return None
        levels = topic[len(self._base):].split("/")
        if len(levels) != 2:
            return None
        board = name_of(levels[0])
        return None if board is None else Topic(board, levels[1])


def name_of(level: str) -> Optional[str]:
    """The name that a level of a topic stands for; None for one that stands for none."""
    if re.search("%(?![0-9A-F]{2})", level):
        return None
    try:
        return unquote(level, errors="strict")
    except UnicodeDecodeError:
        return None
