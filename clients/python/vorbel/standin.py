"""A stand-in for the daemon, which sends what was recorded to clients."""

import array
import asyncio
import collections
import contextlib
import json
import math
import os
from typing import Any, Callable, Optional

import msgpack
import websockets
from websockets.exceptions import ConnectionClosed

from .client import Hello, Values
from .errors import VorbelError
from .wire import ARRAYS

PORT = 10443
LARGEST = 4 << 20  # bytes of a message from a client
PATIENCE = 20.0  # seconds for a client that does not read
INTEGERS = (18, 20, 22, 19, 21)  # extensions of whole numbers, those that are tried first at the front
FLOATS = 23


class StandIn:
    """Greets each client and sends it the values that are sent from then on, as the daemon does. What clients send is
    of no effect; of the first that write it is told. Inside `async with` it listens."""

    def __init__(self, port: int, hello: Hello, note: Callable[[str], None]) -> None:
        self.left_out: collections.Counter[str] = collections.Counter()
        self.somebody_came = asyncio.Event()
        self._port = port
        self._hello = json.dumps({"hello": {"type": hello.type, **({} if hello.id is None else {"id": hello.id})}})
        self._note = note
        self._has_told = False
        self._clients: set[Any] = set()
        self._server: Optional[Any] = None

    async def __aenter__(self) -> "StandIn":
        try:
            self._server = await websockets.serve(  # type: ignore[attr-defined]
                self._welcome, None, self._port, compression=None, ping_interval=None, max_size=LARGEST)
        except OSError as error:
            raise VorbelError(f"port {self._port} cannot be listened on, perhaps as a daemon does: "
                              f"{os.strerror(error.errno)}; --port names another") from None
        return self

    async def __aexit__(self, *_: object) -> None:
        """Clients have all that was sent before."""
        if self._server is not None:
            self._server.close()
            await self._server.wait_closed()

    async def send(self, values: Values) -> None:
        await self._send_to_all(message_of(values.data))

    async def _welcome(self, client: Any) -> None:
        """The hello comes first to the new one, and then again to the others."""
        await client.send(self._hello)
        await self._send_to_all(self._hello)
        self._clients.add(client)
        self.somebody_came.set()
        try:
            async for message in client:
                self._hear(message)
        except ConnectionClosed:
            pass
        finally:
            self._clients.discard(client)

    def _hear(self, message: Any) -> None:
        if isinstance(message, bytes) and not self._has_told:
            self._has_told = True
            self._note("a client writes values, which go nowhere: there is no bus behind a recording")

    async def _send_to_all(self, message: Any) -> None:
        """Waits for those that read slowly; one that does not read at all is dropped."""
        for client in list(self._clients):
            with contextlib.suppress(ConnectionClosed):
                try:
                    async with asyncio.timeout(PATIENCE):
                        await client.send(message)
                except TimeoutError:
                    self._clients.discard(client)
                    client.transport.abort()


def message_of(values: Any) -> bytes:
    """The binary message with these values, in the forms that the daemon sends."""
    message: bytes = msgpack.packb(values, use_single_float=True, default=_extension)
    return message


def _extension(elements: Any) -> Any:
    """A recording does not say of which type an array was: whole numbers become the narrowest that holds them."""
    if not isinstance(elements, array.array):
        raise TypeError(f"{type(elements).__name__} is none of what the daemon sends")
    code = next(filter(lambda code: _holds(code, elements), INTEGERS), FLOATS)
    type_code = ARRAYS[code][0]
    converted: "array.array[Any]" = array.array(type_code, elements if code == FLOATS else map(int, elements))
    return msgpack.ExtType(code, _little_endian(converted))


def _holds(code: int, elements: "array.array[Any]") -> bool:
    bits = 8 * array.array(ARRAYS[code][0]).itemsize
    lowest = -(1 << bits - 1) if ARRAYS[code][0].islower() else 0
    return all(math.isfinite(each) and each.is_integer() and lowest <= each < lowest + (1 << bits)
               for each in elements)


def _little_endian(elements: "array.array[Any]") -> bytes:
    if array.array("H", [1]).tobytes() != b"\x01\x00":
        elements.byteswap()
    return elements.tobytes()
