"""The ceilings of memory that systemd holds the units to: whoever drives a program against its own ends it, and it is
there again with all that was promised. The ceilings are low here, so that it takes no gigabyte to reach them."""

import json
import re
import shutil
import socket
import struct
import time

import pytest
from canbus import VIRTUAL, CanBus
from counting import (BASE, BATCH, GATEWAY, RECORD_ORDERS, SCHEMA, SCHEMA_FILE, batches, boots, heard, orders,
                      published, put, start_counting)
from gatewayharness import Listener, Mosquitto
from harness import eventually, wait_until
from rawclient import REQUEST, RawClient

RATE = 50  # numbers a second on the bus
PATIENCE = 60
MEGABYTE = 1 << 20
DAEMON_CEILING = 24 * MEGABYTE
BEGUN = 4 * MEGABYTE - 1024  # of a message that is never finished: the daemon takes no larger ones
# A gateway takes 32 MB without an outage; what it keeps in /run counts as its memory, too.
SPOOL, GATEWAY_CEILING = 3, 40 * MEGABYTE
WIDE = 400  # leaves of one frame
WIDE_SCHEMA = SCHEMA[:-1] + "".join(f', "leaf {at:03}": {{"@mac": 7, "@cmd": 1, "@format": "I"}}'
                                    for at in range(WIDE)) + "}"


class Unit:
    """A unit with another ceiling, as long as the machine runs."""

    def __init__(self, guest, name, ceiling):
        self.guest, self.name = guest, name
        self.hold(ceiling)

    def hold(self, ceiling):
        self.guest.run(f"systemctl set-property --runtime {self.name} MemoryMax={ceiling}")

    def figure(self, name):
        return int(self.guest.run(f"cat /sys/fs/cgroup/system.slice/{self.name}.service/{name}"))

    def restarts(self):
        return int(self.guest.run(f"systemctl show --value -P NRestarts {self.name}"))

    def kills(self):
        """What the journal says of kills."""
        return len(re.findall(f"{self.name}.service: Failed with result 'oom-kill'",
                              self.guest.run("journalctl --no-pager -o cat _PID=1")))

    def release(self):
        self.guest.run(f"systemctl revert {self.name}")


@pytest.fixture(scope="module")
def counting(guest, service):
    """The daemon on a bus that counts."""
    CanBus(guest, VIRTUAL, "can0")
    service.configure(debug=False, VORBEL_SOURCE="socketcan")
    guest.run(f"{RECORD_ORDERS} & echo $! >/run/record.pid")
    start_counting(guest, 1, RATE)
    yield service
    guest.run("kill $(cat /run/count.pid) $(cat /run/record.pid); ip link del can0")


@pytest.fixture
def daemon(guest, counting):
    unit = Unit(guest, "vorbel", 384 * MEGABYTE)
    yield unit
    unit.release()


@pytest.fixture
def gateway(guest, counting, packages, tmp_path):
    broker = Mosquitto(tmp_path, "allow_anonymous true", f"listener {guest.broker_port} 127.0.0.1", persistence=True)
    broker.start()
    listener = Listener(broker.port, name="listener", base=BASE)
    (package,) = packages.glob("vorbel-gateway_*_arm64.deb")
    shutil.copy(package, guest.share / "gateway.deb")
    put(guest, {SCHEMA_FILE: WIDE_SCHEMA, "/etc/vorbel/gateway.ini": GATEWAY + f"[spool]\nmegabytes = {SPOOL}\n"})
    guest.run("dpkg -i --force-confold /host/gateway.deb", limit=120)
    unit = Unit(guest, "vorbel-gateway", GATEWAY_CEILING)
    unit.broker, unit.listener = broker, listener
    wait_until(lambda: published(listener), PATIENCE, "a batch")
    yield unit
    unit.release()
    guest.attempt("dpkg --purge vorbel-gateway; rm -rf /etc/vorbel", limit=120)
    listener.close()
    broker.stop()


def begin_message(port, size):
    """A client that says a part of a message, and no more."""
    client = socket.create_connection(("127.0.0.1", port), 10)
    client.sendall(REQUEST)
    if not client.recv(4096):
        raise ConnectionError("nobody is there")
    client.sendall(struct.pack(">BBQ", 0x82, 0xFF, size + 1) + bytes(4) + bytes(size))
    return client


