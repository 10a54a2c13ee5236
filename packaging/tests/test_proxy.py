"""The reverse proxy of the deployment page, as it is printed there, in front of the running daemon."""

import asyncio
import base64
import http.client
import os
import pathlib
import socket
import ssl
import subprocess

import proxy
import pytest
import websockets

HELLO = '{"hello":{"type":"unknown"}}'
# Files like those of the monitor.
PAGE = {"index.html": "text/html", "icon.svg": "image/svg+xml", "assets/index-Ab1_.js": "application/javascript",
        "assets/index-Cd2-.css": "text/css", "sw.js": "application/javascript", "manifest.json": "application/json",
        "icon-192.png": "image/png"}


@pytest.fixture(scope="module")
def daemon():
    process = subprocess.Popen([pathlib.Path(os.environ["VORBEL_BUILD_DIR"]) / "vorbel"],
                               env={**os.environ, "VORBEL_SOURCE": "none"}, stderr=subprocess.DEVNULL)
    proxy.wait_for_port(10443)
    yield process
    process.terminate()
    process.wait(10)


@pytest.fixture(scope="module")
def certificate(daemon, tmp_path_factory):
    page = tmp_path_factory.mktemp("monitor")
    for name in PAGE:
        (page / name).parent.mkdir(exist_ok=True)
        (page / name).write_text(f"this is {name}")
    with proxy.running(page) as certificate:
        yield certificate


def trusting(certificate):
    return ssl.create_default_context(cafile=str(certificate))


async def connect(certificate, credentials="", path="/vorbel", **options):
    return await websockets.connect(f"wss://{credentials}{proxy.NAME}{path}", host="127.0.0.1", open_timeout=10,
                                    ssl=trusting(certificate), server_hostname=proxy.NAME, **options)


def get(certificate, path, credentials=None):
    """The proxy's answer over TLS, and its body."""
    plain = socket.create_connection(("127.0.0.1", 443), timeout=10)
    connection = http.client.HTTPConnection(proxy.NAME)
    connection.sock = trusting(certificate).wrap_socket(plain, server_hostname=proxy.NAME)
    headers = {"Authorization": f"Basic {base64.b64encode(credentials).decode()}"} if credentials else {}
    connection.request("GET", path, headers=headers)
    answer = connection.getresponse()
    body = answer.read().decode()
    connection.close()
    return answer, body


async def test_with_name_and_password_the_daemon_answers_over_tls(certificate):
    client = await connect(certificate, "alice:secret@")
    assert await asyncio.wait_for(client.recv(), 10) == HELLO
    await client.send("{}")
    await client.send(b"\x80")
    await asyncio.wait_for(await client.ping(), 10)
    await client.close()


@pytest.mark.parametrize("credentials", ["", "alice:wrong@", "bob:secret@"], ids=["none", "password", "name"])
async def test_anybody_else_is_turned_away(certificate, credentials):
    with pytest.raises(websockets.InvalidStatusCode) as refused:
        await connect(certificate, credentials)
    assert refused.value.status_code == 401


async def test_nothing_but_the_one_path_leads_to_the_daemon(certificate):
    with pytest.raises(websockets.InvalidStatusCode) as refused:
        await connect(certificate, "alice:secret@", "/vorbel/x")
    assert refused.value.status_code == 404


async def test_the_monitors_own_page_may_connect(certificate):
    await (await connect(certificate, "alice:secret@", origin=f"https://{proxy.NAME}")).close()


@pytest.mark.parametrize("origin", ["https://elsewhere.example", f"http://{proxy.NAME}", f"https://{proxy.NAME}.evil",
                                    f"https://{proxy.NAME}:444", "null"])
async def test_a_page_of_another_site_may_not(certificate, origin):
    with pytest.raises(websockets.InvalidStatusCode) as refused:
        await connect(certificate, "alice:secret@", origin=origin)
    assert refused.value.status_code == 403


async def test_the_certificate_is_the_documented_one(certificate):
    await (await connect(certificate, "alice:secret@")).close()
    with pytest.raises(ssl.SSLCertVerificationError):
        await websockets.connect(f"wss://{proxy.NAME}/vorbel", host="127.0.0.1", server_hostname=proxy.NAME,
                                 ssl=ssl.create_default_context())


@pytest.mark.parametrize("path", ["", *PAGE])
def test_the_monitor_is_served_with_the_types_that_browsers_insist_on(certificate, path):
    answer, body = get(certificate, f"/{path}", b"alice:secret")
    name = path or "index.html"
    assert (answer.status, answer.headers["Content-Type"], body) == (200, PAGE[name], f"this is {name}")


@pytest.mark.parametrize("path", ["", "sw.js"])
def test_the_page_is_never_an_old_one_nor_in_anothers_frame_nor_connects_elsewhere(certificate, path):
    headers = get(certificate, f"/{path}", b"alice:secret")[0].headers
    assert headers["Cache-Control"] == "no-cache" and headers["ETag"]
    assert headers["Content-Security-Policy"] == "frame-ancestors 'none'; connect-src 'self'"
    assert headers["X-Content-Type-Options"] == "nosniff"
    assert headers["Referrer-Policy"] == "no-referrer"


@pytest.mark.parametrize("path", ["", *PAGE])
def test_without_password_there_is_no_page_either(certificate, path):
    answer, body = get(certificate, f"/{path}")
    assert answer.status == 401 and "this is" not in body
    assert answer.headers["WWW-Authenticate"] == 'Basic realm="CAN bus"'
