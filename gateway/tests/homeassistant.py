"""What a broker keeps for Home Assistant, as that reads it."""

import json

from gatewayharness import PATIENCE, retained
from harness import wait_until

SCHEMA = {
    "oven": {
        "heat": {"@mac": 5, "@cmd": 2, "@format": "S", "@factor": 10, "title": "Heat", "unit": "°C", "decimals": 1},
        "open": {"@mac": 5, "@cmd": 3, "@format": "C", "@asBool": True, "title": "Door"},
        "target": {"@mac": 5, "@cmd": 4, "@format": "S", "title": "Target", "unit": "°C", "min": 20, "max": 250},
        "mode": {"@mac": 5, "@cmd": 5, "@format": "C", "labels": {"0": "off", "1": "bake", "2": "grill"}},
        "light": {"@mac": 5, "@cmd": 6, "@format": "C", "labels": {"0": "off", "1": "on"}},
    },
    "a/b c": {"@mac": 6, "@cmd": 1, "@format": "C"},
}
LONG_NAMES = {"stat_t": "state_topic", "cmd_t": "command_topic", "unit_of_meas": "unit_of_measurement",
              "dev_cla": "device_class", "uniq_id": "unique_id", "avty": "availability", "avty_t": "availability_topic",
              "ops": "options", "dev": "device"}
ENABLED = {"homeassistant": {"enabled": True, "user": "home"}, "write": {"users": "home: *"},
           "schema": {"accept": True}, "values": {"interval_ms": 0}}


def configurations(plant):
    """What is kept for Home Assistant: (component, content) by the path of the state's or the command's topic."""
    found = {}
    for topic, payload in retained(plant.broker.port).items():
        if topic.startswith("homeassistant/"):
            component = topic.split("/")[1]
            assert topic.endswith("/config") and len(topic.split("/")) in (4, 5)
            found.setdefault(path_of(payload), []).append((component, content_of(payload)))
    return found


def content_of(payload):
    return {LONG_NAMES.get(key, key): value for key, value in json.loads(payload).items()}


def path_of(payload):
    content = content_of(payload)
    topic = content.get("state_topic", content.get("command_topic", ""))
    return topic.replace("vorbel/7/now/", "").replace("vorbel/7/set/home/", "")


def wait_for_paths(plant, *paths):
    """Waits until these paths and no others have a configuration, and returns all."""
    wait_until(lambda: set(configurations(plant)) == set(paths), PATIENCE, f"{paths} to be found, and no others")
    return configurations(plant)


ALL = ("oven/heat", "oven/open", "oven/target", "oven/mode", "oven/light", "a%2Fb%20c")
