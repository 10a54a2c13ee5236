"""The brokers' configurations in examples/gateway, as they stand there: who may read and write what."""

import json
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
EXAMPLES, PAGE = PROJECT / "examples" / "gateway", PROJECT / "docs" / "gateway.md"
PROGRAM = pathlib.Path(os.environ["VORBEL_BUILD_DIR"]) / "gateway" / "vorbel-gateway"
GATEWAY, PEOPLE = "press7", ("observer", "operator", "engineer", "home")
READERS, WRITERS = PEOPLE[:3], PEOPLE[1:]
PASSWORDS = {name: f"password of {name}" for name in (GATEWAY, *PEOPLE)}
BOARD = "vorbel/press7"
PUBLISHED = [(f"{BOARD}/status", 1), (f"{BOARD}/schema", 1), (f"{BOARD}/values", 1), (f"{BOARD}/now/motor/speed", 0),
             (f"{BOARD}/done", 1), (f"{BOARD}/pulse", 0)]
MARK = f"{BOARD}/done"
REFUSED = (4, 5)  # bad user name or password, not authorized


@pytest.fixture(scope="module")
def authority(tmp_path_factory):
    """The folder of an authority, made as the page says: ca.pem, and what it has signed."""
    folder = tmp_path_factory.mktemp("authority")
    commands = documents.commands(PAGE, "openssl req").replace("broker.example.com", "localhost")
    subprocess.run(["sh", "-ec", commands], cwd=folder, check=True, capture_output=True)
    for ending in ("pem", "key"):
        (folder / f"localhost.{ending}").rename(folder / f"broker.{ending}")
    return folder


class Broker:
    """What listens, and its clients by their names. `login` is how a gateway proves its own, in its settings."""

    def __init__(self, authority, port, login, gateway=None):
        self.authority, self.port, self.login, self.clients = authority, port, login, []
        self.gateway = self.kept(gateway) if gateway else self.client(GATEWAY)

    def client(self, user):
        return self.stranger(user, PASSWORDS[user])

    def stranger(self, user, password):
        return self.kept(Client(self.port, user, password, trust(self.authority / "ca.pem")))

    def kept(self, client):
        self.clients.append(client)
        return client

    def stop(self):
        for client in self.clients:
            client.stop()


@pytest.fixture
def mosquitto(authority, tmp_path):
    """As on a Debian system, where /etc/mosquitto/mosquitto.conf includes this file."""
    config = (EXAMPLES / "mosquitto.conf").read_text()
    for path in ("/etc/mosquitto/certs", "/etc/mosquitto/vorbel.acl", "/etc/mosquitto/vorbel.passwords"):
        assert path in config
    config = config.replace("/etc/mosquitto/certs", str(authority)).replace("/etc/mosquitto", str(tmp_path))
    (tmp_path / "vorbel.acl").write_text((EXAMPLES / "mosquitto.acl").read_text())
    (tmp_path / "vorbel.passwords").touch()
    for name in PEOPLE:
        run("mosquitto_passwd", "-b", tmp_path / "vorbel.passwords", name, PASSWORDS[name])
    (tmp_path / "conf.d").mkdir()
    (tmp_path / "conf.d" / "vorbel.conf").write_text(config)
    (tmp_path / "mosquitto.conf").write_text(
        f"user root\npersistence true\npersistence_location {tmp_path}/\ninclude_dir {tmp_path}/conf.d\n")
    with running((8883, 8884), "mosquitto", "-c", tmp_path / "mosquitto.conf"):
        certified = Client(8883, GATEWAY, context=trust(
            authority / "ca.pem", authority / f"{GATEWAY}.pem", authority / f"{GATEWAY}.key"))
        yield from stopping(Broker(authority, 8884, "certificate = certificate\nkey = key\n", certified))


@pytest.fixture
def nats(authority, tmp_path):
    config = (EXAMPLES / "nats.conf").read_text()
    for path in ("/var/lib/nats", "/etc/nats/broker.pem", "/etc/nats/broker.key"):
        assert path in config
    config = config.replace("/var/lib/nats", f"{tmp_path}/store").replace("/etc/nats", str(authority))
    (tmp_path / "nats").mkdir()
    (tmp_path / "nats" / "passwords.conf").write_text("".join(
        f'{name.upper().replace("-", "_")}_PASSWORD: "{hashed(word)}"\n' for name, word in PASSWORDS.items()))
    (tmp_path / "nats-server.conf").write_text(config)
    with running((8883,), "nats-server", "-c", tmp_path / "nats-server.conf"):
        yield from stopping(Broker(authority, 8883, f"version = 3.1.1\nuser = {GATEWAY}\npassword_file = password\n"))


