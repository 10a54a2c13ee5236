"""The repository of packages: apt installs from it what was signed, and nothing else."""

import os
import pathlib
import re
import shutil
import subprocess

import documents
import pytest

PROJECT = pathlib.Path(__file__).parents[2]
REPOSITORY = PROJECT / "scripts" / "lib" / "repository"
PAGE = PROJECT / "docs" / "fleet.md"
KEY = "Packages of the test"


def run(*words, **options):
    return subprocess.run([str(word) for word in words], capture_output=True, text=True, check=True, **options).stdout


def make_key(home, name):
    home.mkdir(mode=0o700)
    run("gpg", "--homedir", home, "--batch", "--passphrase", "", "--quick-generate-key", name, "ed25519", "sign",
        "never")


def make_package(folder, version, name="vorbel", architecture="arm64"):
    """A package that holds its version."""
    root = folder.parent / "root"
    shutil.rmtree(root, ignore_errors=True)
    (root / "DEBIAN").mkdir(parents=True)
    (root / "version").write_text(version)
    (root / "DEBIAN" / "control").write_text(
        f"Package: {name}\nVersion: {version}\nArchitecture: {architecture}\nMaintainer: nobody <nobody@example.com>\n"
        f"Description: a package of the test\n")
    folder.mkdir(exist_ok=True)
    run("dpkg-deb", "--root-owner-group", "-b", root, folder / f"{name}_{version}_{architecture}.deb")


class Plant:
    """Somebody who makes packages, signs and publishes them."""

    def __init__(self, folder):
        self.packages, self.folder, self._keys = folder / "dist", folder / "repository", folder / "keys"
        make_key(self._keys, KEY)

    def publish(self, *versions, key=KEY):
        for version in versions:
            make_package(self.packages, version)
        return self.attempt(key).check_returncode()

    def attempt(self, key=KEY):
        return subprocess.run([REPOSITORY, self.packages, self.folder, key], capture_output=True, text=True,
                              env={**os.environ, "GNUPGHOME": str(self._keys)})


class Board:
    """apt as on a board of its own, set up as the page says."""

    def __init__(self, folder, plant):
        self.root = folder / "board"
        for name in ("etc/apt/apt.conf.d", "etc/apt/sources.list.d", "etc/apt/preferences.d", "etc/apt/trusted.gpg.d",
                     "var/lib/apt/lists/partial", "var/cache/apt/archives/partial", "var/lib/dpkg"):
            (self.root / name).mkdir(parents=True)
        (self.root / "var/lib/dpkg/status").touch()
        shutil.copy(plant.folder / "vorbel.gpg", self.root / "etc" / "apt" / "vorbel.gpg")
        sources = documents.Blocks(PAGE)["/etc/apt/sources.list.d/vorbel.sources"]
        assert "/etc/apt/keyrings/vorbel.gpg" in sources
        sources = re.sub(r"(?m)^URIs: .*", f"URIs: file:{plant.folder}", sources)
        sources = sources.replace("/etc/apt/keyrings/vorbel.gpg", str(self.root / "etc" / "apt" / "vorbel.gpg"))
        (self.root / "etc/apt/sources.list.d/vorbel.sources").write_text(sources)

    def apt(self, *words):
        """Whether it did so, and what it said. It verifies what it has, however it came."""
        options = (f"Dir={self.root}", "APT::Architecture=arm64", "APT::Architectures=arm64", "APT::Sandbox::User=root",
                   f"Dir::State::status={self.root}/var/lib/dpkg/status", "Acquire::Languages=none")
        done = subprocess.run(["apt-get", *(f"-o{option}" for option in options), *words], capture_output=True,
                              text=True, cwd=self.root, env={"PATH": os.environ["PATH"], "LC_ALL": "C"})
        return done.returncode == 0, done.stdout + done.stderr

    def update(self):
        return self.apt("update", "--error-on=any")

    def version(self):
        """What it would install."""
        said = self.apt("install", "--simulate", "vorbel")[1]
        return re.search(r"^Inst vorbel \((\S+) Vorbel:stable \[arm64\]\)", said, re.M)[1]

    def download(self):
        return self.apt("download", "vorbel")


@pytest.fixture
def plant(tmp_path):
    plant = Plant(tmp_path)
    plant.publish("1.0")
    return plant


@pytest.fixture
def board(tmp_path, plant):
    board = Board(tmp_path, plant)
    ok, said = board.update()
    assert ok, said
    return board


def test_a_board_installs_what_was_published(board):
    assert board.version() == "1.0"
    ok, said = board.download()
    assert ok, said
    assert run("dpkg-deb", "-f", board.root / "vorbel_1.0_arm64.deb", "Version") == "1.0\n"


