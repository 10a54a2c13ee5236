"""A system call of a daemon fails: what becomes of the offender, the bystander, the link and the log."""

import asyncio
import contextlib
import errno
import fcntl
import itertools
import re
import socket
import termios
import time
from typing import NamedTuple, Optional, Tuple

import websockets

from hardware import counted, next_value, send_value
from harness import SANITIZED, TICK, eventually, round_trip
from vorbelsim import vek
from vorbelsim.faults import FOR_EVER, option

# What strace calls the details of a call, in the numbers of this machine.
DETAILS = {
    "F_GETFL": fcntl.F_GETFL, "F_SETFL": fcntl.F_SETFL,
    "FIONREAD": termios.FIONREAD, "TCGETS": termios.TCGETS, "TCSETS": termios.TCSETS,
    "TCGETS2": 0x802C542A, "TCSETS2": 0x402C542B, "TIOCEXCL": termios.TIOCEXCL, "TIOCGSERIAL": termios.TIOCGSERIAL,
    "TIOCMBIC": termios.TIOCMBIC, "TIOCMBIS": termios.TIOCMBIS, "TIOCMGET": termios.TIOCMGET,
    "TIOCNXCL": termios.TIOCNXCL,
    "IPV6_V6ONLY": option(socket.IPPROTO_IPV6, socket.IPV6_V6ONLY),
    "SO_DOMAIN": option(socket.SOL_SOCKET, 39), "SO_KEEPALIVE": option(socket.SOL_SOCKET, socket.SO_KEEPALIVE),
    "SO_OOBINLINE": option(socket.SOL_SOCKET, socket.SO_OOBINLINE),
    "SO_REUSEADDR": option(socket.SOL_SOCKET, socket.SO_REUSEADDR),
    "SO_TYPE": option(socket.SOL_SOCKET, socket.SO_TYPE),
    "TCP_KEEPCNT": option(socket.IPPROTO_TCP, socket.TCP_KEEPCNT),
    "TCP_KEEPIDLE": option(socket.IPPROTO_TCP, socket.TCP_KEEPIDLE),
    "TCP_KEEPINTVL": option(socket.IPPROTO_TCP, socket.TCP_KEEPINTVL),
    "TCP_NODELAY": option(socket.IPPROTO_TCP, socket.TCP_NODELAY),
    "TCP_USER_TIMEOUT": option(socket.IPPROTO_TCP, socket.TCP_USER_TIMEOUT),
}

PATIENCE = 6 * TICK
CALM = 0.3  # seconds in which nothing happens
LOAD_LIMIT = 0.6 if SANITIZED else 0.2
LINES_LIMIT = 60
# What is logged in any case: greetings, schemas, and what is made of a client's message.
# The last one Qt says or not of a wake-up whose read has failed, as its threads happen to run.
ROUTINE = re.compile(r'info (Sending hello|Received schema)|debug (Converting|Converted|insertToByteArray|Preparing|")|'
                     r'info New connection incoming from QHostAddress\("::ffff:127\.0\.0\.1"\)$|'
                     r'warning QThreadPipe: internal error, wakeUps\.testAndSetRelease\(1, 0\) failed!$')


class Outcome(NamedTuple):
    """What a fault does. Values and writes that come later are never lost, and nobody but the offender notices."""

    offender: Optional[str] = None  # the client whose call failed is "served", "dropped" or "refused"
    is_value_lost: bool = False     # what the adapter said at that time
    is_write_lost: bool = False     # what a client wrote at that time
    openings: int = 0               # how often the serial port is opened
    log: Tuple[str, ...] = ()       # all lines but the routine ones


class Case(NamedTuple):
    """A call that fails."""

    descriptor: str
    call: str
    error: str
    when: str
    outcome: Outcome
    detail: str = ""
    skip: int = 0
    seconds: float = 0           # 0: it fails once
    beside: str = ""             # another call on the same kind of descriptor that fails from the first one on

    def __str__(self):
        parts = [self.descriptor, self.call, self.detail, self.error, f"behind {self.skip}" if self.skip else "",
                 f"for {self.seconds} s" if self.seconds else "", self.when]
        return " ".join(filter(None, parts))