def stopping(broker):
    yield broker
    broker.stop()


@pytest.fixture(params=["mosquitto", "nats"])
def broker(request):
    return request.getfixturevalue(request.param)


def arrived(broker, written):
    """What the gateway is given of these topics, each written by its user: (user, topic)."""
    mark = f"{BOARD}/set/engineer/end"
    assert broker.gateway.subscribe(f"{BOARD}/set/+/#") == 1
    assert broker.gateway.subscribe(f"{BOARD}/schema/set") == 1
    clients = {user: broker.client(user) for user in {user for user, _ in written} | {"engineer"}}
    for user, topic in written:
        clients[user].publish(topic)
    clients["engineer"].publish(mark)
    return list(iter(lambda: broker.gateway.receive()[0], mark))


def test_the_gateway_does_what_it_must(broker):
    for topic in ("set/+/#", "schema/set", "pulse"):
        assert broker.gateway.subscribe(f"{BOARD}/{topic}") == 1, topic
    for user in READERS:
        assert broker.client(user).subscribe("vorbel/#") == 1, user
    for topic, qos in PUBLISHED:
        broker.gateway.publish(topic, json.dumps(topic), qos)
    assert broker.gateway.receive() == (f"{BOARD}/pulse", json.dumps(f"{BOARD}/pulse").encode())
    for reader in broker.clients[1:]:
        # The order of different qualities of service is the broker's.
        assert sorted(reader.receive() for _ in PUBLISHED) == sorted(
            (topic, json.dumps(topic).encode()) for topic, _ in PUBLISHED)


def test_what_is_retained_is_there_for_who_comes_later(broker):
    broker.gateway.publish(f"{BOARD}/status", "true", retain=True)
    broker.gateway.publish(f"{BOARD}/now/a%2Fb", "1", qos=0, retain=True)
    broker.gateway.publish(MARK)
    observer = broker.client("observer")
    assert observer.subscribe("vorbel/+/status") == 1
    assert observer.receive() == (f"{BOARD}/status", b"true")
    assert observer.subscribe("vorbel/+/now/#") == 1
    assert observer.receive() == (f"{BOARD}/now/a%2Fb", b"1")


def test_who_writes_does_so_under_their_own_name(broker):
    written = [(user, f"{BOARD}/set/{user}/motor/setpoint") for user in WRITERS]
    assert arrived(broker, written) == [topic for _, topic in written]


def test_nobody_writes_under_anothers_name(broker):
    spoofed = [("operator", f"{BOARD}/set/{name}/motor/setpoint") for name in ("engineer", "observer", GATEWAY, "")]
    spoofed += [(user, f"{BOARD}/set/operator/motor/setpoint") for user in ("engineer", "home")]
    spoofed += [("operator", f"{BOARD}/set/motor/setpoint")]
    assert arrived(broker, spoofed) == []


def test_an_observer_writes_nothing(broker):
    assert arrived(broker, [("observer", f"{BOARD}/set/observer/motor/setpoint"),
                            ("observer", f"{BOARD}/schema/set")]) == []


def test_engineers_alone_load_schemas(broker):
    written = [(user, f"{BOARD}/schema/set") for user in WRITERS]
    assert arrived(broker, written) == [f"{BOARD}/schema/set"]


@pytest.mark.parametrize("topic", ["status", "values", "now/motor/speed", "done", "pulse", "schema"])
def test_nobody_says_what_only_the_gateway_says(broker, topic):
    observer = broker.client("observer")
    assert observer.subscribe(f"{BOARD}/#") == 1
    for name in WRITERS:
        broker.client(name).publish(f"{BOARD}/{topic}", "forged", retain=True)
    broker.gateway.publish(MARK, "end")
    assert observer.receive() == (MARK, b"end")


def test_a_gateway_has_nothing_to_do_with_another_board(broker):
    other = "vorbel/press8"
    observer = broker.client("observer")
    assert observer.subscribe("vorbel/#") == 1
    broker.gateway.publish(f"{other}/status", "forged", retain=True)
    broker.gateway.publish(f"{other}/set/engineer/motor/setpoint", "forged")
    broker.gateway.publish(MARK, "end")
    assert observer.receive() == (MARK, b"end")


