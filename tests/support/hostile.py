"""Messages and schemas that cost the daemon as much as anything can."""

MIB = 1024 * 1024
INCOMING_LIMIT = 4 * MIB
EXTENSION = b"\xd4\x11\x00"  # of a type that nobody knows


def head32(kind, count):
    """The head of an array (0xdd), a map (0xdf), a byte array (0xc6)."""
    return bytes([kind]) + count.to_bytes(4, "big")


def doubling(levels):
    """Arrays of two within each other; the second element of each repeats the first, which holds all the others."""
    return b"\x92" * levels + b"\xc0" + EXTENSION * levels


def unknown_extensions():
    count = (INCOMING_LIMIT - 5) // len(EXTENSION)
    return head32(0xDD, count) + EXTENSION * count, count


def unknown_keys():
    count = 580_000
    return head32(0xDF, count) + b"".join(b"\xa5%05x\xc0" % i for i in range(count)), count


def nested(unit, depth, inside, count):
    return head32(0xDD, count // depth) + (unit * depth + inside) * (count // depth)


def members(text, count):
    return "{" + ",".join(text % i for i in range(count)) + "}"


def within_each_other(opened, inside, closed, count):
    return '{"a":[' + (opened * 1000 + inside + closed * 1000 + ",") * (count // 1000) + "1]}"


# What decodes large, each as large as it is taken.
MESSAGES = {
    "numbers": lambda share: head32(0xDD, int(share * 2_090_000)) + b"\x01" * int(share * 2_090_000),
    "empty arrays": lambda share: head32(0xDD, int(share * 695_000)) + b"\x90" * int(share * 695_000),
    "maps with number keys": lambda share: head32(0xDD, int(share * 415_000)) + b"\x81\x01\x01" * int(share * 415_000),
    "maps with nil keys": lambda share: head32(0xDD, int(share * 415_000)) + b"\x81\xc0\x01" * int(share * 415_000),
    "deep lists": lambda share: nested(b"\x91", 9000, b"\x01", int(share * 695_000)),
    "deep maps": lambda share: nested(b"\x81\x01", 9000, b"\x01", int(share * 521_000)),
}
SCHEMAS = {
    "tiny leaves": lambda share: members('"%05x":{"@mac":1}', int(share * 168_000)),
    "leaves in a leaf": lambda share: '{"x":{"@mac":1,' + members('"%05x":{"@mac":1}', int(share * 168_000))[1:] + "}",
    "one leaf": lambda share: '{"x":{"@mac":1,' + members('"%05x":1', int(share * 389_000))[1:] + "}",
    "lists": lambda share: within_each_other("[", "", "]", int(share * 727_000)),
    "objects": lambda share: within_each_other('{"":', "1", "}", int(share * 306_000)),
}


def gathering_schema(leaves):
    """Every frame of node 1, command 1 with eight bytes adds four bytes for each leaf, and none is ever sent."""
    leaf = {"@mac": 1, "@cmd": 1, "@format": "I", "@flushSize": 1_000_000_000}
    return {f"{i:05}": leaf for i in range(leaves)}


LARGE_LEAVES, LARGE_READINGS = 45_000, 100
LARGE = LARGE_LEAVES * LARGE_READINGS * 4


def large_schema():
    leaf = {"@mac": 1, "@cmd": 1, "@format": "f", "@flushSize": LARGE_READINGS}
    return {f"{i:05}": leaf for i in range(LARGE_LEAVES)}
