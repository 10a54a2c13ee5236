"""Line protocol: what the database takes, a line for each value."""

import re
from typing import Optional

NAME_LIMIT = 1024  # characters of a board or a path; databases cut what is much longer
MEASUREMENT = "vorbel"
LARGEST = 1.7976931348623157e308

_UNSPEAKABLE = re.compile("[\0-\x1f\x7f-\x9f\u2028\u2029\ud800-\udfff]")  # they end a line, or are no text
_SPECIAL = re.compile(r"([\\,= ])")


def is_name(text: str) -> bool:
    """Whether a board or a path can stand in a line."""
    return 0 < len(text) <= NAME_LIMIT and not _UNSPEAKABLE.search(text)


def head(board: str, path: Optional[str] = None) -> str:
    """The line of a board's series up to its fields; both are names."""
    tags = f"{MEASUREMENT},board={_escaped(board)}"
    return f"{tags} " if path is None else f"{tags},path={_escaped(path)} "


def _escaped(text: str) -> str:
    return _SPECIAL.sub(r"\\\1", text)
