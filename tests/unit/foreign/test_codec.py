"""The codec against Debian's python3-msgpack: random values through both, compared by the codec's type rules."""

import array
import os
import pathlib
import random
import struct
import subprocess

import msgpack
import pytest

ECHO = pathlib.Path(os.environ["VORBEL_BUILD_DIR"]) / "tests" / "unit" / "codec_echo"
VALUES = 2000

INTEGER_EDGES = [0, 1, 31, 32, 127, 128, 255, 256, 32767, 32768, 65535, 65536, 2**31 - 1, 2**31, 2**32 - 1, 2**32,
                 2**63 - 1, 2**63, 2**64 - 1, -1, -31, -32, -33, -127, -128, -129, -32768, -32769, -2**31,
                 -2**31 - 1, -2**63]
LENGTH_EDGES = [0, 1, 15, 16, 31, 32, 33, 255, 256, 257]
LONG_LENGTHS = [65535, 65536, 70000]
LETTERS = "abcXYZ09 _\"\\\n\0äß€中\u0301\U0001F600\U0010FFFF\uFFFD"


def echo(messages, *arguments):
    """What codec_echo makes of the messages, and its log."""
    sent = b"".join(struct.pack(">i", len(message)) + message for message in messages)
    done = subprocess.run([ECHO, *arguments], input=sent, capture_output=True, timeout=60, check=True)
    replies, at = [], 0
    while at < len(done.stdout):
        (size,) = struct.unpack_from(">i", done.stdout, at)
        replies.append(done.stdout[at + 4:at + 4 + size])
        at += 4 + size
    assert len(replies) == len(messages)
    return replies, done.stderr.decode().splitlines()


class Generator:
    """Random values of every kind that MessagePack has; seeded, so the same ones every time."""

    def __init__(self, seed, single=False):
        self.random = random.Random(seed)
        self.single = single  # no number but those that a single float holds

    def integer(self):
        if self.random.random() < 0.5:
            return self.random.choice(INTEGER_EDGES)
        magnitude = self.random.getrandbits(self.random.randint(1, 63))
        return -magnitude if self.random.random() < 0.5 else magnitude

    def length(self, longest):
        if longest > 1000 and self.random.random() < 0.005:
            return self.random.choice(LONG_LENGTHS)
        return self.random.choice(LENGTH_EDGES) if self.random.random() < 0.2 else self.random.randint(0, 12)

    def text(self, longest=100000):
        length = self.length(longest)
        if length > 1000:
            return self.random.choice("xyz") * length
        return "".join(self.random.choices(LETTERS, k=length))

    def bytes(self):
        return bytes([self.random.randint(0, 255)]) * self.length(100000)

    def number(self):
        number = self.random.choice([0.0, -0.0, 1.0, 0.1, -2.5, 1e30, 1e-44, float("inf"), float("-inf"),
                                     float("nan"), self.random.uniform(-1e6, 1e6)])
        return struct.unpack("f", struct.pack("f", number))[0] if self.single else number

    def extension(self):
        size = self.random.choice([0, 1, 2, 3, 4, 5, 8, 15, 16, 17, 255, 256])
        return msgpack.ExtType(self.random.randint(0, 127), b"\xA5" * size)

    def key(self):
        kind = self.random.random()
        if kind < 0.6:
            return self.text(20)
        if kind < 0.8:
            return self.integer()
        return self.random.choice([True, False, None, b"bytes", "ä".encode(), 1.5, -0.25, 1024.5, 3.0,
                                   msgpack.ExtType(7, b"k"), (1, "x"), ()])

    def value(self, depth=0):
        kinds = [self.integer, self.text, self.bytes, self.number, self.extension,
                 lambda: self.random.choice([None, True, False])]
        if depth < 5:
            kinds += [lambda: self.list(depth), lambda: self.map(depth)] * 2
        return self.random.choice(kinds)()

    def count(self, depth):
        return self.length(0) if depth == 0 else self.random.randint(0, 4)

    def list(self, depth):
        return [self.value(depth + 1) for _ in range(self.count(depth))]

    def map(self, depth):
        return {self.key(): self.value(depth + 1) for _ in range(self.count(depth))}


