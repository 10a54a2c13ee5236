"""The history as a program: what it is told, what it logs, and what strangers send it."""

import os
import pathlib
import re
import socket
import ssl
import subprocess
import threading
import time
import types
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer

import paho.mqtt.client as mqtt
import pytest
from paho.mqtt.packettypes import PacketTypes
from paho.mqtt.properties import Properties

from histories import PROGRAM, Board, Database, History, Mosquitto, Nats, compact, free_port, milliseconds, wait_until
from vorbel.history import session

T = 1790000000000


class Recorder(ThreadingHTTPServer):
    """A database that keeps the lines and answers as it is told: `answer` is given the text and returns a status."""

    def __init__(self, answer=lambda text: 204):
        super().__init__(("127.0.0.1", 0), Handler)
        self.url = f"http://127.0.0.1:{self.server_port}"
        self.answer = answer
        self.taken, self.requests = [], []
        threading.Thread(target=self.serve_forever).start()

    def close(self):
        self.shutdown()
        self.server_close()


class Handler(BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def do_POST(self):
        text = self.rfile.read(int(self.headers["Content-Length"])).decode()
        self.server.requests.append((self.path, dict(self.headers)))
        status = self.server.answer(text)
        if status == 204:
            self.server.taken += text.splitlines()
        self.send_response(status)
        body = b"" if status == 204 else b"so it is\n"
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, *_):
        pass


@pytest.fixture
def recorder():
    recorder = Recorder()
    yield recorder
    recorder.close()


@pytest.fixture
def broker(tmp_path):
    broker = Mosquitto(tmp_path).start()
    yield broker
    broker.end()


@pytest.fixture
def board(broker):
    board = Board(broker.port)
    board.settle()
    yield board
    board.close()


@pytest.fixture
def history(tmp_path, broker, recorder):
    history = History(tmp_path, broker, recorder)
    yield history
    history.end()


def begin(history, board, recorder):
    """The schema has come."""
    history.start()
    board.say_speeds(1, T)
    wait_until(lambda: any("batch=0" in line for line in recorder.taken), "the first batch")


def values(recorder):
    return [line for line in recorder.taken if "value=" in line]


# The way to the broker and to the database


def test_one_client_acknowledges_only_what_the_database_has(tmp_path, broker, board, history, recorder):
    """As many as the broker sends ahead, and not one more."""
    history.settings["broker"]["receive_maximum"] = 3
    begin(history, board, recorder)
    recorder.answer = lambda text: 503
    for number in range(20):
        board.say_speeds(1, T + 10 + number)
    board.settle()
    wait_until(lambda: "database: 503" in history.log(), "a refusal")
    time.sleep(1)
    assert len(unacknowledged(broker)) == 3
    recorder.answer = lambda text: 204
    wait_until(lambda: len(set(values(recorder))) == 21, "all values")
    assert [int(line.split("value=")[1].split()[0]) for line in dict.fromkeys(values(recorder))] == list(range(21))


def unacknowledged(broker):
    """What the broker waits for: what a second client of the same name, which takes the session over, hears again."""
    heard = []
    properties = Properties(PacketTypes.CONNECT)
    properties.SessionExpiryInterval = 0xFFFFFFFF
    properties.ReceiveMaximum = 3
    other = mqtt.Client("vorbel-history", protocol=mqtt.MQTTv5)
    other._send_puback = lambda mid: 0
    other.on_message = lambda *arguments: heard.append(arguments[2])
    other.connect("127.0.0.1", broker.port, clean_start=False, properties=properties)
    other.loop_start()
    wait_until(lambda: heard, "what was not acknowledged")
    time.sleep(0.3)
    other.loop_stop()
    other.disconnect()
    return [message for message in heard if message.dup]


def test_the_library_lets_the_service_acknowledge_for_itself(monkeypatch):
    assert session.unfitness_of_library() is None
    monkeypatch.setattr(mqtt.Client, "_handle_publish", lambda self: 0)
    assert session.unfitness_of_library() == (
        "python3-paho-mqtt is of a version that does not let this program acknowledge for itself; 1.6 does")


