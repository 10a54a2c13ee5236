"""The library as applications get it: installed, and with the examples that its README names."""

import contextlib
import os
import pathlib
import re
import subprocess
import time

import pytest

import harness
from vorbelsim import CanFrame, VirtualCanBus

PROJECT = pathlib.Path(__file__).parents[3]
EXAMPLE = PROJECT / "examples" / "values"
GAUGE = PROJECT / "examples" / "gauge"
LIBRARY = PROJECT / "clients" / "cpp"


def run(*words, **environment):
    done = subprocess.run(list(map(str, words)), capture_output=True, text=True, env={**os.environ, **environment})
    assert done.returncode == 0, done.stdout + done.stderr
    return done.stdout


@pytest.fixture(scope="module")
def installed(tmp_path_factory):
    """The prefix that it was installed to."""
    prefix = tmp_path_factory.mktemp("prefix")
    run("cmake", "--install", harness.BUILD / "clients" / "cpp", "--component", "client", "--prefix", prefix)
    return prefix


@pytest.fixture(scope="module")
def build(installed, tmp_path_factory):
    """build(FOLDER) makes an example's program as the README says."""
    def make(source):
        folder = tmp_path_factory.mktemp(source.name)
        run("cmake", "-S", source, "-B", folder, f"-DCMAKE_PREFIX_PATH={installed}",
            "-DCMAKE_CXX_FLAGS=-Wall -Wextra -Werror")
        run("cmake", "--build", folder)
        return folder / source.name

    return make


@pytest.fixture
def bridge(tmp_path):
    """(bus, daemon), the one connected to the other."""
    with VirtualCanBus(tmp_path) as can:
        daemon = harness.Daemon(tmp_path, can.env())
        try:
            can.wait_connected()
            yield can, daemon
        finally:
            daemon.stop()


@contextlib.contextmanager
def running(*words, **environment):
    program = subprocess.Popen(list(map(str, words)), stderr=subprocess.PIPE, text=True,
                               env={**os.environ, **environment})
    try:
        yield program
    finally:
        program.kill()
        program.communicate()


def public_headers():
    return {path.name for path in (LIBRARY / "vorbel").glob("*.h") if not path.stem.endswith("_p")}


def test_what_is_installed(installed):
    held = {str(path.relative_to(installed)) for path in installed.rglob("*") if path.is_file()}
    headers = {path for path in held if path.startswith("include/")}
    assert headers == {f"include/vorbel/{name}" for name in public_headers()}
    libraries = {re.sub(r"^lib/(?:[^/]+-linux-gnu/)?", "", path) for path in held - headers}
    configuration = {path for path in libraries if path.startswith("cmake/vorbel-client/vorbel-client-targets")}
    assert configuration
    assert libraries - configuration == {"libvorbel_client.a", "libvorbel_msgpack.a", "pkgconfig/vorbel-client.pc",
                                         "cmake/vorbel-client/vorbel-client-config.cmake"}


def test_headers_need_nothing_that_is_not_installed(installed):
    for header in (installed / "include" / "vorbel").iterdir():
        for name in re.findall(r'#include "([^"]+)"', header.read_text()):
            assert (installed / "include" / name).is_file(), f"{header.name} includes {name}"


def test_the_readme_shows_the_example():
    page = (LIBRARY / "README.md").read_text()
    for name, language in (("main.cpp", "cpp"), ("CMakeLists.txt", "cmake")):
        assert f"```{language}\n{(EXAMPLE / name).read_text()}```\n" in page


def test_the_example_prints_values_and_writes_one(build, bridge):
    can, _ = bridge
    with running(build(EXAMPLE), "127.0.0.1", PROJECT / "examples" / "machine.schema.json") as program:
        (written,) = can.receive(1)
        assert (written.frame.mac, written.frame.cmd, written.frame.payload) == (5, 3, b"\xb0\x04")
        can.send(CanFrame.vek(5, 2, bytes.fromhex("58 02 90 01 01")))
        values = next(line for line in program.stderr if "QMap" in line)
        assert values.startswith('QMap(("motor.current", QVariant(float, 4))("motor.enabled", QVariant(bool, true))'
                                 '("motor.speed", QVariant(uint, 600)))')


def test_the_gauge_follows_the_bus(build, bridge, tmp_path):
    """Whatever its document does wrong is a line."""
    can, daemon = bridge
    with running(build(GAUGE), "127.0.0.1", QT_QPA_PLATFORM="offscreen", QT_QUICK_BACKEND="software",
                 XDG_RUNTIME_DIR=str(tmp_path)) as program:
        daemon.wait_for("info Received schema: .*setpoint.*speed.*")
        for speed in range(0, 3500, 100):
            can.send(CanFrame.vek(5, 2, speed.to_bytes(2, "little")))
            time.sleep(0.02)
        assert program.poll() is None
        program.kill()
        assert program.stderr.read() == ""


def test_it_builds_with_pkg_config(installed, tmp_path):
    (configuration,) = installed.rglob("vorbel-client.pc")
    text = re.sub("^prefix=.*", f"prefix={installed}", configuration.read_text(), flags=re.M)
    (tmp_path / "vorbel-client.pc").write_text(text)
    words = run("pkg-config", "--cflags", "--libs", "vorbel-client", PKG_CONFIG_PATH=str(tmp_path))
    run("g++", "-std=c++17", "-fPIC", EXAMPLE / "main.cpp", "-o", tmp_path / "values", *words.split())