def test_a_board_finds_the_newest_and_can_go_back(board, plant):
    plant.publish("1.10")
    assert board.version() == "1.0", "until it looks"
    assert board.update()[0]
    assert board.version() == "1.10"
    (plant.packages / "vorbel_1.0_arm64.deb").unlink()
    plant.publish("1.2")
    assert board.update()[0]
    assert board.version() == "1.10"
    assert board.apt("download", "vorbel=1.0")[0]


def test_a_package_of_all_architectures_is_for_each(board, plant):
    make_package(plant.packages, "3.0", "python3-vorbel", "all")
    plant.publish("1.0")
    for architecture in ("amd64", "arm64"):
        text = (plant.folder / f"dists/stable/main/binary-{architecture}/Packages").read_text()
        assert "Package: python3-vorbel\n" in text
        assert ("Package: vorbel\n" in text) == (architecture == "arm64")


def test_a_package_that_was_tampered_with_is_refused(board, plant):
    package = plant.folder / "pool" / "vorbel_1.0_arm64.deb"
    data = bytearray(package.read_bytes())
    data[-20] ^= 1
    package.write_bytes(data)
    ok, said = board.download()
    assert not ok
    assert "Hash Sum mismatch" in said


def test_a_package_that_was_replaced_is_refused(board, plant, tmp_path):
    make_package(tmp_path / "theirs", "1.0+door")
    (theirs,) = (tmp_path / "theirs").iterdir()
    shutil.copy(theirs, plant.folder / "pool" / "vorbel_1.0_arm64.deb")
    ok, said = board.download()
    assert not ok
    assert "File has unexpected size" in said or "Hash Sum mismatch" in said


@pytest.mark.parametrize("file", ["Packages", "Packages.xz"])
def test_an_index_that_was_tampered_with_is_refused(board, plant, file):
    plant.publish("2.0")
    folder = plant.folder / "dists" / "stable" / "main" / "binary-arm64"
    text = (folder / "Packages").read_text().replace("Version: 2.0", "Version: 6.6")
    for name in ("Packages", "Packages.xz"):
        (folder / name).unlink()
    (folder / "Packages").write_text(text)
    if file == "Packages.xz":
        run("xz", folder / "Packages")
    assert not board.update()[0]
    assert board.version() == "1.0", "what it knew before still counts"


def test_a_list_of_indexes_that_was_tampered_with_is_refused(board, plant):
    plant.publish("2.0")
    for name in ("InRelease", "Release"):
        path = plant.folder / "dists" / "stable" / name
        path.write_text(path.read_text().replace("Label: Vorbel", "Label: Vexbel"))
    ok, said = board.update()
    assert not ok
    assert "The following signatures were invalid: BADSIG" in said


def test_what_another_key_signed_is_refused(board, plant, tmp_path):
    other = tmp_path / "other"
    other.mkdir()
    stranger = Plant(other)
    stranger.publish("6.6")
    shutil.rmtree(plant.folder)
    shutil.copytree(stranger.folder, plant.folder)
    ok, said = board.update()
    assert not ok
    assert "NO_PUBKEY" in said
    assert board.version() == "1.0"


def test_what_nobody_signed_is_refused(board, plant):
    plant.publish("2.0")
    for name in ("InRelease", "Release.gpg"):
        (plant.folder / "dists" / "stable" / name).unlink()
    ok, said = board.update()
    assert not ok
    assert "is no longer signed" in said or "is not signed" in said


def test_the_file_for_upgrades_at_night_names_the_repository(tmp_path, plant):
    file = tmp_path / "52vorbel"
    file.write_text(documents.Blocks(PAGE)["/etc/apt/apt.conf.d/52vorbel"])
    settings = run("apt-config", "dump", env={**os.environ, "APT_CONFIG": str(file)}).splitlines()
    assert 'Unattended-Upgrade::Origins-Pattern:: "origin=Vorbel";' in settings
    assert 'DPkg::Options:: "--force-confold";' in settings
    assert "Origin: Vorbel" in (plant.folder / "dists/stable/Release").read_text().splitlines()


def test_without_packages_or_key_nothing_is_published(plant):
    former = (plant.folder / "dists" / "stable" / "Release").read_bytes()
    answer = plant.attempt("nobody's key")
    assert (answer.returncode, answer.stderr) == (1, 'repository: gpg has no key "nobody\'s key" to sign with\n')
    for package in plant.packages.iterdir():
        package.unlink()
    answer = plant.attempt()
    assert (answer.returncode, answer.stderr) == (
        1, f"repository: there are no packages in {plant.packages}: build them first\n")
    assert (plant.folder / "dists" / "stable" / "Release").read_bytes() == former
    assert sorted(path.name for path in plant.folder.iterdir()) == ["dists", "pool", "vorbel.gpg"]
