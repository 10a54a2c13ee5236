"""What the tool says to the person: on standard error, as standard output is for values."""

import sys
import time


def say(text: str) -> None:
    print(f"vorbel-cli: {text}", file=sys.stderr, flush=True)


class Progress:
    """One line on the terminal that is written over and over; nothing where standard error is none."""

    INTERVAL = 0.2  # seconds

    def __init__(self) -> None:
        self._terminal = sys.stderr.isatty()
        self._started = time.monotonic()
        self._shown_at = 0.0

    def show(self, text: str) -> None:
        now = time.monotonic()
        if self._terminal and now - self._shown_at > self.INTERVAL:
            self._shown_at = now
            seconds = int(now - self._started)
            print(f"\r\x1b[K{seconds // 60:02}:{seconds % 60:02}  {text}", end="", file=sys.stderr, flush=True)

    def note(self, text: str) -> None:
        self.end()
        say(text)

    def end(self) -> None:
        if self._terminal:
            print("\r\x1b[K", end="", file=sys.stderr, flush=True)
