"""The terminal tool: what each of its commands takes."""

import argparse
import asyncio
import contextlib
import importlib
import io
import json
import os
import re
import shutil
import signal
import sys
import types
from collections.abc import Coroutine, Sequence
from typing import Any, Callable, Optional

from . import __version__, paths
from .checks import check, check_text
from .client import Client
from .discover import discover
from .dump import INTERFACE, default_log, dump
from .errors import SchemaError, VorbelError, WriteError, suggestion
from .exporting import export_file
from .history.past import add_arguments as add_history_arguments, history
from .importing import import_file
from .once import Observation, check_paths, parse_assignment, parse_expectation, report
from .plot import plot as plot_to_file, plot_recordings
from .record import record as record_to_files
from .recording import Recorder
from .replay import add_arguments as add_replay_arguments, replay
from .schema import leaves, load_schema, parse, read
from .session import Session, parse_value, sent_text
from .tap import COMMANDS, NODES
from .terminal import connected, counted, is_dumb, say
from .watch import NARROW, watch_lines
from .writing import Written

Options = argparse.Namespace
Command = Callable[[Options], Coroutine[Any, Any, int]]
INTERRUPTED = 130  # as shells have it, before what was asked for was done
GRID = 72  # columns that the grid of bytes needs
UNITS = {"": 1, "k": 1024, "M": 1024**2, "G": 1024**3}


def main(arguments: Optional[Sequence[str]] = None) -> int:
    _prepare_streams()
    try:
        return _run(arguments)
    except VorbelError as error:
        say(str(error))
        return 1
    except BrokenPipeError:  # whoever read our lines has had enough
        _drop_output()
        return 0
    except OSError as error:
        if not error.filename:
            _drop_output()
        say(f"{error.filename or 'standard output'}: {error.strerror or error}")
        return 1


def _run(arguments: Optional[Sequence[str]]) -> int:
    options = _parser().parse_args(arguments)
    command: Command = options.run
    try:
        return asyncio.run(command(options))
    except (KeyboardInterrupt, asyncio.CancelledError):
        return INTERRUPTED
    finally:
        sys.stdout.flush()


def _prepare_streams() -> None:
    """What they cannot show is escaped; those that are closed swallow everything."""
    for name in ("stdin", "stdout", "stderr"):
        stream = getattr(sys, name) or open(os.devnull, "r" if name == "stdin" else "w", encoding="utf-8")
        stream.reconfigure(errors="backslashreplace")
        setattr(sys, name, stream)


def _drop_output() -> None:
    """Python would complain once more on its way out about what could not be written."""
    os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())


# The commands


async def watch(options: Options) -> int:
    if options.once is not None:
        return await _watch_once(options)
    if options.set or options.expect:
        options.refuse("--set and --expect go with --once SECONDS")
    live = _live_module("live", options.plain)
    async with connected(_client(options)) as client:
        session = Session(client, note=say)
        session.title, session.filter = options.title, options.filter
        try:
            await (live.watch_live(session) if live else watch_lines(session))
        except asyncio.CancelledError:
            pass  # that is how a person ends it
    return 0


async def set_value(options: Options) -> int:
    async with connected(_client(options)) as client:
        value = parse_value(options.value)
        written = await _set(client, options.path, value)
        await client.confirmed()
    print(sent_text(options.path, value, written))
    if client.schema is None:
        say("not checked: the daemon ignores what its schema does not have; --schema FILE sends one and checks")
    return 0


async def _set(client: Client, path: str, value: Any) -> Optional[Written]:
    """Waits for the reading that a field of some bits needs."""
    try:
        return await client.set(path, value)
    except WriteError as error:
        if not error.is_early:
            raise
        early = error
    async for _ in client.events(client.timeout):
        with contextlib.suppress(WriteError):
            return await client.set(path, value)
    raise early


async def hello(options: Options) -> int:
    async with connected(_client(options)) as client:
        greeting = client.hello
        assert greeting is not None  # or there would be no connection
        print(f"type: {paths.shown(greeting.type)}")
        if greeting.id is not None:
            print(f"id: {paths.shown(greeting.id)}")
    return 0


