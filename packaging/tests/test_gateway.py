"""The gateway's settings and its page, held against what the program knows and what brokers are tested with."""

import os
import pathlib
import re
import subprocess

import documents
import pytest

PROJECT = pathlib.Path(__file__).parents[2]
PAGE = PROJECT / "docs" / "gateway.md"
INI = PROJECT / "gateway" / "gateway.ini"
EXAMPLES = PROJECT / "examples" / "gateway"
# The path where a configuration stands on a broker's machine, as the page has it.
INSTALLED = {"/etc/mosquitto/conf.d/vorbel.conf": "mosquitto.conf", "/etc/mosquitto/vorbel.acl": "mosquitto.acl",
             "/etc/nats-server.conf": "nats.conf"}
# As the settings spell what the program calls by another name.
SPELT = {"5": "5", "3": "3.1.1"}


def known():
    """Of each key of the program: its default as one writes it, and the bounds of a number."""
    header = (PROJECT / "gateway" / "settings.h").read_text()
    structs = {name: body for body, name in re.findall(r"    struct \{\n(.*?)    \} (\w+);", header, re.S)}
    source = (PROJECT / "gateway" / "settings.cpp").read_text()
    taken = re.findall(r'\{"(\w+/\w+)", s_(\w+)\((?:settings\.)?(\w+)\.(\w+)(.*?)\)\}', source)
    return {key.replace("/", " "): (default(kind, structs[struct], field), bounds(kind, rest))
            for key, kind, struct, field, rest in taken}


def default(kind, struct, field):
    line = next(line for line in struct.splitlines() if re.search(rf"\b{field}\b", line))
    value = re.search(rf'\b{field}\b(?: = |\{{)"?(.*?)"?[;}}]', line)
    text = value[1] if value else ""
    return SPELT[text] if kind == "version" else text


def bounds(kind, rest):
    return [str(eval(bound.replace("'", "_"))) for bound in rest.split(",")[1:]] if kind == "number" else []


def sections(text):
    """Of each key in a settings file, commented out or not: its last value."""
    section, values = None, {}
    for line in text.splitlines():
        if heading := re.fullmatch(r"\[(\w+)\]", line):
            section = heading[1]
        elif setting := re.fullmatch(r";?(\w+) =(.*)", line):
            values[f"{section} {setting[1]}"] = setting[2].strip()
    return values


KNOWN = known()
ROWS = {re.fullmatch(r"`\[(\w+)\] (\w+)`", row[0]).expand(r"\1 \2"): row for row in documents.tables(PAGE, "Settings")}


def test_the_program_knows_settings():
    source = (PROJECT / "gateway" / "settings.cpp").read_text()
    assert len(KNOWN) > 20 and len(KNOWN) == len(re.findall(r'^ +\{"\w+/\w+", ', source, re.M))


def test_the_settings_file_has_every_key_with_its_default_and_no_other():
    assert sections(INI.read_text()) == {key: value for key, (value, _) in KNOWN.items()}


def test_the_settings_file_sets_nothing_and_explains_everything():
    assert documents.set_or_unexplained(INI) == []


def test_the_page_has_every_key_and_no_other():
    assert set(ROWS) == set(KNOWN)


@pytest.mark.parametrize("key", KNOWN)
def test_the_page_has_the_default_and_the_bounds(key):
    value, limits = KNOWN[key]
    _, _, valid, shown = ROWS[key]
    assert shown.startswith(f"`{value}`" if value else "empty: ")
    assert re.findall(r"\d+", valid)[:2] == limits or not limits


@pytest.mark.parametrize("path", INSTALLED)
def test_the_page_shows_the_brokers_configurations_as_they_are(path):
    assert documents.Blocks(PAGE)[path] == (EXAMPLES / INSTALLED[path]).read_text()


def test_every_configuration_is_on_the_page():
    assert {path.name for path in EXAMPLES.iterdir()} == set(INSTALLED.values())


def test_the_manual_page_has_every_word_and_every_variable_and_no_other():
    page = (PROJECT / "packaging/vorbel-gateway.8").read_text().replace("\\-", "-")
    main = (PROJECT / "gateway/main.cpp").read_text()
    assert set(re.findall(r"--\w+", page)) == set(re.findall(r"--\w+", main))
    variables = set(re.findall(r'qEnvironmentVariable\("(\w+)"', main))
    assert set(re.findall(r"^\.B ([A-Z_]+)$", page, re.M)) == variables | {"QT_LOGGING_RULES"}


def test_the_manual_page_is_well_formed():
    page = PROJECT / "packaging/vorbel-gateway.8"
    shown = subprocess.run(["man", "--warnings", "-l", page], capture_output=True, text=True,
                           env={**os.environ, "MANROFFSEQ": "", "MANWIDTH": "80", "LC_ALL": "C.UTF-8"})
    assert (shown.returncode, shown.stderr) == (0, "") and "/etc/vorbel/gateway.ini" in shown.stdout


def test_the_unit_and_the_page_name_the_same_ceiling_and_spool():
    unit = (PROJECT / "packaging/vorbel-gateway.service").read_text()
    assert f"a full spool of {KNOWN['spool megabytes'][0]} MB" in unit.replace("\n# ", " ")


# The log

LINES = [(level, line) for level, cell, _ in documents.tables(PAGE, "The log")
         for line in re.findall(r"`([^`]+)`", cell)]


def formats():
    """Of each line that the sources write: its level, and what every such line looks like."""
    for file in (PROJECT / "gateway").glob("*.cpp"):
        statements = re.findall(r'\bq(Debug|Info|Warning|Critical)\(\s*"((?:[^"\\]|\\.)*)"', file.read_text())
        for level, text in statements:
            yield level.lower(), re.compile("(.+)".join(map(re.escape, re.split("%[sd]", text))))


FORMATS = list(formats())


def fitting(level, line):
    """The most telling of the lines that are written so."""
    fits = [each for each in FORMATS if each[0] == level and each[1].fullmatch(line)]
    return max(fits, key=lambda each: len(each[1].pattern), default=None)


def test_every_line_of_the_log_is_in_the_page():
    assert len(FORMATS) > 20
    assert {fitting(*line) for line in LINES} == set(FORMATS)


def test_every_line_that_the_page_has_is_written():
    assert [line for line in LINES if not fitting(*line)] == []
