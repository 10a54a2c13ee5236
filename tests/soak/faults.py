"""What is done to the chain. A fault is a generator: what stands before its `yield` happens at its beginning, what
stands behind it at its end. `needs` names the parts that it disturbs: no two faults disturb the same part at once."""

import contextlib
import errno
import json
import os
import random
import resource
import socket
import struct
import time
from typing import Callable, NamedTuple

import hostile
from harness import PORT

HANDSHAKE = ("GET / HTTP/1.1\r\nHost: board\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
             "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n").encode()
TEXT, BINARY = 0x81, 0x82
ALL_AT_ONCE = 200


class Fault(NamedTuple):
    kind: str
    needs: tuple
    run: Callable
    longest: float = 3.0  # seconds


class Planned(NamedTuple):
    """When a fault begins, how long it lasts, and the seed of its own choices."""

    start: float
    seconds: float
    fault: Fault
    seed: int


# Bare clients, which do as they like


def connect(greeted=True, receive_buffer=None):
    client = socket.socket()
    client.settimeout(5)
    if receive_buffer:
        client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
    client.connect(("127.0.0.1", PORT))
    if greeted:
        client.sendall(HANDSHAKE)
    return client


def frame(kind, payload):
    """A message, masked with zeros."""
    size = len(payload)
    head = (bytes([kind, 0x80 | size]) if size < 126 else
            struct.pack(">BBH", kind, 0xFE, size) if size < 65536 else struct.pack(">BBQ", kind, 0xFF, size))
    return head + bytes(4) + payload


def vanish(client):
    """Resets the connection, whatever is on its way."""
    client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    client.close()


def tell(kind, *payloads):
    """One client that says these messages, waits until they are handled, and goes."""
    with contextlib.suppress(OSError), connect() as client:
        client.recv(65536)
        for payload in payloads:
            client.sendall(frame(kind, payload))
        client.sendall(frame(0x88, b""))
        deadline = time.monotonic() + 5
        while client.recv(65536) and time.monotonic() < deadline:
            pass


# The link


def pull(soak, rng):
    soak.bus.unplug()
    yield
    soak.bus.plug()


def pull_in_mid_record(soak, rng):
    soak.bus.unplug(in_mid_record=True)
    yield
    soak.bus.plug()


def pull_in_mid_write(soak, rng):
    soak.bus.unplug(in_mid_write=True)
    yield
    soak.bus.plug()


def port_fails(soak, rng):
    """A read error on a port that is still there: the daemon opens it again."""
    soak.bus.reopens()
    soak.bus.adapter.fail("read", errno.EINVAL)
    yield
    soak.bus.adapter.heal("read")


def other_adapter(soak, rng):
    soak.bus.unplug()
    soak.bus.plug(1)
    yield
    soak.bus.unplug()
    soak.bus.plug(0)


def port_does_not_open(soak, rng):
    soak.bus.unplug()
    soak.bus.plug()
    soak.bus.adapter.fail("open", errno.EACCES)
    yield
    soak.bus.adapter.heal("open")


# Processes


def killed(name):
    def run(soak, rng):
        soak.kill(name)
        yield
    return run


def held(name):
    def run(soak, rng):
        program = soak.programs[name]
        program.pause()
        yield
        program.resume()
    return run


def no_descriptors(soak, rng):
    program = soak.programs["daemon"]
    pid, before = program.pid, resource.prlimit(program.pid, resource.RLIMIT_NOFILE)
    taken = set(map(int, os.listdir(f"/proc/{pid}/fd")))
    free = next(number for number in range(100_000) if number not in taken)
    resource.prlimit(pid, resource.RLIMIT_NOFILE, (free, before[1]))
    clients = []
    with contextlib.suppress(OSError):
        clients = [connect() for _ in range(10)]
    yield
    resource.prlimit(pid, resource.RLIMIT_NOFILE, before)
    for client in clients:
        client.close()


def disk_full(soak, rng):
    program = soak.programs["gateway"]
    pid, before = program.pid, resource.prlimit(program.pid, resource.RLIMIT_FSIZE)
    resource.prlimit(pid, resource.RLIMIT_FSIZE, (0, before[1]))
    yield
    with contextlib.suppress(ProcessLookupError):
        resource.prlimit(pid, resource.RLIMIT_FSIZE, before)


# The network between gateway and broker


def network_cut(soak, rng):
    soak.relay.shut()
    yield
    soak.relay.open()


def network_stalls(soak, rng):
    soak.relay.stall()
    yield
    soak.relay.carry()


# Clients


