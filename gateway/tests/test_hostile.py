"""What anybody may send to the topics that the gateway hears, and what it may cost."""

import re
import threading
import time

import pytest

from gatewayharness import PATIENCE, Plant, setpoint
from harness import wait_until

ROOM = 32  # MiB, at most
MEGABYTES = b"7" * 10_000_000
DEEP = 100_000
KEPT = 190_000  # bytes of a message that is too large for the broker to hand it on
LEVELS = 190  # mosquitto takes 200

FLOOD, SECONDS = 1000, 5  # messages a second, and for how long
SUMMARY = re.compile(r"(\d+) more refusals?")


@pytest.fixture(scope="module")
def module_plant(tmp_path_factory):
    plant = Plant(tmp_path_factory.mktemp("hostile"))
    plant.start(values={"interval_ms": 0}, write={"users": "ann: *"})
    yield plant
    plant.close()


@pytest.fixture
def target(module_plant):
    """A gateway that has to be as well afterwards as it was before."""
    module_plant.listener.forget()
    module_plant.gateway.reset_memory_peak()
    yield module_plant
    is_well(module_plant)


def is_well(plant):
    """A good write is obeyed, no other one was, and values still come by the schema."""
    def is_obeyed():
        done = plant.write("ann", "motor/setpoint", 77)
        return done["ok"]

    wait_until(is_obeyed, PATIENCE, "a write that is obeyed")
    assert set(plant.frames(100, timeout=0.1)) == {setpoint(77)}
    plant.listener.forget()
    plant.say_speeds(5)
    plant.wait_speed(5)
    assert plant.listener.of("schema") == []


def refusal(plant, topic, payload):
    """What is told of a message that must be refused."""
    plant.listener.publish(topic, payload)
    done = plant.listener.wait("done").json
    assert done["ok"] is False and done["raw"] is None and done["error"]
    return done


