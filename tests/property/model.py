"""A slow, plain model of the conversion between frames and values, to hold the fast one against.

It shares no code and no structure with the converter: dictionaries, lists and struct, one step after the
other. Numbers that the converter keeps in single precision go through f32() after every operation.

Values of clients and of frames are pairs (kind, content). The kinds are nil, bool, int, uint, longlong,
ulonglong, float, double, str, bin, list, map, and for gathered readings the arrays uchar[], char[], short[],
ushort[], int[], uint[], float[].
"""

import decimal
import math
import struct

NIL = ("nil", None)


class BadType(Exception):
    """A value or payload of the wrong shape; the converter throws."""


class Refused:
    """A warning whose wording is the converter's own, but which names the leaf."""

    def __init__(self, name):
        self.name = name

    def matches(self, line):
        return line.startswith("warning: ") and '"%s"' % self.name in line

    def __str__(self):
        return 'warning: ..."%s"...' % self.name


# ---- Numbers ----


def f32(x):
    """Rounds to single precision; what lies beyond it is infinite."""
    try:
        return struct.unpack("<f", struct.pack("<f", x))[0]
    except OverflowError:
        return math.copysign(math.inf, x)


def times32(a, b):
    return f32(a * b)  # exact in double precision: the only rounding is the last


def reciprocal32(x):
    if x == 0:
        return math.copysign(math.inf, x)
    return f32(1.0 / x)


def wrap(number, width, signed):
    number &= (1 << 8 * width) - 1
    if signed and number >> (8 * width - 1):
        number -= 1 << 8 * width
    return number


def rounded(x, single=False):
    """To the nearest whole number, halves upwards."""
    narrow = f32 if single else float
    if x >= 0:
        return int(narrow(x + 0.5))
    below = int(narrow(x - 1))
    return int(narrow(narrow(x - below) + 0.5)) + below


def parsed(text, kind):
    try:
        return kind(text)
    except ValueError:
        return kind(0)


def shortest(x):
    """Six digits with halves away from zero, as the log writes numbers."""
    if math.isnan(x) or math.isinf(x) or x == 0:
        return "%g" % abs(x) if x == 0 or math.isnan(x) else "%g" % x
    return "%g" % decimal.Context(prec=6, rounding=decimal.ROUND_HALF_UP).create_decimal(x)


# ---- Options: JSON values as they convert ----


def option_int(value):
    if isinstance(value, float):
        value = rounded(value)
    elif isinstance(value, str):
        value = parsed(value, int)
    elif not isinstance(value, int):
        value = 0
    return wrap(value, 4, True)


def option_bool(value):
    if isinstance(value, str):
        return value.lower() not in ("", "0", "false")
    return bool(value) if isinstance(value, (bool, int, float)) else False


def option_float(value):
    if isinstance(value, str):
        return f32(parsed(value, float))
    if value == 0:
        return 0.0  # the parser takes whole numbers as integers, which have no -0.0
    return f32(float(value)) if isinstance(value, (bool, int, float)) else 0.0


# ---- One leaf ----

#          bytes, signed, masked, array
FORMATS = {
    "C": (1, False, True, "uchar[]"),
    "c": (1, False, True, "char[]"),
    "S": (2, False, True, "ushort[]"),
    "s": (2, True, True, "short[]"),
    "Q": (2, False, False, "ushort[]"),
    "q": (2, True, False, "short[]"),
    "I": (4, False, True, "uint[]"),
    "i": (4, True, True, "int[]"),
    "f": (4, True, False, "float[]"),
}