class Observation(NamedTuple):
    """What became of it."""

    injected: int
    outcome: Outcome
    lines: int               # in the log, routine ones included
    load: float              # the share of a processor that is taken when it is over, or has lasted for a while
    is_line_set: bool        # whether the serial port has the settings that it had in the beginning


def notable(lines, once=False):
    """Those that are not routine, with the lock by the name of its port; `once`: what is repeated stands once."""
    found = [re.sub(r'"[^"]*/LCK\.\.[^"]*(ttyVEK\d)"', r'"LCK..\1"', line) for line in lines
             if not ROUTINE.match(line)]
    return tuple(line for line, _ in itertools.groupby(found)) if once else tuple(found)


def order(stand, case, peer=0):
    stand.faults.order(case.descriptor, case.call, getattr(errno, case.error), detail=DETAILS.get(case.detail, 0),
                       peer=peer, skip=case.skip, times=FOR_EVER if case.seconds else 1)


class Trial:
    """A case at a stand, which is as it was when observe() has returned. Whatever does not come back raises."""

    def __init__(self, stand, case):
        self.stand, self.case = stand, case
        self._told, self._heard = [], []  # numbers, from the adapter to the bystander
        self._at_fault = None             # the one that was told when the fault came
        self._written = None              # the one that a client wrote then
        self._on_bus = []
        self._offender = None
        self._begin = 0                   # in the log
        self._load_while_it_lasts = 0

    async def observe(self):
        stand = self.stand
        if self.case.seconds:
            await asyncio.sleep(1.2 * TICK)  # errors of the case before would count
        self._descriptors = await stand.descriptors()
        self._begin = len(stand.daemon.lines())
        self._openings = len(stand.adapter.history("open"))
        try:
            await self._injected()
        finally:
            stand.faults.cancel()
        injected = stand.faults.injected
        if not stand.adapter.plugged:
            stand.adapter.plug()
        await self._recovered()
        fate = await self._fate()
        # A tick may have something to say about what it supervises.
        is_supervised = self.case.descriptor in ("serial", "lock", "listener")
        load = await stand.cpu_load(1.2 * TICK if is_supervised else CALM)
        await self.flows()
        outcome, lines = self._outcome(fate), len(stand.daemon.lines()) - self._begin
        await self._serves_another()
        await self._leave()
        return Observation(injected, outcome, lines, max(load, self._load_while_it_lasts),
                           stand.adapter.settings() == stand.settings)

    # The fault

    async def _injected(self):
        stand, case = self.stand, self.case
        if case.when in ("ping", "told", "leaves"):
            self._offender = await stand.client()
        order(stand, case, self._offender.local_address[1] if self._offender else 0)
        await getattr(self, f"_when_{case.when}")()
        if case.beside:
            await eventually(lambda: stand.faults.injected, PATIENCE, f"{case} to be injected")
            stand.faults.order_beside(case.descriptor, case.beside, getattr(errno, case.error), times=FOR_EVER)
        if case.seconds:
            await asyncio.sleep(case.seconds - CALM)
            self._load_while_it_lasts = await stand.cpu_load(CALM)
        else:
            await eventually(lambda: not stand.faults.is_pending, PATIENCE, f"{case} to be injected")

    async def _when_tick(self):
        """Nobody has to do anything."""

    async def _when_value(self):
        self._at_fault = self._say()

    async def _when_told(self):
        self._at_fault = self._say()

    async def _when_write(self):
        self._written = await self._write()

    async def _when_replug(self):
        self.stand.adapter.unplug()
        self.stand.adapter.plug()

    async def _when_unlocks(self):
        """Replugged, and the lock is still there: somebody removes it."""
        await self._when_replug()
        await eventually(lambda: 'locking the device"' in "".join(self._log()), PATIENCE, "the lock to be found")
        self.stand.adapter.remove_lock()

    async def _when_ping(self):
        await self._offender.ping()

    async def _when_leaves(self):
        await self._offender.close()

    async def _when_connects(self):
        self._offender = asyncio.ensure_future(self.stand.connected())

    # What becomes of it

    async def _recovered(self):
        """Returns when the bystander hears the bus again and is heard there."""
        deadline = time.monotonic() + PATIENCE
        while self._say(offered=True) not in await self._hear():
            assert time.monotonic() < deadline, f"the bus is not heard any more: {self._log()}"
        await self.flows()

    async def flows(self):
        """From the bus to the bystander and back."""
        said = self._say()
        assert said in await self._hear(PATIENCE), f"the bus is not heard any more: {self._log()}"
        written = await self._write()
        await eventually(lambda: written in self._read_bus(), PATIENCE, f"the write, {self._log()}")

    async def _fate(self):
        """Of the offender."""
        if self._offender is None:
            return None
        if isinstance(self._offender, asyncio.Future):
            try:
                self._offender = await asyncio.wait_for(self._offender, PATIENCE)
            except websockets.exceptions.InvalidMessage:
                self._offender = None
                return "dropped"
        try:
            await round_trip(self._offender)
        except websockets.exceptions.ConnectionClosed:
            return "dropped"
        return "served"

    async def _serves_another(self):
        client = await asyncio.wait_for(self.stand.client(), PATIENCE)
        await round_trip(client)
        await client.close()

    async def _leave(self):
        if self._offender:
            await self._offender.close()
        await self.stand.has_descriptors(self._descriptors)

    def _outcome(self, fate):
        missing = [number for number in self._told if number not in self._heard]
        openings = len(self.stand.adapter.history("open")) - self._openings
        if not openings:
            # While the port is open everything is heard, once and in order.
            assert self._heard == [number for number in self._told if number not in missing]
            assert set(missing) <= {self._at_fault}
        is_write_lost = self._written is not None and self._written not in self._read_bus()
        assert self._on_bus == sorted(set(self._on_bus)), self._on_bus
        return Outcome(fate, self._at_fault in missing, is_write_lost, openings,
                       self._log(once=self.case.seconds))

    # Bus and bystander

    def _say(self, offered=False):
        number = self.stand.number()
        record = vek.record(5, 2, counted(number))
        if offered:
            self.stand.adapter.offer(record)
        else:
            self.stand.adapter.write(record)
        self._told.append(number)
        return number

    async def _hear(self, timeout=0.1):
        with contextlib.suppress(asyncio.TimeoutError):
            while not self._heard or self._heard[-1] != self._told[-1]:
                self._heard.append((await next_value(self.stand.bystander, timeout))["n"])
        return self._heard

    async def _write(self):
        number = self.stand.number()
        await send_value(self.stand.bystander, {"n": number})
        await round_trip(self.stand.bystander)
        return number

    def _read_bus(self):
        for frame in self.stand.scanner.feed(self.stand.adapter.read()):
            self._on_bus.append(int.from_bytes(frame.payload, "little"))
        return self._on_bus

    def _log(self, once=False):
        return notable(self.stand.daemon.lines()[self._begin:], once)


class StartTrial:
    """A case at a stand whose daemon is not running yet."""

    def __init__(self, stand, case):
        self.stand, self.case = stand, case

    async def observe(self):
        """Whether clients are served tells what became of the listening socket; the link works in any case."""
        stand = self.stand
        order(stand, self.case)
        stand.run_daemon()
        await eventually(lambda: stand.adapter.opened, PATIENCE, "the link")
        fate = await self._first_client_fares()
        injected = stand.faults.injected
        stand.faults.cancel()
        lines = stand.daemon.lines()
        outcome = Outcome(fate, openings=len(stand.adapter.history("open")), log=notable(lines))
        return Observation(injected, outcome, len(lines), await stand.cpu_load(CALM), True)

    async def _first_client_fares(self):
        """What is lost is the first connection alone, unless nobody listens."""
        stand, fate = self.stand, "served"
        with contextlib.suppress(ConnectionRefusedError):
            try:
                await asyncio.wait_for(stand.greet_bystander(), PATIENCE)
            except websockets.exceptions.InvalidMessage:
                fate = "dropped"
                await stand.greet_bystander()
            await Trial(stand, self.case).flows()
            return fate
        return "refused"