def test_what_the_database_is_asked(broker, board, history, recorder, tmp_path):
    (tmp_path / "password").write_text("p:w\n")
    history.settings["database"] |= {"url": f"{recorder.url}/api/write?db=a", "user": "ann",
                                     "password_file": tmp_path / "password"}
    begin(history, board, recorder)
    path, headers = recorder.requests[0]
    assert path == "/api/write?db=a&precision=ms"
    assert headers["Authorization"] == "Basic YW5uOnA6dw=="
    assert headers["Content-Type"] == "text/plain; charset=utf-8"


@pytest.mark.parametrize("status", [401, 404, 429, 500, 301])
def test_a_database_that_does_not_take_anything_is_asked_again(broker, board, history, recorder, status):
    begin(history, board, recorder)
    recorder.answer = lambda text: status
    board.say_speeds(3, T + 10)
    line = f"<4>database: {status} [A-Z].*: so it is; trying again"
    wait_until(lambda: re.search(line, history.log()), "its answer in the log")
    time.sleep(1)
    assert len(re.findall(line, history.log())) == 1
    recorder.answer = lambda text: 204
    wait_until(lambda: len(values(recorder)) >= 4, "the values")
    assert "<6>database: it takes values again" in history.lines()


def test_lines_that_the_database_refuses_do_not_keep_the_others_back(broker, board, history, recorder):
    begin(history, board, recorder)
    recorder.answer = lambda text: 400 if "value=13 " in text or "value=77 " in text else 204
    board.say([[number, {"motor": {"speed": number}}] for number in range(100)], T + 1000)
    board.say_speeds(1, T + 5000)
    wait_until(lambda: any(f" {T + 5000}" in line for line in recorder.taken), "what comes behind")
    found = [line for line in values(recorder) if " value=" in line]
    numbers = {int(line.split("value=")[1].split()[0]) for line in found if int(line.split()[-1]) in
               range(T + 1000, T + 1100)}
    assert numbers == set(range(100)) - {13, 77}
    assert [line for line in history.lines() if "refused" in line] == [
        f"<4>refused: by the database, 400 Bad Request: so it is: vorbel,board=press7,path=motor.speed value={number}"
        for number in (13, 77)]


def test_a_database_that_refuses_everything_gets_it_later(broker, board, history, recorder):
    begin(history, board, recorder)
    recorder.answer = lambda text: 400
    board.say_speeds(3, T + 10)
    wait_until(lambda: "database: 400 Bad Request: so it is; trying again" in history.log(), "its answer in the log")
    recorder.answer = lambda text: 204
    wait_until(lambda: len(values(recorder)) >= 4, "the values")
    assert "refused" not in history.log()


def test_what_was_written_last_is_written_again_when_the_database_was_away(broker, board, history, recorder):
    begin(history, board, recorder)
    for number in range(5):
        board.say_speeds(1, T + 10 + number)
    wait_until(lambda: len(values(recorder)) == 6, "the values")
    recorder.answer = lambda text: 503
    board.say_speeds(1, T + 100)
    wait_until(lambda: "database: 503" in history.log(), "a refusal")
    recorder.answer = lambda text: 204
    wait_until(lambda: any(f" {T + 100}" in line for line in recorder.taken), "the value that waited")
    assert len(values(recorder)) == 6 + 6 + 1
    assert sorted(set(values(recorder))) == sorted([*values(recorder)[:6], values(recorder)[-1]])


def test_with_no_time_to_write_again_nothing_is(broker, board, history, recorder):
    history.settings["database"]["rewrite_s"] = 0
    begin(history, board, recorder)
    recorder.answer = lambda text: 503
    board.say_speeds(1, T + 100)
    wait_until(lambda: "database: 503" in history.log(), "a refusal")
    recorder.answer = lambda text: 204
    wait_until(lambda: any(f" {T + 100}" in line for line in recorder.taken), "the value that waited")
    assert len(values(recorder)) == 2


def test_a_broker_that_speaks_another_version_is_told(tmp_path, recorder):
    broker = Nats(tmp_path).start()
    history = History(tmp_path, broker, recorder)
    history.settings["broker"]["version"] = "5"
    history.start(wait=False)
    try:
        wait_until(lambda: "trying again" in history.log() or history.process.poll() is not None, "a line in the log")
        assert history.process.poll() is None
        assert "[broker] version = 3.1.1 may help; trying again" in history.lines()[0]
    finally:
        history.end()
        broker.end()


