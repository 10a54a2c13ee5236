"""What the gateway publishes: status, schema, values and the latest value of each leaf."""

import time

import pytest

from gatewayharness import (PATIENCE, SCHEMA, Relay, assert_nothing_missing, compact, load_as_another_client,
                            milliseconds, numbers, retained, speeds)
from harness import wait_until
from vorbelsim import CanFrame

EACH_MESSAGE = {"values": {"interval_ms": 0}}
EACH_CHANGE = {"now": {"interval_ms": 0}}


def online(plant):
    return plant.listener.wait("status", lambda message: message.json["online"])


def offline(plant):
    return plant.listener.wait_last("status", b'{"online":false}')


# Status


def test_status_says_who_is_there_since_when_and_is_kept(make_plant):
    plant = make_plant(VORBEL_DEVICE_TYPE="press", VORBEL_DEVICE_ID="seven")
    before = milliseconds()
    plant.start()
    message = online(plant)
    status = message.json
    assert list(status) == ["online", "type", "id", "since", "boot", "lost"]
    assert (status["online"], status["type"], status["id"], status["lost"]) == (True, "press", "seven", 0)
    assert before <= status["since"] <= milliseconds()
    assert message.payload == compact(status) and message.qos == 1
    assert retained(plant.broker.port)["vorbel/7/status"] == message.payload


def test_status_of_a_daemon_without_an_id_has_null(plant):
    plant.start()
    assert online(plant).json["id"] is None
    assert online(plant).json["type"] == "unknown"


def test_the_last_will_tells_that_the_gateway_was_killed(plant):
    plant.start()
    online(plant)
    plant.gateway.kill()
    plant.gateway = None
    assert offline(plant).qos == 1
    assert retained(plant.broker.port)["vorbel/7/status"] == b'{"online":false}'


def test_a_gateway_that_is_stopped_says_so(plant):
    plant.start()
    plant.stop_gateway()
    offline(plant)
    assert retained(plant.broker.port)["vorbel/7/status"] == b'{"online":false}'


def test_status_follows_the_daemon(plant):
    plant.start()
    first = online(plant).json
    plant.stop_daemon()
    offline(plant)
    plant.listener.forget()
    plant.start_daemon()
    second = online(plant).json
    assert second["boot"] == first["boot"]
    assert second["since"] > first["since"]


def test_another_client_of_the_daemon_changes_nothing(plant):
    plant.start(**EACH_MESSAGE)
    status = plant.listener.of("status")
    load_as_another_client(SCHEMA)  # the daemon greets everybody when it comes
    plant.wait_heard(5)
    assert plant.listener.of("status") == status
    assert [line for line in plant.gateway.lines() if "daemon:" in line] == ["info daemon: connected to 127.0.0.1"]


def test_what_had_come_is_published_before_the_daemon_is_gone(plant):
    plant.start(values={"interval_ms": 60_000})
    plant.say_speeds(5)
    plant.listener.wait("now/motor/speed")
    plant.stop_daemon()
    plant.listener.wait_last("status", b'{"online":false}')
    assert [message.topic.split("/")[-1] for message in plant.listener.everything()[-2:]] == ["values", "status"]
    assert plant.listener.values() == [{"motor": {"speed": 5}}]


def test_boot_is_greater_after_each_start(plant):
    boots = []
    for _ in range(3):
        plant.start()
        boots.append(online(plant).json["boot"])
        plant.stop_gateway()
        plant.listener.forget()
    assert boots == sorted(set(boots))


def test_the_id_is_what_the_daemon_calls_itself_with_its_bytes_made_safe(make_plant):
    plant = make_plant(VORBEL_DEVICE_ID="a/b +1")
    plant.listen(base="plant/hall/a%2Fb%20%2B1/")
    plant.start(topics={"prefix": "plant/hall", "id": ""})
    assert online(plant).json["id"] == "a/b +1"


# Schema