class Attribute:
    def __init__(self, options, path):
        text = options.get("@format", "")
        text = str(text).lower() if isinstance(text, bool) else text
        first = text.encode()[:1] if isinstance(text, str) else b""
        self.format = first.decode("latin-1")
        self.flush_size = option_int(options.get("@flushSize"))
        self.skip = option_int(options.get("@skip"))
        self.mac = option_int(options.get("@mac")) & 0xFFFF
        self.cmd = option_int(options.get("@cmd")) & 0xFFFF
        self.fragmentation = option_bool(options.get("@fragmentation"))
        self.as_bool = option_bool(options.get("@asBool"))
        self.mask = option_int(options["@mask"]) if "@mask" in options else -1
        self.observe = option_bool(options.get("@observe")) and self.flush_size == 0
        self.factor = option_float(options["@factor"]) if "@factor" in options else 1.0
        self.path = path
        self.last = NIL
        self.changed = False
        self.clear()

    def key(self):
        return wrap(self.cmd << 16 | self.mac, 4, True)

    def clear(self):
        self.count = 0
        self.data = NIL

    def is_empty(self):
        return self.data == NIL

    def is_full(self):
        return self.count >= self.flush_size if self.flush_size > 0 else self.count > self.flush_size

    def is_ready(self):
        return self.is_full() and (self.changed or not self.observe)

    def is_read_only(self):
        return self.as_bool or self.mask != -1

    def insert(self, payload):
        if self.is_full():
            return
        if self.format == "p":
            if not payload:
                raise BadType  # no fragment is ever kept, and nothing is no map
        elif self.format in FORMATS:
            self.decode(payload)
        if self.observe:
            self.changed = self.last != self.data  # not a number differs from itself
            if self.data != NIL:
                self.last = self.data
            if not self.changed:
                self.clear()

    def decode(self, payload):
        width, signed, masked, array = FORMATS[self.format]
        if self.skip < 0 or self.skip + width > len(payload):
            return
        piece = payload[self.skip:self.skip + width]
        if self.format == "f":
            reading = struct.unpack("<f", piece)[0]
        else:
            number = int.from_bytes(piece, "little")
            reading = wrap(number & self.mask if masked else number, width, signed)
        scale = reciprocal32(self.factor)
        kind = {"f": "float", "I": "uint"}.get(self.format, "int")
        if scale != 1.0:
            reading, kind, array = times32(f32(float(reading)), scale), "float", "float[]"
        if self.flush_size > 0:
            element = type(reading)(reading != 0) if self.as_bool else reading
            gathered = [] if self.is_empty() else self.data[1]
            self.data = (array, gathered + [element])
            self.count = len(self.data[1])
        else:
            self.data = ("bool", reading != 0) if self.as_bool else (kind, reading)
            self.count = 1


# ---- The converter ----


class Model:
    def __init__(self):
        self.load({})

    def load(self, document):
        self.document = document if isinstance(document, dict) else {}
        self.table = {}
        self.walk(self.document, [])

    def walk(self, node, path):
        for name in sorted(node):
            if "@mac" in node:
                attribute = Attribute(node, path)
                self.table.setdefault(attribute.key(), []).append(attribute)
            if isinstance(node[name], dict):
                self.walk(node[name], path + [name])

    def insert_frame(self, mac, cmd, payload):
        """The status and whether the signal is emitted."""
        attributes = self.table.get(wrap(cmd << 16 | mac, 4, True))
        if attributes is None:
            return 2, False
        ready = False
        for attribute in attributes:
            if not attribute.is_full():
                attribute.insert(payload)
                ready = ready or attribute.is_ready()
        return 1, ready

    def take(self, force):
        root = {"": NIL}
        for key in sorted(self.table):
            for attribute in self.table[key]:
                if attribute.is_empty() or not (force or attribute.is_ready()):
                    continue
                holder, name = root, ""
                for step in attribute.path:
                    if holder[name][0] != "map":
                        holder[name] = ("map", {})
                    holder, name = holder[name][1], step
                    holder.setdefault(name, NIL)
                holder[name] = attribute.data
                attribute.clear()
        return root[""]

    def to_frames(self, value):
        """The frames, and the log lines on the way."""
        log = ["debug: Converting binary data into a frame " + debug_form(value)] * 2
        if value[0] != "map":
            return [], log, True
        payloads, fragmentation = {}, {}
        self.place(payloads, fragmentation, value[1], self.document, log)
        frames = []
        for key in sorted(payloads):
            cut(frames, key, bytes(payloads[key]), fragmentation[key], log)
        log.append("debug: Converted VEK frames: %d" % len(frames))
        log.append("debug: Converted size: %d" % (11 * len(frames)))
        return frames, log, False

    def place(self, payloads, fragmentation, values, node, log):
        for name in sorted(values):
            value = values[name]
            child = node.get(name)
            if not isinstance(child, dict):
                log.append('warning: Key: "%s" does not exist in the schema' % name)
                continue
            attribute = Attribute(child, [])
            if value[0] == "map" and attribute.format != "p":
                self.place(payloads, fragmentation, value[1], child, log)
                continue
            key = attribute.key()
            if key not in payloads:
                payloads[key] = bytearray()
                fragmentation[key] = attribute.fragmentation
            write(payloads[key], attribute, name, value, log)