def test_a_broker_that_is_not_there_is_told_once_and_awaited(tmp_path, recorder):
    broker = Mosquitto(tmp_path)
    history = History(tmp_path, broker, recorder).start(wait=False)
    try:
        wait_until(lambda: history.lines(), "a line in the log")
        time.sleep(2)
        assert history.lines() == [f"<4>broker: mqtt://127.0.0.1:{broker.port}: Connection refused; trying again"]
        broker.start()
        wait_until(history.is_ready, "the connection")
    finally:
        history.end()
        broker.end()


@pytest.mark.parametrize("noise", [b"\x62\x00", b"\x32\x01\xff", b"\x90\x00", b"\x20\x00", b"\x30\x04\x00\x02\xff\xfe"],
                         ids=["PUBREL", "PUBLISH", "SUBACK", "CONNACK", "a topic that is no UTF-8"])
def test_a_broker_that_says_what_is_no_mqtt_is_told_and_asked_again(tmp_path, recorder, noise):
    with socket.create_server(("127.0.0.1", 0)) as listener:
        broker = types.SimpleNamespace(port=listener.getsockname()[1])
        history = History(tmp_path, broker, recorder).start(wait=False)
        for _ in range(2):
            listener.settimeout(20)
            connection = listener.accept()[0]
            with connection:
                connection.recv(1000)
                connection.sendall(b"\x20\x03\x00\x00\x00" + noise)
                wait_until(lambda: "no MQTT" in history.log() or "was lost" in history.log(), "a word")
        assert [line for line in history.lines() if "no MQTT" in line or "was lost" in line]
        history.end()


def test_a_session_that_the_broker_forgot_is_told(broker, board, history, recorder):
    begin(history, board, recorder)
    broker.stop()
    (broker.folder / "mosquitto.db").unlink()
    broker.start()
    line = "<4>broker: it has forgotten the session: what came while this service was away is missing"
    wait_until(lambda: line in history.lines(), "that line in the log")
    board.say_speeds(1, T + 10)
    wait_until(lambda: any(f" {T + 10}" in each for each in values(recorder)), "values again")


class Impatient(History):
    """What does not come within a second is missing."""

    def command(self):
        program, file = super().command()
        return ["/usr/bin/python3", "-c", f"""import sys
sys.path.insert(0, "{program.parent}")
from vorbel.history import board, main
board.GRACE = 1
sys.exit(main.main(sys.argv[1:]))""", file]


def test_what_a_full_broker_drops_is_missing(tmp_path, recorder):
    broker = Mosquitto(tmp_path)
    file = broker.folder / "conf"
    file.write_text(file.read_text().replace("max_queued_messages 100000", "max_queued_messages 50"))
    broker.start()
    board = Board(broker.port)
    history = Impatient(tmp_path, broker, recorder)
    try:
        begin(history, board, recorder)
        history.stop()
        for number in range(200):
            board.say_speeds(1, T + 10 + number)
        board.settle()
        history.start()
        board.say_speeds(1, T + 1000)
        wait_until(lambda: any("gap=" in line for line in recorder.taken), "the gap")
        (gap,) = [int(line.split("gap=")[1].split()[0]) for line in recorder.taken if "gap=" in line]
        assert len(set(values(recorder))) + gap == 202 and gap > 100
    finally:
        board.close()
        history.end()
        broker.end()


@pytest.fixture
def impatient(tmp_path, broker, recorder):
    history = Impatient(tmp_path, broker, recorder)
    yield history
    history.end()


def test_missing_batches_are_told_and_written(board, impatient, recorder):
    history = impatient
    begin(history, board, recorder)
    board.number += 3
    board.say_speeds(1, T + 100)
    wait_until(lambda: any("gap=" in line for line in recorder.taken), "the gap")
    assert f"vorbel,board=press7 gap=3 {T + 100}" in recorder.taken
    assert "<4>press7: 3 batches are missing before 4 of boot 1790000000" in history.lines()


