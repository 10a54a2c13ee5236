"""Writes that nobody may make, or that come too late: none of them ever reaches the bus."""

import signal
import time

import pytest

from gatewayharness import AT_ONCE, PATIENCE, SCHEMA, Mosquitto, Relay, setpoint
from harness import wait_until

MAX_AGE = 3  # seconds
WRITE = {"users": "operator: motor.*, engineer: *", "max_age_s": MAX_AGE}


def test_nobody_is_obeyed_by_default(plant):
    plant.start(**AT_ONCE)
    plant.listener.publish("set/operator/motor/setpoint", 1)
    plant.listener.publish("schema/set", {"valve": SCHEMA["valve"]})
    plant.say_speeds(5)
    plant.wait_speed(5)
    assert plant.frames(1, timeout=1) == []
    assert not any(message.json["ok"] for message in plant.listener.of("done"))
    assert plant.listener.of("pulse") == []


def assert_only_this_one_arrives(plant, value):
    """A write right now is obeyed, if need be after some that are not, or that nobody hears, and no other one is."""
    def is_obeyed():
        plant.listener.publish("set/engineer/motor/setpoint", value)
        time.sleep(0.5)
        return any(message.json["ok"] and message.json["value"] == value for message in plant.listener.of("done"))

    wait_until(is_obeyed, PATIENCE, "a write that is obeyed")
    assert set(plant.frames(100, timeout=0.2)) == {setpoint(value)}


def test_a_write_while_the_daemon_is_away_is_refused_and_forgotten(plant):
    plant.start(**AT_ONCE, write=WRITE)
    plant.stop_daemon()
    plant.listener.wait_last("status", b'{"online":false}')
    done = plant.write("operator", "motor/setpoint", 666)
    assert not done["ok"] and done["raw"] is None
    plant.listener.forget()
    plant.start_daemon()
    plant.wait_online()
    assert_only_this_one_arrives(plant, 1)


def test_a_write_while_the_daemon_does_not_answer_is_refused_and_forgotten(plant):
    plant.start(**AT_ONCE, write=WRITE)
    held = plant.daemon.process
    held.send_signal(signal.SIGSTOP)
    done = plant.write("operator", "motor/setpoint", 666)
    assert not done["ok"]
    held.send_signal(signal.SIGCONT)
    plant.listener.forget()
    assert_only_this_one_arrives(plant, 1)


def test_no_more_than_64_writes_wait_for_the_daemon(plant):
    plant.start(**AT_ONCE, write=WRITE)
    assert_only_this_one_arrives(plant, 0)
    plant.listener.forget()
    held = plant.daemon.process
    held.send_signal(signal.SIGSTOP)
    for value in range(1, 66):
        plant.listener.publish_soon("set/operator/motor/setpoint", value, qos=0)
        time.sleep(0.005)
    refused = plant.listener.wait("done").json
    held.send_signal(signal.SIGCONT)
    assert (refused["value"], refused["error"]) == (65, "too many writes wait for the daemon")
    plant.only_frames(*(setpoint(value) for value in range(1, 65)))


def test_a_write_while_the_gateway_is_away_is_forgotten(plant):
    plant.start(**AT_ONCE, write=WRITE)
    plant.stop_gateway()
    plant.listener.publish("set/operator/motor/setpoint", 666)
    plant.start(**AT_ONCE, write=WRITE)
    assert_only_this_one_arrives(plant, 1)


def test_a_write_while_the_gateway_was_killed_is_forgotten(plant):
    plant.start(**AT_ONCE, write=WRITE)
    plant.gateway.kill()
    plant.listener.publish("set/operator/motor/setpoint", 666)
    plant.start(**AT_ONCE, write=WRITE)
    assert_only_this_one_arrives(plant, 1)


