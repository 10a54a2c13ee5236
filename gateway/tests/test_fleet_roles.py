"""A fleet's roles: the brokers' configurations in examples/fleet, as they stand there, and certificates."""

import contextlib
import os
import pathlib
import re
import shutil
import socket
import ssl
import subprocess

import documents
import pytest
from brokerclients import Client, hashed, run, running, trust

PROJECT = pathlib.Path(__file__).parents[2]
EXAMPLES, PAGE = PROJECT / "examples" / "fleet", PROJECT / "docs" / "fleet.md"
AUTHORITY = PROJECT / "gateway" / "vorbel-authority"
PROGRAM = pathlib.Path(os.environ["VORBEL_BUILD_DIR"]) / "gateway" / "vorbel-gateway"
BOARDS, PEOPLE = ("press7", "press8"), ("observer", "operator", "engineer")
OUT = 60  # seconds, after which somebody who was revoked is out
REFUSED = 5  # not authorized


class Authority:
    """A folder that the program keeps."""

    def __init__(self, folder):
        self.folder = folder
        self("init")

    def __call__(self, *words):
        return subprocess.run([AUTHORITY, *words], capture_output=True, text=True, check=True,
                              env={**os.environ, "VORBEL_AUTHORITY": str(self.folder)}).stdout

    def issued(self, name):
        return self.folder / "issued" / name

    def context(self, name):
        folder = self.issued(name)
        return trust(folder / "ca.pem", folder / "certificate.pem", folder / "key.pem")


@pytest.fixture
def authority(tmp_path):
    folder = tmp_path / "authority"
    folder.mkdir()
    authority = Authority(folder)
    authority("enrol-broker", "localhost")
    for name in (*BOARDS, "history"):
        authority("enrol", name)
    return authority


class Broker:
    """One that runs as the page says, and its clients."""

    def __init__(self, authority, folder):
        self.authority, self.folder, self.clients = authority, folder, []
        self.folder.mkdir()
        for name in ("certificate.pem", "key.pem", "ca.pem"):
            shutil.copy(authority.issued("localhost") / name, self.folder)
        self._stack = contextlib.ExitStack()

    def board(self, name, identity=None):
        """A client with the certificate of a board, which may say that it is another one."""
        context = self.authority.context(identity or name)
        return self.kept(Client(8883, name, self.secret(identity or name), context))

    def person(self, name, password=None):
        return self.kept(Client(9001, name, password or f"password of {name}"))

    def kept(self, client):
        self.clients.append(client)
        return client

    def stop(self):
        for client in self.clients:
            client.stop()
        self._stack.close()


class Mosquitto(Broker):
    def __init__(self, authority, folder):
        super().__init__(authority, folder)
        (self.folder / "conf.d").mkdir()
        (self.folder / "people.passwords").touch()
        for name in PEOPLE:
            run("mosquitto_passwd", "-b", self.folder / "people.passwords", name, f"password of {name}")
        for name in ("boards.acl", "people.acl"):
            shutil.copy(EXAMPLES / name, self.folder)
        config = (EXAMPLES / "mosquitto.conf").read_text()
        assert "/etc/mosquitto/certs" in config and "/etc/mosquitto/people.acl" in config
        config = config.replace("/etc/mosquitto/certs", str(self.folder)).replace("/etc/mosquitto", str(self.folder))
        (self.folder / "conf.d" / "fleet.conf").write_text(config)
        (self.folder / "mosquitto.conf").write_text(
            f"user root\npersistence true\npersistence_location {self.folder}/\ninclude_dir {self.folder}/conf.d\n")
        self.revoked()

    def secret(self, _name):
        return None

    def refuses(self, _name, _secret, context):
        assert tls_refusal(context) == "SSLV3_ALERT_CERTIFICATE_REVOKED"

    def revoked(self):
        """Tells the broker whom the authority has revoked, as the page says."""
        self._stack.close()
        shutil.copy(self.authority.folder / "crl.pem", self.folder)
        self._stack.enter_context(running((8883, 8884, 9001), "mosquitto", "-c", self.folder / "mosquitto.conf"))


class Nats(Broker):
    def __init__(self, authority, folder):
        super().__init__(authority, folder)
        config = (EXAMPLES / "nats.conf").read_text()
        assert "/etc/nats/" in config and "/var/lib/nats" in config
        config = config.replace("/etc/nats", str(self.folder)).replace("/var/lib/nats", f"{self.folder}/store")
        (self.folder / "nats").mkdir()
        (self.folder / "nats.conf").write_text(config)
        people = (EXAMPLES / "people.conf").read_text()
        for name in PEOPLE:
            password = hashed(f"password of {name}")
            people = people.replace(f'user: {name}, password: "HASH"', f'user: {name}, password: "{password}"')
        history = (authority.folder / "hashes" / "history").read_text().strip()
        (self.folder / "people.conf").write_text(people.replace('"HASH"', f'"{history}"'))
        self.revoked()

    def secret(self, name):
        return (self.authority.issued(name) / "password").read_text().strip()

    def refuses(self, name, secret, context):
        assert self.kept(Client(8883, name, secret, context)).code == REFUSED

    def revoked(self):
        self._stack.close()
        (self.folder / "nats" / "users.conf").write_text(self.authority("nats-users", str(self.folder / "people.conf")))
        self._stack.enter_context(running((8883, 9001), "nats-server", "-c", self.folder / "nats.conf"))