def test_another_prefix_is_another_subscription(broker, board, history, recorder):
    begin(history, board, recorder)
    assert history.stop() == 0
    history.settings["topics"]["prefix"] = "plant/a"
    history.settings["broker"]["client_id"] = "vorbel-history"
    history.start()
    client = mqtt.Client()
    client.connect("127.0.0.1", broker.port)
    client.loop_start()
    for topic in ("vorbel/press7/values", "plant/a/press8/values"):
        client.publish(topic, compact({"boot": 1, "n": 0, "t": T, "v": [[0, {"a": 1}]]}), 1).wait_for_publish(10)
    client.loop_stop()
    wait_until(lambda: any("press8" in line for line in recorder.taken), "the other prefix")
    assert not [line for line in recorder.taken if "path=a reading=1" in line and "press7" in line]


def openssl(folder, *words):
    subprocess.run(["openssl", *words], cwd=folder, check=True, capture_output=True)


@pytest.fixture
def certificates(tmp_path):
    """An authority, and what it signed: 127.0.0.1 and a history."""
    openssl(tmp_path, "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=plant", "-keyout", "ca.key",
            "-out", "ca.pem")
    for name, address in (("server", "IP:127.0.0.1"), ("history", "DNS:history")):
        openssl(tmp_path, "req", "-newkey", "rsa:2048", "-nodes", "-subj", f"/CN={name}", "-addext",
                f"subjectAltName={address}", "-keyout", f"{name}.key", "-out", f"{name}.csr")
        openssl(tmp_path, "x509", "-req", "-in", f"{name}.csr", "-copy_extensions", "copy", "-CA", "ca.pem", "-CAkey",
                "ca.key", "-CAcreateserial", "-out", f"{name}.pem")
    return tmp_path


def test_both_ways_by_certificates_that_each_shows_the_other(certificates, recorder):
    """The name in the history's is its user with the broker; one node of two is not there."""
    folder = certificates
    tls = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    tls.load_cert_chain(folder / "server.pem", folder / "server.key")
    tls.load_verify_locations(folder / "ca.pem")
    tls.verify_mode = ssl.CERT_REQUIRED
    recorder.socket = tls.wrap_socket(recorder.socket, server_side=True)
    recorder.url = recorder.url.replace("http:", "https:")
    plain = free_port()
    broker = Mosquitto(folder, f"cafile {folder}/ca.pem", f"certfile {folder}/server.pem",
                       f"keyfile {folder}/server.key", "require_certificate true", "use_identity_as_username true",
                       f"listener {plain} 127.0.0.1").start()
    board = Board(plain)
    history = History(folder, broker, recorder)
    history.settings["broker"] |= {"url": f"mqtts://127.0.0.1:{free_port()}, mqtts://127.0.0.1:{broker.port}",
                                   "ca": "ca.pem", "certificate": "history.pem", "key": "history.key"}
    history.settings["database"] |= {"ca": folder / "ca.pem", "certificate": folder / "history.pem",
                                     "key": folder / "history.key"}
    history.environment = lambda: {**os.environ, "STATE_DIRECTORY": str(history.state),
                                   "CREDENTIALS_DIRECTORY": str(folder)}
    try:
        begin(history, board, recorder)
        assert "u'history'" in broker.log()
    finally:
        board.close()
        history.end()
        broker.end()


def test_a_broker_that_refuses_is_told(tmp_path, recorder):
    broker = Mosquitto(tmp_path, "allow_anonymous false")
    (broker.folder / "conf").write_text((broker.folder / "conf").read_text().replace("allow_anonymous true\n", ""))
    broker.start()
    history = History(tmp_path, broker, recorder).start(wait=False)
    try:
        wait_until(lambda: history.lines(), "a line in the log")
        time.sleep(2)
        assert history.lines() == [f"<4>broker: mqtt://127.0.0.1:{broker.port}: Not authorized; trying again"]
    finally:
        history.end()
        broker.end()


# Strangers


HOSTILE = [b"", b"{", b"null", b"\xff" * 100, b"[" * 200_000, b"x" * 10_000_000,
           b'{"boot":1,"n":0,"t":1,"v":[[0,{"a":[' + b"[]," * 1_300_000 + b"0]}]]}",
           b'{"boot":1,"n":1,"t":1,"v":[' + b"[0,{}]," * 590_000 + b"[0,{}]]}",
           b'{"boot":1,"n":0,"t":0,"v":[[0,NaN]]}', b'{"boot":1,"n":0,"t":1,"v":[[0,{"a":' + b"9" * 5000 + b"}]]}"]
