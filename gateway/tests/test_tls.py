"""Brokers that prove who they are, and want to know who the gateway is."""

import os
import subprocess

import pytest

from gatewayharness import PATIENCE, Mosquitto, free_port

AT_ONCE = {"values": {"interval_ms": 0}}


class Authority:
    """Who signs certificates, in a folder of its own."""

    def __init__(self, folder, name):
        folder.mkdir()
        self._folder = folder
        self.certificate = folder / "ca.crt"
        self._key = folder / "ca.key"
        self._openssl("req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
                      "-keyout", self._key, "-out", self.certificate, "-subj", f"/CN={name}", "-days", "2")

    def sign(self, name, *extensions):
        """(certificate, key) of a name."""
        certificate, key, request = (self._folder / f"{name}.{end}" for end in ("crt", "key", "csr"))
        self._openssl("req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-keyout", key,
                      "-out", request, "-subj", f"/CN={name}")
        extra = self._folder / f"{name}.ext"
        extra.write_text("".join(f"{extension}\n" for extension in ("basicConstraints=CA:FALSE", *extensions)))
        self._openssl("x509", "-req", "-in", request, "-CA", self.certificate, "-CAkey", self._key, "-CAcreateserial",
                      "-out", certificate, "-days", "2", "-extfile", extra)
        return certificate, key

    @staticmethod
    def _openssl(*words):
        subprocess.run(["openssl", *words], check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


@pytest.fixture(scope="module")
def authority(tmp_path_factory):
    return Authority(tmp_path_factory.mktemp("authority") / "ours", "Ours")


@pytest.fixture(scope="module")
def stranger(tmp_path_factory):
    return Authority(tmp_path_factory.mktemp("authority") / "theirs", "Theirs")


@pytest.fixture
def secure(make_plant, tmp_path, authority):
    """secure(LINE...) is a plant whose broker has a port with TLS as well, and the URL of that."""
    def make(*lines, host="IP:127.0.0.1"):
        certificate, key = authority.sign("broker", f"subjectAltName={host}")
        port = free_port()
        broker = Mosquitto(tmp_path, "allow_anonymous true", f"listener {port} 127.0.0.1", f"certfile {certificate}",
                           f"keyfile {key}", f"cafile {authority.certificate}", *lines)
        return make_plant(broker=broker.start()), f"mqtts://127.0.0.1:{port}"

    return make


def flows(plant):
    plant.say_speeds(1)
    plant.wait_speed(1)


def is_told(plant, *words):
    """The log says why there is no connection, and there is none."""
    plant.gateway.wait_for(".*".join(["(warning|critical) ", *words, ""]))
    assert not any(message.json["online"] for message in plant.listener.of("status"))


@pytest.mark.parametrize("version", ["3.1.1", "5"])
def test_a_broker_with_a_certificate_that_is_trusted(secure, authority, version):
    plant, url = secure()
    plant.start(broker={"url": url, "ca": authority.certificate, "version": version}, **AT_ONCE)
    flows(plant)


def test_credentials_are_found_by_their_names(secure, authority):
    plant, url = secure()
    credentials = plant.folder / "gateway" / "credentials"
    credentials.mkdir(parents=True)
    os.link(authority.certificate, credentials / "ca")
    plant.start(broker={"url": url, "ca": "ca"}, **AT_ONCE)
    flows(plant)


def test_a_broker_of_another_authority_is_refused(secure, stranger):
    plant, url = secure()
    plant.start(wait=False, broker={"url": url, "ca": stranger.certificate})
    is_told(plant, "certificate")


def test_a_broker_that_the_system_does_not_trust_is_refused(secure):
    plant, url = secure()
    plant.start(wait=False, broker={"url": url})
    is_told(plant, "certificate")


def test_a_broker_of_another_name_is_refused(secure, authority):
    plant, url = secure(host="DNS:elsewhere")
    plant.start(wait=False, broker={"url": url, "ca": authority.certificate})
    is_told(plant, "")
    assert plant.gateway.alive()


def test_a_broker_without_tls_is_refused(plant, authority):
    plant.start(wait=False, broker={"url": plant.broker.url.replace("mqtt:", "mqtts:"), "ca": authority.certificate})
    is_told(plant, "")


def test_the_gateways_own_certificate_is_shown(secure, authority):
    plant, url = secure("require_certificate true")
    certificate, key = authority.sign("gateway")
    plant.start(broker={"url": url, "ca": authority.certificate, "certificate": certificate, "key": key}, **AT_ONCE)
    flows(plant)


def test_a_certificate_of_another_authority_is_refused_by_the_broker(secure, authority, stranger):
    plant, url = secure("require_certificate true")
    certificate, key = stranger.sign("gateway")
    plant.start(wait=False,
                broker={"url": url, "ca": authority.certificate, "certificate": certificate, "key": key})
    is_told(plant, "")


def test_no_certificate_is_refused_by_the_broker(secure, authority):
    plant, url = secure("require_certificate true")
    plant.start(wait=False, broker={"url": url, "ca": authority.certificate})
    is_told(plant, "")


# Names, passwords and roles


def with_password(plant, user, password, **broker):
    file = plant.folder / "password"
    file.write_text(password + "\nmore\n")
    return {"broker": {"user": user, "password_file": file, **broker}}


@pytest.fixture
def guarded(make_plant, tmp_path):
    """guarded(LINE...) is a plant whose broker knows "gateway" and "ann", with rules of access; the listener, on
    another port, may everything."""
    def make(*rules):
        passwords, access = tmp_path / "passwords", tmp_path / "access"
        passwords.touch(mode=0o600)
        for name in ("gateway", "ann"):
            subprocess.run(["mosquitto_passwd", "-b", passwords, name, f"{name}'s word"], check=True)
        access.write_text("".join(f"{rule}\n" for rule in rules))
        guarded_port = free_port()
        broker = Mosquitto(tmp_path, "allow_anonymous true", f"listener {guarded_port} 127.0.0.1",
                           "allow_anonymous false", f"password_file {passwords}", f"acl_file {access}",
                           first=["per_listener_settings true"])
        return make_plant(broker=broker.start()), f"mqtt://127.0.0.1:{guarded_port}"

    return make


@pytest.mark.parametrize("version", ["3.1.1", "5"])
def test_the_gateway_logs_in(guarded, version):
    plant, url = guarded("user gateway", "topic readwrite #")
    plant.start(**with_password(plant, "gateway", "gateway's word", url=url, version=version), **AT_ONCE)
    flows(plant)


def test_a_wrong_password_is_told(guarded):
    plant, url = guarded("user gateway", "topic readwrite #")
    plant.start(wait=False, **with_password(plant, "gateway", "ann's word", url=url))
    is_told(plant, "")
    assert "ann's word" not in plant.gateway.log()


def test_a_user_without_the_role_is_held_back_by_the_broker_and_one_with_it_writes(guarded):
    plant, url = guarded("user gateway", "topic readwrite #", "pattern write vorbel/+/set/%u/#")
    plant.start(**with_password(plant, "gateway", "gateway's word", url=url), **AT_ONCE,
                write={"users": "ann: *, bob: *"})
    ann = ["-p", url.rpartition(":")[2], "-u", "ann", "-P", "ann's word"]
    for user in ("bob", "ann"):
        subprocess.run(["mosquitto_pub", "-h", "127.0.0.1", *ann, "-q", "1", "-m", "5",
                        "-t", f"vorbel/7/set/{user}/motor/setpoint"], check=True, timeout=PATIENCE)
    assert plant.listener.wait("done").json["user"] == "ann"
    assert [message.json["user"] for message in plant.listener.of("done")] == ["ann"]
