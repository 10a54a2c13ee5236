"""What is done to the chain. A fault is a generator: what stands before its `yield` happens at its beginning, what
stands behind it at its end. Neither may wait for a program: others may be held at the same time."""

import contextlib
import errno
import json
import os
import pathlib
import random
import resource
import socket
import struct
import threading
import time
from typing import Callable, NamedTuple

import hostile
from harness import PORT, SANITIZED
from vorbelsim import CanFrame
from vorbelsim.canbus import READ_ERROR

HANDSHAKE = ("GET / HTTP/1.1\r\nHost: board\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
             "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n").encode()
TEXT, BINARY, CLOSE = 0x81, 0x82, 0x88
PATIENCE = 5  # seconds that a bare client waits for the daemon
BUS_OFF = 0x40  # the class of the error frame, as Linux has it (linux/can/error.h)
DAY = 86400  # seconds


class Fault(NamedTuple):
    """`parts` are those that it needs for itself: no two faults have one part at once. `breaks` are those of them of
    which nothing is promised meanwhile."""

    kind: str
    parts: tuple
    run: Callable
    longest: float = 3.0  # seconds
    breaks: bool = True
    is_kill: bool = False


class Planned(NamedTuple):
    """When a fault begins, how long it lasts, and the seed of its own choices."""

    start: float
    seconds: float
    fault: Fault
    seed: int


# Bare clients, which do as they like


def connect(handshake=HANDSHAKE, receive_buffer=None):
    client = socket.socket()
    client.settimeout(PATIENCE)
    if receive_buffer:
        client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
    client.connect(("127.0.0.1", PORT))
    client.sendall(handshake)
    return client


def message(kind, payload):
    """Masked with zeros."""
    size = len(payload)
    head = (bytes([kind, 0x80 | size]) if size < 126 else
            struct.pack(">BBH", kind, 0xFE, size) if size < 65536 else struct.pack(">BBQ", kind, 0xFF, size))
    return head + bytes(4) + payload


def vanish(client):
    """Resets the connection, whatever is on its way."""
    with contextlib.suppress(OSError):
        client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    client.close()


def tell(kind, payload):
    """Says one message on a connection of its own, and returns when it has been handled."""
    with contextlib.suppress(OSError), connect() as client:
        client.recv(65536)
        client.sendall(message(kind, payload) + message(CLOSE, b""))
        deadline = time.monotonic() + PATIENCE
        while client.recv(65536) and time.monotonic() < deadline:
            pass


class Crowd(threading.Thread):
    """Clients that come on their own, as soon as the daemon lets them, until they have to leave."""

    def __init__(self, count, leave=vanish, say=lambda client: None, **options):
        super().__init__(daemon=True)
        self._count, self._say, self._leave, self._options = count, say, leave, options
        self._leaving = threading.Event()
        self.start()

    def run(self):
        clients = []
        with contextlib.suppress(OSError):
            while len(clients) < self._count and not self._leaving.is_set():
                clients.append(connect(**self._options))
                self._say(clients[-1])
        self._leaving.wait()
        for client in clients:
            self._leave(client)

    def leave(self):
        self._leaving.set()


def crowd(count, say=None, leave=None, **options):
    """A fault: so many clients. `say` and `leave` are given a client and the fault's chance."""
    def run(_soak, rng):
        def bound(act):
            return lambda client: act(client, rng)

        people = Crowd(count, bound(leave) if leave else vanish, bound(say) if say else lambda _client: None, **options)
        yield
        people.leave()
    return run


def begin_and_vanish(client, rng):
    with contextlib.suppress(OSError):
        client.send(message(BINARY, bytes(100))[:rng.randint(1, 50)])
    vanish(client)


def say_garbage(client, rng):
    """Messages that are nothing, and then what is no message."""
    for _ in range(rng.randint(5, 50)):
        client.sendall(message(BINARY, rng.randbytes(rng.randint(1, 400))))
    client.sendall(rng.randbytes(2000))


def say_hostile_message(client, rng):
    make = hostile.MESSAGES[rng.choice(sorted(hostile.MESSAGES))]
    client.sendall(message(BINARY, make(rng.choice([0.3, 1.0]))))


def half_handshakes(_soak, rng):
    people = Crowd(30, handshake=HANDSHAKE[:rng.randint(1, len(HANDSHAKE) - 1)])
    yield
    people.leave()


