#!/usr/bin/python3
"""Holds the converter against the model: random schemas, frames and client values, one case per seed.

  property_test.py TRANSCRIPT_PROGRAM [CASES [FIRST_SEED]]

Every case is a transcript (tests/golden/README.md tells the language). The program executes all of them, and
what it answers must be what the model answers: values, records, exceptions and the whole log, line by line.
The messages for clients are unpacked by a MessagePack implementation that is not ours. A failing case is
printed with its seed; to see it alone, run with CASES 1 and that seed.
"""

import json
import math
import random
import struct
import subprocess
import sys

import msgpack

from model import Attribute, BadType, Model, NIL, Refused, f32, packed, text_form

CASES = 5000
NAMES = ["", "0", "@z", "A", "a", "b", "c", "speed", "x y"]
UNKNOWN_NAMES = ["nobody", "@mac", "@format", "B"]
MACS = [0, 0, 1, 1, 2, 65, 4464]
CMDS = [0, 0, 0, 1, 1, 33, 32768]
FACTORS = [1, 2, 10, 0.1, -0.5, 1000, 7.3, 1e-3, 0, 3e9, 1e38, 1e300, "2.5", "x", None, True]
FACTORS += ["nan", "inf", "-0.0", -0.0, 1e-38, -1e-40, 1.4e-45, "4e-39", 3e38, -1e-46]


# ---- Schemas ----


def random_schema(rng):
    return random_node(rng, 0)


def random_node(rng, depth):
    node = {}
    if depth > 0 and rng.random() < 0.7:
        node = random_leaf(rng)
    elif rng.random() < 0.1:
        node = random_leaf(rng)
        if rng.random() < 0.5:
            del node["@mac"]  # a branch with options
    children = rng.randrange(4) if depth == 0 else rng.choice([0, 0, 0, 1, 2])
    for name in rng.sample(NAMES, children if depth < 4 else 0):
        node[name] = random_node(rng, depth + 1)
    if rng.random() < 0.2:
        node[rng.choice(NAMES + ["zz"])] = rng.choice([0, "text", None, [1, {"@mac": 1}], True, 2.5])
    return node


def random_leaf(rng):
    leaf = {"@mac": rng.choice(MACS), "@format": rng.choice("CcSsQqIiffp")}
    if rng.random() < 0.05:
        leaf["@mac"] = rng.choice(["1", 65537, -65535, None, True, 1.4, "one"])
    if rng.random() < 0.1:
        leaf["@format"] = rng.choice(["x", "", "float", "short", "F", "P", False, None, "p ", "Int", "\u0143",
                                      "s\u0301"])
    sometimes = [
        ("@cmd", 0.6, CMDS),
        ("@skip", 0.6, [0, 1, 1, 2, 3, 4, 5, 6, 7, 8, 9, 20, "3", 1.5]),
        ("@flushSize", 0.3, [0, 1, 2, 2, 3, 5, 40, "2", -1, 2147483647]),
        ("@observe", 0.3, [True, True, False, 1, "no"]),
        ("@factor", 0.4, FACTORS),
        ("@mask", 0.15, [-1, -1, 255, 15, 1, 0, 65280, -256, 32768, -2147483648, 4294967295, "12", None]),
        ("@asBool", 0.15, [True, True, False, 1, 0.5, "yes", "0", "False", ""]),
        ("@fragmentation", 0.4, [True, True, False, 1, "false", "yes"]),
    ]
    for name, chance, choices in sometimes:
        if rng.random() < chance:
            leaf[name] = rng.choice(choices)
    if rng.random() < 0.04:
        leaf["@skip"] = rng.choice([-1, -8, 65536, 2147483647, 2147483644, -2147483648])
    return leaf


# ---- Frames ----


def random_payload(rng):
    length = rng.choice([8] * 12 + list(range(9)))
    style = rng.random()
    if style < 0.3:
        return bytes(length)
    if style < 0.6:
        return bytes(rng.choice([0, 1, 5, 0x7F, 0x80, 0xC0, 0xFF]) for _ in range(length))
    return bytes(rng.randrange(256) for _ in range(length))


# ---- Client values ----


