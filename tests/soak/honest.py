"""What the honest clients say, one JSON list a line, in the order in which it happened to each of them:

    ["heard", CLIENT, LEAF, [[FIRST, LAST], ...], NUMBER, TIME]   what came since the last time, as runs without a gap,
                                                                  and when the last number of them came
    ["there", CLIENT, TIME]                                       a connection begins
    ["away", CLIENT, TIME, REASON]                                it is over
    ["skipped", CLIENT, TIME, COUNT]                              the library says that it dropped so many messages
    ["undecodable", CLIENT, TIME, BYTES]
    ["writes", CLIENT, NUMBER, TIME], and then one of
    ["wrote", CLIENT, NUMBER, TIME]                               the daemon has handled it
    ["refused", CLIENT, NUMBER, TIME, ...]                        nothing says that it has

Times are those of the monotonic clock, which all processes of a machine share.
"""

import json
import pathlib
import threading

PROJECT = pathlib.Path(__file__).resolve().parents[2]
FOLDER = PROJECT / "tests" / "soak"
LIBRARIES = ("python", "javascript", "cpp")


def commands(build, uri, count):
    """{name: command} of the processes, each with so many clients."""
    cpp = build / "tests" / "soak" / "vorbel_soak_clients"
    found = {
        "python": ["/usr/bin/python3", FOLDER / "python_clients.py", uri, str(count)],
        "javascript": ["node", FOLDER / "javascript_clients.mjs", uri, str(count)],
        "cpp": [cpp, uri, str(count)],
    }
    return {name: list(map(str, command)) for name, command in found.items()}


class Ear(threading.Thread):
    """Passes on what one process says, as lists, to `take`."""

    def __init__(self, stream, take):
        super().__init__(daemon=True)
        self._stream, self._take = stream, take
        self.start()

    def run(self):
        for line in self._stream:
            try:
                words = json.loads(line)
            except ValueError:
                continue  # the end of a process that was killed
            self._take(words)
