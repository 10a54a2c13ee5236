"""The nodes of the simulated machine, as examples/machine.schema.json describes them.

A node offers its telemetry as pairs (period in seconds, function returning a CanFrame), is moved on by `step`,
and hears every frame that the daemon puts on the bus.
"""

import math
import random
import struct

from .canframe import CanFrame


class Motor:
    """Node 5. Follows its set point with inertia; draws current for friction and for acceleration."""

    MAC, STATUS, SET_POINT = 5, 2, 3
    TIME_CONSTANT = 0.8  # seconds
    LIMIT = 6000  # revolutions per minute

    def __init__(self, rng: random.Random):
        self._rng = rng
        self.set_point = 600.0
        self.speed = 0.0
        self._acceleration = 0.0
        self.telemetry = [(0.05, self._status)]

    def step(self, seconds: float):
        before = self.speed
        self.speed += (self.set_point - self.speed) * (1 - math.exp(-seconds / self.TIME_CONSTANT))
        self._acceleration = (self.speed - before) / seconds

    def hear(self, frame: CanFrame):
        if (frame.mac, frame.cmd) == (self.MAC, self.SET_POINT) and len(frame.payload) >= 2:
            (wanted,) = struct.unpack_from("<h", frame.payload)
            self.set_point = max(-self.LIMIT, min(self.LIMIT, wanted))

    def _status(self) -> CanFrame:
        speed = round(self.speed + self._rng.gauss(0, 0.6))
        amperes = 0.3 + abs(self.speed) / 1500 + abs(self._acceleration) / 400 + self._rng.gauss(0, 0.02)
        hundredths = max(0, min(65535, round(amperes * 100)))
        enabled = self.set_point != 0
        return CanFrame.vek(self.MAC, self.STATUS, struct.pack("<hHB", speed, hundredths, enabled))


class Battery:
    """Node 9. Four cells that slowly run down, a warm pack."""

    MAC, CELLS, PACK = 9, 1, 2

    def __init__(self, rng: random.Random):
        self._rng = rng
        self.charge = 0.83
        self._offsets = [rng.gauss(0, 0.004) for _ in range(4)]
        self.telemetry = [(0.4, self._cells), (1.0, self._pack)]

    def step(self, seconds: float):
        self.charge = max(0.05, self.charge - seconds / 36000)

    def hear(self, frame: CanFrame):
        pass

    def _cells(self) -> CanFrame:
        volts = 3.1 + self.charge
        millivolts = [round(1000 * (volts + offset + self._rng.gauss(0, 0.001))) for offset in self._offsets]
        return CanFrame.vek(self.MAC, self.CELLS, struct.pack("<4H", *millivolts))

    def _pack(self) -> CanFrame:
        half_degrees = round(2 * (24 + self._rng.gauss(0, 0.3)))
        return CanFrame.vek(self.MAC, self.PACK, struct.pack("<BB", round(200 * self.charge), half_degrees))


class Door:
    """Node 12. Reports its contact five times a second; somebody opens the door now and then."""

    MAC, CONTACT = 12, 1

    def __init__(self, rng: random.Random):
        self._rng = rng
        self.open = False
        self._until_moved = 2.0
        self.telemetry = [(0.2, self._contact)]

    def step(self, seconds: float):
        self._until_moved -= seconds
        if self._until_moved <= 0:
            self.open = not self.open
            self._until_moved = self._rng.uniform(1, 3) if self.open else self._rng.uniform(3, 9)

    def hear(self, frame: CanFrame):
        pass

    def _contact(self) -> CanFrame:
        return CanFrame.vek(self.MAC, self.CONTACT, bytes([self.open]))


def machine(rng: random.Random) -> list:
    """All nodes on the bus."""
    return [Motor(rng), Battery(rng), Door(rng)]
