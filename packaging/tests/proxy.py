"""
The reverse proxy of the deployment page, as it is printed there, in front of a running daemon.

    proxy.py FOLDER [fleet]    serves the page in the folder as the monitor until its input ends, and prints the path
                               of the certificate; with what the fleet's page adds to the proxy
"""

import contextlib
import pathlib
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import textwrap
import time

import documents

DOCUMENTS = pathlib.Path(__file__).parents[2] / "docs"
DEPLOYMENT = DOCUMENTS / "deployment.md"
MONITOR = "/usr/share/vorbel/monitor"
NAME = "board.example.com"
USER, PASSWORD = "alice", "secret"


@contextlib.contextmanager
def running(page, more=""):
    """Runs it with the files of the folder `page` as the monitor and `more` in its server; gives the path of its
    certificate."""
    with tempfile.TemporaryDirectory() as folder:
        root = pathlib.Path(folder)
        monitor = pathlib.Path(f"{root}{MONITOR}")
        shutil.copytree(page, monitor)
        for shared in (root, monitor):
            shared.chmod(0o755)  # the proxy's unprivileged workers look into it
        _configure(root, more)
        log = root / "error.log"
        proxy = subprocess.Popen(["nginx", "-c", root / "nginx.conf", "-e", log], stdout=sys.stderr)
        try:
            wait_for_port(443)
            yield root / "etc/ssl/certs/vorbel.pem"
        finally:
            proxy.terminate()
            proxy.wait(10)
            print(log.read_text(), file=sys.stderr)


def locations_of_fleet():
    """What the fleet's page adds to the server."""
    (block,) = re.findall(r"^ *```nginx\n(.*?)^ *```$", (DOCUMENTS / "fleet.md").read_text(), re.M | re.S)
    return textwrap.dedent(block)


def _configure(root, more):
    """Follows the page, but for the folders that /etc and the monitor are in."""
    for folder in ("etc/ssl/private", "etc/ssl/certs", "etc/nginx"):
        (root / folder).mkdir(parents=True)
    commands = documents.commands(DEPLOYMENT, "openssl req")
    commands = commands.replace("/etc/", f"{root}/etc/").replace("passwd -apr1", f"passwd -apr1 {PASSWORD}")
    subprocess.run(["sh", "-ec", commands], check=True, capture_output=True)
    site = documents.Blocks(DEPLOYMENT)["/etc/nginx/conf.d/vorbel.conf"]
    site = re.sub(r"\}\n\Z", lambda end: f"{more}{end[0]}", site)
    (root / "site.conf").write_text(site.replace("/etc/", f"{root}/etc/").replace(MONITOR, f"{root}{MONITOR}"))
    # What Debian's nginx.conf has around the files of conf.d, as far as it matters here.
    (root / "nginx.conf").write_text(
        f"daemon off; pid {root}/pid; error_log {root}/error.log; events {{}} "
        f"http {{ include /etc/nginx/mime.types; default_type application/octet-stream; access_log off; "
        f"include {root}/site.conf; }}")


def wait_for_port(port):
    deadline = time.monotonic() + 10
    while True:
        try:
            socket.create_connection(("127.0.0.1", port)).close()
            return
        except ConnectionRefusedError:
            if time.monotonic() > deadline:
                raise
            time.sleep(0.05)


if __name__ == "__main__":
    with running(sys.argv[1], locations_of_fleet() if "fleet" in sys.argv[2:] else "") as certificate:
        print(certificate, flush=True)
        sys.stdin.read()
