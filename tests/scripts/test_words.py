"""Every script explains itself from any folder, refuses words that it does not know, and does nothing before it has
understood all of them. Run in a copy of the tree, where whatever could do something only says that it was called."""

import os
import pathlib
import shutil
import socket
import subprocess

import pytest

PROJECT = pathlib.Path(__file__).resolve().parents[2]
FOLDERS = (".ci", "scripts", "clients", "tests", "sim", "bench")
LARGE = shutil.ignore_patterns("node_modules", "dist", "corpus", "src", "guest", "__pycache__")
DOERS = ("apt-get", "cmake", "cpack", "ctest", "dpkg-query", "flock", "node", "npm", "sudo", "unshare", "valgrind")

# What it is told to do goes on to pytest, which knows more words.
PASSING_ON = ("tests/system/run",)

UNKNOWN = ("--nosuch", "nosuch", "i386")


def scripts():
    """The paths of all programs that a person can call."""
    for folder in FOLDERS:
        for parent, names, files in os.walk(PROJECT / folder):
            names[:] = set(names) - {"node_modules", "guest", "onboard"}
            for name in files:
                path = pathlib.Path(parent, name)
                if os.access(path, os.X_OK) and path.read_bytes().startswith(b"#!"):
                    yield str(path.relative_to(PROJECT))


SCRIPTS = sorted(scripts())


class Tree:
    """A copy of the tree, built and packaged, with `calls` of the programs that do something."""

    def __init__(self, folder):
        self.root = folder / "tree"
        self._log = folder / "calls"
        self._programs = folder / "programs"
        self._elsewhere = folder / "else" / "where"
        for name in FOLDERS:
            shutil.copytree(PROJECT / name, self.root / name, ignore=LARGE)
        for name in ("build/release/build.ninja", "dist/vorbel_0_amd64.deb", "dist/python3-vorbel_0_all.deb",
                     "dist/libvorbel-client-dev_0_amd64.deb"):
            (self.root / name).parent.mkdir(parents=True, exist_ok=True)
            (self.root / name).touch()
        self._elsewhere.mkdir(parents=True)
        self._programs.mkdir()
        for name in DOERS:
            self.stand_in(self._programs / name)
        self._before = self._files()

    def stand_in(self, path, *lines):
        """Puts a program there that notes its words."""
        path.write_text(f'#!/bin/sh\necho "{path.name} $*" >>{self._log}\n' + "\n".join(lines))
        path.chmod(0o755)

    def program(self, name, *lines):
        self.stand_in(self._programs / name, *lines)

    def run(self, script, *words):
        """(status, output, errors) of a script that is called by a relative path from another folder."""
        relative = os.path.relpath(self.root / script, self._elsewhere)
        result = subprocess.run([relative, *words], cwd=self._elsewhere, capture_output=True, text=True, timeout=30,
                                stdin=subprocess.DEVNULL, env={**os.environ, "PATH": f"{self._programs}:/usr/bin:/bin"})
        return result.returncode, result.stdout, result.stderr

    @property
    def calls(self):
        return self._log.read_text().splitlines() if self._log.exists() else []

    @property
    def is_untouched(self):
        return self._files() == self._before and self.calls == []

    def _files(self):
        return {path: path.stat().st_mtime_ns for path in self.root.rglob("*") if "__pycache__" not in str(path)}


@pytest.fixture
def tree(tmp_path):
    return Tree(tmp_path)


def test_the_scripts_are_found():
    known = {".ci/run", "scripts/package", "scripts/lib/sysroot", "clients/install", "tests/run"}
    assert known <= set(SCRIPTS)


@pytest.mark.parametrize("script", SCRIPTS)
@pytest.mark.parametrize("word", ["--help", "-h"])
def test_help(tree, script, word):
    status, output, errors = tree.run(script, word)
    assert (status, errors) == (0, "") and len(output) > 50
    assert tree.is_untouched


@pytest.mark.parametrize("words", [
    *((script, "--nosuch") for script in SCRIPTS if script not in PASSING_ON),
    ("scripts/package", "--nosuch"), ("scripts/package", "i386"), ("scripts/package", "arm64", "--nosuch"),
    ("scripts/demo", "--once", "nosuch"), ("scripts/demo", "--mqtt", "nosuch"), ("scripts/bench", "--quick", "nosuch"),
    ("scripts/test", "nosuch"), ("scripts/test", "--fast", "nosuch"), ("scripts/test", "--asan", "--nosuch"),
    ("scripts/soak", "3", "nosuch"), ("scripts/soak", "--seed", "7", "--nosuch"),
    ("scripts/lint", "nosuch", "--help"), ("scripts/lint", "cpp", "nosuch"),
], ids=" ".join)
def test_unknown_words(tree, words):
    status, output, errors = tree.run(*words)
    unknown = next(word for word in words if word in UNKNOWN)
    assert (status, output) == (2, "") and (unknown in errors or "required" in errors)
    assert tree.is_untouched


