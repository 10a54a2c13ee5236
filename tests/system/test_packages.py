"""What the packages say of themselves."""

import re
import subprocess

import pytest

DEPENDENCIES = {"libc6", "libgcc-s1", "libstdc++6", "systemd", "libqt5core5a", "libqt5network5", "libqt5serialbus5",
                "libqt5serialbus5-plugins", "libqt5serialport5", "libqt5websockets5"}
FILES = {"/usr/bin/vorbel", "/lib/systemd/system/vorbel.service", "/usr/lib/sysusers.d/vorbel.conf",
         "/lib/udev/rules.d/65-vorbel.rules", "/etc/default/vorbel", "/usr/share/man/man8/vorbel.8.gz"}
DOCUMENTS = {"protocol.md", "deployment.md", "copyright", "changelog.gz", "examples/machine.schema.json"}


def dpkg_deb(*arguments):
    return subprocess.run(["dpkg-deb", *arguments], capture_output=True, text=True, check=True).stdout


def field(package, name):
    return dpkg_deb("-f", package, name).strip()


@pytest.fixture(params=["amd64", "arm64"])
def package(request, packages):
    (found,) = packages.glob(f"vorbel_*_{request.param}.deb")
    assert field(found, "Architecture") == request.param
    return found


def test_it_holds_these_files_and_no_others(package):
    files = {line.split(maxsplit=5)[5].removeprefix(".") for line in dpkg_deb("-c", package).splitlines()
             if not line.startswith("d")}
    examples = {file for file in files if re.fullmatch(r"/usr/share/doc/vorbel/examples/\w+\.schema\.json", file)}
    monitor = {file for file in files if file.startswith("/usr/share/vorbel/monitor/")}
    assert files - examples - monitor == FILES | {f"/usr/share/doc/vorbel/{name}" for name in DOCUMENTS} - examples
    assert examples


def test_it_depends_on_what_it_uses_and_nothing_else(package):
    dependencies = field(package, "Depends").split(", ")
    assert {dependency.split()[0] for dependency in dependencies} == DEPENDENCIES
    assert field(package, "Recommends") == "", "libsocketcan2 is not welcome"


def test_both_architectures_depend_on_the_same_versions(packages):
    depends = [set(field(package, "Depends").split(", ")) for package in packages.glob("vorbel_*.deb")]
    assert len(depends) == 2 and depends[0] == depends[1]


def test_the_environment_file_is_the_administrators(package):
    assert dpkg_deb("-I", package, "conffiles").split() == ["/etc/default/vorbel"]


def test_lintian_finds_no_error(package):
    report = subprocess.run(["lintian", "--allow-root", "--fail-on", "error,warning", package],
                            capture_output=True, text=True)
    print(report.stdout)
    assert report.returncode == 0, report.stdout + report.stderr
