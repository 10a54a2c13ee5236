"""vorbel-authority: certificates as openssl reads them, and everything that it refuses."""

import os
import pathlib
import re
import stat
import subprocess

import pytest

AUTHORITY = pathlib.Path(__file__).parents[1] / "vorbel-authority"


class Folder:
    def __init__(self, path):
        self.path = path

    def attempt(self, *words, **settings):
        done = subprocess.run([AUTHORITY, *words], capture_output=True, text=True, cwd=self.path,
                              env={**os.environ, **settings})
        return done.returncode, done.stdout, done.stderr

    def __call__(self, *words, **settings):
        code, output, said = self.attempt(*words, **settings)
        assert code == 0, said
        return output

    def issued(self, name, file="certificate.pem"):
        return self.path / "issued" / name / file

    def verify(self, certificate, purpose="sslclient"):
        """What openssl says of it, with the list of those who are revoked."""
        return subprocess.run(["openssl", "verify", "-CAfile", "ca.pem", "-CRLfile", "crl.pem", "-crl_check",
                               "-purpose", purpose, certificate], capture_output=True, text=True, cwd=self.path)

    def is_valid(self, certificate, purpose="sslclient"):
        return self.verify(certificate, purpose).returncode == 0


def said_of(certificate, *words):
    return subprocess.run(["openssl", "x509", "-noout", "-in", certificate, *words], capture_output=True, text=True,
                          check=True).stdout


def state(folder):
    return {path.relative_to(folder.path): path.read_bytes() for path in sorted(folder.path.rglob("*"))
            if path.is_file() and path.name != ".lock" and not path.name.endswith(".old")}


@pytest.fixture
def folder(tmp_path):
    folder = Folder(tmp_path)
    folder("init")
    return folder


def test_a_board_is_who_its_certificate_says(folder):
    folder("enrol", "press7")
    certificate = folder.issued("press7")
    assert said_of(certificate, "-subject") == "subject=CN = press7\n"
    assert "DNS:press7" in said_of(certificate, "-ext", "subjectAltName")
    assert folder.is_valid(certificate)
    assert not folder.is_valid(certificate, "sslserver"), "it could pass for a broker"
    key = subprocess.run(["openssl", "pkey", "-pubout", "-in", folder.issued("press7", "key.pem")], capture_output=True,
                         text=True, check=True).stdout
    assert key == said_of(certificate, "-pubkey")
    assert folder.issued("press7", "ca.pem").read_bytes() == (folder.path / "ca.pem").read_bytes()


def test_a_broker_is_one_and_no_board(folder):
    folder("enrol-broker", "broker.example.com")
    certificate = folder.issued("broker.example.com")
    assert folder.is_valid(certificate, "sslserver")
    assert not folder.is_valid(certificate)
    assert "DNS:broker.example.com" in said_of(certificate, "-ext", "subjectAltName")
    folder("renew", "broker.example.com")
    assert folder.is_valid(folder.issued("broker.example.com"), "sslserver"), "and renewed, it still is"
    assert folder("nats-users") == "users: [\n]\n"


def test_nobody_else_reads_what_is_secret(folder):
    folder("enrol", "press7")
    for path in ("ca.key", "issued/press7/key.pem", "issued/press7/password"):
        assert stat.S_IMODE((folder.path / path).stat().st_mode) == 0o600, path


def test_a_key_can_stay_on_the_board(folder, tmp_path):
    request = tmp_path / "there" / "press7.csr"
    request.parent.mkdir()
    subprocess.run(["openssl", "req", "-new", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=somebody-else", "-keyout",
                    request.parent / "key.pem", "-out", request], check=True, capture_output=True)
    folder("enrol", "press7", "there/press7.csr")
    assert said_of(folder.issued("press7"), "-subject") == "subject=CN = press7\n", "whatever it asked for"
    assert not folder.issued("press7", "key.pem").exists()
    key = subprocess.run(["openssl", "pkey", "-pubout", "-in", request.parent / "key.pem"], capture_output=True,
                         text=True, check=True).stdout
    assert key == said_of(folder.issued("press7"), "-pubkey")


def test_a_request_cannot_make_itself_an_authority(folder, tmp_path):
    request = tmp_path / "ca.csr"
    subprocess.run(["openssl", "req", "-new", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=press7", "-addext",
                    "basicConstraints=critical,CA:TRUE", "-keyout", tmp_path / "key", "-out", request], check=True,
                   capture_output=True)
    folder("enrol", "press7", str(request))
    assert "CA:FALSE" in said_of(folder.issued("press7"), "-ext", "basicConstraints")


def test_a_file_that_is_no_request_issues_nothing(folder, tmp_path):
    (tmp_path / "nonsense").write_text("nonsense")
    before = state(folder)
    code, _, said = folder.attempt("enrol", "press7", "nonsense")
    assert (code, said.splitlines()[-1]) == (1, "vorbel-authority: openssl could not do its work (see above)")
    assert state(folder) == before
    assert list((folder.path / "issued").iterdir()) == []


def test_renewed_both_certificates_count_and_revoked_neither(folder, tmp_path):
    folder("enrol", "press7")
    former = tmp_path / "former.pem"
    former.write_bytes(folder.issued("press7").read_bytes())
    password = folder.issued("press7", "password").read_text()
    folder("renew", "press7")
    assert former.read_bytes() != folder.issued("press7").read_bytes()
    assert folder.issued("press7", "password").read_text() == password
    renewed = tmp_path / "renewed.pem"
    renewed.write_bytes(folder.issued("press7").read_bytes())
    assert folder.is_valid(former) and folder.is_valid(renewed)
    code, _, said = folder.attempt("revoke", "press7")
    assert (code, said) == (0, "press7 is revoked: give the broker the new crl.pem, or its users (nats-users), and "
                               "restart it.\n")
    for certificate in (former, renewed):
        assert "certificate revoked" in folder.verify(certificate).stderr
    assert not folder.issued("press7").exists()


