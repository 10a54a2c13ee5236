"""The Python client as it is installed; its package is made of the same files."""

import gzip
import os
import pathlib
import re
import subprocess

import pytest
import terminaltool

PROJECT = pathlib.Path(__file__).parents[2]
COMMANDS = ["watch", "set", "hello", "schema check", "schema import", "schema export", "record", "plot", "discover",
            "dump", "replay", "history"]


@pytest.fixture(scope="module")
def root(tmp_path_factory):
    folder = tmp_path_factory.mktemp("root")
    subprocess.run(["cmake", "--install", os.environ["VORBEL_BUILD_DIR"], "--component", "python", "--prefix", "/usr"],
                   env={**os.environ, "DESTDIR": folder}, check=True, capture_output=True)
    return folder


@pytest.fixture(scope="module")
def manual(root):
    page = gzip.decompress((root / "usr/share/man/man1/vorbel-cli.1.gz").read_bytes())
    rendered = subprocess.run(["man", "--local-file", "--warnings", "-"], input=page, capture_output=True, check=True,
                              env={**os.environ, "LC_ALL": "C", "MANWIDTH": "200"})
    assert rendered.stderr == b""
    return rendered.stdout.decode()


def test_the_module_is_complete(root):
    modules = PROJECT / "clients/python/vorbel"
    installed = root / "usr/lib/python3/dist-packages/vorbel"
    files = {path.relative_to(modules) for path in modules.rglob("*.*") if path.suffix in (".py", ".typed")}
    assert {path.relative_to(installed) for path in installed.rglob("*") if path.is_file()} == files
    assert {pathlib.Path("py.typed"), pathlib.Path("history/service.py")} <= files


def test_the_installed_tool_runs(root):
    terminaltool.check(root, PROJECT / "examples/machine.schema.json")


@pytest.mark.parametrize("command", COMMANDS)
def test_the_manual_page_knows_every_option(root, manual, command):
    explained = terminaltool.run(root, *command.split(), "--help").stdout
    options = set(re.findall(r"(?<![\w-])--?[a-z][a-z-]*", explained))
    assert "--help" in options
    assert re.search(rf"^ +vorbel-cli {command}", manual, re.M)
    assert [option for option in options if not re.search(rf"(?<![\w-]){option}(?![\w-])", manual)] == []


def test_the_manual_page_knows_every_command(root):
    explained = terminaltool.run(root, "--help").stdout
    assert re.findall(r"^    (\w+) ", explained, re.M) == list(
        dict.fromkeys(command.split()[0] for command in COMMANDS))