class Expectation:
    """A value as it comes back, and the log lines on its way.

    An extension that nobody unpacks stands for the value before it in the same container; nil, if it is first.
    Keys become text, the last of equal ones counts, and a map comes back in the order of its keys' UTF-16 units.
    """

    def __init__(self):
        self.log = []

    def of(self, value, before=None):
        if isinstance(value, msgpack.ExtType):
            self.log.append(f"MsgPack::unpack() unpacker for type {value.code} doesn't exist")
            return before
        if isinstance(value, (list, tuple)):
            return self.of_list(value)
        if isinstance(value, dict):
            return self.of_map(value)
        return value

    def of_list(self, values):
        back, before = [], None
        for value in values:
            before = self.of(value, before)
            back.append(before)
        return back

    def of_map(self, entries):
        back, key, value = {}, None, None
        for wire_key, wire_value in entries.items():
            key = self.of(wire_key, key)
            value = self.of(wire_value, value)
            back[self.text(key)] = value
        return dict(sorted(back.items(), key=lambda entry: entry[0].encode("utf-16-be")))

    @staticmethod
    def text(key):
        if isinstance(key, bool):
            return "true" if key else "false"
        if isinstance(key, bytes):
            return key.decode()
        if isinstance(key, float):
            return f"{key:g}"
        return str(key) if isinstance(key, (int, str)) else ""


def shown(value):
    """Text that tells a float from an integer, one zero from the other, and shows a map's order."""
    if isinstance(value, float):
        return struct.pack(">d", value).hex()
    if isinstance(value, list):
        return "[" + ", ".join(map(shown, value)) + "]"
    if isinstance(value, dict):
        return "{" + ", ".join(shown(key) + ": " + shown(entry) for key, entry in value.items()) + "}"
    return repr(value)


@pytest.mark.parametrize("single", [False, True], ids=["doubles", "floats"])
def test_random_values_come_back(single):
    generator = Generator(f"codec {single}", single)
    values = [generator.value() for _ in range(VALUES // 2)]
    sent = [msgpack.packb(value, use_single_float=single) for value in values]
    replies, log = echo(sent)

    expectation = Expectation()
    for value, packed, reply in zip(values, sent, replies):
        expected = expectation.of(value)
        assert shown(msgpack.unpackb(reply)) == shown(expected), packed[:200].hex()
        # Both choose the smallest format of each family, so even the bytes are the same.
        assert reply == msgpack.packb(expected, use_single_float=single), packed[:200].hex()
    assert log == expectation.log


def test_several_values_come_back_as_a_list():
    generator = Generator("concatenated")
    groups = [[generator.integer() for _ in range(count)] for count in (0, 2, 3, 20, 300)]
    replies, log = echo([b"".join(map(msgpack.packb, group)) for group in groups])
    assert [msgpack.unpackb(reply) for reply in replies] == groups
    assert log == []


def test_cut_messages_come_back_as_nil():
    generator = Generator("cut")
    cut = []
    while len(cut) < 300:
        packed = msgpack.packb([generator.integer(), generator.text(20), {"k": generator.number()}])
        cut.append(packed[:generator.random.randint(1, len(packed) - 1)])
    replies, log = echo(cut)
    assert set(replies) == {b"\xc0"}
    assert log == []


@pytest.mark.parametrize("name, number, code, low, high", [
    ("signed char", 17, "b", -128, 127),
    ("unsigned char", 18, "B", 0, 255),
    ("short", 19, "h", -2**15, 2**15 - 1),
    ("unsigned short", 20, "H", 0, 2**16 - 1),
    ("int", 21, "i", -2**31, 2**31 - 1),
    ("unsigned int", 22, "I", 0, 2**32 - 1),
    ("float", 23, "f", -1000, 1000),
])
def test_typed_arrays_decode(name, number, code, low, high):
    generator = random.Random(name)
    draw = generator.uniform if code == "f" else generator.randint
    arrays = [array.array(code, [draw(low, high) for _ in range(size)]) for size in (0, 1, 2, 3, 4, 16, 100, 20000)]
    arrays.append(array.array(code, [low, high]))
    replies, log = echo([msgpack.packb([name, *elements]) for elements in arrays], "arrays")
    for elements, reply in zip(arrays, replies):
        extension = msgpack.unpackb(reply)
        assert extension.code == number
        decoded = array.array(code)
        assert decoded.itemsize == {"b": 1, "h": 2, "i": 4, "f": 4}[code.lower()]
        decoded.frombytes(extension.data)
        assert decoded == elements
    assert log == []
