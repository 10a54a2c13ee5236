"""The version, which several files have to name."""

import json
import pathlib
import re
import tomllib

import pytest

PROJECT = pathlib.Path(__file__).parents[2]


def text(name):
    return (PROJECT / name).read_text()


(VERSION,) = re.findall(r"project\(vorbel VERSION (\S+)", text("CMakeLists.txt"))


def test_the_packages_changelog_begins_with_it():
    assert text("packaging/changelog").startswith(f"vorbel ({VERSION}) ")


def test_the_python_client_has_it():
    assert tomllib.loads(text("clients/python/pyproject.toml"))["project"]["version"] == VERSION
    assert f'\n__version__ = "{VERSION}"\n' in text("clients/python/vorbel/__init__.py")


@pytest.mark.parametrize("client", ["js", "monitor"])
def test_the_typescript_clients_have_it(client):
    assert json.loads(text(f"clients/{client}/package.json"))["version"] == VERSION


def test_the_deployment_page_names_the_packages_of_it():
    assert set(re.findall(r"vorbel_(\d.*?)_\w+\.deb", text("docs/deployment.md"))) == {VERSION}
