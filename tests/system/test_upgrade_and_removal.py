"""What becomes of the installed package: upgraded, from a repository, too, switched off, removed, purged."""

import os
import pathlib
import re
import shutil
import subprocess

import documents
import pytest

PROJECT = pathlib.Path(__file__).parents[2]
PAGE = PROJECT / "docs" / "fleet.md"


@pytest.fixture
def newer(guest, packages, tmp_path):
    """The same package with a higher version, and a new default in the environment file."""
    (package,) = packages.glob("vorbel_*_arm64.deb")
    subprocess.run(["dpkg-deb", "-R", package, tmp_path / "root"], check=True)
    control = tmp_path / "root/DEBIAN/control"
    control.write_text(control.read_text().replace("Version: 0.1.0", "Version: 999"))
    with open(tmp_path / "root/etc/default/vorbel", "a") as settings:
        settings.write("# newer\n")
    subprocess.run(["dpkg-deb", "--root-owner-group", "-b", tmp_path / "root", tmp_path / "newer.deb"], check=True,
                   capture_output=True)
    shutil.copy(tmp_path / "newer.deb", guest.share / "newer.deb")
    return "/host/newer.deb"


@pytest.fixture
def repository(guest, newer, tmp_path):
    """Of a newer version, in the guest, and the commands with which a board is told of it."""
    keys, published, dist = tmp_path / "keys", guest.share / "repository", tmp_path / "dist"
    keys.mkdir(mode=0o700)
    dist.mkdir()
    shutil.copy(tmp_path / "newer.deb", dist / "vorbel_999_arm64.deb")
    environment = {**os.environ, "GNUPGHOME": str(keys)}
    subprocess.run(["gpg", "--batch", "--passphrase", "", "--quick-generate-key", "plant", "ed25519", "sign", "never"],
                   check=True, env=environment, capture_output=True)
    subprocess.run([PROJECT / "scripts/lib/repository", dist, published, "plant"], check=True, env=environment,
                   capture_output=True)
    path = "/etc/apt/sources.list.d/vorbel.sources"
    sources = re.sub(r"(?m)^URIs: .*", "URIs: file:/host/repository", documents.Blocks(PAGE)[path])
    (guest.share / "sources").write_text(sources)
    yield f"cd /host/repository\n{documents.commands(PAGE, 'install -m 644')}cp /host/sources {path}\n"
    guest.run(f"rm -rf {path} /etc/apt/keyrings/vorbel.gpg /host/repository /var/lib/apt/lists/*")


def test_a_board_takes_the_next_version_from_the_repository(guest, service, deb, repository):
    service.configure(VORBEL_SOURCE="none")
    settings = guest.run("cat /etc/default/vorbel")
    first = service.pid()
    guest.run(repository)
    guest.run("apt-get -qq update && apt-get -qq -y -o Dpkg::Options::=--force-confold upgrade", limit=240)
    assert guest.run("dpkg-query -W -f '${Version} ${Status}' vorbel") == "999 install ok installed"
    assert guest.run("cat /etc/default/vorbel") == settings
    assert guest.run("systemctl is-active vorbel").strip() == "active"
    assert service.pid() != first
    guest.run(f"dpkg -i --force-confold {deb}", limit=120)


def test_its_life_from_upgrade_to_purge(guest, service, deb, newer):
    def state():
        return guest.run("systemctl is-enabled vorbel 2>&1 || true; systemctl is-active vorbel || true").split()

    service.configure(VORBEL_SOURCE="none")
    settings = guest.run("cat /etc/default/vorbel")
    assert state() == ["enabled", "active"]
    first = service.pid()

    # Upgraded without a terminal to ask which settings to keep: it stops half-way, and can be helped.
    code, output = guest.attempt(f"dpkg -i {newer}", limit=120)
    assert code != 0 and "end of file on stdin at conffile prompt" in output
    assert guest.run("dpkg-query -W -f '${Status}' vorbel") == "install ok unpacked"
    assert state() == ["enabled", "active"]
    assert service.pid() == first
    guest.run("dpkg --force-confold --configure vorbel", limit=120)
    assert guest.run("cat /etc/default/vorbel") == settings
    assert state() == ["enabled", "active"]
    assert service.pid() != first
    guest.run(f"dpkg -i --force-confold {deb}", limit=120)
    first = service.pid()

    # Upgraded: the new version runs, the administrator's settings stay.
    guest.run(f"dpkg -i --force-confold {newer}", limit=120)
    assert guest.run("dpkg-query -W -f '${Version}' vorbel") == "999"
    assert guest.run("cat /etc/default/vorbel") == settings
    assert state() == ["enabled", "active"]
    assert service.pid() != first

    # Switched off by the administrator: so it stays.
    guest.run("systemctl --quiet disable --now vorbel")
    guest.run(f"dpkg -i --force-confold {deb}", limit=120)
    assert state() == ["disabled", "inactive"]

    # Removed while it runs: it is stopped and gone, the settings stay.
    guest.run("systemctl --quiet enable --now vorbel; dpkg -r vorbel", limit=120)
    left = guest.run("find /usr/bin /lib/systemd /lib/udev /etc/default -name '*vorbel*' -a ! -name '*.dpkg-*'")
    assert left == "/etc/default/vorbel\n"
    assert guest.attempt("ss -Hltn 'sport = 10443' | grep .")[0] != 0

    # Purged: nothing is left but the logs.
    guest.run("dpkg --purge vorbel", limit=120)
    left = guest.run("find / -xdev -path /host -prune -o -path /run/systemd -prune -o -name '*vorbel*' -print; "
                     "grep vorbel /etc/passwd /etc/group /etc/shadow /etc/gshadow || true")
    assert left == ""