async def schema_check(options: Options) -> int:
    text = read(options.file)
    problems = check_text(text)
    for problem in problems:
        print(problem)
    errors = sum(problem.is_error for problem in problems)
    warnings = len(problems) - errors
    all_leaves = leaves(parse(text)[0]).values()
    endpoints = {(json.dumps(leaf.mac), json.dumps(leaf.cmd)) for leaf in all_leaves}
    print(f"{options.file}: {counted(len(all_leaves), 'leaf', 'leaves')} on {counted(len(endpoints), 'endpoint')}, "
          f"{counted(errors, 'error')}, {counted(warnings, 'warning')}")
    return 1 if errors else 0


async def schema_import(options: Options) -> int:
    text = import_file(options.file, options.bus, _report)
    if isinstance(sys.stdout, io.TextIOWrapper):
        sys.stdout.reconfigure(encoding="utf-8")  # as schemas are, whatever the terminal takes
    print(text)
    return 0


async def schema_export(options: Options) -> int:
    text = read(options.schema)
    errors = [problem for problem in check_text(text) if problem.is_error]
    if errors:
        raise SchemaError("The schema was not exported:\n" + "\n".join(f"  {problem}" for problem in errors), errors)
    export_file(parse(text)[0], options.file, options.replace, _report)
    return 0


def _report(line: str) -> None:
    print(line, file=sys.stderr)


async def record(options: Options) -> int:
    client = _client(options, silent_after=None)  # nobody is there who would send it again in the morning
    recorder = Recorder(options.file, options.max_size, options.keep, options.append, client.meanings)
    return await record_to_files(client, recorder, options.seconds)


async def plot(options: Options) -> int:
    if options.recordings:
        return plot_recordings(options.recordings, options.paths, options.output,
                               load_schema(options.schema) if options.schema else None)
    return await plot_to_file(_client(options), options.paths, options.output, options.seconds)


async def discover_fields(options: Options) -> int:
    _refuse_to_ask_nobody(options)
    return await discover(options, _live_module("grid", options.plain, GRID))


async def dump_frames(options: Options) -> int:
    _refuse_to_ask_nobody(options)
    return await dump(options)


async def replay_log(options: Options) -> int:
    _end_by_signal()
    return await replay(options)


# What they share


def _refuse_to_ask_nobody(options: Options) -> None:
    if not options.yes and not sys.stdin.isatty():
        options.refuse("this replaces the schema of all clients for a while: --yes agrees to that where nobody can be "
                       "asked")


def _client(options: Options, **more: Any) -> Client:
    """The client for the options; warnings about its schema are told."""
    client = Client(options.address, schema=options.schema, check=options.check, timeout=options.timeout, **more)
    if options.check and client.schema is not None:
        for warning in check(client.schema):
            say(str(warning))
    _end_by_signal()
    return client


def _end_by_signal() -> None:
    """From here on being told to end is as good as Ctrl-C: files are closed, the terminal is as it was."""
    task = asyncio.current_task()
    if task is not None:
        asyncio.get_running_loop().add_signal_handler(signal.SIGTERM, task.cancel)


def _live_module(name: str, is_plain: bool, columns: int = NARROW) -> Optional[types.ModuleType]:
    """The module of a live table, or None where it cannot be: not on a terminal, on a dumb or narrow one, or without
    rich."""
    if is_plain or not (sys.stdin.isatty() and sys.stdout.isatty()):
        return None
    if is_dumb() or shutil.get_terminal_size().columns < columns:
        return None
    try:
        return importlib.import_module(f".{name}", __package__)
    except ImportError:
        say("plain lines instead of the live table, which needs rich: apt install python3-rich")
        return None


async def _watch_once(options: Options) -> int:
    client = _client(options)
    if options.check:
        check_paths(client, options.set, options.expect)
    async with connected(client):
        session = Session(client, note=say)
        session.filter = options.filter
        observation = Observation(session, options.set, options.expect)
        await observation.follow(options.once)
        lines, well = report(session, observation, options.expect, options.once)
    print("\n".join(lines))
    if session.table.messages == 0:
        say(session.silence())
    return 0 if well else 1


# The command line


class _Parser(argparse.ArgumentParser):
    """Proposes the nearest for a command that does not exist, and takes any number or time below 0 for a
    value."""

    def __init__(self, **options: Any) -> None:
        super().__init__(**options)
        self._negative_number_matcher = re.compile(r"-\d*\.?\d+([eE][-+]?\d+|[smhdw])?$")

    def _check_value(self, action: argparse.Action, value: Any) -> None:
        if action.choices is not None and value not in action.choices:
            known = list(action.choices)
            raise argparse.ArgumentError(
                action, f"there is no {value!r}{suggestion(str(value), known)}; there are: {', '.join(known)}")


