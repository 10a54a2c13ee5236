"""A WebSocket client that costs next to nothing: it only collects, and cuts what it has when all of it is there."""

import contextlib
import socket
import threading
import time

REQUEST = (b"GET / HTTP/1.1\r\nHost: localhost\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
           b"Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: AAAAAAAAAAAAAAAAAAAAAA==\r\n\r\n")
BINARY = 0x82


class RawClient:
    """Made, it has been greeted: it gets all that comes from then on."""

    def __init__(self, port):
        self.data = bytearray()
        self.socket = socket.create_connection(("127.0.0.1", port), 20)
        self.socket.settimeout(None)
        self.socket.sendall(REQUEST)
        threading.Thread(target=self._collect, daemon=True).start()
        self._wait_greeted(20)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.shutdown(socket.SHUT_RDWR)
        self.socket.close()

    def _collect(self):
        with contextlib.suppress(ConnectionError):
            while data := self.socket.recv(1 << 20):
                self.data += data

    def _wait_greeted(self, limit):
        deadline = time.monotonic() + limit
        while b'{"hello"' not in self.data:
            assert time.monotonic() < deadline, f"not greeted within {limit} s: {bytes(self.data)!r}"
            time.sleep(0.01)

    def values(self):
        """The payloads of the binary messages, which must be shorter than 126 bytes."""
        at = self.data.index(b"\r\n\r\n") + 4
        values = []
        while at + 2 <= len(self.data):
            opcode, length = self.data[at:at + 2]
            assert length < 126
            if opcode == BINARY:
                values.append(bytes(self.data[at + 2:at + 2 + length]))
            at += 2 + length
        return values