def come_and_vanish(soak, rng):
    clients = [connect(receive_buffer=4096) for _ in range(20)]
    yield
    for client in clients:
        client.send(frame(BINARY, bytes(100))[:rng.randint(1, 50)])
        vanish(client)


def stalling(soak, rng):
    clients = [connect(receive_buffer=4096) for _ in range(5)]
    yield
    for client in clients:
        vanish(client)


def garbage(soak, rng):
    """What is no message, and messages that are nothing."""
    clients = [connect() for _ in range(3)]
    with contextlib.suppress(OSError):
        for client in clients:
            for _ in range(rng.randint(5, 50)):
                client.sendall(frame(BINARY, rng.randbytes(rng.randint(1, 400))))
            client.sendall(rng.randbytes(2000))
    yield
    for client in clients:
        client.close()


def hostile_message(soak, rng):
    name = rng.choice(sorted(hostile.MESSAGES))
    tell(BINARY, hostile.MESSAGES[name](rng.choice([0.3, 1.0])))
    yield


def all_at_once(soak, rng):
    clients = []
    with contextlib.suppress(OSError):
        for _ in range(ALL_AT_ONCE):
            clients.append(connect())
    yield
    for client in clients:
        vanish(client)


def half_handshakes(soak, rng):
    clients = [connect(greeted=False) for _ in range(30)]
    with contextlib.suppress(OSError):
        for client in clients:
            client.sendall(HANDSHAKE[:rng.randint(1, len(HANDSHAKE) - 1)])
    yield
    for client in clients:
        client.close()


def other_schema(soak, rng):
    """A schema of somebody else's, a hostile one, or none at all."""
    text = rng.choice([lambda: "no schema", lambda: json.dumps({"other": {"@mac": 5, "@cmd": 2, "@format": "C"}}),
                       *(lambda name=name: hostile.SCHEMAS[name](0.3) for name in sorted(hostile.SCHEMAS))])()
    tell(TEXT, text.encode())
    yield
    soak.restore_schema()


FAULTS = [
    Fault("adapter pulled", ("link",), pull),
    Fault("adapter pulled in mid-record", ("link",), pull_in_mid_record),
    Fault("adapter pulled in mid-write", ("link",), pull_in_mid_write),
    Fault("port fails", ("link",), port_fails, 2),
    Fault("other adapter", ("link",), other_adapter, 4),
    Fault("port does not open", ("link",), port_does_not_open),
    Fault("daemon killed", ("daemon",), killed("daemon"), 1),
    Fault("daemon held", ("daemon",), held("daemon"), 2.5),
    Fault("descriptors exhausted", ("daemon",), no_descriptors),
    Fault("clients vanish", ("clients",), come_and_vanish),
    Fault("clients stall", ("clients",), stalling, 6),
    Fault("garbage", ("clients",), garbage, 1),
    Fault("hostile message", ("clients",), hostile_message, 1),
    Fault("200 clients at once", ("clients",), all_at_once),
    Fault("half handshakes", ("clients",), half_handshakes, 6),
    Fault("other schema", ("schema", "clients"), other_schema, 2),
    *(Fault(f"{name} clients held", (name,), held(name), 2.5) for name in ("python", "javascript", "cpp")),
    Fault("broker killed", ("broker",), killed("broker"), 1),
    Fault("broker held", ("broker",), held("broker"), 4),
    Fault("network cut", ("network",), network_cut, 4),
    Fault("network stalls", ("network",), network_stalls, 4),
    Fault("gateway killed", ("gateway",), killed("gateway"), 1),
    Fault("gateway held", ("gateway",), held("gateway"), 2.5),
    Fault("gateway's disk full", ("gateway",), disk_full, 4),
    Fault("history killed", ("history",), killed("history"), 1),
    Fault("history held", ("history",), held("history"), 4),
    Fault("database killed", ("database",), killed("database"), 1),
    Fault("database held", ("database",), held("database"), 4),
]
REST = 2.0  # seconds that a part has between two faults at least, and two seconds in which it works


def plan(seed, seconds, faults=tuple(FAULTS)):
    """The faults of a run: a function of the seed. Each part is busy on its own, so several are at once."""
    rng = random.Random(seed)
    planned, free = [], {}
    now = 0.0
    while True:
        now += rng.expovariate(1.0)
        if now >= seconds:
            return planned
        fault, length, own = rng.choice(faults), rng.random(), rng.getrandbits(32)
        duration = 0.2 + length * (fault.longest - 0.2)
        if all(free.get(part, 0) <= now for part in fault.needs) and now + duration < seconds:
            planned.append(Planned(now, duration, fault, own))
            free.update(dict.fromkeys(fault.needs, now + duration + REST + 4 * rng.random()))
