"""The virtual machine: an AArch64 computer with real kernel drivers, and what the host does with it."""

import json
import os
import pathlib
import shutil
import signal
import socket
import subprocess
import time

BOOT_LIMIT = 240  # seconds; four to ten times what it takes on two idle cores
LIFE_LIMIT = 7200  # seconds, after which the machine is killed whatever happens
WEBSOCKET_PORT = 10443  # inside; a free port of the host leads to it
BROKER = "10.0.2.100:1883"  # inside; it leads to a free port of the host

# What QEMU runs for each connection to it, with the connection as its input and output; a broker
# would not complain in words.
TO_BROKER = ("bash -c 'exec 2>/dev/null; exec 3<>/dev/tcp/127.0.0.1/{} 4<&0; "
             "cat <&4 >&3 & cat <&3 & wait -n; kill $(jobs -p)'")

CAN_CONTROLLERS = ["-object", "can-bus,id=bus",
                   "-device", "kvaser_pci,canbus=bus", "-device", "kvaser_pci,canbus=bus"]


class CommandFailed(AssertionError):
    pass


class LineSocket:
    """A Unix socket of QEMU's that carries lines. Every wait has a limit."""

    def __init__(self, path, limit):
        self.socket = socket.socket(socket.AF_UNIX)
        connect(self.socket, path, limit)
        self.buffer = b""

    def send(self, line):
        self.socket.sendall(line.encode() + b"\n")

    def receive(self, limit):
        deadline = time.monotonic() + limit
        while b"\n" not in self.buffer:
            self.socket.settimeout(max(0.01, deadline - time.monotonic()))
            data = self.socket.recv(65536)
            if not data:
                raise ConnectionError("the virtual machine is gone")
            self.buffer += data
        line, self.buffer = self.buffer.split(b"\n", 1)
        return line.decode()


def connect(unix_socket, path, limit):
    deadline = time.monotonic() + limit
    while True:
        try:
            return unix_socket.connect(str(path))
        except (FileNotFoundError, ConnectionRefusedError):
            if time.monotonic() > deadline:
                raise
            time.sleep(0.05)


def free_port():
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        return listener.getsockname()[1]


