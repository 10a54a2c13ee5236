"""The service in the guest, and its clients outside."""

import asyncio
import json
import re
import time

import msgpack
import websockets


class Service:
    def __init__(self, guest):
        self.guest = guest

    def configure(self, *, debug=True, **variables):
        """Writes the environment file and restarts the service; returns when it listens."""
        if debug:
            variables["QT_LOGGING_RULES"] = "*.debug=true"
        lines = "".join(f"{name}={value}\n" for name, value in variables.items())
        (self.guest.share / "settings").write_text(lines)
        self.guest.run("cp /host/settings /etc/default/vorbel; systemctl restart vorbel")
        self.wait_listening()

    def wait_listening(self):
        # The forwarded port accepts in any case; what counts is who listens inside.
        self.guest.run("for i in $(seq 100); do ss -Hltn 'sport = 10443' | grep -q . && exit; sleep 0.1; done; exit 1")

    def pid(self):
        return int(self.property("MainPID"))

    def property(self, name):
        return self.guest.run(f"systemctl show --value -P {name} vorbel").strip()

    def log(self):
        """The lines that the daemon has logged since it was last started."""
        return self.guest.run(f"journalctl -o cat --no-pager _COMM=vorbel _SYSTEMD_INVOCATION_ID="
                              f"{self.property('InvocationID')} || true").splitlines()

    def wait_for_log(self, pattern, count=1, limit=15):
        """Waits until `count` of the daemon's lines match as a whole; returns all lines."""
        deadline = time.monotonic() + limit
        while True:
            lines = self.log()
            if sum(1 for line in lines if re.fullmatch(pattern, line)) >= count:
                return lines
            assert time.monotonic() < deadline, f"waited for {count} x {pattern!r}, but got:\n" + "\n".join(lines)
            time.sleep(0.2)

    def connect(self):
        return Client(self.guest.port)


class Client:
    """A WebSocket client on the host. Values and hellos are kept apart, each in their order."""

    def __init__(self, port):
        self.uri = f"ws://127.0.0.1:{port}"
        self.hellos = []

    async def __aenter__(self):
        self.socket = await websockets.connect(self.uri, max_size=None, ping_interval=None, open_timeout=20)
        return self

    async def __aexit__(self, *_):
        await self.socket.close()

    async def send_schema(self, schema):
        await self.socket.send(json.dumps(schema))
        await self.round_trip()

    async def send(self, values):
        await self.socket.send(msgpack.packb(values))

    async def round_trip(self):
        """Returns once the daemon has handled everything that was sent before."""
        await asyncio.wait_for(await self.socket.ping(), 20)

    async def hello(self, limit=20):
        if not self.hellos:
            message = await asyncio.wait_for(self.socket.recv(), limit)
            assert isinstance(message, str), f"a value instead of a hello: {message!r}"
            self.hellos.append(message)
        return self.hellos.pop(0)

    async def value(self, limit=20):
        """The next value; hellos before it are kept."""
        deadline = time.monotonic() + limit
        while True:
            message = await asyncio.wait_for(self.socket.recv(), max(0.01, deadline - time.monotonic()))
            if isinstance(message, bytes):
                return msgpack.unpackb(message)
            self.hellos.append(message)

    async def values(self, count, limit=60):
        return [await self.value(limit) for _ in range(count)]

    async def value_of(self, cause, interval=0.5, limit=20):
        """Calls `cause` until a value comes of it: links that are just opening lose what reaches them."""
        deadline = time.monotonic() + limit
        while True:
            cause()
            try:
                return await self.value(interval)
            except asyncio.TimeoutError:
                assert time.monotonic() < deadline, f"no value within {limit} s"
