"""The limits that the security page names, held against those of the protocol."""

import pathlib
import re

import documents

PROJECT = pathlib.Path(__file__).parents[2]
QUANTITY = r"\d[\d,]*(?: (?:KiB|MiB|s\b|frames))?"


def quantities(text):
    """The numbers of a text with their units."""
    return {quantity.replace(",", "") for quantity in re.findall(QUANTITY, text)}


def test_every_limit_is_one_of_the_protocol():
    limits = documents.tables(PROJECT / "docs" / "protocol.md", "Limits")
    known = quantities("\n".join(" ".join(row) for row in limits))
    named = documents.tables(PROJECT / "SECURITY.md", "Limits against hostile input")
    assert len(named) > 5
    assert [row for row in named if not quantities(row[1]) <= known] == []


def test_the_ceiling_is_the_units():
    (ceiling,) = re.findall(r"^MemoryMax=(\d+)M$", (PROJECT / "packaging/vorbel.service").read_text(), re.M)
    assert f"{ceiling} MiB, then systemd" in (PROJECT / "SECURITY.md").read_text()
