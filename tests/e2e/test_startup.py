"""Starting, the choice of the link, supervision, and the end."""

import contextlib
import os
import pathlib
import resource
import socket
import subprocess
import time

import pytest

import harness
from harness import connect, receive

HELLO = r'info Sending hello message QJsonDocument\(\{"hello":\{"type":"unknown"\}\}\) for device ""'
LISTEN_FAILURE = 'warning Main::Main(QObject*) error "The bound address is already in use"'


@contextlib.contextmanager
def taken_port():
    """Somebody else listens on the daemon's port."""
    with socket.socket() as other:
        other.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        other.bind(("0.0.0.0", harness.PORT))
        other.listen()
        yield


def link_lines(daemon):
    """Lines that only a link writes."""
    return [line for line in daemon.lines() if "hello" in line or "can" in line.lower() or "Serial" in line]


# Happy


def test_no_link_activity_in_the_first_second(start_daemon):
    for source in ("serialport", "socketcan"):
        daemon = start_daemon(VORBEL_SOURCE=source)
        while time.monotonic() - daemon.started < 0.9:
            assert link_lines(daemon) == []
            time.sleep(0.02)
        harness.wait_until(lambda: link_lines(daemon), 1.0, "the first tick")
        daemon.stop()
        daemon.stop = lambda: None


@pytest.mark.parametrize("environment", [{}, {"VORBEL_SOURCE": "serialport"}], ids=["unset", "serialport"])
def test_serial_link_is_the_default(start_daemon, environment):
    daemon = start_daemon(**environment)
    daemon.wait_for(HELLO, 2)
    assert not [line for line in daemon.lines() if "an c" in line]


def test_socketcan_when_asked_for(start_daemon):
    daemon = start_daemon(VORBEL_SOURCE="socketcan")
    daemon.wait_for(r"critical Socket can (cannot connect\.|creation failed: .*)", 2)
    assert daemon.count("info Sending hello message.*") == 0


@pytest.mark.parametrize("source", ["", "SERIALPORT", "SerialPort", " socketcan", "socketcan ", "SocketCan",
                                    "none", "1"])
def test_any_other_word_gives_no_link_silently(start_daemon, source):
    daemon = start_daemon(VORBEL_SOURCE=source)
    time.sleep(2.3)
    assert daemon.lines() == []


def test_arguments_are_not_options(tmp_path):
    for option in ("--help", "--version", "-x"):
        process = subprocess.Popen([harness.BUILD / "vorbel", option], stdout=subprocess.PIPE,
                                   stderr=subprocess.STDOUT, env={**os.environ, "VORBEL_SOURCE": "none"})
        with pytest.raises(subprocess.TimeoutExpired):
            process.communicate(timeout=0.5)
        process.terminate()
        assert process.communicate()[0] == b""


async def test_listens_on_all_interfaces_of_both_families(daemon):
    for uri in ("ws://127.0.0.1:10443", "ws://127.0.0.9:10443", "ws://[::1]:10443"):
        async with connect(uri) as client:
            await receive(client)


def test_ends_when_terminated_from_outside(start_daemon):
    daemon = start_daemon()
    daemon.stop()
    assert daemon.process.returncode == -15
    daemon.stop = lambda: None


def test_does_not_need_a_window_system():
    libraries = subprocess.run(["ldd", harness.BUILD / "vorbel"], capture_output=True, text=True, check=True)
    assert "libQt5Core" in libraries.stdout
    assert "libQt5Gui" not in libraries.stdout


# Rainy


def test_port_in_use_is_one_warning_and_the_process_stays(start_daemon):
    with taken_port():
        daemon = start_daemon(listening=False, VORBEL_SOURCE="none")
        daemon.wait_for("warning .*")
        time.sleep(2.2)
        assert daemon.lines() == [LISTEN_FAILURE]
        assert daemon.alive()


def test_listening_is_not_tried_again_and_the_link_works_on(start_daemon):
    with taken_port():
        daemon = start_daemon(listening=False)
        daemon.wait_for("warning Main.*")
    daemon.wait_for("info Sending hello message.*", 2)
    with socket.socket() as probe:
        assert probe.connect_ex(("127.0.0.1", harness.PORT)) != 0
    assert daemon.count("warning Main.*") == 1


def test_soft_descriptor_limit_is_raised_to_the_hard_one(start_daemon):
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (256, hard))
    try:
        daemon = start_daemon(VORBEL_SOURCE="none")
    finally:
        resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))
    assert resource.prlimit(daemon.pid, resource.RLIMIT_NOFILE) == (hard, hard)


def test_broken_pipes_are_ignored_and_no_other_signal_is_handled(daemon):
    status = pathlib.Path(f"/proc/{daemon.pid}/status").read_text()
    masks = {key: int(value, 16) for key, value in
             (line.split() for line in status.splitlines() if line.startswith(("SigIgn", "SigCgt")))}
    sigpipe = 1 << (13 - 1)
    assert masks["SigIgn:"] & sigpipe
    if not harness.SANITIZED:
        assert masks["SigCgt:"] & ((1 << 31) - 1) == 0
