"""The terminal tool's replay, onto an interface, onto the virtual bus and to clients."""

import array
import asyncio
import errno
import json
import signal
import socket
import subprocess
import time

import can
import msgpack
import pytest
import websockets

import harness
import vorbel
from bridges import PROJECT, TOOL
from screen import Terminal
from test_canlog import ALL, FD, REMOTE, STANDARD, START, written
from vorbel import caninterface, canlog, standin
from vorbel.caninterface import CanInterface
from vorbel.canlog import Frame
from vorbel.errors import VorbelError
from vorbelsim import CanFrame, canframe

SIMULATED_BUS = PROJECT / "sim" / "simulated_bus.py"
ERROR = Frame(1.75, 4, bytes(8), is_error=True)


def log_of(path, frames):
    """As candump -l writes it."""
    path.write_text("".join(f"({START + place:.6f}) can0 {frame}\n" for place, frame in frames))
    return path


def count_log(path, places):
    """Frames of node 5 that count from 0 on."""
    return log_of(path, [(place, f"085#{number:02X}") for number, place in enumerate(places)])


def line_of(frame):
    """As the stand-in below writes what it was given."""
    kinds = [name for name in ("is_extended", "is_remote", "is_error", "is_fd") if getattr(frame, name)]
    return " ".join([f"{frame.id:X}", frame.data.hex(), *kinds])


# To stand in for the kernel's interfaces, which not every machine has: what is sent goes into a file.
INTERFACE = '''
import json, sys
sys.path.remove({folder!r})
del sys.modules["can"]
import can
class Bus:
    def __init__(self, channel, interface, fd):
        if channel == "nosuch0":
            raise OSError(19, "No such device")
        assert (channel, interface, fd) == ("vcan0", "socketcan", True)
        self.file = open({sent!r}, "a")
    def send(self, message):
        kinds = [name for name in ("extended_id", "remote_frame", "error_frame", "fd")
                 if getattr(message, "is_" + name)]
        names = ["is_" + name.split("_")[0] for name in kinds]
        print(f"{{message.arbitration_id:X}}", message.data.hex(), *names, file=self.file, flush=True)
    def shutdown(self):
        print("closed", file=self.file, flush=True)
can.Bus = Bus
sys.modules["can"] = can
'''


@pytest.fixture
def interface(tmp_path):
    """The environment with an interface vcan0, and what was sent to it so far."""
    folder = tmp_path / "fake"
    folder.mkdir()
    sent = tmp_path / "sent"
    (folder / "can.py").write_text(INTERFACE.format(folder=str(folder), sent=str(sent)))

    class Interface:
        environment = {"PYTHONPATH": str(folder)}

        @staticmethod
        def sent():
            return sent.read_text().splitlines() if sent.exists() else []

    return Interface


@pytest.fixture
def replay(tool, interface):
    """replay(file, option...) plays it to its end onto vcan0."""
    def run(file, *options):
        return tool("replay", file, "--interface", "vcan0", "--yes", *options, **interface.environment)

    return run


# Onto an interface


@pytest.mark.parametrize("suffix, frames", [(".log", ALL), (".asc", ALL), (".blf", ALL), (".trc", ALL[:4])])
def test_each_format_goes_out_byte_for_byte_and_in_order(replay, interface, tmp_path, suffix, frames):
    file = written(tmp_path / f"drive{suffix}", frames)
    status, output, errors = replay(file, "--speed", "max")
    assert (status, output, errors) == (0, "", f"vorbel-cli: {len(frames)} frames sent\n")
    assert interface.sent() == [*map(line_of, frames), "closed"]


def test_error_frames_are_counted_and_not_sent(replay, interface, tmp_path):
    file = log_of(tmp_path / "drive.log", [(0, "085#01"), (0, "20000004#0000000000000000"), (0, "085#02")])
    assert replay(file)[2] == "vorbel-cli: 2 frames sent; not sent: error frames (1)\n"
    assert interface.sent() == ["85 01", "85 02", "closed"]


def test_full_speed_loses_nothing(replay, interface, tmp_path):
    file = log_of(tmp_path / "drive.log", [(3600 * number, f"085#{number:08X}") for number in range(20000)])
    assert replay(file, "--speed", "max")[::2] == (0, "vorbel-cli: 20000 frames sent\n")
    assert interface.sent()[:-1] == [f"85 {number:08x}" for number in range(20000)]