def other_schema(soak, rng):
    """None at all, one of somebody else's, or a hostile one."""
    texts = [lambda: "no schema", lambda: json.dumps({"other": {"@mac": 5, "@cmd": 2, "@format": "C"}}),
             *(lambda make=hostile.SCHEMAS[name]: make(0.3) for name in sorted(hostile.SCHEMAS))]
    tell(TEXT, rng.choice(texts)().encode())
    yield
    soak.restore_schema()


# The links


def pulled(**how):
    def run(soak, _rng):
        soak.bus.unplug(**how)
        yield
        soak.bus.plug()
    return run


def other_adapter(soak, _rng):
    soak.bus.unplug()
    soak.bus.plug(1)
    yield
    soak.bus.unplug()
    soak.bus.plug(0)


def port_does_not_open(soak, _rng):
    soak.bus.unplug()
    soak.bus.plug()
    soak.bus.line.adapter.fail("open", errno.EACCES)
    yield
    soak.bus.line.adapter.heal("open")


def port_fails(soak, _rng):
    """Read errors on a port that is still there: the daemon opens it again and again, and once more behind the last."""
    with soak.bus.alone() as line:
        soak.bus.reopens()
        line.distrust()
        line.adapter.fail("read", errno.EINVAL)
    yield
    with soak.bus.alone() as line:
        line.adapter.heal("read")
        line.trust()


def can_down(soak, _rng):
    """The device tells an error, and no frame comes. Whether it is opened again is the daemon's affair: frames that
    had come take the error back."""
    with quiet_can(soak) as line:
        line.bus.report_error(READ_ERROR, os.strerror(errno.ENETDOWN))
    yield
    trust_can(soak)


def bus_off(soak, _rng):
    """An error frame tells of it, and nothing comes until the controller is on the bus again. The device stays."""
    with quiet_can(soak) as line:
        line.bus.offer(CanFrame(BUS_OFF, bytes(8), error=True))
    yield
    trust_can(soak)


def queue_full(soak, _rng):
    """Nothing can be written. Since no frame takes the error back, the daemon opens it again."""
    with quiet_can(soak) as line:
        line.bus.mode = "full"
    yield
    soak.bus.line.bus.mode = "present"
    trust_can(soak)


@contextlib.contextmanager
def quiet_can(soak):
    """Nothing comes from can0 any more, and whether it stays open is not known."""
    with soak.bus.alone() as line:
        soak.bus.went_down()
        line.distrust()
        yield line


def trust_can(soak):
    with soak.bus.alone() as line:
        line.trust()


def can_refuses(mode):
    """can0 is deleted, and what is there instead cannot be used for a while."""
    def run(soak, _rng):
        with soak.bus.alone() as line:
            line.bus.mode = mode
            soak.bus.reopens()
            line.bus.disconnect()
        yield
        soak.bus.line.bus.mode = "present"
    return run


# Processes, and what the system gives them


def killed(name):
    def run(soak, _rng):
        soak.kill(name)
        yield
    return run


def held(name):
    def run(soak, _rng):
        program = soak.programs[name]
        program.pause()
        yield
        program.resume()
    return run


def limited(program, what, soft):
    """Sets a soft limit of a process; returns what gives it back."""
    pid = program.pid
    before = resource.prlimit(pid, what)
    resource.prlimit(pid, what, (soft, before[1]))

    def give_back():
        with contextlib.suppress(ProcessLookupError):
            resource.prlimit(pid, what, before)
    return give_back


def no_descriptors(soak, _rng):
    """Clients take what the daemon may still open, and knock. The link is left alone: the virtual adapter needs a
    descriptor itself to say that it was opened."""
    program = soak.programs["daemon"]
    taken = set(map(int, os.listdir(f"/proc/{program.pid}/fd")))
    limit = max(taken) + 1
    give_back = limited(program, resource.RLIMIT_NOFILE, limit)
    people = Crowd(limit - len(taken) + 10)
    yield
    give_back()
    people.leave()


def memory_ceiling(name, clients=0):
    """Hardly any memory is left, and so many clients ask for much. A program may end by that, as it does by the
    kernel's hand when it reaches the ceiling that its unit sets."""
    def run(soak, rng):
        program = soak.programs[name]
        taken = resource.getpagesize() * int(pathlib.Path(f"/proc/{program.pid}/statm").read_text().split()[0])
        program.may_end = True
        give_back = limited(program, resource.RLIMIT_AS, taken + rng.choice([0, 1, 4]) * 2**20)
        people = Crowd(clients, say=lambda client: say_hostile_message(client, rng))
        yield
        people.leave()
        give_back()
        program.may_end = False
    return run