async def serves(service, guest, number):
    """Checks that clients of the daemon hear the bus, and write to it."""
    async with service.connect() as client:
        await client.send_schema(json.loads(SCHEMA))
        assert "count" in await client.value()
        await client.send({"order": number})
        await eventually(lambda: number in orders(guest), PATIENCE, "a client's value on the bus")


async def test_a_daemon_that_clients_have_driven_beyond_its_ceiling_is_ended_and_there_again(daemon, counting, guest):
    """The ceiling comes down on what they took: whether they can take more than there is depends on the machine."""
    async with counting.connect() as client:
        await client.send_schema(json.loads(SCHEMA))
        assert "count" in await client.value()
    restarts, kills = daemon.restarts(), daemon.kills()
    hostile = []
    with RawClient(guest.port) as honest:
        while daemon.figure("memory.current") < 1.5 * DAEMON_CEILING:
            assert len(hostile) < 6 * DAEMON_CEILING / BEGUN
            hostile.append(begin_message(guest.port, BEGUN))
        numbers = heard(honest)
        daemon.hold(DAEMON_CEILING)
        wait_until(lambda: daemon.restarts() > restarts, PATIENCE, "its end")
    print(f"{len(hostile)} clients")
    assert numbers == list(range(numbers[0], numbers[0] + len(numbers)))
    assert (daemon.restarts(), daemon.kills()) == (restarts + 1, kills + 1)
    for client in hostile:
        client.close()
    counting.wait_listening()
    await serves(counting, guest, 1)
    assert daemon.restarts() == restarts + 1
    assert daemon.figure("memory.current") < DAEMON_CEILING / 2


def test_a_full_spool_keeps_the_gateway_below_its_ceiling(gateway, guest):
    """Beyond its bound the oldest go, and are told; so the ceiling is not reached."""
    restarts = gateway.restarts()
    gateway.broker.stop()
    guest.run("cangen can0 -I 047 -L 4 -g 40 -n 500", limit=120)
    gateway.broker.start()
    last = wait_until(lambda: [message.json for message in gateway.listener.of("status") if message.json.get("lost")],
                      PATIENCE, "a status with a loss")[-1]
    print(f"{last['lost']} batches lost, {gateway.figure('memory.peak') / MEGABYTE:.1f} MB at the peak")
    wait_until(lambda: is_complete(gateway, last["lost"]), PATIENCE, "all other batches")
    assert gateway.figure("memory.max") == GATEWAY_CEILING
    assert gateway.restarts() == restarts


def is_complete(gateway, lost):
    """Whether all batches of the life are there but those that are told to be lost, also from now on."""
    numbers = [batch["n"] for batch in batches(gateway.listener)]
    assert numbers == sorted(numbers)
    return max(numbers) + 1 - len(numbers) == lost and time.time() * 1000 - batches(gateway.listener)[-1]["t"] < 5000


def test_a_gateway_that_is_ended_by_its_ceiling_comes_back_with_what_it_kept(gateway, guest):
    """Again and again, until there is room: what waited for the broker in /run is there still."""
    gateway.broker.stop()
    time.sleep(6)
    kills = gateway.kills()
    (life,) = boots(gateway.listener)
    gateway.hold(MEGABYTE)
    wait_until(lambda: gateway.kills() >= kills + 2, PATIENCE, "it to be ended twice")
    gateway.hold(GATEWAY_CEILING)
    before = [batch["n"] for batch in batches(gateway.listener)]
    gateway.broker.start()
    wait_until(lambda: len(boots(gateway.listener)) == 2, PATIENCE, "the life after it")
    after = boots(gateway.listener)[-1]
    wait_until(lambda: batches(gateway.listener)[-1]["boot"] == after, PATIENCE, "its batches")
    numbers = [batch["n"] for batch in batches(gateway.listener) if batch["boot"] == life]
    assert numbers == list(range(len(numbers))) and len(numbers) > len(before) + 6 / BATCH / 2
    counted = published(gateway.listener)
    assert counted == sorted(set(counted))
