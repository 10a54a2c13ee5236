"""Every system call that the daemon makes on can0 fails, one at a time, with each error that the kernel gives there: on
a virtual interface of a real kernel, by a preloaded library. tests/e2e/test_system_calls.py does the same to all else.

One daemon goes through all cases, and a client of it loses nothing but what a case says.
"""

import json
import re
import shutil
import subprocess
import time
from typing import NamedTuple, Tuple

import pytest
from canbus import NO_BUS
from test_socketcan import PROJECT
from watch import bring_aboard

PATIENCE = 120  # seconds, for each case
LINES_LIMIT = 60
LOAD_LIMIT = 0.3

CLOSE = "debug Close SocketCan"
CANNOT_CONNECT = "critical Socket can cannot connect."


class Outcome(NamedTuple):
    are_values_lost: bool = False
    is_write_lost: bool = False
    log: Tuple[str, ...] = ()  # all lines but the routine ones


class Case(NamedTuple):
    """When: a "value" comes, a client's "write", a "tick", or the interface was "made anew"."""

    descriptor: str
    call: str
    detail: str
    error: str
    when: str
    outcome: Outcome
    seconds: float = 0  # 0: it fails once

    def __str__(self):
        lasting = f"for {self.seconds} s" if self.seconds else ""
        return " ".join(filter(None, [self.descriptor, self.call, self.detail, self.error, lasting]))


def each(descriptor, call, errors, when, outcome, detail="", **rest):
    return [Case(descriptor, call, detail, error, when, outcome, **rest) for error in errors.split()]


UNNOTICED = Outcome()
TEXTS = {"EAGAIN": "Resource temporarily unavailable", "EINVAL": "Invalid argument", "EIO": "Input/output error",
         "EMSGSIZE": "Message too long", "ENETDOWN": "Network is down", "ENOBUFS": "No buffer space available",
         "ENODEV": "No such device", "ENOMEM": "Cannot allocate memory", "ENXIO": "No such device or address",
         "EPERM": "Operation not permitted"}


def lost(error):
    return Outcome(is_write_lost=True, log=(f'warning Lost 1 of 1 frames of one message, can0 says: "{TEXTS[error]}"',))


# What is said while the interface is made anew is lost in any case.
OPENED = Outcome(are_values_lost=True, log=(CLOSE,))
OPENED_A_TICK_LATER = Outcome(are_values_lost=True, log=(CLOSE, CANNOT_CONNECT, CLOSE))

CASES = [
    *each("can", "recvmsg", "EAGAIN EINTR EIO ENETDOWN ENOBUFS ENODEV ENOMEM", "value", UNNOTICED),
    *each("can", "ioctl", "EINVAL ENOENT", "value", UNNOTICED, detail="SIOCGSTAMP_OLD"),
    *(case for error in TEXTS for case in each("can", "write", error, "write", lost(error))),
    *each("can", "socket", "EAFNOSUPPORT EMFILE ENFILE ENOBUFS ENOMEM EPERM EPROTONOSUPPORT", "made anew",
          OPENED_A_TICK_LATER),
    *each("can", "ioctl", "ENODEV EINVAL", "made anew", OPENED_A_TICK_LATER, detail="SIOCGIFINDEX"),
    *each("can", "bind", "EINVAL ENETDOWN ENODEV ENOMEM", "made anew", OPENED_A_TICK_LATER),
    *each("can", "setsockopt", "ENOMEM ENOPROTOOPT", "made anew", OPENED, detail="CAN_RAW_LOOPBACK"),
    *each("can", "setsockopt", "ENOMEM ENOPROTOOPT", "made anew", OPENED, detail="CAN_RAW_RECV_OWN_MSGS"),
    *each("can", "setsockopt", "ENOMEM ENOPROTOOPT", "made anew", OPENED, detail="CAN_RAW_ERR_FILTER"),
    *each("can", "setsockopt", "ENOMEM ENOPROTOOPT", "made anew", OPENED, detail="CAN_RAW_FD_FRAMES"),
    *each("can", "close", "EINTR EIO", "made anew", OPENED),
    # That nobody can be asked for the interface says nothing about it.
    *each("interface", "socket", "EMFILE ENFILE ENOMEM", "tick", UNNOTICED),
    *each("interface", "socket", "EMFILE", "tick", UNNOTICED, seconds=3),
    *each("interface", "ioctl", "ENOMEM", "tick", UNNOTICED, detail="SIOCGIFINDEX"),
    *each("interface", "ioctl", "ENODEV", "tick", OPENED, detail="SIOCGIFINDEX"),
]
# Closing the socket by which an interface was asked for: the C library does so, and does not look at the result.
UNHEEDED = {("interface", "close", "")}


