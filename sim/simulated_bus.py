#!/usr/bin/python3
"""Plays a small machine on a CAN bus: a motor, a battery and a door contact, or the frames of a log.

The machine is described by examples/machine.schema.json. Runs until Ctrl-C (or the end of the log).
"""

import argparse
import asyncio
import pathlib
import random
import select
import shlex
import signal
import sys
import time

from vorbelsim import canframe, links, nodes

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "clients" / "python"))
from vorbel import canlog, replaying  # noqa: E402
from vorbel.errors import VorbelError  # noqa: E402

PATIENCE = 30  # seconds for the daemon to come


class Ticker:
    """Calls functions at their own periods, and tells how long until the next is due."""

    def __init__(self, now: float):
        self._start = now
        self._due = []

    def add(self, period: float, function):
        self._due.append([self._start, period, function])

    def run(self, now: float):
        for entry in self._due:
            while entry[0] <= now:
                entry[0] += entry[1]
                entry[2]()

    def until_next(self, now: float) -> float:
        return max(0, min(entry[0] for entry in self._due) - now)


def pump(link, hear, timeout: float):
    """Waits up to `timeout` seconds for frames from the daemon and hands each to `hear`."""
    select.select(link.sockets(), (), (), timeout)
    for frame in link.receive():
        hear(frame)


def wait_for_daemon(link, seconds: float, announce):
    """Waits so long, and on until the daemon is there."""
    start = time.monotonic()
    while (waited := time.monotonic() - start) < seconds or not link.is_heard():
        if waited > seconds + PATIENCE:
            raise TimeoutError(f"no daemon came within {waited:.0f} s")
        pump(link, announce, 0.05)


def simulate(link, rng: random.Random, rate: float, announce):
    """The machine's life: physics in steps of 10 ms, telemetry `rate` times as often as the nodes intend."""
    machine = nodes.machine(rng)
    ticker = Ticker(time.monotonic())
    for node in machine:
        ticker.add(0.01, lambda node=node: node.step(0.01))
        for period, telemetry in node.telemetry:
            ticker.add(period / rate, lambda telemetry=telemetry: link.offer(telemetry()))

    def hear(frame):
        announce(frame)
        for node in machine:
            node.hear(frame)

    while True:
        ticker.run(time.monotonic())
        pump(link, hear, ticker.until_next(time.monotonic()))


class LinkTarget:
    """A link as what a log is played to. What it does not fit is counted by the link."""

    def __init__(self, link):
        self._link = link

    async def send(self, frame):
        self._link.send(canframe.CanFrame(frame.id, frame.data, frame.is_extended, frame.is_remote, frame.is_error,
                                          frame.is_fd))


async def replay(link, options, announce):
    """Plays a log as the options say, and hears what the daemon sends meanwhile. Returns the number of frames."""
    log = canlog.Log(options.replay)
    player = replaying.player_of(options, log.frames, canlog.only(options.nodes))
    listening = asyncio.create_task(listen(link, announce))
    try:
        await replaying.play(player, LinkTarget(link), log.frames, "frame")
    finally:
        listening.cancel()
    if log.left_out:
        print(f"lines that could not be read as frames: {log.left_out}", flush=True)
    return player.taken


async def listen(link, announce):
    while True:
        pump(link, announce, 0)
        await asyncio.sleep(0.02)


def arguments():
    parser = argparse.ArgumentParser(description=__doc__)
    link = parser.add_mutually_exclusive_group(required=True)
    link.add_argument("--adapter", metavar="DIR", help="play on a virtual serial adapter, kept in DIR")
    link.add_argument("--virtual-can", metavar="DIR", help="play on a virtual CAN bus, kept in DIR")
    link.add_argument("--can", metavar="INTERFACE", help="play on a CAN interface of this machine, such as vcan0")
    parser.add_argument("--env", action="store_true",
                        help="only print, as shell assignments, the environment with which the daemon finds the bus")
    parser.add_argument("--rate", type=positive, default=1, help="telemetry at so many times its usual rate")
    parser.add_argument("--noise", type=float, default=0.02, metavar="SHARE",
                        help="share of the adapter's records that follow a few garbage bytes (default %(default)s)")
    parser.add_argument("--seed", type=int, help="make the machine's randomness repeatable")
    parser.add_argument("--replay", metavar="LOG",
                        help="send the frames of a log instead, as `vorbel-cli replay` does: of candump -l, .asc, .blf "
                             "or .trc, with the options of that command below")
    replaying.add_options(parser)
    parser.add_argument("--wait", type=float, default=0, metavar="SECONDS",
                        help="wait so long before, and on virtual hardware until the daemon is there")
    parser.add_argument("--quiet", action="store_true", help="do not print the frames that the daemon sends")
    options = parser.parse_args()
    if problem := replaying.problem_of(options):
        parser.error(problem)
    return options


def positive(text: str) -> float:
    number = float(text)
    if number <= 0:
        raise argparse.ArgumentTypeError("must be above 0")
    return number


def make_link(options, rng: random.Random):
    if options.adapter:
        return links.AdapterLink(options.adapter, rng, 0 if options.replay else options.noise)
    if options.virtual_can:
        return links.VirtualCanLink(options.virtual_can)
    return links.SocketCanLink(options.can)


def announce_to(stream):
    def announce(frame):
        print(f"bus heard mac {frame.mac} cmd {frame.cmd}: {frame.payload.hex(' ')}", file=stream, flush=True)

    return announce


def run(options):
    rng = random.Random(options.seed)
    link = make_link(options, rng)
    if options.env:
        for name, value in link.env().items():
            print(f"export {name}={shlex.quote(value)}")
        return
    announce = (lambda frame: None) if options.quiet else announce_to(sys.stdout)
    with link:
        if options.wait > 0:
            wait_for_daemon(link, options.wait, announce)
        if not options.replay:
            simulate(link, rng, options.rate, announce)
        count = asyncio.run(replay(link, options, announce))
        link.finish()
        print(f"replayed {count} frames, {link.unsuitable} of them not fit for this link", flush=True)


def interrupted(*_):
    raise KeyboardInterrupt


def main() -> int:
    signal.signal(signal.SIGTERM, interrupted)
    try:
        run(arguments())
    except KeyboardInterrupt:
        pass
    except (OSError, ValueError, VorbelError) as error:
        print(f"simulated_bus: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
