"""Writing lines to the database over HTTP."""

import base64
import http.client
import socket
import ssl
from collections.abc import Sequence
from typing import Optional
from urllib.parse import urlsplit

from .settings import Database as Address

TIMEOUT = 20.0  # seconds for an answer
POISON = (400, 413, 422)  # of these, the lines are to blame, and not the way to the database


class Away(Exception):
    """The database has not taken anything, and why. `may_have_ended` says that it may have been killed."""

    def __init__(self, reason: str, may_have_ended: bool = True) -> None:
        super().__init__(reason)
        self.may_have_ended = may_have_ended


class Poison(Exception):
    """The database does not take these lines, whatever one does, and why."""


class Database:
    """One connection, which is made when it is needed and kept: one that ends without notice means that the database
    may have ended, too."""

    def __init__(self, address: Address) -> None:
        url = urlsplit(address.url)
        self._host, self._port, self._is_secure = url.hostname or "", url.port, url.scheme == "https"
        self._target = f"{url.path or '/'}?{url.query + '&' if url.query else ''}precision=ms"
        self._headers = {"Content-Type": "text/plain; charset=utf-8"}
        if address.user:
            word = base64.b64encode(f"{address.user}:{address.password}".encode()).decode()
            self._headers["Authorization"] = f"Basic {word}"
        self._tls = _tls(address) if self._is_secure else None
        self._connection: Optional[http.client.HTTPConnection] = None

    def write(self, lines: bytes) -> None:
        """Returns when the database has taken them. Raises Away or Poison."""
        try:
            connection = self._connected()
            connection.request("POST", self._target, lines, self._headers)
            answer = connection.getresponse()
            text = answer.read(4096)
            if not answer.isclosed():  # more words than anybody reads
                self.close()
        except (OSError, http.client.HTTPException) as error:
            self.close()
            raise Away(_words(error)) from None
        if answer.will_close:
            self._renew()
        if 200 <= answer.status < 300:
            return
        reason = f"{answer.status} {answer.reason}: {_first_line(text)}"
        raise Poison(reason) if answer.status in POISON else Away(reason, answer.status >= 500)

    def close(self) -> None:
        if self._connection is not None:
            self._connection.close()
        self._connection = None

    def _renew(self) -> None:
        """At once, so that its end is noticed as the former one's would have been."""
        self.close()
        try:
            self._connected()
        except OSError:
            pass  # the next one to write is told

    def _connected(self) -> http.client.HTTPConnection:
        if self._connection is None:
            connection = (http.client.HTTPSConnection(self._host, self._port, timeout=TIMEOUT, context=self._tls)
                          if self._is_secure else
                          http.client.HTTPConnection(self._host, self._port, timeout=TIMEOUT))
            connection.connect()
            connection.sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            connection.auto_open = 0  # it would come back unnoticed
            self._connection = connection
        return self._connection


def _tls(address: Address) -> ssl.SSLContext:
    context = ssl.create_default_context(cafile=address.ca or None)
    if address.certificate:
        context.load_cert_chain(address.certificate, address.key)
    return context


def _words(error: Exception) -> str:
    if isinstance(error, TimeoutError):
        return f"no answer within {TIMEOUT:.0f} s"
    if isinstance(error, http.client.HTTPException):
        return f"its answer is none ({type(error).__name__})"
    return getattr(error, "strerror", None) or str(error)


def _first_line(text: bytes) -> str:
    lines = text.decode("utf-8", "replace").strip().splitlines() or [""]
    return "".join(character if character.isprintable() else "?" for character in lines[0][:200])


def join(lines: Sequence[tuple[str, int]]) -> bytes:
    return "".join([f"{text} {time}\n" for text, time in lines]).encode()
