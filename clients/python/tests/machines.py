"""Machines on a bus, with fields of every kind whose places are known."""

import math
import random
import struct
from typing import NamedTuple


class Truth(NamedTuple):
    """A field as the machine's maker has it: kind, first byte, number of bytes, and which bits of them if not all."""

    kind: str
    byte: int
    width: int = 1
    bits: tuple = ()


class Node(NamedTuple):
    """The frames of one endpoint, and what is in them."""

    identifier: int
    truths: list
    frame: object  # from the number of the frame to its bytes


def crc8(data, polynomial, crc):
    for byte in data:
        crc ^= byte
        for _ in range(8):
            crc = (crc << 1 ^ (polynomial if crc & 0x80 else 0)) & 0xFF
    return crc


class Walk:
    """A number that wanders between two bounds."""

    def __init__(self, rng, low, high, step):
        self._rng, self._low, self._high, self._step = rng, low, high, step
        self.value = (low + high) / 2

    def next(self):
        self.value = min(self._high, max(self._low, self.value + self._rng.gauss(0, self._step)))
        return self.value


class Contact:
    """Something that is on or off, and seldom changes."""

    def __init__(self, rng, chance):
        self._rng, self._chance = rng, chance
        self.value = 0

    def next(self):
        self.value ^= self._rng.random() < self._chance
        return self.value


def press(rng):
    """Low bytes first: a position, an encoder, oil, valves, and checksums by exclusive or."""
    pressure, oil, load = Walk(rng, 0, 4000, 40), Walk(rng, 20, 80, 0.3), Walk(rng, -30000, 30000, 500)
    valves = [Contact(rng, 0.02) for _ in range(4)]

    def motion(at):
        position = round(12000 * math.sin(at / 40))
        data = struct.pack("<hHBBB", position, round(pressure.next()), round(oil.next()), at & 0xFF, 0x5A)
        exclusive = 0
        for byte in data:
            exclusive ^= byte
        return data + bytes([exclusive])

    def encoder(at):
        return struct.pack("<Ih", 0x2000000 - 20000 + at * 137 + rng.randrange(8), round(load.next()))

    def switches(at):
        low = sum(valve.next() << bit for bit, valve in enumerate(valves))
        return bytes([low, (0, 3, 1, 2, 0, 1)[at // 50 % 6], 0])

    return [Node(0x085, [Truth("number", 0, 2), Truth("number", 2, 2), Truth("number", 4), Truth("counter", 5),
                         Truth("constant", 6), Truth("checksum", 7)], motion),
            Node(0x0C5, [Truth("number", 0, 4), Truth("number", 4, 2)], encoder),
            Node(0x105, [Truth("flag", 0, 1, (bit, 1)) for bit in range(4)] + [Truth("state", 1), Truth("constant", 2)],
                 switches)]


def pump(rng):
    """High bytes first: speed, a float for the pressure, a counter of four bits beside flags, and a CRC-8."""
    speed, flow, level = Walk(rng, 200, 9000, 120), Walk(rng, -5, 25, 0.2), Walk(rng, 0, 255, 2)
    running, fault = Contact(rng, 0.01), Contact(rng, 0.01)

    def status(at):
        data = struct.pack(">HhBB", round(speed.next()), round(300 * math.cos(at / 70) + rng.gauss(0, 2)),
                           round(level.next()), at & 0x0F | running.next() << 4 | fault.next() << 6)
        return data + bytes([crc8(data, 0x1D, 0xFF) ^ 0xFF])

    def measured(at):
        return struct.pack(">fBBH", flow.next(), 1, 0xFF, 40000 + round(20000 * math.sin(at / 90)))

    def hours(at):
        return struct.pack(">I", 7 * 0x10000 - 40 + at // 3)[1:] + bytes([round(40 + 30 * math.sin(at / 25))])

    return [Node(0x049, [Truth("number", 0, 2), Truth("number", 2, 2), Truth("number", 4),
                         Truth("counter", 5, 1, (0, 4)), Truth("flag", 5, 1, (4, 1)), Truth("flag", 5, 1, (6, 1)),
                         Truth("checksum", 6)], status),
            Node(0x089, [Truth("float", 0, 4), Truth("constant", 4), Truth("constant", 5), Truth("number", 6, 2)],
                 measured),
            Node(0x0C9, [Truth("counter", 0, 3), Truth("number", 3)], hours)]


def greenhouse(rng):
    """Numbers of twelve bits, floats with their low bytes first, states, an event counter and a sum."""
    left, right = Walk(rng, 0, 4095, 15), Walk(rng, 0, 4095, 15)
    inside, outside = Walk(rng, 15, 35, 0.05), Walk(rng, -10, 20, 0.05)
    wind, rain, light = Walk(rng, 0, 200, 3), Contact(rng, 0.01), Walk(rng, 0, 60000, 900)
    mode, opened = [0], [0]

    def soil(at):
        packed = round(left.next()) | round(right.next()) << 12
        return packed.to_bytes(3, "little") + bytes([7])

    def air(at):
        return struct.pack("<ff", inside.next(), outside.next())

    def weather(at):
        if rng.random() < 0.02:
            mode[0] = rng.choice([0, 1, 2, 5])
        if rng.random() < 0.1:
            opened[0] += 1
        data = struct.pack("<BHBBB", round(wind.next()), round(light.next()), mode[0], opened[0] & 0xFF,
                           rain.next() << 7)
        return data + bytes([sum(data) & 0xFF])

    return [Node(0x00C, [Truth("number", 0, 2, (0, 12)), Truth("number", 1, 2, (4, 12)), Truth("constant", 3)], soil),
            Node(0x04C, [Truth("float", 0, 4), Truth("float", 4, 4)], air),
            Node(0x08C, [Truth("number", 0), Truth("number", 1, 2), Truth("state", 3), Truth("counter", 4),
                         Truth("flag", 5, 1, (7, 1)), Truth("checksum", 6)], weather)]


MACHINES = {"press": press, "pump": pump, "greenhouse": greenhouse}


def recorded(name, frames=1500, seed=1):
    """[(node, its frames)] of a machine."""
    nodes = MACHINES[name](random.Random(seed))
    return [(node, [node.frame(at) for at in range(frames)]) for node in nodes]


def is_found(truth, fields):
    """With the right bytes, and of some bits with these."""
    places = {(field.byte, field.width, field.bits) for field in fields}
    return (truth.byte, truth.width, truth.bits or (0, 8 * truth.width)) in places
