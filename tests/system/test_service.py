"""The service under systemd: who it is, what it may, how it comes back."""

import asyncio
import re
import time

import pytest
from canbus import NO_BUS, VIRTUAL, CanBus
from hostile import LARGE, LARGE_READINGS, MESSAGES, SCHEMAS, gathering_schema, large_schema

EXPOSURE_LIMIT = 2.0


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


# Memory. systemd counts what the service takes, and ends it at the ceiling.


CGROUP = "/sys/fs/cgroup/system.slice/vorbel.service"


class Memory:
    """What the running service takes, as its unit counts it."""

    def __init__(self, service, guest):
        self.service, self.guest = service, guest
        self.process = service.pid()

    def figure(self, name):
        return int(self.guest.run(f"cat {CGROUP}/{name}"))

    def holds(self):
        """The service has never come within a fifth of its ceiling, and is the one that it was."""
        peak, ceiling = self.figure("memory.peak"), self.figure("memory.max")
        print(f"memory at its peak: {peak >> 20} MiB of {ceiling >> 20}")
        assert ceiling == 384 << 20
        assert peak < 0.8 * ceiling
        assert self.service.pid() == self.process
        assert int(self.service.property("NRestarts")) == 0


@pytest.fixture
def memory(service, guest):
    """The service on a bus that is there, just started."""
    bus = CanBus(guest, VIRTUAL, "can0")
    service.configure(debug=False, VORBEL_SOURCE="socketcan")
    bus.wait_for_listener()
    return Memory(service, guest)


async def handled(client):
    """Emulated, a large schema takes its time."""
    await asyncio.wait_for(await client.socket.ping(), 120)


@pytest.mark.parametrize("schema", SCHEMAS.values(), ids=SCHEMAS.keys())
async def test_no_schema_and_no_message_behind_it_come_near_the_ceiling(memory, schema):
    async with memory.service.connect() as client:
        for message in ("maps with number keys", "deep maps"):
            await client.socket.send(schema(1))
            await client.socket.send(MESSAGES[message](1))
            await handled(client)
        memory.holds()
        await client.socket.send("{}")
        await handled(client)
        deadline = time.monotonic() + 20
        while memory.figure("memory.current") > 30 << 20:
            assert time.monotonic() < deadline, "the memory does not come back"
            await asyncio.sleep(0.5)


async def test_what_is_too_large_once_decoded_is_refused_before(memory):
    async with memory.service.connect() as client:
        for refused in (*MESSAGES.values(), *SCHEMAS.values()):
            await client.socket.send(refused(1.02))
        await handled(client)
    memory.service.wait_for_log("Dropping a (message|schema) of .* are granted", len(MESSAGES) + len(SCHEMAS))
    memory.holds()


async def test_what_arrays_gather_for_ever_stays_below_the_ceiling(memory, guest):
    async with memory.service.connect() as client:
        await client.send_schema({**gathering_schema(10_000), "n": {"@mac": 2, "@cmd": 1, "@format": "C"}})
        # Slowly: emulated, the service is no match for a burst, and what overruns it is lost.
        guest.run("cangen can0 -I 41 -L 8 -n 2000 -g 12", limit=120)
        assert await client.value_of(lambda: guest.run("cansend can0 042#07"), interval=3, limit=120) == {"n": 7}
    memory.service.wait_for_log(r"Attribute \(.*\) drops readings: the arrays of the schema may take 64 MiB together\.")
    memory.holds()


async def test_a_message_of_18_mib_reaches_who_reads_and_not_who_does_not(memory, guest):
    async with memory.service.connect() as reads, memory.service.connect() as idle:
        await reads.send_schema(large_schema())
        idle.socket.transport.pause_reading()
        for _ in range(4):
            guest.run(f"cangen can0 -I 41 -L 4 -n {LARGE_READINGS} -g 5", limit=60)
            while isinstance(message := await asyncio.wait_for(reads.socket.recv(), 120), str):
                pass
            assert len(message) > LARGE
        memory.holds()
        idle.socket.transport.abort()


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