@pytest.mark.parametrize("options, seconds", [((), 2.0), (("--speed", "4"), 0.5)], ids=["own speed", "faster"])
def test_the_logs_times(replay, tmp_path, options, seconds):
    file = count_log(tmp_path / "drive.log", [0, 0.5, 2.0])
    began = time.monotonic()
    assert replay(file, *options)[0] == 0
    assert seconds <= time.monotonic() - began < 8 * seconds + 10


def test_a_range(replay, interface, tmp_path):
    file = count_log(tmp_path / "drive.log", range(10))
    assert replay(file, "--from", "3", "--to", "5", "--speed", "max")[2] == "vorbel-cli: 3 frames sent\n"
    assert interface.sent() == ["85 03", "85 04", "85 05", "closed"]


def test_only_some_nodes(replay, interface, tmp_path):
    file = log_of(tmp_path / "drive.log", [(0, "085#01"), (0, "086#02"), (0, "00000085#03"), (0, "047#04"),
                                           (0, "0C5#R"), (0, "20000005#00")])
    assert replay(file, "--node", "5", "--node", "7")[2] == "vorbel-cli: 3 frames sent\n"
    assert interface.sent() == ["85 01", "47 04", "C5  is_remote", "closed"]


def test_a_loop_until_interrupted(tool, interface, tmp_path):
    file = count_log(tmp_path / "drive.log", [0, 0.01, 0.02])
    process = tool.start("replay", file, "--interface", "vcan0", "--yes", "--loop", **interface.environment)
    harness.wait_until(lambda: len(interface.sent()) >= 8)
    process.send_signal(signal.SIGINT)
    _, errors = process.communicate(timeout=10)
    sent = interface.sent()
    assert process.returncode == 0 and errors == f"vorbel-cli: {len(sent) - 1} frames sent\n"
    assert sent[:7] == ["85 00", "85 01", "85 02"] * 2 + ["85 00"] and sent[-1] == "closed"


def test_a_loop_over_one_moment_is_refused(replay, tmp_path):
    status, _, errors = replay(count_log(tmp_path / "drive.log", [0]), "--loop")
    assert status == 1 and errors.splitlines()[-1].startswith("vorbel-cli: all that is to be repeated has one and the")


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM])
def test_interrupted(tool, interface, tmp_path, number):
    file = count_log(tmp_path / "drive.log", [0, 3600])
    process = tool.start("replay", file, "--interface", "vcan0", "--yes", **interface.environment)
    harness.wait_until(interface.sent)
    process.send_signal(number)
    assert process.communicate(timeout=10) == ("", "vorbel-cli: 1 frame sent\n") and process.returncode == 130
    assert interface.sent() == ["85 00", "closed"]


def test_nobody_is_there_to_be_asked(tool, interface, tmp_path):
    file = count_log(tmp_path / "drive.log", [0])
    status, _, errors = tool("replay", file, "--interface", "vcan0", **interface.environment)
    assert status == 2 and errors.endswith(
        "error: frames move machines: --yes agrees to that where nobody can be asked\n")
    assert interface.sent() == []


@pytest.mark.parametrize("answer, status, sent", [("y", 0, ["85 00", "closed"]), ("yes", 0, ["85 00", "closed"]),
                                                  ("n", 1, ["closed"]), ("", 1, ["closed"])])
def test_it_says_what_it_will_do_and_asks(terminal, interface, tmp_path, answer, status, sent):
    file = count_log(tmp_path / "drive.log", [0])
    screen = terminal("replay", file, "--interface", "vcan0", "--node", "5", "--to", "7", columns=300,
                      **interface.environment)
    screen.wait_for(f"{file} goes to vcan0 (only node 5, to 7 s, at speed 1): whatever is on that bus obeys these "
                    "frames, and machines may move.")
    screen.wait_for("Go on? [y/N] ")
    screen.type(answer + "\n")
    assert screen.end() == status and interface.sent() == sent
    assert ("Nothing was sent" in screen.seen) == (status == 1)


def test_the_question_is_interrupted(terminal, interface, tmp_path):
    screen = terminal("replay", count_log(tmp_path / "drive.log", [0]), "--interface", "vcan0", **interface.environment)
    screen.wait_for("[y/N] ")
    screen.type("\x03")
    assert screen.end() == 130 and interface.sent() == ["closed"]


