"""What the packages say of themselves."""

import base64
import hashlib
import json
import os
import pathlib
import re
import subprocess

import pytest
import terminaltool

PROJECT = pathlib.Path(__file__).parents[2]
DEPENDENCIES = {"libc6", "libgcc-s1", "libstdc++6", "systemd", "libqt5core5a", "libqt5network5", "libqt5serialbus5",
                "libqt5serialbus5-plugins", "libqt5serialport5", "libqt5websockets5"}
GATEWAYS_DEPENDENCIES = {"libc6", "libgcc-s1", "libstdc++6", "systemd", "libqt5core5a", "libqt5network5",
                         "libqt5websockets5", "libpaho-mqttpp3-1", "libpaho-mqtt1.3"}
FILES = {"/usr/bin/vorbel", "/lib/systemd/system/vorbel.service", "/usr/lib/sysusers.d/vorbel.conf",
         "/lib/udev/rules.d/65-vorbel.rules", "/etc/default/vorbel", "/usr/share/man/man8/vorbel.8.gz"}
GATEWAYS_FILES = {"/usr/bin/vorbel-gateway", "/lib/systemd/system/vorbel-gateway.service",
                  "/usr/lib/sysusers.d/vorbel-gateway.conf", "/etc/vorbel/gateway.ini",
                  "/usr/share/man/man8/vorbel-gateway.8.gz"}
HISTORYS_FILES = {"/usr/bin/vorbel-history", "/lib/systemd/system/vorbel-history.service",
                  "/usr/lib/sysusers.d/vorbel-history.conf", "/etc/vorbel/history.ini",
                  "/usr/share/man/man8/vorbel-history.8.gz"}
# What the page begins with, what it loads when it is wanted, and what lets it start without its server.
MONITOR_BEGIN = {"icon.svg", "icon-192.png", "manifest.json", "assets/index-*.js", "assets/index-*.css",
                 "assets/receiver-*.js"}
SCRIPTS_LATER = ("thread-*", "uplot-*", "spectrum-*", "columncells-*", "linkdialog-*", "limits-*", "orders-*",
                 "recording-*", "workshop-*", "interrupted-*", "notice-*", "fleet-*", "archive-*")
STYLES_LATER = ("limits-*", "orders-*", "recording-*", "workshop-*", "fleet-*")
MONITOR_LATER = {*(f"assets/{name}.js" for name in SCRIPTS_LATER), *(f"assets/{name}.css" for name in STYLES_LATER)}
MONITOR = MONITOR_BEGIN | MONITOR_LATER | {"index.html", "icon-512.png", "sw.js", "assets/mcap-*.js", "assets/dbc-*.js",
                                           "assets/mqtt-*.js"}
MONITOR_TWICE = {"assets/limits-*.js"}  # what they are, which the fleet's page needs, too, and how they are set
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


@pytest.fixture(params=["amd64", "arm64"])
def gateway_package(request, packages):
    (found,) = packages.glob(f"vorbel-gateway_*_{request.param}.deb")
    assert field(found, "Architecture") == request.param
    return found


@pytest.fixture
def python_package(packages):
    (found,) = packages.glob("python3-vorbel_*_all.deb")
    assert field(found, "Architecture") == "all"
    return found


@pytest.fixture
def history_package(packages):
    (found,) = packages.glob("vorbel-history_*_all.deb")
    assert field(found, "Architecture") == "all"
    return found


@pytest.fixture(params=["amd64", "arm64"])
def client_package(request, packages):
    (found,) = packages.glob(f"libvorbel-client-dev_*_{request.param}.deb")
    assert field(found, "Architecture") == request.param
    return found


@pytest.fixture(params=["vorbel_*_amd64", "vorbel_*_arm64", "vorbel-gateway_*_amd64", "vorbel-gateway_*_arm64",
                        "python3-vorbel_*_all", "vorbel-history_*_all", "libvorbel-client-dev_*_amd64",
                        "libvorbel-client-dev_*_arm64"])
def any_package(request, packages):
    (found,) = packages.glob(f"{request.param}.deb")
    return found


def test_it_holds_these_files_and_no_others(package):
    held = files(package)
    examples = {file for file in held if re.fullmatch(r"/usr/share/doc/vorbel/examples/\w+\.schema\.json", file)}
    monitor = {file for file in held if file.startswith("/usr/share/vorbel/monitor/")}
    assert held - examples - monitor == FILES | {f"/usr/share/doc/vorbel/{name}" for name in DOCUMENTS} - examples
    assert examples
    assert sorted(without_hash(file) for file in monitor) == sorted([*MONITOR, *MONITOR_TWICE])


