"""What may come back: who may write what, what reaches the bus, and what is told about it."""

import json
import subprocess
import time

import pytest

from gatewayharness import AT_ONCE, PATIENCE, SCHEMA, Plant, compact, milliseconds, setpoint
from harness import wait_until
from vorbelsim import CanFrame

MAX_AGE = 3  # seconds
USERS = "operator: motor.setpoint motor.mode motor.hot, engineer: *, painter: page ?xtra"
WRITE = {"users": USERS, "max_age_s": MAX_AGE}
PAGED = {
    **SCHEMA,
    "page": {"@mac": 8, "@cmd": 1, "@format": "C"},
    "extra": {"@mac": 8, "@cmd": 1, "@format": "C", "@skip": 1, "when": {"path": "page", "is": 2}},
    "other": {"@mac": 8, "@cmd": 2, "@format": "C"},
    "oxtra": {"@mac": 8, "@cmd": 2, "@format": "C", "@skip": 1, "when": {"path": "other", "is": 3}},
    "a/b": {"@mac": 8, "@cmd": 3, "@format": "s", "@factor": 10},
    "scaled": {"@mac": 8, "@cmd": 4, "@format": "C", "scale": 0.5, "offset": -40},
}


@pytest.fixture(scope="module")
def module_plant(tmp_path_factory):
    plant = Plant(tmp_path_factory.mktemp("writes"), schema=PAGED)
    plant.start(**AT_ONCE, write=WRITE, schema={"accept": True})
    yield plant
    plant.close()


@pytest.fixture
def writing(module_plant):
    """One gateway for all tests that leave it as it was."""
    module_plant.frames(1000, timeout=0)
    module_plant.listener.forget()
    time.sleep(0.2)  # ten refusals a second are told one by one, and no test makes more than two
    return module_plant


def is_refused(plant, done, *words):
    """A write was refused for a reason with these words, and only the one behind it reaches the bus."""
    assert done["ok"] is False and done["raw"] is None
    assert all(word in done["error"] for word in words), done["error"]
    assert plant.write("engineer", "motor/setpoint", 77)["ok"]
    plant.only_frames(setpoint(77))


# What is obeyed


def test_a_write_reaches_the_bus_and_is_told(writing):
    before = milliseconds()
    writing.listener.publish("set/operator/motor/setpoint", 1200)
    message = writing.listener.wait("done")
    done = message.json
    assert list(done) == ["user", "path", "value", "raw", "time", "ok", "error"]
    assert before <= done["time"] <= milliseconds()
    assert message.payload == compact({"user": "operator", "path": "motor.setpoint", "value": 1200, "raw": 1200,
                                       "time": done["time"], "ok": True, "error": None})
    assert message.qos == 1 and not message.retain
    writing.only_frames(setpoint(1200))


def test_a_write_is_in_the_journal(writing):
    writing.write("operator", "motor/setpoint", 4321)
    lines = [line for line in writing.gateway.lines() if "4321" in line]
    assert len(lines) == 1 and lines[0].startswith("info ")
    assert "operator" in lines[0] and "motor.setpoint" in lines[0]
    writing.only_frames(setpoint(4321))


def test_a_refusal_is_in_the_journal(writing):
    writing.write("nobody", "motor/setpoint", 4322)
    assert any("nobody" in line and "motor.setpoint" in line for line in writing.gateway.lines())


@pytest.mark.parametrize("path, payload, value, raw, frame", [
    ("motor/mode", b'"running"', "running", 2, CanFrame.vek(5, 4, b"\x02")),
    ("motor/mode", b"2", 2, 2, CanFrame.vek(5, 4, b"\x02")),
    ("motor/setpoint", b" -1 \n", -1, -1, setpoint(-1)),
    ("motor/setpoint", b'{"value":5}', 5, 5, setpoint(5)),
    ("motor/mode", b'{"value":"off"}', "off", 0, CanFrame.vek(5, 4, b"\x00")),
    ("scaled", b"5.5", 5.5, 91, CanFrame.vek(8, 4, b"\x5b")),
    ("a%2Fb", b"0.9", 0.9, 9, CanFrame.vek(8, 3, b"\x09\x00")),
], ids=["label", "number of a label", "space around", "object", "object with a label", "scaled", "name made safe"])
def test_forms_of_a_value(writing, path, payload, value, raw, frame):
    done = writing.write("engineer", path, payload)
    assert (done["value"], done["raw"], done["ok"], done["error"]) == (value, raw, True, None)
    writing.only_frames(frame)


def test_a_value_with_a_condition_sets_what_it_asks_for(writing):
    assert writing.write("painter", "extra", 9)["ok"]
    writing.only_frames(CanFrame.vek(8, 1, b"\x02\x09"))


def test_writes_go_out_in_the_order_in_which_they_came(writing):
    for n in range(12):
        writing.listener.publish_soon("set/operator/motor/setpoint", str(n))
    assert [message.json["raw"] for message in writing.listener.wait_count("done", 12)] == list(range(12))
    writing.only_frames(*map(setpoint, range(12)))