PAYLOADS = {
    "no JSON": b"\x00\xff\xfe{]",
    "10 MB of digits": MEGABYTES,
    "10 MB of text": b'"' + MEGABYTES + b'"',
    "10 MB of space": b" " * len(MEGABYTES),
    "10 MB of small numbers": b"[" + b"1," * (len(MEGABYTES) // 2) + b"1]",
    "10 MB of small objects": b"[" + b"{}," * (len(MEGABYTES) // 3) + b"{}]",
    "deep lists": b"[" * DEEP,
    "deep lists that end": b"[" * DEEP + b"]" * DEEP,
    "deep objects": b'{"value":' * DEEP + b"1" + b"}" * DEEP,
    "deep schemas": b'{"a":' * DEEP + b'{"@mac":1}' + b"}" * DEEP,
    "a great many names": b"{" + b",".join(b'"%d":{}' % n for n in range(300_000)) + b"}",
    "no text": b'"\xed\xa0\x80"',
}


@pytest.mark.plain_build_only
@pytest.mark.parametrize("topic", ["set/ann/motor/setpoint", "set/nobody/motor/setpoint", "schema/set"])
@pytest.mark.parametrize("payload", PAYLOADS.values(), ids=PAYLOADS.keys())
def test_bad_payloads_are_refused_within_the_room_there_is(target, topic, payload):
    if len(payload) > KEPT:
        target.listener.publish(topic, payload)
        is_well(target)
    else:
        assert len(refusal(target, topic, payload)["error"]) < 1000
    assert all(len(message.payload) < 2000 for message in target.listener.of("done"))
    assert target.gateway.memory_peak() < ROOM


@pytest.mark.plain_build_only
@pytest.mark.parametrize("path", [
    "/".join(["a"] * LEVELS), "/" * LEVELS, "a" * 60_000, "motor/setpoint/", "/motor/setpoint", "motor//setpoint",
    "motor.setpoint", "%00%01%1F%7F", "%", "%2", "%zz", "%FF%FE", "motor%2Fsetpoint", "%C0%AE", "../../motor/setpoint",
    "\u202emotor", "@mac", "motor/setpoint/@format",
], ids=["deep", "empty levels", "long", "a level behind", "a level before", "a level between", "a dot", "controls",
        "lone sign", "half an escape", "no escape", "no UTF-8", "one level of two", "overlong", "upwards",
        "turned around", "an option", "an option below"])
def test_wild_paths_are_refused(target, path):
    refusal(target, f"set/ann/{path}", b"1")
    assert all(len(message.payload) < 200_000 for message in target.listener.of("done"))
    assert target.gateway.memory_peak() < ROOM


@pytest.mark.parametrize("user", ["a" * 10_000, "%61nn", "ann ", "ännchen", "an\"n"],
                         ids=["long", "escaped", "with a space", "longer", "with a quote"])
def test_wild_names_are_refused(target, user):
    told = refusal(target, f"set/{user}/motor/setpoint", b"1")["user"]
    assert told == user or len(user) > 1000 and told.startswith(user[:500])


def count_of(done):
    """For how many refusals a message stands."""
    summary = SUMMARY.fullmatch(done["error"])
    return int(summary[1]) if summary else 1


def pour(plant, topic, payload):
    """FLOOD messages a second; how long it took."""
    began = time.monotonic()
    for second in range(SECONDS):
        for _ in range(FLOOD):
            plant.listener.publish_soon(topic, payload, qos=0)
        time.sleep(max(0, began + second + 1 - time.monotonic()))
    return time.monotonic() - began


@pytest.mark.plain_build_only
@pytest.mark.parametrize("topic, payload", [
    ("set/ann/motor/setpoint", b"fast"), ("set/nobody/motor/setpoint", b"1"), ("schema/set", b"{"),
], ids=["no JSON", "nobody", "schemas"])
def test_a_flood_is_refused_with_ten_messages_a_second_and_a_sum(target, topic, payload):
    time.sleep(3)  # so that nothing of what was before is told in a sum
    target.listener.forget()
    began = time.monotonic()
    pour(target, topic, payload)

    def told():
        return [message.json for message in target.listener.of("done")]

    wait_until(lambda: sum(map(count_of, told())) >= FLOOD * SECONDS, PATIENCE, "all refusals to be told")
    seconds = time.monotonic() - began
    assert sum(map(count_of, told())) - FLOOD * SECONDS <= 10  # one told may come twice, as QoS 1 has it
    assert not any(done["ok"] for done in told())
    summaries = [done for done in told() if SUMMARY.fullmatch(done["error"])]
    assert summaries and len(told()) - len(summaries) <= 10 * (seconds + 1) and len(summaries) <= seconds + 1
    assert all(done[key] is None for done in summaries for key in ("user", "path", "value", "raw"))
    assert target.gateway.memory_peak() < ROOM


def test_a_good_write_amid_a_flood_is_obeyed(target):
    ended = threading.Event()

    def pour_on():
        while not ended.wait(0.1):
            for _ in range(FLOOD // 10):
                target.listener.publish_soon("set/nobody/motor/setpoint", b"1", qos=0)

    flood = threading.Thread(target=pour_on)
    flood.start()

    def is_obeyed():
        target.listener.publish("set/ann/motor/setpoint", 79)
        return any(message.json["ok"] for message in target.listener.of("done"))

    wait_until(is_obeyed, PATIENCE, "a write that is obeyed")
    ended.set()
    flood.join()
    assert set(target.frames(100, timeout=1)) == {setpoint(79)}


def test_what_others_say_on_the_gateways_own_topics_moves_nothing(target):
    for topic in ("status", "values", "done", "now/motor/speed"):
        target.listener.publish(topic, b"{")
    for pulse in (b"x" * 1000, b"0", b"99999999999999", b""):
        target.listener.publish("pulse", pulse)
    time.sleep(2)  # two of the gateway's own
    assert not any("come through" in line for line in target.gateway.lines())
