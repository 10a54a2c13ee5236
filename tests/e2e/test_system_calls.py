"""Every system call that the daemon makes on its link, its port and its clients fails, one at a time, with each error
that the kernel gives for that kind of descriptor. EBADF, EFAULT and ENOTSOCK are left out: they are those of programs
that take one descriptor for another.

A few daemons go through the cases beside each other, each of them through many, and have to survive them all.
"""

import asyncio
import errno
import os
import re

import pytest

from hardware import counted, send_value
from harness import TICK, eventually, round_trip
from stand import Stand
from trial import DETAILS, LINES_LIMIT, LOAD_LIMIT, Case, Outcome, StartTrial, Trial, notable
from vorbelsim import vek
from vorbelsim.faults import FOR_EVER

STANDS = 12

CLOSE = "debug Close SerialPort"
FOUND = 'debug Found "VEK CAN Adapter" "ttyVEK0"'
CLOSED = 'info Connection closed QHostAddress("::ffff:127.0.0.1")'
NO_ROOM = "warning No file descriptor is left: new clients have to wait"


def used_on(error):
    return f'warning The serial port is used on after an error: "{error}"'


def not_raised(error):
    return f'warning The adapter is not heard, its line cannot be set: "{error}"'


def not_opened(error):
    return f'warning bool Main::openSerialPort() error "{error}"'


def not_listening(error):
    return f'warning Main::Main(QObject*) error "{error}"'


UNNOTICED = Outcome()
REPLUGGED = Outcome(openings=1, log=(CLOSE, FOUND))
CANNOT_LOCK = Outcome(openings=1, log=(CLOSE, FOUND, not_opened("Permission error while locking the device"), FOUND))


def each(descriptor, call, errors, when, outcome, **rest):
    """A case for each error; `outcome` may be a function of the error's text."""
    def of(error):
        return outcome(os.strerror(getattr(errno, error))) if callable(outcome) else outcome

    return [Case(descriptor, call, error, when, of(error), **rest) for error in errors.split()]


def opens_a_tick_later(text):
    return Outcome(openings=1, log=(CLOSE, FOUND, not_opened(text), FOUND))


def opened_then_refused(text):
    """The port was open when its setting failed."""
    return Outcome(openings=2, log=(CLOSE, FOUND, not_opened(text), FOUND))


def used_on_again(text):
    return Outcome(log=(used_on(text),))


def dropped_in_the_end(text):
    """What waits to be written is not written seconds later."""
    return Outcome(log=(used_on(text), "warning Dropping 11 bytes that the serial port does not take"),
                   is_write_lost=True)


def opened_with_an_error(text):
    """The port is open all the same, and is used."""
    return Outcome(openings=1, log=(CLOSE, FOUND, used_on(text)))


def heard_later(text):
    return Outcome(openings=1, log=(CLOSE, FOUND, not_raised(text)))


