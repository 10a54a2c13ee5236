"""The connection to a daemon: kept up, with whatever comes over it as a stream of events."""

from __future__ import annotations

import asyncio
import collections
import contextlib
import json
import logging
import os
import random
import re
import time
import urllib.parse
from collections.abc import AsyncIterator, Generator, Iterator, Sequence
from dataclasses import dataclass, field
from typing import TYPE_CHECKING, Any, Optional, Union

import websockets
import websockets.uri
from websockets.exceptions import (ConnectionClosed, ConnectionClosedError, InvalidHandshake, InvalidURI,
                                   WebSocketException)

from . import checks, paths, wire, writing
from .errors import ConnectError, Problem, WriteError
from .meaning import Meanings, Meant
from .readings import LastReadings
from .ownership import Ownership, SchemaChanged, State, pass_tick
from .pulse import DOUBTED_AFTER, INTERVAL, LOST_AFTER, Pulse, ask
from .schema import MESSAGE_LIMIT as SENT_LIMIT, Source, load_schema, to_text
from .writing import Written

if TYPE_CHECKING:
    from websockets.legacy.client import WebSocketClientProtocol

PORT = 10443
HELLO_TIMEOUT = 10.0  # seconds from connecting to the hello
MESSAGE_LIMIT = 32 * 1024 * 1024  # the daemon drops a client that leaves half of this unread
EVENTS_KEPT = 4096  # for a program that does not keep up

log = logging.getLogger("vorbel")


@dataclass(frozen=True)
class Hello:
    """The daemon greets: after connecting, and again whenever a client connects or its adapter is reopened."""

    type: str
    id: Optional[str] = None

    def __str__(self) -> str:
        return paths.shown(f"type {self.type}" + (f", id {self.id}" if self.id is not None else ""))


@dataclass(frozen=True)
class Values:
    """One message of values: `data` is nested as the schema is; `time` is when it came, as of time.time()."""

    data: Any
    time: float = field(default_factory=time.time)

    def flat(self) -> dict[str, Any]:
        """{dotted path: value}"""
        return paths.flatten(self.data)


@dataclass(frozen=True)
class Undecodable:
    """A message that is no complete value, with its bytes.

    Some leaf with "@format": "c" and "@flushSize" makes such messages; the next message may be well again.
    """

    message: bytes
    reason: str
    time: float = field(default_factory=time.time)

    def __str__(self) -> str:
        beginning = self.message[:32].hex(" ") + (" ..." if len(self.message) > 32 else "")
        return f"cannot decode a message of {len(self.message)} bytes ({self.reason}): {beginning or 'empty'}"


@dataclass(frozen=True)
class Disconnected:
    """There is no connection; the next attempt comes in `retry_in` seconds."""

    reason: str
    retry_in: float
    time: float = field(default_factory=time.time)


Event = Union[Hello, Values, Undecodable, Disconnected, SchemaChanged]


def connect(address: str = "localhost", **options: Any) -> Client:
    """`async with connect(...) as client`: connected and greeted inside. Or `client = await connect(...)`, and
    `await client.close()` in the end. The options are Client's."""
    return Client(address, **options)


def uri_of(address: str) -> str:
    """The URI for "host", "host:port" or a URI."""
    if "://" in address:
        return address
    if address.count(":") > 1 and "[" not in address:
        address = f"[{address}]"  # IPv6, bare
    has_port = address.rpartition("]")[2].count(":") == 1
    return f"ws://{address}" if has_port else f"ws://{address}:{PORT}"


def _checked(uri: str) -> str:
    """The URI. Raises ConnectError for what no attempt could ever reach."""
    try:
        websockets.uri.parse_uri(uri)
    except (ValueError, InvalidURI) as error:
        raise ConnectError(without_password(f"{uri} is no address of a daemon: {error}", uri)) from None
    return uri


def without_password(text: str, uri: str) -> str:
    """A text without the password that a URI has: messages end up in logs and on screens."""
    password = urllib.parse.urlsplit(uri).password
    return text.replace(f":{password}@", ":***@") if password else text