def random_number(rng):
    kind = rng.choice(
        ["uint", "uint", "int", "int", "double", "double", "float", "longlong", "ulonglong", "bool"]
    )
    wide = 1 << rng.choice([3, 7, 8, 15, 16, 24, 31, 32, 40, 53, 63])
    whole = rng.choice([wide, wide - 1, rng.randrange(wide)])
    sign = rng.choice([1, -1])
    if kind == "uint":
        return kind, min(whole, 0xFFFFFFFF)
    if kind == "int":
        return kind, max(min(sign * whole, 0x7FFFFFFF), -0x80000000)
    if kind == "longlong":
        return kind, min(sign * whole, (1 << 63) - 1)
    if kind == "ulonglong":
        return kind, whole * rng.choice([1, 1, 2]) - (whole >> 63) * 7
    if kind == "bool":
        return kind, whole % 2 == 1
    sizes = [rng.uniform(0, 4), rng.uniform(0, 1e5), rng.randrange(300) / 4, min(whole, 1 << 50)]
    real = sign * rng.choice(sizes)
    return kind, f32(real) if kind == "float" else float(real)


# What does not fit into whole numbers at all: only for leaves that scale or hold single-precision numbers.
# Converting it to a whole number unscaled is up to the processor.
ODD_REALS = [math.inf, -math.inf, math.nan, 1e300, -1e38, 1e-40, 3e9, 4e18]


def random_value(rng, real, depth=0):
    dice = rng.random()
    if real and dice < 0.15:
        kind = rng.choice(["float", "double"])
        number = rng.choice(ODD_REALS)
        return kind, f32(number) if kind == "float" else number
    if dice < 0.75 or depth > 2:
        return random_number(rng)
    return random_other(rng, real, depth)


def random_other(rng, real, depth):
    kind = rng.choice(["nil", "str", "bin", "list", "map"])
    texts = ["", "12", "-3", "300", "abc", "7x", "2.5", "-1e3", "1e10"]
    if kind == "str":
        return kind, rng.choice(texts)
    if kind == "bin":
        return kind, rng.choice(texts).encode()
    if kind == "list":
        return kind, [random_value(rng, real, depth + 1) for _ in range(rng.randrange(3))]
    if kind == "map":
        names = rng.sample(NAMES + UNKNOWN_NAMES, rng.randrange(3))
        # The names may be those of leaves inside of this one, which need not take what this one takes.
        return kind, {name: random_value(rng, False, depth + 1) for name in names}
    return NIL


def random_message(rng, node):
    """A map that mostly follows the schema."""
    values = {}
    for name in node:
        child = node[name]
        if rng.random() < 0.2 or (not isinstance(child, dict) and rng.random() < 0.9):
            continue
        if not isinstance(child, dict):
            values[name] = random_value(rng, False)
        elif ("@mac" in child and rng.random() < 0.85) or rng.random() < 0.15:
            values[name] = random_value(rng, takes_reals(child))
        else:
            values[name] = random_message(rng, child)
    if rng.random() < 0.1:
        values[rng.choice(UNKNOWN_NAMES)] = random_value(rng, True)
    return "map", values


def takes_reals(leaf):
    attribute = Attribute(leaf, [])
    return attribute.format in ("f", "p", "") or attribute.factor != 1.0


def as_client_packs(value):
    """Keeps the kinds apart that share the short formats: the 64-bit ones, and int where it is positive."""
    kind, content = value
    if kind == "longlong":
        return b"\xd3" + struct.pack(">q", content)
    if kind == "ulonglong":
        return b"\xcf" + struct.pack(">Q", content)
    if kind == "int":
        return b"\xd2" + struct.pack(">i", content)
    if kind == "list":
        return bytes([0x90 | len(content)]) + b"".join(map(as_client_packs, content))
    if kind == "map":
        entries = [packed(("str", name)) + as_client_packs(content[name]) for name in content]
        return bytes([0x80 | len(content)]) + b"".join(entries)
    return packed(value)


# ---- Cases ----


def random_frame(rng, model, endpoints):
    mac, cmd = rng.choice(endpoints) if rng.random() < 0.95 else (rng.choice(MACS), rng.choice(CMDS))
    payload = random_payload(rng)
    command = "> frame %d %d %s" % (mac, cmd, payload.hex())
    return command.rstrip(), [frame_answer(model, mac, cmd, payload)]


def frame_answer(model, mac, cmd, payload):
    try:
        status, signalled = model.insert_frame(mac, cmd, payload)
    except BadType:
        return "throws Bad type"
    return "%d variantToSend" % status if signalled else str(status)


def holds(value, kind):
    if value[0] == "map":
        return any(holds(entry, kind) for entry in value[1].values())
    return value[0] == kind


def take_lines(model, force):
    value = model.take(force)
    if holds(value, "char[]"):  # cannot be packed
        return "> take" + " force" * force, [text_form(value)]
    return "> take" + " force" * force + " packed", [text_form(value), ("packed", value)]


