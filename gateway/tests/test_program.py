"""The program as a service manager and a person see it: settings, readiness, watchdog, its end, and its metrics."""

import json
import pathlib
import re
import socket
import subprocess
import threading
import time

import pytest

from gatewayharness import (PATIENCE, PROGRAM, SCHEMA, Gateway, Mosquitto, free_port, gateway_environment, ini,
                            retained)
from harness import wait_until

INSTALLED = pathlib.Path(__file__).resolve().parents[1] / "gateway.ini"


@pytest.fixture
def run(tmp_path):
    """run(WORD...) runs the program to its end: (exit code, what it said)."""
    def to_the_end(*words):
        done = subprocess.run([PROGRAM, *words], env=gateway_environment(tmp_path, tmp_path / "state"), text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=PATIENCE)
        return done.returncode, done.stdout

    return to_the_end


@pytest.fixture
def check(run, tmp_path):
    """check(TEXT) has a file with this text checked."""
    def of(text):
        file = tmp_path / "checked.ini"
        file.write_text(text)
        return run("--check", file)

    return of


# Settings


def test_settings_without_errors(check):
    code, _ = check(ini({"broker": {"url": "mqtts://a:1, mqtts://b", "version": 5}, "spool": {"megabytes": 7}}))
    assert code == 0


def test_the_file_that_is_installed_has_no_errors(run):
    code, _ = run("--check", INSTALLED)
    assert code == 0


@pytest.mark.parametrize("locale", ["C", "C.UTF-8", "xx_XX", ""])
def test_what_it_says_does_not_depend_on_the_locale(tmp_path, locale):
    environment = {**gateway_environment(tmp_path, tmp_path / "state"), "LC_ALL": locale, "LANG": locale}
    said = subprocess.run([PROGRAM, "--check", tmp_path / "größe.ini"], env=environment, stderr=subprocess.PIPE,
                          timeout=PATIENCE).stderr.decode()
    assert "größe.ini" in said and "No such file or directory" in said


def test_every_default_that_the_file_shows_is_a_setting(check):
    code, said = check(re.sub(r"(?m)^;(\w+ = .+)$", r"\1", re.sub(r"(?m)^;users = .*$", "", INSTALLED.read_text())))
    assert code == 0, said


@pytest.mark.parametrize("section, key, value", [
    ("broker", "url", "http://here"),
    ("broker", "url", "mqtt://"),
    ("broker", "version", "4"),
    ("broker", "keepalive_s", "soon"),
    ("broker", "ca", "/nowhere/ca.pem"),
    ("broker", "password_file", "nothing"),
    ("topics", "prefix", "a/#"),
    ("schema", "defend", "yes"),
    ("values", "interval_ms", "-1"),
    ("values", "bytes", "1"),
    ("now", "interval_ms", "1 s"),
    ("write", "users", "ann"),
    ("write", "max_age_s", "0"),
    ("spool", "megabytes", "0"),
    ("homeassistant", "user", "nobody"),
    ("metrics", "port", "65536"),
    ("broker", "uri", "mqtt://127.0.0.1"),
    ("brokers", "url", "mqtt://127.0.0.1"),
])
def test_a_wrong_setting_is_told_and_nothing_starts(check, run, tmp_path, section, key, value):
    code, said = check(ini({section: {key: value}}))
    assert code > 0
    assert len(said.splitlines()) == 1 and f"[{section}] {key}" in said
    assert run(tmp_path / "checked.ini") == (code, said)


def test_every_error_has_its_line(check):
    code, said = check(ini({"broker": {"url": "x", "version": "x"}, "spool": {"megabytes": "x", "size": 1}}))
    assert code > 0
    assert sorted(re.findall(r"\[\w+\] \w+", said)) == [
        "[broker] url", "[broker] version", "[spool] megabytes", "[spool] size"]
    assert len(said.splitlines()) == 4


def test_a_file_that_is_not_there(run, tmp_path):
    code, said = run(tmp_path / "none.ini")
    assert code > 0 and "none.ini" in said and len(said.splitlines()) == 1


@pytest.mark.parametrize("words", [["--wrong"], ["--check", "a", "b"], ["a", "b"]], ids=repr)
def test_wrong_words_are_answered_with_the_usage(run, words):
    code, said = run(*words)
    assert code > 0 and "vorbel-gateway" in said and "FILE" in said


# A service


class Manager:
    """What a service that tells its state talks to."""

    def __init__(self, path):
        self.path = path
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind(str(path))
        self._socket.settimeout(PATIENCE)
        self.heard = []

    def environment(self, watchdog):
        return {"NOTIFY_SOCKET": str(self.path), "WATCHDOG_USEC": str(watchdog * 1_000_000)}

    def wait(self, state):
        while state not in self.heard:
            self.hear()

    def hear(self):
        self.heard += self._socket.recv(4096).decode().splitlines()

    def hear_all(self):
        """What was said until now."""
        while not self.is_silent(0.01):
            pass

    def is_silent(self, seconds):
        """Whether nothing is said for so long."""
        self._socket.settimeout(seconds)
        try:
            self.hear()
            return False
        except socket.timeout:
            return True
        finally:
            self._socket.settimeout(PATIENCE)


