"""A line of input on a terminal that does not edit by itself."""

from collections.abc import Iterator
from typing import Callable

from .keyboard import Keys

# What terminals send, by what it does. Named as in readline.
KEYS = {
    "backward-char": ("\x1b[D", "\x1bOD", "\x02"),
    "forward-char": ("\x1b[C", "\x1bOC", "\x06"),
    "beginning-of-line": ("\x1b[H", "\x1bOH", "\x1b[1~", "\x1b[7~", "\x01"),
    "end-of-line": ("\x1b[F", "\x1bOF", "\x1b[4~", "\x1b[8~", "\x05"),
    "previous-history": ("\x1b[A", "\x1bOA", "\x10"),
    "next-history": ("\x1b[B", "\x1bOB", "\x0e"),
    "delete-char": ("\x1b[3~", "\x04"),
    "backward-delete-char": ("\x7f", "\b"),
    "kill-line": ("\x0b",),
    "unix-line-discard": ("\x15",),
    "unix-word-rubout": ("\x17",),
    "complete": ("\t",),
    "accept-line": ("\r", "\n"),
}
ACTIONS = {key: action for action, keys in KEYS.items() for key in keys}


class Prompt:
    """One line of input, fed character by character as the terminal delivers them, and the lines before it."""

    def __init__(self, complete: Callable[[str], str]) -> None:
        self.text = ""
        self.cursor = 0  # the place in the text before which characters are put in
        self._complete = complete  # from the text before the cursor to the completed text
        self._keys = Keys()
        self._lines: list[str] = []
        self._recalled = 0  # which of the lines is shown; their number: a new one
        self._draft = ""  # the new one while another is shown

    def feed(self, characters: str) -> Iterator[str]:
        """Yields the lines that `characters` finish. Keys that mean nothing here are passed over."""
        for character in characters:
            key = self._keys.gather(character)
            if key == "\x04" and not self.text:
                yield "quit"
            elif ACTIONS.get(key) == "accept-line":
                line = self._take()
                if line:
                    yield line
            elif key in ACTIONS:
                self._act(ACTIONS[key])
            elif key.isprintable():
                self._replace(self.cursor, self.cursor, key)

    def _take(self) -> str:
        line = self.text.strip()
        if line and self._lines[-1:] != [line]:
            self._lines.append(line)
        self._recalled = len(self._lines)
        self._show("")
        return line

    def _act(self, action: str) -> None:
        text, cursor = self.text, self.cursor
        moves = {"backward-char": cursor - 1, "forward-char": cursor + 1,
                 "beginning-of-line": 0, "end-of-line": len(text)}
        if action in moves:
            self.cursor = max(0, min(len(text), moves[action]))
        elif action == "previous-history":
            self._recall(self._recalled - 1)
        elif action == "next-history":
            self._recall(self._recalled + 1)
        elif action == "complete":
            self._replace(0, cursor, self._complete(text[:cursor]))
        else:
            self._replace(*self._deleted(action), "")

    def _deleted(self, action: str) -> tuple[int, int]:
        """From where to where a key deletes."""
        before = self.text[:self.cursor]
        word = len(before.rstrip().rpartition(" ")[0])
        ranges: dict[str, tuple[int, int]] = {
            "delete-char": (self.cursor, self.cursor + 1),
            "backward-delete-char": (max(0, self.cursor - 1), self.cursor),
            "kill-line": (self.cursor, len(self.text)),
            "unix-line-discard": (0, self.cursor),
            "unix-word-rubout": (word + 1 if word else 0, self.cursor),
        }
        return ranges[action]

    def _replace(self, start: int, end: int, text: str) -> None:
        self.text = self.text[:start] + text + self.text[end:]
        self.cursor = start + len(text)

    def _recall(self, index: int) -> None:
        if not 0 <= index <= len(self._lines):
            return
        if self._recalled == len(self._lines):
            self._draft = self.text
        self._recalled = index
        self._show(self._lines[index] if index < len(self._lines) else self._draft)

    def _show(self, text: str) -> None:
        self.text, self.cursor = text, len(text)
