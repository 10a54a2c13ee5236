"""What readings become on the way: in batches, and as latest values."""

import math
import struct

import pytest

from gatewayharness import PATIENCE, SCHEMA, Plant, retained
from harness import wait_until
from vorbelsim import CanFrame


@pytest.fixture(scope="module")
def module_plant(tmp_path_factory):
    plant = Plant(tmp_path_factory.mktemp("values"))
    plant.start(values={"interval_ms": 0}, now={"interval_ms": 0}, schema={"accept": True})
    yield plant
    plant.close()


@pytest.fixture
def value_plant(module_plant):
    """One gateway for all tests with it, and the way to give it a schema."""
    def load(schema):
        module_plant.listener.forget()
        module_plant.listener.publish("schema/set", schema)
        assert module_plant.listener.wait("done").json["ok"]
        module_plant.listener.wait("schema", lambda message: message.json == schema)

    return module_plant, load


def floats(*numbers_):
    return struct.pack(f"<{len(numbers_)}f", *numbers_)


@pytest.mark.parametrize("leaf, payloads, text", [
    ({"@format": "C"}, [b"\xc8"], b"200"),
    ({"@format": "i"}, [b"\x00\x00\x00\x80"], b"-2147483648"),
    ({"@format": "I"}, [b"\xff\xff\xff\xff"], b"4294967295"),
    ({"@format": "C", "@factor": 10}, [b"\x09"], b"0.9"),
    ({"@format": "S", "@factor": 1000}, [b"\xff\xff"], b"65.535"),
    ({"@format": "C", "@asBool": True}, [b"\x02"], b"true"),
    ({"@format": "f"}, [floats(1.5)], b"1.5"),
    ({"@format": "f"}, [floats(math.nan)], b"null"),
    ({"@format": "f"}, [floats(-math.inf)], b"null"),
    ({"@format": "s", "@flushSize": 3}, [b"\x01\x00", b"\xff\xff", b"\x00\x01"], b"[1,-1,256]"),
    ({"@format": "C", "@factor": 10, "@flushSize": 2}, [b"\x09", b"\x0b"], b"[0.9,1.1]"),
    ({"@format": "f", "@flushSize": 2}, [floats(0.5), floats(math.nan)], b"[0.5,null]"),
    ({"@format": "C", "scale": 0.5, "labels": {"3": "three"}}, [b"\x03"], b"3"),
], ids=["small", "lowest", "greatest", "scaled", "scaled by a thousand", "flag", "float", "not a number", "infinite",
        "array", "array of scaled ones", "array with what is no number", "not as it is meant"])
def test_a_reading_as_json(value_plant, leaf, payloads, text):
    plant, load = value_plant
    load({"group": {"a": {"@mac": 9, "@cmd": 1, **leaf}}})
    plant.say(*(CanFrame.vek(9, 1, payload) for payload in payloads))
    message = plant.listener.wait("values")
    assert message.payload.endswith(b',"v":[[0,{"group":{"a":' + text + b"}}]]}")


# The latest value


@pytest.mark.parametrize("leaf, payload, text", [
    ({"@format": "C"}, b"\x07", b"7"),
    ({"@format": "C", "@factor": 10}, b"\x09", b"0.9"),
    ({"@format": "C", "scale": 0.5, "offset": -40}, b"\x5b", b"5.5"),
    ({"@format": "S", "swapped": True}, b"\x01\x02", b"258"),
    ({"@format": "C", "bits": [4, 4], "signed": True}, b"\xe1", b"-2"),
    ({"@format": "I", "float": True}, struct.pack("<f", 0.25), b"0.25"),
    ({"@format": "C", "@asBool": True}, b"\x01", b"true"),
    ({"@format": "C", "labels": {"3": "three"}}, b"\x03", b"3"),
], ids=["bare", "factor", "scale and offset", "swapped", "bits", "single", "flag", "label"])
def test_the_latest_value_is_what_it_means(value_plant, leaf, payload, text):
    plant, load = value_plant
    load({"a": {"b": {"@mac": 9, "@cmd": 1, **leaf}}})
    plant.say(CanFrame.vek(9, 1, payload))
    message = plant.listener.wait("now/a/b")
    assert message.payload == text and message.qos == 0
    assert retained(plant.broker.port)["vorbel/7/now/a/b"] == text


def test_the_latest_value_of_an_array_is_a_list(value_plant):
    plant, load = value_plant
    load({"a": {"@mac": 9, "@cmd": 1, "@format": "C", "@flushSize": 2, "scale": 0.5}})
    plant.say(CanFrame.vek(9, 1, b"\x01"), CanFrame.vek(9, 1, b"\x02"))
    assert plant.listener.wait("now/a").json == [0.5, 1]


def test_a_value_that_does_not_count_is_no_latest_one(value_plant):
    plant, load = value_plant
    load({"page": {"@mac": 9, "@cmd": 1, "@format": "C"},
          "oil": {"@mac": 9, "@cmd": 1, "@format": "C", "@skip": 1, "when": {"path": "page", "is": 2}}})
    plant.say(CanFrame.vek(9, 1, b"\x01\x05"), CanFrame.vek(9, 1, b"\x02\x06"))
    plant.listener.wait_last("now/page", b"2")
    assert [message.payload for message in plant.listener.wait_count("now/oil", 1)] == [b"6"]


def test_names_are_levels_that_mean_nothing_else(value_plant):
    plant, load = value_plant
    names = {"a/b": "a%2Fb", "+": "%2B", "#": "%23", "50%": "50%25", "c.d": "c%2Ed", "e f": "e%20f", "$x": "%24x",
             "*>": "%2A%3E", "tab\tdel\x7f": "tab%09del%7F", "Öl": "Öl"}
    load({"group": {name: {"@mac": 9, "@cmd": 1, "@format": "C"} for name in names}})
    plant.say(CanFrame.vek(9, 1, b"\x01"))
    wait_until(lambda: len(plant.listener.below("now/group/")) == len(names), PATIENCE, "all names")
    assert set(plant.listener.below("now/group/")) == set(names.values())


def test_the_latest_value_comes_when_it_changes(value_plant):
    plant, load = value_plant
    load(SCHEMA)
    plant.say_speeds(1, 1, 1, 2, 2, 1)
    plant.say(CanFrame.vek(6, 1, b"\x01"))
    plant.listener.wait("now/valve")
    assert [message.payload for message in plant.listener.of("now/motor/speed")] == [b"1", b"2", b"1"]


def test_an_empty_message_takes_away_what_the_schema_has_lost(value_plant):
    plant, load = value_plant
    load(SCHEMA)
    plant.say_speeds(11)
    plant.say(CanFrame.vek(6, 1, b"\x0b"))
    plant.listener.wait("now/valve")
    plant.listener.wait("now/motor/speed")
    load({"valve": SCHEMA["valve"]})
    plant.listener.wait_last("now/motor/speed", b"")
    kept = retained(plant.broker.port)
    assert kept["vorbel/7/now/valve"] == b"11" and "vorbel/7/now/motor/speed" not in kept
