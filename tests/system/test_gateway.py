"""The gateway beside the service, from its package to a broker outside."""

import json
import queue
import re
import shutil
import subprocess
import time

import paho.mqtt.client as mqtt
import pytest
from guest import BROKER
from seriallink import FOUND
from vorbelsim import vek

EXPOSURE_LIMIT = 2.0
USER, PASSWORD = "board", "a password"
SCHEMA = {"counter": {"@mac": 5, "@cmd": 2, "@format": "I"}, "alive": {"@mac": 6, "@cmd": 1, "@format": "C"}}
SETTINGS = f"""
[broker]
url = mqtt://{BROKER}
user = {USER}
password_file = password
[topics]
id = board
[schema]
file = /etc/vorbel/test.schema.json
[write]
users = operator: alive
"""
DROP_IN = "/etc/systemd/system/vorbel-gateway.service.d"
CREDENTIAL = "[Service]\nLoadCredential=password:/etc/vorbel/password\n"
OF_THE_TEST = f"{DROP_IN} /etc/vorbel/password /etc/vorbel/test.schema.json"
STATE, RUN = "/var/lib/vorbel-gateway", "/run/vorbel-gateway"


@pytest.fixture(scope="module")
def gateway(guest, service, packages):
    """The gateway as its package leaves it."""
    (package,) = packages.glob("vorbel-gateway_*_arm64.deb")
    shutil.copy(package, guest.share / "gateway.deb")
    guest.run("dpkg -i /host/gateway.deb", limit=120)
    yield Gateway(guest)
    guest.attempt(f"rm -rf {OF_THE_TEST}; dpkg --purge vorbel-gateway", limit=120)


class Gateway:
    def __init__(self, guest):
        self.guest = guest

    def property(self, name):
        return self.guest.run(f"systemctl show --value -P {name} vorbel-gateway").strip()

    def log(self):
        return self.guest.run("journalctl --no-pager -o cat -u vorbel-gateway")

    def wait_for_log(self, pattern, limit=60):
        deadline = time.monotonic() + limit
        while not re.search(pattern, self.log()):
            assert time.monotonic() < deadline, f"waited for {pattern!r}, but got:\n{self.log()}"
            time.sleep(0.5)

    def configure(self):
        """With a password that only root may read."""
        files = {"gateway.ini": SETTINGS, "schema": json.dumps(SCHEMA), "password": PASSWORD, "drop-in": CREDENTIAL}
        for name, text in files.items():
            (self.guest.share / name).write_text(text)
        self.guest.run(f"""
            cp /host/gateway.ini /etc/vorbel/gateway.ini
            cp /host/schema /etc/vorbel/test.schema.json
            install -m 400 /host/password /etc/vorbel/password
            install -m 644 -D /host/drop-in {DROP_IN}/password.conf
            systemctl daemon-reload
            systemctl restart vorbel-gateway
        """, limit=120)


@pytest.fixture(scope="module")
def broker(guest, tmp_path_factory):
    """A client of a broker on the host."""
    folder = tmp_path_factory.mktemp("broker")
    (folder / "passwords").touch()
    for name in (USER, "operator"):
        subprocess.run(["mosquitto_passwd", "-b", folder / "passwords", name, PASSWORD], check=True)
    (folder / "conf").write_text(f"user root\nlistener {guest.broker_port} 127.0.0.1\n"
                                 f"password_file {folder}/passwords\n")
    process = subprocess.Popen(["mosquitto", "-c", folder / "conf"])
    client = Client(guest.broker_port)
    yield client
    client.stop()
    process.terminate()
    process.wait(10)


class Client:
    def __init__(self, port):
        self.received = queue.Queue()
        self.client = mqtt.Client()
        self.client.username_pw_set("operator", PASSWORD)
        self.client.on_connect = lambda client, *_: client.subscribe("vorbel/#", 1)
        self.client.on_message = lambda client, _, message: self.received.put((message.topic, message.payload))
        self.client.connect_async("127.0.0.1", port)
        self.client.loop_start()

    def wait_for(self, topic, limit=60):
        """The next message on a topic of the board's."""
        deadline = time.monotonic() + limit
        while True:
            received, payload = self.received.get(timeout=max(0.01, deadline - time.monotonic()))
            if received == f"vorbel/board/{topic}":
                return json.loads(payload)

    def wait_for_status(self, online):
        while self.wait_for("status")["online"] != online:
            pass

    def write(self, path, value):
        self.client.publish(f"vorbel/board/set/operator/{path}", json.dumps(value), 1)

    def stop(self):
        self.client.disconnect()
        self.client.loop_stop()


