"""A wall clock that can be set while programs run, with the help of a preloaded library (sim/clock/clock.c)."""

import os
import pathlib
import struct

from . import build

_OFFSET = struct.Struct("=q")  # nanoseconds


class VirtualClock:
    """The clock of all programs that are started with its environment; right until it is set."""

    def __init__(self, path):
        self._path = pathlib.Path(path)
        self._path.write_bytes(bytes(_OFFSET.size))

    def env(self) -> dict:
        """What to add to the environment of a program that is to go by it."""
        return {
            "VORBEL_SIM_CLOCK": str(self._path),
            "LD_PRELOAD": build.joined(":", build.clock_library(), os.environ.get("LD_PRELOAD")),
            "ASAN_OPTIONS": build.sanitizer_options(),
        }

    def set_ahead(self, seconds: float):
        """Sets it so far ahead of the machine's, or behind it."""
        with open(self._path, "r+b") as file:
            file.write(_OFFSET.pack(int(seconds * 1_000_000_000)))