def _parser() -> argparse.ArgumentParser:
    parser = _Parser(prog="vorbel-cli", description="Talks to a Vorbel daemon.")
    parser.add_argument("--version", action="version", version=f"vorbel-cli {__version__}")
    commands_of = parser.add_subparsers(metavar="COMMAND", required=True)

    def add(name: str, run: Command, text: str, connects: bool = True,
            of: "argparse._SubParsersAction[_Parser]" = commands_of) -> argparse.ArgumentParser:
        command = of.add_parser(name, help=text, description=text[0].upper() + text[1:] + ".")
        command.set_defaults(run=run, refuse=command.error)
        if connects:
            _add_connection(command)
        return command

    command = add("watch", watch, "show the values as they come; on a terminal as a table that takes commands")
    command.add_argument("--plain", action="store_true", help="lines instead of the table, as when piped")
    command.add_argument("--filter", default="", metavar="TEXT", help="only paths that contain the text")
    command.add_argument("--title", default="", metavar="TEXT", help="a text that stays above the table")
    command.add_argument("--once", type=_seconds, metavar="SECONDS",
                         help="print a summary after that time; the exit status is 1 if no values came, or one that "
                              "was expected did not")
    command.add_argument("--set", action="append", default=[], type=_typed(parse_assignment), metavar="PATH=VALUE",
                         help="with --once: write this once the first values have come")
    command.add_argument("--expect", action="append", default=[], type=_typed(parse_expectation),
                         metavar="PATH=VALUE[~TOLERANCE]", help="with --once: this must come after what --set wrote")

    command = add("set", set_value, "write one value to the bus")
    command.add_argument("path", metavar="PATH")
    command.add_argument("value", metavar="VALUE", help="as JSON, or text; a text that begins with - goes behind --")

    add("hello", hello, "print which device answers")

    schemas = commands_of.add_parser("schema", help="check, import or export a schema")
    of_schema = schemas.add_subparsers(metavar="COMMAND", required=True)
    command = add("check", schema_check, "say what is wrong with a schema; status 1 if it would not be sent",
                  connects=False, of=of_schema)
    command.add_argument("file", metavar="FILE")
    command = add("import", schema_import, "print the schema for a DBC, KCD, ARXML or SYM file, and on standard error "
                  "what became of each signal", connects=False, of=of_schema)
    command.add_argument("file", metavar="FILE")
    command.add_argument("--bus", metavar="NAME", help="which bus, of a file that describes several")

    command = add("export", schema_export, "write a DBC file for a schema; on standard error what became of each leaf",
                  connects=False, of=of_schema)
    command.add_argument("file", metavar="FILE.dbc")
    command.add_argument("-s", "--schema", metavar="FILE", default="/dev/stdin",
                         help="the schema (default: what comes on standard input)")
    command.add_argument("--replace", action="store_true", help="write over a file that exists")

    command = add("record", record, "write all values to a file, until interrupted")
    command.add_argument("file", metavar="FILE", help="NAME.jsonl (JSON Lines) or NAME.csv")
    command.add_argument("--max-size", type=_size, default=0, metavar="BYTES",
                         help="set the file aside at this size, such as 10M, and begin a new one")
    command.add_argument("--keep", type=_count, default=0, metavar="N",
                         help="keep only the last N of the files set aside")
    command.add_argument("--append", action="store_true", help="continue a file that exists")
    command.add_argument("--for", dest="seconds", type=_seconds, metavar="SECONDS", help="end after this time")

    command = add("plot", plot, "draw values over time")
    command.add_argument("paths", nargs="+", metavar="PATH")
    command.add_argument("-o", "--output", required=True, metavar="FILE.png")
    command.add_argument("--for", dest="seconds", type=_seconds, default=10, metavar="SECONDS",
                         help="how long to collect (default %(default)s)")
    command.add_argument("--from", dest="recordings", action="append", metavar="RECORDING",
                         help="draw what was recorded instead; once for each file, in their order. No daemon is "
                              "needed; --schema is not sent, but counts instead of the recording's own")

    _add_discover(add("discover", discover_fields, "show the bytes of every frame, and write a schema to begin with",
                      connects=False))
    _add_dump(add("dump", dump_frames, "write every frame as candump does", connects=False))
    add_replay_arguments(add("replay", replay_log, "play a log onto a CAN interface, or a recording to clients",
                             connects=False))
    add_history_arguments(add("history", history, "print or draw what the history has of a value", connects=False))
    return parser