class Run:
    """A daemon in the guest that goes through cases."""

    def __init__(self, guest, cases, tracer=""):
        self.cases, self.file = cases, guest.share / "observations"
        self.file.write_text("")
        (guest.share / "cases").write_text(json.dumps([case._asdict() for case in cases]))
        guest.run("VORBEL_BUILD_DIR=/host/build python3 -B /host/call-faults /host/cases /host/observations "
                  f"/host/daemon.log {tracer} >/host/call-faults.log 2>&1 &")

    def observed(self, case):
        """What became of a case; the ones before it come first."""
        return self._line(self.cases.index(case))

    def wait_for_end(self):
        assert self._line(len(self.cases)) == {"ended_by_itself": None}

    def _line(self, number):
        deadline = time.monotonic() + PATIENCE
        while len(lines := self.file.read_text().split("\n")) <= number + 1:
            assert time.monotonic() < deadline, self.file.with_name("call-faults.log").read_text()
            time.sleep(0.1)
        return json.loads(lines[number])


@pytest.fixture(scope="module")
def prepared(guest, service):
    """The guest without a CAN bus, and with all that makes one and has calls fail."""
    bring_aboard(guest, "call-faults")
    shutil.copytree(PROJECT / "sim", guest.share / "sim", ignore=shutil.ignore_patterns("__pycache__"),
                    dirs_exist_ok=True)
    library = guest.share / "build" / "sim" / "libvorbel_sim_faults.so"
    library.parent.mkdir(parents=True)
    subprocess.run(["aarch64-linux-gnu-gcc", "-shared", "-fPIC", "-O2", "-o", library,
                    PROJECT / "sim" / "faults" / "faults.c"], check=True)
    guest.run("systemctl stop vorbel\n" + NO_BUS + "modprobe -a can_raw vcan")
    yield guest
    guest.run(NO_BUS)


@pytest.fixture(scope="module")
def run(request, prepared):
    """Through the cases that were selected."""
    selected = [item.callspec.params["case"] for item in request.session.items
                if item.module is request.module and "case" in item.fixturenames]
    return Run(prepared, selected)


@pytest.mark.parametrize("case", CASES, ids=str)
def test_call_fails(run, case):
    observed = run.observed(case)
    assert "error" not in observed, observed
    # A frame that comes before the tick takes Qt's error of a write back; else the device is opened again.
    if case.when == "write" and observed["log"][1:] == [CLOSE]:
        observed["log"].pop()
        observed["are_values_lost"] = False
    if case.outcome.are_values_lost:
        observed["are_values_lost"] = True  # they may also have come through
    assert Outcome(observed["are_values_lost"], observed["is_write_lost"], tuple(observed["log"])) == case.outcome
    assert observed["is_ordered"]
    assert observed["injected"] >= 1
    assert observed["lines"] < LINES_LIMIT
    assert observed["load"] < LOAD_LIMIT


def calls_on_can0(trace):
    """(descriptor, call, detail) of each call on CAN sockets and on those by which an interface is asked for."""
    kinds = {}
    for line in trace.splitlines():
        call, words, result = re.fullmatch(r"(?:\d+ +)?(?:(\w+)\((.*)\) += (.*)|.*)", line).groups()
        if call == "socket":
            kind = "can" if words.startswith("AF_CAN") else "interface" if "SOCK_DGRAM" in words else None
            kinds[result.split("<")[0]] = kind
        else:
            kind = kinds.get((words or "").split("<")[0])
        if kind:
            detail = {"ioctl": 1, "setsockopt": 2}.get(call)
            yield kind, call, re.split(r", |\)", words)[detail] if detail else ""
        if call == "close":
            kinds.pop(words.split("<")[0], None)


def test_the_table_knows_every_call(run, prepared):
    run.wait_for_end()
    Run(prepared, [], "strace -D -f -y -o /run/trace").wait_for_end()
    prepared.run("cp /run/trace /host/trace")
    seen = set(calls_on_can0((prepared.share / "trace").read_text()))
    assert seen - UNHEEDED == {(case.descriptor, case.call, case.detail) for case in CASES}
