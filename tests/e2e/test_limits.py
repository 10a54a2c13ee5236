"""What one client may do to the daemon and to the other clients: nothing."""

import asyncio
import contextlib
import resource
import socket
import struct
import subprocess
import time

import pytest

import harness
from harness import connect, eventually, receive, round_trip

MIB = 1024 * 1024
INCOMING_LIMIT = 4 * MIB
UNREAD_LIMIT = 16 * MIB
BURST = 10  # clients that connect at a time
CLOSED = r"info Connection closed .*"
DROPPED = (r'warning Dropping the client at QHostAddress\("::ffff:127\.0\.0\.1"\) '
           r"which leaves \d+ bytes unread")


async def serves_the_next_client():
    async with connect() as client:
        await receive(client)
        await round_trip(client)


async def raw_handshake(receive_buffer=None):
    """A WebSocket client down to the socket, which reads nothing unless asked."""
    loop = asyncio.get_running_loop()
    sock = socket.socket()
    if receive_buffer:
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
    sock.setblocking(False)
    await loop.sock_connect(sock, ("127.0.0.1", harness.PORT))
    await loop.sock_sendall(sock, b"GET / HTTP/1.1\r\nHost: x\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                                  b"Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n")
    response = b""
    while b"\r\n\r\n" not in response:
        response += await loop.sock_recv(sock, 1)
    return sock


def frame_header(opcode, length, final=True):
    """The header of a masked client frame whose mask is zero."""
    return bytes([opcode | (0x80 if final else 0), 0xFF]) + struct.pack(">Q", length) + bytes(4)


# A client that does not read


async def test_a_client_that_does_not_read_is_dropped_at_16_mib(start_daemon):
    # A hello of 100 kB goes to every client whenever one connects. Several connect at a time: before long the kernel
    # gives up on a client that takes nothing.
    daemon = start_daemon(VORBEL_SOURCE="none", VORBEL_DEVICE_ID="x" * 100_000)
    stalled = await raw_handshake(receive_buffer=4096)
    async with connect() as reads:
        await receive(reads)
        hellos = 1
        limit = UNREAD_LIMIT / 100_000
        while not daemon.count(DROPPED):
            await asyncio.gather(*(serves_the_next_client() for _ in range(BURST)))
            for _ in range(BURST):
                assert len(await receive(reads)) > 100_000
            hellos += BURST
            assert hellos < 2 * limit, "never dropped"
            assert daemon.status("VmRSS") < 80 or harness.SANITIZED
        assert hellos > limit
        line = next(line for line in daemon.lines() if line.startswith("warning"))
        assert UNREAD_LIMIT < int(line.split()[-3]) < UNREAD_LIMIT + 2 * 100_000
        # In the log, the client's end stands right behind the reason for it.
        at = daemon.lines().index(line)
        assert daemon.lines()[at + 1].startswith("info Connection closed")
    stalled.close()
    await serves_the_next_client()


@pytest.mark.plain_build_only
async def test_dropping_it_gives_the_memory_back(start_daemon):
    daemon = start_daemon(VORBEL_SOURCE="none", VORBEL_DEVICE_ID="x" * 100_000)
    await serves_the_next_client()
    before = daemon.status("VmRSS")
    stalled = await raw_handshake(receive_buffer=4096)
    while not daemon.count(DROPPED):
        await asyncio.gather(*(serves_the_next_client() for _ in range(BURST)))
    await eventually(lambda: daemon.status("VmRSS") < before + 6, what="the memory to come back")
    stalled.close()


async def send_for_ever(sock, data):
    while True:
        await asyncio.get_running_loop().sock_sendall(sock, data)


async def test_answers_to_pings_that_nobody_reads_count_too(daemon):
    """The daemon answers by itself; it sends nothing else here."""
    stalled = await raw_handshake(receive_buffer=4096)
    pings = (bytes([0x89, 0x80 | 125]) + bytes(4 + 125)) * 8192
    with contextlib.suppress(ConnectionError):
        await asyncio.wait_for(send_for_ever(stalled, pings), 5 * harness.TICK)
    await eventually(lambda: daemon.count(CLOSED))
    assert daemon.count(DROPPED) == 1
    stalled.close()
    await serves_the_next_client()


# Incoming size


@pytest.mark.parametrize("text", [False, True], ids=["binary", "text"])
async def test_a_message_of_just_the_limit_is_taken(daemon, text):
    async with connect() as client:
        await receive(client)
        await client.send("x" * INCOMING_LIMIT if text else bytes(INCOMING_LIMIT))
        await round_trip(client)


@pytest.mark.parametrize("text", [False, True], ids=["binary", "text"])
@pytest.mark.parametrize("size", [INCOMING_LIMIT + 1, 50 * MIB], ids=["one byte over", "50 MiB"])
async def test_a_larger_message_closes_that_client_only(daemon, size, text):
    async with connect() as bystander:
        await receive(bystander)
        client = await connect()
        await receive(client)
        with contextlib.suppress(harness.websockets.ConnectionClosed):
            await client.send("x" * size if text else bytes(size))
        await asyncio.wait_for(client.wait_closed(), 10)
        assert client.close_code in (1009, 1006)
        await eventually(lambda: daemon.count(CLOSED))
        await round_trip(bystander)
        assert daemon.status("VmHWM") < 120 or harness.SANITIZED
    await serves_the_next_client()


async def test_a_frame_that_announces_too_much_is_not_waited_for(daemon):
    sock = await raw_handshake()
    await asyncio.get_running_loop().sock_sendall(sock, frame_header(2, INCOMING_LIMIT + 1))
    await eventually(lambda: daemon.count(CLOSED), 2, "the client to be disconnected")
    sock.close()


async def test_a_message_in_many_frames_counts_as_a_whole(daemon):
    async with connect() as client:
        await receive(client)
        with contextlib.suppress(harness.websockets.ConnectionClosed):
            await client.send(bytes(MIB) for _ in range(5))
        await asyncio.wait_for(client.wait_closed(), 10)
    await serves_the_next_client()


@pytest.mark.plain_build_only
async def test_an_announced_frame_costs_nothing_until_it_comes(daemon):
    sockets = [await raw_handshake() for _ in range(20)]
    before = daemon.status("VmRSS")
    for sock in sockets:
        await asyncio.get_running_loop().sock_sendall(sock, frame_header(2, INCOMING_LIMIT) + b"x")
    await serves_the_next_client()
    assert daemon.status("VmRSS") < before + 10
    for sock in sockets:
        sock.close()


def nested_maps(depth):
    return b"\x81\xa1a" * depth + b"\xc0"


def leaves(count):
    return "{" + ",".join(f'"{i:x}":{{"@mac":1}}' for i in range(count)) + "}"


def one_leaf(members):
    return '{"x":{"@mac":1,' + ",".join(f'"{i:x}":1' for i in range(members)) + "}}"


def deep_leaves(depth, count):
    """Many leaves at the end of a long path."""
    return '{"a":' * depth + leaves(count) + "}" * depth


WORST = {
    "nils": b"\xdd" + struct.pack(">I", INCOMING_LIMIT - 5) + b"\xc0" * (INCOMING_LIMIT - 5),
    "nils in a map's value": b"\x81\xa1a\xdd" + struct.pack(">I", INCOMING_LIMIT - 8) + b"\xc0" * (INCOMING_LIMIT - 8),
    "empty strings": b"\xdd" + struct.pack(">I", INCOMING_LIMIT - 5) + b"\xa0" * (INCOMING_LIMIT - 5),
    "empty maps": b"\xdd" + struct.pack(">I", INCOMING_LIMIT - 5) + b"\x80" * (INCOMING_LIMIT - 5),
    "concatenated integers": b"\x01" * INCOMING_LIMIT,
    "nested maps": nested_maps(INCOMING_LIMIT // 3 - 1),
    "nested arrays": b"\x91" * INCOMING_LIMIT,
    "nested maps within the depth": nested_maps(8192) * (INCOMING_LIMIT // (8192 * 3 + 1)),
    "a map of many keys": b"\xdf" + struct.pack(">I", 580_000) + b"".join(
        b"\xa5" + b"%05x" % i + b"\xc0" for i in range(580_000)),
    "one long string": b"\xdb" + struct.pack(">I", INCOMING_LIMIT - 5) + b"x" * (INCOMING_LIMIT - 5),
    "one long byte array": b"\xc6" + struct.pack(">I", INCOMING_LIMIT - 5) + b"\xff" * (INCOMING_LIMIT - 5),
    "unknown extensions": b"\xd4\x11\x00" * 20_000,
    "a schema of tiny leaves": leaves(220_000),
    "a schema of one leaf with many members": one_leaf(400_000),
    "a schema of leaves far down": deep_leaves(1000, 210_000),
    "a schema of one long text": '{"' + "x" * (INCOMING_LIMIT - 6) + '":1}',
    "a schema of nested arrays": "[" * 2_000_000,
    "a schema of many numbers": "[" + "1," * 2_000_000 + "1]",
}


@pytest.mark.plain_build_only
@pytest.mark.parametrize("message", WORST.values(), ids=WORST.keys())
async def test_the_worst_messages_stay_below_the_ceiling_and_give_it_back(start_daemon, message):
    """What a message leaves behind must not grow with more of them; an empty schema ends what it loaded."""
    assert len(message) <= INCOMING_LIMIT
    daemon = start_daemon()
    async with connect() as client:
        await receive(client)
        before = daemon.status("VmRSS")
        daemon.reset_peak()
        for _ in range(2):
            await client.send(message)
            await client.send("{}")
            await asyncio.wait_for(await client.ping(), 60)
        assert daemon.status("VmHWM") < 0.8 * 384  # a fifth below the packaged unit's MemoryMax=
        await eventually(lambda: daemon.status("VmRSS") < before + 30, 5, "the memory to come back")
    await serves_the_next_client()


# Handshakes and descriptors


async def test_a_half_open_handshake_is_cut_after_five_seconds(daemon):
    reader, writer = await asyncio.open_connection("127.0.0.1", harness.PORT)
    writer.write(b"GET / HTTP/1.1\r\nHost: x\r\n")
    started = time.monotonic()
    await serves_the_next_client()
    assert await asyncio.wait_for(reader.read(), 8) == b""
    assert 4 < time.monotonic() - started < 7
    writer.close()


@pytest.mark.plain_build_only
async def test_accepting_goes_on_after_descriptors_ran_out(daemon):
    # Qt keeps the first error of a listening socket for good: "nothing to accept", once somebody was accepted.
    await serves_the_next_client()
    await asyncio.sleep(0.1)
    spare = 5
    limit = daemon.highest_descriptor() + 1 + spare
    resource.prlimit(daemon.pid, resource.RLIMIT_NOFILE, (limit, limit))
    sockets = [socket.create_connection(("127.0.0.1", harness.PORT)) for _ in range(spare + 3)]
    await eventually(lambda: daemon.count("warning No file descriptor is left: new clients have to wait"))
    # Waiting costs nothing: Qt by itself would try to accept at full speed.
    before = daemon.cpu_seconds()
    await asyncio.sleep(2)
    assert daemon.cpu_seconds() - before < 0.5
    for sock in sockets:
        sock.close()
    await serves_the_next_client()


# Accepted sockets


def test_accepted_sockets_inherit_the_options(daemon):
    """As the kernel reports them for the daemon's end of a connection."""
    with socket.create_connection(("127.0.0.1", harness.PORT)):
        report = subprocess.run(["ss", "-tnoH", "sport", "=", f":{harness.PORT}"], capture_output=True, text=True,
                                check=True).stdout
    assert "timer:(keepalive,9" in report or "timer:(keepalive,10" in report, report
