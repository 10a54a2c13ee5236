"""The network between the board and the server: real links, as far as the kernel can tell."""

import subprocess

from harness import wait_until

NETS = {"board": "10.97.1", "office": "10.97.2"}  # 1 here, 2 at the server


class Network:
    """The server is a network namespace of its own. Two links lead to it: the gateway's, which can be cut, and one for
    those who are with the server."""

    def __init__(self):
        self._server = subprocess.Popen(["setpriv", "--pdeathsig", "KILL", "unshare", "--net", "sleep", "infinity"])
        wait_until(lambda: self._namespace("self") != self._namespace(self._server.pid), what="the server's namespace")
        _run(self.inside("ip", "link", "set", "lo", "up"))
        for name, net in NETS.items():
            _run(["ip", "link", "add", name, "type", "veth", "peer", "name", name, "netns", str(self._server.pid)])
            for number, before in ((1, []), (2, self.inside())):
                _run([*before, "ip", "address", "add", f"{net}.{number}/24", "dev", name])
                _run([*before, "ip", "link", "set", name, "up"])

    @staticmethod
    def _namespace(pid):
        return subprocess.run(["readlink", f"/proc/{pid}/ns/net"], check=True, capture_output=True).stdout

    def inside(self, *command):
        """What runs a command at the server, in the same process."""
        return ["nsenter", f"--target={self._server.pid}", "--net", *map(str, command)]

    @staticmethod
    def server(link):
        """Its address, by way of a link."""
        return f"{NETS[link]}.2"

    # What happens to the board's link

    def cut(self):
        """There is no way to the server, and the board knows."""
        _run(["ip", "link", "set", "board", "down"])

    def join(self):
        _run(["ip", "link", "set", "board", "up"])

    def silence(self):
        """What is sent is never answered."""
        _run(self.inside("ip", "link", "set", "board", "down"))

    def speak(self):
        _run(self.inside("ip", "link", "set", "board", "up"))

    def close(self):
        self._server.kill()
        self._server.wait()


def _run(command):
    subprocess.run(command, check=True, capture_output=True)
