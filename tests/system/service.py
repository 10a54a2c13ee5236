"""The service in the guest, and its clients outside."""

import asyncio
import json
import re
import time

import msgpack
import websockets

WAIT_LISTENING = """
for i in $(seq 100); do ss -Hltn 'sport = 10443' | grep -q . && break; sleep 0.1; done
ss -Hltn 'sport = 10443' | grep -q .
"""
START = f"""
cp /host/settings /etc/default/vorbel
systemctl restart vorbel
{WAIT_LISTENING}
systemctl show --value -P InvocationID vorbel
"""
JOURNAL = "journalctl --follow --lines=all --unit=vorbel --output=json --all >/host/journal 2>&1 &"


class Service:
    def __init__(self, guest):
        self.guest = guest
        self.invocation = None
        self.journal = guest.share / "journal"
        if not self.journal.exists():
            guest.run(JOURNAL)

    def configure(self, *, debug=True, **variables):
        """Writes the environment file and restarts the service; returns when it listens."""
        if debug:
            variables["QT_LOGGING_RULES"] = "*.debug=true"
        lines = "".join(f"{name}={value}\n" for name, value in variables.items())
        (self.guest.share / "settings").write_text(lines)
        self.invocation = self.guest.run(START).strip()

    def wait_listening(self):
        self.guest.run(WAIT_LISTENING, limit=120)

    def property(self, name):
        return self.guest.run(f"systemctl show --value -P {name} vorbel").strip()

    def pid(self):
        return int(self.property("MainPID"))

    def entries(self):
        """What the daemon has logged since it was last configured, as the journal has it."""
        complete = self.journal.read_text(errors="replace").rpartition("\n")[0].splitlines()
        return [entry for entry in map(json.loads, complete)
                if entry.get("_SYSTEMD_INVOCATION_ID") == self.invocation and entry.get("_COMM") == "vorbel"]

    def timeline(self):
        """(the guest's time in seconds, line) of all that it logged."""
        return [(int(entry["__REALTIME_TIMESTAMP"]) / 1e6, entry["MESSAGE"]) for entry in self.entries()]

    def first_line(self, since, pattern, limit=20):
        """When it first logged such a line from a moment of the guest's on."""
        deadline = time.monotonic() + limit
        while True:
            for at, line in self.timeline():
                if at >= since and re.fullmatch(pattern, line):
                    return at
            assert time.monotonic() < deadline, f"waited for {pattern!r}, but got:\n" + "\n".join(self.log())
            time.sleep(0.1)

    def log(self):
        return [entry["MESSAGE"] for entry in self.entries()]

    def wait_for_log(self, pattern, count=1, limit=30):
        """Waits until `count` of the daemon's lines match as a whole."""
        deadline = time.monotonic() + limit
        while self.count(pattern) < count:
            assert time.monotonic() < deadline, f"waited for {count} x {pattern!r}, but got:\n" + "\n".join(self.log())
            time.sleep(0.1)

    def count(self, pattern):
        return sum(1 for line in self.log() if re.fullmatch(pattern, line))

    async def reachable(self, limit=8):
        """Whether a client outside gets an answer."""
        try:
            async with websockets.connect(f"ws://127.0.0.1:{self.guest.port}", open_timeout=limit):
                return True
        except (asyncio.TimeoutError, OSError, websockets.InvalidMessage):
            return False

    def connect(self):
        return Client(self.guest.port)


class Client:
    """A WebSocket client on the host. Values and hellos are kept apart, each in their order."""

    def __init__(self, port):
        self.uri = f"ws://127.0.0.1:{port}"
        self.hellos = []

    async def __aenter__(self):
        # The service gives up on a handshake after five seconds; a busy emulated machine may take longer.
        for attempts_left in reversed(range(5)):
            try:
                self.socket = await websockets.connect(self.uri, max_size=None, ping_interval=None, open_timeout=20)
                return self
            except (asyncio.TimeoutError, OSError, websockets.InvalidMessage):
                if not attempts_left:
                    raise

    async def __aexit__(self, *_):
        await self.socket.close()

    async def send_schema(self, schema):
        await self.socket.send(json.dumps(schema))
        await self.round_trip()

    async def send(self, values):
        await self.socket.send(msgpack.packb(values))

    async def round_trip(self):
        """Returns once the daemon has handled everything that was sent before."""
        await asyncio.wait_for(await self.socket.ping(), 30)

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
