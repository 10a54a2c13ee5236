"""A real can0 under load while everything is done to it, to the daemon and by clients, at random: what the soak does on
a virtual line, on the kernel's own and under systemd. The seed is printed; VORBEL_SEED has the same faults again."""

import asyncio
import contextlib
import json
import os
import random
import socket
import struct
import threading
import time

import pytest
import websockets
from canbus import VIRTUAL, CanBus
from counting import SCHEMA, heard, start_counting
from harness import eventually
from invariants import Excuses, Hearing, Stands, Writer, runs, unknown_lines
from rawclient import REQUEST, RawClient
from vorbelsim.canframe import parse_log_line

RATE = 300  # numbers a second on the bus
SECONDS = 60  # of faults
CLIENTS = 3
# The daemon looks after can0 once a second, and an emulated one is late.
SETTLED = 3.5  # seconds after which a link that is there stands
UNREAD = RATE  # numbers that can be on the way to the daemon when its link ends
FLOWS_WITHIN = 10  # seconds: five, on a processor that is emulated and shared
GROWTH = 8 << 10  # kB that the daemon may have more than before

EXPECTED = [
    r"New connection incoming from .*",
    r"Connection closed .*",
    r"Sending hello message QJsonDocument\(.*\) for device .*",
    r"Received schema: QJsonDocument\(.*\)",
    r"Dropping the client at .* which leaves \d+ bytes unread",
    r"MsgPack::unpack\(\) (unpacker for type -?\d+ doesn't exist|can't .*)",
    r"Input dropped, its conversion failed: Bad type",
    r"Socket can cannot connect\.",
    r'Socket can creation failed:  ".*"',
    r"QObject::connect\(QCanBusDevice, Unknown\): invalid nullptr parameter",
    # whenever can0 is opened
    r"(qt\.canbus\.plugins\.socketcan: )?Cannot load library .*",
    r"qt\.canbus\.plugins\.socketcan: (Function can_set_bitrate\(\) is not available|Cannot apply parameter: 4 .*)\.",
    r'Lost \d+ of \d+ frames of one message, can0 says: ".*"',
]


class Connection(RawClient):
    """Knows when it has ended."""

    def __init__(self, port):
        self.has_ended = threading.Event()
        super().__init__(port)

    def _collect(self):
        with contextlib.suppress(OSError):
            super()._collect()
        self.has_ended.set()

    def leave(self):
        with contextlib.suppress(OSError):
            self.socket.shutdown(socket.SHUT_RDWR)


class Honest(threading.Thread):
    """A client that comes back whenever its connection has ended."""

    def __init__(self, name, port):
        super().__init__(daemon=True)
        self.name, self.port = name, port
        self.connections = []
        self.is_over = threading.Event()
        self.start()

    def run(self):
        while not self.is_over.is_set():
            try:
                connection = Connection(self.port)
            except (OSError, AssertionError):
                time.sleep(0.2)
                continue
            self.connections.append(connection)
            while not self.is_over.is_set() and not connection.has_ended.wait(0.2):
                pass

    def last(self):
        return max((numbers[-1] for numbers in map(heard, self.connections[-1:]) if numbers), default=0)

    def judge(self, sent, excuses):
        """Breaches, and how many numbers were compared."""
        hearing = Hearing(self.name)
        for connection in self.connections:
            hearing.begin()
            hearing.take(0, "count", runs(heard(connection)), sent)
        return hearing.judge(excuses), hearing.compared["count"]


class Scene:
    """The bus, and when what stood."""

    def __init__(self, guest):
        self.guest = guest
        self.excuses, self.stands = Excuses(), Stands()

    def number(self):
        """The last that was sent."""
        return int(self.guest.run("cat /run/number"))

    def disturb(self, script, pause, end=""):
        """Does something that breaks the link or the daemon, and undoes it. Not excused is what comes when it is
        certain to stand again."""
        self.stands.change(time.monotonic(), False)
        before = self.number()
        self.guest.run(script)
        time.sleep(pause)
        self.guest.run(end + "\nfor i in $(seq 300); do ss -Hltn 'sport = 10443' | grep -q . && "
                       "grep -q '^ *can0 ' /proc/net/can/rcvlist_all && exit; sleep 0.1; done; exit 1", limit=60)
        time.sleep(SETTLED)
        self.excuses.add({"count": before - UNREAD}, {"count": self.number()})
        self.stands.change(time.monotonic(), True)


UP = "ip link add can0 type vcan; ip link set can0 up"


def goes_down(scene, chance):
    scene.disturb("ip link set can0 down", chance.uniform(0, 2), "ip link set can0 up")


def is_made_again(scene, _chance):
    scene.disturb(f"ip link del can0; {UP}", 0)


def is_absent(scene, chance):
    scene.disturb("ip link del can0", chance.uniform(0, 3), UP)


def daemon_is_held(scene, chance):
    scene.disturb("systemctl kill -s STOP vorbel", chance.uniform(0.2, 1.5), "systemctl kill -s CONT vorbel")


def daemon_is_killed(scene, _chance):
    """systemd has it again a second later."""
    scene.disturb("pid=$(systemctl show --value -P MainPID vorbel); kill -9 $pid; "
                  "until systemctl show --value -P MainPID vorbel | grep -vqxE \"0|$pid\"; do sleep 0.1; done", 0)


