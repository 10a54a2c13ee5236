"""What the gateway tells Prometheus."""

import contextlib
import re
import signal
import socket
import subprocess
import urllib.error
import urllib.request

import pytest

from gatewayharness import PATIENCE, free_port
from harness import wait_until


def metrics(port, path="/metrics", host="127.0.0.1"):
    with urllib.request.urlopen(f"http://{host}:{port}{path}", timeout=PATIENCE) as answer:
        return answer.read().decode()


def samples(text):
    """The value of each sample, by its name with labels."""
    return {name: float(value) for name, value in (line.rsplit(" ", 1) for line in text.splitlines()
                                                   if line and not line.startswith("#"))}


def sample(port, part):
    """The one sample whose name has this part."""
    (value,) = [value for name, value in samples(metrics(port)).items() if part in name]
    return value


def listening(pid):
    """The ports on which a process listens."""
    listed = subprocess.run(["ss", "-ltnp"], check=True, stdout=subprocess.PIPE, text=True, timeout=PATIENCE).stdout
    return [int(port) for port in re.findall(rf":(\d+)\s+\S+\s+users:.*pid={pid},", listed)]


def test_there_are_no_metrics_by_default(plant):
    plant.start()
    assert listening(plant.gateway.pid) == []
    port = free_port()
    plant.restart(metrics={"port": port})
    assert listening(plant.gateway.pid) == [port]


def test_metrics_are_well_formed(plant):
    port = free_port()
    plant.start(metrics={"port": port}, values={"interval_ms": 0}, write={"users": "ann: *"})
    plant.say_speeds(1, 2, 3)
    plant.wait_speed(3)
    plant.write("ann", "motor/setpoint", 1)
    text = metrics(port)
    checked = subprocess.run(["promtool", "check", "metrics"], input=text, text=True, stdout=subprocess.PIPE,
                             stderr=subprocess.STDOUT, timeout=PATIENCE)
    assert (checked.returncode, checked.stdout) == (0, ""), text


def test_metrics_say_what_happened(plant):
    port = free_port()
    plant.start(metrics={"port": port}, values={"interval_ms": 0}, write={"users": "ann: *"})
    plant.say_speeds(1, 2, 3)
    plant.wait_speed(3)
    plant.write("ann", "motor/setpoint", 1)
    plant.write("ann", "motor/setpoint", 2)
    plant.write("bob", "motor/setpoint", 1)
    assert sample(port, "batches_published") == 3
    assert sample(port, "batches_lost") == 0
    assert sorted(value for name, value in samples(metrics(port)).items() if "writes" in name and value) == [1, 2]
    assert 0 <= sample(port, "value_age") < PATIENCE
    assert sample(port, "broker_connected") == 1 and sample(port, "daemon_connected") == 1
    plant.stop_daemon()
    wait_until(lambda: sample(port, "daemon_connected") == 0, PATIENCE, "the daemon to be away")
    plant.start_daemon()
    wait_until(lambda: sample(port, "daemon_connected") == 1, PATIENCE, "the daemon to be there")
    plant.wait_heard(9)
    plant.broker.stop()
    wait_until(lambda: sample(port, "broker_connected") == 0, PATIENCE, "the broker to be away")
    plant.say_speeds(4, 5)
    wait_until(lambda: sample(port, "spooled_batches") == 2, PATIENCE, "the batches to be spooled")


def test_the_age_is_that_of_the_newest_value(plant):
    port = free_port()
    plant.start(metrics={"port": port}, values={"interval_ms": 0})
    plant.say_speeds(1)
    plant.wait_speed(1)
    wait_until(lambda: sample(port, "value_age") > 2, PATIENCE, "the value to become old")
    plant.say_speeds(2)
    wait_until(lambda: sample(port, "value_age") < 2, PATIENCE, "a newer value")


def test_a_write_that_nobody_knows_of_counts_as_failed(plant):
    port = free_port()
    plant.start(metrics={"port": port}, values={"interval_ms": 0}, write={"users": "ann: *"})
    plant.write("ann", "motor/setpoint", 1)
    held = plant.daemon.process
    held.send_signal(signal.SIGSTOP)
    assert not plant.write("ann", "motor/setpoint", 2)["ok"]
    held.send_signal(signal.SIGCONT)
    written = {name[name.index("{"):]: value for name, value in samples(metrics(port)).items() if "writes" in name}
    assert written == {'{result="ok"}': 1, '{result="refused"}': 0, '{result="failed"}': 1}


def test_metrics_are_for_this_machine_only(plant):
    port = free_port()
    subprocess.run(["ip", "address", "add", "192.0.2.7/32", "dev", "lo"], check=True)
    plant.start(metrics={"port": port})
    metrics(port)
    with pytest.raises(urllib.error.URLError):
        metrics(port, host="192.0.2.7")


@pytest.mark.parametrize("said", [b"GET / HTTP/1.1\r\nHost: x\r\n\r\n", b"POST /metrics HTTP/1.1\r\nHost: x\r\n\r\n",
                                  b"\r\n\r\n", b"\x00" * 100 + b"\r\n\r\n"],
                         ids=["another path", "another method", "no request", "no text"])
def test_nothing_else_is_answered_with_metrics(plant, said):
    port = free_port()
    plant.start(metrics={"port": port})
    with socket.create_connection(("127.0.0.1", port), timeout=PATIENCE) as connection:
        connection.sendall(said)
        connection.shutdown(socket.SHUT_WR)
        answer = b"".join(iter(lambda: connection.recv(4096), b""))
    assert not answer.startswith(b"HTTP/1.1 200") and b"# TYPE" not in answer
    assert metrics(port)


def test_clients_that_never_finish_cost_nothing(plant):
    port = free_port()
    plant.start(metrics={"port": port})
    held = [socket.create_connection(("127.0.0.1", port), timeout=PATIENCE) for _ in range(50)]
    for connection in held:
        with contextlib.suppress(OSError):  # it may refuse at once
            connection.sendall(b"GET /metrics HTTP/1.1\r\nX: " + b"x" * 100_000)
    assert metrics(port)