def test_an_interface_that_is_not_there(tool, interface, tmp_path):
    file = count_log(tmp_path / "drive.log", [0])
    assert tool("replay", file, "--interface", "nosuch0", "--yes", **interface.environment) == (
        1, "", "vorbel-cli: the CAN interface nosuch0 cannot be used: [Errno 19] No such device\n")


@pytest.mark.parametrize("name, options, what", [("drive.blf", ("--interface", "vcan0", "--yes"), "a .blf file"),
                                                 ("drive.log", ("--interface", "vcan0", "--yes"), "--interface")])
def test_without_python_can(tool, missing, tmp_path, name, options, what):
    (tmp_path / name).touch()
    status, _, errors = tool("replay", tmp_path / name, *options, **missing("can"))
    assert (status, errors) == (1, f"vorbel-cli: {what} needs python-can: apt install python3-can\n")


@pytest.mark.parametrize("words, message", [
    (("--interface", "vcan0", "--yes", "--from", "5", "--to", "5"), "--to must be behind --from"),
    (("--interface", "vcan0", "--yes", "--step"), "--step needs a terminal: each frame is sent by a key"),
    (("--interface", "vcan0", "--speed", "0"), "argument --speed: must be a number above 0, or max"),
    (("--interface", "vcan0", "--speed", "nan"), "argument --speed: must be a number above 0, or max"),
    (("--interface", "vcan0", "--from", "-1"), "argument --from: must be a number of seconds, from 0 on"),
    (("--interface", "vcan0", "--node", "64"), "argument --node: must be a number from 0 to 63"),
    (("--serve", "--port", "0"), "argument --port: must be a number from 1 to 65535"),
    (("--serve", "--interface", "vcan0"), "not allowed with argument"),
    ((), "one of the arguments --interface --serve is required"),
    (("--serve",), "drive.log has frames, and clients take values, which a daemon makes of them: play it with "
                   "--interface onto the CAN interface of a daemon, and send that the schema"),
], ids=str)
def test_wrong_options(tool, words, message):
    status, _, errors = tool("replay", "drive.log", *words)
    assert status == 2 and message in errors


def test_recordings_are_no_frames(tool):
    status, _, errors = tool("replay", "run.jsonl", "--interface", "vcan0", "--yes")
    assert status == 2 and "run.jsonl has values, and a bus takes frames: --serve sends the values to clients" in errors
    status, _, errors = tool("replay", "run.jsonl", "--serve", "--node", "5")
    assert status == 2 and "--node is for frames" in errors


def test_a_log_without_frames(replay, tmp_path):
    assert replay(log_of(tmp_path / "drive.log", []))[::2] == (1, "vorbel-cli: 0 frames sent\n")


def test_a_log_that_breaks_off(replay, interface, tmp_path):
    file = count_log(tmp_path / "drive.log", [0])
    file.write_text(file.read_text() + "(1700000000.5) can0 085#0")
    assert replay(file)[2] == "vorbel-cli: 1 frame sent; 1 line of the file could not be read as frames\n"
    file.write_text(file.read_text() + "\n")
    status, _, errors = replay(file)
    assert status == 1 and errors.splitlines() == [
        "vorbel-cli: 1 frame sent",
        f"vorbel-cli: {file}: line 2: not a line of a candump log: '(1700000000.5) can0 085#0'"]


# The keys


@pytest.fixture
def screen(terminal, interface):
    def start(file, *options):
        return terminal("replay", file, "--interface", "vcan0", "--yes", *options, **interface.environment)

    return start


def test_step_by_step(screen, interface, tmp_path):
    shown = screen(count_log(tmp_path / "drive.log", [0, 3600, 7200]), "--step")
    shown.wait_for("space pauses, the arrows go 10 s back or on, . sends one, + and - change the speed, q ends")
    shown.wait_for("00:00.0 of 120:00.0, speed 1, 0 frames, paused")
    assert interface.sent() == []
    for count in (1, 2):
        shown.type(".")
        harness.wait_until(lambda: len(interface.sent()) == count)
    shown.wait_for("60:00.0 of 120:00.0, speed 1, 2 frames, paused")
    shown.type(".")
    assert shown.end() == 0 and interface.sent() == ["85 00", "85 01", "85 02", "closed"]
    assert "\x1b[Kvorbel-cli: 3 frames sent" in shown.seen  # in place of the progress


