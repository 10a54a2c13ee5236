"""The far end of the chain: what the broker passes on of the gateway's batches, and what the history has of them."""

import collections
import json
import queue
import time
import urllib.parse
import urllib.request

import paho.mqtt.client as mqtt

from invariants import Breach, Hearing, runs

BASE = "vorbel/soak/"


class Batches:
    """Batches as the broker passes them on, held against the bus: one Hearing for each boot of the gateway, since what
    a killed one had not spooled is nobody's promise. Within a boot `n` counts without a gap; a batch may come again."""

    def __init__(self):
        self.hearings, self.breaches = {}, []
        self.repeated = self.missing = 0
        self.slow = {}  # {value of the slow leaf: ms}
        self._next = {}  # {boot: n}

    def take(self, time, batch, sent):
        boot, number = batch["boot"], batch["n"]
        expected = self._next.get(boot, 0)
        if number < expected:
            self.repeated += 1
            return
        hearing = self.hearings.setdefault(boot, Hearing(f"broker, boot {boot}"))
        if number > expected:
            self.missing += number - expected
            self.breaches.append(Breach(time, "lost", f"broker: batches {expected} to {number - 1} of boot {boot}"))
            hearing.skip()
        self._next[boot] = number + 1
        for since, values in batch["v"]:
            for leaf, value in values.items():
                if leaf in sent:  # others are those of a strange schema
                    hearing.take(time, leaf, runs(value if isinstance(value, list) else [value]), sent[leaf])
                if leaf == "slow":
                    self.slow[value] = batch["t"] + since

    def missing_in(self, stored):
        """(ms, value) of what was passed on and is not in the database, although it is alone in its millisecond."""
        by_time = collections.Counter(self.slow.values())
        return [(at, value) for value, at in sorted(self.slow.items()) if value not in stored and by_time[at] == 1]


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

    def take(self, sent, confirm):
        """Takes what has come since. `confirm` is called with number and time of each write that was done."""
        while True:
            try:
                at, topic, payload = self._arrived.get_nowait()
            except queue.Empty:
                return
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