def test_the_schema_is_published_as_it_was_loaded_and_is_kept(make_plant):
    schema = {"Öl °C": {"@mac": 1, "@cmd": 2, "@format": "f", "title": "Öl", "unit": "°C", "mine": [1, None]}}
    plant = make_plant(schema=schema)
    plant.start()
    message = plant.listener.wait("schema")
    assert message.json == schema
    assert message.payload == compact(message.json) and message.qos == 1
    assert retained(plant.broker.port)["vorbel/7/schema"] == message.payload


def test_a_restarted_daemon_is_given_the_schema_again(plant):
    plant.start(**EACH_MESSAGE)
    plant.say_speeds(1)
    plant.wait_speed(1)
    plant.stop_daemon()
    offline(plant)
    plant.listener.forget()
    plant.start_daemon()
    plant.wait_heard(2)


# Values


def test_each_message_is_a_batch_of_its_own_without_an_interval(plant):
    plant.start(**EACH_MESSAGE)
    before = milliseconds()
    plant.say_speeds(*range(-5, 5))
    messages = plant.listener.wait_count("values", 10)
    boot = online(plant).json["boot"]
    for n, message in enumerate(messages):
        batch = message.json
        assert before <= batch["t"] <= milliseconds()
        assert message.payload == compact(
            {"boot": boot, "n": n, "t": batch["t"], "v": [[0, {"motor": {"speed": n - 5}}]]})
        assert message.qos == 1 and not message.retain


def test_a_batch_gathers_what_comes_within_its_interval(plant):
    plant.start(values={"interval_ms": 1000})
    before = milliseconds()
    plant.say_speeds(1)
    time.sleep(0.3)
    plant.say_speeds(2)
    batch = plant.listener.wait("values").json
    assert [value for _, value in batch["v"]] == [{"motor": {"speed": 1}}, {"motor": {"speed": 2}}]
    (first, _), (second, _) = batch["v"]
    assert first == 0 and 250 <= second
    assert before <= batch["t"] and batch["t"] + second <= milliseconds()


def test_batches_end_by_their_age(plant):
    plant.start(values={"interval_ms": 500})
    for n in range(40):
        plant.say_speeds(n)
        time.sleep(0.05)
    plant.wait_speed(39)
    assert speeds(plant.listener) == list(range(40))
    assert_nothing_missing(plant.listener)
    assert 2 <= len(plant.listener.batches()) < 20
    assert all(batch["v"][0][0] == 0 for batch in plant.listener.batches())


def test_batches_end_before_they_become_too_large(plant):
    plant.start(values={"interval_ms": 60000, "bytes": 256})
    plant.say_speeds(*range(100))
    plant.wait_speed(80)
    messages = plant.listener.of("values")
    assert all(len(message.payload) <= 256 for message in messages)
    for message, behind in zip(messages, messages[1:]):
        first = compact(behind.json["v"][0][1])
        assert len(message.payload) + len(b",[0,]") + len(first) > 256
    assert speeds(plant.listener) == list(range(len(speeds(plant.listener))))
    assert_nothing_missing(plant.listener)


def test_a_message_that_is_larger_is_a_batch_of_its_own(make_plant):
    wide = {f"leaf {at:02}": {"@mac": 7, "@cmd": 1, "@format": "C"} for at in range(30)}
    plant = make_plant(schema={**SCHEMA, "wide": wide})
    plant.start(values={"interval_ms": 60000, "bytes": 256})
    plant.say_speeds(1)
    plant.say(CanFrame.vek(7, 1, b"\x01"))
    plant.say_speeds(2)
    plant.say(CanFrame.vek(7, 1, b"\x02"))
    messages = plant.listener.wait_count("values", 3)
    assert [len(message.json["v"]) for message in messages] == [1, 1, 1]
    assert len(messages[1].payload) > 256
    assert list(messages[1].json["v"][0][1]) == ["wide"]


def test_what_a_stopped_gateway_had_begun_is_published(plant):
    plant.start(values={"interval_ms": 60000}, now={"interval_ms": 0})
    plant.say_speeds(42)
    plant.listener.wait_last("now/motor/speed", b"42")
    plant.stop_gateway()
    plant.wait_speed(42)


# The latest value


