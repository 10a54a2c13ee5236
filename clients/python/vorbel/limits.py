"""Tells when a value goes beyond the limits that its leaf has, and when it is back."""

from collections.abc import Iterator, Mapping

from . import paths
from .meaning import Meant

QUIET = 10.0  # seconds for which a path that has just been told of is not told of again


class Watch:
    """What was told of each path last."""

    def __init__(self) -> None:
        self._told: dict[str, tuple[str, float]] = {}  # level and when

    def take(self, meant: Mapping[str, Meant], now: float) -> Iterator[str]:
        """Texts about those values of a message whose level is another than was told. One that goes to and fro is told
        of each QUIET seconds; an alarm that follows a warning is told at once."""
        for path, each in meant.items():
            if each.leaf is None or not each.leaf.meaning.has_limits:
                continue
            level, (told, when) = each.level, self._told.get(path, ("", -QUIET))
            if level != told and (now - when >= QUIET or level == "alarm"):
                self._told[path] = level, now
                yield f"{paths.shown(path)}: {each} is {_WORDS[level]}"


_WORDS = {"alarm": "beyond its alarm limits", "warn": "beyond its warning limits", "": "within its limits again"}
