"""Whose schema the daemon has. It has one for all clients, and who sent it last owns it: whoever finds that it was
replaced does not send it again by itself, or clients with different schemas would take turns, and whom the values of a
message go to would be chance."""

from __future__ import annotations

import asyncio
from collections.abc import Callable, Mapping
from dataclasses import dataclass, field
from time import time as now
from typing import TYPE_CHECKING, Any, Literal, Optional

from . import paths
from .schema import is_leaf

if TYPE_CHECKING:
    from websockets.legacy.client import WebSocketClientProtocol

TICK = 1.0  # seconds
USUAL = 3  # a silence is usual where there was one of a third of it before

State = Literal["kept", "resent", "replaced", "silent", "heard"]
TEXTS: dict[State, str] = {
    "kept": "the daemon still has the schema",
    "resent": "the schema was sent again",
    "replaced": "another client has replaced the schema, which is not sent again by itself",
    "silent": "another client may have replaced or cleared the schema, which is not sent again by itself",
    "heard": "the schema is in force as before",
}


@dataclass(frozen=True)
class SchemaChanged:
    """What became of the schema that this client sent.

    After a reconnection: "kept", not sent again because its values come; "resent", because nothing came.
    At any time: "replaced" by another client; "silent", replaced or cleared maybe; "heard" again after a silence.
    """

    state: State
    reason: str
    time: float = field(default_factory=now)

    @property
    def is_restored(self) -> bool:
        """Whether the schema only is in force again as it was before the connection was lost."""
        return self.state in ("kept", "resent")

    def __str__(self) -> str:
        return f"{TEXTS[self.state]}: {self.reason}"


async def pass_tick(connection: WebSocketClientProtocol) -> None:
    """Returns after a second and the daemon's answer, behind which there is nothing left that it sent before.

    So neither a program that blocks its event loop nor a link that stalls is taken for the daemon's silence.
    """
    await asyncio.sleep(TICK)
    await (await connection.ping())


class Ownership:
    """Of one schema that this client sends: whether it is the one that the daemon has.

    `tell` is called with what becomes of it. `silent_after` is how many seconds of silence may mean that another
    client has replaced it; None: none do.
    """

    def __init__(self, schema: Mapping[str, Any], silent_after: Optional[float],
                 tell: Callable[[State, str], None]) -> None:
        self.is_owned = True  # this client sends it to a daemon that has none
        self.is_sent = False
        self.is_confirmed = False  # the daemon has handled it: no value of another one before is still on its way
        self.is_listening = False  # for whether a daemon that was found again still has it
        self._schema = schema
        self._silent_after = silent_after
        self._tell = tell
        self._is_silent = False
        self._forget_rhythm()

    @property
    def is_in_force(self) -> bool:
        """Whether values that come are of this schema, as far as it can be known."""
        return self.is_owned and self.is_confirmed

    def begin(self) -> None:
        """It goes out."""
        self.is_sent = True
        self.is_confirmed = self.is_listening = False
        self._forget_rhythm()

    def confirm(self) -> None:
        """The daemon has answered behind it."""
        self.is_confirmed = True

    def resume(self) -> None:
        """A connection begins to a daemon that may have it."""
        self.is_listening = self.is_owned

    def heard(self, values: Any) -> None:
        """Values have come."""
        if not self.is_confirmed or not (self.is_owned or self._is_silent):
            return
        stranger = _stranger_in(self._schema, values)
        if stranger is None:
            self._heard_own(values)
        else:
            self._heard_stranger(stranger)

    def tick(self) -> None:
        """A second has passed in which all was heard that came."""
        self._silence += 1
        if self.is_owned and self._is_unusual(self._silence):
            self._is_silent = True
            self._disown("silent", f"none of its values has come for {self._silence * TICK:g} s")

    def _forget_rhythm(self) -> None:
        self._silence = self._longest = 0  # ticks without a message that does not wait for a change
        self._regular = 0  # such messages: after two of them, the next can be late

    def _is_unusual(self, silence: int) -> bool:
        if self._silent_after is None or self._regular < 2:
            return False
        return silence * TICK >= self._silent_after and silence >= USUAL * self._longest

    def _heard_stranger(self, names: tuple[str, ...]) -> None:
        path = paths.shown(paths.join(map(str, names)))
        self._is_silent = False
        self._disown("replaced", f"a value comes that it does not have, {path or 'one without a name'}")

    def _heard_own(self, values: Any) -> None:
        if self.is_listening:
            self.is_listening = False
            self._tell("kept", "its values come")
        if self._is_silent:
            self._is_silent, self.is_owned = False, True
            self._tell("heard", "its values come again")
        self._follow_rhythm(values)

    def _follow_rhythm(self, values: Any) -> None:
        is_known = self._regular > 1 and self._silence == 0  # in this tick: looking once will do
        if is_known or not _comes_with_every_frame(self._schema, values):
            return
        if self._regular > 0:
            self._longest = max(self._longest, self._silence)
        self._regular += 1
        self._silence = 0

    def _disown(self, state: State, reason: str) -> None:
        self.is_owned = self.is_listening = False
        self._tell(state, reason)


def _stranger_in(node: Any, value: Any, names: tuple[str, ...] = ()) -> Optional[tuple[str, ...]]:
    """The names that lead to the first value of a message that a schema does not have; None if it has them all."""
    if not isinstance(node, dict):
        return names
    if not isinstance(value, dict):
        return None if is_leaf(node) else names
    for name, member in value.items():
        stranger = _stranger_in(node.get(name), member, (*names, name))
        if stranger is not None:
            return stranger
    return None


def _comes_with_every_frame(node: Mapping[str, Any], value: Any) -> bool:
    """Whether a message, of which the schema has all, has a value that does not wait for a change."""
    if not isinstance(value, dict):
        return not node.get("@observe", False)
    return any(_comes_with_every_frame(node[name], member) for name, member in value.items())