def send_answers(model, message):
    frames, log, thrown = model.to_frames(message)
    return log + (["throws Bad type"] if thrown else ["frame " + frame.hex() for frame in frames])


def random_case(seed):
    """The lines of one case: commands as text, the answers to them as (answer,)."""
    rng = random.Random(seed)
    model = Model()
    schema = random_schema(rng)
    model.load(schema)
    lines = ["> schema " + json.dumps(schema)]

    def add(command, answers):
        lines.append(command)
        lines.extend((answer,) for answer in answers)

    endpoints = [(a.mac, a.cmd) for leaves in model.table.values() for a in leaves] or [(0, 0)]
    for _ in range(rng.randrange(5, 30)):
        dice = rng.random()
        if dice < 0.65:
            add(*random_frame(rng, model, endpoints))
        elif dice < 0.85:
            add(*take_lines(model, rng.random() < 0.2))
        else:
            message = random_message(rng, schema) if rng.random() < 0.97 else random_value(rng, True)
            add("> send-packed " + as_client_packs(message).hex(), send_answers(model, message))
    add(*take_lines(model, True))
    return lines


# ---- Comparison ----

ELEMENTS = {18: "uchar[]", 19: "short[]", 20: "ushort[]", 21: "int[]", 22: "uint[]", 23: "float[]"}
CODES = {18: "B", 19: "h", 20: "H", 21: "i", 22: "I", 23: "f"}


def unpacked_extension(code, data):
    return ELEMENTS[code], [number for (number,) in struct.iter_unpack("<" + CODES[code], data)]


def same(value, unpacked):
    """Whether a message unpacks to the value."""
    kind, content = value
    if kind == "map":
        return list(unpacked) == sorted(content) and all(same(content[k], unpacked[k]) for k in content)
    if kind.endswith("[]"):
        array, elements = unpacked
        return array == kind and len(elements) == len(content) and all(map(same_number, elements, content))
    return type(unpacked) is type(content) and same_number(unpacked, content)


def same_number(a, b):
    return a == b or (a != a and b != b)


def matches(expected, line):
    if not line.startswith("< "):
        return False
    line = line[2:]
    if isinstance(expected, Refused):
        return expected.matches(line)
    if isinstance(expected, tuple):
        return line.startswith("packed ") and same(expected[1], unpacked_message(line[7:]))
    return expected == line


def unpacked_message(digits):
    return msgpack.unpackb(bytes.fromhex(digits), ext_hook=unpacked_extension)


def first_difference(lines, actual):
    """The index of the first line that is not as expected; -1 if all are."""
    for at, expected in enumerate(lines):
        if at >= len(actual):
            return at
        good = expected == actual[at] if isinstance(expected, str) else matches(expected[0], actual[at])
        if not good:
            return at
    return -1 if len(actual) == len(lines) else len(lines)


def report(seed, lines, actual, at):
    print("Seed %d differs at line %d of its transcript:" % (seed, at + 1))
    print("\n".join(actual[:at]))
    expected = lines[at] if at < len(lines) else "no more"
    print("--- expected\n%s" % (expected if isinstance(expected, str) else "< %s" % expected))
    print("--- actual\n%s" % (actual[at] if at < len(actual) else "no more"))


def execute(program, cases):
    """What the program makes of the cases: its exit status, and by seed the lines of each."""
    script = ""
    for seed, lines in cases:
        script += "\n".join(["# %d" % seed] + [line for line in lines if isinstance(line, str)]) + "\n"
    run = subprocess.run([program], input=script, stdout=subprocess.PIPE, encoding="utf-8", check=False)
    actual = {}
    for part in ("\n" + run.stdout).split("\n# ")[1:]:
        seed, *lines = part.rstrip("\n").split("\n")
        actual[int(seed)] = lines
    return run.returncode, actual


def main():
    program = sys.argv[1]
    count = int(sys.argv[2]) if len(sys.argv) > 2 else CASES
    first = int(sys.argv[3]) if len(sys.argv) > 3 else 1
    cases = [(seed, random_case(seed)) for seed in range(first, first + count)]
    status, actual = execute(program, cases)
    failures = 0
    for seed, lines in cases:
        at = first_difference(lines, actual.get(seed, []))
        if at >= 0:
            failures += 1
            if failures <= 3:
                report(seed, lines, actual.get(seed, []), at)
    lines = sum(len(lines) for _, lines in cases)
    print("%d cases of %d lines, seeds from %d: %d differ" % (count, lines, first, failures))
    if status != 0:
        print("The converter ended with status %d" % status)
    sys.exit(1 if failures or status else 0)


if __name__ == "__main__":
    main()
