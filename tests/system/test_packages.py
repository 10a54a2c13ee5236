"""What the packages say of themselves."""

import pathlib
import re
import subprocess

import pytest
import terminaltool

PROJECT = pathlib.Path(__file__).parents[2]
DEPENDENCIES = {"libc6", "libgcc-s1", "libstdc++6", "systemd", "libqt5core5a", "libqt5network5", "libqt5serialbus5",
                "libqt5serialbus5-plugins", "libqt5serialport5", "libqt5websockets5"}
FILES = {"/usr/bin/vorbel", "/lib/systemd/system/vorbel.service", "/usr/lib/sysusers.d/vorbel.conf",
         "/lib/udev/rules.d/65-vorbel.rules", "/etc/default/vorbel", "/usr/share/man/man8/vorbel.8.gz"}
MONITOR = {"index.html", "icon.svg", "assets/index-*.js", "assets/index-*.css", "assets/receiver-*.js"}
DOCUMENTS = {"deployment.md", "performance.md", "protocol.md", "wiring.md", "copyright", "changelog.gz",
             "examples/machine.schema.json"}


def dpkg_deb(*arguments):
    return subprocess.run(["dpkg-deb", *arguments], capture_output=True, text=True, check=True).stdout


def field(package, name):
    return dpkg_deb("-f", package, name).strip()


def contents(package):
    """The package's entries by their absolute paths: their type and mode, as ls shows them, and their owner."""
    lines = (line.split(maxsplit=5) for line in dpkg_deb("-c", package).splitlines())
    return {line[5].removeprefix("."): (line[0], line[1]) for line in lines}


def files(package):
    return {path for path, (mode, _) in contents(package).items() if not mode.startswith("d")}


def without_hash(path):
    """The name of a file of the monitor, without what changes with its content."""
    return re.sub(r"-[\w-]{8}\.", "-*.", path.removeprefix("/usr/share/vorbel/monitor/"))


@pytest.fixture(params=["amd64", "arm64"])
def package(request, packages):
    (found,) = packages.glob(f"vorbel_*_{request.param}.deb")
    assert field(found, "Architecture") == request.param
    return found


@pytest.fixture
def python_package(packages):
    (found,) = packages.glob("python3-vorbel_*_all.deb")
    assert field(found, "Architecture") == "all"
    return found


@pytest.fixture(params=["vorbel_*_amd64", "vorbel_*_arm64", "python3-vorbel_*_all"])
def any_package(request, packages):
    (found,) = packages.glob(f"{request.param}.deb")
    return found


def test_it_holds_these_files_and_no_others(package):
    held = files(package)
    examples = {file for file in held if re.fullmatch(r"/usr/share/doc/vorbel/examples/\w+\.schema\.json", file)}
    monitor = {file for file in held if file.startswith("/usr/share/vorbel/monitor/")}
    assert held - examples - monitor == FILES | {f"/usr/share/doc/vorbel/{name}" for name in DOCUMENTS} - examples
    assert examples
    assert len(monitor) == len(MONITOR) and {without_hash(file) for file in monitor} == MONITOR


def test_the_monitors_page_asks_for_files_that_are_there(package, tmp_path):
    subprocess.run(["dpkg-deb", "-x", package, tmp_path], check=True)
    monitor = tmp_path / "usr/share/vorbel/monitor"
    wanted = re.findall(r'(?:src|href)="\./([^"]+)"', (monitor / "index.html").read_text())
    (script,) = (monitor / name for name in wanted if name.endswith(".js"))
    wanted += [f"assets/{name}" for name in re.findall(r'"(receiver-[\w-]+\.js)"', script.read_text())]
    assert {without_hash(name) for name in wanted} == MONITOR - {"index.html"}
    assert all((monitor / name).is_file() for name in wanted)


def test_anybody_may_read_and_only_programs_run(any_package):
    for path, (mode, owner) in contents(any_package).items():
        program = path.startswith("/usr/bin/")
        expected = "drwxr-xr-x" if path.endswith("/") else "-rwxr-xr-x" if program else "-rw-r--r--"
        assert (mode, owner) == (expected, "root/root"), path


def test_it_depends_on_what_it_uses_and_nothing_else(package):
    dependencies = field(package, "Depends").split(", ")
    assert {dependency.split()[0] for dependency in dependencies} == DEPENDENCIES
    assert field(package, "Recommends") == "", "libsocketcan2 is not welcome"


def test_both_architectures_depend_on_the_same_versions(packages):
    depends = [set(field(package, "Depends").split(", ")) for package in packages.glob("vorbel_*.deb")]
    assert len(depends) == 2 and depends[0] == depends[1]


def test_the_environment_file_is_the_administrators(package):
    assert dpkg_deb("-I", package, "conffiles").split() == ["/etc/default/vorbel"]


def test_the_python_client_is_the_module_the_tool_and_their_documents(python_package):
    modules = {f"/usr/lib/python3/dist-packages/vorbel/{path.name}"
               for path in (PROJECT / "clients/python/vorbel").glob("*.*") if path.suffix in (".py", ".typed")}
    documents = {f"/usr/share/doc/python3-vorbel/{name}" for name in ("README.md", "copyright", "changelog.gz")}
    assert modules
    assert files(python_package) == modules | documents | {"/usr/bin/vorbel-cli", "/usr/share/man/man1/vorbel-cli.1.gz"}


def test_the_python_client_depends_on_what_it_imports(python_package):
    names = {name: re.sub(r" \(.*?\)", "", field(python_package, name))
             for name in ("Depends", "Recommends", "Suggests")}
    assert names == {"Depends": "python3, python3-websockets, python3-msgpack, python3-rich",
                     "Recommends": "python3-matplotlib", "Suggests": "python3-numpy"}


def test_all_packages_have_one_version(packages):
    assert len({field(package, "Version") for package in packages.glob("*.deb")}) == 1


def test_the_terminal_tool_runs_where_it_is_unpacked(python_package, tmp_path):
    subprocess.run(["dpkg-deb", "-x", python_package, tmp_path], check=True)
    terminaltool.check(tmp_path, PROJECT / "examples/machine.schema.json")


def test_lintian_finds_no_error(any_package):
    report = subprocess.run(["lintian", "--allow-root", "--fail-on", "error,warning", any_package],
                            capture_output=True, text=True)
    print(report.stdout)
    assert report.returncode == 0, report.stdout + report.stderr
