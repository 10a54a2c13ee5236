"""The service under systemd: who it is, what it may, how it comes back."""

import re

import pytest
from canbus import NO_BUS, VIRTUAL, CanBus

EXPOSURE_LIMIT = 2.0
LARGEST_MESSAGE = 4 * 1024 * 1024


@pytest.fixture
def running(service):
    """The service with the settings that the package brings, but for the link, which it has none of."""
    service.configure(debug=False, VORBEL_SOURCE="none")
    return service


def test_it_is_a_user_without_rights(running, guest):
    status = dict(line.split(":\t", 1) for line in guest.run(f"cat /proc/{running.pid()}/status").splitlines())
    user, group = guest.run("id -u vorbel; id -g vorbel").split()
    assert set(status["Uid"].split()) == {user} and set(status["Gid"].split()) == {group}
    assert set(status["Groups"].split()) <= {group}
    for capabilities in ("CapInh", "CapPrm", "CapEff", "CapBnd", "CapAmb"):
        assert int(status[capabilities], 16) == 0
    assert status["NoNewPrivs"] == "1"
    assert status["Seccomp"] == "2", "filtered"


def test_the_installed_unit_leaves_little_exposed(running, guest):
    report = guest.run("systemd-analyze security --no-pager vorbel.service", limit=60)
    overall = re.search(r"Overall exposure level for vorbel\.service: (\d+\.\d+)", report)
    print(overall.group())
    assert float(overall.group(1)) <= EXPOSURE_LIMIT, report


async def test_without_settings_clients_are_told_an_unknown_type(running):
    async with running.connect() as client:
        assert await client.hello() == '{"hello":{"type":"unknown"}}'


def test_the_log_has_priorities_and_no_debug_lines_unless_switched_on(service, guest):
    guest.run(NO_BUS)
    service.configure(debug=False, VORBEL_SOURCE="socketcan")
    service.wait_for_log("Socket can cannot connect.", count=2)
    assert service.count("Close SocketCan") == 0
    priorities = {entry["PRIORITY"] for entry in service.entries() if entry["MESSAGE"] == "Socket can cannot connect."}
    assert priorities == {"3"}, "an error"

    service.configure(debug=True, VORBEL_SOURCE="socketcan")
    service.wait_for_log("Close SocketCan")
    priorities = {entry["PRIORITY"] for entry in service.entries() if entry["MESSAGE"] == "Close SocketCan"}
    assert priorities == {"7"}, "debug"


async def test_it_comes_back_however_often_it_is_killed(running, guest):
    # systemd gives up on other services when it has started them five times within ten seconds.
    guest.run("""
        for killed in 1 2 3 4 5 6; do
            pid=$(systemctl show --value -P MainPID vorbel)
            kill -9 $pid
            until systemctl show --value -P MainPID vorbel | grep -vxE "0|$pid"; do sleep 0.1; done
        done
    """, limit=90)
    assert int(running.property("NRestarts")) == 6
    running.wait_listening()
    assert await running.reachable()


async def test_the_largest_message_stays_below_the_memory_ceiling(service, guest):
    # Empty arrays in an array: what takes most memory for its length. It is unpacked for a link that is there.
    bus = CanBus(guest, VIRTUAL, "can0")
    service.configure(debug=False, VORBEL_SOURCE="socketcan")
    bus.wait_for_listener()
    before = service.pid()
    elements = LARGEST_MESSAGE - 8
    message = b"\x81\xa1x\xdd" + elements.to_bytes(4, "big") + b"\x90" * elements
    async with service.connect() as client:
        await client.socket.send(message[:LARGEST_MESSAGE])
        await client.round_trip()
    peak = int(guest.run("cat /sys/fs/cgroup/system.slice/vorbel.service/memory.peak"))
    ceiling = int(guest.run("cat /sys/fs/cgroup/system.slice/vorbel.service/memory.max"))
    print(f"memory at its peak: {peak >> 20} MiB of {ceiling >> 20}")
    assert service.pid() == before
    assert ceiling == 256 * 1024 * 1024
    assert peak > LARGEST_MESSAGE


async def test_the_documented_firewall_keeps_other_networks_out(running, guest, deployment):
    table = deployment["/etc/nftables.conf"]
    try:
        for network, allowed in (("192.168.7.0/24", False), ("10.0.2.0/24", True)):
            (guest.share / "table").write_text(table.replace("192.168.7.0/24", network))
            guest.run("nft delete table inet vorbel 2>/dev/null || true; nft -f /host/table")
            assert await running.reachable() == allowed
            assert guest.attempt("timeout 5 perl -MIO::Socket::INET -e "
                                 "'exit !IO::Socket::INET->new(\"127.0.0.1:10443\")'")[0] == 0
    finally:
        guest.run("nft delete table inet vorbel")
