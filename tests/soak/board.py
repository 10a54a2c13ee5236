"""The far end of the chain: what the broker passes on of the gateway's batches, and what the history has of them."""

import collections
import contextlib
import json
import queue
import time
import urllib.parse
import urllib.request
from typing import NamedTuple

import paho.mqtt.client as mqtt

from invariants import Breach, Hearing, runs

BASE = "vorbel/soak/"


def drained(waiting):
    """What waits in a queue, which is empty then."""
    found = []
    with contextlib.suppress(queue.Empty):
        while True:
            found.append(waiting.get_nowait())
    return found


class Passed(NamedTuple):
    """What the broker passed on."""

    ms: int  # by the board's clock
    time: float  # when it came here


class Batches:
    """Batches as the broker passes them on, held against the bus: one Hearing for each boot of the gateway, since what
    a killed one had not spooled is nobody's promise. Within a boot `n` counts without a gap; a batch may come again."""

    def __init__(self):
        self.hearings, self.late = {}, []
        self.repeated = 0
        self.slow = {}  # {value of the slow leaf: Passed}
        self._next = {}  # {boot: n}
        self._absent = {}  # {(boot, n): when a later one came}

    @property
    def missing(self):
        return len(self._absent)

    @property
    def lost(self):
        numbers = collections.defaultdict(list)
        for boot, number in sorted(self._absent):
            numbers[boot].append(number)
        return [Breach(self._absent[boot, first], "lost", f"broker: batches {first} to {last} of boot {boot}")
                for boot in numbers for first, last in runs(numbers[boot])]

    def take(self, time, batch, sent):
        boot, number = batch["boot"], batch["n"]
        expected = self._next.get(boot, 0)
        if number < expected:
            self._take_again(time, boot, number)
            return
        hearing = self.hearings.setdefault(boot, Hearing(f"broker, boot {boot}"))
        if number > expected:
            self._absent.update(((boot, each), time) for each in range(expected, number))
            hearing.skip()
        self._next[boot] = number + 1
        for since, values in batch["v"]:
            for leaf, value in values.items():
                if leaf in sent:  # others are those of a strange schema
                    hearing.take(time, leaf, runs(value if isinstance(value, list) else [value]), sent[leaf])
                if leaf == "slow":
                    self.slow[value] = Passed(batch["t"] + since, time)

    def _take_again(self, time, boot, number):
        if self._absent.pop((boot, number), None) is None:
            self.repeated += 1
        else:
            self.late.append(Breach(time, "late", f"broker: batch {number} of boot {boot}"))

    def missing_in(self, stored):
        """(value, Passed) of what is not in the database, although it is alone in its millisecond."""
        by_ms = collections.Counter(passed.ms for passed in self.slow.values())
        return [(value, passed) for value, passed in sorted(self.slow.items())
                if value not in stored and by_ms[passed.ms] == 1]


class BoardEar:
    """Listens at the broker, with a session that outlives it, and writes as an operator does."""

    def __init__(self, host, port):
        self.batches = Batches()
        self._arrived = queue.SimpleQueue()
        self._client = mqtt.Client(client_id="soak", clean_session=False)
        self._client.on_connect = lambda client, *_: client.subscribe([(BASE + "values", 1), (BASE + "done", 1)])
        self._client.on_message = self._hear
        self._client.reconnect_delay_set(1, 1)
        self._client.connect(host, port, keepalive=20)
        self._client.loop_start()

    def _hear(self, _client, _data, message):
        self._arrived.put((time.monotonic(), message.topic[len(BASE):], message.payload))

    def write(self, path, value):
        order = {"value": value, "time": int(time.time() * 1000)}
        self._client.publish(f"{BASE}set/tester/{path}", json.dumps(order), 1)

    def take(self, mark, confirm):
        """Takes what has come since. `mark` says what the bus has sent; `confirm` is called with number and time of
        each write that was done."""
        arrived = drained(self._arrived)
        sent = mark().numbers
        for at, topic, payload in arrived:
            said = json.loads(payload)
            if topic == "values":
                self.batches.take(at, said, sent)
            elif said["ok"] and said["path"]:
                confirm(said["value"], at)

    def close(self):
        self._client.disconnect()
        self._client.loop_stop()


def ask_database(port):
    """The values of the slow leaf that the history has."""
    url = f"http://127.0.0.1:{port}"
    urllib.request.urlopen(f"{url}/internal/force_flush", timeout=30).read()
    query = urllib.parse.urlencode({"match[]": '{__name__="vorbel_value",path="slow"}', "start": "0",
                                    "end": str(time.time() + 7 * 86400)})  # a board's clock may be ahead
    with urllib.request.urlopen(f"{url}/api/v1/export?{query}", timeout=60) as answer:
        return {int(value) for line in answer for value in json.loads(line)["values"]}