def test_it_runs_from_its_installation_on_and_waits_for_a_broker(gateway, guest):
    assert guest.run("systemctl is-enabled vorbel-gateway; systemctl is-active vorbel-gateway").split() == [
        "enabled", "active"]
    gateway.wait_for_log("mqtt://127.0.0.1 does not answer")
    assert gateway.property("NRestarts") == "0"
    owners = guest.run(f"stat -c '%U %G %a' {STATE} {RUN} /etc/vorbel/gateway.ini").splitlines()
    assert owners == ["vorbel-gateway vorbel-gateway 700", "vorbel-gateway vorbel-gateway 700", "root root 644"]


def test_it_is_a_user_without_rights(gateway, guest):
    pid = gateway.property("MainPID")
    status = dict(line.split(":\t", 1) for line in guest.run(f"cat /proc/{pid}/status").splitlines())
    assert set(status["Uid"].split()) == set(guest.run("id -u vorbel-gateway").split())
    assert {int(status[name], 16) for name in ("CapInh", "CapPrm", "CapEff", "CapBnd", "CapAmb")} == {0}
    assert (status["NoNewPrivs"], status["Seccomp"]) == ("1", "2")
    report = guest.run("systemd-analyze security --no-pager vorbel-gateway.service", limit=60)
    overall = re.search(r"Overall exposure level for vorbel-gateway\.service: (\d+\.\d+)", report)
    assert float(overall.group(1)) <= EXPOSURE_LIMIT, report


def test_values_reach_a_broker_outside_and_a_write_comes_back(gateway, broker, ftdi, service):
    gateway.configure()
    ftdi.plug()
    service.wait_for_log(FOUND)
    ftdi.stream(True)
    assert broker.wait_for("now/counter") >= 0
    counters = [values["counter"] for _, values in broker.wait_for("values")["v"]]
    assert counters == list(range(counters[0], counters[0] + len(counters)))
    broker.wait_for("pulse")
    ftdi.stream(False)
    broker.write("alive", 7)
    ftdi.discard_through(vek.record(6, 1, b"\x07"))
    done = broker.wait_for("done")
    assert (done["user"], done["path"], done["value"], done["ok"]) == ("operator", "alive", 7, True)
    assert '"path":"alive"' in gateway.log()


def test_killed_it_comes_back_and_finds_what_it_kept_in_memory(gateway, guest, broker):
    guest.run(f"""
        touch {RUN}/kept
        pid=$(systemctl show --value -P MainPID vorbel-gateway)
        kill -9 $pid
        until systemctl show --value -P MainPID vorbel-gateway | grep -vxE "0|$pid"; do sleep 0.1; done
        [ -e {RUN}/kept ]
    """, limit=60)
    broker.wait_for_status(online=False)
    broker.wait_for_status(online=True)


def test_an_upgrade_leaves_its_settings_and_its_state(gateway, guest):
    settings = guest.run("cat /etc/vorbel/gateway.ini")
    guest.run(f"touch {STATE}/kept; dpkg -i --force-confold /host/gateway.deb", limit=120)
    assert guest.run("cat /etc/vorbel/gateway.ini") == settings
    assert guest.run(f"systemctl is-active vorbel-gateway; ls {STATE}/kept").split() == ["active", f"{STATE}/kept"]


def test_purged_it_leaves_nothing(gateway, guest):
    guest.run("dpkg -r vorbel-gateway", limit=120)
    assert guest.run(f"ls -d /etc/vorbel/gateway.ini {STATE}").split() == ["/etc/vorbel/gateway.ini", STATE]
    assert guest.attempt(f"ls {RUN}")[0] != 0
    guest.run(f"rm -r {OF_THE_TEST}; dpkg --purge vorbel-gateway", limit=120)
    left = guest.run("find / -xdev -path /host -prune -o -path /run/systemd -prune -o "
                     "\\( -name '*vorbel-gateway*' -o -path '/etc/vorbel*' \\) -print; "
                     "grep vorbel-gateway /etc/passwd /etc/group /etc/shadow /etc/gshadow || true")
    assert left == ""
    assert guest.run("systemctl is-active vorbel").strip() == "active", "the daemon stays"