@pytest.mark.parametrize("words", [
    ("scripts/bench", "--only"), ("scripts/soak", "--seed"), ("scripts/soak", "--rate", "fast"),
    ("scripts/soak", "--link", "usb"), ("tests/support/own_network",), ("tests/run",),
    ("tests/golden/check", "program"), ("tests/fuzz/run", "program", "seeds"),
], ids=" ".join)
def test_too_few_words(tree, words):
    status, output, errors = tree.run(*words)
    assert (status, output) == (2, "") and "(see --help)" in errors
    assert tree.is_untouched


@pytest.mark.parametrize("words, passed_on", [
    (("-R", "e2e"), "-R e2e"), (("--fast", "-E", "x"), "-LE slow -E x"),
    (("--repeat", "until-fail:3"), "--repeat until-fail:3"),
], ids=str)
def test_words_for_ctest(tree, words, passed_on):
    tree.program("dpkg-query", "echo install ok installed")
    tree.program("ctest", "echo '100% tests passed, 0 tests failed out of 3'")
    status, output, _ = tree.run("scripts/test", *words)
    assert (status, output.splitlines()[-1]) == (0, "3 passed, 0 failed")
    (call,) = (call for call in tree.calls if call.startswith("ctest "))
    assert call.endswith(f" -j {2 * len(os.sched_getaffinity(0))} {passed_on}")


def stand_in_for_ctest(tree, first, second):
    """A run's failed tests, of three, and those of the run after it."""
    tree.program("dpkg-query", "echo install ok installed")
    tree.program("ctest", f"""case "$*" in *--rerun-failed) set -- {second} ;; *) set -- {first} ;; esac
        [ "$2" ] && echo "$2"; echo "50% tests passed, $1 tests failed out of 3"; [ "$1" = 0 ]""")


@pytest.mark.parametrize("second, closing", [("0", "3 passed, 0 failed"), ("1", "2 passed, 1 failed")])
def test_what_fails_beside_others_is_run_once_more_alone(tree, second, closing):
    stand_in_for_ctest(tree, "2", second)
    status, output, errors = tree.run("scripts/test", "-R", "e2e")
    assert (status, output.splitlines()[-1]) == (int(second), closing)
    assert "Once more, one at a time, what failed beside others: 2" in errors
    first, again = (call for call in tree.calls if call.startswith("ctest "))
    assert " -j " in first and again.endswith("build/release --output-on-failure --no-tests=error --rerun-failed")


@pytest.mark.parametrize("finding", [
    "==123==ERROR: AddressSanitizer: heap-use-after-free", "E   ==123==ERROR: LeakSanitizer: detected memory leaks",
    "/a/b.cpp:12:3: runtime error: signed integer overflow", "WARNING: ThreadSanitizer: data race (pid=1)",
    "SUMMARY: libFuzzer: timeout",
])
def test_what_a_sanitizer_found_is_found(tree, finding):
    stand_in_for_ctest(tree, f"1 '{finding}'", "0")
    status, output, _ = tree.run("scripts/test", "-R", "e2e")
    assert (status, output.splitlines()[-1]) == (1, "2 passed, 1 failed")


@pytest.mark.parametrize("first, second, expected, calls", [(0, 1, 0, 1), (1, 0, 0, 2), (1, 1, 1, 2), (2, 0, 2, 1)])
def test_what_fails_on_a_busy_machine_is_run_once_more_alone(tree, first, second, expected, calls):
    tree.program("dpkg-query", "echo install ok installed")
    tree.stand_in(tree.root / "scripts" / "package")
    tree.stand_in(tree.root / "tests" / "system" / "image")
    tree.stand_in(tree.root / "tests" / "run", f'case "$*" in *--last-failed) exit {second} ;; *) exit {first} ;; esac')
    assert tree.run("tests/system/run", "-k", "adapter")[0] == expected
    runs = [call for call in tree.calls if call.startswith("run ")]
    assert len(runs) == calls and all("-k adapter" in run for run in runs) and "-n 0" not in runs[0]
    assert runs[1:] == [run for run in runs[1:] if run.endswith("-n 0 --last-failed")]


def test_the_checks_that_are_named(tree):
    tree.program("dpkg-query", "echo install ok installed")
    for name in ("git", "flake8", "mypy", "clang-format", "clang-tidy", "shellcheck"):
        tree.program(name)
    status, output, errors = tree.run("scripts/lint", "shell", "python")
    assert (status, output) == (0, "Clean.\n")
    assert [line[4:-4] for line in errors.splitlines()] == ["Checking: shell", "Checking: python"]
    assert not {"clang-format", "clang-tidy", "npm"} & {call.split()[0] for call in tree.calls}


