"""The table of log lines in the deployment page, held against the lines that the sources write."""

import pathlib
import re

import documents

PROJECT = pathlib.Path(__file__).parents[2]
DEPLOYMENT, PROTOCOL = PROJECT / "docs" / "deployment.md", PROJECT / "docs" / "protocol.md"
TABLED = [(level, line) for level, cell, _ in documents.tables(DEPLOYMENT, "The log")
          for line in re.findall(r"`([^`]+)`", cell)]
LEVELS = ("debug", "info", "warning", "critical")  # the rest is what Qt writes

# The second form is the last line of a LineLimit, of either level.
STATEMENT = r"(?:\bq(Debug|Info|Warning|Critical)\(\)(?:\.noquote\(\))?|^ +line) <<(.*?);"
# Only programs cause these that register types, pack values of their own or take messages of gigabytes.
NOT_THE_DAEMONS = ("MsgPack::unpacker for type", "MsgPack::packer for qtype", "MsgPack::pack can't pack more than",
                   "MsgPack::pack can't pack into more than", "MsgPack::unpack() can't unpack more than * elements")


def statements():
    """The log statements of the daemon's sources: level and what stands between the first << and the semicolon."""
    for folder in ("msgpack", "schema", "service"):
        for file in (PROJECT / folder).glob("*.[ch]*"):
            yield from re.findall(STATEMENT, re.sub("//.*", "", file.read_text()), re.M | re.S)


def line_of(written):
    """The line that a statement writes, with * for what differs; nothing but that if it has no text."""
    joined_by_the_compiler = re.sub(r'"\s+"', "", written)
    parts = (part.strip() for part in re.split(r'<<(?=(?:[^"]*"[^"]*")*[^"]*$)', joined_by_the_compiler))
    return " ".join(part[1:-1] if part.startswith('"') else "*" for part in parts)


def is_like(line, level, tabled):
    return level == tabled[0] and re.fullmatch(re.escape(line).replace(r"\*", ".+"), tabled[1])


WRITTEN = [(level.lower() or "warning", line_of(written)) for level, written in statements()]
WRITTEN = [(level, line) for level, line in WRITTEN if line != "*" and not line.startswith(NOT_THE_DAEMONS)]


def test_every_line_that_is_written_is_tabled():
    assert len(WRITTEN) > 30
    assert [(level, line) for level, line in WRITTEN if not any(is_like(line, level, known) for known in TABLED)] == []


def test_every_line_that_is_tabled_is_written():
    assert [known for known in TABLED
            if known[0] in LEVELS and not any(is_like(line, level, known) for level, line in WRITTEN)] == []


def test_each_line_is_tabled_once():
    lines = [line for _, line in TABLED]
    assert len(lines) == len(set(lines))
    assert documents.tables(PROTOCOL, "What the daemon logs") == []
