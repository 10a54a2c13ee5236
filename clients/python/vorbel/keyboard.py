"""The keys of a terminal, as they are typed."""

import asyncio
import contextlib
import os
import sys
import termios
import tty
from collections.abc import Iterator
from typing import Callable


class Keys:
    """Puts the characters together that one key sends."""

    def __init__(self) -> None:
        self._escape = ""

    def gather(self, character: str) -> str:
        """The key that a character ends, or nothing before its end: escape sequences begin with ESC [ or ESC O and end
        with a letter or a tilde."""
        if character == "\x1b":
            self._escape = character
            return ""
        if not self._escape:
            return character
        self._escape += character
        is_end = len(self._escape) > 2 and (character.isalpha() or character == "~")
        if not is_end and self._escape[1] in "[O":
            return ""
        key, self._escape = self._escape, ""
        return key


def has_keyboard() -> bool:
    """Whether keys are for this program; one in the background of a shell is stopped if it takes them."""
    return sys.stdin.isatty() and os.tcgetpgrp(sys.stdin.fileno()) == os.getpgrp()


@contextlib.contextmanager
def keyboard(typed: Callable[[str], None]) -> Iterator[None]:
    """Hands over what is typed as it is typed, not line by line, and without the terminal's echo."""
    descriptor = sys.stdin.fileno()
    before = termios.tcgetattr(descriptor)
    loop = asyncio.get_running_loop()
    tty.setcbreak(descriptor)
    loop.add_reader(descriptor, lambda: typed(_read(descriptor)))
    try:
        yield
    finally:
        loop.remove_reader(descriptor)
        termios.tcsetattr(descriptor, termios.TCSADRAIN, before)


def _read(descriptor: int) -> str:
    """What was typed; when the terminal has gone, the keys that clear the line and end."""
    try:
        return os.read(descriptor, 4096).decode(errors="ignore") or "\x15\x04"
    except OSError:
        return "\x15\x04"
