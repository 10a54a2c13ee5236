"""Every frame of the bus as it is: by a schema that has a leaf of one byte for each byte of each frame.

What comes is one message for each frame, and in it as many bytes as the frame has. What it does not tell: empty frames,
of which nothing comes; bytes beyond the eighth; whether an identifier was an extended one, of which the lower eleven
bits count, and whether a frame was a remote or an error frame.
"""

from __future__ import annotations

import argparse
import asyncio
import contextlib
import signal
from collections.abc import AsyncIterator, Iterable, Iterator
from typing import Any, NamedTuple, Optional

from . import checks
from .client import Client
from .errors import SchemaError, VorbelError
from .schema import load_schema
from .session import Session
from .terminal import agreed, connected, counted, say

NODES, COMMANDS = 64, 32
BYTES = 8  # of a classic frame
QUIET = 0.05  # seconds, for what was on its way under the former schema
ENDING = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)

IDENTIFIERS = {f"{number:03X}": number for number in range(NODES * COMMANDS)}  # by the names of their groups


class Frame(NamedTuple):
    """What came of a frame: its identifier and its bytes, one at least."""

    identifier: int
    payload: bytes

    @property
    def node(self) -> int:
        return self.identifier % NODES

    @property
    def command(self) -> int:
        return self.identifier // NODES


def covering(nodes: Iterable[int] = range(NODES), commands: Iterable[int] = range(COMMANDS)) -> dict[str, Any]:
    """The schema for all frames of these nodes with these commands."""
    commands = list(commands)
    return {f"{command * NODES + node:03X}": {str(at): {"@mac": node, "@cmd": command, "@format": "C", "@skip": at}
                                              for at in range(BYTES)}
            for node in nodes for command in commands}


def frames_in(values: Any) -> Iterator[Frame]:
    """The frames that a message tells of. Values of another schema, which were on their way, are none."""
    if not isinstance(values, dict):
        return
    for name, members in values.items():
        if name in IDENTIFIERS and isinstance(members, dict) and "0" in members:
            with contextlib.suppress(TypeError, ValueError):
                yield Frame(IDENTIFIERS[name], bytes(members.values()))


class Former:
    """The schema that the daemon is given in the end: that of a file, or none. Raises SchemaError for one that would
    not be sent."""

    def __init__(self, path: Optional[str], check: bool = True) -> None:
        self.schema = load_schema(path) if path else {}
        if path and check:
            try:
                checks.check_or_raise(self.schema)
            except SchemaError as error:
                raise SchemaError.of(error.problems, path) from None
        self._told = f"the schema {path} is in force again" if path else "the daemon has no schema now"

    async def give_back(self, client: Client) -> None:
        """Unless somebody else has sent one meanwhile: theirs stays."""
        if not client.owns_schema:
            say("another client has sent a schema meanwhile, which stays in force")
            return
        try:
            await client.send_schema(self.schema, clear=True)
            await client.confirmed()
        except VorbelError as error:
            raise VorbelError(f"The schema was not put back, and the daemon may still have the one of this command: "
                              f"{error}") from None
        say(self._told)


@contextlib.asynccontextmanager
async def tapping(options: argparse.Namespace) -> AsyncIterator[Session]:
    """A session in which the frames come that the options name, once whoever is there has agreed to it. Signals that
    end programs cancel what is inside."""
    schema = covering(options.node or range(NODES), options.command or range(COMMANDS))
    former = Former(options.restore, options.check)
    client = Client(options.address, check=False, timeout=options.timeout, silent_after=None)
    with _cancelled_once():
        async with connected(client):
            if not options.yes and not await agreed(_question(len(schema))):
                raise VorbelError("Nothing was sent")
            async with tapped(client, schema, former):
                yield Session(client, note=say)


@contextlib.asynccontextmanager
async def tapped(client: Client, schema: dict[str, Any], former: Former) -> AsyncIterator[None]:
    """The schema is in force inside, and the former one again behind it, whatever ends what is inside."""
    try:
        await client.send_schema({}, clear=True)  # nothing of what was before is to come behind the next one
        await client.confirmed()
        async for _ in client.events(QUIET):
            pass
        await client.send_schema(schema)
        await client.confirmed()
        yield
    finally:
        await former.give_back(client)


@contextlib.contextmanager
def _cancelled_once() -> Iterator[None]:
    """The first signal that is to end the program cancels the task; others do not keep it from tidying up."""
    loop, task = asyncio.get_running_loop(), asyncio.current_task()

    def cancel() -> None:
        if task is not None and not task.cancelling():
            task.cancel()

    for number in ENDING:
        loop.add_signal_handler(number, cancel)
    try:
        yield
    finally:
        for number in ENDING:
            loop.remove_signal_handler(number)


def _question(endpoints: int) -> str:
    """Whether all clients may lose their schema for a while."""
    return ("The daemon has one schema for all its clients. This replaces it by one for "
            f"{counted(endpoints, 'endpoint')}\n"
            "as long as it runs: meanwhile the others get none of their own values, and cannot write any.")