class Guest:
    def __init__(self, image, folder):
        self.image = pathlib.Path(image)
        self.initrd = self.image / "initrd.cpio"
        self.folder = pathlib.Path(folder)
        self.share = self.folder / "share"
        self.share.mkdir()
        self.port, self.broker_port = free_port(), free_port()
        self.scripts = 0
        self.process = None

    def start(self, *devices):
        """Boots, with these further devices: words for QEMU."""
        # However the test ends, the machine ends with it.
        self.process = subprocess.Popen(
            ["setpriv", "--pdeathsig", "TERM", "timeout", "-k", "5", str(LIFE_LIMIT), "qemu-system-aarch64",
             *self._hardware(), *devices],
            stdin=subprocess.DEVNULL, stdout=open(self.folder / "console.log", "wb"), stderr=subprocess.STDOUT)
        self.qmp_socket = LineSocket(self.folder / "qmp.sock", 10)
        self.qmp_socket.receive(10)
        self.qmp("qmp_capabilities")
        self.agent = LineSocket(self.folder / "agent.sock", 10)
        answer = self.agent.receive(BOOT_LIMIT)
        assert answer == "ready", answer
        self.run("touch /run/booted")

    def _hardware(self):
        return [
            "-M", "virt", "-cpu", "cortex-a53", "-accel", "tcg,thread=multi", "-smp", "2", "-m", "1024",
            "-nodefaults", "-nographic", "-serial", "stdio", "-no-reboot",
            "-kernel", self.image / "Image", "-initrd", self.initrd,
            "-append", "console=ttyAMA0 panic=-1 quiet net.ifnames=0 systemd.show_status=false "
            # What guards the kernel from its programs makes QEMU forget its translations at every system call.
            "mitigations=off nokaslr "
            f"systemd.default_timeout_start_sec={BOOT_LIMIT}",
            "-virtfs", f"local,path={self.share},mount_tag=host,security_model=none",
            "-netdev", f"user,id=net,restrict=on,hostfwd=tcp:127.0.0.1:{self.port}-10.0.2.15:{WEBSOCKET_PORT},"
            f"guestfwd=tcp:{BROKER}-cmd:{TO_BROKER.format(self.broker_port)}",
            "-device", "virtio-net-pci,netdev=net,romfile=",
            "-device", "virtio-serial-pci",
            "-chardev", f"socket,id=agent,path={self.folder}/agent.sock,server=on,wait=off",
            "-device", "virtserialport,chardev=agent,name=agent",
            "-qmp", f"unix:{self.folder}/qmp.sock,server=on,wait=off",
            "-device", "qemu-xhci,id=xhci",
            "-chardev", f"socket,id=adapter,path={self.folder}/adapter.sock,server=on,wait=off",
            *CAN_CONTROLLERS,
        ]

    def stop(self):
        if self.process and self.process.poll() is None:
            try:
                self.qmp("quit")
            except (OSError, ConnectionError):
                pass
            try:
                self.process.wait(10)
            except subprocess.TimeoutExpired:
                self.process.terminate()  # timeout hands it on, and kills five seconds later
                self.process.wait(10)

    def cut_power(self):
        """Ends it in the middle of whatever it does: what it has not written to a disk by then is gone."""
        (machine,) = map(int, pathlib.Path(f"/proc/{self.process.pid}/task/{self.process.pid}/children").read_text()
                         .split())
        os.kill(machine, signal.SIGKILL)
        self.process.wait(10)

    def keep(self):
        """The files that were written since it booted are there when it boots the next time."""
        changed = self.folder / "changed"
        self.run("find /etc /usr /var/lib -xdev ! -type d -cnewer /run/booted -print0 | "
                 "tar -C / --null -T - -cf /host/changed.tar")
        changed.mkdir()
        subprocess.run(["tar", "-C", changed, "-xf", self.share / "changed.tar"], check=True)
        more = subprocess.run("find . | cpio --quiet -o -H newc -R 0:0", shell=True, cwd=changed, check=True,
                              capture_output=True).stdout
        shutil.rmtree(changed)
        initrd = self.folder / "initrd.cpio"
        initrd.write_bytes(self.initrd.read_bytes() + more)
        self.initrd = initrd

    def start_again(self, *devices):
        """Boots once more, with the files that were written since it booted and with nothing else of this life."""
        self.keep()
        self.stop()
        (self.share / "journal").unlink(missing_ok=True)
        self.start(*devices)

    def qmp(self, command, event=None, **arguments):
        """Gives QEMU a command; returns when it is done, and when the event that it causes has happened."""
        self.qmp_socket.send(json.dumps({"execute": command, "arguments": arguments}))
        awaited = {"return"} | ({event} if event else set())
        while awaited:
            answer = json.loads(self.qmp_socket.receive(20))
            assert "error" not in answer, answer
            awaited.discard(answer.get("event", "return"))

    def attempt(self, script, limit=30):
        """Runs shell commands in the guest; returns their exit code and their output."""
        self.scripts += 1
        number = str(self.scripts)
        (self.share / f"{number}.sh").write_text(script)
        self.agent.send(number)
        answered = None
        while answered != number:  # that of an earlier one may come after its limit
            answered, code = self.agent.receive(limit).split()
        return int(code), (self.share / f"{number}.out").read_text(errors="replace")

    def run(self, script, limit=30):
        """Runs shell commands in the guest, each of which must succeed; returns their output."""
        code, output = self.attempt("set -e\n" + script, limit)
        if code != 0:
            raise CommandFailed(f"exit code {code} of:\n{script}\n{output}")
        return output
