"""Whose schema the daemon has: the file's, one that came from the broker, or another client's."""

import json

import pytest

from gatewayharness import AT_ONCE, PATIENCE, SCHEMA, load_as_another_client, milliseconds, retained, speed
from harness import wait_until
from vorbelsim import CanFrame

LARGEST = 1 << 20
ROOM = 80  # MiB, while one is checked
NEW = {"pump": {"@mac": 11, "@cmd": 1, "@format": "C"}}


def pump_is_heard(plant):
    plant.say(CanFrame.vek(11, 1, b"\x07"))
    plant.listener.wait("values", lambda message: message.json["v"][0][1] == {"pump": 7})


def test_a_schema_is_loaded_where_it_is_accepted_and_outlives_the_gateway(plant):
    plant.start(**AT_ONCE, schema={"accept": True})
    before = milliseconds()
    done = plant.put_schema(NEW)
    assert before <= done.pop("time") <= milliseconds()
    assert done == {"user": None, "path": None, "value": None, "raw": None, "ok": True, "error": None}
    assert plant.listener.wait("schema", lambda message: message.json == NEW).retain is False
    pump_is_heard(plant)
    plant.stop_gateway()
    plant.listener.forget()
    plant.start(**AT_ONCE, schema={"accept": True})
    plant.listener.wait("schema", lambda message: message.json == NEW)
    pump_is_heard(plant)
    assert retained(plant.broker.port)["vorbel/7/schema"] == plant.listener.of("schema")[-1].payload


def test_a_schema_is_refused_by_default(plant):
    plant.start(**AT_ONCE, write={"users": "ann: *"})
    plant.listener.publish("schema/set", NEW)
    plant.say_speeds(5)
    plant.wait_speed(5)
    assert plant.listener.of("schema")[-1].json == SCHEMA
    assert not any(message.json["ok"] for message in plant.listener.of("done"))


def test_a_schema_that_comes_while_the_daemon_is_away_is_refused_and_forgotten(plant):
    plant.start(**AT_ONCE, schema={"accept": True})
    plant.stop_daemon()
    plant.listener.wait_last("status", b'{"online":false}')
    assert plant.put_schema(NEW)["error"] == "a schema: the daemon is not there"
    plant.start_daemon()
    plant.wait_heard(5)
    assert plant.listener.of("schema")[-1].json == SCHEMA


def test_what_came_before_a_new_schema_is_published_before_it(plant):
    plant.start(values={"interval_ms": 60000}, now={"interval_ms": 0}, schema={"accept": True})
    plant.say_speeds(5)
    plant.listener.wait_last("now/motor/speed", b"5")
    assert plant.put_schema(NEW)["ok"]
    plant.listener.wait("schema", lambda message: message.json == NEW)
    told = [message.json for message in plant.listener.everything()
            if message.topic in ("vorbel/7/values", "vorbel/7/schema")]
    assert told[:-2] == [SCHEMA] and told[-1] == NEW
    assert [value for _, value in told[-2]["v"]] == [{"motor": {"speed": 5}}]


def test_what_a_new_schema_says_counts_at_once(plant):
    plant.start(**AT_ONCE, schema={"accept": True})
    plant.say(speed(5), CanFrame.vek(6, 1, b"\x01"))
    plant.listener.wait_last("now/motor/speed", b"5")
    plant.listener.wait_last("now/valve", b"1")
    assert plant.put_schema({"motor": {"speed": {**SCHEMA["motor"]["speed"], "scale": 0.5}}})["ok"]
    plant.say(speed(6))
    plant.listener.wait_last("now/motor/speed", b"3")
    plant.listener.wait_last("now/valve", b"")
    assert "vorbel/7/now/valve" not in retained(plant.broker.port)


