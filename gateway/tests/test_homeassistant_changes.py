"""When Home Assistant finds what, and what becomes of it when leaves disappear."""

from gatewayharness import PATIENCE, retained
from harness import wait_until
from homeassistant import ALL, ENABLED, SCHEMA, configurations, content_of, wait_for_paths


def test_without_a_user_nothing_can_be_written(make_plant):
    plant = make_plant(schema=SCHEMA)
    plant.start(homeassistant={"enabled": True})
    found = wait_for_paths(plant, *ALL)
    components = {component for those in found.values() for component, _ in those}
    assert components <= {"sensor", "binary_sensor"}
    assert not any("command_topic" in content for those in found.values() for _, content in those)


def test_nothing_is_found_by_default(make_plant):
    plant = make_plant(schema=SCHEMA)
    plant.start()
    plant.listener.wait("schema")
    assert configurations(plant) == {}


def test_another_prefix(make_plant):
    plant = make_plant(schema=SCHEMA)
    plant.start(homeassistant={"enabled": True, "prefix": "house/ha"})
    wait_until(lambda: any(topic.startswith("house/ha/sensor/") for topic in retained(plant.broker.port)), PATIENCE,
               "what is found")
    assert configurations(plant) == {}


def test_what_disappears_is_removed(make_plant):
    plant = make_plant(schema=SCHEMA)
    plant.start(**ENABLED)
    wait_for_paths(plant, *ALL)
    plant.listener.publish("schema/set", {"oven": {"heat": SCHEMA["oven"]["heat"]}})
    wait_for_paths(plant, "oven/heat")


def test_what_disappeared_while_the_gateway_was_away_is_removed(make_plant):
    plant = make_plant(schema=SCHEMA)
    plant.start(**ENABLED)
    wait_for_paths(plant, *ALL)
    plant.stop_gateway()
    plant.set_schema_file({"oven": {"heat": SCHEMA["oven"]["heat"]}})
    plant.start(**ENABLED)
    wait_for_paths(plant, "oven/heat")


def test_a_leaf_that_becomes_another_thing_is_found_once(make_plant):
    plant = make_plant(schema={"valve": {"@mac": 5, "@cmd": 1, "@format": "C"}})
    plant.start(**ENABLED)
    wait_for_paths(plant, "valve")
    plant.listener.publish("schema/set", {"valve": {"@mac": 5, "@cmd": 1, "@format": "C", "@asBool": True}})
    wait_until(lambda: [component for component, _ in configurations(plant).get("valve", [])] == ["binary_sensor"],
               PATIENCE, "one binary sensor")


def device_names(plant):
    """All that the device was ever called."""
    return {content_of(message.payload)["device"]["name"] for message in plant.listener.everything()
            if message.topic.startswith("homeassistant/") and message.payload}


def test_the_device_has_its_name_from_the_beginning(make_plant):
    """Brokers are there before the daemon has said what it is."""
    plant = make_plant(schema=SCHEMA)
    plant.stop_daemon()
    plant.start(wait=False, **ENABLED)
    plant.listener.wait("schema")
    plant.start_daemon()
    wait_for_paths(plant, *ALL)
    assert device_names(plant) == {"unknown 7"}


def test_a_board_that_becomes_another_is_named_anew(make_plant):
    plant = make_plant(schema=SCHEMA)
    plant.start(**ENABLED)
    wait_for_paths(plant, *ALL)
    plant.stop_daemon()
    plant.environment = {"VORBEL_DEVICE_TYPE": "press"}
    plant.start_daemon()
    wait_until(lambda: {content["device"]["name"] for those in configurations(plant).values()
                        for _, content in those} == {"press 7"}, PATIENCE, "the new name")
    assert device_names(plant) == {"unknown 7", "press 7"}


def test_a_broker_that_has_forgotten_everything_is_told_again(make_plant):
    plant = make_plant(schema=SCHEMA)
    plant.start(**ENABLED)
    before = wait_for_paths(plant, *ALL)
    plant.broker.stop()
    plant.broker.start()
    assert wait_for_paths(plant, *ALL) == before