def test_foreign_tools_write_and_hear(writing):
    broker = ["-h", "127.0.0.1", "-p", str(writing.broker.port)]
    with subprocess.Popen(["mosquitto_sub", *broker, "-i", "tool", "-t", "vorbel/+/done", "-C", "1", "-v",
                           "-W", str(PATIENCE)], stdout=subprocess.PIPE, text=True) as hears:
        wait_until(lambda: "Sending SUBACK to tool" in writing.broker.log(), what="the tool to listen")
        subprocess.run(["mosquitto_pub", *broker, "-q", "1", "-t", "vorbel/7/set/operator/motor/mode",
                        "-m", '"running"'], check=True, timeout=PATIENCE)
        topic, text = hears.communicate(timeout=PATIENCE)[0].split(" ", 1)
    assert topic == "vorbel/7/done" and json.loads(text)["raw"] == 2
    writing.only_frames(CanFrame.vek(5, 4, b"\x02"))


# Time


def test_a_write_with_its_time_is_obeyed(writing):
    assert writing.write("operator", "motor/setpoint", {"value": 8, "time": milliseconds()})["ok"]
    writing.only_frames(setpoint(8))


@pytest.mark.parametrize("age", [MAX_AGE * 1000 + 1, 3_600_000, -MAX_AGE * 1000 - 10_000, -3_600_000],
                         ids=["a little too old", "old", "ahead", "far ahead"])
def test_a_write_of_another_time_is_refused(writing, age):
    done = writing.write("operator", "motor/setpoint", {"value": 9, "time": milliseconds() - age})
    assert done["value"] == 9
    is_refused(writing, done)


@pytest.mark.parametrize("when", ["soon", None, True, [], 1e300, -1], ids=str)
def test_a_time_that_is_none_is_refused(writing, when):
    is_refused(writing, writing.write("operator", "motor/setpoint", {"value": 9, "time": when}))


def test_the_same_write_again_is_done_once(writing):
    order = {"value": 5, "time": milliseconds()}
    for _ in range(3):
        writing.listener.publish("set/operator/motor/setpoint", order)
    writing.listener.publish("set/operator/motor/setpoint", {**order, "value": 6})
    writing.listener.publish("set/engineer/motor/setpoint", order)
    writing.only_frames(setpoint(5), setpoint(6), setpoint(5))

    def done():
        return sum(message.json["ok"] for message in writing.listener.of("done"))

    wait_until(lambda: done() >= 3, PATIENCE, "three writes to be done")
    assert done() == 3


def test_a_bare_value_again_is_done_again(writing):
    for _ in range(2):
        assert writing.write("operator", "motor/setpoint", 5)["ok"]
    writing.only_frames(setpoint(5), setpoint(5))


# Who, and what


@pytest.mark.parametrize("user, path", [
    ("nobody", "motor/setpoint"), ("operator", "valve"), ("Operator", "motor/setpoint"), ("", "motor/setpoint"),
    ("operator:", "motor/setpoint"), ("*", "motor/setpoint"), ("painter", "extra2"),
], ids=["unknown user", "path of another", "letter case", "no name", "almost a name", "wildcard", "longer path"])
def test_a_user_without_the_right_is_refused(writing, user, path):
    done = writing.write(user, path, 5)
    assert (done["user"], done["path"], done["value"]) == (user, path.replace("/", "."), 5)
    is_refused(writing, done)


def test_what_a_condition_sets_must_be_allowed_too(writing):
    is_refused(writing, writing.write("painter", "oxtra", 5), "other")


@pytest.mark.parametrize("path, value, word", [
    ("motor/nothing", b"1", "no such value"),
    ("motor", b"1", "no such value"),
    ("motor/hot", b"1", "@asBool"),
    ("motor/setpoint", b'"fast"', "fast"),
    ("motor/setpoint", b"true", "number"),
    ("motor/setpoint", b"[1]", "number"),
    ("motor/setpoint", b"6001", "6000"),
    ("motor/setpoint", b"1e300", "6000"),
    ("motor/mode", b'"walking"', "walking"),
    ("valve", b"256", "256"),
    ("valve/x", b"1", "no such value"),
    ("", b"1", "no such value"),
], ids=["unknown", "group", "read-only", "text", "flag", "list", "beyond its bounds", "enormous", "unknown label",
        "out of range", "below a leaf", "no path"])
def test_what_cannot_be_written_is_refused(writing, path, value, word):
    is_refused(writing, writing.write("engineer", path, value), word)


@pytest.mark.parametrize("payload", [b"", b"fast", b"1 2", b"{", b"null", b"{}", b'{"time":1}', b"\xff", b"NaN",
                                     b'{"value":1,"tine":2}'],
                         ids=repr)
def test_what_is_no_value_is_refused(writing, payload):
    is_refused(writing, writing.write("operator", "motor/setpoint", payload))


# Schemas


@pytest.mark.parametrize("schema, word", [
    (b"{", "JSON"), (b"[]", "object"), (b"{}", ""), (b"", "JSON"), (b"null", "object"),
    ({"a": {"@mac": 1, "@fromat": "C"}}, "@fromat"),
    ({"a": {"@mac": 64000000, "@cmd": 1, "@format": "C"}}, "@mac"),
    ({"a": {"@mac": 1, "@cmd": 1, "@format": "C", "bits": [4, 9]}}, "bits"),
    (b'{"a":{"@mac":1,"@cmd":1,"@format":"C"},"a":{"@mac":2,"@cmd":1,"@format":"C"}}', "a"),
], ids=["no JSON", "list", "without a leaf", "nothing", "null", "misspelt option", "range", "member", "repeated name"])
def test_a_schema_with_errors_is_refused_and_the_one_before_stays(writing, schema, word):
    done = writing.put_schema(schema)
    assert done["ok"] is False and word in done["error"]
    writing.say_speeds(5)
    writing.wait_speed(5)
    assert writing.listener.of("schema") == []
