"""A server that says the same to whoever connects, so that clients are measured and nothing else."""

import base64
import contextlib
import hashlib
import json
import socket
import struct
import threading
import time

import msgpack

PORT = 10443
LINE_RATE = 9090  # messages a second at 1,000,000 baud
BURST = 9  # messages in a millisecond
SCHEMA = {"motor": {"speed": {"@mac": 5, "@cmd": 2, "@format": "s"},
                    "current": {"@mac": 5, "@cmd": 2, "@format": "S", "@skip": 2, "@factor": 100},
                    "enabled": {"@mac": 5, "@cmd": 2, "@format": "C", "@skip": 4, "@asBool": True}}}
MESSAGE = msgpack.packb({"motor": {"current": 7.25, "enabled": True, "speed": -1200}}, use_single_float=True)
FRAME = b"\x82" + bytes([len(MESSAGE)]) + MESSAGE
HELLO = json.dumps({"hello": {"type": "bench"}}).encode()
MANY, FEW = 2000, 100  # messages that are sent at once
ACCEPT = b"258EAFA5-E914-47DA-95CA-C5AB0DC85B11"


class Source:
    """Serves one client at a time: greets it, answers its pings, and sends it messages until it goes. `send` is how:
    one of the functions below."""

    def __init__(self, send):
        self._send = send
        self._listener = socket.create_server(("127.0.0.1", PORT))
        self._thread = threading.Thread(target=self._serve, daemon=True)
        self._thread.start()

    def close(self):
        self._listener.shutdown(socket.SHUT_RDWR)
        self._thread.join(10)
        self._listener.close()

    def _serve(self):
        with contextlib.suppress(OSError):
            while True:
                with self._listener.accept()[0] as client, contextlib.suppress(ConnectionError):
                    client.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
                    self._send(Connection(client))


class Connection:
    """One client, greeted. `ponged` is released whenever it answers a ping."""

    def __init__(self, client):
        self._client = client
        self._stream = client.makefile("rb")
        self._sending = threading.Lock()
        self.ponged = threading.Semaphore(0)
        _upgrade(client, self._stream)
        self.send(b"\x81" + bytes([len(HELLO)]) + HELLO)
        threading.Thread(target=self._listen, daemon=True).start()

    def send(self, data):
        with self._sending:
            self._client.sendall(data)

    def _listen(self):
        """Answers pings, and passes over all else that a client says."""
        with contextlib.suppress(ConnectionError, ValueError, struct.error):
            while True:
                opcode, payload = _frame(self._stream)
                if opcode == 9:
                    self.send(b"\x8a" + bytes([len(payload)]) + payload)
                elif opcode == 10:
                    self.ponged.release()


def at_line_rate(connection):
    """Each message by itself, as they come on the line."""
    started, sent = time.monotonic(), 0
    while True:
        for _ in range(BURST):
            connection.send(FRAME)
        sent += BURST
        time.sleep(max(0, started + sent / LINE_RATE - time.monotonic()))


def as_taken(connection):
    """As fast as the client reads."""
    while True:
        connection.send(FRAME * MANY)


def in_step(connection):
    """Messages when those before have been taken: what piles up is the same whatever the load."""
    while True:
        connection.send(FRAME * FEW + b"\x89\0")
        if not connection.ponged.acquire(timeout=10):
            return


def _upgrade(client, stream):
    key = b""
    while line := stream.readline().strip():
        name, _, value = line.partition(b": ")
        if name.lower() == b"sec-websocket-key":
            key = value
    accept = base64.b64encode(hashlib.sha1(key + ACCEPT).digest())
    client.sendall(b"HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                   b"Sec-WebSocket-Accept: " + accept + b"\r\n\r\n")


def _frame(stream):
    first, length = struct.unpack(">BB", stream.read(2))
    length &= 0x7F
    if length == 126:
        (length,) = struct.unpack(">H", stream.read(2))
    mask = stream.read(4)
    payload = bytes(byte ^ mask[at % 4] for at, byte in enumerate(stream.read(length)))
    return first & 0x0F, payload