class Client:
    """One connection, which comes back by itself with growing pauses until the client is closed.

    Events are kept for one consumer. When it falls behind, the oldest are dropped and counted in `lost`: values
    are readings of a live bus, and a client that stops reading would be dropped by the daemon.

    `schema` is a file or a dict; it is sent after the first hello, and then holds for all clients of that daemon. A
    daemon that was restarted has forgotten it: it is sent again after a second in which none of its values comes,
    unless another client has replaced it, see SchemaChanged. `silent_after` seconds without any of its values, which
    came regularly before, may mean that, too; None: they never do. `check` False sends it whatever is wrong with it,
    and values as they are. `timeout` is how many seconds to wait for a connection on entering and in confirmed();
    None: for ever. `trouble` says why there was no connection last.
    """

    def __init__(self, address: str = "localhost", *, schema: Optional[Source] = None, check: bool = True,
                 timeout: Optional[float] = 10.0, pauses: tuple[float, float] = (0.2, 10.0),
                 silent_after: Optional[float] = 10.0) -> None:
        self._whole_uri = _checked(uri_of(address))
        self.uri = without_password(self._whole_uri, self._whole_uri)  # for messages
        self.timeout = timeout
        self.hello: Optional[Hello] = None
        self.schema: Optional[dict[str, Any]] = None
        self.lost = 0
        self._check = check
        self._pauses = pauses
        self._silent_after = silent_after
        self.trouble = "no answer yet"
        self._schema_text = ""
        self.meanings = Meanings(None)
        self._readings = LastReadings(Meanings(None))
        self._ownership: Optional[Ownership] = None
        self._socket: Optional[WebSocketClientProtocol] = None
        self._pulse: Optional[Pulse] = None
        self._ready = asyncio.Event()
        self._events: collections.deque[Event] = collections.deque()
        self._arrived = asyncio.Event()
        self._task: Optional[asyncio.Task[None]] = None
        if schema is not None:
            self._adopt(schema)

    # Life

    async def __aenter__(self) -> Client:
        if self._task is None:
            self._task = asyncio.create_task(self._stay_connected())
            self._task.add_done_callback(lambda _: self._arrived.set())
        try:
            await self.connected()
        except BaseException:
            await self.close()
            raise
        return self

    async def __aexit__(self, *_: object) -> None:
        await self.close()

    def __await__(self) -> Generator[Any, None, Client]:
        """`client = await connect(...)`, for those who close() it themselves."""
        return self.__aenter__().__await__()

    async def connected(self) -> None:
        """Returns when connected, greeted and, if there is a schema of this client's, the daemon has been sent it or
        has one already. Raises ConnectError."""
        task = self._require_task()
        waiting = asyncio.create_task(self._ready.wait())
        await asyncio.wait({waiting, task}, timeout=self.timeout, return_when=asyncio.FIRST_COMPLETED)
        waiting.cancel()
        self._raise_failure()
        if not self._ready.is_set():
            raise ConnectError(f"No daemon at {self.uri} within {self.timeout:g} s: {self.trouble}")

    async def close(self) -> None:
        """Ends the connection and the stream of events."""
        task = self._require_task()
        while not task.done():  # what is called in there may swallow the cancellation
            task.cancel()
            await asyncio.wait({task}, timeout=5)

    # What comes

    async def events(self, seconds: Optional[float] = None) -> AsyncIterator[Event]:
        """Hello, Values, Undecodable, Disconnected and SchemaChanged, in the order in which they happened; until
        closed, or for some seconds."""
        deadline = None if seconds is None else time.monotonic() + seconds
        while True:
            while self._events:
                yield self._events.popleft()
            left = None if deadline is None else deadline - time.monotonic()
            self._raise_failure()
            if self._is_over() or (left is not None and left <= 0):
                return
            self._arrived.clear()
            with contextlib.suppress(TimeoutError):
                async with asyncio.timeout(left):
                    await self._arrived.wait()

    async def values(self, flat: bool = False) -> AsyncIterator[Any]:
        """The values of each message, nested or by dotted path. What else happens goes to the log "vorbel"."""
        async for event in self.events():
            if isinstance(event, Values):
                yield event.flat() if flat else event.data
            elif isinstance(event, Undecodable):
                log.warning("%s", event)
            elif isinstance(event, Disconnected):
                log.warning("%s; next attempt in %.1f s", event.reason, event.retry_in)
            elif isinstance(event, SchemaChanged):
                log.log(logging.INFO if event.is_restored else logging.WARNING, "%s", event)

    async def meant(self) -> AsyncIterator[dict[str, Meant]]:
        """{dotted path: what the reading means} of each message, of those values that count in it. What else happens
        goes to the log, as for values()."""
        async for data in self.values():
            yield self.meanings.flat(data)

    # What goes

    @property
    def owns_schema(self) -> bool:
        """Whether this client's schema is the last that was sent, as far as it can be known: only then it is sent
        again."""
        return self._ownership is not None and self._ownership.is_owned

    async def send_schema(self, schema: Source, clear: bool = False) -> list[Problem]:
        """Replaces the schema for all clients of the daemon, which makes it this client's, and returns the warnings
        about it. One without leaves is refused unless it is to `clear` the one in force."""
        warnings = self._adopt(schema, clear)
        await self.connected()
        if self._ownership and not self._ownership.is_sent:
            with self._loss_told():
                await self._send_schema(self._require_connection())
        return warnings

    async def write(self, values: dict[str, Any]) -> list[Written]:
        """Writes nested values to the bus and returns which numbers went out.

        With a schema they are checked first: WriteError instead of what the daemon would only log or ignore. Scaled
        ones are sent so that the daemon, which multiplies in single precision and cuts off, writes the nearest raw
        number. Nothing comes back when they were written; confirmed() tells when the daemon has handled them.

        They go out now or never: without a connection, or while the daemon does not answer, ConnectError is raised.
        """
        message = writing.Message(values)
        if self._check and self.schema is not None:
            message = writing.prepare(self.schema, values, self._readings.of)
        try:
            data = wire.encode(message.values)
        except ValueError as error:
            raise WriteError(f"Not written: {error}") from None
        if len(data) > SENT_LIMIT:
            raise WriteError(f"Not written: the daemon takes no message of more than 4 MiB, this has {len(data)}")
        self._refuse_doubtful()
        await self._send(data)
        self._readings.wrote(message.written)
        return message.written

    async def set(self, path: Union[str, Sequence[str]], value: Any) -> Optional[Written]:
        """Writes one value by its path, or by its names; returns which number went out, if one is known to have. What
        selects it by its "when" goes out with it."""
        names = paths.split(path) if isinstance(path, str) else tuple(path)
        written = await self.write(writing.with_selectors(self.meanings.leaves, names, value))
        return next((each for each in written if each.leaf.names == names), None)

    async def confirmed(self) -> None:
        """Returns when the daemon has handled everything that was sent before: it answers in that order."""
        await self.connected()
        try:
            async with asyncio.timeout(self.timeout):
                await (await self._require_connection().ping())
        except (ConnectionClosed, TimeoutError, ConnectionError):
            raise ConnectError(f"{self.uri} did not confirm what was sent; nothing says whether it arrived") from None

    # Inside

    def _require_task(self) -> asyncio.Task[None]:
        if self._task is None:
            raise ConnectError("The client was not connected: use it as `async with` or after `await`")
        return self._task

    def _is_over(self) -> bool:
        """Whether nothing can come any more."""
        return self._require_task().done()

    def _raise_failure(self) -> None:
        """Raises what ended the connecting, if anything but close() did."""
        task = self._require_task()
        if task.done() and not task.cancelled():
            task.result()

    def _require_connection(self) -> WebSocketClientProtocol:
        """Raises ConnectionError while there is none."""
        if self._socket is None:
            raise ConnectionError
        return self._socket

    def _refuse_doubtful(self) -> None:
        """Raises ConnectError when what is sent now might arrive late, or not at all."""
        self._raise_failure()
        if self._pulse is None:
            raise ConnectError(f"Not written: there is no connection to {self.uri}: {self.trouble}")
        if self._pulse.is_doubtful:
            raise ConnectError(f"Not written: {self.uri} has not answered for {DOUBTED_AFTER * INTERVAL:g} s")
        if not self._ready.is_set():
            raise ConnectError(f"Not written: {self.uri} is back, but whether it has the schema is not known yet")

    def _adopt(self, schema: Source, clear: bool = False) -> list[Problem]:
        schema = load_schema(schema)
        warnings = checks.check_or_raise(schema, clear) if self._check else []
        self._schema_text = to_text(schema)
        self.schema = schema
        self.meanings = Meanings(schema)
        self._readings = LastReadings(self.meanings)
        self._ownership = Ownership(schema, self._silent_after, self._tell_schema)
        self._settle()
        return warnings

    async def _send(self, message: bytes) -> None:
        with self._loss_told():
            connection = self._require_connection()
            await connection.send(message)
            if not connection.open:  # what waits for room is let go when the connection is dropped
                raise ConnectionError

    async def _send_schema(self, connection: WebSocketClientProtocol) -> None:
        if self._ownership:
            self._ownership.begin()
            text, confirm = self._schema_text, self._ownership.confirm
            await connection.send(text)
            await ask(connection, confirm)

    @contextlib.contextmanager
    def _loss_told(self) -> Iterator[None]:
        try:
            yield
        except (ConnectionClosed, ConnectionError):
            raise ConnectError(f"The connection to {self.uri} ended while sending; "
                               "nothing says whether the message arrived") from None

    async def _stay_connected(self) -> None:
        shortest, longest = self._pauses
        pause = shortest
        while True:
            started = time.monotonic()
            self.trouble = await self._one_connection()
            if time.monotonic() - started > longest:
                pause = shortest
            # Clients that lost one daemon together should not come back together.
            retry_in = pause * random.uniform(0.5, 1)
            self._emit(Disconnected(self.trouble, retry_in))
            await asyncio.sleep(retry_in)
            pause = min(2 * pause, longest)

    async def _one_connection(self) -> str:
        """Talks until the connection ends, and returns why it did."""
        try:
            connection = websockets.connect(  # type: ignore[attr-defined]
                self._whole_uri, max_size=MESSAGE_LIMIT, compression=None, open_timeout=10, close_timeout=1,
                ping_interval=None)
            async with connection as socket:
                await self._listen(socket, await self._greet(socket))
            return "the daemon ended the connection"
        except TimeoutError:
            return "it does not answer in time"
        except (OSError, ValueError, WebSocketException) as error:
            if self._pulse is not None and self._pulse.is_lost:
                return f"the daemon has not answered for {LOST_AFTER * INTERVAL:g} s"
            return _description(error)
        finally:
            self._socket = self._pulse = None
            self._ready.clear()
            self._readings.forget()

    async def _listen(self, socket: WebSocketClientProtocol, pulse: Pulse) -> None:
        watching = [asyncio.create_task(pulse.watch()), asyncio.create_task(self._watch_schema(socket))]
        try:
            async for message in socket:
                pulse.heard()
                self._take(message)
        finally:
            for each in watching:
                each.cancel()

    async def _watch_schema(self, connection: WebSocketClientProtocol) -> None:
        with contextlib.suppress(ConnectionClosed):
            while True:
                await pass_tick(connection)
                if self._is_listening:
                    await self._send_schema(connection)
                    self._tell_schema("resent", "none of its values came, and a restarted daemon has none")
                    self._settle()
                elif self._ownership:
                    self._ownership.tick()

    @property
    def _is_listening(self) -> bool:
        return self._ownership is not None and self._ownership.is_listening

    def _settle(self) -> None:
        """Lets those go on who wait for a connection, once nothing is in doubt about the daemon's schema."""
        if self._socket is not None and not self._is_listening:
            self._ready.set()

    def _tell_schema(self, state: State, reason: str) -> None:
        if state == "replaced":
            self._readings.forget()
        self._emit(SchemaChanged(state, reason))

    async def _greet(self, socket: WebSocketClientProtocol) -> Pulse:
        """From now on there is a connection."""
        async with asyncio.timeout(HELLO_TIMEOUT):
            message = await socket.recv()
        if _hello_in(message) is None:
            raise ValueError(f"no Vorbel daemon: it greets with {message[:60]!r}")
        self._take(message)
        await self._restore_schema(socket)
        self._socket = socket
        self._pulse = pulse = Pulse(socket)
        self._settle()
        return pulse

    async def _restore_schema(self, socket: WebSocketClientProtocol) -> None:
        """What the daemon is known to have had, it may have still, or another client's that was sent later."""
        if self._ownership and self._ownership.is_confirmed:
            self._ownership.resume()
        else:
            await self._send_schema(socket)

    def _take(self, message: Union[str, bytes]) -> None:
        """A text is a hello; other texts are for clients of another time."""
        if isinstance(message, str):
            hello = _hello_in(message)
            if hello:
                self.hello = hello
                self._emit(hello)
            return
        try:
            data = wire.decode(message)
        except ValueError as error:
            self._emit(Undecodable(message, str(error)))
            return
        if self._ownership:
            self._ownership.heard(data)
            self._settle()
            if self._ownership.is_in_force:
                self._readings.heard(data)
        self._emit(Values(data))

    def _emit(self, event: Event) -> None:
        if len(self._events) == EVENTS_KEPT:
            self._events.popleft()
            self.lost += 1
        self._events.append(event)
        self._arrived.set()


def _hello_in(message: Union[str, bytes]) -> Optional[Hello]:
    try:
        device = json.loads(message)["hello"]
        return Hello(device["type"], device.get("id"))
    except (ValueError, TypeError, KeyError, AttributeError):
        return None


def _description(error: BaseException) -> str:
    if isinstance(error, ConnectionClosedError) and error.rcvd is None:
        return "the connection broke"
    if isinstance(error, InvalidHandshake):
        return f"something else than a Vorbel daemon answers ({error})"
    if refused := re.search(r"\[Errno (\d+)\] Connect call failed", str(error)):  # maybe at several addresses
        return os.strerror(int(refused[1]))
    return getattr(error, "strerror", None) or str(error) or type(error).__name__