@pytest.fixture(params=[Mosquitto, Nats], ids=["mosquitto", "nats"])
def broker(request, authority, tmp_path):
    broker = request.param(authority, tmp_path / "broker")
    yield broker
    broker.stop()


def heard(listener, by):
    """What the listener was given until it hears from this client what ends it."""
    by.publish("vorbel/press7/done", "end")
    return list(iter(lambda: listener.receive(), ("vorbel/press7/done", b"end")))


def written(broker, orders):
    """Which of these messages press7 and press8 are given: (who, topic)."""
    boards = [broker.board(name) for name in BOARDS]
    for name, board in zip(BOARDS, boards):
        assert board.subscribe(f"vorbel/{name}/set/+/#") == 1
        assert board.subscribe(f"vorbel/{name}/schema/set") == 1
    people = {name: broker.person(name) for name in PEOPLE}
    for name, topic in orders:
        people[name].publish(topic)
    got = []
    for name, board in zip(BOARDS, boards):
        end = f"vorbel/{name}/set/engineer/end"
        people["engineer"].publish(end)
        got += list(iter(lambda: board.receive()[0], end))
    return got


def test_a_board_speaks_for_itself_and_for_no_other(broker):
    observer, seven, eight = broker.person("observer"), broker.board("press7"), broker.board("press8")
    assert observer.subscribe("vorbel/#") == 1
    for topic in ("status", "schema", "values", "done"):
        seven.publish(f"vorbel/press8/{topic}", "forged", retain=True)
        eight.publish(f"vorbel/press7/{topic}", "forged", retain=True)
    seven.publish("vorbel/press8/set/operator/motor/setpoint", "forged")
    seven.publish("vorbel/history/values", "forged")
    assert heard(observer, seven) == []
    seven.publish("vorbel/press7/values", "1")
    eight.publish("vorbel/press8/values", "2")
    assert sorted(observer.receive() for _ in range(2)) == [("vorbel/press7/values", b"1"),
                                                            ("vorbel/press8/values", b"2")]


def test_a_board_hears_what_is_for_it_and_nothing_else(broker):
    seven, eight, engineer = broker.board("press7"), broker.board("press8"), broker.person("engineer")
    assert seven.subscribe("vorbel/press7/set/+/#") == 1
    seven.subscribe("vorbel/press8/#")
    seven.subscribe("vorbel/#")
    eight.publish("vorbel/press8/values", "secret")
    engineer.publish("vorbel/press8/set/engineer/a", "1")
    engineer.publish("vorbel/press7/set/engineer/b", "2")
    assert seven.receive() == ("vorbel/press7/set/engineer/b", b"2")


def test_observers_only_read(broker):
    assert written(broker, [("observer", f"vorbel/press7/{topic}") for topic in (
        "set/observer/a", "set/operator/a", "set/engineer/a", "schema/set")]) == []


def test_operators_write_the_boards_that_are_theirs(broker):
    theirs = [("operator", f"vorbel/{name}/set/operator/motor/setpoint") for name in BOARDS]
    assert written(broker, [*theirs, ("operator", "vorbel/press7/schema/set"),
                            ("operator", "vorbel/press7/set/engineer/a")]) == [topic for _, topic in theirs]


def test_operators_do_not_write_other_boards(broker):
    broker.authority("enrol", "press9")
    broker.revoked()  # and who is new
    nine, operator, engineer = broker.board("press9"), broker.person("operator"), broker.person("engineer")
    assert nine.subscribe("vorbel/press9/set/+/#") == 1
    operator.publish("vorbel/press9/set/operator/a")
    engineer.publish("vorbel/press9/set/engineer/a")
    assert nine.receive()[0] == "vorbel/press9/set/engineer/a"


def test_engineers_set_schemas(broker):
    assert written(broker, [("engineer", "vorbel/press7/schema/set")]) == ["vorbel/press7/schema/set"]


@pytest.mark.parametrize("topic", ["status", "values", "schema", "done", "now/motor/speed"])
def test_nobody_says_what_only_a_board_says(broker, topic):
    observer = broker.person("observer")
    assert observer.subscribe("vorbel/#") == 1
    for name in ("operator", "engineer"):
        broker.person(name).publish(f"vorbel/press7/{topic}", "forged", retain=True)
    assert heard(observer, broker.board("press7")) == []


