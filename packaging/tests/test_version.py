"""The version. It stands in CMakeLists.txt; what else has to name it is held equal here."""

import pathlib
import re
import subprocess

import pytest

PROJECT = pathlib.Path(__file__).parents[2]
NUMBER = r"(\d+\.\d+\.\d+)"
COPIES = {
    "CHANGELOG.md": rf"\A.*?^## \[{NUMBER}\]",  # the topmost
    "clients/cpp/README.md": rf"client-dev_{NUMBER}_",
    "clients/js/README.md": rf"vorbel-{NUMBER}\.tgz",
    "clients/js/package.json": rf'^    "version": "{NUMBER}"',
    "clients/monitor/package.json": rf'^ +"(?:version|vorbel)": "{NUMBER}"',
    "clients/package-lock.json":
        rf'^            "name": "vorbel(?:-monitor)?",\n +"version": "{NUMBER}"|"vorbel": "{NUMBER}"',
    "clients/python/README.md": rf"vorbel_{NUMBER}_",
    "clients/python/pyproject.toml": rf'^version = "{NUMBER}"',
    "clients/python/vorbel/__init__.py": rf'^__version__ = "{NUMBER}"',
    "docs/deployment.md": rf"(?:vorbel|gateway|history|client-dev)_{NUMBER}_",
    "docs/fleet.md": rf"(?:vorbel|history)_{NUMBER}_",
    "docs/gateway.md": rf"(?:vorbel|gateway)_{NUMBER}_",
    "packaging/changelog": rf"\Avorbel \({NUMBER}\) ",
    "packaging/vorbel-authority.1": rf'\A\.TH .* "vorbel {NUMBER}"',
    "packaging/vorbel-cli.1": rf'\A\.TH .* "vorbel {NUMBER}"',
    "packaging/vorbel-gateway.8": rf'\A\.TH .* "vorbel {NUMBER}"',
    "packaging/vorbel-history.8": rf'\A\.TH .* "vorbel {NUMBER}"',
    "packaging/vorbel.8": rf'\A\.TH .* "vorbel {NUMBER}"',
    "tests/system/test_upgrade_and_removal.py": rf'"Version: {NUMBER}"',
}
# Places that may have the same number by chance: the codec's own version, the versions of npm's packages.
OTHERS = ["msgpack", "tests/unit", "clients/package-lock.json", "packaging/tests/test_version.py"]


def text(name):
    return (PROJECT / name).read_text()


(VERSION,) = re.findall(rf"^project\(vorbel VERSION {NUMBER} ", text("CMakeLists.txt"), re.M)


def copies(name):
    """The versions in a file, by their places in it."""
    return {match.start(group): match[group] for match in re.finditer(COPIES[name], text(name), re.M | re.S)
            for group in range(1, match.re.groups + 1) if match[group]}


@pytest.mark.parametrize("name", COPIES)
def test_every_copy_is_the_version(name):
    assert set(copies(name).values()) == {VERSION}


def test_there_is_no_other_copy():
    searched = ["git", "grep", "-Io", "--fixed-strings", VERSION, "--", ".", *(f":!{path}" for path in OTHERS)]
    found = subprocess.run(searched, cwd=PROJECT, capture_output=True, text=True, check=True).stdout.splitlines()
    known = [f"{name}:{VERSION}" for name in COPIES if name not in OTHERS for _ in copies(name)]
    assert sorted(found) == sorted([f"CMakeLists.txt:{VERSION}", *known])