def test_pause_seek_and_speed(screen, interface, tmp_path):
    shown = screen(count_log(tmp_path / "drive.log", range(0, 400, 5)))
    shown.wait_for("speed 1, 1 frame")
    shown.type(" ")
    shown.wait_for(", paused")
    shown.type(2 * "\x1b[C")
    shown.wait_for("00:2")
    shown.type("\x1bOD.")
    harness.wait_until(lambda: len(interface.sent()) == 2)
    place = 5 * int(interface.sent()[1].split()[1], 16)
    assert 10 <= place <= 20
    shown.type("+++-")
    shown.wait_for("speed 4, 2 frames, paused")
    shown.type("q")
    assert shown.end() == 0 and interface.sent()[-1] == "closed"


def test_pause_and_on_again(screen, interface, tmp_path):
    shown = screen(count_log(tmp_path / "drive.log", [0, 1, 2]), "--step")
    shown.wait_for("paused")
    shown.type("+++ ")
    assert shown.end() == 0 and len(interface.sent()) == 4


@pytest.mark.parametrize("key, status", [("q", 0), ("\x04", 0), ("\x03", 130)], ids=["q", "Ctrl-D", "Ctrl-C"])
def test_ends_by_a_key_and_leaves_the_terminal_as_it_was(interface, tmp_path, key, status):
    """A shell behind it says whether the terminal echoes and reads lines again."""
    file = count_log(tmp_path / "drive.log", [0, 3600])
    script = f'{TOOL} replay {file} --interface vcan0 --yes; echo status $?; stty -a'
    shown = ShellTerminal(script, **interface.environment)
    shown.wait_for("1 frame")
    shown.type(key)
    shown.end()
    assert f"status {status}" in shown.seen and " icanon " in shown.seen and " echo " in shown.seen


def test_in_the_background_of_a_shell_it_leaves_the_keys_alone(interface, tmp_path):
    file = count_log(tmp_path / "drive.log", [0, 0.5])
    script = f'set -m; {TOOL} replay {file} --interface vcan0 --yes & wait; echo status $?; jobs'
    shown = ShellTerminal(script, **interface.environment)
    shown.wait_for("2 frames sent")
    shown.end()
    assert "space pauses" not in shown.seen and "topped" not in shown.seen
    assert interface.sent() == ["85 00", "85 01", "closed"]


class ShellTerminal(Terminal):
    """A shell script instead of the tool."""

    def __init__(self, script, **environment):
        super().__init__("-c", 'trap : INT; ' + script, program="/bin/sh", **environment)


def test_a_loop_on_full_speed_listens_to_keys(screen, interface, tmp_path):
    shown = screen(count_log(tmp_path / "drive.log", range(10)), "--loop", "--speed", "max")
    shown.wait_for("full speed, ")
    shown.type("q")
    assert shown.end() == 0
    count = len(interface.sent()) - 1
    assert interface.sent() == [f"85 {number % 10:02x}" for number in range(count)] + ["closed"]


# The interface by itself


@pytest.fixture
def virtual(monkeypatch):
    """An interface and another one on the same bus, both of python-can's own making."""
    other = can.Bus(channel="test", interface="virtual")
    make = can.Bus
    monkeypatch.setattr(can, "Bus", lambda channel, interface, fd: make(channel=channel, interface="virtual"))
    with CanInterface("test") as interface:
        yield interface, other
    other.shutdown()


async def test_frames_on_python_cans_virtual_bus(virtual):
    interface, other = virtual
    for frame in [*ALL, ERROR, Frame(0, 0x123, is_remote=True, length=4)]:
        await interface.send(frame)
    heard = list(iter(lambda: other.recv(0), None))
    assert [canlog._frame_of_message(message)._replace(time=0) for message in heard] == [
        *(frame._replace(time=0) for frame in ALL), Frame(0, 0x123, is_remote=True, length=4)]
    assert interface.left_out == {"error frames": 1}


class Queue:
    """In place of an interface that answers with errors first."""

    def __init__(self, *codes):
        self.codes = list(codes)
        self.sent = []

    def send(self, message):
        if self.codes:
            raise can.CanOperationError("Failed to transmit: of the kernel's", self.codes.pop(0))
        self.sent.append(message)

    def shutdown(self):
        pass


@pytest.fixture
def queue(monkeypatch):
    def make(*codes):
        queue = Queue(*codes)
        monkeypatch.setattr(can, "Bus", lambda **_: queue)
        return queue

    return make


