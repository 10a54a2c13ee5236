"""When the guest's own clock says that something happened: what is measured by it owes nothing to the host's load
but what the load takes from the guest itself."""

import pathlib
import shutil
import time

import msgpack

ONBOARD = pathlib.Path(__file__).parent / "onboard"


def bring_aboard(guest, *names):
    """Puts programs of the test where the guest can run them."""
    for name in names:
        shutil.copy(ONBOARD / name, guest.share / name)


def now(guest):
    return float(guest.run("date +%s.%N"))


class Watch:
    """A client inside the guest; `values` holds (the guest's time, value) as they come."""

    def __init__(self, guest):
        self.guest = guest
        self.log = guest.share / "watch.log"

    def __enter__(self):
        bring_aboard(self.guest, "watch")
        self.log.write_text("")
        self.guest.run("python3 /host/watch >/host/watch.log 2>&1 &\necho $! >/run/watch.pid")
        self._wait(lambda: "text" in self.log.read_text(), 60)
        return self

    def __exit__(self, *exception):
        self.guest.run("kill $(cat /run/watch.pid) || true")

    @property
    def values(self):
        lines = (line.split() for line in self.log.read_text().rpartition("\n")[0].splitlines())
        return [(float(line[0]), msgpack.unpackb(bytes.fromhex(line[2]))) for line in lines if line[1] == "value"]

    def first_value(self, since, limit=60):
        """When the first value came after a moment of the guest's."""
        return self._wait(lambda: next((seconds for seconds, _ in self.values if seconds > since), None), limit)

    @staticmethod
    def _wait(look, limit):
        deadline = time.monotonic() + limit
        while not (seen := look()):
            assert time.monotonic() < deadline, f"nothing seen within {limit} s"
            time.sleep(0.1)
        return seen
