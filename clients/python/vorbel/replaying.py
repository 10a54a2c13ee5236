"""Plays a log or a recording to a target: with its times, or as a person at the keyboard wants it."""

import argparse
import asyncio
import collections
import contextlib
import math
from collections.abc import Iterator
from typing import Any, Callable, Generic, Optional, Protocol, TypeVar

from .keyboard import Keys, has_keyboard, keyboard
from .player import E, Player, duration
from .terminal import Progress, counted

JUMP = 10.0  # seconds that the arrow keys go
PATIENCE = 1.0  # seconds for finding out how long a log is
TURN = 50  # entries that are sent before keys and signals have a turn
GLANCE = 0.2  # seconds between two looks at what is shown
KEYS_HELP = "space pauses, the arrows go 10 s back or on, . sends one, + and - change the speed, q ends"

Sent = TypeVar("Sent", contravariant=True)


class Target(Protocol[Sent]):
    """Where the entries go."""

    left_out: collections.Counter[str]  # what it cannot take, by kind

    async def send(self, entry: Sent) -> None:
        """Waits for room."""


def add_options(command: argparse.ArgumentParser) -> None:
    command.add_argument("--speed", type=_speed, default=1.0, metavar="N",
                         help="so many times as fast as it was recorded, or max: as fast as it is taken (default 1)")
    command.add_argument("--step", action="store_true", help="begin paused: the key . sends one after the other")
    command.add_argument("--loop", action="store_true", help="begin again at the end, until interrupted")
    command.add_argument("--from", dest="start", type=_place, default=0.0, metavar="SECONDS",
                         help="begin so many seconds after the first entry")
    command.add_argument("--to", dest="stop", type=_place, default=math.inf, metavar="SECONDS",
                         help="end so many seconds after the first entry")
    command.add_argument("--node", dest="nodes", action="append", type=_node, default=[], metavar="N",
                         help="only frames of this node; any number of times")


def problem_of(options: argparse.Namespace) -> Optional[str]:
    """What is wrong with the options together."""
    if options.start >= options.stop:
        return "--to must be behind --from"
    if options.step and not has_keyboard():
        return "--step needs a terminal: each frame is sent by a key"
    return None


def described(options: argparse.Namespace) -> str:
    """What of a log is played, and how, in words."""
    nodes = ", ".join(map(str, options.nodes))
    parts = [f"only node {nodes}" if nodes else "all frames",
             f"from {options.start:g} s" if options.start else "",
             f"to {options.stop:g} s" if math.isfinite(options.stop) else "",
             "one for each key" if options.step else f"at {_speed_text(options.speed)}",
             "over and over" if options.loop else ""]
    return ", ".join(filter(None, parts))


def player_of(options: argparse.Namespace, read: Callable[[], Iterator[E]],
              wanted: Callable[[E], bool]) -> "Player[E]":
    return Player(read, wanted=wanted, start=options.start, stop=options.stop, speed=options.speed,
                  loop=options.loop, paused=options.step)


class Controls(Generic[E]):
    """What the keys of a terminal do to a player."""

    def __init__(self, player: "Player[E]") -> None:
        self.player = player
        self.has_quit = False
        self.pressed = asyncio.Event()
        self._keys = Keys()
        self._actions: dict[str, Callable[[], None]] = {
            " ": player.pause,
            ".": player.step,
            "+": lambda: player.accelerate(2),
            "-": lambda: player.accelerate(0.5),
            "q": self._quit,
            "\x04": self._quit,
            **dict.fromkeys(("\x1b[C", "\x1bOC"), lambda: player.seek(player.position + JUMP)),
            **dict.fromkeys(("\x1b[D", "\x1bOD"), lambda: player.seek(player.position - JUMP)),
        }

    def typed(self, characters: str) -> None:
        """Other keys mean nothing."""
        for character in characters:
            action = self._actions.get(self._keys.gather(character))
            if action:
                action()
        self.pressed.set()

    def _quit(self) -> None:
        self.has_quit = True


async def play(player: "Player[E]", target: Target[E], read: Callable[[], Iterator[E]], unit: str) -> None:
    """Until the end, or until a person ends it. On a terminal it shows where it is and takes keys."""
    progress = Progress(timed=False)
    controls = Controls(player)
    length = duration(read(), PATIENCE) if progress.can_be_shown else None
    with contextlib.ExitStack() as stack:
        stack.callback(progress.end)
        if has_keyboard():
            stack.enter_context(keyboard(controls.typed))
            progress.note(KEYS_HELP)
        while not (player.has_ended or controls.has_quit):
            await _take_turn(player, target, controls)
            progress.show(state_of(player, length, unit))


async def _take_turn(player: "Player[E]", target: Target[E], controls: Controls[E]) -> None:
    """Sends what is due, or waits a moment for it."""
    for _ in range(TURN):
        entry = player.take()
        if entry is None:
            break
        await target.send(entry)
    if player.has_ended:
        return
    controls.pressed.clear()
    with contextlib.suppress(asyncio.TimeoutError):
        await asyncio.wait_for(controls.pressed.wait(), min(player.until_next(), GLANCE))


def state_of(player: "Player[Any]", length: Optional[float], unit: str) -> str:
    """A line about how far it is."""
    whole = f" of {_clock_text(length)}" if length is not None else ""
    pause = ", paused" if player.is_paused else ""
    return (f"{_clock_text(player.position)}{whole}, {_speed_text(player.speed)}, "
            f"{counted(player.taken, unit)}{pause}")


def left_out_text(kinds: "collections.Counter[str]") -> str:
    """Which were not sent, behind how many were."""
    return f"; not sent: {', '.join(f'{kind} ({number})' for kind, number in kinds.items())}" if kinds else ""


def _clock_text(seconds: float) -> str:
    minutes, rest = divmod(seconds, 60)
    return f"{int(minutes):02}:{rest:04.1f}"


def _speed_text(speed: float) -> str:
    return "full speed" if math.isinf(speed) else f"speed {speed:g}"


def _speed(text: str) -> float:
    speed = math.inf if text == "max" else _number(text)
    if not speed > 0:
        raise argparse.ArgumentTypeError("must be a number above 0, or max")
    return speed


def _place(text: str) -> float:
    place = _number(text)
    if not 0 <= place < math.inf:
        raise argparse.ArgumentTypeError("must be a number of seconds, from 0 on")
    return place


def _node(text: str) -> int:
    if not text.isdecimal() or int(text) > 63:
        raise argparse.ArgumentTypeError("must be a number from 0 to 63")
    return int(text)


def _number(text: str) -> float:
    try:
        number = float(text)
    except ValueError:
        return math.nan
    return number if math.isfinite(number) else math.nan
