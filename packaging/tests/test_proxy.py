"""The reverse proxy of the deployment page, as it is printed there, in front of the running daemon."""

import asyncio
import os
import pathlib
import ssl
import subprocess
import tempfile
import time

import documents
import pytest
import websockets

PROJECT = pathlib.Path(__file__).parents[2]
NAME = "board.example.com"
HELLO = '{"hello":{"type":"unknown"}}'


@pytest.fixture(scope="module")
def daemon():
    process = subprocess.Popen([pathlib.Path(os.environ["VORBEL_BUILD_DIR"]) / "vorbel"],
                               env={**os.environ, "VORBEL_SOURCE": "none"}, stderr=subprocess.DEVNULL)
    yield process
    process.terminate()
    process.wait(10)


@pytest.fixture(scope="module")
def root():
    """A folder in the place of the system's root. Unlike pytest's own, the proxy's unprivileged workers see it."""
    with tempfile.TemporaryDirectory() as folder:
        os.chmod(folder, 0o755)
        yield pathlib.Path(folder)


@pytest.fixture(scope="module")
def certificate(daemon, root):
    """Runs the proxy as it is printed, but for the folder that /etc is in; returns its certificate."""
    for folder in ("etc/ssl/private", "etc/ssl/certs", "etc/nginx", "log"):
        (root / folder).mkdir(parents=True)
    commands = documents.commands(PROJECT / "docs" / "deployment.md", "openssl req")
    commands = commands.replace("/etc/", f"{root}/etc/").replace("passwd -apr1", "passwd -apr1 secret")
    subprocess.run(["sh", "-ec", commands], check=True, capture_output=True)
    site = documents.Blocks(PROJECT / "docs" / "deployment.md")["/etc/nginx/conf.d/vorbel.conf"]
    (root / "site.conf").write_text(site.replace("/etc/", f"{root}/etc/"))
    (root / "nginx.conf").write_text(f"daemon off; pid {root}/pid; error_log {root}/log/error.log; events {{}} "
                                     f"http {{ access_log off; include {root}/site.conf; }}")
    proxy = subprocess.Popen(["nginx", "-c", root / "nginx.conf", "-e", root / "log" / "error.log"])
    yield root / "etc/ssl/certs/vorbel.pem"
    proxy.terminate()
    proxy.wait(10)
    print((root / "log" / "error.log").read_text())


async def connect(certificate, credentials="", path="/vorbel"):
    """Tries while daemon and proxy are starting."""
    context = ssl.create_default_context(cafile=str(certificate))
    deadline = time.monotonic() + 10
    while True:
        try:
            return await websockets.connect(f"wss://{credentials}{NAME}{path}", host="127.0.0.1", ssl=context,
                                            server_hostname=NAME, open_timeout=10)
        except (ConnectionRefusedError, websockets.InvalidStatusCode) as error:
            starting = isinstance(error, ConnectionRefusedError) or error.status_code == 502
            if not starting or time.monotonic() > deadline:
                raise
            await asyncio.sleep(0.1)


async def test_with_name_and_password_the_daemon_answers_over_tls(certificate):
    client = await connect(certificate, "alice:secret@")
    assert await asyncio.wait_for(client.recv(), 10) == HELLO
    await client.send("{}")
    await client.send(b"\x80")
    await asyncio.wait_for(await client.ping(), 10)
    await client.close()


@pytest.mark.parametrize("credentials", ["", "alice:wrong@", "bob:secret@"], ids=["none", "password", "name"])
async def test_anybody_else_is_turned_away(certificate, credentials):
    await (await connect(certificate, "alice:secret@")).close()
    with pytest.raises(websockets.InvalidStatusCode) as refused:
        await connect(certificate, credentials)
    assert refused.value.status_code == 401


async def test_nothing_but_the_one_path_leads_to_the_daemon(certificate):
    with pytest.raises(websockets.InvalidStatusCode) as refused:
        await connect(certificate, "alice:secret@", "/vorbel/x")
    assert refused.value.status_code == 404


async def test_the_certificate_is_the_documented_one(certificate):
    await (await connect(certificate, "alice:secret@")).close()
    with pytest.raises(ssl.SSLCertVerificationError):
        await websockets.connect(f"wss://{NAME}/vorbel", host="127.0.0.1", server_hostname=NAME,
                                 ssl=ssl.create_default_context())