async def test_a_full_queue_is_waited_for(queue):
    full = queue(errno.ENOBUFS, None, errno.EAGAIN)
    with CanInterface("can0") as interface:
        await interface.send(STANDARD)
    assert [message.data for message in full.sent] == [STANDARD.data] and not interface.left_out


async def test_a_queue_that_stays_full(queue, monkeypatch):
    monkeypatch.setattr(caninterface, "PATIENCE", 0.05)
    queue(*[errno.ENOBUFS] * 100000)
    with CanInterface("can0") as interface, pytest.raises(VorbelError, match="can0 takes no frames: is anybody on"):
        await interface.send(STANDARD)


async def test_an_interface_that_went_down(queue):
    queue(errno.ENETDOWN)
    with CanInterface("can0") as interface, pytest.raises(VorbelError, match="can0: Failed to transmit: of the kernel"):
        await interface.send(STANDARD)


async def test_fd_frames_that_an_interface_is_not_set_up_for_are_counted(queue):
    classic = queue(errno.EINVAL)
    with CanInterface("can0") as interface:
        await interface.send(FD)
        await interface.send(STANDARD)
        assert interface.left_out == {"FD frames, which the interface is not set up for": 1}
        classic.codes = [errno.EINVAL]
        with pytest.raises(VorbelError):
            await interface.send(REMOTE)


# Onto the virtual bus


@pytest.mark.parametrize("suffix", [".log", ".asc", ".blf"])
def test_on_the_virtual_bus(bridge, tmp_path, suffix):
    """What the daemon makes of each format."""
    bridge.stop()
    bridge.can.stop()
    file = written(tmp_path / f"drive{suffix}", ALL)
    command = ["/usr/bin/python3", SIMULATED_BUS, "--virtual-can", bridge.can.directory.parent, "--quiet", "--wait",
               "0.1", "--replay", file, "--speed", "max", "--loop", "--to", "5"]
    with subprocess.Popen(command) as process:
        try:
            asyncio.run(_values_of_frames(bridge))
        finally:
            process.terminate()
    assert process.returncode == 0


async def _values_of_frames(bridge):
    harness.wait_until((bridge.can.directory / "socket").exists)
    bridge.daemon = harness.Daemon(bridge.can.directory.parent, bridge.can.env())
    bridge.daemon.wait_listening()
    schema = {"node": {"@mac": 5, "@cmd": 2, "@format": "C"}, "extended": {"@mac": 5, "@cmd": 13, "@format": "C"}}
    async with asyncio.timeout(60), vorbel.connect("127.0.0.1", schema=schema) as client:
        seen = set()
        async for values in client.values(flat=True):
            seen |= set(values.items())
            if {("node", 0x58), ("node", 0), ("extended", 0x2A)} <= seen:
                break


@pytest.mark.parametrize("suffix", [".log", ".asc", ".blf"])
def test_byte_for_byte_on_the_virtual_bus(tmp_path, suffix):
    """As whoever is on that bus hears it."""
    file = written(tmp_path / f"drive{suffix}", ALL)
    process = subprocess.Popen(["/usr/bin/python3", SIMULATED_BUS, "--virtual-can", tmp_path, "--quiet", "--wait",
                                "0.1", "--replay", file, "--speed", "max", "--node", "5"],
                               stdout=subprocess.PIPE, text=True)
    path = tmp_path / "can" / "socket"
    harness.wait_until(path.exists)
    with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as device:
        harness.wait_until(lambda: device.connect_ex(str(path)) == 0)
        device.settimeout(30)
        heard = [canframe.unpack(message) for message in iter(lambda: device.recv(256), b"")]
    of_node_5 = [frame for frame in ALL if frame.node == 5]
    assert heard == [CanFrame(frame.id, frame.data, frame.is_extended, frame.is_remote, False, frame.is_fd)
                     for frame in of_node_5]
    assert process.communicate(timeout=10)[0] == "replayed 4 frames, 0 of them not fit for this link\n"


# To clients