SERIAL = [
    *each("serial", "read", "EINTR", "value", UNNOTICED),
    *each("serial", "read", "EAGAIN EIO", "value", used_on_again),
    *each("serial", "read", "EAGAIN EIO", "value", used_on_again, seconds=3.5),
    *each("serial", "read", "EINVAL ENODEV ENOMEM ENXIO EPERM EPROTO ESHUTDOWN ETIMEDOUT", "value", REPLUGGED),
    *each("serial", "write", "EINTR", "write", UNNOTICED),
    *each("serial", "write", "EAGAIN EINVAL EIO ENODEV ENOMEM ENOSPC ENXIO EPIPE EPROTO ESHUTDOWN ETIMEDOUT", "write",
          used_on_again),
    *each("serial", "write", "EIO ENOSPC", "write", dropped_in_the_end, seconds=3.5),
    *each("serial", "newfstatat", "EACCES ENOENT ENOMEM EOVERFLOW ENOTDIR ELOOP", "tick", REPLUGGED),
    *each("serial", "newfstatat", "EACCES ENOENT ENOMEM EOVERFLOW ENOTDIR ELOOP", "tick", REPLUGGED, skip=1),
    *each("serial", "openat", "EINTR", "replug", REPLUGGED),
    *each("serial", "openat", "EACCES EAGAIN EBUSY EIO EMFILE ENFILE ENODEV ENOENT ENOMEM ENXIO EPERM ETIMEDOUT",
          "replug", opens_a_tick_later),
    *each("serial", "close", "EINTR EIO", "replug", REPLUGGED),
    *each("serial", "ioctl", "EBUSY EINVAL ENOTTY EPERM", "replug", REPLUGGED, detail="TIOCEXCL"),
    *each("serial", "ioctl", "EIO", "replug", Outcome(openings=1, log=(CLOSE, FOUND, used_on("Unknown error"))),
          detail="TIOCEXCL"),
    *each("serial", "ioctl", "EIO ENOTTY", "replug", REPLUGGED, detail="TIOCNXCL"),
    *each("serial", "ioctl", "EIO ENODEV ENOTTY ETIMEDOUT", "replug", opened_then_refused, detail="TCGETS"),
    *each("serial", "ioctl", "EIO", "replug", opened_then_refused, detail="TCGETS", skip=1),
    *each("serial", "ioctl", "EIO", "replug", opened_with_an_error, detail="TCGETS", skip=2),
    *each("serial", "ioctl", "ETIMEDOUT", "replug", REPLUGGED, detail="TCGETS", skip=2),
    *each("serial", "ioctl", "EINTR EINVAL EIO", "replug", REPLUGGED, detail="TCSETS"),
    *each("serial", "ioctl", "EINTR EINVAL EIO ENODEV ENOMEM ETIMEDOUT", "replug", opened_then_refused,
          detail="TCSETS", skip=1),
    *each("serial", "ioctl", "EIO", "replug", opened_then_refused, detail="TCSETS", skip=2),
    *each("serial", "ioctl", "EIO", "replug", opened_with_an_error, detail="TCSETS", skip=3),
    *each("serial", "ioctl", "EINVAL ETIMEDOUT", "replug", REPLUGGED, detail="TCSETS", skip=3),
    *each("serial", "ioctl", "ENODEV ETIMEDOUT", "replug", heard_later, detail="TCSETS", skip=3, seconds=1.5),
    *each("serial", "ioctl", "EINVAL EIO ENOTTY", "replug", REPLUGGED, detail="TCGETS2"),
    *each("serial", "ioctl", "EINVAL EIO ENOTTY", "replug", REPLUGGED, detail="TCSETS2"),
    *each("serial", "ioctl", "EINVAL EIO ENOTTY", "replug", REPLUGGED, detail="TIOCGSERIAL"),
    *each("serial", "ioctl", "EIO", "replug", REPLUGGED, detail="TIOCGSERIAL", skip=1),
    *(case for skip in (0, 1, 2) for case in [
        *each("serial", "ioctl", "ENOTTY ETIMEDOUT", "replug", REPLUGGED, detail="TIOCMGET", skip=skip),
        *each("serial", "ioctl", "EIO", "replug", opened_with_an_error, detail="TIOCMGET", skip=skip)]),
    *each("serial", "ioctl", "ENOTTY ETIMEDOUT", "replug", REPLUGGED, detail="TIOCMBIS"),
    *each("serial", "ioctl", "EIO", "replug", opened_with_an_error, detail="TIOCMBIS"),
    *each("serial", "ioctl", "EIO ENOTTY ETIMEDOUT", "replug", heard_later, detail="TIOCMBIS", skip=1),
    *each("serial", "ioctl", "ENOTTY ETIMEDOUT", "replug", REPLUGGED, detail="TIOCMBIC"),
    *each("serial", "ioctl", "EIO", "replug", opened_with_an_error, detail="TIOCMBIC"),
]
LOCK = [
    *each("lock", "access", "EACCES EIO ENOENT", "replug", REPLUGGED),
    *each("lock", "openat", "EINTR", "replug", REPLUGGED),
    *each("lock", "openat", "EACCES EDQUOT EIO EMFILE ENFILE ENOENT ENOMEM ENOSPC EROFS", "replug", CANNOT_LOCK),
    *each("lock", "flock", "EINTR ENOLCK", "replug",
          lambda text: Outcome(openings=1, log=(CLOSE, FOUND, f'warning setNativeLocks failed: "{text}"'))),
    *each("lock", "write", "EINTR", "replug", REPLUGGED),
    *each("lock", "write", "EDQUOT EIO ENOSPC", "replug", CANNOT_LOCK),
    *each("lock", "fdatasync", "EDQUOT EINTR EIO ENOSPC EROFS", "replug", REPLUGGED),
    *each("lock", "close", "EINTR EIO", "replug", REPLUGGED),
    *each("lock", "unlink", "EACCES EBUSY EIO EROFS", "unlocks", CANNOT_LOCK._replace(log=(
        CLOSE, 'warning Could not remove our own lock file "LCK..ttyVEK0" maybe permissions changed meanwhile?',
        *CANNOT_LOCK.log[1:]))),
]
NO_ROOM_FOR_A_TICK = Outcome(log=(NO_ROOM,))
SERVED = Outcome(offender="served")
DROPPED = Outcome(offender="dropped", log=(CLOSED,))
REFUSED = Outcome(offender="dropped")
LISTENER = [
    *each("listener", "accept4", "EACCES EAGAIN EINTR EINVAL EMFILE ENFILE ENOBUFS ENOMEM EPERM", "connects", SERVED),
    *each("listener", "accept4", "ECONNABORTED EHOSTDOWN EHOSTUNREACH ENETDOWN ENETUNREACH ENONET ENOPROTOOPT ENOSR "
          "EOPNOTSUPP EPROTO EPROTONOSUPPORT ESOCKTNOSUPPORT ETIMEDOUT", "connects", REFUSED),
    *each("listener", "accept4", "EMFILE ENFILE ENOBUFS ENOMEM", "connects",
          Outcome(offender="served", log=(NO_ROOM,)), seconds=2.5, beside="socket"),
    *each("listener", "socket", "EMFILE ENFILE ENOBUFS ENOMEM", "tick", NO_ROOM_FOR_A_TICK),
    *each("listener", "getsockopt", "ENOPROTOOPT", "tick", UNNOTICED, detail="SO_DOMAIN"),
    *each("listener", "close", "EINTR EIO", "tick", UNNOTICED),
]
CLIENT = [
    *each("client", "getsockname", "ENOBUFS", "connects", SERVED),
    *each("client", "getpeername", "ENOBUFS ENOTCONN", "connects",
          SERVED._replace(log=('info New connection incoming from QHostAddress("")',))),
    *each("client", "getsockopt", "ENOBUFS ENOPROTOOPT", "connects", SERVED, detail="SO_TYPE"),
    *each("client", "fcntl", "EINVAL", "connects", REFUSED, detail="F_GETFL"),
    *each("client", "fcntl", "EINVAL EPERM", "connects", REFUSED, detail="F_SETFL"),
    *each("client", "ioctl", "EINVAL EIO ENOTTY", "ping", SERVED, detail="FIONREAD"),
    *each("client", "read", "EAGAIN EINTR", "ping", SERVED),
    *each("client", "read", "ECONNABORTED ECONNREFUSED ECONNRESET EHOSTDOWN EHOSTUNREACH EINVAL EIO ENETDOWN ENETRESET "
          "ENETUNREACH ENOBUFS ENOMEM ENOTCONN EPIPE EPROTO ETIMEDOUT", "ping", DROPPED),
    *each("client", "write", "EAGAIN EINTR", "ping", SERVED),
    *each("client", "write", "EACCES ECONNABORTED ECONNREFUSED ECONNRESET EHOSTDOWN EHOSTUNREACH EINVAL EIO EMSGSIZE "
          "ENETDOWN ENETRESET ENETUNREACH ENOBUFS ENOMEM ENOTCONN EPERM EPIPE EPROTO ETIMEDOUT", "ping", DROPPED),
    *each("client", "write", "EAGAIN EINTR", "told", SERVED),
    *each("client", "write", "EACCES ECONNABORTED ECONNREFUSED ECONNRESET EHOSTDOWN EHOSTUNREACH EINVAL EIO EMSGSIZE "
          "ENETDOWN ENETRESET ENETUNREACH ENOBUFS ENOMEM ENOTCONN EPERM EPIPE EPROTO ETIMEDOUT", "told", DROPPED),
    *each("client", "close", "EINTR EIO", "leaves", DROPPED),
]
LOOP = [
    *each("loop", "ppoll", "EINTR", "write", UNNOTICED),
    *each("loop", "ppoll", "ENOMEM", "write", lambda text: Outcome(log=(f"qt_safe_poll: {text}",))),
    *each("wakeup", "write", "EAGAIN EINTR", "write", UNNOTICED),
    *each("wakeup", "read", "EAGAIN EINTR", "write", UNNOTICED),
]