def test_a_write_that_waited_in_a_gateway_that_was_held_is_not_obeyed(plant):
    plant.start(**AT_ONCE, write=WRITE)
    assert_only_this_one_arrives(plant, 1)
    plant.gateway.pause()
    plant.listener.publish("set/operator/motor/setpoint", 666)
    time.sleep(MAX_AGE + 2)  # less than what ends the connection
    plant.gateway.resume()
    assert_only_this_one_arrives(plant, 2)


@pytest.mark.parametrize("seconds", [MAX_AGE + 1, 12], ids=["short", "beyond the connection's end"])
def test_a_write_that_waited_in_the_network_is_not_obeyed(plant, seconds):
    relay = Relay(plant.broker.port)
    plant.start(**AT_ONCE, write=WRITE, broker={"url": f"mqtt://127.0.0.1:{relay.port}"})
    assert_only_this_one_arrives(plant, 1)
    relay.stall("down")
    plant.listener.publish("set/operator/motor/setpoint", 666)
    time.sleep(seconds)
    relay.carry()
    assert_only_this_one_arrives(plant, 2)
    relay.close()


def test_a_write_while_the_network_is_cut_is_forgotten(plant):
    relay = Relay(plant.broker.port)
    plant.start(**AT_ONCE, write=WRITE, broker={"url": f"mqtt://127.0.0.1:{relay.port}"})
    relay.shut()
    plant.listener.wait_last("status", b'{"online":false}')
    plant.listener.publish("set/operator/motor/setpoint", 666)
    plant.listener.forget()
    relay.open()
    plant.wait_online()
    assert_only_this_one_arrives(plant, 1)
    relay.close()


def test_a_connection_that_orders_do_not_come_through_is_made_anew(tmp_path, make_plant):
    rules = tmp_path / "acl"
    everything, nothing_back = "topic readwrite #\n", "topic write vorbel/7/#\ntopic read vorbel/7/done\n"
    rules.write_text(everything)
    broker = Mosquitto(tmp_path, "allow_anonymous true", f"acl_file {rules}").start()
    plant = make_plant(broker=broker)
    plant.start(**AT_ONCE, write={**WRITE, "max_age_s": 1})
    assert_only_this_one_arrives(plant, 1)
    rules.write_text(nothing_back)
    broker.reload()
    plant.gateway.wait_for("warning broker: orders do not come through any more; trying again")
    plant.listener.publish("set/engineer/motor/setpoint", 666)
    rules.write_text(everything)
    broker.reload()
    assert_only_this_one_arrives(plant, 2)
    assert len(plant.listener.of("status")) == 1  # the values' own connection stayed


def test_a_write_that_the_broker_delivers_again_is_done_once(plant):
    relay = Relay(plant.broker.port)
    plant.start(**AT_ONCE, write=WRITE, broker={"url": f"mqtt://127.0.0.1:{relay.port}"})
    assert_only_this_one_arrives(plant, 1)
    relay.stall("up")  # the broker never hears that it was delivered
    plant.listener.publish("set/operator/motor/setpoint", 5)
    assert plant.frames(1) == [setpoint(5)]
    relay.cut()
    plant.listener.wait_last("status", b'{"online":false}')
    plant.listener.forget()
    relay.carry()
    plant.wait_online()
    assert_only_this_one_arrives(plant, 2)
    relay.close()


def test_the_pulse_is_the_gateways_own(plant):
    plant.start(**AT_ONCE, write=WRITE)
    messages = plant.listener.wait_count("pulse", 2)
    assert all(message.qos == 0 and not message.retain for message in messages)


def test_what_is_kept_is_never_obeyed(plant):
    plant.listen()
    plant.listener.publish("set/operator/motor/setpoint", 666, retain=True)
    plant.listener.publish("schema/set", {"valve": SCHEMA["valve"]}, retain=True)
    plant.start(**AT_ONCE, write=WRITE, schema={"accept": True})
    assert_only_this_one_arrives(plant, 1)
    assert plant.listener.of("schema")[-1].json == SCHEMA