RECORDED = [
    {"time": 100.0, "values": {"motor": {"current": 4.0, "speed": 600}}},
    {"time": 100.2, "values": {"door": {"open": True}}, "meant": {"door.open": "open"}},
    {"time": 100.3, "disconnected": "gone"},
    {"time": 100.4, "values": {"cells": [1, 2, 300], "level": [0.5, "nan"]}},
    {"time": 100.6, "values": {"motor": {"current": "inf", "speed": -1000}}},
]
# By the rules of the daemon's messages: integers in their shortest form, floats of 32 bits, arrays as extensions.
MESSAGES = ["81 a5 motor 82 a7 current ca 40 80 00 00 a5 speed cd 02 58",
            "81 a4 door 81 a4 open c3",
            "82 a5 cells c7 06 14 01 00 02 00 2c 01 a5 level d7 17 00 00 00 3f 00 00 c0 7f",
            "81 a5 motor 82 a7 current ca 7f 80 00 00 a5 speed d1 fc 18"]


def bytes_of(text):
    return b"".join(bytes.fromhex(word) if len(word) == 2 else word.encode() for word in text.split())


@pytest.fixture
def recording(tmp_path):
    file = tmp_path / "run.jsonl"
    file.write_text("".join(json.dumps(entry) + "\n" for entry in RECORDED))
    return file


@pytest.fixture
def serve(tool):
    """serve(file, option...) is the tool once it listens."""
    def start(file, *options):
        process = tool.start("replay", file, "--serve", *options)
        line = process.stderr.readline()
        if line.startswith("vorbel-cli: a .csv"):
            line = process.stderr.readline()
        assert line == "vorbel-cli: in place of a daemon at port 10443; it begins with the first client\n"
        return process

    return start


async def received(client):
    """All messages until the other side ends it."""
    async with asyncio.timeout(60):
        return [message async for message in client]


async def test_a_foreign_client_gets_the_bytes_that_a_daemon_sends(serve, recording):
    process = serve(recording, "--speed", "max")
    async with websockets.connect(harness.URI) as client:
        assert await received(client) == ['{"hello": {"type": "unknown"}}', *map(bytes_of, MESSAGES)]
    assert process.wait(10) == 0 and process.stderr.read() == "vorbel-cli: 4 messages sent\n"


async def test_the_greeting_is_that_of_the_device_that_was_recorded(serve, recording):
    origin = {"time": 99, "recording": {"address": "ws://board:10443", "hello": {"type": "gateway", "id": "A7"}}}
    recording.write_text(json.dumps(origin) + "\n" + recording.read_text())
    serve(recording, "--speed", "max")
    async with websockets.connect(harness.URI) as client:
        hello, *messages = await received(client)
    assert json.loads(hello) == {"hello": {"type": "gateway", "id": "A7"}}
    assert messages == [*map(bytes_of, MESSAGES)]


async def test_the_library_gets_the_values(serve, recording):
    process = serve(recording, "--loop")
    schema = {"motor": {"speed": {"@mac": 5, "@cmd": 2, "@format": "s"}}}
    async with vorbel.connect("127.0.0.1", schema=schema) as client:
        assert client.hello.type == "unknown"
        await client.confirmed()  # it answers pings
        values = client.values(flat=True)
        seen = [await anext(values) for _ in range(8)]
    assert {value["motor.speed"] for value in seen if "motor.speed" in value} == {600, -1000}
    process.send_signal(signal.SIGTERM)
    assert process.wait(10) == 0


async def test_writes_are_ignored_and_told_once(serve, recording):
    process = serve(recording, "--speed", "0.2")
    async with websockets.connect(harness.URI) as client:
        await client.send(json.dumps({"a": {"@mac": 1, "@format": "C"}}))
        await client.send(msgpack.packb({"a": 1}))
        await client.send(msgpack.packb({"a": 2}))
        await (await client.ping())
        assert len(await received(client)) == 5
    assert process.communicate(timeout=10)[1].splitlines() == [
        "vorbel-cli: a client writes values, which go nowhere: there is no bus behind a recording",
        "vorbel-cli: 4 messages sent"]


async def test_all_clients_are_greeted_when_one_comes(serve, recording):
    serve(recording, "--speed", "0.001")
    async with asyncio.timeout(20), websockets.connect(harness.URI) as first:
        hello = await first.recv()
        assert isinstance(await first.recv(), bytes)
        async with websockets.connect(harness.URI) as second:
            assert await second.recv() == hello == await first.recv()


async def test_a_client_that_goes_away_does_not_disturb_the_others(serve, recording):
    process = serve(recording, "--loop", "--speed", "20")
    async with websockets.connect(harness.URI) as stays:
        async with websockets.connect(harness.URI) as goes:
            await goes.recv()
            goes.transport.abort()
        for _ in range(50):
            await stays.recv()
    process.send_signal(signal.SIGINT)
    assert process.wait(10) == 0