def test_the_history_reads_values_and_writes_nothing(broker):
    history, seven = broker.board("history"), broker.board("press7")
    assert history.subscribe("vorbel/+/+") == 1
    assert seven.subscribe("vorbel/press7/set/+/#") == 1
    for topic in ("vorbel/press7/values", "vorbel/press7/set/history/a", "vorbel/press7/schema/set"):
        history.publish(topic, "forged")
    for topic in ("status", "schema", "values"):
        seven.publish(f"vorbel/press7/{topic}", "1")
    assert sorted(history.receive()[0] for _ in range(3)) == [f"vorbel/press7/{topic}" for topic in (
        "schema", "status", "values")]
    broker.person("engineer").publish("vorbel/press7/set/engineer/end")
    assert seven.receive()[0] == "vorbel/press7/set/engineer/end"


def tls_refusal(context):
    """What a broker says to who shows this in its TLS handshake."""
    with socket.create_connection(("localhost", 8883), timeout=10) as plain:
        with pytest.raises(ssl.SSLError) as refusal:
            context.wrap_socket(plain, server_hostname="localhost").recv(1)
    return refusal.value.reason


@pytest.mark.parametrize("name", ["press7", "history", "nobody"])
def test_a_boards_name_is_nothing_without_its_certificate(broker, name):
    assert "CERTIFICATE" in tls_refusal(trust(broker.folder / "ca.pem"))
    assert broker.person(name, "password").code == REFUSED


def test_another_authoritys_certificate_is_nothing(broker, tmp_path):
    (tmp_path / "others").mkdir()
    others = Authority(tmp_path / "others")
    others("enrol", "press7")
    folder = others.issued("press7")
    context = trust(broker.folder / "ca.pem", folder / "certificate.pem", folder / "key.pem")
    assert re.search("UNKNOWN_CA|CERTIFICATE", tls_refusal(context))


def test_with_the_certificate_of_one_board_nobody_is_another(broker):
    """Where a password says who it is, that of another one is asked for."""
    observer, forger = broker.person("observer"), broker.board("press8", identity="press7")
    assert observer.subscribe("vorbel/#") == 1
    if forger.code == 0:
        forger.publish("vorbel/press8/values", "forged")
    assert heard(observer, broker.board("press7")) == []


def test_who_is_revoked_is_out_within_a_minute_and_the_others_are_not(broker):
    seven, eight, observer = broker.board("press7"), broker.board("press8"), broker.person("observer")
    stolen, secret = broker.authority.context("press7"), broker.secret("press7")
    broker.authority("revoke", "press7")
    broker.revoked()
    assert seven.gone.wait(OUT), "its connection goes on"
    seven.stop()
    broker.refuses("press7", secret, stolen)
    for client in (eight, observer):
        client.wait_for_another_connection(OUT)
    assert observer.subscribe("vorbel/#") == 1
    eight.publish("vorbel/press8/values", "2")
    assert observer.receive() == ("vorbel/press8/values", b"2")


def test_a_renewed_certificate_and_the_former_one_both_count(broker):
    former = broker.authority.context("press7")
    broker.authority("renew", "press7")
    broker.revoked()
    for context in (former, broker.authority.context("press7")):
        client = broker.kept(Client(8883, "press7", broker.secret("press7"), context))
        assert client.code == 0
        client.stop()


def test_the_gateway_works_with_the_pages_settings(broker, tmp_path):
    """Of the board press7, whose credentials systemd makes of the files that the authority issued."""
    unit = documents.Blocks(PAGE)["/etc/systemd/system/vorbel-gateway.service.d/credentials.conf"]
    credentials = tmp_path / "credentials"
    credentials.mkdir()
    for name, file in re.findall(r"^LoadCredential=(\w+):/etc/vorbel/(\S+)$", unit, re.M):
        shutil.copy(broker.authority.issued("press7") / file, credentials / name)
    settings = documents.Blocks(PAGE)["/etc/vorbel/gateway.ini"].replace("broker.example.com", "localhost")
    if isinstance(broker, Nats):
        settings = settings.replace("[topics]", "version = 3.1.1\nuser = press7\npassword_file = password\n\n[topics]")
    (tmp_path / "gateway.ini").write_text(settings)
    observer = broker.person("observer")
    assert observer.subscribe("vorbel/press7/status") == 1
    with running((), PROGRAM, tmp_path / "gateway.ini", environment={
            "CREDENTIALS_DIRECTORY": str(credentials), "STATE_DIRECTORY": str(tmp_path / "state")}):
        assert observer.receive() == ("vorbel/press7/status", b'{"online":false}')
