"""The tool as a person sees it."""

import fcntl
import os
import pty
import select
import signal
import struct
import termios
import time

from bridges import TOOL


class Terminal:
    """The tool on a terminal of 30 lines."""

    def __init__(self, *words, columns=100, program=TOOL, **environment):
        self.process, self._descriptor = pty.fork()
        if self.process == 0:
            fcntl.ioctl(0, termios.TIOCSWINSZ, struct.pack("4H", 30, columns, 0, 0))
            os.environ.update({"TERM": "xterm-256color", **environment})
            os.execv(program, [program, *map(str, words)])
        self.seen = ""

    def type(self, text):
        os.write(self._descriptor, text.encode())

    def wait_for(self, text, timeout=10):
        self.read_until(lambda: text in self.seen, repr(text), timeout)

    def read_until(self, condition, what, timeout=10):
        """A terminal that nobody reads makes the tool wait."""
        deadline = time.monotonic() + timeout
        while not condition():
            assert time.monotonic() < deadline and self._read(), f"{what} did not appear in {self.seen[-2000:]!r}"

    def hang_up(self):
        """The terminal is closed: its programs are told by SIGHUP."""
        os.close(self._descriptor)
        os.waitpid(self.process, 0)
        self.process = 0

    def end(self):
        """The exit status."""
        while self._read():
            pass
        status = os.waitstatus_to_exitcode(self._reap())
        os.close(self._descriptor)
        self.process = 0
        return status

    def _reap(self, patience=30):
        """One that does not end is killed."""
        deadline = time.monotonic() + patience
        while time.monotonic() < deadline:
            process, status = os.waitpid(self.process, os.WNOHANG)
            if process:
                return status
            time.sleep(0.01)
        os.kill(self.process, signal.SIGKILL)
        os.waitpid(self.process, 0)
        self.process = 0
        raise AssertionError(f"it did not end, and was killed; there is {self.seen[-2000:]!r}")

    def _read(self):
        try:
            ready = select.select([self._descriptor], (), (), 10)[0]
            read = os.read(self._descriptor, 65536) if ready else b""
        except OSError:  # the other side has been closed
            read = b""
        self.seen += read.decode(errors="replace")
        return bool(read)