def test_the_monitors_page_asks_for_files_that_are_there(package, tmp_path):
    subprocess.run(["dpkg-deb", "-x", package, tmp_path], check=True)
    monitor = tmp_path / "usr/share/vorbel/monitor"
    wanted = re.findall(r'(?:src|href)="\./([^"]+)"', (monitor / "index.html").read_text())
    (script,) = (monitor / name for name in wanted if name.endswith(".js"))
    loaded = re.findall(r'"(?:\./)?((?:assets/)?\w+-[\w-]{8}\.(?:js|css))"', script.read_text())
    wanted += {f"assets/{name.removeprefix('assets/')}" for name in loaded}
    assert {without_hash(name) for name in wanted} == MONITOR_BEGIN | MONITOR_LATER
    assert all((monitor / name).is_file() for name in wanted)


def test_the_monitor_keeps_all_of_its_files_as_they_are(package, tmp_path):
    subprocess.run(["dpkg-deb", "-x", package, tmp_path], check=True)
    monitor = tmp_path / "usr/share/vorbel/monitor"
    kept = json.loads(re.match(r"const FILES=(\{.*?\})", (monitor / "sw.js").read_text())[1])
    files = {path for path in monitor.rglob("*") if path.is_file() and path.name != "sw.js"}
    assert kept == {str(path.relative_to(monitor)): "sha256-" + base64.b64encode(
        hashlib.sha256(path.read_bytes()).digest()).decode() for path in files}


def test_anybody_may_read_and_only_programs_run(any_package):
    for path, (mode, owner) in contents(any_package).items():
        program = path.startswith("/usr/bin/")
        expected = "drwxr-xr-x" if path.endswith("/") else "-rwxr-xr-x" if program else "-rw-r--r--"
        assert (mode, owner) == (expected, "root/root"), path


def test_it_depends_on_what_it_uses_and_nothing_else(package):
    dependencies = field(package, "Depends").split(", ")
    assert {dependency.split()[0] for dependency in dependencies} == DEPENDENCIES
    assert field(package, "Recommends") == "", "libsocketcan2 is not welcome"


@pytest.mark.parametrize("name", ["vorbel", "vorbel-gateway"])
def test_both_architectures_depend_on_the_same_versions(packages, name):
    depends = [set(field(package, "Depends").split(", ")) for package in packages.glob(f"{name}_*.deb")]
    assert len(depends) == 2 and depends[0] == depends[1]


def test_the_environment_file_is_the_administrators(package):
    assert dpkg_deb("-I", package, "conffiles").split() == ["/etc/default/vorbel"]


def test_the_gateway_is_a_package_of_its_own(gateway_package):
    examples = {f"examples/{path.name}" for path in (PROJECT / "examples/gateway").iterdir()}
    examples |= {f"examples/fleet/{path.name}" for path in (PROJECT / "examples/fleet").iterdir()}
    documents = {f"/usr/share/doc/vorbel-gateway/{name}"
                 for name in {"gateway.md", "fleet.md", "copyright", "changelog.gz"} | examples}
    assert examples
    assert files(gateway_package) == GATEWAYS_FILES | documents


def test_the_gateway_depends_on_what_it_uses_and_nothing_else(gateway_package):
    dependencies = field(gateway_package, "Depends").split(", ")
    assert {dependency.split()[0] for dependency in dependencies} == GATEWAYS_DEPENDENCIES
    assert field(gateway_package, "Recommends") == "ca-certificates, vorbel"
    assert field(gateway_package, "Suggests") == "mosquitto"


def test_the_gateways_settings_are_the_administrators(gateway_package, tmp_path):
    assert dpkg_deb("-I", gateway_package, "conffiles").split() == ["/etc/vorbel/gateway.ini"]
    dpkg_deb("-x", gateway_package, tmp_path)
    assert (tmp_path / "etc/vorbel/gateway.ini").read_text() == (PROJECT / "gateway/gateway.ini").read_text()


def test_the_gateway_takes_its_own_settings(packages, tmp_path):
    (package,) = packages.glob("vorbel-gateway_*_amd64.deb")
    dpkg_deb("-x", package, tmp_path)
    program = [tmp_path / "usr/bin/vorbel-gateway", "--check"]
    assert subprocess.run([*program, tmp_path / "etc/vorbel/gateway.ini"]).returncode == 0
    assert subprocess.run([*program, tmp_path / "nowhere.ini"]).returncode == 1


def test_the_python_client_is_the_module_the_tool_and_their_documents(python_package):
    source = PROJECT / "clients/python/vorbel"
    modules = {f"/usr/lib/python3/dist-packages/vorbel/{path.relative_to(source)}"
               for path in source.rglob("*.*") if path.suffix in (".py", ".typed")}
    documents = {f"/usr/share/doc/python3-vorbel/{name}"
                 for name in ("README.md", "unknown-bus.md", "copyright", "changelog.gz")}
    assert modules
    programs = {path for name in ("vorbel-cli", "vorbel-authority")
                for path in (f"/usr/bin/{name}", f"/usr/share/man/man1/{name}.1.gz")}
    assert files(python_package) == modules | documents | programs