# A daemon that cannot listen keeps its link, and is without clients until it is restarted.


def deaf_to_clients(error):
    return Outcome(offender="refused", openings=1, log=(not_listening(error), FOUND))


STARTED = Outcome(offender="served", openings=1, log=(FOUND,))
OPTIONS = ("SO_KEEPALIVE", "TCP_KEEPCNT", "TCP_KEEPIDLE", "TCP_KEEPINTVL", "TCP_NODELAY", "TCP_USER_TIMEOUT")
START = [
    *each("listener", "socket", "EMFILE ENFILE ENOBUFS ENOMEM", "start", deaf_to_clients("Out of resources")),
    *each("listener", "socket", "EACCES", "start", deaf_to_clients("Permission denied")),
    *each("listener", "socket", "EPERM", "start", deaf_to_clients("Unknown error")),
    *each("listener", "socket", "EINVAL EPROTONOSUPPORT", "start", deaf_to_clients("Protocol type not supported")),
    *each("listener", "socket", "EAFNOSUPPORT", "start", STARTED._replace(
        log=(FOUND, 'info New connection incoming from QHostAddress("127.0.0.1")'))),
    *each("listener", "setsockopt", "ENOMEM ENOPROTOOPT", "start", STARTED, detail="IPV6_V6ONLY"),
    *each("listener", "setsockopt", "ENOMEM ENOPROTOOPT", "start", STARTED, detail="SO_REUSEADDR"),
    *each("listener", "setsockopt", "ENOMEM ENOPROTOOPT", "start", STARTED._replace(
        log=("warning QNativeSocketEngine::initialize unable to inline out-of-band data", FOUND)),
        detail="SO_OOBINLINE"),
    *(case for name in OPTIONS for case in each(
        "listener", "setsockopt", "ENOMEM ENOPROTOOPT", "start", lambda text, name=name: STARTED._replace(
            log=(f"warning Cannot set {name} on the listening socket: {text}", FOUND)), detail=name)),
    *each("listener", "bind", "EADDRINUSE", "start", deaf_to_clients("The bound address is already in use")),
    *each("listener", "bind", "EACCES", "start", deaf_to_clients("The address is protected")),
    *each("listener", "bind", "EADDRNOTAVAIL", "start", deaf_to_clients("The address is not available")),
    *each("listener", "bind", "EINVAL", "start", deaf_to_clients("Unsupported socket operation")),
    *each("listener", "bind", "ENOMEM EPERM", "start", deaf_to_clients("Unknown error")),
    *each("listener", "listen", "EADDRINUSE", "start",
          deaf_to_clients("Another socket is already listening on the same port")),
    *each("listener", "listen", "ENOMEM EOPNOTSUPP", "start", deaf_to_clients("Unknown error")),
    *each("listener", "getsockname", "ENOBUFS", "start", STARTED),
    *each("listener", "getpeername", "ENOBUFS", "start", STARTED),
    *each("listener", "getsockopt", "ENOPROTOOPT", "start", STARTED, detail="IPV6_V6ONLY"),
    *each("listener", "getsockopt", "ENOPROTOOPT", "start", STARTED, detail="SO_TYPE"),
    *each("listener", "accept4", "EMFILE ENFILE ENOBUFS ENOMEM EPERM", "start", STARTED),
    *each("listener", "accept4", "ECONNABORTED EPROTO", "start", STARTED._replace(offender="dropped")),
    *each("loop", "eventfd2", "EMFILE ENFILE ENODEV ENOMEM", "start", STARTED),
]
CASES = [*SERIAL, *LOCK, *LISTENER, *CLIENT, *LOOP]


