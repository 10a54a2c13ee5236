"""A line of input on a terminal that does not edit by itself."""


from collections.abc import Iterator
from typing import Callable


class Prompt:
    """One line of input, fed character by character as the terminal delivers them."""

    def __init__(self, complete: Callable[[str], str]) -> None:
        self.text = ""
        self._complete = complete  # from the text so far to the completed text
        self._escape = ""

    def feed(self, characters: str) -> Iterator[str]:
        """Yields the lines that `characters` finish. Cursor keys and the like are passed over."""
        for character in characters:
            if self._in_escape(character):
                continue
            if character in "\r\n":
                line, self.text = self.text.strip(), ""
                if line:
                    yield line
            elif character == "\x04" and not self.text:
                yield "quit"
            elif character in "\x7f\b":
                self.text = self.text[:-1]
            elif character == "\x15":
                self.text = ""
            elif character == "\t":
                self.text = self._complete(self.text)
            elif character.isprintable():
                self.text += character

    def _in_escape(self, character: str) -> bool:
        """Escape sequences begin with ESC [ or ESC O and end with a letter or a tilde."""
        if character == "\x1b":
            self._escape = character
            return True
        if not self._escape:
            return False
        self._escape += character
        if len(self._escape) > 2 and (character.isalpha() or character == "~") or self._escape[1] not in "[O":
            self._escape = ""
        return True