def test_home_assistant_and_the_gateway_find_each_other(broker):
    own, others = (f"homeassistant/sensor/{name}/motor--speed/config" for name in ("vorbel--press7", "vorbel--press8"))
    home = broker.client("home")
    for topic in ("homeassistant/#", "vorbel/press7/status", "vorbel/press7/now/motor/speed"):
        assert home.subscribe(topic) == 1, topic
    assert broker.gateway.subscribe("homeassistant/+/vorbel--press7/+/config") == 1
    broker.gateway.publish(others, "forged", retain=True)
    broker.gateway.publish(own, "{}", retain=True)
    assert home.receive() == broker.gateway.receive() == (own, b"{}")
    home.publish("homeassistant/status", "online")
    assert home.receive() == ("homeassistant/status", b"online")


@pytest.mark.parametrize("name", ["observer", "operator", "engineer"])
def test_nobody_else_tells_home_assistant_what_there_is(broker, name):
    home = broker.client("home")
    assert home.subscribe("homeassistant/#") == 1
    broker.client(name).publish("homeassistant/sensor/vorbel--press7/motor--speed/config", "forged", retain=True)
    home.publish("homeassistant/status", "end")
    assert home.receive() == ("homeassistant/status", b"end")


@pytest.mark.parametrize("user, password", [("operator", "wrong"), ("nobody", "password"), ("", None)])
def test_who_is_not_known_does_not_get_in(broker, user, password):
    assert broker.stranger(user, password).code in REFUSED


def test_where_gateways_log_in_nobody_does_without_a_certificate(mosquitto):
    context = trust(mosquitto.authority / "ca.pem")
    with socket.create_connection(("localhost", 8883), timeout=10) as plain:
        with pytest.raises(ssl.SSLError, match="CERTIFICATE_REQUIRED"):
            context.wrap_socket(plain, server_hostname="localhost").recv(1)


@pytest.fixture
def credentials(authority, tmp_path):
    """The folder that systemd makes of the unit's credentials."""
    folder = tmp_path / "credentials"
    folder.mkdir()
    unit = documents.Blocks(PAGE)["/etc/systemd/system/vorbel-gateway.service.d/credentials.conf"]
    for name, file in re.findall(r"^LoadCredential=(\w+):/etc/vorbel/(\S+)$", unit, re.M):
        shutil.copy(authority / file, folder / name)
    (folder / "password").write_text(PASSWORDS[GATEWAY] + "\n")
    return folder


def test_the_gateway_takes_all_of_the_pages_settings(credentials, tmp_path):
    blocks = re.findall(r"^```ini\n(\[(?!Service)\w+\]\n.*?)^```$", PAGE.read_text(), re.M | re.S)
    assert len(blocks) >= 3
    for settings in blocks:
        (tmp_path / "gateway.ini").write_text(settings)
        subprocess.run([PROGRAM, "--check", tmp_path / "gateway.ini"], check=True,
                       env={**os.environ, "CREDENTIALS_DIRECTORY": str(credentials)})


def test_the_gateway_works_with_the_pages_settings(broker, credentials, tmp_path):
    settings = documents.commands(PAGE, "[broker]").replace("broker.example.com", "localhost")
    settings = settings.replace("certificate = certificate\nkey = key\n", broker.login)
    assert broker.login in settings
    (tmp_path / "gateway.ini").write_text(settings)
    environment = {**os.environ, "CREDENTIALS_DIRECTORY": str(credentials), "STATE_DIRECTORY": str(tmp_path / "state")}
    engineer = broker.client("engineer")
    assert engineer.subscribe("vorbel/press7/#") == 1
    process = subprocess.Popen([PROGRAM, tmp_path / "gateway.ini"], env=environment)
    try:
        seen = {}
        while len(seen) < 3:
            topic, payload = engineer.receive()
            seen[topic] = payload
        engineer.publish(f"{BOARD}/set/engineer/motor/setpoint", "1200")
        while topic != f"{BOARD}/done":
            topic, payload = engineer.receive()
    finally:
        process.terminate()
        process.wait(10)
    assert seen[f"{BOARD}/status"] == b'{"online":false}' and seen[f"{BOARD}/schema"] == b"null"
    assert f"{BOARD}/pulse" in seen
    done = json.loads(payload)
    assert (done["user"], done["path"], done["value"], done["ok"]) == ("engineer", "motor.setpoint", 1200, False)
