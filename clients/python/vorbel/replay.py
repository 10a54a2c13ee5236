"""The command that plays logs of frames onto a bus, and recordings of values to clients."""

import argparse
import asyncio
import collections
import pathlib
from collections.abc import Iterator
from typing import Any, Optional

from .caninterface import CanInterface
from .canlog import Log, only
from .client import Hello, Values
from .errors import VorbelError
from .keyboard import has_keyboard
from .player import anything
from .recording import FORMATS, origin_of, read_recording
from .replaying import add_options, described, left_out_text, play, player_of, problem_of
from .standin import PORT, StandIn
from .terminal import agreed, counted, say

UNKNOWN = Hello("unknown")  # as a daemon that was told nothing of its device


def add_arguments(command: argparse.ArgumentParser) -> None:
    command.add_argument("file", metavar="FILE", help="a log of candump -l, .asc, .blf or .trc; for --serve a "
                         ".jsonl or .csv file of the command record")
    target = command.add_mutually_exclusive_group(required=True)
    target.add_argument("--interface", metavar="NAME", help="send the frames to this CAN interface, such as vcan0")
    target.add_argument("--serve", action="store_true",
                        help="send recorded values to clients that connect here, in place of a daemon")
    command.add_argument("--port", type=_port, default=PORT, metavar="N",
                         help="with --serve: where clients connect (default %(default)s)")
    command.add_argument("-y", "--yes", action="store_true", help="send frames to an interface without asking")
    add_options(command)


def _port(text: str) -> int:
    if not (text.isdecimal() and 0 < int(text) < 65536):
        raise argparse.ArgumentTypeError("must be a number from 1 to 65535")
    return int(text)


async def replay(options: argparse.Namespace) -> int:
    """Returns the exit status. Being interrupted is how a person ends a loop."""
    problem = problem_of(options) or _misfit(options)
    if problem:
        options.refuse(problem)
    try:
        return await (_serve(options) if options.serve else _send(options))
    except asyncio.CancelledError:
        if not options.loop:
            raise
        return 0


def _misfit(options: argparse.Namespace) -> str:
    """Why the file does not go with the options."""
    is_recording = pathlib.Path(options.file).suffix in FORMATS
    if options.serve and not is_recording:
        return (f"{options.file} has frames, and clients take values, which a daemon makes of them: play it with "
                "--interface onto the CAN interface of a daemon, and send that the schema")
    if options.interface and is_recording:
        return f"{options.file} has values, and a bus takes frames: --serve sends the values to clients"
    if options.serve and options.nodes:
        return "--node is for frames: a recording does not tell of which node its values are"
    if options.interface and not (options.yes or has_keyboard()):
        return "frames move machines: --yes agrees to that where nobody can be asked"
    return ""


async def _send(options: argparse.Namespace) -> int:
    log = Log(options.file)
    player = player_of(options, log.frames, only(options.nodes))
    with CanInterface(options.interface) as interface:
        if not (options.yes or await agreed(
                f"vorbel-cli: {options.file} goes to {options.interface} ({described(options)}): whatever is on that "
                "bus obeys these frames, and machines may move.")):
            raise VorbelError("Nothing was sent")
        try:
            await play(player, interface, log.frames, "frame")
        finally:
            say(summary(player.taken, interface.left_out, log))
    return 0 if player.taken else 1


def summary(frames: int, left_out: "collections.Counter[str]", log: Log) -> str:
    """What became of the frames of a log."""
    unread = f"; {counted(log.left_out, 'line')} of the file could not be read as frames" if log.left_out else ""
    return f"{counted(frames - sum(left_out.values()), 'frame')} sent{left_out_text(left_out)}{unread}"


async def _serve(options: argparse.Namespace) -> int:
    def read() -> Iterator[Values]:
        return messages(options.file)

    player = player_of(options, read, anything)
    if options.file.endswith(".csv"):
        say("a .csv file has what the readings mean: clients with a schema that scales them would do so again")
    async with StandIn(options.port, origin_of(options.file).hello or UNKNOWN, say) as standin:
        say(f"in place of a daemon at port {options.port}; it begins with the first client")
        await standin.somebody_came.wait()
        try:
            await play(player, standin, read, "message")
        finally:
            say(f"{counted(player.taken, 'message')} sent")
    return 0 if player.taken else 1


def messages(path: str) -> Iterator[Values]:
    """The values of a recording as they came: those of a .csv file that have the same time were one message."""
    if not path.endswith(".csv"):
        yield from read_recording(path)
        return
    pending: Optional[Values] = None
    for values in read_recording(path):
        if pending is not None:
            if pending.time == values.time and _merge(pending.data, values.data):
                continue
            yield pending
        pending = values
    if pending is not None:
        yield pending


def _merge(whole: Any, part: Any) -> bool:
    """Puts a value with its names into a message; false if it has one there, or no names."""
    while isinstance(whole, dict) and isinstance(part, dict):
        ((name, part),) = part.items()
        if name not in whole:
            whole[name] = part
            return True
        whole = whole[name]
    return False
