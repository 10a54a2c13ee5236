"""Daemons beside each other, each with its network, adapter and client, whose system calls fail when told to."""

import asyncio
import contextlib
import ctypes
import os
import pathlib
import socket
import subprocess

import harness
from hardware import counter_leaf, load
from harness import eventually, receive
from vorbelsim import SystemCallFaults, VirtualAdapter, vek

CLONE_NEWNET = 0x40000000
_libc = ctypes.CDLL(None, use_errno=True)


def _check(result):
    if result != 0:
        raise OSError(ctypes.get_errno(), os.strerror(ctypes.get_errno()))


class Network:
    """A network namespace. What is made inside the `with` statement, sockets and processes, is in it for good."""

    def __init__(self):
        with self._home():
            _check(_libc.unshare(CLONE_NEWNET))
            self._namespace = open("/proc/thread-self/ns/net")
            subprocess.run(["ip", "link", "set", "lo", "up"], check=True)

    @staticmethod
    @contextlib.contextmanager
    def _home():
        """Whatever happens inside, afterwards the thread is where it was."""
        with open("/proc/thread-self/ns/net") as home:
            try:
                yield
            finally:
                _check(_libc.setns(home.fileno(), CLONE_NEWNET))

    def __enter__(self):
        self._inside = self._home()
        self._inside.__enter__()
        _check(_libc.setns(self._namespace.fileno(), CLONE_NEWNET))

    def __exit__(self, *error):
        self._inside.__exit__(*error)

    def close(self):
        self._namespace.close()


class Stand:
    """A daemon with an adapter and a client that stays, the bystander. Values are numbers that rise."""

    def __init__(self, folder: pathlib.Path):
        folder.mkdir()
        self.folder = folder
        self.network = Network()
        self.faults = SystemCallFaults(folder / "faults")
        self.adapter = VirtualAdapter(folder)
        self.scanner = vek.Scanner()
        self.daemon = None
        self.bystander = None
        self.settings = None  # of the line, as the daemon has made them
        self._number = 0

    async def start(self, tracer=()):
        self.run_daemon(tracer)
        await eventually(self._answers)
        await self.greet_bystander()
        await eventually(lambda: self.adapter.opened)
        self.settings = self.adapter.settings()
        return self

    def run_daemon(self, tracer=()):
        environment = self.faults.env(self.adapter.plug().env())
        with self.network:
            self.daemon = harness.Daemon(self.folder, environment, tracer)

    def _answers(self):
        with self.network, socket.socket() as probe:
            return probe.connect_ex(("127.0.0.1", harness.PORT)) == 0

    async def greet_bystander(self):
        self.bystander = await self.client()
        await load(self.bystander, {"n": counter_leaf()})

    async def stop(self):
        """Fails if the daemon had ended by itself."""
        self.faults.cancel()
        self.adapter.__exit__()
        self.network.close()
        if self.bystander:
            await self.bystander.close()
        if self.daemon:
            self.daemon.stop()

    async def connected(self):
        """A client that was not greeted yet."""
        with self.network:
            sock = socket.create_connection(("127.0.0.1", harness.PORT))
        sock.setblocking(False)
        return await harness.connect(sock=sock)

    async def client(self):
        """One that was greeted."""
        client = await self.connected()
        await receive(client)
        return client

    def number(self):
        """A new one."""
        self._number += 1
        return self._number

    async def cpu_load(self, seconds):
        """The share of a processor that the daemon takes now."""
        before = self.daemon.cpu_seconds()
        await asyncio.sleep(seconds)
        return (self.daemon.cpu_seconds() - before) / seconds

    def _descriptors(self):
        return len(os.listdir(f"/proc/{self.daemon.pid}/fd"))

    async def descriptors(self):
        """How many the daemon keeps open. Each tick opens one for a moment."""
        looks = [self._descriptors()]
        while len(looks) < 3:
            await asyncio.sleep(0.005)
            looks.append(self._descriptors())
        return min(looks)

    async def has_descriptors(self, count):
        await eventually(lambda: self._descriptors() == count, 3, f"{count} descriptors")