def _add_connection(command: argparse.ArgumentParser) -> None:
    _add_daemon(command)
    command.add_argument("-s", "--schema", metavar="FILE", help="send this schema, which then holds for all clients")
    command.add_argument("--no-check", dest="check", action="store_false",
                         help="send schema and values even if something is wrong with them")


def _add_daemon(command: argparse.ArgumentParser) -> None:
    command.add_argument("-a", "--address", default="localhost", metavar="HOST[:PORT]",
                         help="where the daemon is (default %(default)s, port 10443), or its ws:// URI")
    command.add_argument("--timeout", type=_seconds, default=10, metavar="SECONDS",
                         help="how long to wait for the daemon (default %(default)s)")


def _add_discover(command: argparse.ArgumentParser) -> None:
    _add_tap(command)
    command.add_argument("-o", "--output", metavar="FILE", help="write a schema with the fields that were found")
    command.add_argument("--plain", action="store_true", help="only a summary in the end, as when piped")


def _add_dump(command: argparse.ArgumentParser) -> None:
    _add_tap(command)
    command.add_argument("-l", dest="log", nargs="?", const=default_log(), metavar="FILE",
                         help="write a log (default candump-DATE_TIME.log) instead of lines")
    command.add_argument("-L", dest="as_log", action="store_true", help="write lines as they are in a log")
    command.add_argument("-t", dest="stamps", default="", choices=("a", "d", "z", "A"),
                         help="a time before each line: absolute, delta, since the first (zero), or absolute with date")
    command.add_argument("-n", dest="count", type=_above_0, metavar="COUNT", help="end after so many frames")
    command.add_argument("--interface", default=INTERFACE, metavar="NAME",
                         help="the interface that lines and logs name (default %(default)s)")


def _add_tap(command: argparse.ArgumentParser) -> None:
    """What those commands share that replace the schema to see every frame."""
    _add_daemon(command)
    command.add_argument("--node", action="append", type=_below(NODES), metavar="N",
                         help="only frames of this node; any number of times")
    command.add_argument("--command", action="append", type=_below(COMMANDS), metavar="N",
                         help="only frames with this command; any number of times")
    command.add_argument("--for", dest="seconds", type=_seconds, metavar="SECONDS", help="end after this time")
    command.add_argument("--restore", metavar="FILE", help="the schema to put back in the end (default: none)")
    command.add_argument("--no-check", dest="check", action="store_false",
                         help="put it back even if something is wrong with it")
    command.add_argument("-y", "--yes", action="store_true",
                         help="do not ask whether all clients may lose their schema meanwhile")


def _typed(parse: Callable[[str], Any]) -> Callable[[str], Any]:
    """What cannot be parsed makes the command line a wrong one."""
    def parsed(text: str) -> Any:
        try:
            return parse(text)
        except VorbelError as error:
            raise argparse.ArgumentTypeError(str(error)) from None
    return parsed


def _seconds(text: str) -> float:
    try:
        seconds = float(text)
    except ValueError:
        seconds = 0
    if not 0 < seconds < float("inf"):
        raise argparse.ArgumentTypeError("must be a number above 0")
    return seconds


def _count(text: str) -> int:
    if not text.isdecimal():
        raise argparse.ArgumentTypeError("must be a whole number")
    return int(text)


def _above_0(text: str) -> int:
    number = _count(text)
    if number == 0:
        raise argparse.ArgumentTypeError("must be above 0")
    return number


def _below(limit: int) -> Callable[[str], int]:
    """Numbers in decimal or, behind 0x, in hexadecimal."""
    def parsed(text: str) -> int:
        with contextlib.suppress(ValueError):
            if 0 <= (number := int(text, 0)) < limit:
                return number
        raise argparse.ArgumentTypeError(f"must be a whole number from 0 to {limit - 1}")
    return parsed


def _size(text: str) -> int:
    match = re.fullmatch(r"(\d+)([kMG]?)", text)
    if not match:
        raise argparse.ArgumentTypeError("must be a number of bytes, with k, M or G behind it for larger units")
    return int(match[1]) * UNITS[match[2]]
