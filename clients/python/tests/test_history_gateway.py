"""The history behind a real gateway and a real daemon."""

import json
import time

import pytest

from gatewayharness import Plant
from histories import Database, History, wait_until
from vorbelsim import CanFrame

# One leaf for each way in which a reading becomes a value, and what the device sends of it.
LEAVES = {
    "plain": ({"@format": "s"}, b"\xff\xf0"), "unsigned": ({"@format": "S"}, b"\xff\xf0"),
    "factor": ({"@format": "S", "@factor": 10}, b"\x09\x00"), "third": ({"@format": "S", "@factor": 3}, b"\x05\x00"),
    "scaled": ({"@format": "S", "scale": 0.1, "offset": -40}, b"\xd2\x04"),
    "large": ({"@format": "I", "scale": 3.5, "offset": 0.25}, b"\xff\xff\xff\xfe"),
    "both": ({"@format": "S", "@factor": 8, "scale": 0.3, "offset": 1}, b"\x0d\x00"),
    "bits": ({"@format": "C", "bits": [2, 3], "signed": True}, b"\xf6"),
    "swapped": ({"@format": "S", "swapped": True, "scale": 2}, b"\x01\x02"),
    "float": ({"@format": "I", "float": True}, b"\x1f\x85\x7b\x40"),
    "single": ({"@format": "f"}, b"\x1f\x85\x7b\x40"),
    "floated": ({"@format": "I", "float": True, "scale": 0.1}, b"\x1f\x85\x7b\x40"),
    "flag": ({"@format": "C", "@asBool": True}, b"\x01"),
    "labelled": ({"@format": "C", "labels": {"2": "running"}}, b"\x02"),
    "masked": ({"@format": "C", "@mask": 12}, b"\x0e"),
}
NODE = 5


def schema():
    return {"all": {name: {"@mac": NODE, "@cmd": command, **options}
                    for command, (name, (options, _)) in enumerate(LEAVES.items(), 1)}}


def frames():
    return [CanFrame.vek(NODE, command, payload) for command, (_, payload) in enumerate(LEAVES.values(), 1)]


@pytest.fixture
def plant(tmp_path):
    plant = Plant(tmp_path, schema=schema())
    yield plant
    plant.close()


@pytest.fixture
def database(tmp_path):
    database = Database(tmp_path).start()
    yield database
    database.end()


@pytest.fixture
def history(tmp_path, plant, database):
    history = History(tmp_path, plant.broker, database).start()
    yield history
    history.end()


def values_of(database):
    return {path: points for (_, path), points in database.series().items()}


def test_each_value_is_the_number_that_the_gateway_says_is_now(plant, database, history):
    plant.start(values={"interval_ms": 100}, now={"interval_ms": 0})
    plant.say(*frames())
    paths = {f"all.{name}" for name in LEAVES}
    wait_until(lambda: set(values_of(database)) == paths, "a value of each")
    now = {topic.replace("/", "."): json.loads(message.payload)
           for topic, message in plant.listener.below("now/").items()}
    assert {path: points[-1][1] for path, points in values_of(database).items()} == {
        path: float(value) for path, value in now.items()}
    assert {board for board, _ in database.series()} == {"7"}
    assert not database.series("vorbel_reading")


def counts(plant):
    """(ms, value) of all that the gateway said."""
    return [(batch["t"] + later, values["count"]) for batch in plant.listener.batches() for later, values in batch["v"]]


def test_all_that_the_device_says_while_everything_is_killed_in_turn(plant, database, history):
    plant.set_schema_file({"count": {"@mac": NODE, "@cmd": 1, "@format": "S"}})
    plant.start(values={"interval_ms": 50})
    said = 0

    def say(count):
        nonlocal said
        for _ in range(count):
            plant.say(CanFrame.vek(NODE, 1, said.to_bytes(2, "little")))
            said += 1
            time.sleep(0.003)

    say(100)
    history.kill()
    say(100)
    history.start()
    say(100)
    database.kill()
    say(100)
    database.start()
    say(100)
    wait_until(lambda: len(counts(plant)) >= said, f"{said} values")
    expected = dict(counts(plant))  # of those in one millisecond, the last
    wait_until(lambda: len(values_of(database).get("count", ())) >= len(expected), f"{len(expected)} values")
    assert values_of(database)["count"] == sorted(expected.items())
    assert not database.series("vorbel_gap")