def test_the_python_client_depends_on_what_it_imports(python_package):
    names = {name: re.sub(r" \(.*?\)", "", field(python_package, name))
             for name in ("Depends", "Recommends", "Suggests")}
    assert names == {"Depends": "python3, python3-websockets, python3-msgpack, python3-rich",
                     "Recommends": "python3-matplotlib",
                     "Suggests": "python3-numpy, python3-canmatrix, python3-can, openssl"}


def test_the_history_is_its_program_and_its_documents(history_package):
    documents = {f"/usr/share/doc/vorbel-history/{name}" for name in ("fleet.md", "copyright", "changelog.gz")}
    assert files(history_package) == HISTORYS_FILES | documents


def test_the_history_depends_on_the_modules_of_its_own_version(history_package):
    version = field(history_package, "Version")
    assert field(history_package, "Depends") == (
        f"python3 (>= 3.11), python3-vorbel (= {version}), python3-paho-mqtt (>= 1.6), python3-paho-mqtt (<< 2), "
        "systemd")
    assert field(history_package, "Recommends") == "victoria-metrics"
    assert field(history_package, "Suggests") == "mosquitto, ca-certificates"


def test_the_historys_settings_are_the_administrators(history_package, python_package, tmp_path):
    assert dpkg_deb("-I", history_package, "conffiles").split() == ["/etc/vorbel/history.ini"]
    for package in (history_package, python_package):
        dpkg_deb("-x", package, tmp_path)
    settings = tmp_path / "etc/vorbel/history.ini"
    assert settings.read_text() == (PROJECT / "clients/python/history.ini").read_text()
    modules = {**os.environ, "PYTHONPATH": str(tmp_path / "usr/lib/python3/dist-packages")}
    program = ["/usr/bin/python3", tmp_path / "usr/bin/vorbel-history", "--check"]
    assert subprocess.run([*program, settings], env=modules).returncode == 0
    assert subprocess.run([*program, tmp_path / "nowhere.ini"], env=modules).returncode == 1


def test_the_cpp_client_is_the_libraries_their_headers_and_an_example(client_package):
    folder = f"/usr/lib/{ {'amd64': 'x86_64', 'arm64': 'aarch64'}[field(client_package, 'Architecture')] }-linux-gnu"
    headers = {f"/usr/include/vorbel/{path.name}" for path in (PROJECT / "clients/cpp/vorbel").glob("*.h")
               if not path.stem.endswith("_p")}
    configuration = {f"{folder}/cmake/vorbel-client/vorbel-client-{name}.cmake"
                     for name in ("config", "targets", "targets-release")}
    libraries = {f"{folder}/lib{name}.a" for name in ("vorbel_client", "vorbel_msgpack")}
    examples = {f"examples/{path.relative_to(PROJECT / 'examples')}" for name in ("values", "gauge")
                for path in (PROJECT / "examples" / name).iterdir()}
    documents = {f"/usr/share/doc/libvorbel-client-dev/{name}"
                 for name in {"README.md", "copyright", "changelog.gz"} | examples}
    assert headers and examples
    assert files(client_package) == (headers | configuration | libraries | documents
                                     | {f"{folder}/pkgconfig/vorbel-client.pc"})


def test_the_cpp_client_depends_on_what_applications_are_built_with(client_package):
    names = {dependency.split()[0] for dependency in field(client_package, "Depends").split(", ")}
    assert names == {"qtbase5-dev", "libqt5websockets5-dev"}


@pytest.fixture
def cpp_client(packages, tmp_path):
    """What the C++ client's package holds, below the folder that is /usr on a machine."""
    (package,) = packages.glob("libvorbel-client-dev_*_amd64.deb")
    dpkg_deb("-x", package, tmp_path / "root")
    return tmp_path / "root" / "usr"


def test_the_packages_example_builds_against_it(cpp_client, tmp_path):
    example = cpp_client / "share/doc/libvorbel-client-dev/examples/values"
    assert len((example / "main.cpp").read_text().splitlines()) <= 25
    subprocess.run(["cmake", "-S", example, "-B", tmp_path / "build", f"-DCMAKE_PREFIX_PATH={cpp_client}"], check=True)
    subprocess.run(["cmake", "--build", tmp_path / "build"], check=True)
    run = subprocess.run([tmp_path / "build" / "values", "127.0.0.1", "nowhere.json"], capture_output=True, text=True)
    assert "nowhere.json" in run.stderr


def test_the_packages_example_builds_by_pkg_config(cpp_client, tmp_path):
    configuration = cpp_client / "lib/x86_64-linux-gnu/pkgconfig/vorbel-client.pc"
    configuration.write_text(configuration.read_text().replace("prefix=/usr\n", f"prefix={cpp_client}\n"))
    words = subprocess.run(["pkg-config", "--cflags", "--libs", "vorbel-client"], capture_output=True, text=True,
                           check=True, env={**os.environ, "PKG_CONFIG_PATH": configuration.parent}).stdout.split()
    source = cpp_client / "share/doc/libvorbel-client-dev/examples/values/main.cpp"
    subprocess.run(["g++", "-std=c++17", "-fPIC", source, "-o", tmp_path / "values", *words], check=True)


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