@pytest.fixture(scope="module")
def observations(request, tmp_path_factory):
    """What became of each case that was selected: an Observation, or the exception that ended it."""
    selected = [item.callspec.params["case"] for item in request.session.items if "case" in item.fixturenames]
    return asyncio.run(_observe(selected, tmp_path_factory.mktemp("stands")))


async def _observe(cases, folder):
    waiting = list(reversed(list(enumerate(cases))))
    found = {}
    await asyncio.gather(*(_man_a_stand(waiting, found, folder) for _ in range(STANDS)))
    return found


async def _man_a_stand(waiting, found, folder):
    """Takes one case after the other. Whatever ends badly has the stand that it deserves: a new one follows."""
    stand = None
    while waiting:
        number, case = waiting.pop()
        try:
            if case in START:
                found[case] = await _start_trial(folder / str(number), case)
                continue
            stand = stand or await Stand(folder / str(number)).start()
            found[case] = await Trial(stand, case).observe()
        except Exception as error:
            found[case] = error
            stand = await _leave(stand, error)
    await _leave(stand)


async def _start_trial(folder, case):
    stand = Stand(folder)
    try:
        return await StartTrial(stand, case).observe()
    finally:
        await stand.stop()


async def _leave(stand, error=None):
    try:
        if stand:
            await stand.stop()
    except AssertionError as end:
        if error is None:
            raise
        error.add_note(str(end))