def test_others_are_not_revoked(folder):
    for name in ("press7", "press70", "xpress7"):
        folder("enrol", name)
    folder("revoke", "press7")
    assert folder.is_valid(folder.issued("press70")) and folder.is_valid(folder.issued("xpress7"))
    assert re.findall(r'user: "(\w+)"', folder("nats-users")) == ["press70", "xpress7"]


def test_who_was_revoked_can_be_enrolled_anew(folder):
    folder("enrol", "press7")
    former = folder.issued("press7", "password").read_text()
    folder("revoke", "press7")
    folder("enrol", "press7")
    assert folder.is_valid(folder.issued("press7"))
    assert folder.issued("press7", "password").read_text() != former


def test_the_list_has_who_is_valid_and_until_when(folder):
    assert folder("list") == ""
    folder("enrol", "press8", VORBEL_AUTHORITY_DAYS="1")
    folder("enrol", "press7")
    folder("enrol", "press6")
    folder("revoke", "press6")
    rows = [line.split() for line in folder("list").splitlines()]
    assert [name for name, _ in rows] == ["press7", "press8"]
    for name, day in rows:
        end = said_of(folder.issued(name), "-enddate").split("=")[1].strip()
        end = subprocess.run(["date", "-u", "-d", end, "+%F"], capture_output=True, text=True,
                             check=True).stdout.strip()
        assert day == end


def test_what_has_expired_is_not_valid_any_more(folder):
    folder("enrol", "press7")
    index = folder.path / "index.txt"
    index.write_text(re.sub(r"^V\t\d{12}Z", "V\t200101000000Z", index.read_text()))
    assert folder("list") == ""
    assert folder("nats-users") == "users: [\n]\n"
    folder("enrol", "press7")
    assert folder.is_valid(folder.issued("press7"))


def test_a_servers_users_are_the_boards_and_who_is_in_the_file(folder, tmp_path):
    folder("enrol", "press7")
    folder("enrol", "history")
    (tmp_path / "people.conf").write_text("    { user: history, password: HASH }\n    { user: observer }\n")
    users = folder("nats-users", "people.conf")
    assert users == f"""users: [
    {{
        user: "press7", password: "{(folder.path / "hashes" / "press7").read_text().strip()}"
        permissions: {{
            publish: ["vorbel.press7.>", "homeassistant.*.vorbel--press7.>"]
            subscribe: ["vorbel.press7.>", "homeassistant.*.vorbel--press7.>", "$MQTT.sub.>"]
        }}
    }}
    {{ user: history, password: HASH }}
    {{ user: observer }}
]
"""
    password = folder.issued("press7", "password").read_text().strip()
    assert len(password) == 32
    check = subprocess.run(["perl", "-e", "print crypt($ARGV[0], $ARGV[1]) eq $ARGV[1]", password,
                            (folder.path / "hashes" / "press7").read_text().strip()], capture_output=True, text=True)
    assert check.stdout == "1"


def test_there_is_one_authority_in_a_folder(folder):
    before = state(folder)
    code, _, said = folder.attempt("init")
    assert (code, said) == (1, f"vorbel-authority: there is an authority in {folder.path} already\n")
    assert state(folder) == before


def test_without_an_authority_nothing_is_made(tmp_path):
    code, _, said = Folder(tmp_path).attempt("enrol", "press7")
    assert (code, said) == (1, f"vorbel-authority: there is no authority in {tmp_path}: make one with init\n")
    assert list(tmp_path.iterdir()) == []


@pytest.mark.parametrize("words, answer", [
    ([], "what is to be done?"),
    (["nosuch"], "unknown word: nosuch"),
    (["enrol"], "too few words"),
    (["enrol", "a", "b", "c"], "unknown word: c"),
    (["list", "all"], "unknown word: all"),
    (["enrol", "../x"], "a name has up to 64 letters, digits and _, and this is none: ../x"),
    (["enrol", "a b"], "a name has up to 64 letters, digits and _, and this is none: a b"),
    (["enrol", "a/CN=press7"], "a name has up to 64 letters, digits and _, and this is none: a/CN=press7"),
    (["enrol", "+"], "a name has up to 64 letters, digits and _, and this is none: +"),
    (["enrol", ""], "a name has up to 64 letters, digits and _, and this is none: "),
    (["enrol-broker", "a..b"], "this is no name of a host: a..b"),
    (["enrol-broker", "../b"], "this is no name of a host: ../b"),
    (["revoke", "../b"], "this is no name of a host: ../b"),
])
def test_what_it_does_not_understand_it_refuses(folder, words, answer):
    before = state(folder)
    assert folder.attempt(*words) == (2, "", f"vorbel-authority: {answer} (see --help)\n")
    assert state(folder) == before


@pytest.mark.parametrize("words, answer", [
    (["enrol", "press7"], "press7 has a certificate: renew it, or revoke it first"),
    (["renew", "press8"], "press8 has no certificate that is valid: enrol it"),
    (["revoke", "press8"], "press8 has no certificate that is valid"),
])
def test_what_makes_no_sense_it_refuses(folder, words, answer):
    folder("enrol", "press7")
    before = state(folder)
    assert folder.attempt(*words) == (1, "", f"vorbel-authority: {answer}\n")
    assert state(folder) == before


def test_it_explains_itself(tmp_path):
    assert Folder(tmp_path)("--help").startswith("Certificates for a plant")