def strangers(scene, count, saying=b"", receive_buffer=None):
    found = []
    for _ in range(count):
        stranger = socket.socket()
        stranger.settimeout(10)
        if receive_buffer:
            stranger.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        with contextlib.suppress(OSError):
            stranger.connect(("127.0.0.1", scene.guest.port))
            stranger.sendall(REQUEST + saying)
            found.append(stranger)
    return found


def leave(found):
    for stranger in found:
        stranger.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        stranger.close()


def message(payload):
    return struct.pack(">BBH", 0x82, 0xFE, len(payload)) + bytes(4) + payload


def clients_vanish(scene, chance):
    found = strangers(scene, 10, message(bytes(1000))[:chance.randrange(1000)])
    time.sleep(chance.uniform(0, 1))
    leave(found)


def clients_stall(scene, chance):
    found = strangers(scene, 3, receive_buffer=4096)
    time.sleep(chance.uniform(2, 5))
    leave(found)


def clients_flood(scene, chance):
    """With what is none of the protocol: a type that no message begins with."""
    found = strangers(scene, 2, b"".join(message(b"\xc1" + chance.randbytes(500)) for _ in range(200)))
    time.sleep(1)
    leave(found)


FAULTS = (goes_down, is_made_again, is_absent, daemon_is_held, daemon_is_killed, clients_vanish, clients_stall,
          clients_flood)


def disturb_all(scene, chance):
    """For a minute, and each fault once at least."""
    planned = chance.sample(FAULTS, len(FAULTS))
    end = time.monotonic() + SECONDS
    while planned or time.monotonic() < end:
        fault = planned.pop() if planned else chance.choice(FAULTS)
        began = time.monotonic()
        fault(scene, chance)
        print(f"{fault.__name__}: {time.monotonic() - began:.1f} s")
        time.sleep(chance.uniform(0.5, 2))


async def write(service, writer, is_over):
    """Numbers to the bus, ten a second, each confirmed before the next. Who writes has the schema, and brings it."""
    number = 0

    async def hear(client):
        async for _ in client.socket:
            pass

    while not is_over.is_set():
        with contextlib.suppress(OSError, asyncio.TimeoutError, websockets.WebSocketException):
            async with service.connect() as client:
                hearing = asyncio.create_task(hear(client))
                try:
                    await client.send_schema(json.loads(SCHEMA))
                    while not is_over.is_set():
                        number += 1
                        writer.announce(number, time.monotonic())
                        await client.send({"order": number})
                        await asyncio.wait_for(await client.socket.ping(), 10)
                        writer.confirm(number, time.monotonic())
                        await asyncio.sleep(0.1)
                finally:
                    hearing.cancel()
        await asyncio.sleep(0.2)


def resources(service, guest):
    """(memory in kB, descriptors) of the daemon."""
    words = guest.run(f"grep VmRSS /proc/{service.pid()}/status; ls /proc/{service.pid()}/fd | wc -l").split()
    return int(words[1]), int(words[3])


def arrived(guest):
    lines = guest.run("cat /run/orders").rpartition("\n")[0].splitlines()
    return [parse_log_line(line)[1].payload for line in lines]


@pytest.fixture
def scene(guest, service):
    CanBus(guest, VIRTUAL, "can0")
    service.configure(debug=False, VORBEL_SOURCE="socketcan")
    guest.run("date +%s.%N >/run/began; candump -D -L any,046:7FF >/run/orders 2>/dev/null & echo $! >/run/record.pid")
    start_counting(guest, 1, RATE)
    scene = Scene(guest)
    yield scene
    guest.run("kill $(cat /run/count.pid) $(cat /run/record.pid)")


async def test_whatever_happens_nothing_is_lost_while_all_stands(scene, service, guest):
    seed = int(os.environ.get("VORBEL_SEED", time.time_ns() % 1_000_000))
    print(f"VORBEL_SEED={seed}")
    writer, is_over = Writer("writer", "order"), asyncio.Event()
    writing = asyncio.create_task(write(service, writer, is_over))
    clients = [Honest(f"client {at}", guest.port) for at in range(CLIENTS)]
    try:
        await eventually(lambda: all(client.connections and client.last() for client in clients), 60, "values")
        scene.stands.change(time.monotonic(), True)
        before = resources(service, guest)
        await asyncio.to_thread(disturb_all, scene, random.Random(seed))
        mark = scene.number()
        await eventually(lambda: all(client.last() > mark for client in clients), FLOWS_WITHIN, "values again")
        await asyncio.sleep(2)
        after = resources(service, guest)
        is_over.set()
        await asyncio.wait_for(writing, 30)
    finally:
        is_over.set()
        writing.cancel()
        for client in clients:
            client.is_over.set()
            client.connections[-1].leave()
    until = time.monotonic()
    await asyncio.sleep(2)
    sent, breaches = scene.number(), []
    for client in clients:
        found, compared = client.judge(sent, scene.excuses)
        breaches += found
        print(f"{client.name}: {compared} values of {sent}, {len(client.connections)} connections")
    for payload in arrived(guest):
        writer.arrive(0, payload)
    breaches += writer.judge(scene.stands.stood, until)
    print("{} written, {} confirmed, {} arrived".format(*writer.counts))
    assert breaches == []
    log = guest.run("journalctl --no-pager -o cat _COMM=vorbel --since=@$(cut -d. -f1 /run/began)").splitlines()
    assert set(unknown_lines(log, EXPECTED)) == set()
    assert after[0] < before[0] + GROWTH and after[1] == before[1]