NAMES = ["a b", "a,b=c", 'q"uo\'te', "back\\slash", "ä ö", "trailing\\"]


@pytest.mark.parametrize("kind", [Mosquitto, Nats])
def test_hostile_boards_leave_the_others_alone(tmp_path, kind):
    """Their names come back out of a real database as they were, and what is none of it is told."""
    lines = () if kind is Nats else ("message_size_limit 0",)
    broker, database = kind(tmp_path, *lines).start(), Database(tmp_path).start()
    board = Board(broker.port)
    board.settle()
    history = History(tmp_path, broker, database).start()
    stranger = mqtt.Client("stranger", clean_session=False)
    stranger.connect("127.0.0.1", broker.port)
    stranger.loop_start()
    try:
        for payload in HOSTILE if kind is Mosquitto else [each for each in HOSTILE if len(each) < 1_000_000]:
            for topic in ("values", "schema", "status"):
                stranger.publish(f"vorbel/evil/{topic}", payload, 1).wait_for_publish(30)
        for topic in ("vorbel/a%0Ab/values", f"vorbel/{'x' * 2000}/values", "vorbel/evil/set", "vorbel//values"):
            stranger.publish(topic, b'{"boot":1,"n":0,"t":1790000000000,"v":[]}', 1)
        for place, name in enumerate(NAMES):
            stranger.publish("vorbel/odd%20%2E/values", compact(
                {"boot": 1, "n": place, "t": T + place, "v": [[0, {name: {name: place}}]]}), 1)
        board.say_speeds(10, milliseconds() - 1000)
        wait_until(lambda: len(database.series().get(("press7", "motor.speed"), ())) == 10, "the good board's values")
        found = wait_until(lambda: readings_of(database, "odd .", len(NAMES)), "the odd board's values")
        escaped = [name.replace("\\", "\\\\") for name in NAMES]
        assert found == {("odd .", f"{name}.{name}"): [(T + place, place)] for place, name in enumerate(escaped)}
        assert peak(history) < 400
        refusals = [line for line in history.lines() if line.startswith("<4>refused: ")]
        assert "<4>refused: evil/values: no JSON: Expecting value: line 1 column 1 (char 0)" in refusals
        assert len(refusals) == 10  # and the others are counted
        assert history.stop() == 0
    finally:
        stranger.loop_stop()
        board.close()
        for each in (history, broker, database):
            each.end()


def readings_of(database, board, count):
    """All of a board, once there are so many."""
    found = {key: points for key, points in database.series("vorbel_reading").items() if key[0] == board}
    return found if len(found) >= count else None


def peak(process):
    """VmHWM in MiB."""
    text = pathlib.Path(f"/proc/{process.process.pid}/status").read_text()
    return int(re.search(r"^VmHWM:\s+(\d+) kB", text, re.M)[1]) / 1024


# Settings


def check(folder, text):
    file = folder / "checked.ini"
    file.write_text(text)
    run = subprocess.run([PROGRAM, "--check", file], capture_output=True, text=True, cwd=folder,
                         env={**os.environ, "CREDENTIALS_DIRECTORY": ""})
    return run.returncode, run.stderr.splitlines()


@pytest.mark.parametrize("text, line", [
    ("[broker]\nurl = http://here\n", '[broker] url must be mqtt://host or mqtts://host, and has "http://here"'),
    ("[broker]\nurl = mqtt://a, mqtts://b/c\n",
     '[broker] url must be mqtt://host or mqtts://host, and has "mqtts://b/c"'),
    ("[broker]\nversion = 4\n", '[broker] version must be 3.1.1 or 5, and is "4"'),
    ("[broker]\nkeepalive_s = 4\n", '[broker] keepalive_s must be a whole number from 5 to 3600, and is "4"'),
    ("[broker]\nreceive_maximum = 65536\n",
     '[broker] receive_maximum must be a whole number from 1 to 65535, and is "65536"'),
    ("[broker]\ncolour = 1\n", "[broker] colour: no such setting"),
    ("[brokers]\nurl = mqtt://a\n", "[brokers] url: no such setting"),
    ("[broker]\nca = /nowhere\n", "[broker] ca /nowhere: No such file or directory"),
    ("[broker]\npassword_file = word\n", '[broker] password_file names the credential "word", and there are none: see '
                                         "LoadCredential in systemd.exec(5)"),
    ("[broker]\ncertificate = /etc/passwd\n", "[broker] certificate and key: one is not of use without the other"),
    ("[topics]\nprefix = a//b\n", '[topics] prefix must be names with / between them, without + and #, and is "a//b"'),
    ("[database]\nurl = mqtt://a\n",
     '[database] url must be http://host/path or https://host/path, and is "mqtt://a"'),
    ("[database]\nrewrite_s = 1h\n", '[database] rewrite_s must be a whole number from 0 to 3600, and is "1h"')])
