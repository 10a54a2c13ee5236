"""A broker that acknowledges when a test wants it to, and passes nothing on. It speaks MQTT 3.1.1 and 5, as its client
does (OASIS, "MQTT Version 3.1.1" and "MQTT Version 5.0", chapter 3)."""

import contextlib
import json
import socket
import struct
import threading
from typing import NamedTuple

CONNECT, PUBLISH, PUBACK, SUBSCRIBE, PINGREQ, DISCONNECT = 1, 3, 4, 8, 12, 14
CLEAN = 2  # of CONNECT's flags


class Publish(NamedTuple):
    """A message with QoS 1. `connection` counts from 1, over all clients."""

    connection: int
    topic: str
    payload: bytes
    identifier: int

    @property
    def json(self):
        return json.loads(self.payload)


class ScriptedBroker:
    """`answer` is called with each Publish, in the thread of its connection: True acknowledges it, False does not, a
    number refuses it with that reason code, which only MQTT 5 has."""

    def __init__(self, answer):
        self.answer = answer
        self.published = []  # with QoS 1, as Publish
        self.said = []  # with QoS 0, as (topic, payload)
        self.version = None  # that its clients speak, 5 or 4 for 3.1.1
        self.began_anew = []  # of each connection, whether its client asked for no session that was there before
        self._clients = {}  # {connection: _Client}
        self._listening = socket.create_server(("127.0.0.1", 0))
        self.port = self._listening.getsockname()[1]
        threading.Thread(target=self._accept, daemon=True).start()

    @property
    def url(self):
        return f"mqtt://127.0.0.1:{self.port}"

    def batches(self, connection=None):
        """The n of all batches, in order of arrival; those of one connection, if it is given."""
        return [each.json["n"] for each in self.published
                if each.topic.endswith("/values") and connection in (None, each.connection)]

    def acknowledge(self, publish):
        self._clients[publish.connection].acknowledge(publish.identifier, 0)

    def cut(self, reason=None):
        """Ends all connections; in MQTT 5, a reason code may be told."""
        for client in list(self._clients.values()):
            client.end(reason)

    def close(self):
        with contextlib.suppress(OSError):
            self._listening.shutdown(socket.SHUT_RDWR)
        self._listening.close()
        self.cut()

    def _accept(self):
        with contextlib.suppress(OSError):
            while True:
                client = _Client(self, self._listening.accept()[0], len(self._clients) + 1)
                self._clients[client.number] = client
                threading.Thread(target=client.serve, daemon=True).start()


class _Client:
    def __init__(self, broker, connection, number):
        self.number = number
        self._broker, self._connection = broker, connection
        self._is_version_5 = False

    def serve(self):
        with contextlib.suppress(OSError, EOFError):
            while True:
                self._handle(*self._read_packet())
        self.end()

    def acknowledge(self, identifier, reason):
        with contextlib.suppress(OSError):
            self._send(PUBACK << 4, struct.pack(">HBB", identifier, reason, 0)[:4 if self._is_version_5 else 2])

    def end(self, reason=None):
        with contextlib.suppress(OSError):
            if reason and self._is_version_5:
                self._send(DISCONNECT << 4, bytes([reason, 0]))
            self._connection.shutdown(socket.SHUT_RDWR)
        self._connection.close()

    def _handle(self, head, body):
        kind = head >> 4
        if kind == CONNECT:
            self._broker.version = body[6]
            self._is_version_5 = body[6] == 5
            self._broker.began_anew.append(bool(body[7] & CLEAN))
            self._send(0x20, bytes(3 if self._is_version_5 else 2))
        elif kind == PUBLISH:
            self._take(body, head & 0x06)
        elif kind == SUBSCRIBE:
            self._send(0x90, body[:2] + bytes(2 if self._is_version_5 else 1))
        elif kind == PINGREQ:
            self._send(0xD0, b"")

    def _take(self, body, is_acknowledged):
        length = int.from_bytes(body[:2], "big")
        topic, rest = body[2:2 + length].decode(), body[2 + length:]
        identifier, payload = (int.from_bytes(rest[:2], "big"), rest[2:]) if is_acknowledged else (0, rest)
        if self._is_version_5:
            payload = payload[1 + payload[0]:]  # properties, of which there are few
        if not is_acknowledged:
            self._broker.said.append((topic, payload))
            return
        publish = Publish(self.number, topic, payload, identifier)
        self._broker.published.append(publish)
        answer = self._broker.answer(publish)
        if answer is not False:
            self.acknowledge(identifier, 0 if answer is True else answer)

    def _read_packet(self):
        """The first byte, and what follows the length."""
        head, length = self._read(1)[0], 0
        for shift in (0, 7, 14, 21):
            byte = self._read(1)[0]
            length |= (byte & 0x7F) << shift
            if byte < 0x80:
                break
        return head, self._read(length)

    def _read(self, size):
        data = b""
        while len(data) < size:
            more = self._connection.recv(size - len(data))
            if not more:
                raise EOFError
            data += more
        return data

    def _send(self, head, body):
        self._connection.sendall(bytes([head, len(body)]) + body)
