"""The history as its package leaves it: a broker outside, and a database that is none but notes what it is given."""

import json
import re
import shutil
import subprocess
import time

import paho.mqtt.client as mqtt
import pytest
from guest import BROKER

EXPOSURE_LIMIT = 2.0
STATE = "/var/lib/vorbel-history"
TAKEN = "/run/taken"
DATABASE = f"""
import http.server

class Taking(http.server.BaseHTTPRequestHandler):
    def do_POST(self):
        with open("{TAKEN}", "ab") as file:
            file.write(self.rfile.read(int(self.headers["Content-Length"])))
        self.send_response(204)
        self.end_headers()

http.server.HTTPServer(("127.0.0.1", 8428), Taking).serve_forever()
"""
SCHEMA = {"motor": {"speed": {"@mac": 5, "@cmd": 2, "@format": "s", "scale": 0.5}}}
STATUS = {"online": True, "type": "press", "id": "7", "since": 1, "boot": 1, "lost": 0}


@pytest.fixture(scope="module")
def history(guest, packages):
    """Installed beside the modules that it needs."""
    for name in ("python3-vorbel", "vorbel-history"):
        (package,) = packages.glob(f"{name}_*_all.deb")
        shutil.copy(package, guest.share / f"{name}.deb")
    guest.run("dpkg -i /host/python3-vorbel.deb /host/vorbel-history.deb", limit=240)
    yield History(guest)
    guest.attempt("systemctl stop database; dpkg --purge vorbel-history python3-vorbel", limit=120)


class History:
    def __init__(self, guest):
        self.guest = guest

    def property(self, name):
        return self.guest.run(f"systemctl show --value -P {name} vorbel-history").strip()

    def log(self):
        return self.guest.run("journalctl --no-pager -o cat -u vorbel-history")

    def wait_for_log(self, pattern, limit=90):
        deadline = time.monotonic() + limit
        while not re.search(pattern, self.log()):
            assert time.monotonic() < deadline, f"waited for {pattern!r}, but got:\n{self.log()}"
            time.sleep(0.5)

    def wait_for_lines(self, *expected, limit=60):
        """That the database was given these, and each once."""
        deadline = time.monotonic() + limit
        while True:
            lines = self.guest.run(f"cat {TAKEN} 2>/dev/null || true").splitlines()
            if set(expected) <= set(lines):
                return [line for line in lines if line in expected]
            assert time.monotonic() < deadline, f"waited for {expected}, but got {lines}"
            time.sleep(0.5)


@pytest.fixture(scope="module")
def broker(guest, tmp_path_factory):
    """A client of a broker on the host."""
    folder = tmp_path_factory.mktemp("broker")
    (folder / "conf").write_text(f"user root\nlistener {guest.broker_port} 127.0.0.1\nallow_anonymous true\n")
    process = subprocess.Popen(["mosquitto", "-c", folder / "conf"])
    client = mqtt.Client()
    client.connect_async("127.0.0.1", guest.broker_port)
    client.loop_start()
    yield client
    client.disconnect()
    client.loop_stop()
    process.terminate()
    process.wait(10)


def publish(broker, topic, message, retain=False):
    broker.publish(f"vorbel/press7/{topic}", json.dumps(message, separators=(",", ":")), 1, retain).wait_for_publish(60)


def batch(number, raw):
    return {"boot": 1, "n": number, "t": 1790000000000 + 1000 * number, "v": [[5, {"motor": {"speed": raw}}]]}


def line(number, value):
    return f"vorbel,board=press7,path=motor.speed value={value} {1790000000005 + 1000 * number}"


def test_it_runs_from_its_installation_on_and_waits_for_a_broker(history, guest):
    assert guest.run("systemctl is-enabled vorbel-history; systemctl is-active vorbel-history").split() == [
        "enabled", "active"]
    history.wait_for_log("broker: mqtt://127.0.0.1:1883: Connection refused; trying again")
    assert history.property("NRestarts") == "0"
    owners = guest.run(f"stat -c '%U %G %a' {STATE} /etc/vorbel/history.ini").splitlines()
    assert owners == ["vorbel-history vorbel-history 700", "root root 644"]


def test_it_is_a_user_without_rights(history, guest):
    pid = history.property("MainPID")
    status = dict(line.split(":\t", 1) for line in guest.run(f"cat /proc/{pid}/status").splitlines())
    assert set(status["Uid"].split()) == set(guest.run("id -u vorbel-history").split())
    assert {int(status[name], 16) for name in ("CapInh", "CapPrm", "CapEff", "CapBnd", "CapAmb")} == {0}
    assert (status["NoNewPrivs"], status["Seccomp"]) == ("1", "2")
    report = guest.run("systemd-analyze security --no-pager vorbel-history.service", limit=60)
    overall = re.search(r"Overall exposure level for vorbel-history\.service: (\d+\.\d+)", report)
    assert float(overall.group(1)) <= EXPOSURE_LIMIT, report


def test_what_boards_publish_reaches_the_database(history, guest, broker):
    (guest.share / "database.py").write_text(DATABASE)
    (guest.share / "history.ini").write_text(f"[broker]\nurl = mqtt://{BROKER}\n")
    guest.run("""
        systemd-run --quiet --unit=database python3 /host/database.py
        cp /host/history.ini /etc/vorbel/history.ini
        systemctl restart vorbel-history
    """, limit=120)
    history.wait_for_log("broker: connected")
    publish(broker, "status", STATUS, retain=True)
    publish(broker, "schema", SCHEMA, retain=True)
    publish(broker, "values", batch(0, 1200))
    history.wait_for_lines(line(0, 600))


def test_killed_it_comes_back_and_takes_what_came_meanwhile(history, guest, broker):
    guest.run("""
        pid=$(systemctl show --value -P MainPID vorbel-history)
        kill -9 $pid
        until systemctl show --value -P MainPID vorbel-history | grep -vxE "0|$pid"; do sleep 0.1; done
    """, limit=60)
    publish(broker, "values", batch(1, 1300))
    history.wait_for_lines(line(0, 600), line(1, 650))
    assert "missing" not in history.log()


def test_while_the_database_is_away_the_broker_keeps_what_comes(history, guest, broker):
    guest.run("systemctl stop database")
    publish(broker, "values", batch(2, 1400))
    history.wait_for_log("database: ")
    guest.run("systemd-run --quiet --unit=database python3 /host/database.py")
    history.wait_for_lines(line(2, 700))


def test_purged_it_leaves_nothing(history, guest):
    guest.run("dpkg -r vorbel-history", limit=120)
    assert guest.run(f"ls -d /etc/vorbel/history.ini {STATE}").split() == ["/etc/vorbel/history.ini", STATE]
    guest.run("dpkg --purge vorbel-history", limit=120)
    left = guest.run("find / -xdev -path /host -prune -o -path /run/systemd -prune -o "
                     "-name '*vorbel-history*' -print; "
                     "grep vorbel-history /etc/passwd /etc/group /etc/shadow /etc/gshadow || true")
    assert left == ""
