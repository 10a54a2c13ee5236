"""What becomes of the installed package: upgraded, switched off, removed, purged."""

import shutil
import subprocess

import pytest


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