def repeated(begin, unit, end):
    """As much of a unit as a schema may be long."""
    return begin + unit * ((LARGEST - len(begin + end)) // len(unit)) + end


@pytest.mark.plain_build_only
@pytest.mark.parametrize("payload, error", [
    (repeated(b"[", b"0,", b"0]"), "a schema: the root: is no JSON object"),
    (repeated(b"[", b"-1.5e3,", b"0]"), "a schema: the root: is no JSON object"),
    (repeated(b"[", b'"\\u00e4",', b"0]"), "a schema: the root: is no JSON object"),
    (b"{" + b",".join(b'"%d":{}' % n for n in range(80_000)) + b"}", "a schema: the root: has no leaf"),
    (b"{" + b",".join(b'"%d":{"@mac":1}' % n for n in range(48_000)) + b"}", 'a schema: 0: "@format" is missing'),
    (repeated(b"", b" ", b"") + b" ", "a schema: larger than 1 MiB"),
], ids=["numbers", "long numbers", "texts", "groups", "leaves", "too large"])
def test_long_texts_that_are_no_schema_are_refused_in_the_room_that_the_page_tells(plant, payload, error):
    plant.start(**AT_ONCE, schema={"accept": True})
    told = plant.put_schema(payload)["error"]
    assert told.startswith(error) and len(told) <= 1000
    assert plant.gateway.memory_peak() < ROOM
    plant.wait_heard(5)
    assert plant.listener.of("schema")[-1].json == SCHEMA


# Another client's schema

FOREIGN = {"theirs": {"@mac": 5, "@cmd": 2, "@format": "C"}}


def test_a_defended_schema_is_loaded_again_and_told(plant):
    plant.start(**AT_ONCE, schema={"defend": True})
    plant.say_speeds(5)
    plant.wait_speed(5)
    lines_before = len(plant.gateway.lines())
    load_as_another_client(FOREIGN)

    def is_back():
        plant.say(speed(6))
        return any("motor" in value and value["motor"].get("speed") == 6 for value in plant.listener.values())

    wait_until(is_back, PATIENCE, "the schema to be loaded again")
    done = plant.listener.wait("done").json
    assert (done["user"], done["path"], done["value"], done["raw"]) == (None, None, None, None)
    assert len(plant.gateway.lines()) > lines_before
    assert any("schema" in line for line in plant.gateway.lines()[lines_before:])
    assert plant.listener.of("schema")[-1].json == SCHEMA


def test_a_schema_that_is_not_defended_stays_another_clients(plant):
    plant.start(**AT_ONCE)
    plant.say_speeds(5)
    plant.wait_speed(5)
    load_as_another_client(FOREIGN)

    def is_told():
        plant.say(speed(6))
        return plant.listener.of("schema")[-1].payload == b"null"

    wait_until(is_told, PATIENCE, "the schema topic to say null")
    assert retained(plant.broker.port)["vorbel/7/schema"] == b"null"
    plant.say(speed(7))
    plant.listener.wait("values", lambda message: message.json["v"][0][1] == {"theirs": 7})
    assert json.loads(retained(plant.broker.port)["vorbel/7/schema"]) is None


def test_what_another_clients_schema_says_is_not_taken_for_our_own(make_plant):
    scaled = {"temperature": {"@mac": 5, "@cmd": 2, "@format": "s", "scale": 0.1}}
    plant = make_plant(schema=scaled)
    plant.start(**AT_ONCE, write={"users": "ann: *"}, schema={"accept": True, "file": plant.schema_file})
    plant.say(speed(50))
    plant.listener.wait_last("now/temperature", b"5")
    foreign = {"temperature": {"@mac": 5, "@cmd": 2, "@format": "C"}, "theirs": {"@mac": 9, "@cmd": 2, "@format": "C"}}
    load_as_another_client(foreign)
    plant.say(CanFrame.vek(9, 2, b"\x01"))
    plant.listener.wait_last("schema", b"null")
    plant.say(speed(50))
    plant.listener.wait_last("now/temperature", b"50")
    done = plant.write("ann", "temperature", 1)
    assert (done["ok"], done["error"]) == (False, "the schema in force has no such value")
    assert plant.put_schema(scaled)["ok"]
    assert plant.listener.of("schema")[-1].json == scaled
    assert plant.write("ann", "temperature", 1)["ok"]
    plant.only_frames(speed(10))