def test_the_latest_values_of_a_great_many_leaves_come_at_once(make_plant):
    wide = {f"leaf-{at}": {"@mac": 7, "@cmd": 1, "@format": "C"} for at in range(500)}
    plant = make_plant(schema={"wide": wide})
    plant.start(**EACH_CHANGE)
    for value in range(3):
        plant.say(CanFrame.vek(7, 1, bytes([value])))
    for leaf in wide:
        plant.listener.wait_last(f"now/wide/{leaf}", b"2")
    assert "cannot publish" not in plant.gateway.log()


def test_the_latest_value_comes_at_most_once_an_interval_and_ends_with_the_last(plant):
    plant.start(**EACH_MESSAGE, now={"interval_ms": 2000})
    began = time.monotonic()
    for n in range(100):
        plant.say_speeds(n)
        time.sleep(0.01)
    plant.listener.wait_last("now/motor/speed", b"99")
    intervals = (time.monotonic() - began) / 2
    assert len(plant.listener.of("now/motor/speed")) <= intervals + 2


def test_a_leaf_that_another_schema_file_lacks_is_taken_away_after_a_restart(plant):
    plant.start(**EACH_CHANGE)
    plant.say_speeds(1)
    plant.say(CanFrame.vek(6, 1, b"\x01"))
    plant.listener.wait("now/valve")
    plant.listener.wait("now/motor/speed")
    plant.stop_gateway()
    plant.set_schema_file({"valve": SCHEMA["valve"]})
    plant.start(**EACH_CHANGE)
    plant.listener.wait_last("now/motor/speed", b"")
    assert plant.listener.of("now/valve")[-1].payload == b"1"


def test_a_broker_that_has_forgotten_everything_is_told_again(plant):
    plant.start(**EACH_CHANGE)
    plant.say_speeds(7)
    plant.listener.wait("now/motor/speed")
    before = retained(plant.broker.port)
    plant.listener.expect_new_connection()
    plant.broker.stop()
    plant.listener.forget()
    plant.broker.start()
    plant.listener.wait_subscribed()
    for topic in ("status", "schema", "now/motor/speed"):
        plant.listener.wait(topic, lambda message: message.payload != b'{"online":false}')
        assert retained(plant.broker.port)["vorbel/7/" + topic] == before["vorbel/7/" + topic]


# Versions, and more than one broker


@pytest.mark.parametrize("version", ["3.1.1", "5"])
def test_either_version_of_the_protocol(plant, version):
    plant.start(**EACH_MESSAGE, broker={"version": version})
    plant.say_speeds(1)
    plant.wait_speed(1)
    spoken = {"3.1.1": "p2", "5": "p5"}[version]
    assert f"({spoken}," in plant.broker.log()
    plant.gateway.kill()
    plant.gateway = None
    offline(plant)


def test_without_a_schema_file_what_comes_is_published(plant):
    plant.start(**EACH_MESSAGE, schema={"file": ""}, wait=False)
    online(plant)
    load_as_another_client({"x": {"@mac": 3, "@cmd": 1, "@format": "C"}})
    plant.say(CanFrame.vek(3, 1, b"\x05"))
    assert plant.listener.wait("values").json["v"][0][1] == {"x": 5}


def test_the_next_broker_is_tried_when_one_does_not_answer(plant):
    relay = Relay(plant.broker.port)
    relay.close()
    plant.start(broker={"url": f"mqtt://127.0.0.1:{relay.port}, {plant.broker.url}"}, **EACH_MESSAGE)
    plant.say_speeds(1)
    plant.wait_speed(1)


def test_n_is_counted_from_zero_in_each_boot(plant):
    for _ in range(2):
        plant.start(**EACH_MESSAGE)
        plant.say_speeds(1, 2, 3)
        boot = online(plant).json["boot"]
        wait_until(lambda: len(numbers(plant.listener).get(boot, [])) == 3, PATIENCE, "three batches")
        assert numbers(plant.listener)[boot] == [0, 1, 2]
        plant.stop_gateway()
        plant.listener.forget()
