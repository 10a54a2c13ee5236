"""The links to the server carry, are cut, fall silent and carry again; what is with the server notices nothing."""

import contextlib
import errno
import socket
import subprocess
import sys

import pytest

from harness import wait_until
from network import Network

PORT = 7000
ECHO = f"""
import socket, threading
def echo(client):
    while data := client.recv(100): client.sendall(data)
with socket.create_server(("", {PORT})) as server:
    while True: threading.Thread(target=echo, args=(server.accept()[0],), daemon=True).start()
"""


@pytest.fixture(scope="module")
def network():
    network = Network()
    server = subprocess.Popen(network.inside(sys.executable, "-c", ECHO))
    wait_until(lambda: error_of(lambda: connect(network, "office").close()) is None, what="the server")
    yield network
    server.kill()
    server.wait()
    network.close()


def connect(network, link):
    client = socket.create_connection((network.server(link), PORT), timeout=0.5)
    client.settimeout(0.5)
    return client


def answers(client):
    with contextlib.suppress(TimeoutError):
        client.sendall(b"x")
        return client.recv(100) != b""
    return False


def error_of(act):
    try:
        act()
    except OSError as error:
        return error.errno or type(error)
    return None


def comes_back(client):
    """Once what was sent meanwhile has been sent again."""
    wait_until(lambda: answers(client), 20, "the server to answer")


def test_a_cut_link_is_known_here_and_connections_outlive_it(network):
    board, office = connect(network, "board"), connect(network, "office")
    assert answers(board) and answers(office)
    network.cut()
    assert error_of(lambda: connect(network, "board")) == errno.ENETUNREACH
    assert not answers(board) and answers(office)
    network.join()
    comes_back(board)


def test_a_silent_link_takes_everything_and_answers_nothing(network):
    board, office = connect(network, "board"), connect(network, "office")
    network.silence()
    assert error_of(lambda: connect(network, "board")) in (TimeoutError, errno.EHOSTUNREACH)
    assert not answers(board) and answers(office)
    network.speak()
    comes_back(board)
