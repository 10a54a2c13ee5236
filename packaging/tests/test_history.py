"""The history's settings, pages and log, held against what the program knows."""

import configparser
import dataclasses
import os
import pathlib
import re
import subprocess

import documents
import pytest

from vorbel.history import settings

PROJECT = pathlib.Path(__file__).parents[2]
PAGE = PROJECT / "docs" / "fleet.md"
INI = PROJECT / "clients" / "python" / "history.ini"
SOURCES = PROJECT / "clients" / "python" / "vorbel" / "history"
MANUAL = PROJECT / "packaging" / "vorbel-history.8"


def known():
    """Of each setting: its default as one writes it."""
    made = settings.Settings()
    owners = {"broker": made.broker, "topics": made, "database": made.database}
    return {f"{section} {key}": str(getattr(owners[section], name))
            for (section, key), (name, _) in settings._known("").items()}


def shown():
    """Of each key in the settings file, which are all commented out: its value."""
    parser = configparser.ConfigParser(interpolation=None)
    parser.read_string(re.sub(r"^;(?=\w+ =)", "", INI.read_text(), flags=re.M))
    return {f"{section} {key}": value for section in parser.sections() for key, value in parser[section].items()}


KNOWN = known()
ROWS = {re.fullmatch(r"`\[(\w+)\] (\w+)`", row[0]).expand(r"\1 \2"): row for row in documents.tables(PAGE, "Settings")}


def test_the_program_knows_settings():
    fields = {field.name for owner in (settings.Broker, settings.Database) for field in dataclasses.fields(owner)}
    assert len(KNOWN) == 18 and {key.split()[1] for key in KNOWN} | {"password"} == fields | {"password_file", "prefix"}


def test_the_settings_file_has_every_key_with_its_default_and_no_other():
    assert shown() == KNOWN


def test_the_settings_file_sets_nothing_and_explains_everything():
    assert documents.set_or_unexplained(INI) == []


def test_the_page_has_every_key_and_no_other():
    assert set(ROWS) == set(KNOWN)


@pytest.mark.parametrize("key", KNOWN)
def test_the_page_has_the_default_and_the_bounds(key, tmp_path):
    _, _, valid, default = ROWS[key]
    assert default.startswith(f"`{KNOWN[key]}`" if KNOWN[key] else "empty: ")
    if bounds := re.fullmatch(r"(\d+) to (\d+)", valid):
        section, name = key.split()
        for value, is_valid in ((int(bounds[1]), True), (int(bounds[1]) - 1, False), (int(bounds[2]), True),
                                (int(bounds[2]) + 1, False)):
            (tmp_path / "ini").write_text(f"[{section}]\n{name} = {value}\n")
            assert (settings.read_settings(str(tmp_path / "ini"), "")[1] == []) == is_valid, value


def test_the_manual_page_has_every_word_and_every_variable_and_no_other():
    page, main = MANUAL.read_text().replace("\\-", "-"), (SOURCES / "main.py").read_text()
    assert set(re.findall(r"--\w+", page)) == {"--help", *re.findall(r'"(--\w+)"', main)}
    assert set(re.findall(r"^\.B ([A-Z_]+)$", page, re.M)) == set(re.findall(r'environ\.get\("(\w+)"', main))


def test_the_manual_page_is_well_formed():
    page = subprocess.run(["man", "--warnings", "-l", MANUAL], capture_output=True, text=True,
                          env={**os.environ, "MANROFFSEQ": "", "MANWIDTH": "80", "LC_ALL": "C.UTF-8"})
    assert (page.returncode, page.stderr) == (0, "") and "/etc/vorbel/history.ini" in page.stdout


# The log

LINES = [(level, line) for level, cell, _ in documents.tables(PAGE, "The log")
         for line in re.findall(r"`([^`]+)`", cell)]
CALL = r"\b(log\.\w+|_trouble\.tell|_refusals\.tell|warning)"


def formats():
    """Of each line that the sources write: its level, and what every such line looks like."""
    for file in SOURCES.glob("*.py"):
        text = re.sub(r'"\s*\n\s*f?"', "", file.read_text())  # what Python joins
        for call, line in re.findall(CALL + r'\(f?"((?:[^"\\]|\\.)*)"', text):
            level = call.removeprefix("log.") if call.startswith("log.") else "warning"
            yield level, re.compile("(.+)".join(map(re.escape, re.split(r"\{[^}]*\}", line))))
    yield "critical", re.compile(re.escape(re.search(r'return "(python3-paho[^"]*)"',
                                                     (SOURCES / "session.py").read_text())[1]))


FORMATS = list(formats())


def fitting(level, line):
    """The most telling of the lines that are written so."""
    fits = [each for each in FORMATS if each[0] == level and each[1].fullmatch(line)]
    return max(fits, key=lambda each: len(each[1].pattern), default=None)


def test_every_line_of_the_log_is_in_the_page():
    assert len(FORMATS) == 14
    assert {fitting(*line) for line in LINES} == set(FORMATS)


def test_every_line_that_the_page_has_is_written():
    assert [line for line in LINES if not fitting(*line)] == []