def write(payload, attribute, name, value, log):
    if attribute.is_read_only():
        log.append(
            'warning: Attribute "%s" is readonly (because it is configured with one of the options: '
            "@asBool, @mask) and cannot be written to." % name
        )
    elif value == NIL:
        pass
    elif attribute.format == "p":
        payload += packed(("map", {name: value}))
    elif attribute.format in FORMATS:
        if not 0 <= attribute.skip <= 65535:
            log.append(Refused(name))
        else:
            write_fixed(payload, attribute, value, log)


def write_fixed(payload, attribute, value, log):
    width = FORMATS[attribute.format][0]
    if attribute.factor != 1.0:
        value = clamped(times32(attribute.factor, as_float(value)), attribute.format, log)
    log.append(
        "debug: insertToByteArray:  %s , offset:  %d , dst:  %d"
        % (debug_form(value), attribute.skip, len(payload))
    )
    if attribute.format == "f":
        piece = struct.pack("<f", as_float(value))
    else:
        piece = wrap(as_whole(value), width, False).to_bytes(width, "little")
    missing = attribute.skip + width - len(payload)
    payload += bytes(max(missing, 0))
    payload[attribute.skip:attribute.skip + width] = piece


def clamped(product, format_code, log):
    kind, width = {1: ("signed char", 1), 2: ("short", 2), 4: ("int", 4)}[FORMATS[format_code][0]]
    low, high = -(1 << 8 * width - 1), (1 << 8 * width - 1) - 1
    chosen = product
    if product > f32(float(high)):
        chosen = f32(float(high))
    elif product < low:
        chosen = float(low)
    if chosen != product or math.isnan(product):
        log.append(
            "warning: Invalid numeric conversion. Number overflow, value: %s result: %s"
            % (shortest(product), shortest(chosen))
        )
    return kind, 0 if math.isnan(chosen) else min(int(chosen), high)


def cut(frames, key, payload, fragmentation, log):
    mac, cmd = key & 0x3F, key >> 16 & 0x1F
    data = bytes(8)
    for start in range(0, len(payload), 8):
        piece = payload[start:start + 8]
        data = piece + data[len(piece):]  # what the previous fragment left stays behind a shorter one
        log.append(
            "debug: Preparing CAN frame MAC: %d CMD: %d RTR: 0 DLC: %d toSend: %d"
            % (mac, cmd, len(piece), len(payload) - start)
        )
        log.append('debug: "%s"' % piece.hex())
        record = struct.pack("<H", mac | cmd << 6 | len(piece) << 11) + data
        frames.append(record + bytes([crc8(record)]))
        if len(payload) > 8 and not fragmentation:
            log.append(
                "warning: Cannot send more than 8 bytes of data through CAN without fragmentation. "
                "The frame was trimmed to 8 bytes."
            )
            return


def crc8(record):
    crc = 0
    for byte in record:
        crc ^= byte
        for _ in range(8):
            crc = (crc << 1 ^ (0x07 if crc & 0x80 else 0)) & 0xFF
    return crc


