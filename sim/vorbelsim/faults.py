"""System calls that fail in a program, with the help of a preloaded library; sim/faults/faults.h says which."""

import mmap
import os
import pathlib
import struct

from . import build

_ORDER = struct.Struct("=16s16sIIiiii")
_TIMES = struct.Struct("=i")
_TIMES_AT, _INJECTED_AT = _ORDER.size - 8, _ORDER.size - 4
_ORDERS = 2
FOR_EVER = 2**31 - 1


def option(level: int, name: int) -> int:
    """The detail of getsockopt and setsockopt."""
    return level << 16 | name


class SystemCallFaults:
    """The faults of one program, which runs with env()."""

    def __init__(self, path):
        self._path = pathlib.Path(path)
        self._path.write_bytes(bytes(_ORDER.size * _ORDERS))
        with open(self._path, "r+b") as file:
            self._shared = mmap.mmap(file.fileno(), 0)

    def env(self, environment=None) -> dict:
        """What to add to the program's environment: `environment`, of a virtual adapter for instance, and the library
        in front of those that are preloaded by it."""
        environment = environment or {}
        behind = environment.get("LD_PRELOAD", os.environ.get("LD_PRELOAD"))
        return {**environment, "VORBEL_SIM_FAULTS": str(self._path),
                "LD_PRELOAD": build.joined(":", build.faults_library(), behind)}

    def order(self, descriptor, call, error, *, detail=0, peer=0, skip=0, times=1):
        """From now on the next `times` such calls fail, behind the first `skip`. What was ordered before is over."""
        self.cancel()
        self._order(0, _ORDER.pack(descriptor.encode(), call.encode(), detail, peer, error, skip, 0, 0), times)

    def order_beside(self, descriptor, call, error, *, times):
        """So do these, beside those that were ordered."""
        self._order(1, _ORDER.pack(descriptor.encode(), call.encode(), 0, 0, error, 0, 0, 0), times)

    def cancel(self):
        for slot in range(_ORDERS):
            self._set(slot, _TIMES_AT, 0)

    @property
    def injected(self) -> int:
        """How many calls have failed since the last order."""
        return self._get(0, _INJECTED_AT)

    @property
    def is_pending(self) -> bool:
        """Whether calls are still to fail."""
        return self._get(0, _TIMES_AT) > 0

    def _order(self, slot, order, times):
        self._shared[slot * _ORDER.size:(slot + 1) * _ORDER.size] = order
        self._set(slot, _TIMES_AT, times)  # it holds when it is complete

    def _set(self, slot, at, number):
        _TIMES.pack_into(self._shared, slot * _ORDER.size + at, number)

    def _get(self, slot, at):
        return _TIMES.unpack_from(self._shared, slot * _ORDER.size + at)[0]