SOAKS = ["soak --seed 20261123", "soak 1 --seed 20261123 --link socketcan", "soak 1 --seed 20261123 --rate 2000 --asan"]


@pytest.mark.parametrize("failing", ["lint cpp", "package arm64", "test --asan", "bench --check", *SOAKS,
                                     "test --system", None])
def test_every_stage_decides_whether_a_change_may_land(tree, failing):
    tree.program("dpkg-query", "echo install ok installed")
    for name in ("lint", "test", "bench", "package", "soak"):
        tree.stand_in(tree.root / "scripts" / name, f'[ "{name} $*" != "{failing}" ] || {{ echo broken; exit 1; }}')
    status, output, _ = tree.run(".ci/run")
    assert (status == 0) == (failing is None) and ("broken" in output) == (failing is not None)
    stages = {call for call in tree.calls if not call.startswith(("dpkg", "cmake"))}
    assert failing or stages == {
        "lint layout shell python typescript", "lint cpp", "test ", "test --asan", "package amd64", "package arm64",
        "bench --check", *SOAKS, "test --system"}


def test_words_for_pytest(tree):
    tree.stand_in(tree.root / "tests" / "system" / "run")
    assert tree.run("scripts/test", "--system", "-k", "adapter")[0] == 0
    assert tree.calls == ["run -k adapter"]


@pytest.mark.parametrize("given", [None, "build/asan"])
def test_the_build_that_is_tested(tree, monkeypatch, given):
    if given:
        monkeypatch.setenv("VORBEL_BUILD_DIR", given)
    else:
        monkeypatch.delenv("VORBEL_BUILD_DIR", raising=False)
    tree.program("unshare", 'realpath --canonicalize-missing "$VORBEL_BUILD_DIR"')
    status, output, _ = tree.run("tests/run", "file")
    used = pathlib.Path(output.splitlines()[-1])
    assert (status, used.parts[-2:]) == (0, ("build", "asan" if given else "release"))
    assert given or used == tree.root / "build" / "release"


@pytest.fixture
def demonstration(tree):
    """A tree with all that the demonstration starts."""
    tree.program("dpkg-query", "echo install ok installed")
    tree.program("npm", "echo npm at work",
                 f"mkdir -p {tree.root}/clients/node_modules {tree.root}/clients/monitor/dist")
    tree.stand_in(tree.root / "build" / "release" / "vorbel", "exec sleep 30")
    tree.stand_in(tree.root / "clients" / "python" / "vorbel-cli")
    (tree.root / "sim" / "simulated_bus.py").write_text("")
    (tree.root / "examples").mkdir()
    (tree.root / "examples" / "machine.schema.json").touch()
    return tree


MONITOR = "http://127.0.0.1:8443/?schema=machine.json&plot=motor.speed,motor.current"


def test_the_demonstration_shows_what_it_builds_and_where_the_monitor_is(demonstration):
    status, _, errors = demonstration.run("scripts/demo")
    told = [errors.index(text) for text in (
        "Building the monitor", "Installing what the TypeScript clients are built with", "npm at work",
        f"The monitor: {MONITOR}")]
    assert status == 0 and told == sorted(told)
    assert "vorbel-cli watch --schema examples/machine.schema.json --title Type  set motor.setpoint 1200 " in (
        demonstration.calls[-2])
    assert demonstration.calls[-1] == MONITOR and len(MONITOR) < 80  # whole on a usual terminal


def test_the_demonstration_announces_no_monitor_of_somebody_else(demonstration):
    with socket.create_server(("127.0.0.1", 8443)):
        status, _, errors = demonstration.run("scripts/demo")
    assert status == 0 and "Address already in use" in errors and "going on without it" in errors
    assert "http://" not in errors + demonstration.calls[-1]


@pytest.mark.parametrize("can0, writes", [("true", False), ("false", True)], ids=["real", "virtual"])
def test_the_demonstration_writes_only_to_a_simulated_machine(demonstration, can0, writes):
    demonstration.program("ip", can0)
    assert demonstration.run("scripts/demo", "--once", "socketcan")[0] == 0
    assert (" --set motor.setpoint=1200 " in demonstration.calls[-1]) == writes
    assert " --once 10" in demonstration.calls[-1]


def test_the_demonstration_proposes_no_value_for_a_real_bus(demonstration):
    demonstration.program("ip")
    assert demonstration.run("scripts/demo", "socketcan")[0] == 0
    assert demonstration.calls[-2].endswith(" --title Ctrl-C ends everything.") and demonstration.calls[-1] == MONITOR