async def test_full_speed_to_clients_loses_nothing(serve, tmp_path):
    file = tmp_path / "run.jsonl"
    file.write_text("".join(f'{{"time":{number},"values":{{"n":{number}}}}}\n' for number in range(20000)))
    process = serve(file, "--speed", "max")
    async with websockets.connect(harness.URI) as client:
        messages = [msgpack.unpackb(message) for message in await received(client) if isinstance(message, bytes)]
    assert messages == [{"n": number} for number in range(20000)]
    assert process.wait(10) == 0


async def test_a_csv_file_has_its_messages_whole_again(serve, tmp_path):
    file = tmp_path / "run.csv"
    file.write_text("time,path,index,value,unit,label\n"
                    "100.000000,motor.current,,4.0,A,\n100.000000,motor.speed,,600,rpm,\n"
                    "100.000000,motor.speed,,601,rpm,\n"
                    "100.200000,cells,0,-1,,\n100.200000,cells,1,255,,\n100.200000,door.open,,true,,open\n"
                    "100.300000,cells,0,1.5,,\n")
    serve(file, "--speed", "max")
    async with websockets.connect(harness.URI) as client:
        assert (await received(client))[1:] == [bytes_of(text) for text in (
            MESSAGES[0], "81 a5 motor 81 a5 speed cd 02 59",
            "82 a5 cells d6 13 ff ff ff 00 a4 door 81 a4 open c3", "81 a5 cells d6 17 00 00 c0 3f")]


async def test_of_a_csv_file_it_says_that_its_values_are_scaled(tool, tmp_path):
    (tmp_path / "run.csv").write_text("time,path,index,value,unit,label\n")
    process = tool.start("replay", tmp_path / "run.csv", "--serve")
    assert process.stderr.readline() == ("vorbel-cli: a .csv file has what the readings mean: clients with a schema "
                                         "that scales them would do so again\n")


async def test_another_port(tool, recording):
    process = tool.start("replay", recording, "--serve", "--port", "10500", "--speed", "max")
    assert process.stderr.readline().startswith("vorbel-cli: in place of a daemon at port 10500")
    async with websockets.connect("ws://127.0.0.1:10500") as client:
        assert len(await received(client)) == 5


def test_a_port_that_a_daemon_has(bridge, tool, recording):
    status, _, errors = tool("replay", recording, "--serve")
    assert status == 1 and errors == ("vorbel-cli: port 10443 cannot be listened on, perhaps as a daemon does: "
                                      "Address already in use; --port names another\n")


def test_interrupted_before_a_client_came(serve, recording):
    process = serve(recording)
    process.send_signal(signal.SIGTERM)
    assert process.wait(10) == 130


def test_a_broken_recording(serve, tmp_path):
    (tmp_path / "run.jsonl").write_text('{"time":1,"values":{"a":1}}\nnonsense\n')
    process = serve(tmp_path / "run.jsonl")

    async def connect():
        async with websockets.connect(harness.URI) as client:
            await received(client)

    asyncio.run(connect())
    assert process.wait(10) == 1 and process.stderr.read().endswith("line 2 is none of a recording\n")


@pytest.mark.parametrize("elements, message", [
    ([], "c7 00 12"), ([0, 255], "d5 12 00 ff"), ([256.0], "d5 14 00 01"), ([65536], "d6 16 00 00 01 00"),
    ([-1], "d5 13 ff ff"), ([-32769], "d6 15 ff 7f ff ff"), ([4294967296], "d6 17 00 00 80 4f"),
    ([0.5], "d6 17 00 00 00 3f")], ids=str)
def test_the_types_of_arrays(elements, message):
    assert standin.message_of(array.array("d", elements)) == bytes_of(message)


async def test_a_client_that_does_not_read_is_dropped(monkeypatch):
    monkeypatch.setattr(standin, "PATIENCE", 0.2)
    async with standin.StandIn(harness.PORT, vorbel.Hello("unknown"), print) as server:
        async with websockets.connect(harness.URI, max_queue=1) as client:
            await server.somebody_came.wait()
            client.transport.pause_reading()
            for _ in range(200):
                await server.send(vorbel.Values({"a": bytes(1 << 20)}))
            assert server._clients == set()
            client.transport.abort()
