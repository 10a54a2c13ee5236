"""Three nodes of one broker, of which one after the other is killed."""

import json
import time
import urllib.request

import pytest

from gatewayharness import (PATIENCE, Listener, Process, Sender, assert_nothing_missing, free_port, speeds,
                            without_repeats)
from harness import wait_until

LONG = 120  # seconds for a cluster to agree
OFTEN = {"values": {"interval_ms": 100}}


class Node:
    """One nats-server with its MQTT listener."""

    def __init__(self, folder, number):
        self.name = f"n{number}"
        self.port, self.route, self._client, self._monitor = (free_port() for _ in range(4))
        self._folder = folder / self.name
        self._folder.mkdir()
        self._process = None

    def configure(self, nodes):
        routes = ", ".join(f'"nats://127.0.0.1:{node.route}"' for node in nodes if node is not self)
        (self._folder / "nats.conf").write_text(f"""
            server_name: {self.name}
            listen: "127.0.0.1:{self._client}"
            http: "127.0.0.1:{self._monitor}"
            jetstream {{ store_dir: "{self._folder}/store", max_mem: 64M, max_file: 256M }}
            cluster {{ name: plant, listen: "127.0.0.1:{self.route}", routes: [{routes}] }}
            mqtt {{ host: "127.0.0.1", port: {self.port}, stream_replicas: 3 }}
        """)

    def start(self):
        self._process = Process(["nats-server", "-c", self._folder / "nats.conf"],
                                self._folder / f"log-{time.monotonic_ns()}")

    def kill(self):
        self._process.kill()

    def alive(self):
        return self._process.alive()

    def stop(self):
        if self.alive():
            self._process.stop()

    def asked(self, what):
        with urllib.request.urlopen(f"http://127.0.0.1:{self._monitor}/{what}", timeout=PATIENCE) as answer:
            return json.load(answer)

    def is_current(self):
        """Whether it can take part in what the cluster decides."""
        try:
            meta = self.asked("jsz").get("meta_cluster", {})
            is_whole = meta.get("leader") and meta["cluster_size"] == 3 and self.asked("routez")["num_routes"] >= 2
            return bool(is_whole) and self.asked("healthz")["status"] == "ok"
        except OSError:
            return False

    def clients(self):
        """The names of the MQTT sessions that it serves."""
        return [one["mqtt_client"] for one in self.asked("connz")["connections"] if one.get("mqtt_client")]


class Cluster:
    """Stands for a broker where one is expected: its port is that of the last node, which is never killed."""

    def __init__(self, folder):
        self.nodes = [Node(folder, number) for number in (1, 2, 3)]
        for node in self.nodes:
            node.configure(self.nodes)
        for node in self.nodes:
            node.start()

    @property
    def port(self):
        return self.nodes[-1].port

    @property
    def url(self):
        return ", ".join(f"mqtt://127.0.0.1:{node.port}" for node in self.nodes)

    def wait_agreed(self):
        wait_until(lambda: all(node.is_current() for node in self.nodes), LONG, "the nodes to agree")

    def serving(self, name):
        """The nodes that have a session whose name has this in it."""
        return [node for node in self.nodes if node.alive() and any(name in client for client in node.clients())]

    def stop(self):
        for node in self.nodes:
            node.stop()


@pytest.fixture
def plant(make_plant, tmp_path):
    """With a cluster as its broker, and a listener that hears later what comes while it is away."""
    cluster = Cluster(tmp_path)
    try:
        cluster.wait_agreed()
        plant = make_plant(broker=cluster)
        plant.listen(name="listener")
        yield plant
    finally:
        cluster.stop()


def test_nodes_that_are_killed_one_after_the_other_cost_nothing(plant):
    cluster = plant.broker
    plant.start(**OFTEN, broker={"client_id": "board", "version": "3.1.1"})
    with Sender(plant) as sender:
        sender.wait(50)
        for node in cluster.nodes[:2]:
            wait_until(lambda: cluster.serving("board"), LONG, "the gateway to be connected")
            serving = cluster.serving("board")[0]
            if serving is cluster.nodes[-1]:
                serving = node
            serving.kill()
            sender.wait(100)
            wait_until(lambda: sender.said - 60 in speeds(plant.listener), LONG, "values to go on")
            serving.start()
            cluster.wait_agreed()
        sender.wait(50)
    wait_until(lambda: len(set(speeds(plant.listener))) >= sender.said, LONG, "all values")
    assert without_repeats(speeds(plant.listener)) == list(range(sender.said))
    assert_nothing_missing(plant.listener)


def test_a_write_and_what_is_kept_by_way_of_another_node(plant):
    plant.start(**OFTEN, broker={"version": "3.1.1"}, write={"users": "ann: *"})
    other = Listener(plant.broker.nodes[1].port)
    assert other.wait("status", lambda message: message.json["online"]).retain
    assert other.wait("schema").retain
    wait_until(lambda: plant.write("ann", "motor/setpoint", 5)["ok"], LONG, "a write that is obeyed")
    other.wait("done")
    other.close()