# ---- Client values as they convert ----


def as_whole(value):
    kind, content = value
    if kind == "double":
        return rounded(content)
    if kind == "float":
        return rounded(content, single=True)
    if kind == "str":
        return parsed(content, int)
    if kind == "bin":
        return parsed(content.decode(), int)
    return 0 if kind == "list" else int(content)


def as_float(value):
    kind, content = value
    if kind == "str":
        content = parsed(content, float)
    elif kind == "bin":
        content = parsed(content.decode(), float)
    return 0.0 if kind == "list" else f32(float(content))


def debug_form(value):
    """The value as it stands in the log."""
    kind, content = value
    if kind == "nil":
        return "QVariant(Invalid)"
    if kind == "map":
        entries = ['("%s", %s)' % (name, debug_form(content[name])) for name in sorted(content)]
        return "QVariant(QVariantMap, QMap(%s))" % "".join(entries)
    if kind == "list":
        return "QVariant(QVariantList, (%s))" % ", ".join(map(debug_form, content))
    if kind == "str":
        return 'QVariant(QString, "%s")' % content
    if kind == "bin":
        return 'QVariant(QByteArray, "%s")' % content.decode()
    if kind == "bool":
        return "QVariant(bool, %s)" % str(content).lower()
    if kind in ("float", "double"):
        return "QVariant(%s, %s)" % (kind, shortest(content))
    return "QVariant(%s%s, %d)" % ("q" if "long" in kind else "", kind, content)


def text_form(value):
    """The value as it stands in a transcript."""
    kind, content = value
    if kind == "nil":
        return "nothing"
    if kind == "bool":
        return str(content).lower()
    if kind == "map":
        entries = ['"%s": %s' % (name, text_form(content[name])) for name in sorted(content)]
        return "{%s}" % ", ".join(entries)
    number = (lambda x: "nan" if math.isnan(x) else "%.9g" % x) if kind.startswith("float") else str
    if kind.endswith("[]"):
        return "%s[%s]" % (kind[:-2], ", ".join(map(number, content)))
    return "%s %s" % (kind, number(content))


# ---- MessagePack, as far as clients and packed leaves need it ----


def packed(value):
    kind, content = value
    if kind == "nil":
        return b"\xc0"
    if kind == "bool":
        return b"\xc3" if content else b"\xc2"
    if kind == "float":
        return b"\xca" + struct.pack(">f", content)
    if kind == "double":
        return b"\xcb" + struct.pack(">d", content)
    if kind == "str":
        return packed_length(len(content), 31, 0xA0, 0xD9) + content.encode()
    if kind == "bin":
        return b"\xc4" + bytes([len(content)]) + content
    if kind == "list":
        return bytes([0x90 | len(content)]) + b"".join(map(packed, content))
    if kind == "map":
        entries = [packed(("str", name)) + packed(content[name]) for name in sorted(content)]
        return bytes([0x80 | len(content)]) + b"".join(entries)
    if kind == "longlong" and content > 0xFFFFFFFF:
        return b"\xd3" + struct.pack(">q", content)  # signed stays signed
    return packed_whole(content)


def packed_length(length, most, short_base, long_code):
    return bytes([short_base | length]) if length <= most else bytes([long_code, length])


def packed_whole(number):
    if -32 <= number < 128:
        return struct.pack("b", number)
    if number > 0:
        for code, form, most in ((0xCC, ">B", 0xFF), (0xCD, ">H", 0xFFFF), (0xCE, ">I", 0xFFFFFFFF)):
            if number <= most:
                return bytes([code]) + struct.pack(form, number)
        return b"\xcf" + struct.pack(">Q", number)
    for code, form, least in ((0xD0, ">b", -(2**7)), (0xD1, ">h", -(2**15)), (0xD2, ">i", -(2**31))):
        if number >= least:
            return bytes([code]) + struct.pack(form, number)
    return b"\xd3" + struct.pack(">q", number)