@pytest.mark.parametrize("case", [*CASES, *START], ids=str)
def test_call_fails(observations, case):
    observed = observations[case]
    if isinstance(observed, Exception):
        raise observed
    assert observed.outcome == case.outcome
    assert observed.injected >= 1
    assert observed.is_line_set
    assert observed.lines < LINES_LIMIT
    assert observed.load <= LOAD_LIMIT


# What takes more than one call


@pytest.fixture
async def stand(tmp_path):
    stand = Stand(tmp_path / "stand")
    try:
        yield await stand.start()
    finally:
        await stand.stop()


async def test_what_comes_while_the_modem_lines_are_not_told_is_told(stand):
    """What an adapter sends then cannot be told from leftovers of the time before it was opened."""
    stand.faults.order("serial", "ioctl", errno.ETIMEDOUT, detail=DETAILS["TIOCMGET"], times=FOR_EVER)
    stand.adapter.write(2 * vek.record(5, 2, counted(1)))
    dropped = "warning Dropped 22 bytes of an adapter that does not say whether its DTR is raised"
    await eventually(lambda: dropped in stand.daemon.lines(), 2 * TICK)
    stand.faults.cancel()
    await Trial(stand, None).flows()
    await asyncio.sleep(1.2 * TICK)
    assert sum("DTR" in line for line in stand.daemon.lines()) == 1


async def test_of_an_adapter_that_is_pulled_before_its_dtr_is_raised_nothing_is_told(stand):
    stand.adapter.unplug()
    stand.adapter.plug()
    await eventually(lambda: len(stand.adapter.history("open")) == 2, 3 * TICK)
    stand.adapter.unplug()
    await eventually(lambda: stand.daemon.count(CLOSE) == 2, 3 * TICK)
    stand.adapter.plug()
    await eventually(lambda: stand.adapter.opened, 3 * TICK)
    assert notable(stand.daemon.lines()) == (FOUND, CLOSE, FOUND, CLOSE, FOUND)


async def test_of_a_pulled_adapter_nothing_more_is_told(stand):
    """Its modem lines fail at once, and what it had begun to say is nobody's."""
    stand.faults.order("serial", "ioctl", errno.ETIMEDOUT, detail=DETAILS["TIOCMGET"], times=FOR_EVER)
    stand.adapter.write(vek.record(5, 2, counted(1))[:6])
    stand.adapter.wait_taken()
    stand.adapter.unplug()
    stand.faults.cancel()
    await eventually(lambda: stand.daemon.count(CLOSE) == 1, 3 * TICK)
    stand.adapter.plug()
    await eventually(lambda: stand.adapter.opened)
    await asyncio.sleep(1.2 * TICK)
    assert notable(stand.daemon.lines()) == (FOUND, CLOSE, FOUND)