def test_it_tells_that_it_is_ready_and_alive(plant, tmp_path):
    manager = Manager(tmp_path / "notify")
    plant.start(options={"environment": manager.environment(watchdog=1)})
    manager.wait("READY=1")
    manager.hear_all()
    manager.heard.clear()
    for _ in range(3):
        manager.wait("WATCHDOG=1")
        manager.heard.clear()


def test_it_is_ready_and_alive_while_neither_broker_nor_daemon_is_there(tmp_path):
    manager = Manager(tmp_path / "notify")
    gateway = Gateway(tmp_path / "gateway", {"broker": {"url": f"mqtt://127.0.0.1:{free_port()}"}},
                      environment=manager.environment(watchdog=1))
    manager.wait("READY=1")
    manager.wait("WATCHDOG=1")
    gateway.finish()


def test_a_gateway_that_is_held_tells_nothing(plant, tmp_path):
    manager = Manager(tmp_path / "notify")
    plant.start(options={"environment": manager.environment(watchdog=1)})
    manager.wait("WATCHDOG=1")
    plant.gateway.pause()
    manager.hear_all()
    manager.heard.clear()
    assert manager.is_silent(2)
    plant.gateway.resume()


@pytest.mark.parametrize("state", ["connected", "without a broker", "with a broker that is held"])
def test_it_ends_when_it_is_told_to(plant, state):
    plant.start()
    if state == "without a broker":
        plant.broker.stop()
    if state == "with a broker that is held":
        plant.broker.pause()
    plant.gateway.process.terminate()
    assert plant.gateway.wait_ended(15) == 0
    plant.gateway = None
    if state == "with a broker that is held":
        plant.broker.resume()
    if state == "connected":
        assert retained(plant.broker.port)["vorbel/7/status"] == b'{"online":false}'


def test_it_starts_before_the_broker_and_the_daemon(tmp_path, make_plant):
    broker = Mosquitto(tmp_path)
    (tmp_path / "schema.json").write_text(json.dumps(SCHEMA))
    gateway = Gateway(tmp_path / "gateway", {"broker": {"url": broker.url}, "topics": {"id": "7"},
                                             "schema": {"file": tmp_path / "schema.json"},
                                             "values": {"interval_ms": 0}})
    broker.start()
    plant = make_plant(broker=broker)
    plant.listen()
    plant.gateway = gateway
    plant.wait_online()


def test_a_broker_that_ends_each_connection_at_once_is_asked_more_and_more_seldom(tmp_path):
    came = []
    port = free_port()

    def serve(listening):
        while True:
            connection = listening.accept()[0]
            with connection:
                if b"-orders" in connection.recv(1000):
                    came.append(time.monotonic())
                connection.sendall(b"\x20\3\0\0\0")  # CONNACK: accepted

    listening = socket.create_server(("127.0.0.1", port))
    threading.Thread(target=serve, args=(listening,), daemon=True).start()
    settings = {"broker": {"url": f"mqtt://127.0.0.1:{port}"}, "topics": {"id": "7"}}
    gateway = Gateway(tmp_path / "gateway", settings)
    wait_until(lambda: len(came) == 5, PATIENCE, "a fifth connection")
    gateway.end_at_once()
    assert came[4] - came[3] > 4  # seconds; of 8 at random


def test_a_daemon_that_is_not_there_is_told_once(tmp_path):
    tries = []

    def refuse(listening):
        while True:
            listening.accept()[0].close()
            tries.append(time.monotonic())

    listening = socket.create_server(("127.0.0.1", 10443))
    threading.Thread(target=refuse, args=(listening,), daemon=True).start()
    gateway = Gateway(tmp_path / "gateway", {"topics": {"id": "7"}})
    wait_until(lambda: len(tries) >= 4, PATIENCE, "a fourth try")
    gateway.end_at_once()
    assert len([line for line in gateway.lines() if line.startswith("warning daemon:")]) == 1


def test_a_broker_that_does_not_answer_is_told_once_by_each_connection(tmp_path):
    tries = []
    port = free_port()

    def refuse(listening):
        while True:
            listening.accept()[0].close()
            tries.append(time.monotonic())

    listening = socket.create_server(("127.0.0.1", port))
    threading.Thread(target=refuse, args=(listening,), daemon=True).start()
    gateway = Gateway(tmp_path / "gateway", {"broker": {"url": f"mqtt://127.0.0.1:{port}"}, "topics": {"id": "7"}})
    wait_until(lambda: len(tries) >= 8, PATIENCE, "a fourth try of both")
    gateway.end_at_once()
    assert len([line for line in gateway.lines() if "does not answer as it should" in line]) == 2