def disk_full(soak, _rng):
    give_back = limited(soak.programs["gateway"], resource.RLIMIT_FSIZE, 0)
    yield
    give_back()


def set_clock(where):
    """Set wrong by up to a day, and right again."""
    def run(soak, rng):
        clock = soak.chain.clocks[where]
        clock.set_ahead(rng.uniform(-DAY, DAY))
        yield
        clock.set_ahead(0)
    return run


# The network between gateway and broker


def network_cut(soak, _rng):
    soak.network.cut()
    yield
    soak.network.join()


def network_silent(soak, _rng):
    soak.network.silence()
    yield
    soak.network.speak()


def kill(name, longest=1.0):
    return Fault(f"{name} killed", (name,), killed(name), longest, is_kill=True)


def hold(name, longest=4.0):
    return Fault(f"{name} held", (name,), held(name), longest)


CEILINGS = (
    Fault("daemon's memory ceiling", ("daemon", "clients"), memory_ceiling("daemon", clients=3), 2, is_kill=True),
    Fault("gateway's memory ceiling", ("gateway",), memory_ceiling("gateway"), 2, is_kill=True),
)
EVERYWHERE = (
    kill("daemon"), hold("daemon", 2.5),
    Fault("descriptors exhausted", ("daemon", "link"), no_descriptors, breaks=False),
    Fault("clients vanish", ("clients",), crowd(20, leave=begin_and_vanish, receive_buffer=4096)),
    Fault("clients stall", ("clients",), crowd(5, receive_buffer=4096), 6),
    Fault("garbage", ("clients",), crowd(3, say=say_garbage), 1),
    Fault("hostile message", ("clients",), crowd(1, say=say_hostile_message), 1),
    Fault("200 clients at once", ("clients",), crowd(200)),
    Fault("half handshakes", ("clients",), half_handshakes, 6),
    Fault("other schema", ("schema", "daemon", "clients"), other_schema, 2),
    hold("python", 2.5), hold("javascript", 2.5), hold("cpp", 2.5),
    kill("broker"), hold("broker"),
    Fault("network cut", ("network",), network_cut, 15),
    Fault("network silent", ("network",), network_silent, 15),
    kill("gateway"), hold("gateway", 2.5),
    Fault("gateway's disk full", ("gateway",), disk_full, 4, breaks=False),
    kill("history"), hold("history"),
    kill("database"), hold("database"),
    Fault("the board's clock set", ("board's clock",), set_clock("board"), breaks=False),
    Fault("the server's clock set", ("server's clock",), set_clock("server"), breaks=False),
    # A sanitizer takes an address space that no limit fits.
    *(() if SANITIZED else CEILINGS),
)
ON_LINE = {
    "serialport": (
        Fault("adapter pulled", ("link",), pulled()),
        Fault("adapter pulled in mid-record", ("link",), pulled(in_mid_record=True)),
        Fault("adapter pulled in mid-write", ("link",), pulled(in_mid_write=True)),
        Fault("other adapter", ("link",), other_adapter, 4),
        Fault("port does not open", ("link",), port_does_not_open),
        Fault("port fails", ("link", "daemon"), port_fails, 2),
    ),
    "socketcan": (
        Fault("can0 deleted", ("link",), pulled()),
        Fault("can0 absent", ("link",), can_refuses("absent")),
        Fault("can0 refuses", ("link",), can_refuses("refuse")),
        Fault("can0 down", ("link",), can_down),
        Fault("bus off", ("link",), bus_off),
        Fault("can0's queue full", ("link",), queue_full),
    ),
}
REST = 2.0  # seconds that a part has between two faults at least
WITHOUT_KILLS = 2 / 3  # of the time: a leak shows in a process that is left alive


def plan(seed, seconds, faults):
    """The faults of a run: a function of the seed. Each part is busy on its own, so several faults are there at
    once."""
    rng = random.Random(seed)
    planned, free = [], {}
    now = 0.0
    while True:
        now += rng.expovariate(1.0)
        if now >= seconds:
            return planned
        fault, length, own = rng.choice(faults), rng.random(), rng.getrandbits(32)
        duration = 0.2 + length * (fault.longest - 0.2)
        is_early = fault.is_kill and now < WITHOUT_KILLS * seconds
        if not is_early and now + duration < seconds and all(free.get(part, 0) <= now for part in fault.parts):
            planned.append(Planned(now, duration, fault, own))
            free.update(dict.fromkeys(fault.parts, now + duration + REST + 4 * rng.random()))