async def test_what_waits_for_the_next_adapter_is_not_judged_by_the_errors_of_the_last(stand):
    text = used_on(os.strerror(errno.EIO))
    for _ in range(2):
        await _reading_fails(stand, text)
    stand.adapter.unplug()
    stand.adapter.plug()
    await eventually(lambda: stand.adapter.opened)
    stand.faults.order("serial", "write", errno.EIO, times=FOR_EVER)
    await send_value(stand.bystander, {"n": 7})
    await eventually(lambda: stand.daemon.count(re.escape(text)) == 3, 3 * TICK)
    stand.faults.cancel()
    await eventually(lambda: stand.adapter.read() == vek.record(5, 2, counted(7)))
    assert notable(stand.daemon.lines()) == (FOUND, text, text, CLOSE, FOUND, text)


async def _reading_fails(stand, text):
    """Until the next tick has said so."""
    said = stand.daemon.count(re.escape(text))
    stand.faults.order("serial", "read", errno.EIO)
    stand.adapter.write(b"\0")
    await eventually(lambda: stand.daemon.count(re.escape(text)) > said, 3 * TICK)


async def test_a_pulled_adapter_is_not_asked_for_its_dtr_any_more(stand):
    stand.faults.order("serial", "ioctl", errno.EIO, detail=DETAILS["TIOCMBIS"], skip=1, times=FOR_EVER)
    stand.adapter.unplug()
    stand.adapter.plug()
    text = not_raised(os.strerror(errno.EIO))
    await eventually(lambda: text in stand.daemon.lines(), 3 * TICK)
    stand.adapter.unplug()
    await eventually(lambda: stand.daemon.count(CLOSE) == 2, 3 * TICK)
    await asyncio.sleep(1.2 * TICK)
    assert set(notable(stand.daemon.lines())) == {FOUND, CLOSE, text}


# Whether the tables know every call

# Made by the library that plays the adapter.
SIMULATED = {("serial", "ioctl", "TCFLSH")}
ALIASES = {"faccessat": "access", "unlinkat": "unlink"}
WITH_DETAIL = {"fcntl": 1, "ioctl": 1, "getsockopt": 2, "setsockopt": 2}


def kind_of(call, words):
    """Of the descriptor or path that strace shows in front of a call's other words."""
    kinds = [(r"\d+<TCPv6:\[[^<>]*->", "client"), (r"\d+<TCPv6:|AF_INET6?", "listener"),
             (r".*LCK\.\.", "lock"), (r"\d+<anon_inode:\[eventfd\]", "wakeup"),
             (r"\d+</dev/pts/|.*/dev/tty", "serial")]
    if call in ("ppoll", "eventfd2"):
        return "loop"
    return next((kind for pattern, kind in kinds if re.match(pattern, words)), None)


def calls_in(trace):
    """(descriptor, call, detail) of each call on the descriptors that the tables are about."""
    for line in trace.splitlines():
        call, _, words = re.sub(r"^\d+ +", "", line).partition("(")
        call = ALIASES.get(call, call)
        kind = kind_of(call, words.replace("AT_FDCWD", ""))
        if kind:
            detail = words.split(", ")[WITH_DETAIL[call]].rstrip(") ").split(" or ")[-1] if call in WITH_DETAIL else ""
            yield kind, call, detail.split(")")[0]


async def lead_a_life(stand):
    """Everything that happens to a daemon with an adapter and clients."""
    client = await stand.client()
    trial = Trial(stand, None)
    await trial.flows()
    await round_trip(client)
    await client.close()
    stand.adapter.unplug()
    stand.adapter.plug()
    await eventually(lambda: stand.adapter.opened, 5 * TICK)
    await trial.flows()
    await asyncio.sleep(1.2 * TICK)


def test_the_tables_know_every_call(tmp_path):
    async def trace():
        stand = Stand(tmp_path / "stand")
        try:
            await stand.start(tracer=["strace", "-D", "-f", "-yy", "-o", tmp_path / "trace"])
            await lead_a_life(stand)
        finally:
            await stand.stop()

    asyncio.run(trace())
    seen = set(calls_in((tmp_path / "trace").read_text()))
    assert seen - SIMULATED == {(case.descriptor, case.call, case.detail) for case in [*CASES, *START]}
