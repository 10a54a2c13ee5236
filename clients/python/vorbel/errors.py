"""What can go wrong, in words for the person who has to put it right."""

import difflib
import json
from collections.abc import Iterable, Sequence
from typing import Any, NamedTuple, Optional

from . import paths

# Problems with these codes are defined behaviour that is seldom meant. All others keep a schema from being sent.
WARNINGS = frozenset({"beyond-frame", "leaf-in-leaf", "long-format", "mixed-fragmentation", "no-cmd", "no-effect",
                      "option-without-sign", "overlap", "packed-cut", "write-only"})


class Problem(NamedTuple):
    """Something about the leaf or group at `path`; docs/protocol.md has the codes."""

    path: str
    code: str
    message: str

    @property
    def is_error(self) -> bool:
        return self.code not in WARNINGS

    def __str__(self) -> str:
        return f"{paths.shown(self.path) or 'the root'}: {'' if self.is_error else 'warning: '}{self.message}"


def quoted(value: Any) -> str:
    """A value as it stands in JSON, cut where it is long."""
    text = json.dumps(value, ensure_ascii=False, default=str)
    return text if len(text) <= 40 else text[:37] + "..."


def suggestion(word: str, known: Iterable[str]) -> str:
    """A question behind a word that is not known, if it is much like one that is."""
    close = difflib.get_close_matches(word, list(known), n=1)
    return f' (did you mean "{close[0]}"?)' if close else ""


def listed(names: Iterable[str]) -> str:
    return ", ".join(f'"{name}"' for name in names)


class VorbelError(Exception):
    """Any error of this package."""


class ConnectError(VorbelError):
    """No daemon answered in time, or the connection is gone."""


class SchemaError(VorbelError):
    """A schema that was not sent. `problems` lists all that is wrong with it; empty if it could not be read."""

    def __init__(self, message: str, problems: Sequence[Problem] = ()) -> None:
        super().__init__(message)
        self.problems = list(problems)

    @classmethod
    def of(cls, problems: Sequence[Problem], name: Optional[str] = None) -> "SchemaError":
        errors = "\n".join(f"  {problem}" for problem in problems if problem.is_error)
        return cls(f"The schema {name + ' ' if name else ''}was not sent:\n{errors}", problems)


class WriteError(VorbelError):
    """Values that were not sent, because the daemon would have ignored them or written something else. `problems`
    lists what is wrong with them; empty if they could not be sent for another reason."""

    def __init__(self, message: str, problems: Sequence[Problem] = ()) -> None:
        super().__init__(message)
        self.problems = list(problems)

    @property
    def is_early(self) -> bool:
        """Whether nothing is wrong but that a reading is needed that has not come yet."""
        return bool(self.problems) and all(problem.code == "no-reading" for problem in self.problems)