def test_settings_that_are_wrong(tmp_path, text, line):
    assert check(tmp_path, text) == (1, [f"<3>settings: {line}"])


def test_settings_that_are_well(tmp_path):
    assert check(tmp_path, "[broker]\nurl = mqtts://a, mqtt://b:1\nuser =\n[database]\n; a remark\n"
                           "url = https://c/write?db=x%20y\nrewrite_s = 0\n") == (0, [])
    assert check(tmp_path, "") == (0, [])


def test_what_is_no_settings_file(tmp_path):
    status, lines = check(tmp_path, "url = mqtt://a\n")
    assert status == 1 and "not a file of [section] and key = value" in lines[0]
    run = subprocess.run([PROGRAM, tmp_path / "nowhere"], capture_output=True, text=True)
    assert (run.returncode, run.stderr) == (1, f"<3>settings: {tmp_path}/nowhere: No such file or directory\n")


def test_words_that_are_not_known():
    usage = "usage: vorbel-history [-h] [--check] [FILE]\n"
    for words, status, said in ((["--help"], 0, "--check"), (["-h"], 0, "--check"),
                                (["--colour"], 2, "unrecognized arguments: --colour"),
                                (["a", "b"], 2, "unrecognized arguments: b")):
        run = subprocess.run([PROGRAM, *words], capture_output=True, text=True)
        assert run.returncode == status
        assert (run.stdout or run.stderr).startswith(usage) and said in run.stdout + run.stderr


def test_without_a_state_folder_it_does_not_start(tmp_path):
    (tmp_path / "ini").write_text("")
    environment = {name: value for name, value in os.environ.items() if name != "STATE_DIRECTORY"}
    run = subprocess.run([PROGRAM, tmp_path / "ini"], capture_output=True, text=True, env=environment)
    assert (run.returncode, run.stderr) == (
        1, "<3>STATE_DIRECTORY does not say where to keep what has been taken\n")
    (tmp_path / "history.db").write_text("this is no database at all" * 100)
    run = subprocess.run([PROGRAM, tmp_path / "ini"], capture_output=True, text=True,
                         env={**environment, "STATE_DIRECTORY": str(tmp_path)})
    assert (run.returncode, run.stderr) == (1, f"<3>state: {tmp_path}/history.db: file is not a database\n")


# The service manager


def test_the_service_manager_is_told(tmp_path, broker, board, recorder):
    with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
        manager.bind(str(tmp_path / "notify"))
        manager.settimeout(10)

        class Watched(History):
            def environment(self):
                return {**super().environment(), "NOTIFY_SOCKET": str(tmp_path / "notify"), "WATCHDOG_USEC": "1000000"}

        history = Watched(tmp_path, broker, recorder).start()
        try:
            assert manager.recv(1000) == b"READY=1"
            for _ in range(3):
                assert re.fullmatch(rb"WATCHDOG=1\nSTATUS=\d+ values written", manager.recv(1000))
            assert history.stop() == 0
            while (word := manager.recv(1000)) != b"STOPPING=1":
                assert word.startswith(b"WATCHDOG=1")
        finally:
            history.end()


def test_it_counts_for_itself(broker, board, history, recorder):
    begin(history, board, recorder)
    (line,) = [line for line in recorder.taken if line.startswith("vorbel_history,")]
    assert re.fullmatch(r"vorbel_history,service=vorbel-history batches=\d+,values=\d+,repeated=0,missing=0,"
                        r"overwritten=0,refused=0,unfit=0 \d{13}", line)
